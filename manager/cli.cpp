// cli.cpp - the zelrzp-manager program: runs the sub-service on a bundle directory, on this
// system or in the sandbox simulating a distribution, fetches every install record and prints
// the install plan as a table or as JSON. Owns the file-static CliOptions of one run.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zelrzpmanager.h"

#ifndef ZEL_DEFAULT_PARSER
#define ZEL_DEFAULT_PARSER "/usr/local/bin/zelparser"
#endif

// Exit codes: the plan was printed; the run failed; the command line was wrong.
enum { CLI_OK = 0, CLI_FAILED = 1, CLI_USAGE = 2 };

struct CliRelease {
    std::string File;
    std::string Text;
};

struct CliOptions {
    std::string BundleDir, ParserPath, View;
    std::vector<std::string> Packages; // -C
    std::set<std::string> ErrataUnsupported;
    std::vector<CliRelease> Releases;
    bool Json = false, Debug = false, Verbose = false, NUI = false, Help = false;
    int TimeoutSeconds = 60;
};

struct CliDistro {
    const char *Name;
    const char *File;
    const char *Text;
};

static const CliDistro Distros[] = {
    {"rh73", "/etc/redhat-release", "Red Hat Linux release 7.3 (Valhalla)\n"},
    {"rhas21", "/etc/redhat-release", "Red Hat Linux Advanced Server release 2.1AS (Pensacola)\n"},
    {"rhel3", "/etc/redhat-release", "Red Hat Enterprise Linux AS release 3 (Taroon)\n"},
    {"sles8", "/etc/SuSE-release", "SuSE SLES-8 (i386)\nVERSION = 8.1\n"},
    {"ul10", "/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"},
};

static const char *const ReleaseFiles[] = {"/etc/redhat-release", "/etc/SuSE-release",
                                           "/etc/UnitedLinux-release"};

static const char Usage[] =
    "usage: zelrzp-manager [options] BUNDLE_DIR\n"
    "Runs the parser sub-service on BUNDLE_DIR and prints the install plan it produces.\n"
    "\n"
    "  --distro NAME            simulate a distribution in a private sandbox:\n"
    "                           rh73, rhas21, rhel3, sles8 or ul10\n"
    "  --release TEXT           simulate a distribution whose release file holds TEXT\n"
    "  --release-file PATH      the release file for the following --release\n"
    "                           (/etc/redhat-release, /etc/SuSE-release, /etc/UnitedLinux-release)\n"
    "  --parser PATH            the sub-service executable (default: zelparser beside this program)\n"
    "  --json                   print the plan as JSON\n"
    "  --NUI                    run the sub-service without user interface (coloured messages)\n"
    "  --VIEW PKG               only the components whose file name contains PKG\n"
    "  -C PKG                   install the named package only (repeatable)\n"
    "  --errata-unsupported FILE  answer that component FILE does not support the errata\n"
    "                           kernel (repeatable)\n"
    "  --debug, --verbose       pass the sub-service's debug or verbose option\n"
    "  --timeout SECONDS        longest wait for any answer (default 60)\n"
    "  --help                   show this text\n"
    "\n"
    "Without --distro or --release the sub-service runs on this system and needs root.\n";

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

// Options that take a value. Returns 1 when Name is one and was handled, 0 when it is not one,
// -1 on a bad value.
static int ValueOption(CliOptions *O, const std::string &Name, const char *Value, std::string *File)
{
    if (Name == "--distro") {
        const CliDistro *D = FindDistro(Value);
        if (D == nullptr)
            return UsageError(std::string("unknown distribution ") + Value);
        O->Releases.push_back({D->File, D->Text});
    } else if (Name == "--release") {
        std::string Text = Value;
        if (Text.empty() || Text.back() != '\n')
            Text += '\n';
        O->Releases.push_back({*File, Text});
    } else if (Name == "--release-file") {
        if (!IsReleaseFile(Value))
            return UsageError(std::string(Value) + " is not one of the three release files");
        *File = Value[0] == '/' ? std::string(Value) : std::string("/etc/") + Value;
    } else if (Name == "--parser") {
        O->ParserPath = Value;
    } else if (Name == "--VIEW") {
        if (!O->View.empty())
            return UsageError("only one --VIEW is allowed");
        O->View = Value;
    } else if (Name == "-C") {
        O->Packages.push_back(Value);
    } else if (Name == "--errata-unsupported") {
        O->ErrataUnsupported.insert(Value);
    } else if (Name == "--timeout") {
        if (!ParseSeconds(Value, &O->TimeoutSeconds))
            return UsageError(std::string("--timeout wants a number of seconds, not ") + Value);
    } else {
        return 0;
    }
    return 1;
}

static bool FlagOption(CliOptions *O, const std::string &Name)
{
    bool *Flags[] = {&O->Json, &O->Debug, &O->Verbose, &O->NUI, &O->Help, &O->Help};
    const char *Names[] = {"--json", "--debug", "--verbose", "--NUI", "--help", "-h"};
    for (size_t i = 0; i < sizeof Names / sizeof Names[0]; i++)
        if (Name == Names[i]) {
            *Flags[i] = true;
            return true;
        }
    return false;
}

static bool TakesValue(const std::string &Name)
{
    for (const char *V : {"--distro", "--release", "--release-file", "--parser", "--VIEW", "-C",
                          "--errata-unsupported", "--timeout"})
        if (Name == V)
            return true;
    return false;
}

static int ParseArguments(int Argc, char **Argv, CliOptions *O)
{
    std::string File = ReleaseFiles[0];
    for (int i = 1; i < Argc; i++) {
        std::string Arg = Argv[i];
        if (FlagOption(O, Arg))
            continue;
        if (TakesValue(Arg)) {
            if (i + 1 >= Argc)
                return UsageError(Arg + " needs a value");
            if (ValueOption(O, Arg, Argv[++i], &File) < 0)
                return -1;
        } else if (Arg.size() > 1 && Arg[0] == '-') {
            return UsageError("unknown option " + Arg);
        } else if (!O->BundleDir.empty()) {
            return UsageError("only one bundle directory, please");
        } else {
            O->BundleDir = Arg;
        }
    }
    if (!O->Help && O->BundleDir.empty())
        return UsageError("no bundle directory given");
    return 0;
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

// The sub-service starts in our current directory. Entering it before the sandbox keeps a
// bundle under /tmp reachable, although the sandbox puts a fresh /tmp over it.
static int Prepare(CliOptions *O)
{
    char Resolved[PATH_MAX];
    if (O->ParserPath.empty())
        O->ParserPath = DefaultParser();
    if (realpath(O->ParserPath.c_str(), Resolved) != nullptr)
        O->ParserPath = Resolved;
    struct stat St;
    if (stat(O->BundleDir.c_str(), &St) != 0 || !S_ISDIR(St.st_mode)) {
        fprintf(stderr, "zelrzp-manager: %s is not a directory\n", O->BundleDir.c_str());
        return -1;
    }
    if (chdir(O->BundleDir.c_str()) != 0) {
        fprintf(stderr, "zelrzp-manager: cannot enter %s: %s\n", O->BundleDir.c_str(), strerror(errno));
        return -1;
    }
    if (O->Releases.empty())
        return 0;
    if (SandboxEnter() != 0 || SandboxClearReleaseFiles() != 0)
        return -1;
    for (const CliRelease &R : O->Releases)
        if (SandboxSetFile(R.File.c_str(), R.Text.c_str()) != 0)
            return -1;
    return 0;
}

static ZmConfig ConfigFor(const CliOptions &O)
{
    ZmConfig C;
    C.ParserPath = O.ParserPath;
    C.BundleDir = ".";
    if (O.Debug)
        C.Args.push_back("--DEBUG");
    if (O.Verbose)
        C.Args.push_back("-V");
    if (O.NUI)
        C.Args.push_back("--NUI");
    if (!O.View.empty())
        C.Args.insert(C.Args.end(), {"--VIEW", O.View});
    for (const std::string &P : O.Packages)
        C.Args.insert(C.Args.end(), {"-C", P});
    C.ErrataUnsupported = O.ErrataUnsupported;
    C.EchoScreen = true;
    C.EchoConsole = true;
    C.EchoFd = 2;
    C.TimeoutMs = O.TimeoutSeconds * 1000;
    return C;
}

// ---- The run -----------------------------------------------------------------------------------

struct CliPlan {
    std::string BundleName, BundleFile;
    int32_t NumberOfItems = 0;
    std::vector<ZmRecord> Records;
    std::vector<std::string> Screen;
};

static int RunFailed(const std::string &What)
{
    fprintf(stderr, "zelrzp-manager: %s\n", What.c_str());
    return -1;
}

// The text of a one-string answer, or "" when it has none.
static std::string AnswerText(const ZmPacket &P)
{
    ZmReader R = ZmReaderOf(P.Payload);
    std::string Text;
    return ZmReadStringItem(&R, "answer", &Text, nullptr, false) ? Text : std::string();
}

static std::string OpenRefusal(int Code, bool Tqr)
{
    if (Code == RZP_PARSER_NO_BUNDLE)
        return "no bundle XML file in the directory supports the installed distribution (-703)";
    if (Code == RZP_PARSER_NOT_ONE_BUNDLE && Tqr)
        return "the installed distribution is not supported (-505)";
    if (Code == RZP_PARSER_NOT_ONE_BUNDLE)
        return "more than one bundle XML file supports the installed distribution (-505)";
    return "open input file was answered " + ZmResultText(Code);
}

static int OpenAndParse(ZmSession *S, const CliOptions &O, CliPlan *Plan)
{
    ZmPacket A;
    if (ZmRequest(S, RZP_PARSER_OPEN_INPUT_FILE, {}, &A) != 0)
        return RunFailed("no answer to open input file");
    if (A.Header.ReturnCode != 0)
        return RunFailed(OpenRefusal(A.Header.ReturnCode, !O.Packages.empty()));
    Plan->BundleName = AnswerText(A);
    if (ZmRequest(S, RZP_PARSER_PARSE_INPUT_FILE, {}, &A) != 0)
        return RunFailed("no answer to parse input file");
    if (A.Header.ReturnCode == RZP_PARSER_BAD_XML)
        return RunFailed("the bundle XML file cannot be read (-504)");
    if (A.Header.ReturnCode != 0)
        return RunFailed("parse input file was answered " + ZmResultText(A.Header.ReturnCode));
    Plan->BundleFile = AnswerText(A);
    std::string Error;
    if (ZmFetchAllRecords(S, nullptr, &Plan->Records, &Plan->NumberOfItems, &Error) != 0)
        return RunFailed(Error);
    return 0;
}

static int Run(const CliOptions &O, CliPlan *Plan)
{
    ZmSession S;
    std::string Error;
    if (ZmStart(&S, ConfigFor(O), &Error) != 0)
        return RunFailed("cannot start the sub-service: " + Error);
    int Result = OpenAndParse(&S, O, Plan);
    {
        std::lock_guard<std::mutex> Guard(S.Lock);
        Plan->Screen = S.ScreenTexts;
    }
    if (ZmStop(&S) < 0 && Result == 0)
        Result = RunFailed("the sub-service did not shut down in time and was killed");
    ZmClose(&S);
    return Result;
}

// ---- Printing ----------------------------------------------------------------------------------

// Lead bytes and their continuation bytes only; enough to tell UTF-8 from Latin-1 text.
static bool IsValidUtf8(const std::string &T)
{
    size_t i = 0;
    while (i < T.size()) {
        unsigned char C = (unsigned char)T[i];
        size_t More = C < 0x80             ? 0
                      : (C & 0xE0) == 0xC0 ? 1
                      : (C & 0xF0) == 0xE0 ? 2
                      : (C & 0xF8) == 0xF0 ? 3
                                           : 4;
        if (More == 4 || More > T.size() - i - 1)
            return false;
        for (size_t k = 1; k <= More; k++)
            if (((unsigned char)T[i + k] & 0xC0) != 0x80)
                return false;
        i += More + 1;
    }
    return true;
}

// JSON text: quotes, backslashes and control characters escaped; bytes that are not UTF-8
// are taken as Latin-1, so the output is always valid JSON.
static std::string Json(const std::string &T)
{
    bool Utf8 = IsValidUtf8(T);
    std::string Out = "\"";
    char Hex[8];
    for (unsigned char C : T) {
        if (C == '"' || C == '\\') {
            Out += '\\';
            Out += (char)C;
        } else if (C == '\n') {
            Out += "\\n";
        } else if (C == '\t') {
            Out += "\\t";
        } else if (C < 0x20 || C == 0x7f || (C >= 0x80 && !Utf8)) {
            snprintf(Hex, sizeof Hex, "\\u%04x", C);
            Out += Hex;
        } else {
            Out += (char)C;
        }
    }
    return Out + "\"";
}

static std::string JsonOrNull(bool Present, const std::string &T) { return Present ? Json(T) : "null"; }

static const char *Bool(bool B) { return B ? "true" : "false"; }

static bool IsDevice(const ZmRequisite &Q)
{
    return Q.Structure == RZP_STRUCT_PREREQ && Q.SubType == SUBTYPE_PCI_DEVICE_PRESENT;
}

static void JsonRequisites(const ZmRecord &R, uint32_t Structure, const char *Key)
{
    printf("      \"%s\": [", Key);
    const char *Sep = "";
    for (const ZmRequisite &Q : R.Requisites)
        if (Q.Structure == Structure && !IsDevice(Q)) {
            printf("%s\n        {\"subType\": %u, \"subTypeName\": \"%s\", \"value\": %s}", Sep,
                   Q.SubType, ZmSubTypeName(Q.SubType), Json(Q.Value).c_str());
            Sep = ",";
        }
    printf("%s],\n", *Sep ? "\n      " : "");
}

static void JsonDevices(const ZmRecord &R)
{
    printf("      \"pciDevices\": [");
    const char *Sep = "";
    for (const ZmRequisite &Q : R.Requisites)
        if (IsDevice(Q)) {
            printf("%s%s", Sep, Json(Q.Value).c_str());
            Sep = ", ";
        }
    printf("],\n");
}

static void JsonVariable(const ZmConfigVariable &V, const char *Sep)
{
    printf("%s\n        {\"outputName\": %s, \"outputType\": %u, \"required\": %s, "
           "\"minimumLength\": %u, \"maximumLength\": %u, \"prompt\": %s, "
           "\"acceptableCharacters\": %s, \"requiredFormat\": %s, \"defaultValue\": %s, "
           "\"actualValue\": %s, \"outputFileName\": %s, \"attributes\": %u}",
           Sep, JsonOrNull(V.HasOutputName, V.OutputName).c_str(), V.OutputType,
           Bool(V.IsVariableRequired), V.MinimumLength, V.MaximumLength,
           JsonOrNull(V.HasPrompt, V.Prompt).c_str(),
           JsonOrNull(V.HasAcceptableCharacters, V.AcceptableCharacters).c_str(),
           JsonOrNull(V.HasRequiredFormat, V.RequiredFormat).c_str(),
           JsonOrNull(V.HasDefaultValue, V.DefaultValue).c_str(),
           JsonOrNull(V.HasActualValue, V.ActualValue).c_str(),
           JsonOrNull(V.HasOutputFileName, V.OutputFileName).c_str(), V.Attributes);
}

static void JsonConfiguration(const ZmRecord &R, uint32_t Structure, const char *Key, bool Last)
{
    printf("      \"%s\": [", Key);
    const char *Sep = "";
    for (const ZmConfigVariable &V : R.Configuration)
        if (V.Structure == Structure) {
            JsonVariable(V, Sep);
            Sep = ",";
        }
    printf("%s]%s\n", *Sep ? "\n      " : "", Last ? "" : ",");
}

static void JsonRecord(const ZmRecord &R, bool Last)
{
    printf("    {\n      \"number\": %u,\n      \"file\": %s,\n      \"name\": %s,\n"
           "      \"version\": %s,\n      \"description\": %s,\n      \"installCommand\": %s,\n"
           "      \"reboot\": %s,\n      \"requiresPreCompilation\": %s,\n"
           "      \"requiresPostCompilation\": %s,\n",
           R.Number, Json(R.FileName).c_str(), Json(R.Name).c_str(), Json(R.Version).c_str(),
           Json(R.Description).c_str(), Json(R.InstallCommand).c_str(),
           Bool(R.ComponentRequiresReboot), Bool(R.RequiresPreCompilation),
           Bool(R.RequiresPostCompilation));
    JsonRequisites(R, RZP_STRUCT_PREREQ, "prerequisites");
    JsonRequisites(R, RZP_STRUCT_POSTREQ, "postrequisites");
    JsonDevices(R);
    JsonConfiguration(R, RZP_STRUCT_PRECONFIG, "preConfiguration", false);
    JsonConfiguration(R, RZP_STRUCT_POSTCONFIG, "postConfiguration", true);
    printf("    }%s\n", Last ? "" : ",");
}

static void PrintJson(const CliPlan &P)
{
    printf("{\n  \"bundle\": {\"name\": %s, \"file\": %s},\n  \"numberOfItems\": %d,\n"
           "  \"components\": [\n",
           Json(P.BundleName).c_str(), Json(P.BundleFile).c_str(), P.NumberOfItems);
    for (size_t i = 0; i < P.Records.size(); i++)
        JsonRecord(P.Records[i], i + 1 == P.Records.size());
    printf("  ],\n  \"messages\": [");
    for (size_t i = 0; i < P.Screen.size(); i++)
        printf("%s\n    %s", i ? "," : "", Json(P.Screen[i]).c_str());
    printf("%s]\n}\n", P.Screen.empty() ? "" : "\n  ");
}

// One line of the table; the lines of a value that has several start under its first.
static void Row(const char *Label, const std::string &Value)
{
    std::string Text;
    for (char C : Value)
        Text += C == '\n' ? std::string("\n                         ") : std::string(1, C);
    printf("    %-20s %s\n", Label, Text.c_str());
}

static void TableRequisites(const ZmRecord &R, uint32_t Structure, const char *Label)
{
    bool Any = false;
    for (const ZmRequisite &Q : R.Requisites)
        if (Q.Structure == Structure && !IsDevice(Q)) {
            Row(Any ? "" : Label, std::string(ZmSubTypeName(Q.SubType)) + " " + Q.Value);
            Any = true;
        }
    if (!Any)
        Row(Label, "none");
}

static std::string Shown(bool Present, const std::string &T) { return Present ? T : "-"; }

static void TableConfiguration(const ZmRecord &R, uint32_t Structure, const char *Label)
{
    bool Any = false;
    char Limits[96];
    for (const ZmConfigVariable &V : R.Configuration)
        if (V.Structure == Structure) {
            snprintf(Limits, sizeof Limits, " (%s, length %u..%u, type %u, attributes 0x%x)",
                     V.IsVariableRequired ? "required" : "optional", V.MinimumLength,
                     V.MaximumLength, V.OutputType, V.Attributes);
            Row(Any ? "" : Label, Shown(V.HasOutputName, V.OutputName) + Limits);
            Row("", "  prompt \"" + Shown(V.HasPrompt, V.Prompt) + "\", default " +
                        Shown(V.HasDefaultValue, V.DefaultValue) + ", file " +
                        Shown(V.HasOutputFileName, V.OutputFileName));
            Any = true;
        }
    if (!Any)
        Row(Label, "none");
}

static void TableRecord(const ZmRecord &R)
{
    std::string Devices;
    for (const ZmRequisite &Q : R.Requisites)
        if (IsDevice(Q))
            Devices += (Devices.empty() ? "" : ", ") + Q.Value;
    printf("\n[%u] %s\n", R.Number, R.FileName.c_str());
    Row("Name:", R.Name);
    Row("Version:", R.Version);
    Row("Description:", R.Description);
    Row("Install command:", R.InstallCommand);
    Row("Reboot:", R.ComponentRequiresReboot ? "yes" : "no");
    TableRequisites(R, RZP_STRUCT_PREREQ, "Prerequisites:");
    TableRequisites(R, RZP_STRUCT_POSTREQ, "Postrequisites:");
    Row("PCI devices:", Devices.empty() ? "none" : Devices);
    TableConfiguration(R, RZP_STRUCT_PRECONFIG, "Pre-configuration:");
    TableConfiguration(R, RZP_STRUCT_POSTCONFIG, "Post-configuration:");
}

static void PrintTable(const CliPlan &P)
{
    printf("Bundle:      %s\nBundle file: %s\n", P.BundleName.c_str(), P.BundleFile.c_str());
    printf("Components:  %d reported, %zu install records\n", P.NumberOfItems, P.Records.size());
    for (const ZmRecord &R : P.Records)
        TableRecord(R);
}

int main(int Argc, char **Argv)
{
    CliOptions O;
    if (ParseArguments(Argc, Argv, &O) != 0)
        return CLI_USAGE;
    if (O.Help) {
        fputs(Usage, stdout);
        return CLI_OK;
    }
    // The sandbox must be entered while this process has a single thread.
    if (Prepare(&O) != 0)
        return CLI_FAILED;
    CliPlan Plan;
    if (Run(O, &Plan) != 0)
        return CLI_FAILED;
    fflush(stderr);
    if (O.Json)
        PrintJson(Plan);
    else
        PrintTable(Plan);
    return CLI_OK;
}
