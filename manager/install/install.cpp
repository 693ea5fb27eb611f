// install.cpp - zelrzp-manager install: the start that is refused unless it is safe (root, files
// no one else can change, the state directory's lock), the journal and the log opened, the plan
// made by the real sub-service on this machine (its screen lines shown, its log lines logged),
// every component taken in record order, and the result. Writes the working directory (the
// bundle directory), the signal dispositions of SIGINT and SIGTERM, and standard output.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "install.h"
#include "packages.h"

void InLog(InRun *Run, const std::string &Line)
{
    if (Run->LogFd < 0)
        return;
    std::string Text = InMask(Line, Run->Secrets) + "\n";
    if (write(Run->LogFd, Text.data(), Text.size()) < 0) {
        // a full disk must not stop an install half-way; the journal says what happened
    }
}

static bool IsBundleFileName(const char *Name)
{
    std::string Upper = Name;
    for (char &Ch : Upper)
        Ch = (char)toupper((unsigned char)Ch);
    return Upper.find(".XML") != std::string::npos && Upper.find("BP0") != std::string::npos;
}

// The bundle directory, its ancestors and every bundle XML file in it.
static int TrustBundle(const std::string &Dir, std::string *Why)
{
    if (InTrustDirectory(Dir, Why) != 0)
        return -1;
    std::vector<std::string> Names;
    if (DIR *D = opendir(Dir.c_str())) {
        while (struct dirent *E = readdir(D))
            if (IsBundleFileName(E->d_name))
                Names.push_back(E->d_name);
        closedir(D);
    }
    for (const std::string &N : Names)
        if (InTrustPath(Dir + "/" + N, Why) != 0)
            return -1;
    return 0;
}

static int OpenLog(InRun *Run, std::string *Why)
{
    if (Run->O.DryRun)
        return 0;
    Run->LogPath = Run->O.LogFile;
    if (Run->LogPath.empty()) {
        if (InMakeDirectories("/var/log/zelparser", 0750, Why) != 0)
            return -1;
        Run->LogPath = "/var/log/zelparser/install-" + Run->Journal.Id + ".log";
    }
    Run->LogFd = open(Run->LogPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW,
                      0600);
    if (Run->LogFd < 0) {
        *Why = "cannot write the log " + Run->LogPath + ": " + strerror(errno);
        return -1;
    }
    return 0;
}

// Everything that must hold before the sub-service starts. 0, or the exit status with *Why.
static int Prepare(InRun *Run, std::string *Why)
{
    InOptions &O = Run->O;
    char Real[PATH_MAX];
    if (geteuid() != 0) {
        *Why = "install needs root: it runs the bundle's commands and writes their "
               "configuration (check or --dry-run as root say what it would do)";
        return IN_REFUSED_START;
    }
    if (realpath(O.BundleDir.c_str(), Real) == nullptr) {
        *Why = O.BundleDir + ": " + strerror(errno);
        return CLI_USAGE;
    }
    O.BundleDir = Real;
    std::vector<std::string> Errors;
    if (!O.AnswersFile.empty() && CkReadAnswers(O.AnswersFile, &Run->Answers, &Errors) != 0 &&
        !Run->Answers.Given) {
        *Why = Errors[0];
        return CLI_USAGE;
    }
    for (const std::string &E : Errors)
        fprintf(stderr, "zelrzp-manager install: %s\n", E.c_str());
    if (TrustBundle(O.BundleDir, Why) != 0)
        return IN_REFUSED_START;
    if (!O.DryRun) {
        int Opened = InJournalOpen(O.StateDir, &Run->Journal, Why);
        if (Opened != 0)
            return IN_REFUSED_START;
    }
    return OpenLog(Run, Why) == 0 ? 0 : IN_REFUSED_START;
}

// The plan of this machine from the real sub-service; its log lines go to the install's log.
static void MakePlan(InRun *Run)
{
    CliOptions CO;
    CO.BundleDir = Run->O.BundleDir;
    CO.ParserPath = Run->O.ParserPath;
    CO.TimeoutSeconds = Run->O.TimeoutSeconds;
    CO.LogFileName = Run->LogPath.empty() ? "/dev/null" : Run->LogPath;
    CO.EchoScreen = true;
    CO.EchoFd = Run->O.Json ? 2 : 1;
    std::vector<ZmMessage> Messages;
    CO.KeepMessages = &Messages;
    fflush(stdout);
    Run->Plan = CliRunOne(CO, nullptr, true);
    for (const ZmMessage &M : Messages) {
        size_t End = M.Text.find_last_not_of("\n");
        if (M.Source == ZM_LOG && End != std::string::npos)
            InLog(Run, "zelparser: " + M.Text.substr(0, End + 1));
    }
    if (Run->Plan["bundle"].is_object())
        Run->BundleFile = CliStr(Run->Plan["bundle"]["file"]);
    if (Run->BundleFile.compare(0, 2, "./") == 0)
        Run->BundleFile.erase(0, 2); // the sub-service names it as it found it in "."
}

// Every component file and XML file of the plan, and an answers file that holds a password.
static int TrustPlan(InRun *Run, std::string *Why)
{
    for (const Json &C : Run->Plan["components"]) {
        std::string File = CliStr(C["file"]);
        for (const std::string &F : {File, InXmlFileOf(File)})
            if (InTrustPath(Run->O.BundleDir + "/" + F, Why) != 0)
                return -1;
        for (const char *Phase : {"preConfiguration", "postConfiguration"})
            for (const Json &V : C[Phase]) {
                auto Answer = Run->Answers.Values.find(CliStr(V["outputName"]));
                if (!CkIsPassword(V) || Answer == Run->Answers.Values.end())
                    continue;
                Run->Secrets.push_back(Answer->second);
                if (InTrustSecretFile(Run->O.AnswersFile, Why) != 0)
                    return -1;
            }
    }
    return 0;
}

// The facts of this machine and its distribution as the sub-service detects it.
static void ReadMachine(InRun *Run)
{
    std::string Error;
    CkLoadFacts("/", true, &Run->Facts, &Error);
    char Name[OS_NAME_MAX] = {}, Version[OS_NAME_MAX] = {};
    DetectInstalledOS(Name, Version);
    Run->CheckPlan.Result = Run->Plan;
    Run->CheckPlan.OSName = Name;
    Run->CheckPlan.OSVersion = Version;
    for (const Json &C : Run->Plan["components"])
        CkLocatePrepare(CliStr(C["file"]));
    Run->Past = InJournalPast(InJournalEvents(Run->O.StateDir));
}

static bool Fine(const Json &C, bool DryRun)
{
    std::string State = CliStr(C["state"]);
    bool Holds = !C.contains("postrequisitesHold") || C["postrequisitesHold"].get<bool>();
    return Holds && (State == "installed" || State == "already-installed" ||
                     (DryRun && State == "would-install"));
}

// A component that never reached its steps: shown, and journaled for the history.
static Json Unreached(InRun *Run, const Json &Record, const char *State, const std::string &Reason)
{
    InJournalWrite(&Run->Journal, {{"event", "component"},
                                   {"component", Record["file"]},
                                   {"state", State},
                                   {"reason", Reason}});
    InLog(Run, "component " + CliStr(Record["file"]) + ": " + State + ": " + Reason);
    return {{"file", Record["file"]},
            {"name", Record["name"]},
            {"version", Record["version"]},
            {"state", State},
            {"reason", Reason},
            {"exitStatus", nullptr},
            {"reboot", false},
            {"requisites", Json::array()},
            {"configuration", Json::array()},
            {"configurationChanges", Json::array()}};
}

static Json Components(InRun *Run, bool *Clean)
{
    Json List = Json::array();
    auto Take = [&](Json C) { // shown as soon as it is done
        if (!Run->O.Json)
            InPrintComponent(C);
        *Clean = *Clean && Fine(C, Run->O.DryRun);
        List.push_back(std::move(C));
    };
    Run->Ask = Run->O.AnswersFile.empty() && isatty(0);
    for (const Json &Record : Run->Plan["components"])
        Take(InSignalsSeen() > 0
                 ? Unreached(Run, Record, "interrupted", "not started: the install was stopped")
                 : InInstallComponent(Run, Record));
    for (const Json &Refused : Run->Plan["refused"])
        Take(Unreached(Run,
                       {{"file", Refused["component"]}, {"name", nullptr}, {"version", nullptr}},
                       "not-recorded", CliStr(Refused["reason"])));
    return List;
}

static Json Result(const InRun &Run, const std::string &Failure)
{
    return {{"bundleDirectory", Run.O.BundleDir},
            {"bundleFile", CliNullIfEmpty(Run.BundleFile)},
            {"distribution", Run.Plan.is_object() ? CliNullIfEmpty(CliStr(Run.Plan["installedOS"]))
                                                  : Json(nullptr)},
            {"dryRun", Run.O.DryRun},
            {"install", CliNullIfEmpty(Run.O.DryRun ? "" : Run.Journal.Id)},
            {"log", CliNullIfEmpty(Run.LogPath)},
            {"failure", CliNullIfEmpty(Failure)},
            {"components", Json::array()},
            {"rebootRequired", false},
            {"exitStatus", 0}};
}

static int End(InRun *Run, Json R, int Status)
{
    R["exitStatus"] = Status;
    InJournalWrite(&Run->Journal, {{"event", "end"}, {"exitStatus", Status}});
    InLog(Run, "install " + Run->Journal.Id + " ended with exit status " + std::to_string(Status));
    if (!R["failure"].is_null())
        fprintf(stderr, "zelrzp-manager install: %s\n", CliStr(R["failure"]).c_str());
    if (Run->O.Json)
        CliPrintJson(R);
    else if (R["failure"].is_null() || !R["components"].empty())
        InPrintEnd(R);
    InJournalClose(&Run->Journal);
    CkCloseFacts(&Run->Facts);
    if (Run->LogFd >= 0)
        close(Run->LogFd);
    return Status;
}

static int Install(InRun *Run)
{
    InJournalWrite(
        &Run->Journal,
        {{"event", "begin"}, {"bundleDirectory", Run->O.BundleDir}, {"log", Run->LogPath}});
    InLog(Run,
          "install " + Run->Journal.Id + " of " + Run->O.BundleDir + " started " + InTimeText());
    MakePlan(Run);
    InJournalWrite(&Run->Journal, {{"event", "plan"},
                                   {"bundleFile", CliNullIfEmpty(Run->BundleFile)},
                                   {"distribution", Run->Plan["installedOS"]}});
    std::string Why;
    if (Run->Plan["exitStatus"] == CLI_NO_PLAN)
        return End(Run, Result(*Run, CliStr(Run->Plan["failure"]["what"])), CLI_NO_PLAN);
    if (TrustPlan(Run, &Why) != 0)
        return End(Run, Result(*Run, Why), IN_REFUSED_START);
    ReadMachine(Run);
    bool Clean = true;
    Json R = Result(*Run, "");
    R["components"] = Components(Run, &Clean);
    for (const Json &C : R["components"])
        if ((C["state"] == "installed" || C["state"] == "would-install") && C["reboot"] == true)
            R["rebootRequired"] = true;
    return End(Run, std::move(R), Clean ? CLI_CLEAN : CLI_FINDINGS);
}

int InstallMain(int Argc, char **Argv)
{
    InRun Run;
    int Parsed = InParseInstall(Argc, Argv, &Run.O);
    if (Parsed <= 0)
        return Parsed == 0 ? CLI_CLEAN : CLI_USAGE;
    std::string Why;
    int Refused = Prepare(&Run, &Why);
    if (Refused != 0) {
        fprintf(stderr, "zelrzp-manager install: %s\n", Why.c_str());
        if (Run.O.Json) {
            Json R = Result(Run, Why);
            R["exitStatus"] = Refused;
            CliPrintJson(R);
        }
        InJournalClose(&Run.Journal);
        return Refused;
    }
    InCatchSignals();
    return Install(&Run);
}
