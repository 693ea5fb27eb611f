// history.cpp - zelrzp-manager history: the installs of a state directory's journal, oldest
// first, each with its bundle, its log, its exit status (none when it never ended) and the
// outcome and time of every component, as lines or as JSON. Reads the journal without its lock:
// a running install's events so far are shown as they stand. Writes standard output.
#include <cstdio>
#include <map>
#include <string>

#include "install.h"

static Json NewInstall(const std::string &Id)
{
    return {{"install", Id},         {"started", nullptr},
            {"ended", nullptr},      {"bundleDirectory", nullptr},
            {"bundleFile", nullptr}, {"log", nullptr},
            {"exitStatus", nullptr}, {"components", Json::array()}};
}

static void Take(Json *I, const Json &E)
{
    const Json &Event = InField(E, "event");
    if (Event == "begin") {
        (*I)["started"] = InField(E, "time");
        (*I)["bundleDirectory"] = InField(E, "bundleDirectory");
        (*I)["log"] = InField(E, "log");
    } else if (Event == "plan") {
        (*I)["bundleFile"] = InField(E, "bundleFile");
    } else if (Event == "component") {
        (*I)["components"].push_back({{"file", InField(E, "component")},
                                      {"state", InField(E, "state")},
                                      {"reason", InField(E, "reason")},
                                      {"exitStatus", InField(E, "exitStatus")},
                                      {"time", InField(E, "time")}});
    } else if (Event == "end") {
        (*I)["ended"] = InField(E, "time");
        (*I)["exitStatus"] = InField(E, "exitStatus");
    }
}

static Json Installs(const std::vector<Json> &Events)
{
    Json List = Json::array();
    std::map<std::string, size_t> Index;
    for (const Json &E : Events) {
        std::string Id = CliStr(InField(E, "install"));
        auto Found = Index.emplace(Id, List.size());
        if (Found.second)
            List.push_back(NewInstall(Id));
        Take(&List[Found.first->second], E);
    }
    return List;
}

static void PrintInstall(const Json &I)
{
    std::string Bundle = CliStr(I["bundleDirectory"]);
    if (I["bundleFile"].is_string())
        Bundle += " (" + CliStr(I["bundleFile"]) + ")";
    std::string Status = I["exitStatus"].is_number()
                             ? "exit status " + std::to_string(I["exitStatus"].get<int>())
                             : "never ended";
    printf("install %s  %s  %s  %s\n", CliStr(I["install"]).c_str(), CliStr(I["started"]).c_str(),
           Bundle.c_str(), Status.c_str());
    for (const Json &C : I["components"]) {
        std::string Reason = CliStr(C["reason"]);
        printf("  %-30s %-18s %s%s%s\n", CliStr(C["file"]).c_str(), CliStr(C["state"]).c_str(),
               CliStr(C["time"]).c_str(), Reason.empty() ? "" : "  ", Reason.c_str());
    }
}

int HistoryMain(int Argc, char **Argv)
{
    InOptions O;
    int Parsed = InParseHistory(Argc, Argv, &O);
    if (Parsed <= 0)
        return Parsed == 0 ? CLI_CLEAN : CLI_USAGE;
    Json List = Installs(InJournalEvents(O.StateDir));
    if (O.Json) {
        CliPrintJson({{"stateDirectory", O.StateDir}, {"installs", List}});
        return CLI_CLEAN;
    }
    if (List.empty())
        printf("no install in %s\n", O.StateDir.c_str());
    for (const Json &I : List)
        PrintInstall(I);
    return CLI_CLEAN;
}
