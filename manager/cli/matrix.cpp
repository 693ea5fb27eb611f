// matrix.cpp - the support matrix of the zelrzp-manager program: one child process per
// known distribution, each running the sub-service in a sandbox of its own and leaving its
// result as JSON in a temporary file, then the worst exit status and the matrix as a table or
// JSON. Writes the working directory (the bundle directory, before the children start).
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "zelcli.h"

// The result of a distribution whose child gave none.
static Json ChildFailure(const CliDistro &D, const std::string &What)
{
    return {{"distribution", {{"name", D.Name}, {"description", D.Description}}},
            {"failure", CliFailureJson("child", 0, What)},
            {"bundleFiles", Json::array()}, {"refused", Json::array()},
            {"findings", Json::array()}, {"components", Json::array()},
            {"bundle", nullptr}, {"outcome", "no plan"}, {"exitStatus", CLI_NO_PLAN}};
}

Json CliReadChildResult(int Fd)
{
    std::string Text;
    char Buffer[65536];
    ssize_t N;
    lseek(Fd, 0, SEEK_SET);
    while ((N = read(Fd, Buffer, sizeof Buffer)) > 0)
        Text.append(Buffer, (size_t)N);
    close(Fd);
    Json R = Json::parse(Text, nullptr, false);
    return R.is_object() ? R : Json();
}

// Reads what a child left in its file.
static Json CollectChild(const CliDistro &D, int Fd, int Status)
{
    Json R = CliReadChildResult(Fd);
    if (R.is_null())
        return ChildFailure(D, "the run for " + std::string(D.Name) +
                                   " ended without a result (wait status " +
                                   std::to_string(Status) + ")");
    return R;
}

// Starts the child of one distribution, which writes its result to *Fd: its pid, or -1.
static pid_t StartChild(const CliOptions &O, const CliDistro &D, int *Fd)
{
    FILE *File = tmpfile();
    *Fd = File ? dup(fileno(File)) : -1;
    if (File)
        fclose(File);
    pid_t Pid = *Fd < 0 ? -1 : fork();
    if (Pid == 0) {
        std::string Text =
            CliRunOne(O, &D, false).dump(-1, ' ', false, Json::error_handler_t::replace);
        ssize_t Written = write(*Fd, Text.data(), Text.size());
        _exit(Written == (ssize_t)Text.size() ? 0 : 1);
    }
    return Pid;
}

// One child per distribution, each in its own sandbox; the results in table order.
static std::vector<Json> RunMatrix(const CliOptions &O)
{
    std::vector<pid_t> Pids(CliDistroCount);
    std::vector<int> Fds(CliDistroCount);
    fflush(nullptr);
    for (size_t i = 0; i < CliDistroCount; i++)
        Pids[i] = StartChild(O, CliDistros[i], &Fds[i]);
    std::vector<Json> Results;
    for (size_t i = 0; i < CliDistroCount; i++) {
        int Status = 0;
        if (Pids[i] < 0) {
            Results.push_back(ChildFailure(CliDistros[i], std::string("cannot start a run: ") +
                                                              strerror(errno)));
            if (Fds[i] >= 0)
                close(Fds[i]);
            continue;
        }
        while (waitpid(Pids[i], &Status, 0) < 0 && errno == EINTR) {
        }
        Results.push_back(CollectChild(CliDistros[i], Fds[i], Status));
    }
    return Results;
}

static int MatrixStatus(const std::vector<Json> &Results)
{
    int Worst = CLI_CLEAN;
    bool AnyPlan = false;
    for (const Json &R : Results) {
        int Status = R["outcome"] == "not claimed" ? CLI_CLEAN : R["exitStatus"].get<int>();
        AnyPlan = AnyPlan || R["failure"].is_null();
        Worst = std::max(Worst, Status);
    }
    return AnyPlan ? Worst : CLI_NO_PLAN;
}

std::string CliComponentVerdict(const Json &R, const std::string &Component)
{
    for (const Json &X : R["refused"])
        if (X["component"] == Component)
            return "refused: " + CliStr(X["reason"]);
    std::string Notes;
    for (const Json &F : R["findings"])
        if (F["component"] == Component && F["problem"].get<bool>())
            Notes += " " + CliStr(F["text"]);
    for (const Json &C : R["components"])
        if (C["file"] == Component)
            return "recorded" + (Notes.empty() ? "" : " with findings:" + Notes);
    return "not recorded" + Notes;
}

std::vector<std::string> CliComponentsOf(const Json &R)
{
    std::vector<std::string> Names;
    auto Add = [&Names](const std::string &N) {
        if (!N.empty() && std::find(Names.begin(), Names.end(), N) == Names.end())
            Names.push_back(N);
    };
    for (const Json &F : R["findings"])
        Add(CliStr(F["component"]));
    for (const Json &C : R["components"])
        Add(CliStr(C["file"]));
    for (const Json &X : R["refused"])
        Add(CliStr(X["component"]));
    return Names;
}

// One line per distribution: what it was detected as, the bundle chosen and the result.
static void SummaryLine(const Json &R)
{
    std::string Bundle = R["bundle"].is_object() ? CliStr(R["bundle"]["file"]) : "-";
    char Summary[160];
    if (R["failure"].is_null())
        snprintf(Summary, sizeof Summary, "%zu recorded, %zu refused: %s",
                 R["components"].size(), R["refused"].size(), CliStr(R["outcome"]).c_str());
    else
        snprintf(Summary, sizeof Summary, "%s", CliStr(R["outcome"]).c_str());
    printf("%-10s %-34s %-16s %s\n", CliStr(R["distribution"]["name"]).c_str(),
           CliStr(R["installedOS"]).c_str(), Bundle.c_str(), Summary);
}

// A distribution's section: why it has no bundle or which it got, the bundle files'
// verdicts and each component's.
static void Section(const Json &R)
{
    printf("\n== %s (%s)\n", CliStr(R["distribution"]["name"]).c_str(),
           CliStr(R["distribution"]["description"]).c_str());
    if (!R["failure"].is_null())
        printf("    %s\n", CliStr(R["failure"]["what"]).c_str());
    else
        printf("    bundle %s \"%s\", chosen for its entry \"%s\"\n",
               CliStr(R["bundle"]["file"]).c_str(), CliStr(R["bundle"]["name"]).c_str(),
               CliStr(R["bundle"]["matchedEntry"]).c_str());
    CliTableVerdicts(R);
    for (const std::string &C : CliComponentsOf(R))
        printf("    %-28s %s\n", C.c_str(), CliComponentVerdict(R, C).c_str());
}

static void PrintMatrixTable(const CliOptions &O, const Json &Results, int Status)
{
    printf("Support matrix of %s\n\n", O.BundleDir.c_str());
    printf("%-10s %-34s %-16s %s\n", "distro", "detected as", "bundle", "result");
    for (const Json &R : Results)
        SummaryLine(R);
    for (const Json &R : Results)
        Section(R);
    printf("\nResult: exit status %d\n", Status);
}

static Json MatrixJson(const CliOptions &O, const Json &Failure, const Json &Runs, int Status)
{
    return {{"bundleDirectory", O.BundleDir}, {"failure", Failure}, {"distributions", Runs},
            {"exitStatus", Status}};
}

Json CliMatrixRun(CliOptions &O)
{
    std::string Error;
    if (CliEnterBundleDir(&O, &Error) != 0) {
        fprintf(stderr, "zelrzp-manager: %s\n", Error.c_str());
        return MatrixJson(O, CliFailureJson("setup", 0, Error), Json::array(), CLI_NO_PLAN);
    }
    std::vector<Json> Results = RunMatrix(O);
    return MatrixJson(O, nullptr, Results, MatrixStatus(Results));
}

int CliMatrix(CliOptions &O)
{
    Json M = CliMatrixRun(O);
    int Status = M["exitStatus"].get<int>();
    if (O.Json)
        CliPrintJson(M);
    else if (M["failure"].is_null())
        PrintMatrixTable(O, M["distributions"], Status);
    return Status;
}
