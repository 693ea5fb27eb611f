// check_output.cpp - the check printed machine by machine as it is judged: as a table (for a few
// machines each one's components with their failing requisites first, then the others, and the
// configuration variables; for several machines the fleet, one column per machine and one row
// per component: installs, or refused with the first reason and the count of the others), or as
// JSON. Writes only the CkTable record it is given.
#include <algorithm>
#include <cstdio>
#include <map>
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

// One machine's column: each component's cell by its file.
static std::map<std::string, std::string> Column(const Json &M)
{
    std::map<std::string, std::string> Cells;
    for (const Json &C : M["components"]) {
        std::string Text = !M["failure"].is_null() ? "no plan" : Verdict(C);
        Cells[CliStr(C["file"])] = Text.size() > CELL_WIDTH - 1
                                       ? Text.substr(0, CELL_WIDTH - 4) + "..."
                                       : Text;
    }
    return Cells;
}

static std::string Heading(std::string Name)
{
    return Name.size() > CELL_WIDTH - 1 ? "..." + Name.substr(Name.size() - CELL_WIDTH + 4) : Name;
}

static void PrintFleet(const CkTable &T)
{
    printf("\n%-30s", "component");
    for (const std::string &Name : T.Names)
        printf(" %-*s", CELL_WIDTH, Heading(Name).c_str());
    printf("\n");
    for (const std::string &F : T.Files) {
        printf("%-30s", F.c_str());
        for (const auto &Cells : T.Columns) {
            auto Cell = Cells.find(F);
            printf(" %-*s", CELL_WIDTH, Cell == Cells.end() ? "-" : Cell->second.c_str());
        }
        printf("\n");
    }
}

void CkTableBegin(CkTable *T, const Json &Summary, size_t Machines)
{
    T->Machines = Machines;
    printf("Check of %s on %zu machine%s (%s)\n", CliStr(Summary["bundleDirectory"]).c_str(),
           Machines, Machines == 1 ? "" : "s",
           Summary["strict"].get<bool>() ? "strict: unknown fails" : "unknown does not fail");
}

void CkTableMachine(CkTable *T, const Json &M)
{
    if (T->Machines <= DETAILED_MACHINES)
        PrintMachine(M);
    if (T->Machines < 2)
        return;
    T->Names.push_back(CliStr(M["name"]));
    T->Columns.push_back(Column(M));
    for (const Json &C : M["components"])
        if (std::find(T->Files.begin(), T->Files.end(), CliStr(C["file"])) == T->Files.end())
            T->Files.push_back(CliStr(C["file"]));
}

void CkTableEnd(const CkTable &T, const Json &Summary, int Status)
{
    if (T.Machines > 1)
        PrintFleet(T);
    for (const Json &W : Summary["answers"]["warnings"])
        printf("\nwarning: %s\n", CliStr(W).c_str());
    printf("\nResult: exit status %d\n", Status);
}

// ---- JSON, machine by machine -----------------------------------------------------------------
// The same object as CkCheckJson gives, printed as it comes.

void CkJsonBegin(const Json &Summary)
{
    std::string Text = Summary.dump(2, ' ', false, Json::error_handler_t::replace);
    Text.resize(Text.rfind('}'));
    while (!Text.empty() && Text.back() == '\n')
        Text.pop_back();
    printf("%s,\n  \"machines\": [", Text.c_str());
}

void CkJsonMachine(const Json &M, bool First)
{
    std::string Text = M.dump(2, ' ', false, Json::error_handler_t::replace), Indented = "    ";
    Indented.reserve(Text.size() + Text.size() / 8);
    for (char C : Text) {
        Indented += C;
        if (C == '\n')
            Indented += "    ";
    }
    printf("%s\n%s", First ? "" : ",", Indented.c_str());
}

void CkJsonEnd(int Status)
{
    printf("\n  ],\n  \"exitStatus\": %d\n}\n", Status);
}
