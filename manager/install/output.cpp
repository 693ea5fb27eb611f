// output.cpp - what an install shows: a line per component as it is done (its state and why, a
// failed command's last lines, in a dry run what would be written and run), then the reboot
// that is required and a count of the states; or the whole result as JSON. Writes standard
// output.
#include <cstdio>
#include <map>
#include <string>

#include "install.h"

static const char *Label(const std::string &State)
{
    static const std::map<std::string, const char *> Labels = {
        {"installed", "installed"},
        {"already-installed", "already installed"},
        {"refused", "refused"},
        {"failed", "failed"},
        {"not-recorded", "not recorded"},
        {"interrupted", "interrupted"},
        {"would-install", "would install"}};
    auto Found = Labels.find(State);
    return Found == Labels.end() ? "?" : Found->second;
}

static void PrintDryRun(const Json &C)
{
    for (const Json &Change : C["configurationChanges"])
        printf("    would set in %s: %s%s\n", CliStr(Change["file"]).c_str(),
               CliStr(Change["after"]).c_str(),
               Change["before"].is_string() ? (" (now " + CliStr(Change["before"]) + ")").c_str()
                                            : "");
    if (C["reason"].is_null())
        printf("    would run: %s\n", CliStr(C["installCommand"]).c_str());
}

void InPrintComponent(const Json &C)
{
    std::string State = CliStr(C["state"]);
    std::string Reason = CliStr(C["reason"]);
    printf("%-30s %s%s%s\n", CliStr(C["file"]).c_str(), Label(State), Reason.empty() ? "" : ": ",
           Reason.c_str());
    if (C.contains("output"))
        for (const Json &Line : C["output"])
            printf("    | %s\n", CliStr(Line).c_str());
    if (State == "would-install")
        PrintDryRun(C);
    fflush(stdout);
}

void InPrintEnd(const Json &R)
{
    std::map<std::string, int> Count;
    std::string Reboot;
    for (const Json &C : R["components"]) {
        Count[CliStr(C["state"])]++;
        if (C["reboot"] == true && (C["state"] == "installed" || C["state"] == "would-install"))
            Reboot += (Reboot.empty() ? "" : ", ") + CliStr(C["file"]);
    }
    if (!Reboot.empty())
        printf("reboot required%s: %s\n", R["dryRun"] == true ? " after the install" : "",
               Reboot.c_str());
    std::string Summary;
    for (const auto &S : Count)
        Summary += (Summary.empty() ? "" : ", ") + std::to_string(S.second) + " " + Label(S.first);
    printf("%s%s%s\n", Summary.empty() ? "no component" : Summary.c_str(),
           R["log"].is_string() ? "; log: " : "", CliStr(R["log"]).c_str());
}
