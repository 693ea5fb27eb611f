// run.cpp - one run of the sub-service for the zelrzp-manager program: the sub-service's
// path, the bundle directory entered, the sandbox with the release files of the distribution
// simulated, the conversation (open, parse, every item) and the analysis of its messages.
// Writes the process's working directory, its SP3 environment variable and, through the
// sandbox, its mount namespace; one run at a time per process.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zelcli.h"
#include "zelfindings.h"

#ifndef ZEL_DEFAULT_PARSER
#define ZEL_DEFAULT_PARSER "/usr/local/bin/zelparser"
#endif

// ---- Setting up --------------------------------------------------------------------------------

static std::string DefaultParser()
{
    char Self[PATH_MAX];
    ssize_t N = readlink("/proc/self/exe", Self, sizeof Self - 1);
    if (N > 0) {
        Self[N] = '\0';
        std::string Beside = Self;
        Beside = Beside.substr(0, Beside.rfind('/') + 1) + "zelparser";
        if (access(Beside.c_str(), X_OK) == 0)
            return Beside;
    }
    return ZEL_DEFAULT_PARSER;
}

// The release files of one run: the chosen distribution's, or the --release texts.
static std::vector<CliRelease> ReleasesOf(const CliOptions &O, const CliDistro *D)
{
    if (D == nullptr)
        return O.Releases;
    std::vector<CliRelease> Files;
    for (const CliRelease &R : D->Files)
        if (!R.File.empty())
            Files.push_back(R);
    return Files;
}

// The sub-service starts in our current directory. Entering it before the sandbox keeps a
// bundle under /tmp reachable, although the sandbox puts a fresh /tmp over it.
int CliEnterBundleDir(CliOptions *O, std::string *Error)
{
    char Resolved[PATH_MAX];
    if (O->ParserPath.empty())
        O->ParserPath = DefaultParser();
    if (realpath(O->ParserPath.c_str(), Resolved) != nullptr)
        O->ParserPath = Resolved;
    struct stat St;
    if (stat(O->BundleDir.c_str(), &St) != 0 || !S_ISDIR(St.st_mode)) {
        *Error = O->BundleDir + " is not a directory";
        return -1;
    }
    if (chdir(O->BundleDir.c_str()) != 0) {
        *Error = "cannot enter " + O->BundleDir + ": " + strerror(errno);
        return -1;
    }
    return 0;
}

// Enters the sandbox with the given release files (this process must be single-threaded).
static int EnterSandbox(const std::vector<CliRelease> &Files, bool Sp3, std::string *Error)
{
    if (Sp3)
        setenv("SP3", "YES", 1);
    else
        unsetenv("SP3");
    if (SandboxEnter() != 0 || SandboxClearReleaseFiles() != 0) {
        *Error = "cannot enter the sandbox (the reason is on standard error)";
        return -1;
    }
    for (const CliRelease &R : Files)
        if (SandboxSetFile(R.File.c_str(), R.Text.c_str()) != 0) {
            *Error = "cannot write " + R.File + " in the sandbox";
            return -1;
        }
    return 0;
}

static ZmConfig ConfigFor(const CliOptions &O)
{
    ZmConfig C;
    C.ParserPath = O.ParserPath;
    C.BundleDir = ".";
    C.Args.push_back("-V"); // its progress lines tell which file each message concerns
    if (O.Debug)
        C.Args.push_back("--DEBUG");
    if (O.NUI)
        C.Args.push_back("--NUI");
    if (!O.View.empty())
        C.Args.insert(C.Args.end(), {"--VIEW", O.View});
    for (const std::string &P : O.Packages)
        C.Args.insert(C.Args.end(), {"-C", P});
    C.ErrataUnsupported = O.ErrataUnsupported;
    C.EchoScreen = C.EchoConsole = O.Verbose || O.Debug;
    C.EchoScreen = C.EchoScreen || O.EchoScreen;
    C.EchoFd = O.EchoFd;
    if (!O.LogFileName.empty())
        C.LogFileName = O.LogFileName;
    C.TimeoutMs = O.TimeoutSeconds * 1000;
    return C;
}

// ---- The conversation --------------------------------------------------------------------------

int CliFailed(CliRun *Run, const char *Stage, int Code, const std::string &What)
{
    Run->Failure = CliFailureJson(Stage, Code, What);
    return -1;
}

// The text of a one-string answer, or "" when it has none.
static std::string AnswerText(const ZmPacket &P)
{
    ZmReader R = ZmReaderOf(P.Payload);
    std::string Text;
    return ZmReadStringItem(&R, "answer", &Text, nullptr, false) ? Text : std::string();
}

static size_t MessageCount(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->Messages.size();
}

static int OpenBundle(CliRun *Run)
{
    ZmPacket A;
    int Asked = ZmRequest(Run->Session, RZP_PARSER_OPEN_INPUT_FILE, {}, &A);
    ZmSyncConsole(Run->Session);
    Run->OpenEnd = MessageCount(Run->Session);
    if (Asked != 0)
        return CliFailed(Run, "open", 0, "the sub-service did not answer open input file");
    if (A.Header.ReturnCode != 0)
        return CliFailed(Run, "open", A.Header.ReturnCode, ""); // explained from the verdicts
    if (Run->Tqr)
        return 0;
    Run->BundleName = AnswerText(A);
    return 0;
}

static int ParseBundle(CliRun *Run)
{
    ZmPacket A;
    if (ZmRequest(Run->Session, RZP_PARSER_PARSE_INPUT_FILE, {}, &A) != 0)
        return CliFailed(Run, "parse", 0, "the sub-service did not answer parse input file");
    if (A.Header.ReturnCode == RZP_PARSER_BAD_XML)
        return CliFailed(Run, "parse", RZP_PARSER_BAD_XML,
                         "the version or the name of the bundle XML file cannot be read (-504)");
    if (A.Header.ReturnCode != 0)
        return CliFailed(Run, "parse", A.Header.ReturnCode,
                         "parse input file was answered " + ZmResultText(A.Header.ReturnCode));
    if (!Run->Tqr)
        Run->BundleFile = AnswerText(A);
    std::string Error;
    if (ZmFetchAllRecords(Run->Session, nullptr, &Run->Records, &Run->NumberOfItems, &Error) != 0)
        return CliFailed(Run, "items", 0, Error);
    Run->HaveItems = true;
    return 0;
}

static void Converse(const CliOptions &O, CliRun *Run)
{
    ZmSession S;
    std::string Error;
    Run->Session = &S;
    Run->Tqr = !O.Packages.empty();
    if (ZmStart(&S, ConfigFor(O), &Error) != 0) {
        CliFailed(Run, "start", 0, "cannot start the sub-service: " + Error);
    } else {
        bool Planned = OpenBundle(Run) == 0 && ParseBundle(Run) == 0;
        // Asked to end after a failure too: its last console lines (why it failed) are read
        // before the session closes, not lost with a killed process.
        if (ZmStop(&S) < 0 && Planned)
            CliFailed(Run, "stop", 0, "the sub-service did not shut down in time and was killed");
    }
    ZmClose(&S);
    std::vector<ZmMessage> Messages;
    {
        std::lock_guard<std::mutex> Guard(S.Lock);
        Messages = S.Messages;
    }
    if (Run->OpenEnd == 0)
        Run->OpenEnd = Messages.size();
    if (O.KeepMessages != nullptr)
        *O.KeepMessages = Messages;
    ZfAnalysis A;
    ZfAnalyse(Messages, Run->OpenEnd, Run->BundleFile, O.Verbose || O.Debug, &A);
    Run->Session = nullptr;
    CliAnalysisJson(A, &Run->Result);
}

// ---- One run -----------------------------------------------------------------------------------

static Json DistributionJson(const CliOptions &O, const CliDistro *D,
                             const std::vector<CliRelease> &Files)
{
    Json Releases = Json::object();
    for (const CliRelease &F : Files)
        Releases[F.File] = F.Text;
    bool Simulated = D != nullptr || !O.Releases.empty();
    return {{"name", D ? Json(D->Name) : Json(nullptr)},
            {"description", D           ? D->Description
                            : Simulated ? "given release files"
                                        : "this system"},
            {"simulated", Simulated},
            {"releaseFiles", Releases}};
}

Json CliRunOne(CliOptions O, const CliDistro *D, bool EnterDir)
{
    CliRun Run;
    std::vector<CliRelease> Files = ReleasesOf(O, D);
    bool Simulate = D != nullptr || !O.Releases.empty();
    Run.Result["distribution"] = DistributionJson(O, D, Files);
    Run.Result["bundleDirectory"] = O.BundleDir;
    std::string Error;
    if (EnterDir && CliEnterBundleDir(&O, &Error) != 0) {
        CliFailed(&Run, "setup", 0, Error);
    } else if (!Simulate && geteuid() != 0) {
        CliFailed(&Run, "setup", 0,
                  "running the sub-service on this system needs root (it reads this machine's "
                  "release file and writes under /dev and /tmp); as an ordinary user simulate a "
                  "distribution with --distro=NAME or --all-distros");
    } else if (Simulate && EnterSandbox(Files, D != nullptr ? D->Sp3 : O.Sp3, &Error) != 0) {
        CliFailed(&Run, "setup", 0, Error);
    } else {
        Converse(O, &Run);
    }
    CliComplete(&Run, O);
    return Run.Result;
}
