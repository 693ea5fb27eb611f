// bench_bundle.cpp - one whole installation of a generated bundle of 200 components, from open
// to shut-down, through the reference manager in the sandbox. Reports the start to the seventh
// registration, the open to the parse answer, the whole walk, the sub-service's CPU time and
// peak memory, the request/answer round trips, then two idle seconds (CPU and wake-ups), a
// flood of 100,000 answers that nobody asked for (memory), and the shut-down.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "bench_bundle_writer.h"
#include "sandbox.h"
#include "zelrzpmanager.h"

#define BENCH_DIR "/tmp/bench-bundle"
#define BENCH_COMPONENTS 200
#define BENCH_FLOOD 100000
#define BENCH_IDLE_SECONDS 2

struct Usage {
    double CpuSeconds = -1;
    long PeakKiB = -1;
};

// CPU time (user + system) and peak resident memory of a live process.
static Usage ReadUsage(pid_t Pid)
{
    Usage U;
    std::ifstream Stat("/proc/" + std::to_string(Pid) + "/stat");
    std::string Line;
    std::getline(Stat, Line);
    size_t Close = Line.rfind(')');
    if (Close != std::string::npos) {
        std::istringstream Fields(Line.substr(Close + 2));
        std::string Skip;
        unsigned long UserTicks = 0, SystemTicks = 0;
        for (int Field = 3; Field <= 13; Field++) // state .. cmajflt
            Fields >> Skip;
        Fields >> UserTicks >> SystemTicks;
        U.CpuSeconds = double(UserTicks + SystemTicks) / double(sysconf(_SC_CLK_TCK));
    }
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    while (std::getline(Status, Line))
        if (Line.compare(0, 6, "VmHWM:") == 0)
            U.PeakKiB = std::stol(Line.substr(6));
    return U;
}

// Every packet recorded from index From on that carries -106 is a request, answered once;
// shut-down and deregistration have no answer.
static int CountRoundTrips(ZmSession *S, size_t From)
{
    std::vector<ZmPacket> Packets = ZmPacketsSnapshot(S);
    int Requests = 0;
    for (size_t i = From; i < Packets.size(); i++)
        if (Packets[i].Header.ReturnCode == RZP_NO_RESULT_YET &&
            Packets[i].Header.opCode != RZP_SHUTDOWN)
            Requests++;
    return Requests;
}

static int Fail(const char *What)
{
    fprintf(stderr, "bench_bundle: %s\n", What);
    return 1;
}

typedef std::chrono::steady_clock Clock;

static double SecondsSince(Clock::time_point Start)
{
    return std::chrono::duration<double>(Clock::now() - Start).count();
}

static long StatusKiB(pid_t Pid, const char *Field)
{
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    std::string Line;
    size_t Length = strlen(Field);
    while (std::getline(Status, Line))
        if (Line.compare(0, Length, Field) == 0 && Line[Length] == ':')
            return std::stol(Line.substr(Length + 1));
    return -1;
}

// Voluntary context switches of every thread of the process: one per sleep that ended.
static long WakeUps(pid_t Pid)
{
    std::string Tasks = "/proc/" + std::to_string(Pid) + "/task";
    DIR *Dir = opendir(Tasks.c_str());
    if (Dir == nullptr)
        return -1;
    long Sum = 0;
    while (struct dirent *Entry = readdir(Dir)) {
        if (Entry->d_name[0] == '.')
            continue;
        std::ifstream Status(Tasks + "/" + Entry->d_name + "/status");
        std::string Line;
        while (std::getline(Status, Line))
            if (Line.compare(0, 24, "voluntary_ctxt_switches:") == 0)
                Sum += std::stol(Line.substr(24));
    }
    closedir(Dir);
    return Sum;
}

// 100,000 output answers (100-byte payloads) that no request of the sub-service asked for,
// then one request that is answered only after all of them were taken.
static double Flood(ZmSession *S)
{
    std::vector<unsigned char> Payload = ZmStringItem(std::string(91, 'x'));
    RZP_HEADER_PACKET H{};
    H.SrcHandle = S->ReceiveHandle;
    H.DestHandle = S->SendHandle;
    H.RemoteSequenceNumber = 1;
    H.opCode = RZP_OUTPUT_DATA;
    auto Start = Clock::now();
    for (int i = 0; i < BENCH_FLOOD; i++) {
        H.LocalSequenceNumber = 700000 + i;
        if (ZmSendPacket(S, H, Payload) != 0)
            return -1;
    }
    ZmPacket Answer;
    if (ZmRequest(S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS, {}, &Answer) != 0)
        return -1;
    return SecondsSince(Start);
}

// Start to the seventh registration answered, over several starts (one sample on a loaded
// machine says little): the median and the fastest, in milliseconds.
static int StartTimes(const ZmConfig &Config, double *Median, double *Fastest)
{
    std::vector<double> Ms;
    for (int i = 0; i < 11; i++) {
        ZmSession S;
        auto Launch = Clock::now();
        if (ZmStart(&S, Config) != 0)
            return -1;
        Ms.push_back(SecondsSince(Launch) * 1000);
        ZmStop(&S);
        ZmClose(&S);
    }
    std::sort(Ms.begin(), Ms.end());
    *Median = Ms[Ms.size() / 2];
    *Fastest = Ms[0];
    return 0;
}

int main(void)
{
    if (SandboxEnter() != 0 || SandboxSetFile("/etc/redhat-release",
                                              "Red Hat Linux release 7.3 (Valhalla)\n") != 0)
        return Fail("cannot enter the sandbox (run as root)");
    WriteBenchBundle(BENCH_DIR, BENCH_COMPONENTS, {{"Red Hat Linux 7.3", "Red_Hat_Linux_7.3"}});
    ZmConfig Config;
    Config.ParserPath = ZEL_PARSER_PATH;
    Config.BundleDir = BENCH_DIR;
    Config.TimeoutMs = 120000;
    double StartMedian = 0, StartFastest = 0;
    if (StartTimes(Config, &StartMedian, &StartFastest) != 0)
        return Fail("the sub-service did not start");
    ZmSession S;
    std::string Error;
    if (ZmStart(&S, Config, &Error) != 0)
        return Fail(Error.c_str());
    size_t FirstPacket = ZmPacketsSnapshot(&S).size(); // registration is not in the walk
    Usage Before = ReadUsage(S.Pid);
    auto Start = Clock::now();
    ZmPacket Answer;
    if (ZmRequest(&S, RZP_PARSER_OPEN_INPUT_FILE, {}, &Answer) != 0 ||
        ZmRequest(&S, RZP_PARSER_PARSE_INPUT_FILE, {}, &Answer) != 0)
        return Fail("open or parse was not answered");
    double Parsed = SecondsSince(Start);
    std::vector<std::vector<unsigned char>> Raw;
    int32_t Items = 0;
    if (ZmFetchAllRecords(&S, &Raw, nullptr, &Items, &Error) != 0)
        return Fail(Error.c_str());
    double Walk = SecondsSince(Start);
    Usage U = ReadUsage(S.Pid);
    int RoundTrips = CountRoundTrips(&S, FirstPacket);

    long Wakes = WakeUps(S.Pid);
    Usage IdleFrom = ReadUsage(S.Pid);
    auto IdleStart = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(BENCH_IDLE_SECONDS));
    double IdleSeconds = SecondsSince(IdleStart);
    double IdleCpu = ReadUsage(S.Pid).CpuSeconds - IdleFrom.CpuSeconds;
    double WakesPerSecond = (WakeUps(S.Pid) - Wakes) / IdleSeconds;

    long RssBeforeFlood = StatusKiB(S.Pid, "VmRSS");
    double FloodSeconds = Flood(&S);
    long RssAfterFlood = StatusKiB(S.Pid, "VmRSS");
    long PeakAfterFlood = StatusKiB(S.Pid, "VmHWM");

    auto StopStart = Clock::now();
    int Status = ZmStop(&S);
    double Stopped = SecondsSince(StopStart);
    double CpuInstall = U.CpuSeconds - Before.CpuSeconds;

    printf("components %d, items %d, records %zu, exit status %d\n", BENCH_COMPONENTS, Items,
           Raw.size(), Status);
    printf("start to seventh registration %.1f ms median of 11, fastest %.1f ms\n", StartMedian,
           StartFastest);
    printf("open to parse answer %.3f s, open to last record %.3f s, round trips %d (%.3f ms "
           "each)\n",
           Parsed, Walk, RoundTrips, Walk * 1000 / RoundTrips);
    printf("sub-service CPU %.3f s over the walk (%.2f ms per component), peak memory %ld KiB\n",
           CpuInstall, CpuInstall * 1000 / BENCH_COMPONENTS, U.PeakKiB);
    printf("idle %.1f s: CPU %.2f%%, %.0f wake-ups per second\n", IdleSeconds,
           100.0 * IdleCpu / IdleSeconds, WakesPerSecond);
    printf("flood of %d unrequested answers: %.2f s, resident %ld KiB before, %ld KiB after, "
           "peak %ld KiB\n",
           BENCH_FLOOD, FloodSeconds, RssBeforeFlood, RssAfterFlood, PeakAfterFlood);
    printf("shut-down (opcode 2 to exit) %.1f ms\n", Stopped * 1000);
    ZmClose(&S);
    return Items == BENCH_COMPONENTS && int(Raw.size()) == BENCH_COMPONENTS ? 0 : 1;
}
