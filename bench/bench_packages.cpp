// bench_packages.cpp - the bundle package reader over bundles of 10^4 and 10^5 selected
// packages: GetBundlePackages from a parsed tree's walk to the last appended component, then
// the list released. Reports the resident memory the list and tree hold at the end (MiB).
// Also the install record list walked as a manager walks it, next item after next item, over
// 10^3 and 10^4 records, and walked out of order (the handles asked from the last back to the
// first).
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "packages.h"
#include "records.h"
#include "xmltokenizer.h"

static std::string WriteBundle(int Packages)
{
    std::string Path = "/tmp/bench-packages-" + std::to_string(getpid()) + "-" +
                       std::to_string(Packages) + ".xml";
    std::ofstream Out(Path);
    Out << "<zel_bundle>\n<version value=\"1.0\"/>\n<contents>\n";
    for (int i = 0; i < Packages; i++)
        Out << "<package install=\"yes\">comp" << i << "-1.0-1.i386.rpm</package>\n";
    Out << "</contents>\n</zel_bundle>\n";
    return Path;
}

// Resident memory of this process in KiB (VmRSS).
static long ResidentKiB(void)
{
    FILE *Status = fopen("/proc/self/status", "r");
    char Line[256];
    long KiB = 0;
    while (Status != nullptr && fgets(Line, sizeof Line, Status) != nullptr)
        if (strncmp(Line, "VmRSS:", 6) == 0)
            KiB = atol(Line + 6);
    if (Status != nullptr)
        fclose(Status);
    return KiB;
}

static void BM_BundlePackages(benchmark::State &State)
{
    int Packages = static_cast<int>(State.range(0));
    std::string Path = WriteBundle(Packages);
    if (freopen("/dev/null", "w", stdout) == nullptr)
        State.SkipWithError("stdout");
    long Before = ResidentKiB(), Held = 0;
    for (auto _ : State) {
        int Count = GetBundlePackages(Path.c_str());
        State.PauseTiming();
        if (Count != Packages)
            State.SkipWithError("wrong count");
        Held = ResidentKiB() - Before;
        FreeComponentList();
        DeleteTree();
        State.ResumeTiming();
    }
    State.counters["held_MiB"] = static_cast<double>(Held) / 1024.0;
    unlink(Path.c_str());
}
BENCHMARK(BM_BundlePackages)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

// Each next-item answer finds the record the manager names by its handle and gives the one after.
static void BM_NextRecordWalk(benchmark::State &State)
{
    int Records = static_cast<int>(State.range(0));
    const unsigned char Record[64] = {0};
    for (int i = 0; i < Records; i++)
        AppendInstallRecord("component.rpm", Record, sizeof Record);
    for (auto _ : State) {
        int Walked = 1;
        for (PINSTALL_PACKET_LIST Node = InstallPacketList; Node != nullptr; Walked++) {
            PINSTALL_PACKET_LIST Found = FindInstallRecord(Node->InstallPacketHandle);
            Node = Found == nullptr ? nullptr : Found->NextPacket;
        }
        if (Walked != Records + 1)
            State.SkipWithError("the walk lost records");
    }
    FreeInstallPacketList();
}
BENCHMARK(BM_NextRecordWalk)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// A manager that asks for the handles from the last back to the first.
static void BM_NextRecordWalkBackwards(benchmark::State &State)
{
    int Records = static_cast<int>(State.range(0));
    const unsigned char Record[64] = {0};
    int32_t First = InstallPacketNumber;
    for (int i = 0; i < Records; i++)
        AppendInstallRecord("component.rpm", Record, sizeof Record);
    for (auto _ : State) {
        for (int32_t Handle = First + Records - 1; Handle >= First; Handle--)
            if (FindInstallRecord(Handle) == nullptr)
                State.SkipWithError("a record went missing");
    }
    FreeInstallPacketList();
}
BENCHMARK(BM_NextRecordWalkBackwards)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
