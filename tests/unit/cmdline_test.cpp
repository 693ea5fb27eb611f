// The command-line scan: option forms, value options and their refusals, the run flags and the
// names it stores.
#include "package_fixture.h"

namespace {

// Runs the scan over Args (argv[0] added) from cleared flags; the console output in *Output.
int Scan(std::vector<std::string> Args, std::string *Output)
{
    FreeCommandLineState();
    SILENT_INSTALL = HELP_REQUESTED = VERBOSE_MODE = SINGLE_STEP_MODE = OK_TO_RUN = 0;
    INPUT_FILE_FOUND = TQR_INSTALL = VIEW_ONLY = 0;
    FORCE_INSTALL_FLAG = NO_USER_INTERFACE = Parser_Exiting = DEBUG_FLAG = 0;
    InputFileName[0] = PackageName[0] = 0;
    Args.insert(Args.begin(), "zelparser");
    std::vector<char *> Argv;
    for (std::string &Arg : Args)
        Argv.push_back(Arg.data());
    int Result = 0;
    *Output = Captured([&] { Result = CheckCommandLineParameters(int(Argv.size()), Argv.data()); });
    return Result;
}

// One digit per flag: OK_TO_RUN, silent, force, help, no user interface, verbose, single step,
// debug, exiting, input file found, TQR install, view only.
std::string Flags()
{
    std::string Digits;
    for (int Flag : {OK_TO_RUN, SILENT_INSTALL, FORCE_INSTALL_FLAG.load(), HELP_REQUESTED,
                     NO_USER_INTERFACE.load(), VERBOSE_MODE, SINGLE_STEP_MODE,
                     static_cast<int>(DEBUG_FLAG.load()), Parser_Exiting.load(), INPUT_FILE_FOUND,
                     TQR_INSTALL, VIEW_ONLY})
        Digits += std::to_string(Flag);
    return Digits;
}

// The input file, the view package and the TQR packages, as "input|view|tqr,tqr".
std::string Stored()
{
    std::string Text = std::string(InputFileName) + "|" + PackageName + "|";
    for (int i = 0; i < TQR_MAX_PACKAGES && TQR_PackageName[i] != nullptr; i++)
        Text += std::string(i ? "," : "") + TQR_PackageName[i];
    return Text;
}

// A failed value option stops the scan (the -MG after it is not examined) and ends the run.
TEST(CommandLine, OptionsSetFlagsStoreNamesAndRefuseBadValues)
{
    const std::string Long(1024, 'n'), Pkgs(300, 'p');
    const struct {
        std::vector<std::string> Args;
        int Result;
        const char *Flags;
        std::string Stored;
        std::string Output;
    } Cases[] = {
        // Flags are case-insensitive in every form; unknown arguments are ignored silently
        // ("--VERBOSE" is not a form of -V).
        {{"-mg", "--silent", "/f", "help", "nui", "-v", "y", "debug"}, 0, "111111110000", "||", ""},
        {{"-MG", "xyz", "--verbose"}, 0, "100000000000", "||", ""},
        {{std::string(3000, 'x'), "-MG"}, 0, "100000000000", "||", ""},
        // The input file is the next argument, unchanged.
        {{"--INPUTFILE=ignored", "My.File", "-MG"}, 0, "100000000100", "My.File||", ""},
        // A TQR package gets "rpm" in place of its last three characters.
        {{"-C", "tool.i386.RPM", "/c", "tool-rpm-1.0.i386.RPM", "-c", "tool.tgz"}, 0,
         "010000000010", "||tool.i386.rpm,tool-rpm-1.0.i386.RPM,tool.rpm", ""},
        {{"--DEBUG", "-C", "a.RPM"}, 0, "010000010010", "||a.rpm", "Parser--TQR_Package = a.rpm\n"},
        // View stores the package; "e100" alone becomes "e100-".
        {{"-VIEW", "e100"}, 0, "000000000001", "|e100-|", ""},
        {{"--view", "e1000"}, 0, "000000000001", "|e1000|", ""},
        {{"-VIEWER", "x"}, 0, "000000000001", "|x|", ""},
        // Refusals.
        {{"-C", "ab", "-MG"}, BADPARM, "000000001000", "||", "\nab is an invalid filename.\n"},
        {{"-C", Pkgs}, BADPARM, "000000001000", "||", "\n" + Pkgs + " is an invalid filename.\n"},
        {{"--VIEW", "a", "--VIEW", "b", "-MG"}, BADPARM, "000000001001", "|a|",
         "\nInvalid view parameter...Multiple view options, only one allowed.\n"},
        {{"--INPUTFILE"}, BADPARM, "000000001000", "||",
         "\nInvalid inputfile parameter...No filename provided.\n"},
        {{"-C"}, BADPARM, "000000001000", "||",
         "\nInvalid command line parameter...No packagename provided.\n"},
        {{"--VIEW"}, BADPARM, "000000001000", "||",
         "\nInvalid view parameter...No package name provided.\n"},
        {{"--INPUTFILE", Long, "-MG"}, BADPARM, "000000001000", "||",
         "\n" + Long + " is an invalid filename.\n"},
        {{"--VIEW", Long, "-MG"}, BADPARM, "000000001000", "||",
         "\n" + Long + " is an invalid package name.\n"},
    };
    for (const auto &Case : Cases) {
        SCOPED_TRACE(Case.Args[0] + " " + (Case.Args.size() > 1 ? Case.Args[1] : ""));
        std::string Output;
        EXPECT_EQ(Case.Result, Scan(Case.Args, &Output));
        EXPECT_EQ(Case.Flags, Flags());
        EXPECT_EQ(Case.Stored, Stored());
        EXPECT_EQ(Case.Output, Output);
    }
    std::string Output;
    // Room for 100 TQR packages: the 101st is refused by name.
    std::vector<std::string> Many;
    for (int i = 0; i < 101; i++)
        Many.insert(Many.end(), {"-C", "pkg" + std::to_string(i) + ".rpm"});
    EXPECT_EQ(BADPARM, Scan(Many, &Output));
    EXPECT_STREQ("pkg99.rpm", TQR_PackageName[99]);
    EXPECT_NE(std::string::npos, Output.find("pkg100.rpm"));
}

} // namespace
