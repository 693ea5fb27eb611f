// The command-line scan: option forms, value options and their refusals, the run flags.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runflags.h"

namespace {

void ResetRunFlags()
{
    FreeCommandLineState();
    SILENT_INSTALL = 0;
    DEBUG_FLAG = 0;
    FORCE_INSTALL_FLAG = 0;
    HELP_REQUESTED = 0;
    NO_USER_INTERFACE = 0;
    VERBOSE_MODE = 0;
    SINGLE_STEP_MODE = 0;
    OK_TO_RUN = 0;
    INPUT_FILE_FOUND = 0;
    InputFileName[0] = 0;
    TQR_INSTALL = 0;
    VIEW_ONLY = 0;
    PackageName[0] = 0;
    Parser_Exiting = 0;
}

// Runs the scan over Args (argv[0] added) and returns its result and console output.
int Scan(std::vector<std::string> Args, std::string *Output = nullptr)
{
    ResetRunFlags();
    Args.insert(Args.begin(), "zelparser");
    std::vector<char *> Argv;
    for (std::string &Arg : Args)
        Argv.push_back(Arg.data());
    testing::internal::CaptureStdout();
    int Result = CheckCommandLineParameters(static_cast<int>(Argv.size()), Argv.data());
    fflush(stdout);
    std::string Text = testing::internal::GetCapturedStdout();
    if (Output != nullptr)
        *Output = Text;
    return Result;
}

TEST(CommandLine, FlagOptionsAreCaseInsensitiveInEveryForm)
{
    EXPECT_EQ(Scan({"-mg", "--silent", "/f", "help", "nui", "-v", "y", "debug"}), 0);
    EXPECT_EQ(OK_TO_RUN, 1);
    EXPECT_EQ(SILENT_INSTALL, 1);
    EXPECT_EQ(FORCE_INSTALL_FLAG.load(), 1);
    EXPECT_EQ(HELP_REQUESTED, 1);
    EXPECT_EQ(NO_USER_INTERFACE.load(), 1);
    EXPECT_EQ(VERBOSE_MODE, 1);
    EXPECT_EQ(SINGLE_STEP_MODE, 1);
    EXPECT_EQ(DEBUG_FLAG.load(), 1);
    EXPECT_EQ(Parser_Exiting.load(), 0);
}

TEST(CommandLine, UnknownArgumentsAreIgnoredSilently)
{
    std::string Output;
    EXPECT_EQ(Scan({"-MG", "xyz", "--verbose"}, &Output), 0);
    EXPECT_EQ(Output, "");
    EXPECT_EQ(VERBOSE_MODE, 0); // "--VERBOSE" is not a form of -V
    EXPECT_EQ(Scan({std::string(3000, 'x'), "-MG"}), 0);
    EXPECT_EQ(OK_TO_RUN, 1);
}

TEST(CommandLine, InputFileTakesTheNextArgumentUnchanged)
{
    EXPECT_EQ(Scan({"--INPUTFILE=ignored", "My.File", "-MG"}), 0);
    EXPECT_STREQ(InputFileName, "My.File");
    EXPECT_EQ(INPUT_FILE_FOUND, 1);
    EXPECT_EQ(OK_TO_RUN, 1);
}

TEST(CommandLine, TQRPackageGetsRpmInPlaceOfItsLastThreeCharacters)
{
    EXPECT_EQ(Scan({"-C", "tool.i386.RPM", "/c", "tool-rpm-1.0.i386.RPM", "-c", "tool.tgz"}), 0);
    EXPECT_STREQ(TQR_PackageName[0], "tool.i386.rpm");
    EXPECT_STREQ(TQR_PackageName[1], "tool-rpm-1.0.i386.RPM");
    EXPECT_STREQ(TQR_PackageName[2], "tool.rpm");
    EXPECT_EQ(TQR_PackageName[3], nullptr);
    EXPECT_EQ(TQR_INSTALL, 1);
    EXPECT_EQ(SILENT_INSTALL, 1);
}

TEST(CommandLine, TQRPackagesThatCannotBeStoredAreRefused)
{
    std::string Output;
    EXPECT_EQ(Scan({"-C", "ab", "-MG"}, &Output), BADPARM);
    EXPECT_EQ(Output, "\nab is an invalid filename.\n");
    EXPECT_EQ(OK_TO_RUN, 0); // the scan stopped at the failure
    std::string Long(300, 'p');
    EXPECT_EQ(Scan({"-C", Long}, &Output), BADPARM);
    EXPECT_EQ(Output, "\n" + Long + " is an invalid filename.\n");
    std::vector<std::string> Many;
    for (int i = 0; i < 101; i++) {
        Many.push_back("-C");
        Many.push_back("pkg" + std::to_string(i) + ".rpm");
    }
    EXPECT_EQ(Scan(Many, &Output), BADPARM);
    EXPECT_STREQ(TQR_PackageName[99], "pkg99.rpm");
    EXPECT_NE(Output.find("pkg100.rpm"), std::string::npos);
}

TEST(CommandLine, ViewStoresThePackageAndTurnsE100IntoE100Dash)
{
    EXPECT_EQ(Scan({"-VIEW", "e100"}), 0);
    EXPECT_STREQ(PackageName, "e100-");
    EXPECT_EQ(VIEW_ONLY, 1);
    EXPECT_EQ(Scan({"--view", "e1000"}), 0);
    EXPECT_STREQ(PackageName, "e1000");
    EXPECT_EQ(Scan({"-VIEWER", "x"}), 0);
    EXPECT_STREQ(PackageName, "x");
}

TEST(CommandLine, ValueOptionFailuresPrintTheirMessageAndStopTheScan)
{
    struct Case {
        std::vector<std::string> Args;
        const char *Message;
    };
    std::string Long(1024, 'n');
    const Case Cases[] = {
        {{"--VIEW", "a", "--VIEW", "b", "-MG"},
         "\nInvalid view parameter...Multiple view options, only one allowed.\n"},
        {{"--INPUTFILE"}, "\nInvalid inputfile parameter...No filename provided.\n"},
        {{"-C"}, "\nInvalid command line parameter...No packagename provided.\n"},
        {{"--VIEW"}, "\nInvalid view parameter...No package name provided.\n"},
        {{"--INPUTFILE", Long, "-MG"}, nullptr},
        {{"--VIEW", Long, "-MG"}, nullptr},
    };
    for (const Case &C : Cases) {
        std::string Output;
        EXPECT_EQ(Scan(C.Args, &Output), BADPARM);
        EXPECT_EQ(Parser_Exiting.load(), 1);
        EXPECT_EQ(OK_TO_RUN, 0) << "an argument after the failure was examined";
        if (C.Message != nullptr) {
            EXPECT_EQ(Output, C.Message);
        }
    }
    std::string Output;
    Scan({"--INPUTFILE", Long}, &Output);
    EXPECT_EQ(Output, "\n" + Long + " is an invalid filename.\n");
    Scan({"--VIEW", Long}, &Output);
    EXPECT_EQ(Output, "\n" + Long + " is an invalid package name.\n");
}

TEST(CommandLine, DebugModeShowsEachStoredPackage)
{
    std::string Output;
    EXPECT_EQ(Scan({"--DEBUG", "-C", "a.RPM"}, &Output), 0);
    EXPECT_EQ(Output, "Parser--TQR_Package = a.rpm\n");
}

} // namespace
