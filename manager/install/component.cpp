// component.cpp - one component taken through its steps: judged as check judges it (requisites,
// devices, configuration), looked up in the journal (installed before, a command that never
// ended), its pre-configuration values written, its command run, its post-configuration values
// written and its postrequisites judged on the machine as it is afterwards. Each step is
// journaled before and after it is taken. Writes the run's facts (read again after a command).
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "install.h"

namespace {

struct Component {
    InRun *Run;
    const Json &Record;
    std::string File, Key;
    Json Out;
    std::vector<InValue> Pre, Post;
};

Json Step(const Component &C, const char *Name, const char *Phase)
{
    return {
        {"event", "step"}, {"key", C.Key}, {"component", C.File}, {"step", Name}, {"phase", Phase}};
}

Json &Finish(Component *C, const char *State, const std::string &Reason)
{
    C->Out["state"] = State;
    C->Out["reason"] = Reason.empty() ? Json(nullptr) : Json(Reason);
    if (!C->Key.empty())
        InJournalWrite(&C->Run->Journal, {{"event", "component"},
                                          {"key", C->Key},
                                          {"component", C->File},
                                          {"state", State},
                                          {"reason", C->Out["reason"]},
                                          {"exitStatus", C->Out["exitStatus"]}});
    InLog(C->Run, "component " + C->File + ": " + State + (Reason.empty() ? "" : ": " + Reason));
    return C->Out;
}

bool IsRpm(const std::string &File)
{
    return File.size() > 4 && strcasecmp(File.c_str() + File.size() - 4, ".rpm") == 0;
}

// The values of one phase that go to a file: an answer, else the default; a variable without an
// output name or file, or optional and unanswered without a default, writes nothing.
std::vector<InValue> ValuesOf(const Json &Variables, const CkAnswers &A)
{
    std::vector<InValue> Values;
    for (const Json &V : Variables) {
        if (!V["outputName"].is_string() || !V["outputFileName"].is_string())
            continue;
        InValue Value{V["outputName"], "", V["outputFileName"], CkIsPassword(V)};
        auto Answer = A.Values.find(Value.Name);
        if (Answer != A.Values.end())
            Value.Value = Answer->second;
        else if (V["defaultValue"].is_string())
            Value.Value = V["defaultValue"];
        else
            continue;
        Values.push_back(std::move(Value));
    }
    return Values;
}

Json ChangesJson(const std::vector<InChange> &Changes)
{
    Json List = Json::array();
    for (const InChange &C : Changes)
        List.push_back({{"file", C.File},
                        {"name", C.Name},
                        {"password", C.Password},
                        {"before", C.HadBefore ? Json(C.Before) : Json(nullptr)},
                        {"after", C.After}});
    return List;
}

// Why the check's rules refuse the component, or "" when they do not.
std::string Refusal(const Json &Out)
{
    if (Out["verdict"] == "refused") {
        int Others = Out["otherReasons"].get<int>();
        return CliStr(Out["reason"]) +
               (Others > 0 ? " (and " + std::to_string(Others) + " more)" : "");
    }
    for (const Json &V : Out["configuration"])
        if (V["state"] == "missing" || V["state"] == "invalid")
            return CliStr(V["name"]) + ": " + CliStr(V["reason"]);
    return "";
}

int WritePhase(Component *C, const char *Name, const std::vector<InValue> &Values)
{
    if (Values.empty())
        return 0;
    std::string Error;
    InJournalWrite(&C->Run->Journal, Step(*C, Name, "start"));
    if (InConfigWrite(Values, &Error) != 0) {
        Finish(C, "failed", std::string(Name) + ": " + Error);
        return -1;
    }
    for (const InValue &V : Values)
        InLog(C->Run, "component " + C->File + ": " + Name + ": " + V.Name + " set in " + V.File);
    InJournalWrite(&C->Run->Journal, Step(*C, Name, "end"));
    return 0;
}

std::string Failure(const InCommandResult &R, int Timeout)
{
    if (R.StartFailed)
        return "its command could not be started";
    if (R.TimedOut)
        return "its command ran longer than " + std::to_string(Timeout) + " s and was ended";
    if (R.Stopped)
        return "its command was ended by a second signal";
    if (R.Signal != 0)
        return "its command was ended by signal " + std::to_string(R.Signal);
    return "its command exited with status " + std::to_string(R.ExitStatus);
}

int RunCommand(Component *C)
{
    InRun *Run = C->Run;
    std::string Command = CliStr(C->Record["installCommand"]);
    Json Start = Step(*C, "command", "start");
    InJournalWrite(&Run->Journal, Start);
    InLog(Run, "component " + C->File + ": running: " + InMask(Command, Run->Secrets));
    InCommandResult R;
    InRunCommand(Command, Run->O.BundleDir, Run->O.CommandTimeout, Run->LogFd, Run->Secrets, &R);
    Json End = Step(*C, "command", "end");
    End["exitStatus"] = R.StartFailed ? Json(nullptr) : Json(R.ExitStatus);
    End["seconds"] = R.Seconds;
    InJournalWrite(&Run->Journal, End);
    C->Out["exitStatus"] = End["exitStatus"];
    InLog(Run, "component " + C->File + ": exit status " + std::to_string(R.ExitStatus) +
                   (R.Signal ? " (signal " + std::to_string(R.Signal) + ")" : "") + " after " +
                   std::to_string(R.Seconds) + " s");
    if (R.ExitStatus == 0 && !R.TimedOut)
        return 0;
    C->Out["output"] = R.Tail;
    Finish(C, "failed", Failure(R, Run->O.CommandTimeout));
    return -1;
}

// A command that started and never ended: an RPM package is looked up in the RPM database;
// anything else runs again only when asked. 1 done, 0 run it, -1 stop (finished as interrupted).
int Interrupted(Component *C, const InPast &P)
{
    std::string Label;
    if (IsRpm(C->File) && InRpmLabel(C->File, &Label) == 0) {
        int Found = InRpmInstalled(Label);
        InLog(C->Run, "component " + C->File + ": its command started in install " + P.StartedBy +
                          " and never ended; " + Label +
                          (Found == 1 ? " is in the RPM database" : " is not installed"));
        if (Found == 1) {
            Json End = Step(*C, "command", "end");
            End["exitStatus"] = 0;
            End["foundInDatabase"] = Label;
            InJournalWrite(&C->Run->Journal, End);
            return 1;
        }
        if (Found == 0)
            return 0;
        Finish(C, "interrupted", "its command never ended and the RPM database cannot be read");
        return -1;
    }
    if (C->Run->O.RetryInterrupted)
        return 0;
    Finish(C, "interrupted",
           "its command started in install " + P.StartedBy +
               " and never ended; run with --retry-interrupted to run it again");
    return -1;
}

// The postrequisites judged on the machine as the command left it.
void JudgePostrequisites(Component *C)
{
    InRun *Run = C->Run;
    if (C->Record["postrequisites"].empty())
        return;
    std::string Error;
    CkCloseFacts(&Run->Facts);
    CkLoadFacts("/", true, &Run->Facts, &Error);
    Json Now = CkEvaluateComponent(Run->Facts, Run->CheckPlan, C->Record, false);
    C->Out["requisites"] = Now["requisites"];
    std::string Unmet;
    for (const Json &Q : Now["requisites"])
        if (Q["kind"] == "postrequisite" && Q["state"] == "not-satisfied")
            Unmet += (Unmet.empty() ? "" : "; ") + CliStr(Q["reason"]);
    C->Out["postrequisitesHold"] = Unmet.empty();
    if (!Unmet.empty())
        C->Out["reason"] = "postrequisite not satisfied: " + Unmet;
}

Json DryRun(Component *C, const InPast &P)
{
    if (P.CommandRunning && !IsRpm(C->File) && !C->Run->O.RetryInterrupted)
        return Finish(C, "interrupted",
                      "its command started in install " + P.StartedBy +
                          " and never ended; it would not run again");
    return Finish(C, "would-install", P.CommandSucceeded ? "its command ran already" : "");
}

} // namespace

std::string InXmlFileOf(const std::string &File)
{
    size_t Dot = File.rfind('.');
    return (Dot == std::string::npos ? File : File.substr(0, Dot)) + ".xml";
}

Json InInstallComponent(InRun *Run, const Json &Record)
{
    Component C{Run, Record, CliStr(Record["file"]), "", nullptr, {}, {}};
    C.Out = CkEvaluateComponent(Run->Facts, Run->CheckPlan, Record, false);
    C.Out["reboot"] = Record["reboot"];
    C.Out["installCommand"] = Record["installCommand"];
    C.Out["exitStatus"] = nullptr;
    C.Out["configurationChanges"] = Json::array();
    std::string Error, Digest = InDigest({C.File, InXmlFileOf(C.File)}, &Error);
    if (Digest.empty())
        return Finish(&C, "failed", "cannot be read: " + Error);
    C.Key = InComponentKey(Run->BundleFile, C.File, Digest);
    auto Found = Run->Past.find(C.Key);
    InPast P = Found == Run->Past.end() ? InPast{} : Found->second;
    if (Run->Ask && !P.Installed && C.Out["verdict"] == "installs")
        InAskMissing(Record, &Run->Answers);
    C.Out["configuration"] = CkJudgeConfiguration(Record, Run->Answers);
    if (P.Installed)
        return Finish(&C, "already-installed", "");
    std::string Why = Refusal(C.Out);
    if (!Why.empty())
        return Finish(&C, "refused", Why);
    C.Pre = ValuesOf(Record["preConfiguration"], Run->Answers);
    C.Post = ValuesOf(Record["postConfiguration"], Run->Answers);
    std::vector<InValue> All = C.Pre;
    All.insert(All.end(), C.Post.begin(), C.Post.end());
    for (const InValue &V : All)
        if (V.Password &&
            std::find(Run->Secrets.begin(), Run->Secrets.end(), V.Value) == Run->Secrets.end())
            Run->Secrets.push_back(V.Value);
    std::vector<InChange> Changes;
    if (InConfigChanges(All, &Changes, &Error) != 0)
        return Finish(&C, "refused", "configuration: " + Error);
    C.Out["configurationChanges"] = ChangesJson(Changes);
    if (Run->O.DryRun)
        return DryRun(&C, P);
    int Done = P.CommandSucceeded ? 1 : P.CommandRunning ? Interrupted(&C, P) : 0;
    if (Done < 0)
        return C.Out;
    if (Done == 0 && (WritePhase(&C, "pre-configuration", C.Pre) != 0 || RunCommand(&C) != 0))
        return C.Out;
    if (WritePhase(&C, "post-configuration", C.Post) != 0)
        return C.Out;
    JudgePostrequisites(&C);
    std::string Unmet = C.Out.contains("postrequisitesHold") && !C.Out["postrequisitesHold"]
                            ? CliStr(C.Out["reason"])
                            : "";
    return Finish(&C, "installed", Unmet);
}
