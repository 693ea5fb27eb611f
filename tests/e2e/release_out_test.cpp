// release_out_test.cpp - another local user who keeps planting something at /tmp/release.out
// (a symbolic link, a FIFO, a directory of their own) while the sub-service detects the
// installed distribution: the root shells must never write through it, detection must never
// hang on it, and a path that cannot be made safe must fail the detection, not detect nothing.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "../common/helpers.h"
#include "bundle_fixture.h"

namespace {

#define RELEASE_OUT "/tmp/release.out"
#define VICTIM "/tmp/victim"
#define VICTIM_TEXT "root's own file\n"
#define OTHER_USER 65534 // nobody
#define SLES_BUNDLE_NAME "SLES pack"

enum Plant { PLANT_LINK, PLANT_FIFO, PLANT_DIRECTORY };

// A child running as another user that re-plants Kind at /tmp/release.out until it is killed.
pid_t StartPlanter(Plant Kind)
{
    pid_t Pid = fork();
    if (Pid != 0)
        return Pid;
    if (setgroups(0, nullptr) != 0 || setgid(OTHER_USER) != 0 || setuid(OTHER_USER) != 0)
        _exit(2);
    for (;;) {
        if (Kind == PLANT_LINK)
            symlink(VICTIM, RELEASE_OUT);
        else if (Kind == PLANT_FIFO)
            mkfifo(RELEASE_OUT, 0666);
        else if (mkdir(RELEASE_OUT, 0755) == 0 || errno == EEXIST)
            close(open(RELEASE_OUT "/keep", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        sched_yield();
    }
}

class ReleaseOut : public testing::TestWithParam<Plant> {
protected:
    ZmSession S;
    void TearDown() override { ZmClose(&S); }
};

TEST_P(ReleaseOut, AnotherUsersPlantIsNeverWrittenThroughNorHangsTheDetection)
{
    if (geteuid() != 0 || getuid() != 0)
        GTEST_SKIP() << "planting as another user needs real root";
    // A SLES 8 machine whose bundle directory holds the Red Hat Linux 7.3 bundle of three
    // components and a SLES bundle of one of them; the distribution is detected at the open.
    ASSERT_TRUE(StartParser(&S, {PlainComponent("a-1.0.rpm"), PlainComponent("b-1.0.rpm"),
                                 PlainComponent("c-1.0.rpm")}));
    ASSERT_EQ(SandboxClearReleaseFiles(), 0);
    ASSERT_EQ(SandboxSetFile("/etc/SuSE-release", "SuSE SLES-8 (i386)\nVERSION = 8.1\n"), 0);
    WriteOtherBundle(TEST_BUNDLE_DIR "/bp000002.xml", SLES_BUNDLE_NAME, "SUSE Linux Enterprise Server 8");
    std::ofstream(VICTIM) << VICTIM_TEXT;
    struct stat Tmp;
    ASSERT_EQ(stat("/tmp", &Tmp), 0);
    ASSERT_EQ(Tmp.st_mode & 07777, 01777u) << "the sandbox's /tmp must be sticky";
    pid_t Planter = StartPlanter(GetParam());
    ASSERT_GT(Planter, 0);
    usleep(100000);
    ZmPacket Open;
    int Asked = ZmRequest(&S, RZP_PARSER_OPEN_INPUT_FILE, {}, &Open, 20000);
    EXPECT_EQ(Asked, 0) << "open input file was not answered";
    if (Asked == 0 && GetParam() == PLANT_DIRECTORY) {
        // A directory the sub-service may not remove: the detection fails and says why.
        EXPECT_EQ(Open.Header.ReturnCode, RZP_PARSER_NO_BUNDLE);
        EXPECT_EQ(ZmWaitForConsole(&S, "/tmp/release.out", 5000), 0) << ZmConsoleSnapshot(&S);
    } else if (Asked == 0) {
        EXPECT_EQ(Open.Header.ReturnCode, 0);
        EXPECT_EQ(Open.Payload, ZmStringItem(SLES_BUNDLE_NAME, sizeof(SLES_BUNDLE_NAME) - 1));
        EXPECT_EQ(Ask(&S, RZP_PARSER_PARSE_INPUT_FILE).Header.ReturnCode, 0);
        EXPECT_EQ(FetchRecords(&S, nullptr).size(), 1u) << "records of the SLES bundle";
    }
    kill(Planter, SIGKILL);
    waitpid(Planter, nullptr, 0);
    ZmClose(&S);
    EXPECT_EQ(ReadAll(VICTIM), VICTIM_TEXT);
}

std::string PlantName(const testing::TestParamInfo<Plant> &Info)
{
    static const char *const Names[] = {"SymbolicLink", "Fifo", "Directory"};
    return Names[Info.param];
}

INSTANTIATE_TEST_SUITE_P(Plants, ReleaseOut,
                         testing::Values(PLANT_LINK, PLANT_FIFO, PLANT_DIRECTORY), PlantName);

} // namespace
