// options.cpp - the zelrzp-manager program's command line: the usage text and the options
// (getopt_long) read into one CliOptions record. Writes getopt's optind and opterr.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zelcli.h"

#ifndef ZEL_VERSION
#define ZEL_VERSION "0"
#endif

static const char *const ReleaseFiles[] = {"/etc/redhat-release", "/etc/SuSE-release",
                                           "/etc/UnitedLinux-release"};

static const char Usage[] =
    "usage: zelrzp-manager [options] [--] BUNDLE_DIR\n"
    "       zelrzp-manager matrix [options] [--] BUNDLE_DIR    (the same as --all-distros)\n"
    "       zelrzp-manager lint [--json] [--strict] BUNDLE_DIR  (what will be misread; lint "
    "--help)\n"
    "       zelrzp-manager report [-o FILE] BUNDLE_DIR   (matrix and lint as one HTML page)\n"
    "       zelrzp-manager check [--snapshot=DIR]... [--answers=FILE] [--json] [--strict] "
    "BUNDLE_DIR\n"
    "       zelrzp-manager snapshot [--for=BUNDLE_DIR] DIR | answers BUNDLE_DIR  (check --help)\n"
    "Runs the parser sub-service on BUNDLE_DIR and prints the install plan it produces, with\n"
    "every message it printed or sent, tied to the file or component it concerns.\n"
    "\n"
    "  --distro=NAME            simulate a distribution in a private sandbox (no root needed\n"
    "                           where the kernel allows user namespaces); --list-distros\n"
    "  --release=TEXT           simulate a distribution whose release file holds TEXT\n"
    "  --release-file=PATH      the release file for the following --release\n"
    "                           (/etc/redhat-release, /etc/SuSE-release, "
    "/etc/UnitedLinux-release)\n"
    "  --all-distros            run on every known distribution at once and print a support\n"
    "                           matrix: the bundle chosen (or why none) and each component\n"
    "  --json                   print JSON instead of a table\n"
    "  --parser=PATH            the sub-service executable (default: zelparser beside this "
    "program)\n"
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

static const CliDistro *FindDistro(const std::string &Name)
{
    for (size_t i = 0; i < CliDistroCount; i++)
        if (Name == CliDistros[i].Name)
            return &CliDistros[i];
    return nullptr;
}

static std::string DistroList(void)
{
    std::string List;
    for (size_t i = 0; i < CliDistroCount; i++) {
        const CliDistro &D = CliDistros[i];
        List += std::string("  ") + D.Name + std::string(10 - strlen(D.Name), ' ') + D.Description +
                "\n";
    }
    return List;
}

static bool IsReleaseFile(const std::string &Path)
{
    for (const char *F : ReleaseFiles)
        if (Path == F || Path == F + 5)
            return true;
    return false;
}

bool CliParseSeconds(const char *Text, int *Seconds)
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
    OPT_DISTRO = 1000,
    OPT_RELEASE,
    OPT_RELEASE_FILE,
    OPT_PARSER,
    OPT_JSON,
    OPT_NUI,
    OPT_VIEW,
    OPT_ERRATA,
    OPT_DEBUG,
    OPT_VERBOSE,
    OPT_TIMEOUT,
    OPT_VERSION,
    OPT_ALL,
    OPT_LIST
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

// An option that is a plain switch: the flag it sets, or nullptr.
static bool *SwitchOf(CliOptions *O, int Code)
{
    switch (Code) {
    case OPT_JSON: return &O->Json;
    case OPT_NUI: return &O->NUI;
    case OPT_DEBUG: return &O->Debug;
    case OPT_VERBOSE: return &O->Verbose;
    case OPT_ALL: return &O->AllDistros;
    default: return nullptr;
    }
}

// An option that ends the program with success after printing: 0, or -1 for another option.
static int Informative(int Code)
{
    switch (Code) {
    case 'h': fputs(Usage, stdout); return 0;
    case OPT_VERSION: printf("zelrzp-manager %s\n", ZEL_VERSION); return 0;
    case OPT_LIST: fputs(DistroList().c_str(), stdout); return 0;
    default: return -1;
    }
}

static int TakeDistro(CliOptions *O, const char *Value)
{
    if (O->Distro != nullptr)
        return UsageError("only one --distro, please");
    O->Distro = FindDistro(Value);
    if (O->Distro == nullptr)
        return UsageError(std::string("unknown distribution ") + Value + "; the known ones:\n" +
                          DistroList());
    return 1;
}

static int TakeRelease(CliOptions *O, const char *Value, const std::string &File)
{
    std::string Text = Value;
    if (Text.empty() || Text.back() != '\n')
        Text += '\n';
    O->Releases.push_back({File, Text});
    return 1;
}

static int TakeReleaseFile(const char *Value, std::string *File)
{
    if (!IsReleaseFile(Value))
        return UsageError(std::string(Value) + " is not one of the three release files");
    *File = Value[0] == '/' ? std::string(Value) : std::string("/etc/") + Value;
    return 1;
}

static int TakeView(CliOptions *O, const char *Value)
{
    if (!O->View.empty())
        return UsageError("only one --VIEW is allowed");
    if (*Value == '\0')
        return UsageError("--VIEW wants a non-empty part of a file name");
    O->View = Value;
    return 1;
}

// One option with its value. 1 handled, 0 an option that ends the program with success
// (help, version, list), -1 a usage error.
static int TakeOption(CliOptions *O, int Code, const char *Value, std::string *File)
{
    if (bool *Flag = SwitchOf(O, Code)) {
        *Flag = true;
        return 1;
    }
    switch (Code) {
    case OPT_DISTRO: return TakeDistro(O, Value);
    case OPT_RELEASE: return TakeRelease(O, Value, *File);
    case OPT_RELEASE_FILE: return TakeReleaseFile(Value, File);
    case OPT_VIEW: return TakeView(O, Value);
    case OPT_PARSER: O->ParserPath = Value; return 1;
    case 'C': O->Packages.push_back(Value); return 1;
    case OPT_ERRATA: O->ErrataUnsupported.insert(Value); return 1;
    case OPT_TIMEOUT:
        if (!CliParseSeconds(Value, &O->TimeoutSeconds))
            return UsageError(std::string("--timeout wants a number of seconds, not ") + Value);
        return 1;
    default: return Informative(Code); // -1 also when getopt_long has said what is wrong
    }
}

// What is left after the options: one bundle directory, and options that go together.
static int CheckOperands(int Argc, char **Argv, CliOptions *O)
{
    if (optind + 1 < Argc)
        return UsageError("only one bundle directory, please");
    if (optind >= Argc)
        return UsageError("no bundle directory given");
    O->BundleDir = Argv[optind];
    if (O->AllDistros && (O->Distro != nullptr || !O->Releases.empty()))
        return UsageError(
            "--all-distros runs every distribution; leave out --distro and --release");
    if (O->Distro != nullptr && !O->Releases.empty())
        return UsageError("give either --distro or --release, not both");
    return 1;
}

int CliParseArguments(int Argc, char **Argv, CliOptions *O)
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
    return CheckOperands(Argc, Argv, O);
}
