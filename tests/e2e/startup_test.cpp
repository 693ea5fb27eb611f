// The binary as a user meets it, before any manager talks to it: the root check, the context
// check, the connection failures and a missing transport library. Each case runs zelparser
// in the sandbox and looks at its whole console output and its exit status.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../common/helpers.h"
#include "sandbox.h"

namespace {

class Startup : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(SandboxEnter(), 0); }
};

// Refusals before start-up: the whole output and status 255, and no connection is made.
TEST_F(Startup, RootOptionAndContextChecksRefuseBeforeAnyConnection)
{
    // A connection file of an earlier run stays: without -MG nothing is removed.
    ASSERT_TRUE(std::ofstream("/dev/zelparser_read"));
    const std::string Context = "This program can only be executed within the context of the Dovrel.\n";
    struct {
        std::vector<std::string> Args;
        int User;
        std::string Out;
    } Cases[] = {
        {{"-MG", "--VIEW"}, 65534, "Root access required to use the Parser utility.\n"},
        {{"--silent", "-V"}, -1, Context},
        // Option errors come before the context message.
        {{"--VIEW"}, -1, "\nInvalid view parameter...No package name provided.\n" + Context},
        {{"-MG", "-V", "--VIEW", "a", "--VIEW", "b"}, -1,
         "\nInvalid view parameter...Multiple view options, only one allowed.\n"
         "Parser sub-service is unloading\n"},
    };
    for (const auto &C : Cases) {
        RunResult R = RunProgram(ZEL_PARSER_PATH, C.Args, C.User, "/tmp");
        EXPECT_EQ(R.Out, C.Out) << C.Args[0];
        EXPECT_EQ(R.Status, 255) << C.Args[0];
    }
    EXPECT_TRUE(Exists("/dev/zelparser_read"));
    EXPECT_FALSE(Exists("/dev/zelparser_write"));
    EXPECT_FALSE(Exists("/dev/zelrzp_np1"));
}

// Failures after the checks: each ends the process with its own status.
TEST_F(Startup, AConnectionThatCannotBeOpenedOrAMissingTransportLibraryEndsTheProcess)
{
    // A directory survives the removal of the old connection files and is no FIFO.
    const char *const Cases[2][2] = {{"/dev/zelparser_read", "parser read"},
                                     {"/dev/zelrzp_np1", "registration"}};
    for (const auto &C : Cases) {
        ASSERT_EQ(mkdir(C[0], 0700), 0);
        RunResult R = RunProgram(ZEL_PARSER_PATH, {"-MG"}, -1, "/tmp");
        EXPECT_EQ(R.Out, std::string("\nOpening of ") + C[1] + " connection failed.\n");
        EXPECT_GT(R.Status, 128); // a negative handle, modulo 256
        EXPECT_TRUE(&C == &Cases[1] || !Exists("/dev/zelparser_write")); // made after read
        ASSERT_EQ(rmdir(C[0]), 0);
    }
    // A copy of the binary where the library cannot be found: reported, not called.
    ASSERT_EQ(system("cp " ZEL_PARSER_PATH " /tmp/zelparser-alone"), 0);
    RunResult R = RunProgram("/tmp/zelparser-alone", {"-MG"}, -1, "/tmp");
    EXPECT_EQ(R.Out.rfind("Could not open libzelrzptransport.so.0...Error ", 0), 0u) << R.Out;
    EXPECT_EQ(R.Status, 256 - 114);
}

} // namespace
