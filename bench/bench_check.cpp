// bench_check.cpp - zelrzp-manager check and snapshot as a user runs them, wall time of the
// whole program: the example bundle's plan alone against its check on one snapshot; a fleet of
// 1,000 generated snapshots over 5 distributions (each with its own kernel, devices and files)
// against the generated 200-component bundle; snapshot --for of the example bundle.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench_bundle_writer.h"

namespace {

int RunManager(std::vector<std::string> Words)
{
    Words.insert(Words.begin(), ZEL_MANAGER_PATH);
    std::vector<char *> Argv;
    for (std::string &W : Words)
        Argv.push_back(&W[0]);
    Argv.push_back(nullptr);
    pid_t Pid = fork();
    if (Pid == 0) {
        int Null = open("/dev/null", O_WRONLY);
        dup2(Null, 1);
        dup2(Null, 2);
        execv(Argv[0], Argv.data());
        _exit(127);
    }
    int Status = 0;
    waitpid(Pid, &Status, 0);
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : -1;
}

void Put(const std::string &Path, const std::string &Text)
{
    std::string Dir = Path.substr(0, Path.rfind('/'));
    if (system(("mkdir -p '" + Dir + "'").c_str()) != 0)
        abort();
    std::ofstream(Path) << Text;
}

struct Distro {
    BenchSystem System;
    const char *ReleaseFile, *ReleaseText;
};

const Distro Distros[] = {
    {{"Red Hat Linux 7.3", "Red_Hat_Linux_7.3"}, "etc/redhat-release",
     "Red Hat Linux release 7.3 (Valhalla)\n"},
    {{"Red Hat Linux Advanced Server 2.1", "Red_Hat_Linux_Advanced_Server_2.1"}, "etc/redhat-release",
     "Red Hat Linux Advanced Server release 2.1AS (Pensacola)\n"},
    {{"Red Hat Enterprise Linux AS 3", "Red_Hat_Enterprise_Linux_3"}, "etc/redhat-release",
     "Red Hat Enterprise Linux AS release 3 (Taroon)\n"},
    {{"SUSE Linux Enterprise Server 8", "SuSE_SLES-8_8.1"}, "etc/SuSE-release",
     "SuSE SLES-8 (i386)\nVERSION = 8.1\n"},
    {{"UnitedLinux 1.0", "UnitedLinux_1.0"}, "etc/UnitedLinux-release",
     "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"},
};

// Snapshot i: distribution i % 5, its own kernel, one or two devices, lsmod or not, syslogd.
void WriteSnapshot(const std::string &Dir, int i)
{
    const Distro &D = Distros[i % 5];
    Put(Dir + "/" + D.ReleaseFile, D.ReleaseText);
    Put(Dir + "/proc/sys/kernel/osrelease", "2.4." + std::to_string(16 + i % 7) + "-" + std::to_string(i) + "\n");
    Put(Dir + "/proc/1/comm", i % 3 ? "syslogd\n" : "init\n");
    for (int d = 0; d <= i % 2; d++) {
        std::string Dev = Dir + "/sys/bus/pci/devices/0000:00:0" + std::to_string(d + 1) + ".0/";
        Put(Dev + "vendor", "0x8086\n");
        Put(Dev + "device", "0x" + std::to_string(1200 + (i + d) % 4) + "\n");
        Put(Dev + "subsystem_vendor", "0x0000\n");
        Put(Dev + "subsystem_device", "0x0000\n");
    }
    if (i % 4)
        Put(Dir + "/sbin/lsmod", "");
    Put(Dir + "/environ", "PATH=/sbin:/bin\n");
}

std::string Scratch()
{
    char Dir[] = "/tmp/benchcheckXXXXXX";
    if (mkdtemp(Dir) == nullptr)
        abort();
    return Dir;
}

const std::string Example = ZEL_EXAMPLES "/server-bundle";

void BM_PlanAlone(benchmark::State &State)
{
    for (auto _ : State)
        if (RunManager({"--release=Red Hat Linux release 7.3 (Valhalla)", "--json", Example}) != 1)
            State.SkipWithError("the plan did not exit with the example's status 1");
}

void BM_CheckOneSnapshot(benchmark::State &State)
{
    for (auto _ : State)
        if (RunManager({"check", "--json", "--snapshot=" ZEL_EXAMPLES "/snapshots/rh73-ready", Example}) != 1)
            State.SkipWithError("the check did not exit with the example's status 1");
}

void BM_CheckFleet1000(benchmark::State &State)
{
    std::string Dir = Scratch();
    WriteBenchBundle(Dir + "/bundle", 200, {Distros[0].System, Distros[1].System, Distros[2].System,
                                            Distros[3].System, Distros[4].System});
    std::vector<std::string> Args = {"check", "--json"};
    for (int i = 0; i < 1000; i++) {
        WriteSnapshot(Dir + "/m" + std::to_string(i), i);
        Args.push_back("--snapshot=" + Dir + "/m" + std::to_string(i));
    }
    Args.push_back(Dir + "/bundle");
    for (auto _ : State)
        if (RunManager(Args) != 1) // some machines lack a device, lsmod or syslogd
            State.SkipWithError("the fleet's check did not exit with status 1");
    if (system(("rm -rf '" + Dir + "'").c_str()) != 0)
        State.SkipWithError("cannot remove the scratch directory");
}

void BM_SnapshotFor(benchmark::State &State)
{
    std::string Dir = Scratch();
    int n = 0;
    for (auto _ : State)
        if (RunManager({"snapshot", "--for=" + Example, Dir + "/s" + std::to_string(n++)}) != 0)
            State.SkipWithError("snapshot failed");
    if (system(("rm -rf '" + Dir + "'").c_str()) != 0)
        State.SkipWithError("cannot remove the scratch directory");
}

} // namespace

BENCHMARK(BM_PlanAlone)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);
BENCHMARK(BM_CheckOneSnapshot)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);
BENCHMARK(BM_CheckFleet1000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_SnapshotFor)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);
BENCHMARK_MAIN();
