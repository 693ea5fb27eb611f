// bench_lint.cpp - `zelrzp-manager lint` on a generated bundle of 200 components (each with
// three prerequisites, one pre-configuration variable, two supported PCI devices and sections
// for two distributions): the whole lint of the directory, in process, per iteration.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_bundle_writer.h"
#include "zellint.h"

namespace {

const int Components = 200;

std::string MakeBundle(void)
{
    char Dir[] = "/tmp/benchlintXXXXXX";
    if (mkdtemp(Dir) == nullptr)
        abort();
    WriteBenchBundle(Dir, Components, {{"Red Hat Linux 7.3", "Red_Hat_Linux_7.3"},
                                       {"Red Hat Enterprise Linux AS 3", "Red_Hat_Enterprise_Linux_3"}});
    return Dir;
}

void BM_LintBundle200(benchmark::State &State)
{
    std::string Dir = MakeBundle();
    size_t Findings = 0;
    for (auto _ : State) {
        LintReport R;
        LintBundleDirectory(Dir, &R);
        Findings = R.Findings.size();
    }
    State.counters["findings"] = static_cast<double>(Findings);
    State.counters["components"] = Components;
    std::string Clean = "rm -rf " + Dir;
    if (system(Clean.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", Dir.c_str());
}
BENCHMARK(BM_LintBundle200)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
