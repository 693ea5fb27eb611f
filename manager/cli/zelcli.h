// zelcli.h - the parts of the zelrzp-manager program shared by its files: the options of one
// invocation, the exit statuses, and the functions that run the sub-service once, judge the
// run and print it (table, JSON, support matrix).
// Only the program's own files (manager/cli/) and the report (manager/report/) include it.
#pragma once

#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "distros.h"
#include "zelrzpmanager.h"

struct ZfAnalysis;

using Json = nlohmann::ordered_json;

// Exit status: every component of the chosen bundle became an install record, with no fault
// reported; a plan was made but components were refused or files reported corrupt or missing;
// the command line was wrong; no plan (no bundle file, none or several supported, an empty
// plan, a sub-service that failed or could not be run).
enum { CLI_CLEAN = 0, CLI_FINDINGS = 1, CLI_USAGE = 2, CLI_NO_PLAN = 3 };

struct CliOptions {
    std::string BundleDir, ParserPath, View;
    const CliDistro *Distro = nullptr;
    std::vector<CliRelease> Releases;  // --release texts
    bool Sp3 = false;                  // with Releases: SP3=YES in the run's environment
    std::vector<std::string> Packages; // -C
    std::set<std::string> ErrataUnsupported;
    bool Json = false, Debug = false, Verbose = false, NUI = false, AllDistros = false;
    int TimeoutSeconds = 60;
    // For a manager that installs: the log file's name it answers, its screen (the
    // sub-service's output lines echoed to EchoFd as they come), and every message kept.
    std::string LogFileName;
    bool EchoScreen = false;
    int EchoFd = 2;
    std::vector<ZmMessage> *KeepMessages = nullptr;
};

// options.cpp: reads the command line into O; 1 to run, 0 to end with success (help,
// version, the list of distributions), -1 on a usage error (said on stderr).
int CliParseArguments(int Argc, char **Argv, CliOptions *O);

// True while a table goes to a terminal: the sub-service's colour sequences are kept.
// Set once by main before anything is printed.
extern bool CliColour;

// What one run found out; Result becomes the JSON object that every printer reads.
struct CliRun {
    Json Result;
    ZmSession *Session = nullptr;
    std::string BundleFile, BundleName;
    bool Tqr = false; // -C given: the sub-service names no bundle
    int32_t NumberOfItems = 0;
    bool HaveItems = false;
    std::vector<ZmRecord> Records;
    size_t OpenEnd = 0; // the messages up to the answer to open input file
    Json Failure;       // null, or {stage, code, what}
};

// run.cpp: resolves the sub-service's path and enters the bundle directory (0, or -1 with
// Error); one whole run in this process, which must be single-threaded when it simulates;
// a failure of the run at Stage (Code 0: none) recorded, returning -1.
int CliEnterBundleDir(CliOptions *O, std::string *Error);
Json CliRunOne(CliOptions O, const CliDistro *D, bool EnterDir);
int CliFailed(CliRun *Run, const char *Stage, int Code, const std::string &What);

// outcome.cpp: completes a run's Result (records, bundle, findings of its own) and
// judges it (failure text, outcome, exit status).
void CliComplete(CliRun *Run, const CliOptions &O);

// options.cpp: a --timeout value, 1 to 86400 seconds; false when it is none.
bool CliParseSeconds(const char *Text, int *Seconds);

// json.cpp: the pieces of a run's JSON object, and the object printed.
Json CliRecordJson(const ZmRecord &R);
void CliAnalysisJson(const ZfAnalysis &A, Json *Result);
Json CliFailureJson(const char *Stage, int Code, const std::string &What);
Json CliNullIfEmpty(const std::string &Text);
std::string CliStr(const Json &V); // "" unless a string
void CliPrintJson(const Json &R);

// table.cpp: one run as a table; the bundle files' verdicts (the matrix shows them too).
void CliPrintTable(const Json &R);
void CliTableVerdicts(const Json &R);

// matrix.cpp: every known distribution at once, as the JSON that --all-distros --json
// prints (enters the bundle directory); printed, returning the exit status; a component's
// verdict in one run ("recorded", "recorded with findings: ...", "refused: ...", "not
// recorded ...") and the components a run looked at (messages, records, refusals).
Json CliMatrixRun(CliOptions &O);
// The JSON object a sandboxed child wrote to the file Fd (read from its start, then closed),
// or null when it left none.
Json CliReadChildResult(int Fd);
int CliMatrix(CliOptions &O);
std::string CliComponentVerdict(const Json &R, const std::string &Component);
std::vector<std::string> CliComponentsOf(const Json &R);
