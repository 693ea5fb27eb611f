// check_output.cpp - the check as a table: for a few machines each one's components with their
// failing requisites first, then the others, and the configuration variables; for several
// machines the fleet, one column per machine and one row per component (installs, or refused
// with the first reason and the count of the others). The JSON is printed by cli_json.cpp.
// Writes no globals.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "check.h"

// Machines shown one by one, with every requisite; a larger fleet gets its table only.
#define DETAILED_MACHINES 10
#define CELL_WIDTH 34

static std::string Where(const Json &Q)
{
    if (Q["line"].is_null())
        return "";
    return "  (" + CliStr(Q["file"]) + ":" + std::to_string(Q["line"].get<int>()) + ")";
}

static void PrintRequisite(const Json &Q)
{
    printf("      %-13s %-13s %-30s %s%s\n", CliStr(Q["state"]).c_str(), CliStr(Q["kind"]).c_str(),
           CliStr(Q["value"]).c_str(), CliStr(Q["reason"]).c_str(), Where(Q).c_str());
}

static void PrintVariable(const Json &V)
{
    std::string Value = V["value"].is_string() ? " = " + CliStr(V["value"]) : "";
    printf("      %-13s %-13s %-30s %s%s\n", CliStr(V["state"]).c_str(),
           (CliStr(V["phase"]) + "-config").c_str(), CliStr(V["name"]).c_str(),
           CliStr(V["reason"]).c_str(),
           V["password"].get<bool>() ? " (a password)" : Value.c_str());
}

// "refused +2: the first reason": the count of the other reasons survives a cut cell.
static std::string Verdict(const Json &C)
{
    if (C["verdict"] == "installs")
        return "installs";
    int Others = C["otherReasons"].get<int>();
    std::string Text = C["verdict"] == "refused" ? "refused" : "not recorded";
    return Text + (Others > 0 ? " +" + std::to_string(Others) : "") + ": " + CliStr(C["reason"]);
}

static void PrintMachine(const Json &M)
{
    printf("\n== %s: %s", CliStr(M["name"]).c_str(),
           M["distribution"].is_string() ? CliStr(M["distribution"]).c_str() : "no distribution");
    if (M["kernel"].is_string())
        printf(", kernel %s", CliStr(M["kernel"]).c_str());
    printf("\n");
    if (!M["failure"].is_null())
        printf("    no plan: %s\n", CliStr(M["failure"]).c_str());
    for (const Json &C : M["components"]) {
        printf("  %-30s %s\n", CliStr(C["file"]).c_str(), Verdict(C).c_str());
        for (const Json &Q : C["requisites"])
            PrintRequisite(Q);
        for (const Json &V : C["configuration"])
            PrintVariable(V);
    }
}

static std::string Cell(const Json &M, const std::string &File)
{
    if (!M["failure"].is_null())
        return "no plan";
    for (const Json &C : M["components"])
        if (C["file"] == File) {
            std::string Text = Verdict(C);
            return Text.size() > CELL_WIDTH - 1 ? Text.substr(0, CELL_WIDTH - 4) + "..." : Text;
        }
    return "-";
}

static void PrintFleet(const Json &Machines)
{
    std::vector<std::string> Files;
    for (const Json &M : Machines)
        for (const Json &C : M["components"])
            if (std::find(Files.begin(), Files.end(), CliStr(C["file"])) == Files.end())
                Files.push_back(CliStr(C["file"]));
    printf("\n%-30s", "component");
    for (const Json &M : Machines) {
        std::string Name = CliStr(M["name"]);
        Name = Name.size() > CELL_WIDTH - 1 ? "..." + Name.substr(Name.size() - CELL_WIDTH + 4)
                                            : Name;
        printf(" %-*s", CELL_WIDTH, Name.c_str());
    }
    printf("\n");
    for (const std::string &F : Files) {
        printf("%-30s", F.c_str());
        for (const Json &M : Machines)
            printf(" %-*s", CELL_WIDTH, Cell(M, F).c_str());
        printf("\n");
    }
}

void CkPrintTable(const Json &R)
{
    const Json &Machines = R["machines"];
    printf("Check of %s on %zu machine%s (%s)\n", CliStr(R["bundleDirectory"]).c_str(),
           Machines.size(), Machines.size() == 1 ? "" : "s",
           R["strict"].get<bool>() ? "strict: unknown fails" : "unknown does not fail");
    if (Machines.size() <= DETAILED_MACHINES)
        for (const Json &M : Machines)
            PrintMachine(M);
    if (Machines.size() > 1)
        PrintFleet(Machines);
    for (const Json &W : R["answers"]["warnings"])
        printf("\nwarning: %s\n", CliStr(W).c_str());
    printf("\nResult: exit status %d\n", R["exitStatus"].get<int>());
}
