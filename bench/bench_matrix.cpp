// bench_matrix.cpp - the zelrzp-manager program on the example bundle: one simulated
// distribution against the support matrix of every known distribution (one sandbox each, in
// parallel). Wall time of the whole program, as a user runs it.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "process.h"

static int RunManager(std::vector<std::string> Words)
{
    ZpChild Child;
    Child.Argv = {ZEL_MANAGER_PATH};
    Child.Argv.insert(Child.Argv.end(), Words.begin(), Words.end());
    Child.Argv.push_back(ZEL_EXAMPLES "/server-bundle");
    int Null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    Child.Stdout = Child.Stderr = Null;
    pid_t Pid = ZpSpawn(Child);
    close(Null);
    int Status = Pid < 0 ? -1 : ZpWaitStatus(Pid);
    return Status < 0 ? -1 : Status;
}

static void RunAndCheck(benchmark::State &State, const std::vector<std::string> &Args)
{
    for (auto _ : State)
        if (RunManager(Args) != 1) // the example bundle's findings
            State.SkipWithError("zelrzp-manager did not exit with the example's status 1");
}

static void BM_OneDistribution(benchmark::State &State) { RunAndCheck(State, {"--distro=rh73", "--json"}); }
static void BM_AllDistributions(benchmark::State &State) { RunAndCheck(State, {"--all-distros", "--json"}); }

BENCHMARK(BM_OneDistribution)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_AllDistributions)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK_MAIN();
