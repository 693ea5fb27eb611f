// How long the sub-service lives and what it holds while it does, end to end with the real
// binary in the sandbox: it clears connection files of an earlier run; idle it wakes about 100
// times a second and stays; a connection that shows data without yielding a packet is not spun
// on; it ends in order when its manager is killed; a flood of answers that nobody asked for
// does not grow it without bound.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "../common/helpers.h"
#include "bundle_fixture.h"

namespace {

// A field of /proc/PID/status (or of a thread's status) as a number; -1 when missing.
long StatusField(const std::string &StatusPath, const std::string &Field)
{
    std::ifstream Status(StatusPath);
    std::string Line;
    while (std::getline(Status, Line))
        if (Line.compare(0, Field.size() + 1, Field + ":") == 0)
            return std::stol(Line.substr(Field.size() + 1));
    return -1;
}

// Voluntary context switches of all threads of a process: one per sleep that ended.
long VoluntarySwitches(pid_t Pid)
{
    long Sum = 0;
    std::string Tasks = "/proc/" + std::to_string(Pid) + "/task";
    for (const auto &Task : std::filesystem::directory_iterator(Tasks))
        Sum += StatusField(Task.path().string() + "/status", "voluntary_ctxt_switches");
    return Sum;
}

// User and system CPU time of a process in clock ticks (fields 14 and 15 of its stat line).
long CpuTicks(pid_t Pid)
{
    std::string Line = ReadAll("/proc/" + std::to_string(Pid) + "/stat");
    unsigned long User = 0, System = 0;
    sscanf(Line.c_str() + Line.rfind(')') + 2,
           "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &User, &System);
    return long(User + System);
}

// Watches a process for Ms milliseconds: its sleeps that ended per second, its share of a CPU.
void Watch(pid_t Pid, int Ms, double *PerSecond, double *CpuShare)
{
    long Switches = VoluntarySwitches(Pid);
    long Ticks = CpuTicks(Pid);
    auto Begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(Ms));
    double Seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - Begin).count();
    *PerSecond = (VoluntarySwitches(Pid) - Switches) / Seconds;
    *CpuShare = double(CpuTicks(Pid) - Ticks) / sysconf(_SC_CLK_TCK) / Seconds;
}

using Lifecycle = BundleTest;

TEST_F(Lifecycle, AnIdleSubServiceWakesAboutAHundredTimesASecondStaysAndDoesNotSpin)
{
    // Connection files of an earlier run, plain files where the FIFOs belong, would be refused
    // by the transport if they stayed: the sub-service removes them at start.
    ASSERT_TRUE(EnterRedHat73());
    for (const char *Path : {"/dev/zelparser_read", "/dev/zelparser_write"})
        ASSERT_TRUE(std::ofstream(Path) << "stale\n");
    ZmConfig Config;
    Config.ParserPath = ZEL_PARSER_PATH;
    Config.BundleDir = "/tmp";
    ASSERT_EQ(ZmStart(&S, Config), 0) << ZmConsoleSnapshot(&S);
    ExpectStillServing(); // the worker of this request has ended before the idle time starts
    double PerSecond, CpuShare;
    Watch(S.Pid, 2500, &PerSecond, &CpuShare);
    // The listener looks at the exit flag every 10 ms, the shut-down thread once a second.
    // Generous bounds: a loaded machine delays wake-ups, a spinning thread would not sleep.
    EXPECT_GT(PerSecond, 40);
    EXPECT_LT(PerSecond, 300);
    EXPECT_LT(CpuShare, 0.10);
    // Idle for longer than the shut-down thread's look at its manager: still there.
    ExpectStillServing();

    // Another reader holds the read connection's reader lock: the request below is there to
    // see, but every receive of the sub-service takes nothing until the lock is released.
    int Lock = open("/dev/zelparser_read.lock", O_RDWR);
    ASSERT_GE(Lock, 0);
    ASSERT_EQ(flock(Lock, LOCK_EX), 0);
    RZP_HEADER_PACKET H = HeaderTo(&S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS, 4242, RZP_NO_RESULT_YET);
    ASSERT_EQ(ZmSendPacket(&S, H, {}), 0);
    Watch(S.Pid, 1500, &PerSecond, &CpuShare);
    flock(Lock, LOCK_UN);
    close(Lock);
    // A listener that polled again at once would never sleep: no voluntary switches, and all
    // the CPU the machine gives it.
    EXPECT_GT(PerSecond, 20);
    EXPECT_LT(CpuShare, 0.25);
    auto IsAnswer = [](const ZmPacket &P, const void *) {
        return P.Header.LocalSequenceNumber == 4242 && P.Header.ReturnCode != RZP_NO_RESULT_YET;
    };
    size_t From = 0;
    EXPECT_EQ(ZmWaitForPacket(&S, IsAnswer, nullptr, &From, nullptr), 0);
    EXPECT_EQ(ZmStop(&S), 0);
}

// The manager runs in a child process that starts the sub-service, has it block mid-parse on a
// log request that is never answered, and is then killed. The orphan is handed to this process
// (a subreaper), which can then see it end.
TEST_F(Lifecycle, ASubServiceWhoseManagerWasKilledMidParseEndsInOrder)
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    int Pipe[2];
    ASSERT_EQ(pipe(Pipe), 0);
    pid_t Manager = fork();
    ASSERT_GE(Manager, 0);
    if (Manager == 0) {
        close(Pipe[0]);
        ZmConfig Config;
        Config.AnswerRequests = false; // the sub-service blocks on its first log request
        ZmSession Child;
        bool Started = StartParser(&Child, {}, {"-C", "pkg.rpm"}, Config);
        pid_t Pid = Started && BlockMidParse(&Child) ? Child.Pid : -1;
        if (write(Pipe[1], &Pid, sizeof Pid) == sizeof Pid)
            pause(); // killed here
        _exit(1);
    }
    close(Pipe[1]);
    pid_t Parser = -1;
    ASSERT_EQ(read(Pipe[0], &Parser, sizeof Parser), ssize_t(sizeof Parser));
    close(Pipe[0]);
    kill(Manager, SIGKILL);
    int Status = 0;
    ASSERT_EQ(waitpid(Manager, &Status, 0), Manager);
    ASSERT_GT(Parser, 0) << "the child manager could not bring the sub-service mid-parse";
    // It ends within about a second; 10 s only catches a sub-service that stays.
    pid_t Ended = 0;
    for (int i = 0; i < 1000 && (Ended = waitpid(Parser, &Status, WNOHANG)) == 0; i++)
        usleep(10000);
    if (Ended == 0)
        kill(Parser, SIGKILL), waitpid(Parser, &Status, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    ASSERT_EQ(Ended, Parser) << "the sub-service outlived its manager";
    ASSERT_TRUE(WIFEXITED(Status)) << "ended by signal " << WTERMSIG(Status);
    EXPECT_EQ(WEXITSTATUS(Status), 0);
}

TEST_F(Lifecycle, AFloodOfUnrequestedAnswersKeepsMemoryBoundedAndTheServiceServing)
{
    ASSERT_TRUE(StartParser(&S, {}));
    std::string StatusPath = "/proc/" + std::to_string(S.Pid) + "/status";
    long Before = StatusField(StatusPath, "VmRSS");
    Bytes Payload = ZmStringItem(std::string(91, 'x')); // 100 bytes
    for (int i = 0; i < 20000; i++)
        ASSERT_EQ(ZmSendPacket(&S, HeaderTo(&S, RZP_OUTPUT_DATA, 500000 + i, 0), Payload), 0);
    ExpectStillServing(); // answered after every packet of the flood was taken
    long After = StatusField(StatusPath, "VmHWM");
    // Parked whole, 20000 packets in 16 KiB buffers would take over 300 MiB.
    EXPECT_LT(After - Before, 48 * 1024) << "KiB before " << Before << ", peak " << After;
    EXPECT_EQ(ZmWaitForConsole(&S, "Parser dropped an unrequested packet for opCode 2001"), 0);
    EXPECT_EQ(ZmStop(&S), 0);
}

} // namespace
