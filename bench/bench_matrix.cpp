// bench_matrix.cpp - the zelrzp-manager program on the example bundle: one simulated
// distribution against the support matrix of every known distribution (one sandbox each, in
// parallel). Wall time of the whole program, as a user runs it.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

static int RunManager(std::vector<std::string> Words)
{
    Words.insert(Words.begin(), ZEL_MANAGER_PATH);
    Words.push_back(ZEL_EXAMPLES "/server-bundle");
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
