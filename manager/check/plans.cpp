// plans.cpp - the plans of the check: one sandboxed child process per distinct plan input
// (release files, SP3, RZPELMCONFIGURED), a few at a time, each running the sub-service as the
// plan command does, with that input's SP3 and RZPELMCONFIGURED in its environment, and leaving
// its plan, with the distribution name and version the sub-service's own detection gives, as
// JSON in a temporary file. Writes the working directory (the bundle directory, before the
// children start) and, in each child, its standard output (sent to /dev/null) and environment.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "packages.h"

static Json FailedPlan(const std::vector<CliRelease> &Set, const std::string &What)
{
    Json Releases = Json::object();
    for (const CliRelease &R : Set)
        Releases[R.File] = R.Text;
    return {{"distribution", {{"releaseFiles", Releases}, {"key", nullptr}}},
            {"installedOS", ""},
            {"failure", CliFailureJson("plan", 0, What)},
            {"bundle", nullptr},
            {"refused", Json::array()},
            {"components", Json::array()},
            {"outcome", "no plan"},
            {"exitStatus", CLI_NO_PLAN}};
}

// In the child: the plan, then the sub-service's detection in the same sandbox.
[[noreturn]] static void RunChild(CliOptions CO, const CkPlanInput &In, int Fd)
{
    int Null = open("/dev/null", O_WRONLY);
    if (Null >= 0)
        dup2(Null, 1);
    CO.Releases = In.Releases;
    CO.Sp3 = In.Sp3;
    if (In.Configured)
        setenv("RZPELMCONFIGURED", "YES", 1);
    else
        unsetenv("RZPELMCONFIGURED");
    Json R = CliRunOne(CO, nullptr, false);
    char Name[OS_NAME_MAX] = {}, Version[OS_NAME_MAX] = {};
    if (R["failure"].is_null() || !R["installedOS"].get<std::string>().empty())
        DetectInstalledOS(Name, Version);
    R["osName"] = Name;
    R["osVersion"] = Version;
    std::string Text = R.dump(-1, ' ', false, Json::error_handler_t::replace);
    ssize_t Written = write(Fd, Text.data(), Text.size());
    _exit(Written == (ssize_t)Text.size() ? 0 : 1);
}

static pid_t StartChild(const CliOptions &CO, const CkPlanInput &In, int *Fd)
{
    FILE *File = tmpfile();
    *Fd = File ? dup(fileno(File)) : -1;
    if (File)
        fclose(File);
    pid_t Pid = *Fd < 0 ? -1 : fork();
    if (Pid == 0)
        RunChild(CO, In, *Fd);
    return Pid;
}

static CkPlan Collect(const std::vector<CliRelease> &Set, pid_t Pid, int Fd)
{
    int Status = 0;
    while (waitpid(Pid, &Status, 0) < 0 && errno == EINTR) {
    }
    CkPlan P;
    P.Result = CliReadChildResult(Fd);
    if (P.Result.is_null()) {
        P.Result = FailedPlan(Set, "the plan's run ended without a result (wait status " +
                                       std::to_string(Status) + ")");
        return P;
    }
    P.OSName = CliStr(P.Result["osName"]);
    P.OSVersion = CliStr(P.Result["osVersion"]);
    return P;
}

static size_t Parallelism(void)
{
    long Cores = sysconf(_SC_NPROCESSORS_ONLN);
    return Cores < 1 ? 2 : (size_t)Cores * 2; // the children mostly wait on each other
}

std::vector<CkPlan> CkMakePlans(const CkOptions &O, const std::vector<CkPlanInput> &Inputs)
{
    CliOptions CO;
    CO.BundleDir = O.BundleDir;
    CO.ParserPath = O.ParserPath;
    CO.TimeoutSeconds = O.TimeoutSeconds;
    std::string Error;
    std::vector<CkPlan> Plans(Inputs.size());
    bool Entered = CliEnterBundleDir(&CO, &Error) == 0;
    std::vector<pid_t> Pids(Inputs.size(), -1);
    std::vector<int> Fds(Inputs.size(), -1);
    size_t Next = 0, Done = 0, Width = Parallelism();
    fflush(nullptr);
    while (Done < Inputs.size()) {
        for (; Next < Inputs.size() && Next - Done < Width; Next++) {
            if (!Entered || Inputs[Next].Releases.empty())
                continue;
            Pids[Next] = StartChild(CO, Inputs[Next], &Fds[Next]);
        }
        const std::vector<CliRelease> &Set = Inputs[Done].Releases;
        if (!Entered)
            Plans[Done].Result = FailedPlan(Set, Error);
        else if (Set.empty())
            Plans[Done].Result = FailedPlan(Set, "no release file (etc/redhat-release, "
                                                 "etc/SuSE-release, etc/UnitedLinux-release): "
                                                 "no distribution, no plan");
        else if (Pids[Done] < 0)
            Plans[Done].Result = FailedPlan(Set,
                                            std::string("cannot start a run: ") + strerror(errno));
        else
            Plans[Done] = Collect(Set, Pids[Done], Fds[Done]);
        Done++;
    }
    return Plans;
}

int CkPlanInputFor(const std::string &Distro, const std::vector<std::string> &Snapshots,
                   CkPlanInput *Input, std::string *Error)
{
    if (!Distro.empty()) {
        for (size_t i = 0; i < CliDistroCount; i++)
            if (Distro == CliDistros[i].Name) {
                for (const CliRelease &R : CliDistros[i].Files)
                    if (!R.File.empty())
                        Input->Releases.push_back(R);
                const char *Configured = getenv("RZPELMCONFIGURED");
                Input->Sp3 = CliDistros[i].Sp3;
                Input->Configured = Configured != nullptr && strcmp(Configured, "YES") == 0;
                return 0;
            }
        *Error = "unknown distribution " + Distro + " (zelrzp-manager --list-distros)";
        return -1;
    }
    CkFacts F;
    int Opened = CkOpenFacts(Snapshots.empty() ? "/" : Snapshots[0], Snapshots.empty(), &F, Error);
    *Input = CkPlanInputOf(F);
    CkCloseFacts(&F);
    return Opened;
}
