// The binary as a user meets it, before any manager talks to it: the root check, the context
// check, the connection failures and a missing transport library. Each case runs zelparser
// in the sandbox and looks at its whole console output and its exit status.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sandbox.h"

namespace {

struct RunResult {
    std::string Output;
    int Status = -1;
};

// Runs Program with Args (and, when User is not 0, as that user) and collects its standard
// output; standard error (the shell's own complaints) goes to /dev/null.
RunResult RunProgram(const std::string &Program, std::vector<std::string> Args, uid_t User = 0,
              const std::string &Directory = "/tmp")
{
    int Pipe[2];
    RunResult R;
    if (pipe(Pipe) != 0)
        return R;
    pid_t Pid = fork();
    if (Pid == 0) {
        dup2(Pipe[1], 1);
        int Null = open("/dev/null", O_WRONLY);
        dup2(Null, 2);
        close(Pipe[0]);
        if (chdir(Directory.c_str()) != 0)
            _exit(120);
        if (User != 0 && (setgid(User) != 0 || setuid(User) != 0))
            _exit(121);
        std::vector<char *> Argv = {const_cast<char *>(Program.c_str())};
        for (std::string &A : Args)
            Argv.push_back(A.data());
        Argv.push_back(nullptr);
        execv(Program.c_str(), Argv.data());
        _exit(122);
    }
    close(Pipe[1]);
    char Buffer[4096];
    ssize_t N;
    while ((N = read(Pipe[0], Buffer, sizeof Buffer)) > 0)
        R.Output.append(Buffer, N);
    close(Pipe[0]);
    int Status = 0;
    waitpid(Pid, &Status, 0);
    R.Status = WIFEXITED(Status) ? WEXITSTATUS(Status) : -WTERMSIG(Status);
    return R;
}

bool Exists(const char *Path)
{
    struct stat St;
    return lstat(Path, &St) == 0;
}

class Startup : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(SandboxEnter(), 0); }
};

TEST_F(Startup, ANonRootUserGetsOnlyTheRootMessage)
{
    RunResult R = RunProgram(ZEL_PARSER_PATH, {"-MG", "--VIEW"}, 65534);
    EXPECT_EQ(R.Output, "Root access required to use the Parser utility.\n");
    EXPECT_EQ(R.Status, 255);
}

TEST_F(Startup, WithoutMGItRefusesAndTouchesNoConnectionFile)
{
    int Fd = open("/dev/zelparser_read", O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(Fd, 0);
    close(Fd);
    RunResult R = RunProgram(ZEL_PARSER_PATH, {"--silent", "-V"});
    EXPECT_EQ(R.Output, "This program can only be executed within the context of the Dovrel.\n");
    EXPECT_EQ(R.Status, 255);
    EXPECT_TRUE(Exists("/dev/zelparser_read"));
    EXPECT_FALSE(Exists("/dev/zelparser_write"));
    EXPECT_FALSE(Exists("/dev/zelrzp_np1"));
}

TEST_F(Startup, OptionErrorsComeBeforeTheContextMessage)
{
    RunResult R = RunProgram(ZEL_PARSER_PATH, {"--VIEW"});
    EXPECT_EQ(R.Output, "\nInvalid view parameter...No package name provided.\n"
                        "This program can only be executed within the context of the Dovrel.\n");
    EXPECT_EQ(R.Status, 255);
    R = RunProgram(ZEL_PARSER_PATH, {"-MG", "-V", "--VIEW", "a", "--VIEW", "b"});
    EXPECT_EQ(R.Output, "\nInvalid view parameter...Multiple view options, only one allowed.\n"
                        "Parser sub-service is unloading\n");
    EXPECT_EQ(R.Status, 255);
    EXPECT_FALSE(Exists("/dev/zelparser_write")); // start-up was skipped
}

TEST_F(Startup, AConnectionThatCannotBeOpenedEndsTheProcessWithItsHandle)
{
    // A directory survives the removal of the old connection files and is no FIFO.
    ASSERT_EQ(mkdir("/dev/zelparser_read", 0700), 0);
    RunResult R = RunProgram(ZEL_PARSER_PATH, {"-MG"});
    EXPECT_EQ(R.Output, "\nOpening of parser read connection failed.\n");
    EXPECT_GT(R.Status, 128); // a negative handle, modulo 256
    EXPECT_FALSE(Exists("/dev/zelparser_write"));
    ASSERT_EQ(rmdir("/dev/zelparser_read"), 0);

    ASSERT_EQ(mkdir("/dev/zelrzp_np1", 0700), 0);
    R = RunProgram(ZEL_PARSER_PATH, {"-MG"});
    EXPECT_EQ(R.Output, "\nOpening of registration connection failed.\n");
    EXPECT_GT(R.Status, 128);
}

TEST_F(Startup, AMissingTransportLibraryIsReportedNotCalled)
{
    // A copy of the binary where the library cannot be found.
    ASSERT_EQ(system("cp " ZEL_PARSER_PATH " /tmp/zelparser-alone"), 0);
    RunResult R = RunProgram("/tmp/zelparser-alone", {"-MG"});
    EXPECT_EQ(R.Output.rfind("Could not open libzelrzptransport.so.0...Error ", 0), 0u) << R.Output;
    EXPECT_EQ(R.Status, 256 - 114);
}

} // namespace
