// install.h - the zelrzp-manager commands install and history: the installation of a bundle on
// the running system (the plan made by the real sub-service, each component judged with the
// check's rules, its configuration written, its command run), the journal that lets a crashed
// install resume without running anything twice, and the history read back from it.
// Only manager/install/*.cpp and the program's dispatch include it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "check.h"

// Exit status beside the program's own (0 clean, 1 findings, 2 usage, 3 no plan): the install
// did not start (not root, a file it would trust is not trustworthy, another install holds the
// state directory's lock, the journal or the log cannot be written).
enum { IN_REFUSED_START = 4 };

struct InOptions {
    std::string BundleDir, AnswersFile, LogFile, ParserPath;
    std::string StateDir = "/var/lib/zelparser";
    bool DryRun = false, Json = false, RetryInterrupted = false;
    int CommandTimeout = 1800, TimeoutSeconds = 60;
};

// command_line.cpp: the options of install and history; 1 to run, 0 to end with success
// (help), -1 on a usage error (said on standard error).
int InParseInstall(int Argc, char **Argv, InOptions *O);
int InParseHistory(int Argc, char **Argv, InOptions *O);

// ---- Trust -------------------------------------------------------------------------------------

// trust.cpp: a path the installer would act on as root must belong to root and be writable by
// no one else (a directory's ancestors too, a sticky root-owned one excepted). 0, or -1 with
// *Why naming the path and what is wrong.
int InTrustPath(const std::string &Path, std::string *Why);
int InTrustDirectory(const std::string &Dir, std::string *Why);
// An answers file that holds a password may be read by root alone (and its group when that is
// root's). 0, or -1 with *Why.
int InTrustSecretFile(const std::string &Path, std::string *Why);

// ---- Journal -----------------------------------------------------------------------------------

// One line of JSON per event, appended and forced to the disk before the step it announces and
// after the step it ends. Events: begin, plan, step (start/end of pre-configuration, command,
// post-configuration), component (the outcome), end.
struct InJournal {
    std::string Dir, Path, Id; // state directory, its journal file, this install's id
    int Fd = -1, LockFd = -1;
};
// What the journal says of one component (bundle file, component file, content digest).
struct InPast {
    bool Installed = false;        // an install ended with it installed
    bool CommandRunning = false;   // its command started and no end was written
    bool CommandSucceeded = false; // its command ended with 0, its install did not end
    std::string StartedBy;         // the install whose command start has no end
};
// Creates the state directory, takes its lock and opens the journal for appending.
// 0; -1 with *Error; -2 when another install holds the lock (*Error says which).
int InJournalOpen(const std::string &StateDir, InJournal *J, std::string *Error);
void InJournalClose(InJournal *J);
// Appends Event with the time and the install's id and forces it to the disk (0 or -1).
int InJournalWrite(InJournal *J, Json Event);
// Every event of the journal in StateDir, in order; a line cut by a crash is passed over.
std::vector<Json> InJournalEvents(const std::string &StateDir);
// The state of every component key after the given events.
std::map<std::string, InPast> InJournalPast(const std::vector<Json> &Events);
std::string InComponentKey(const std::string &BundleFile, const std::string &File,
                           const std::string &Digest);
// A field of a JSON object, null when it has none (or is no object): journals are read back from
// disk, where anything may stand.
const Json &InField(const Json &Object, const char *Key);
// mkdir -p: every missing directory of Dir made with Mode. 0, or -1 with *Error.
int InMakeDirectories(const std::string &Dir, mode_t Mode, std::string *Error);
std::string InTimeText(void); // now, ISO 8601 in UTC with milliseconds

// ---- Configuration files -----------------------------------------------------------------------

struct InValue {
    std::string Name, Value, File;
    bool Password = false;
};
// A line that is or would be changed; a password's value is shown as ********.
struct InChange {
    std::string File, Name, Before, After;
    bool HadBefore = false, Password = false;
};
// config_files.cpp: the lines Values would change in their files (read, never written).
int InConfigChanges(const std::vector<InValue> &Values, std::vector<InChange> *Changes,
                    std::string *Error);
// Writes Values to their files, each file whole or not at all. 0, or -1 with *Error.
int InConfigWrite(const std::vector<InValue> &Values, std::string *Error);

// ---- Commands ----------------------------------------------------------------------------------

struct InCommandResult {
    int ExitStatus = -1; // 0..255, or -1 when it did not exit by itself
    int Signal = 0;      // the signal that ended it
    bool TimedOut = false, Stopped = false, StartFailed = false;
    double Seconds = 0;
    std::vector<std::string> Tail; // its last lines of output
};
// command.cpp: SIGINT and SIGTERM noted instead of ending the program; the count so far.
void InCatchSignals(void);
int InSignalsSeen(void);
// Runs Command with /bin/sh -c in Dir, in a process group of its own, standard input from
// /dev/null, its output written to LogFd line by line (Secrets replaced by ********), for at
// most TimeoutSeconds. A second signal ends its process group. 0 when it ran (whatever its exit
// status), -1 when it could not be started.
int InRunCommand(const std::string &Command, const std::string &Dir, int TimeoutSeconds, int LogFd,
                 const std::vector<std::string> &Secrets, InCommandResult *R);
// Text with every secret of at least 4 characters replaced by ********.
std::string InMask(std::string Text, const std::vector<std::string> &Secrets);

// ---- RPM ---------------------------------------------------------------------------------------

// rpm.cpp: the SHA-256 of the files' contents, one after the other, in hex ("" with *Error).
std::string InDigest(const std::vector<std::string> &Files, std::string *Error);
// The name-version-release of an RPM package file (0, or -1 when it is none).
int InRpmLabel(const std::string &File, std::string *Label);
// 1 when the RPM database (where librpm's configuration puts it) has Label installed, 0 when
// not, -1 when the database cannot be read.
int InRpmInstalled(const std::string &Label);

// ---- Prompts -----------------------------------------------------------------------------------

// prompt.cpp: on a terminal, asks for every variable of Component the answers leave missing
// (its prompt, limits and default shown, a password without echo) and adds the answers to A.
void InAskMissing(const Json &Component, CkAnswers *A);

// ---- The install -------------------------------------------------------------------------------

// install.cpp and component.cpp: one install.
struct InRun {
    InOptions O;
    InJournal Journal;
    int LogFd = -1;
    std::string LogPath, BundleFile;
    Json Plan;
    CkFacts Facts;
    CkPlan CheckPlan;
    CkAnswers Answers;
    std::map<std::string, InPast> Past;
    std::vector<std::string> Secrets; // password values, never shown
    bool Ask = false;                 // missing answers are asked on the terminal
};
// The component XML file beside a component file: its extension replaced by ".xml".
std::string InXmlFileOf(const std::string &File);
// Takes one component through its steps; returns its JSON (docs/install.md).
Json InInstallComponent(InRun *Run, const Json &Component);
// Appends a line to the install's log (nothing in a dry run).
void InLog(InRun *Run, const std::string &Line);
int InstallMain(int Argc, char **Argv);

// output.cpp: the screen's line for a component, and the whole result.
void InPrintComponent(const Json &C);
void InPrintEnd(const Json &Result);

// history.cpp: zelrzp-manager history.
int HistoryMain(int Argc, char **Argv);
