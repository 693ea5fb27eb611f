// main.cpp - the zelrzp-manager program's entry: the choice of command (lint, report, check,
// snapshot, answers, install, history, the support matrix, or one run printed as a table or
// as JSON). Each
// further command is one line of Commands below, with its entry in the folder named for it.
// Writes CliColour once before anything is printed.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "check.h"
#include "install.h"
#include "report.h"
#include "zelcli.h"
#include "zellint.h"

bool CliColour = false;

// The commands that have an entry of their own, called with their word as argv[0]. The
// matrix is the plan's --all-distros and is read with the plan's options below.
typedef int (*CommandEntry)(int Argc, char **Argv);
static const struct {
    const char *Word;
    CommandEntry Entry;
} Commands[] = {
    {"lint", LintMain},
    {"report", ReportMain},
    {"check", CkMain},
    {"snapshot", CkSnapshotMain},
    {"answers", CkAnswersMain},
    {"install", InstallMain},
    {"history", HistoryMain},
};

static CommandEntry FindCommand(int Argc, char **Argv)
{
    for (const auto &C : Commands)
        if (Argc > 1 && strcmp(Argv[1], C.Word) == 0)
            return C.Entry;
    return nullptr;
}

int main(int Argc, char **Argv)
{
    if (CommandEntry Command = FindCommand(Argc, Argv))
        return Command(Argc - 1, Argv + 1);
    CliOptions O;
    if (Argc > 1 && strcmp(Argv[1], "matrix") == 0) { // the command word goes, as if absent
        Argv[1] = Argv[0];
        Argc--;
        Argv++;
        O.AllDistros = true;
    }
    int Parsed = CliParseArguments(Argc, Argv, &O);
    if (Parsed <= 0)
        return Parsed == 0 ? CLI_CLEAN : CLI_USAGE;
    CliColour = !O.Json && isatty(1);
    if (O.AllDistros)
        return CliMatrix(O);
    // The sandbox must be entered while this process has a single thread: CliRunOne does it
    // before the session starts its threads.
    Json R = CliRunOne(O, O.Distro, true);
    if (!R["failure"].is_null())
        fprintf(stderr, "zelrzp-manager: %s\n", CliStr(R["failure"]["what"]).c_str());
    fflush(stderr);
    if (O.Json)
        CliPrintJson(R);
    else
        CliPrintTable(R);
    return R["exitStatus"].get<int>();
}
