// fleet.cpp - the whole check: every machine's plan input (release files, SP3, RZPELMCONFIGURED),
// one plan per distinct input (machines that share it share the sub-service's run), then every
// machine's other facts read and the machine judged against its plan, the answers, and the exit
// status.
// Threads: none until the plans are made (by child processes that enter sandboxes); then the
// machines are read and judged batch by batch by one worker thread per core, each taking the
// next machine from an atomic index and writing only that machine's slot, and the main thread
// hands a judged batch over in order. Writes the working directory (plans.cpp).
#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "check.h"

// Runs Work(i) for every i below Count on a few threads.
template <typename F> static void ForEach(size_t Count, F Work)
{
    std::atomic<size_t> Next{0};
    size_t Width = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> Threads;
    for (size_t t = 0; t < std::min(Width, Count); t++)
        Threads.emplace_back([&] {
            for (size_t i; (i = Next++) < Count;)
                Work(i);
        });
    for (std::thread &T : Threads)
        T.join();
}

struct Machine {
    CkFacts Facts;
    std::string OpenError;
    size_t Plan = 0;
    Json Result;
};

static std::string PlanKey(const CkPlanInput &In)
{
    std::string Key = {In.Sp3 ? 'S' : '-', In.Configured ? 'C' : '-'};
    for (const CliRelease &R : In.Releases)
        Key += R.File + '\0' + R.Text + '\0';
    return Key;
}

// Groups the machines by their plan input; one input per group.
static std::vector<CkPlanInput> Group(std::vector<Machine> *Machines)
{
    std::vector<CkPlanInput> Inputs;
    std::map<std::string, size_t> Seen;
    for (Machine &M : *Machines) {
        CkPlanInput In = CkPlanInputOf(M.Facts);
        auto Found = Seen.emplace(PlanKey(In), Inputs.size());
        if (Found.second)
            Inputs.push_back(std::move(In));
        M.Plan = Found.first->second;
    }
    return Inputs;
}

static Json NotRecorded(const Json &Refusal)
{
    return {{"file", Refusal["component"]}, {"name", nullptr},
            {"version", nullptr},           {"verdict", "not-recorded"},
            {"reason", Refusal["reason"]},  {"otherReasons", 0},
            {"requisites", Json::array()},  {"configuration", Json::array()}};
}

static int MachineStatus(const Json &Components)
{
    int Status = CLI_CLEAN;
    for (const Json &C : Components) {
        if (C["verdict"] != "installs")
            Status = CLI_FINDINGS;
        for (const Json &V : C["configuration"])
            if (V["state"] == "missing" || V["state"] == "invalid")
                Status = CLI_FINDINGS;
    }
    return Status;
}

static Json Judge(const Machine &M, const CkPlan &P, const CkOptions &O, const CkAnswers &A)
{
    Json R = {
        {"name", M.Facts.Name},
        {"distribution", P.Result["installedOS"] == "" ? Json(nullptr) : P.Result["installedOS"]},
        {"key", P.Result["distribution"]["key"]},
        {"kernel", M.Facts.KernelFact.Known ? Json(M.Facts.Kernel) : Json(nullptr)},
        {"bundle", P.Result["bundle"]},
        {"failure", nullptr}};
    Json Components = Json::array();
    bool NoPlan = !M.OpenError.empty() || !P.Result["failure"].is_null();
    if (NoPlan)
        R["failure"] = M.OpenError.empty() ? CliStr(P.Result["failure"]["what"]) : M.OpenError;
    for (const Json &C : P.Result["components"]) {
        Json J = CkEvaluateComponent(M.Facts, P, C, O.Strict);
        J["configuration"] = CkJudgeConfiguration(C, A);
        Components.push_back(std::move(J));
    }
    for (const Json &X : P.Result["refused"])
        Components.push_back(NotRecorded(X));
    R["exitStatus"] = NoPlan ? CLI_NO_PLAN : MachineStatus(Components);
    R["components"] = std::move(Components);
    return R;
}

// Answers that name no variable of any plan: typing mistakes, most likely.
static Json Warnings(const CkAnswers &A, const std::vector<CkPlan> &Plans)
{
    Json List = Json::array();
    for (const auto &Answer : A.Values) {
        bool Named = false;
        for (const CkPlan &P : Plans)
            for (const Json &C : P.Result["components"])
                for (const char *Phase : {"preConfiguration", "postConfiguration"})
                    for (const Json &V : C[Phase])
                        Named = Named || V["outputName"] == Answer.first;
        if (!Named)
            List.push_back("line " + std::to_string(A.Lines.at(Answer.first)) + ": " +
                           Answer.first + " is no configuration variable of the plan");
    }
    return List;
}

// Only what the plans are made from (release files, environment) before the plans: no thread may
// have been started before the plans' children enter their sandboxes (a sanitizer's runtime keeps a
// thread once one was started, and a threaded process cannot enter a new user namespace).
static void OpenMachines(const CkOptions &O, std::vector<Machine> *Machines)
{
    bool Live = O.Snapshots.empty();
    Machines->resize(Live ? 1 : O.Snapshots.size());
    for (size_t i = 0; i < Machines->size(); i++) {
        Machine &M = (*Machines)[i];
        std::string Root = Live ? "/" : O.Snapshots[i];
        if (CkOpenFacts(Root, Live, &M.Facts, &M.OpenError) != 0)
            M.Facts.Name = Root;
    }
}

// Machines judged at once before their results are handed over: a fleet is never held whole.
#define BATCH_MACHINES 64

int CkRunCheck(const CkOptions &O, const std::function<void(const Json &)> &Begin,
               const std::function<void(Json &&)> &Each)
{
    CkAnswers A;
    std::vector<std::string> AnswerErrors;
    if (!O.AnswersFile.empty())
        CkReadAnswers(O.AnswersFile, &A, &AnswerErrors);
    std::vector<Machine> Machines;
    OpenMachines(O, &Machines);
    std::vector<CkPlan> Plans = CkMakePlans(O, Group(&Machines));
    for (const CkPlan &P : Plans)
        for (const Json &C : P.Result["components"])
            CkLocatePrepare(CliStr(C["file"]));
    Begin({{"bundleDirectory", O.BundleDir},
           {"strict", O.Strict},
           {"answers",
            {{"file", O.AnswersFile.empty() ? Json(nullptr) : Json(O.AnswersFile)},
             {"errors", AnswerErrors},
             {"warnings", Warnings(A, Plans)}}},
           {"plans", Plans.size()}});
    int Status = AnswerErrors.empty() ? CLI_CLEAN : CLI_FINDINGS;
    for (size_t First = 0; First < Machines.size(); First += BATCH_MACHINES) {
        size_t Count = std::min<size_t>(BATCH_MACHINES, Machines.size() - First);
        ForEach(Count, [&](size_t i) {
            Machine &M = Machines[First + i];
            CkReadFacts(&M.Facts);
            M.Result = Judge(M, Plans[M.Plan], O, A);
            CkCloseFacts(&M.Facts);
        });
        for (size_t i = First; i < First + Count; i++) {
            Status = std::max(Status, Machines[i].Result["exitStatus"].get<int>());
            Each(std::move(Machines[i].Result));
            Machines[i].Result = nullptr;
        }
    }
    return Status;
}

Json CkCheckJson(const CkOptions &O)
{
    Json R, List = Json::array();
    int Status = CkRunCheck(
        O, [&](const Json &Summary) { R = Summary; },
        [&](Json &&M) { List.push_back(std::move(M)); });
    R["machines"] = std::move(List);
    R["exitStatus"] = Status;
    return R;
}
