// table.cpp - one run of the zelrzp-manager program as a table for a person: the
// distribution, the bundle chosen, every install record, the refused components and every
// message of the sub-service with what it concerns, and the result. Reads CliColour (colour
// sequences kept on a terminal); writes no globals.
#include <cstdio>
#include <string>

#include "zelcli.h"
#include "zelfindings.h"

static std::string Shown(const std::string &T) { return CliColour ? T : ZfStripColour(T); }

static std::string OrDash(const Json &V) { return V.is_string() ? V.get<std::string>() : "-"; }

static std::string Joined(const Json &List, const char *Separator)
{
    std::string Text;
    for (const Json &V : List)
        Text += (Text.empty() ? "" : Separator) + CliStr(V);
    return Text;
}

// One line of the table; the lines of a value that has several start under its first.
static void Row(const char *Label, const std::string &Value)
{
    std::string Text;
    for (char C : Value)
        Text += C == '\n' ? std::string("\n                         ") : std::string(1, C);
    printf("    %-20s %s\n", Label, Text.c_str());
}

// The rows of a list under one label, or "none"; each entry gives one or more rows.
template <typename Rows> static void ListRows(const Json &List, const char *Label, Rows EntryRows)
{
    bool Any = false;
    for (const Json &V : List)
        for (const std::string &Line : EntryRows(V)) {
            Row(Any ? "" : Label, Line);
            Any = true;
        }
    if (!Any)
        Row(Label, "none");
}

static std::vector<std::string> RequisiteRows(const Json &Q)
{
    return {CliStr(Q["subTypeName"]) + " " + CliStr(Q["value"])};
}

static std::vector<std::string> VariableRows(const Json &V)
{
    char Limits[128];
    snprintf(Limits, sizeof Limits, " (%s, length %u..%u, type %u, attributes 0x%x)",
             V["required"].get<bool>() ? "required" : "optional",
             V["minimumLength"].get<unsigned>(), V["maximumLength"].get<unsigned>(),
             V["outputType"].get<unsigned>(), V["attributes"].get<unsigned>());
    return {OrDash(V["outputName"]) + Limits,
            "  prompt \"" + OrDash(V["prompt"]) + "\", default " + OrDash(V["defaultValue"]) +
                ", file " + OrDash(V["outputFileName"])};
}

static void TableRecord(const Json &R)
{
    std::string Devices = Joined(R["pciDevices"], ", ");
    printf("\n[%u] %s\n", R["number"].get<unsigned>(), CliStr(R["file"]).c_str());
    Row("Name:", CliStr(R["name"]));
    Row("Version:", CliStr(R["version"]));
    Row("Description:", CliStr(R["description"]));
    Row("Install command:", CliStr(R["installCommand"]));
    Row("Reboot:", R["reboot"].get<bool>() ? "yes" : "no");
    ListRows(R["prerequisites"], "Prerequisites:", RequisiteRows);
    ListRows(R["postrequisites"], "Postrequisites:", RequisiteRows);
    Row("PCI devices:", Devices.empty() ? "none" : Devices);
    ListRows(R["preConfiguration"], "Pre-configuration:", VariableRows);
    ListRows(R["postConfiguration"], "Post-configuration:", VariableRows);
}

// "(sources, file or component)" after a message.
static std::string Concerns(const Json &F)
{
    std::string Where = CliStr(F["component"]).empty() ? CliStr(F["file"]) : CliStr(F["component"]);
    return "(" + Joined(F["sources"], "+") + (Where.empty() ? "" : ", " + Where) + ")";
}

static void TableFindings(const Json &R)
{
    if (!R["refused"].empty()) {
        printf("\nRefused components:\n");
        for (const Json &X : R["refused"])
            printf("    %-28s %s\n", CliStr(X["component"]).c_str(), CliStr(X["reason"]).c_str());
    }
    printf("\nMessages of the sub-service (! marks a fault):\n");
    for (const Json &F : R["findings"]) {
        std::string Text = Shown(CliStr(F["text"]));
        for (size_t At = Text.find('\n'); At != std::string::npos; At = Text.find('\n', At + 1))
            Text.insert(At + 1, "      ");
        printf("  %c %s  %s\n", F["problem"].get<bool>() ? '!' : '-', Text.c_str(),
               Concerns(F).c_str());
    }
}

void CliTableVerdicts(const Json &R)
{
    for (const Json &B : R["bundleFiles"]) {
        std::string Claims = Joined(B["claims"], ", ");
        printf("    %-20s %s%s\n", CliStr(B["file"]).c_str(), CliStr(B["verdict"]).c_str(),
               Claims.empty() ? "" : (" (claims: " + Claims + ")").c_str());
        for (const Json &M : B["messages"])
            printf("    %-20s   %s\n", "", CliStr(M).c_str());
    }
}

static void TablePlan(const Json &R)
{
    if (R["bundle"].is_object())
        printf("Bundle:       %s\nBundle file:  %s (matched \"%s\")\n",
               CliStr(R["bundle"]["name"]).c_str(), CliStr(R["bundle"]["file"]).c_str(),
               CliStr(R["bundle"]["matchedEntry"]).c_str());
    printf("Components:   %d reported, %zu install records, %zu refused\n",
           R["numberOfItems"].get<int>(), R["components"].size(), R["refused"].size());
    for (const Json &C : R["components"])
        TableRecord(C);
}

void CliPrintTable(const Json &R)
{
    const Json &D = R["distribution"];
    std::string Detected = CliStr(R["installedOS"]);
    printf("Distribution: %s%s\n", CliStr(D["description"]).c_str(),
           Detected.empty() ? "" : (" (detected as " + Detected + ")").c_str());
    if (R["failure"].is_null()) {
        TablePlan(R);
    } else {
        printf("No plan: %s\n", CliStr(R["failure"]["what"]).c_str());
        if (!R["bundleFiles"].empty()) {
            printf("\nBundle files:\n");
            CliTableVerdicts(R);
        }
    }
    TableFindings(R);
    printf("\nResult: %s (exit status %d)\n", CliStr(R["outcome"]).c_str(),
           R["exitStatus"].get<int>());
}
