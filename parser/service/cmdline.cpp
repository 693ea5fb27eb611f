// cmdline.cpp - the command-line scan that sets the run flags (defined in parser/runflags.cpp)
// and the release of what it keeps. Writes the run flags (SILENT_INSTALL ... OK_TO_RUN,
// InputFileName, TQR_INSTALL, TQR_PackageName, VIEW_ONLY, PackageName) and Parser_Exiting on a
// refused option, on the main thread only.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runflags.h"
#include "support.h"

namespace {

// Options that take no value: the forms (after upper-casing) and the flag they set.
struct FlagOption {
    const char *Forms[6];
    void (*Set)(void);
};

void SetSilent(void) { SILENT_INSTALL = 1; }
void SetDebug(void) { DEBUG_FLAG = 1; }
void SetForce(void) { FORCE_INSTALL_FLAG = 1; }
void SetHelp(void) { HELP_REQUESTED = 1; }
void SetNoUserInterface(void) { NO_USER_INTERFACE = 1; }
void SetVerbose(void) { VERBOSE_MODE = 1; }
void SetSingleStep(void) { SINGLE_STEP_MODE = 1; }
void SetOkToRun(void) { OK_TO_RUN = 1; }

const FlagOption FlagOptions[] = {
    {{"--SILENT", "/SILENT", "SILENT", "/S", "-S", nullptr}, SetSilent},
    {{"--ALL", "/ALL", "ALL", "--DEBUG", "/DEBUG", "DEBUG"}, SetDebug},
    {{"--FORCE", "/FORCE", "FORCE", "/F", "-F", nullptr}, SetForce},
    {{"--HELP", "/HELP", "HELP", "/H", "-H", nullptr}, SetHelp},
    {{"--NUI", "/NUI", "NUI", nullptr}, SetNoUserInterface},
    {{"-V", "V", "/V", nullptr}, SetVerbose},
    {{"-Y", "Y", "/Y", nullptr}, SetSingleStep},
    {{"-MG", "MG", "/MG", nullptr}, SetOkToRun},
};

int MatchesFlagOption(const char *Copy)
{
    for (const FlagOption &Option : FlagOptions)
        for (const char *Form : Option.Forms) {
            if (Form == nullptr)
                break;
            if (strcmp(Copy, Form) == 0) {
                Option.Set();
                return 1;
            }
        }
    return 0;
}

// A value option's failure: print the message, stop the scan.
int FailOption(const char *Format, const char *Argument)
{
    printf(Format, Argument);
    Parser_Exiting = 1;
    return BADPARM;
}

// The value of a value option, argv[i+1], when it exists and fits 1023 characters.
// Otherwise prints the option's message (too long / missing) and returns NULL.
const char *TakeValue(int argc, char **argv, int i, const char *TooLong, const char *Missing,
                      int *Result)
{
    if (i + 1 < argc && strlen(argv[i + 1]) < ARGUMENT_BUFFER_SIZE)
        return argv[i + 1];
    *Result = (i + 1 < argc) ? FailOption(TooLong, argv[i + 1]) : FailOption(Missing, "");
    return nullptr;
}

// "-C" value: stored with its last three characters replaced by "rpm" unless it contains
// "rpm". Values that do not fit a 256-byte slot, that have no three characters to replace,
// or that exceed the 100 slots are refused.
int StoreTQRPackage(const char *Value, int *Slot)
{
    size_t Length = strlen(Value);
    int HasRpm = strstr(Value, "rpm") != nullptr;
    if (*Slot >= TQR_MAX_PACKAGES)
        return FailOption("\nInvalid command line parameter...More than 100 packages given, "
                          "%s is refused.\n",
                          Value);
    if (Length >= TQR_NAME_SIZE || (!HasRpm && Length < 3))
        return FailOption("\n%s is an invalid filename.\n", Value);
    char *Name = static_cast<char *>(calloc(TQR_NAME_SIZE, 1));
    if (Name == nullptr)
        return FailOption("\nUnable to allocate memory for package name %s.\n", Value);
    memcpy(Name, Value, HasRpm ? Length : Length - 3);
    if (!HasRpm)
        memcpy(Name + Length - 3, "rpm", 3);
    if (DEBUG_FLAG)
        printf("Parser--TQR_Package = %s\n", Name);
    TQR_PackageName[(*Slot)++] = Name;
    TQR_INSTALL = 1;
    SILENT_INSTALL = 1;
    return 0;
}

int StoreInputFile(const char *Value, int *)
{
    CopyBounded(InputFileName, sizeof InputFileName, Value);
    INPUT_FILE_FOUND = 1;
    return 0;
}

int StoreView(const char *Value, int *)
{
    CopyBounded(PackageName, sizeof PackageName, Value);
    if (strcmp(PackageName, "e100") == 0)
        CopyBounded(PackageName, sizeof PackageName, "e100-");
    VIEW_ONLY = 1;
    return 0;
}

// An option that takes the next argument as its value, and its messages.
struct ValueOption {
    const char *TooLong; // "%s" is the value
    const char *Missing;
    const int *Given;     // when set and 1, the option was given before and is refused
    const char *Repeated; // the message for that
    int (*Store)(const char *Value, int *Slot);
};

const ValueOption InputFileOption = {"\n%s is an invalid filename.\n",
                                     "\nInvalid inputfile parameter...No filename provided.\n%s",
                                     nullptr, nullptr, StoreInputFile};
const ValueOption TQRPackageOption = {
    "\n%s is an invalid filename.\n",
    "\nInvalid command line parameter...No packagename provided.\n%s", nullptr, nullptr,
    StoreTQRPackage};
const ValueOption ViewOption = {
    "\n%s is an invalid package name.\n", "\nInvalid view parameter...No package name provided.\n%s",
    &VIEW_ONLY, "\nInvalid view parameter...Multiple view options, only one allowed.\n%s",
    StoreView};

// Takes the value of the option at argv[*i] and stores it; *i then names the value.
int ScanValueOption(int argc, char **argv, int *i, const ValueOption &Option, int *Slot)
{
    if (Option.Given != nullptr && *Option.Given == 1)
        return FailOption(Option.Repeated, "");
    int Result = 0;
    const char *Value = TakeValue(argc, argv, *i, Option.TooLong, Option.Missing, &Result);
    if (Value == nullptr)
        return Result;
    (*i)++;
    return Option.Store(Value, Slot);
}

} // namespace

int CheckCommandLineParameters(int argc, char **argv)
{
    int Result = BADPARM;
    int Slot = 0;
    while (Slot < TQR_MAX_PACKAGES && TQR_PackageName[Slot] != nullptr)
        Slot++;
    for (int i = 1; i < argc && Parser_Exiting != 1; i++) {
        char Copy[ARGUMENT_BUFFER_SIZE];
        // An argument longer than the work buffer cannot be any option: it is ignored like
        // every other unknown argument.
        if (CopyBounded(Copy, sizeof Copy, argv[i]) != 0) {
            Result = 0;
            continue;
        }
        strupr(Copy);
        if (MatchesFlagOption(Copy))
            Result = 0;
        else if (strncmp(Copy, "--INPUTFILE", 11) == 0)
            Result = ScanValueOption(argc, argv, &i, InputFileOption, &Slot);
        else if (strcmp(Copy, "-C") == 0 || strcmp(Copy, "/C") == 0)
            Result = ScanValueOption(argc, argv, &i, TQRPackageOption, &Slot);
        else if (strncmp(Copy, "--VIEW", 6) == 0 || strncmp(Copy, "-VIEW", 5) == 0)
            Result = ScanValueOption(argc, argv, &i, ViewOption, &Slot);
        else
            Result = 0;
    }
    return Result;
}

void FreeCommandLineState(void)
{
    for (char *&Name : TQR_PackageName) {
        free(Name);
        Name = nullptr;
    }
}
