// cli.cpp - the zelrzp-manager program: runs the sub-service on a bundle directory, on this
// system or in the sandbox simulating a distribution (or every known distribution at once, in
// parallel sandboxes), fetches every install record and prints the install plan with every
// message of the sub-service tied to its file or component, as a table or as JSON, and exits
// with a status a script can trust. Owns the file-static option record of one invocation.
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sandbox.h"
#include "zelfindings.h"
#include "zellint.h"
#include "zelrzpmanager.h"

#ifndef ZEL_DEFAULT_PARSER
#define ZEL_DEFAULT_PARSER "/usr/local/bin/zelparser"
#endif
#ifndef ZEL_VERSION
#define ZEL_VERSION "0"
#endif

using Json = nlohmann::ordered_json;

// Exit status: every component of the chosen bundle became an install record, with no fault
// reported; a plan was made but components were refused or files reported corrupt or missing;
// the command line was wrong; no plan (no bundle file, none or several supported, an empty
// plan, a sub-service that failed or could not be run).
enum { CLI_CLEAN = 0, CLI_FINDINGS = 1, CLI_USAGE = 2, CLI_NO_PLAN = 3 };

struct CliRelease {
    std::string File;
    std::string Text;
};

struct CliDistro {
    const char *Name;
    const char *Description;
    CliRelease Files[2];
    bool Sp3; // SP3=YES in the environment (UnitedLinux 1.0 service pack 3)
};

// Release files of the distributions whose detection and bundle matching differ.
static const CliDistro Distros[] = {
    {"rh73", "Red Hat Linux 7.3",
     {{"/etc/redhat-release", "Red Hat Linux release 7.3 (Valhalla)\n"}, {}}, false},
    {"rhas21", "Red Hat Linux Advanced Server 2.1",
     {{"/etc/redhat-release", "Red Hat Linux Advanced Server release 2.1AS (Pensacola)\n"}, {}},
     false},
    {"rhel3", "Red Hat Enterprise Linux AS 3",
     {{"/etc/redhat-release", "Red Hat Enterprise Linux AS release 3 (Taroon)\n"}, {}}, false},
    {"sles7", "SuSE SLES 7",
     {{"/etc/SuSE-release", "SuSE SLES-7 (i386)\nVERSION = 7\n"}, {}}, false},
    {"sles8", "SuSE SLES 8 (SuSE release file only)",
     {{"/etc/SuSE-release", "SuSE SLES-8 (i386)\nVERSION = 8.1\n"}, {}}, false},
    {"sles8-ul", "SuSE SLES 8 with its UnitedLinux release file (detected as UnitedLinux 1.0)",
     {{"/etc/SuSE-release", "SuSE SLES-8 (i386)\nVERSION = 8.1\n"},
      {"/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"}},
     false},
    {"ul10", "UnitedLinux 1.0",
     {{"/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"}, {}}, false},
    {"ul10-sp3", "UnitedLinux 1.0 service pack 3 (SP3=YES)",
     {{"/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"}, {}}, true},
};

static const char *const ReleaseFiles[] = {"/etc/redhat-release", "/etc/SuSE-release",
                                           "/etc/UnitedLinux-release"};

struct CliOptions {
    std::string BundleDir, ParserPath, View;
    const CliDistro *Distro = nullptr;
    std::vector<CliRelease> Releases; // --release texts
    std::vector<std::string> Packages; // -C
    std::set<std::string> ErrataUnsupported;
    bool Json = false, Debug = false, Verbose = false, NUI = false, AllDistros = false;
    int TimeoutSeconds = 60;
};

static const char Usage[] =
    "usage: zelrzp-manager [options] [--] BUNDLE_DIR\n"
    "       zelrzp-manager matrix [options] [--] BUNDLE_DIR    (the same as --all-distros)\n"
    "       zelrzp-manager lint [--json] [--strict] BUNDLE_DIR  (what will be misread; lint --help)\n"
    "Runs the parser sub-service on BUNDLE_DIR and prints the install plan it produces, with\n"
    "every message it printed or sent, tied to the file or component it concerns.\n"
    "\n"
    "  --distro=NAME            simulate a distribution in a private sandbox (no root needed\n"
    "                           where the kernel allows user namespaces); --list-distros\n"
    "  --release=TEXT           simulate a distribution whose release file holds TEXT\n"
    "  --release-file=PATH      the release file for the following --release\n"
    "                           (/etc/redhat-release, /etc/SuSE-release, /etc/UnitedLinux-release)\n"
    "  --all-distros            run on every known distribution at once and print a support\n"
    "                           matrix: the bundle chosen (or why none) and each component\n"
    "  --json                   print JSON instead of a table\n"
    "  --parser=PATH            the sub-service executable (default: zelparser beside this program)\n"
    "  --NUI                    run the sub-service without user interface (coloured messages)\n"
    "  --VIEW=PKG               only the components whose file name contains PKG\n"
    "  -C PKG                   install the named package only (repeatable)\n"
    "  --errata-unsupported=FILE  answer that component FILE does not support the errata\n"
    "                           kernel (repeatable)\n"
    "  --debug, --verbose       pass the sub-service's debug or verbose option and show its\n"
    "                           output on standard error as it comes\n"
    "  --timeout=SECONDS        longest wait for any answer (default 60)\n"
    "  --version, --help\n"
    "\n"
    "Without --distro, --release or --all-distros the sub-service runs on this system and\n"
    "needs root.\n"
    "\n"
    "Exit status: 0 every component of the chosen bundle became an install record and nothing\n"
    "was reported; 1 a plan was made, but components were refused or files were reported\n"
    "corrupt or missing; 2 a wrong command line; 3 no plan (no bundle file, none or more than\n"
    "one supports the distribution, an empty plan, the sub-service failed or could not run).\n"
    "With --all-distros: the worst of the distributions, where one that no bundle file claims\n"
    "counts as 0.\n";

static int UsageError(const std::string &What)
{
    fprintf(stderr, "zelrzp-manager: %s\n(try --help)\n", What.c_str());
    return -1;
}

// ---- Command line ------------------------------------------------------------------------------

static const CliDistro *FindDistro(const std::string &Name)
{
    for (const CliDistro &D : Distros)
        if (Name == D.Name)
            return &D;
    return nullptr;
}

static std::string DistroList(void)
{
    std::string List;
    for (const CliDistro &D : Distros)
        List += std::string("  ") + D.Name + std::string(10 - strlen(D.Name), ' ') + D.Description + "\n";
    return List;
}

static bool IsReleaseFile(const std::string &Path)
{
    for (const char *F : ReleaseFiles)
        if (Path == F || Path == F + 5)
            return true;
    return false;
}

static bool ParseSeconds(const char *Text, int *Seconds)
{
    char *End = nullptr;
    errno = 0;
    long Value = strtol(Text, &End, 10);
    if (errno != 0 || End == Text || *End != '\0' || Value < 1 || Value > 86400)
        return false;
    *Seconds = (int)Value;
    return true;
}

enum {
    OPT_DISTRO = 1000, OPT_RELEASE, OPT_RELEASE_FILE, OPT_PARSER, OPT_JSON, OPT_NUI, OPT_VIEW,
    OPT_ERRATA, OPT_DEBUG, OPT_VERBOSE, OPT_TIMEOUT, OPT_VERSION, OPT_ALL, OPT_LIST
};

static const struct option LongOptions[] = {
    {"distro", required_argument, nullptr, OPT_DISTRO},
    {"release", required_argument, nullptr, OPT_RELEASE},
    {"release-file", required_argument, nullptr, OPT_RELEASE_FILE},
    {"parser", required_argument, nullptr, OPT_PARSER},
    {"json", no_argument, nullptr, OPT_JSON},
    {"NUI", no_argument, nullptr, OPT_NUI},
    {"VIEW", required_argument, nullptr, OPT_VIEW},
    {"errata-unsupported", required_argument, nullptr, OPT_ERRATA},
    {"debug", no_argument, nullptr, OPT_DEBUG},
    {"verbose", no_argument, nullptr, OPT_VERBOSE},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"version", no_argument, nullptr, OPT_VERSION},
    {"all-distros", no_argument, nullptr, OPT_ALL},
    {"list-distros", no_argument, nullptr, OPT_LIST},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

// One option with its value. 1 handled, 0 an option that ends the program with success
// (help, version, list), -1 a usage error.
static int TakeOption(CliOptions *O, int Code, const char *Value, std::string *File)
{
    switch (Code) {
    case OPT_DISTRO:
        if (O->Distro != nullptr)
            return UsageError("only one --distro, please");
        O->Distro = FindDistro(Value);
        if (O->Distro == nullptr)
            return UsageError(std::string("unknown distribution ") + Value + "; the known ones:\n" +
                              DistroList());
        return 1;
    case OPT_RELEASE: {
        std::string Text = Value;
        if (Text.empty() || Text.back() != '\n')
            Text += '\n';
        O->Releases.push_back({*File, Text});
        return 1;
    }
    case OPT_RELEASE_FILE:
        if (!IsReleaseFile(Value))
            return UsageError(std::string(Value) + " is not one of the three release files");
        *File = Value[0] == '/' ? std::string(Value) : std::string("/etc/") + Value;
        return 1;
    case OPT_PARSER: O->ParserPath = Value; return 1;
    case OPT_JSON: O->Json = true; return 1;
    case OPT_NUI: O->NUI = true; return 1;
    case OPT_DEBUG: O->Debug = true; return 1;
    case OPT_VERBOSE: O->Verbose = true; return 1;
    case OPT_ALL: O->AllDistros = true; return 1;
    case OPT_VIEW:
        if (!O->View.empty())
            return UsageError("only one --VIEW is allowed");
        if (*Value == '\0')
            return UsageError("--VIEW wants a non-empty part of a file name");
        O->View = Value;
        return 1;
    case 'C': O->Packages.push_back(Value); return 1;
    case OPT_ERRATA: O->ErrataUnsupported.insert(Value); return 1;
    case OPT_TIMEOUT:
        if (!ParseSeconds(Value, &O->TimeoutSeconds))
            return UsageError(std::string("--timeout wants a number of seconds, not ") + Value);
        return 1;
    case 'h': fputs(Usage, stdout); return 0;
    case OPT_VERSION: printf("zelrzp-manager %s\n", ZEL_VERSION); return 0;
    case OPT_LIST: fputs(DistroList().c_str(), stdout); return 0;
    default: return -1; // getopt_long has said what is wrong
    }
}

// 1 to run, 0 to end with success, -1 on a usage error.
static int ParseArguments(int Argc, char **Argv, CliOptions *O)
{
    std::string File = ReleaseFiles[0];
    opterr = 0;
    optind = 1;
    int Code;
    while ((Code = getopt_long(Argc, Argv, ":hC:", LongOptions, nullptr)) != -1) {
        if (Code == '?')
            return UsageError(std::string("unknown option ") + Argv[optind - 1]);
        if (Code == ':')
            return UsageError(std::string(Argv[optind - 1]) + " needs a value");
        int Taken = TakeOption(O, Code, optarg, &File);
        if (Taken <= 0)
            return Taken;
    }
    if (optind + 1 < Argc)
        return UsageError("only one bundle directory, please");
    if (optind >= Argc)
        return UsageError("no bundle directory given");
    O->BundleDir = Argv[optind];
    if (O->AllDistros && (O->Distro != nullptr || !O->Releases.empty()))
        return UsageError("--all-distros runs every distribution; leave out --distro and --release");
    if (O->Distro != nullptr && !O->Releases.empty())
        return UsageError("give either --distro or --release, not both");
    return 1;
}

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
static int EnterBundleDir(CliOptions *O, std::string *Error)
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
    C.EchoFd = 2;
    C.TimeoutMs = O.TimeoutSeconds * 1000;
    return C;
}

// ---- Records as JSON ---------------------------------------------------------------------------

static bool IsDevice(const ZmRequisite &Q)
{
    return Q.Structure == RZP_STRUCT_PREREQ && Q.SubType == SUBTYPE_PCI_DEVICE_PRESENT;
}

static Json TextOrNull(bool Present, const std::string &T) { return Present ? Json(T) : Json(nullptr); }

static Json RequisitesJson(const ZmRecord &R, uint32_t Structure)
{
    Json List = Json::array();
    for (const ZmRequisite &Q : R.Requisites)
        if (Q.Structure == Structure && !IsDevice(Q))
            List.push_back({{"subType", Q.SubType}, {"subTypeName", ZmSubTypeName(Q.SubType)},
                            {"value", Q.Value}});
    return List;
}

static Json ConfigurationJson(const ZmRecord &R, uint32_t Structure)
{
    Json List = Json::array();
    for (const ZmConfigVariable &V : R.Configuration)
        if (V.Structure == Structure)
            List.push_back({{"outputName", TextOrNull(V.HasOutputName, V.OutputName)},
                            {"outputType", V.OutputType},
                            {"required", V.IsVariableRequired},
                            {"minimumLength", V.MinimumLength},
                            {"maximumLength", V.MaximumLength},
                            {"prompt", TextOrNull(V.HasPrompt, V.Prompt)},
                            {"acceptableCharacters",
                             TextOrNull(V.HasAcceptableCharacters, V.AcceptableCharacters)},
                            {"requiredFormat", TextOrNull(V.HasRequiredFormat, V.RequiredFormat)},
                            {"defaultValue", TextOrNull(V.HasDefaultValue, V.DefaultValue)},
                            {"actualValue", TextOrNull(V.HasActualValue, V.ActualValue)},
                            {"outputFileName", TextOrNull(V.HasOutputFileName, V.OutputFileName)},
                            {"attributes", V.Attributes}});
    return List;
}

static Json RecordJson(const ZmRecord &R)
{
    Json Devices = Json::array();
    for (const ZmRequisite &Q : R.Requisites)
        if (IsDevice(Q))
            Devices.push_back(Q.Value);
    return {{"number", R.Number}, {"file", R.FileName}, {"name", R.Name}, {"version", R.Version},
            {"description", R.Description}, {"installCommand", R.InstallCommand},
            {"reboot", R.ComponentRequiresReboot},
            {"requiresPreCompilation", R.RequiresPreCompilation},
            {"requiresPostCompilation", R.RequiresPostCompilation},
            {"prerequisites", RequisitesJson(R, RZP_STRUCT_PREREQ)},
            {"postrequisites", RequisitesJson(R, RZP_STRUCT_POSTREQ)},
            {"pciDevices", Devices},
            {"preConfiguration", ConfigurationJson(R, RZP_STRUCT_PRECONFIG)},
            {"postConfiguration", ConfigurationJson(R, RZP_STRUCT_POSTCONFIG)}};
}

// ---- One run -----------------------------------------------------------------------------------

// What one run found out; turned into the JSON object that both printers read.
struct CliRun {
    Json Result;
    ZmSession *Session = nullptr;
    std::string BundleFile, BundleName;
    bool Tqr = false;
    int32_t NumberOfItems = 0;
    bool HaveItems = false;
    std::vector<ZmRecord> Records;
    size_t OpenEnd = 0;
    Json Failure;
};

static int Failed(CliRun *Run, const char *Stage, int Code, const std::string &What)
{
    Run->Failure = {{"stage", Stage}, {"code", Code == 0 ? Json(nullptr) : Json(Code)}, {"what", What}};
    return -1;
}

// The text of a one-string answer, or "" when it has none.
static std::string AnswerText(const ZmPacket &P)
{
    ZmReader R = ZmReaderOf(P.Payload);
    std::string Text;
    return ZmReadStringItem(&R, "answer", &Text, nullptr, false) ? Text : std::string();
}

static int OpenBundle(CliRun *Run)
{
    ZmPacket A;
    int Asked = ZmRequest(Run->Session, RZP_PARSER_OPEN_INPUT_FILE, {}, &A);
    ZmSyncConsole(Run->Session);
    {
        std::lock_guard<std::mutex> Guard(Run->Session->Lock);
        Run->OpenEnd = Run->Session->Messages.size();
    }
    if (Asked != 0)
        return Failed(Run, "open", 0, "the sub-service did not answer open input file");
    if (A.Header.ReturnCode != 0)
        return Failed(Run, "open", A.Header.ReturnCode, ""); // explained from the verdicts
    if (Run->Tqr)
        return 0;
    Run->BundleName = AnswerText(A);
    return 0;
}

static int ParseBundle(CliRun *Run)
{
    ZmPacket A;
    if (ZmRequest(Run->Session, RZP_PARSER_PARSE_INPUT_FILE, {}, &A) != 0)
        return Failed(Run, "parse", 0, "the sub-service did not answer parse input file");
    if (A.Header.ReturnCode == RZP_PARSER_BAD_XML)
        return Failed(Run, "parse", RZP_PARSER_BAD_XML,
                      "the version or the name of the bundle XML file cannot be read (-504)");
    if (A.Header.ReturnCode != 0)
        return Failed(Run, "parse", A.Header.ReturnCode,
                      "parse input file was answered " + ZmResultText(A.Header.ReturnCode));
    if (!Run->Tqr)
        Run->BundleFile = AnswerText(A);
    std::string Error;
    if (ZmFetchAllRecords(Run->Session, nullptr, &Run->Records, &Run->NumberOfItems, &Error) != 0)
        return Failed(Run, "items", 0, Error);
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
        Failed(Run, "start", 0, "cannot start the sub-service: " + Error);
    } else if (OpenBundle(Run) == 0 && ParseBundle(Run) == 0) {
        if (ZmStop(&S) < 0)
            Failed(Run, "stop", 0, "the sub-service did not shut down in time and was killed");
    }
    ZmClose(&S);
    std::vector<ZmMessage> Messages;
    {
        std::lock_guard<std::mutex> Guard(S.Lock);
        Messages = S.Messages;
    }
    if (Run->OpenEnd == 0)
        Run->OpenEnd = Messages.size();
    ZfAnalysis A;
    ZfAnalyse(Messages, Run->OpenEnd, Run->BundleFile, O.Verbose || O.Debug, &A);
    Run->Session = nullptr;
    Run->Result["installedOS"] = A.InstalledOS;
    Json Bundles = Json::array();
    for (const ZfBundleVerdict &B : A.Bundles)
        Bundles.push_back({{"file", B.File}, {"verdict", B.Verdict}, {"claims", B.Claims},
                           {"matched", B.Matched.empty() ? Json(nullptr) : Json(B.Matched)},
                           {"messages", B.Messages}});
    Run->Result["bundleFiles"] = Bundles;
    Json Refused = Json::array();
    for (const ZfRefused &R : A.Refused)
        Refused.push_back({{"component", R.Component}, {"reason", R.Reason}});
    Run->Result["refused"] = Refused;
    Json Findings = Json::array();
    for (const ZfFinding &F : A.Findings)
        Findings.push_back({{"sources", F.Sources}, {"text", F.Text},
                            {"file", F.File.empty() ? Json(nullptr) : Json(F.File)},
                            {"component", F.Component.empty() ? Json(nullptr) : Json(F.Component)},
                            {"problem", F.Problem}});
    Run->Result["findings"] = Findings;
}

// The key of the platform-specific sections on the detected distribution.
static std::string DistributionKey(const std::string &InstalledOS)
{
    std::string Key = InstalledOS;
    std::replace(Key.begin(), Key.end(), ' ', '_');
    const char *Sp3 = getenv("SP3");
    if (Key == "UnitedLinux_1.0" && Sp3 != nullptr && strcmp(Sp3, "YES") == 0)
        Key += "_SP3";
    return Key;
}

// What the sub-service does not say: a component XML file without a section for the
// distribution gets every flag off, silently.
static void CheckSections(CliRun *Run, const std::string &Key)
{
    if (Key.empty())
        return;
    for (const ZmRecord &R : Run->Records) {
        std::string Xml = ZfXmlFileOf(R.FileName);
        std::ifstream In(Xml, std::ios::binary);
        std::stringstream Text;
        Text << In.rdbuf();
        if (!In || ZfHasSection(Text.str(), Key))
            continue;
        Run->Result["findings"].push_back(
            {{"sources", {"manager"}},
             {"text", "The component XML file has no '" + Key +
                          "' section under platform_specific/LINUX: on this distribution all its "
                          "flags are off (no prerequisites, postrequisites or configuration)."},
             {"file", Xml}, {"component", R.FileName}, {"problem", true}});
    }
}

static std::string NoBundleReason(const Json &R)
{
    const Json &Files = R["bundleFiles"];
    if (Files.empty())
        return "the directory holds no bundle XML file (a name containing \".xml\" and \"BP0\", in "
               "any case) (-703)";
    std::string What = "no bundle XML file supports " +
                       (R["installedOS"].get<std::string>().empty()
                            ? std::string("the installed distribution")
                            : R["installedOS"].get<std::string>()) + " (-703):";
    for (const Json &B : Files)
        What += " " + B["file"].get<std::string>() + " " + B["verdict"].get<std::string>() + ";";
    What.pop_back();
    return What;
}

static std::string FailureText(const CliRun &Run, const Json &R, int Code)
{
    if (Code == RZP_PARSER_NO_BUNDLE)
        return NoBundleReason(R);
    if (Code == RZP_PARSER_NOT_ONE_BUNDLE && Run.Tqr)
        return "the installed distribution is not supported (-505)";
    if (Code == RZP_PARSER_NOT_ONE_BUNDLE) {
        std::string What = "more than one bundle XML file supports the distribution (-505):";
        for (const Json &B : R["bundleFiles"])
            if (B["verdict"] == "supported")
                What += " " + B["file"].get<std::string>() + ",";
        What.pop_back();
        return What;
    }
    return "open input file was answered " + ZmResultText(Code);
}

// True when a -703 only says that no bundle file claims this distribution.
static bool NotClaimed(const Json &R)
{
    if (R["failure"].is_null() || R["failure"]["code"] != RZP_PARSER_NO_BUNDLE ||
        R["bundleFiles"].empty())
        return false;
    for (const Json &B : R["bundleFiles"])
        if (B["verdict"] != "not supported")
            return false;
    return true;
}

// Outcome and exit status from what the run found.
static void Judge(CliRun *Run, const CliOptions &O)
{
    Json &R = Run->Result;
    if (Run->Failure.is_object() && Run->Failure["what"] == "")
        Run->Failure["what"] = FailureText(*Run, R, Run->Failure["code"].get<int>());
    if (Run->Failure.is_null() && Run->Records.empty()) {
        std::string Why = !O.View.empty() ? "no component file name of the bundle contains \"" +
                                                O.View + "\""
                          : R["refused"].empty() ? "the bundle names no component to install"
                                                 : "every component was refused";
        Failed(Run, "plan", 0, "the plan is empty: " + Why);
    }
    bool Problem = !R["refused"].empty();
    for (const Json &F : R["findings"])
        Problem = Problem || F["problem"].get<bool>();
    int Status = !Run->Failure.is_null() ? CLI_NO_PLAN : Problem ? CLI_FINDINGS : CLI_CLEAN;
    R["failure"] = Run->Failure;
    R["outcome"] = Status == CLI_CLEAN      ? "clean"
                   : Status == CLI_FINDINGS ? "findings"
                   : NotClaimed(R)          ? "not claimed"
                                            : "no plan";
    R["exitStatus"] = Status;
}

static Json DistributionJson(const CliOptions &O, const CliDistro *D, const std::vector<CliRelease> &Files)
{
    Json Releases = Json::object();
    for (const CliRelease &F : Files)
        Releases[F.File] = F.Text;
    bool Simulated = D != nullptr || !O.Releases.empty();
    return {{"name", D ? Json(D->Name) : Json(nullptr)},
            {"description", D ? D->Description : Simulated ? "given release files" : "this system"},
            {"simulated", Simulated},
            {"releaseFiles", Releases}};
}

// One whole run in this process, which must be single-threaded when it simulates.
static Json RunOne(CliOptions O, const CliDistro *D, bool EnterDir)
{
    CliRun Run;
    std::vector<CliRelease> Files = ReleasesOf(O, D);
    bool Simulate = D != nullptr || !O.Releases.empty();
    Run.Result["distribution"] = DistributionJson(O, D, Files);
    Run.Result["bundleDirectory"] = O.BundleDir;
    std::string Error;
    if (EnterDir && EnterBundleDir(&O, &Error) != 0) {
        Failed(&Run, "setup", 0, Error);
    } else if (!Simulate && geteuid() != 0) {
        Failed(&Run, "setup", 0,
               "running the sub-service on this system needs root (it reads this machine's "
               "release file and writes under /dev and /tmp); as an ordinary user simulate a "
               "distribution with --distro=NAME or --all-distros");
    } else if (Simulate && EnterSandbox(Files, D != nullptr && D->Sp3, &Error) != 0) {
        Failed(&Run, "setup", 0, Error);
    } else {
        Converse(O, &Run);
    }
    Json &R = Run.Result;
    for (const char *Key : {"bundleFiles", "refused", "findings"})
        if (!R.contains(Key))
            R[Key] = Json::array();
    if (!R.contains("installedOS"))
        R["installedOS"] = "";
    R["distribution"]["key"] = DistributionKey(R["installedOS"].get<std::string>());
    if (R["installedOS"] == "")
        R["distribution"]["key"] = nullptr;
    if (Run.HaveItems)
        CheckSections(&Run, R["distribution"]["key"].is_null() ? "" : R["distribution"]["key"].get<std::string>());
    std::string Matched;
    for (const Json &B : R["bundleFiles"])
        if (B["file"] == Run.BundleFile && B["matched"].is_string())
            Matched = B["matched"];
    R["bundle"] = Run.BundleFile.empty()
                      ? Json(nullptr)
                      : Json({{"file", Run.BundleFile}, {"name", Run.BundleName},
                              {"matchedEntry", Matched.empty() ? Json(nullptr) : Json(Matched)}});
    if (Run.Tqr)
        R["packages"] = O.Packages;
    R["numberOfItems"] = Run.HaveItems ? Json(Run.NumberOfItems) : Json(nullptr);
    Json Components = Json::array();
    for (const ZmRecord &Rec : Run.Records)
        Components.push_back(RecordJson(Rec));
    R["components"] = Components;
    Judge(&Run, O);
    return R;
}

// ---- Printing ----------------------------------------------------------------------------------

static bool Colour = false; // colour sequences kept: a table on a terminal

static std::string Shown(const std::string &T) { return Colour ? T : ZfStripColour(T); }

static std::string Str(const Json &V) { return V.is_string() ? V.get<std::string>() : std::string(); }

// One line of the table; the lines of a value that has several start under its first.
static void Row(const char *Label, const std::string &Value)
{
    std::string Text;
    for (char C : Value)
        Text += C == '\n' ? std::string("\n                         ") : std::string(1, C);
    printf("    %-20s %s\n", Label, Text.c_str());
}

static void TableRequisites(const Json &List, const char *Label)
{
    bool Any = false;
    for (const Json &Q : List) {
        Row(Any ? "" : Label, Str(Q["subTypeName"]) + " " + Str(Q["value"]));
        Any = true;
    }
    if (!Any)
        Row(Label, "none");
}

static std::string OrDash(const Json &V) { return V.is_string() ? V.get<std::string>() : "-"; }

static void TableConfiguration(const Json &List, const char *Label)
{
    bool Any = false;
    char Limits[128];
    for (const Json &V : List) {
        snprintf(Limits, sizeof Limits, " (%s, length %u..%u, type %u, attributes 0x%x)",
                 V["required"].get<bool>() ? "required" : "optional",
                 V["minimumLength"].get<unsigned>(), V["maximumLength"].get<unsigned>(),
                 V["outputType"].get<unsigned>(), V["attributes"].get<unsigned>());
        Row(Any ? "" : Label, OrDash(V["outputName"]) + Limits);
        Row("", "  prompt \"" + OrDash(V["prompt"]) + "\", default " + OrDash(V["defaultValue"]) +
                    ", file " + OrDash(V["outputFileName"]));
        Any = true;
    }
    if (!Any)
        Row(Label, "none");
}

static void TableRecord(const Json &R)
{
    std::string Devices;
    for (const Json &D : R["pciDevices"])
        Devices += (Devices.empty() ? "" : ", ") + Str(D);
    printf("\n[%u] %s\n", R["number"].get<unsigned>(), Str(R["file"]).c_str());
    Row("Name:", Str(R["name"]));
    Row("Version:", Str(R["version"]));
    Row("Description:", Str(R["description"]));
    Row("Install command:", Str(R["installCommand"]));
    Row("Reboot:", R["reboot"].get<bool>() ? "yes" : "no");
    TableRequisites(R["prerequisites"], "Prerequisites:");
    TableRequisites(R["postrequisites"], "Postrequisites:");
    Row("PCI devices:", Devices.empty() ? "none" : Devices);
    TableConfiguration(R["preConfiguration"], "Pre-configuration:");
    TableConfiguration(R["postConfiguration"], "Post-configuration:");
}

static std::string Concerns(const Json &F)
{
    std::string Where = Str(F["component"]).empty() ? Str(F["file"]) : Str(F["component"]);
    std::string Sources;
    for (const Json &S : F["sources"])
        Sources += (Sources.empty() ? "" : "+") + Str(S);
    return "(" + Sources + (Where.empty() ? "" : ", " + Where) + ")";
}

static void TableFindings(const Json &R)
{
    if (!R["refused"].empty()) {
        printf("\nRefused components:\n");
        for (const Json &X : R["refused"])
            printf("    %-28s %s\n", Str(X["component"]).c_str(), Str(X["reason"]).c_str());
    }
    printf("\nMessages of the sub-service (! marks a fault):\n");
    for (const Json &F : R["findings"]) {
        std::string Text = Shown(Str(F["text"]));
        for (size_t At = Text.find('\n'); At != std::string::npos; At = Text.find('\n', At + 1))
            Text.insert(At + 1, "      ");
        printf("  %c %s  %s\n", F["problem"].get<bool>() ? '!' : '-', Text.c_str(),
               Concerns(F).c_str());
    }
}

static void TableVerdicts(const Json &R)
{
    for (const Json &B : R["bundleFiles"]) {
        std::string Claims;
        for (const Json &C : B["claims"])
            Claims += (Claims.empty() ? "" : ", ") + Str(C);
        printf("    %-20s %s%s\n", Str(B["file"]).c_str(), Str(B["verdict"]).c_str(),
               Claims.empty() ? "" : (" (claims: " + Claims + ")").c_str());
        for (const Json &M : B["messages"])
            printf("    %-20s   %s\n", "", Str(M).c_str());
    }
}

static void PrintTable(const Json &R)
{
    const Json &D = R["distribution"];
    printf("Distribution: %s%s\n", Str(D["description"]).c_str(),
           R["installedOS"] == "" ? "" : (" (detected as " + Str(R["installedOS"]) + ")").c_str());
    if (!R["failure"].is_null()) {
        printf("No plan: %s\n", Str(R["failure"]["what"]).c_str());
        if (!R["bundleFiles"].empty()) {
            printf("\nBundle files:\n");
            TableVerdicts(R);
        }
    } else {
        if (R["bundle"].is_object())
            printf("Bundle:       %s\nBundle file:  %s (matched \"%s\")\n",
                   Str(R["bundle"]["name"]).c_str(), Str(R["bundle"]["file"]).c_str(),
                   Str(R["bundle"]["matchedEntry"]).c_str());
        printf("Components:   %d reported, %zu install records, %zu refused\n",
               R["numberOfItems"].get<int>(), R["components"].size(), R["refused"].size());
        for (const Json &C : R["components"])
            TableRecord(C);
    }
    TableFindings(R);
    printf("\nResult: %s (exit status %d)\n", Str(R["outcome"]).c_str(), R["exitStatus"].get<int>());
}

static void PrintJson(const Json &R)
{
    std::string Text = R.dump(2, ' ', false, Json::error_handler_t::replace);
    fwrite(Text.data(), 1, Text.size(), stdout);
    fputc('\n', stdout);
}

// ---- The support matrix ------------------------------------------------------------------------

static Json ChildFailure(const CliDistro &D, const std::string &What)
{
    return {{"distribution", {{"name", D.Name}, {"description", D.Description}}},
            {"failure", {{"stage", "child"}, {"code", nullptr}, {"what", What}}},
            {"bundleFiles", Json::array()}, {"refused", Json::array()},
            {"findings", Json::array()}, {"components", Json::array()},
            {"bundle", nullptr}, {"outcome", "no plan"}, {"exitStatus", CLI_NO_PLAN}};
}

// Reads what a child left in its file.
static Json CollectChild(const CliDistro &D, int Fd, int Status)
{
    std::string Text;
    char Buffer[65536];
    ssize_t N;
    lseek(Fd, 0, SEEK_SET);
    while ((N = read(Fd, Buffer, sizeof Buffer)) > 0)
        Text.append(Buffer, (size_t)N);
    close(Fd);
    Json R = Json::parse(Text, nullptr, false);
    if (R.is_discarded() || !R.is_object())
        return ChildFailure(D, "the run for " + std::string(D.Name) + " ended without a result (wait status " +
                                   std::to_string(Status) + ")");
    return R;
}

// One child per distribution, each in its own sandbox; the results in table order.
static std::vector<Json> RunMatrix(const CliOptions &O)
{
    std::vector<pid_t> Pids;
    std::vector<int> Fds;
    fflush(nullptr);
    for (const CliDistro &D : Distros) {
        FILE *File = tmpfile();
        int Fd = File ? dup(fileno(File)) : -1;
        if (File)
            fclose(File);
        pid_t Pid = Fd < 0 ? -1 : fork();
        if (Pid == 0) {
            std::string Text = RunOne(O, &D, false).dump(-1, ' ', false, Json::error_handler_t::replace);
            ssize_t Written = write(Fd, Text.data(), Text.size());
            _exit(Written == (ssize_t)Text.size() ? 0 : 1);
        }
        Pids.push_back(Pid);
        Fds.push_back(Fd);
    }
    std::vector<Json> Results;
    for (size_t i = 0; i < Pids.size(); i++) {
        int Status = 0;
        if (Pids[i] < 0) {
            Results.push_back(ChildFailure(Distros[i], std::string("cannot start a run: ") + strerror(errno)));
            if (Fds[i] >= 0)
                close(Fds[i]);
            continue;
        }
        while (waitpid(Pids[i], &Status, 0) < 0 && errno == EINTR) {
        }
        Results.push_back(CollectChild(Distros[i], Fds[i], Status));
    }
    return Results;
}

static int MatrixStatus(const std::vector<Json> &Results)
{
    int Worst = CLI_CLEAN;
    bool AnyPlan = false;
    for (const Json &R : Results) {
        int Status = R["outcome"] == "not claimed" ? CLI_CLEAN : R["exitStatus"].get<int>();
        AnyPlan = AnyPlan || R["failure"].is_null();
        Worst = std::max(Worst, Status);
    }
    return AnyPlan ? Worst : CLI_NO_PLAN;
}

static std::string ComponentVerdict(const Json &R, const std::string &Component, bool *Known)
{
    for (const Json &X : R["refused"])
        if (X["component"] == Component)
            return "refused: " + Str(X["reason"]);
    std::string Notes;
    for (const Json &F : R["findings"])
        if (F["component"] == Component && F["problem"].get<bool>())
            Notes += " " + Str(F["text"]);
    for (const Json &C : R["components"])
        if (C["file"] == Component) {
            *Known = true;
            return "recorded" + (Notes.empty() ? "" : " with findings:" + Notes);
        }
    return "not recorded" + Notes;
}

// The components a run looked at: its records, its refusals, in record order first.
static std::vector<std::string> ComponentsOf(const Json &R)
{
    std::vector<std::string> Names;
    auto Add = [&Names](const std::string &N) {
        if (!N.empty() && std::find(Names.begin(), Names.end(), N) == Names.end())
            Names.push_back(N);
    };
    for (const Json &F : R["findings"])
        Add(Str(F["component"]));
    for (const Json &C : R["components"])
        Add(Str(C["file"]));
    for (const Json &X : R["refused"])
        Add(Str(X["component"]));
    return Names;
}

static void PrintMatrixTable(const CliOptions &O, const std::vector<Json> &Results, int Status)
{
    printf("Support matrix of %s\n\n", O.BundleDir.c_str());
    printf("%-10s %-34s %-16s %s\n", "distro", "detected as", "bundle", "result");
    for (const Json &R : Results) {
        std::string Bundle = R["bundle"].is_object() ? Str(R["bundle"]["file"]) : "-";
        char Summary[160];
        if (R["failure"].is_null())
            snprintf(Summary, sizeof Summary, "%zu recorded, %zu refused: %s",
                     R["components"].size(), R["refused"].size(), Str(R["outcome"]).c_str());
        else
            snprintf(Summary, sizeof Summary, "%s", Str(R["outcome"]).c_str());
        printf("%-10s %-34s %-16s %s\n", Str(R["distribution"]["name"]).c_str(),
               Str(R["installedOS"]).c_str(), Bundle.c_str(), Summary);
    }
    for (const Json &R : Results) {
        printf("\n== %s (%s)\n", Str(R["distribution"]["name"]).c_str(),
               Str(R["distribution"]["description"]).c_str());
        if (!R["failure"].is_null())
            printf("    %s\n", Str(R["failure"]["what"]).c_str());
        else
            printf("    bundle %s \"%s\", chosen for its entry \"%s\"\n",
                   Str(R["bundle"]["file"]).c_str(), Str(R["bundle"]["name"]).c_str(),
                   Str(R["bundle"]["matchedEntry"]).c_str());
        TableVerdicts(R);
        for (const std::string &C : ComponentsOf(R)) {
            bool Known = false;
            printf("    %-28s %s\n", C.c_str(), ComponentVerdict(R, C, &Known).c_str());
        }
    }
    printf("\nResult: exit status %d\n", Status);
}

static int Matrix(CliOptions &O)
{
    std::string Error;
    if (EnterBundleDir(&O, &Error) != 0) {
        fprintf(stderr, "zelrzp-manager: %s\n", Error.c_str());
        if (O.Json)
            PrintJson({{"bundleDirectory", O.BundleDir},
                       {"failure", {{"stage", "setup"}, {"code", nullptr}, {"what", Error}}},
                       {"distributions", Json::array()}, {"exitStatus", CLI_NO_PLAN}});
        return CLI_NO_PLAN;
    }
    std::vector<Json> Results = RunMatrix(O);
    int Status = MatrixStatus(Results);
    if (O.Json)
        PrintJson({{"bundleDirectory", O.BundleDir}, {"failure", nullptr},
                   {"distributions", Results}, {"exitStatus", Status}});
    else
        PrintMatrixTable(O, Results, Status);
    return Status;
}

int main(int Argc, char **Argv)
{
    if (Argc > 1 && strcmp(Argv[1], "lint") == 0)
        return LintMain(Argc - 1, Argv + 1);
    CliOptions O;
    bool MatrixCommand = Argc > 1 && strcmp(Argv[1], "matrix") == 0;
    if (MatrixCommand) {
        Argv[1] = Argv[0];
        Argc--;
        Argv++;
        O.AllDistros = true;
    }
    int Parsed = ParseArguments(Argc, Argv, &O);
    if (Parsed <= 0)
        return Parsed == 0 ? CLI_CLEAN : CLI_USAGE;
    Colour = !O.Json && isatty(1);
    if (O.AllDistros)
        return Matrix(O);
    // The sandbox must be entered while this process has a single thread: RunOne does it
    // before the session starts its threads.
    Json R = RunOne(O, O.Distro, true);
    if (!R["failure"].is_null())
        fprintf(stderr, "zelrzp-manager: %s\n", Str(R["failure"]["what"]).c_str());
    fflush(stderr);
    if (O.Json)
        PrintJson(R);
    else
        PrintTable(R);
    return R["exitStatus"].get<int>();
}
