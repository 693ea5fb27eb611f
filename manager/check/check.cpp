// check.cpp - the command line of zelrzp-manager check (getopt_long) read into one CkOptions
// record, the check run and printed as a table or as JSON. Writes getopt's optind and opterr.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "check.h"

static const char CheckUsage[] =
    "usage: zelrzp-manager check [--snapshot=DIR]... [--answers=FILE] [--json] [--strict]\n"
    "                            [--parser=PATH] [--timeout=SECONDS] BUNDLE_DIR\n"
    "Will the bundle install on this machine, or on the machines of the snapshots given\n"
    "(zelrzp-manager snapshot)? The plan of each machine is made in a sandbox with its release\n"
    "files (no root needed); then every prerequisite, postrequisite and supported device of\n"
    "every component is judged against the machine's facts, and every configuration variable\n"
    "against the answers file (NAME=VALUE a line). Nothing a requisite names is ever run.\n"
    "\n"
    "  --snapshot=DIR   a machine recorded in DIR (repeatable: one column per machine)\n"
    "  --answers=FILE   the configuration answers (zelrzp-manager answers writes a template)\n"
    "  --json           print JSON instead of a table\n"
    "  --strict         a requisite whose verdict is unknown fails its component\n"
    "  --parser=PATH    the sub-service executable (default: zelparser beside this program)\n"
    "  --timeout=SECONDS  longest wait for any answer of the sub-service (default 60)\n"
    "\n"
    "Exit status: 0 every component of every machine installs and every variable is answered\n"
    "(or has a default); 1 a component would be refused, a variable is missing or invalid, or\n"
    "the answers file has a bad line; 2 a wrong command line; 3 a machine has no plan.\n";

static int CheckUsageError(const std::string &What)
{
    fprintf(stderr, "zelrzp-manager check: %s\n%s", What.c_str(), CheckUsage);
    return -1;
}

enum { CK_SNAPSHOT = 1000, CK_ANSWERS, CK_JSON, CK_STRICT, CK_PARSER, CK_TIMEOUT };

static int TakeCheckOption(CkOptions *O, int Code, const char *Value)
{
    char *End = nullptr;
    switch (Code) {
    case CK_SNAPSHOT: O->Snapshots.push_back(Value); return 1;
    case CK_ANSWERS: O->AnswersFile = Value; return 1;
    case CK_JSON: O->Json = true; return 1;
    case CK_STRICT: O->Strict = true; return 1;
    case CK_PARSER: O->ParserPath = Value; return 1;
    case CK_TIMEOUT:
        errno = 0;
        O->TimeoutSeconds = (int)strtol(Value, &End, 10);
        if (errno || *End || O->TimeoutSeconds < 1 || O->TimeoutSeconds > 86400)
            return CheckUsageError(std::string("--timeout wants a number of seconds, not ") +
                                   Value);
        return 1;
    case 'h': fputs(CheckUsage, stdout); return 0;
    default: return CheckUsageError("unknown option");
    }
}

// 1 to run, 0 to end with success, -1 on a usage error.
static int ParseCheck(int Argc, char **Argv, CkOptions *O)
{
    static const struct option Options[] = {{"snapshot", required_argument, nullptr, CK_SNAPSHOT},
                                            {"answers", required_argument, nullptr, CK_ANSWERS},
                                            {"json", no_argument, nullptr, CK_JSON},
                                            {"strict", no_argument, nullptr, CK_STRICT},
                                            {"parser", required_argument, nullptr, CK_PARSER},
                                            {"timeout", required_argument, nullptr, CK_TIMEOUT},
                                            {"help", no_argument, nullptr, 'h'},
                                            {nullptr, 0, nullptr, 0}};
    opterr = 0;
    optind = 1;
    for (int Code; (Code = getopt_long(Argc, Argv, ":h", Options, nullptr)) != -1;) {
        if (Code == '?')
            return CheckUsageError(std::string("unknown option ") + Argv[optind - 1]);
        if (Code == ':')
            return CheckUsageError(std::string(Argv[optind - 1]) + " needs a value");
        int Taken = TakeCheckOption(O, Code, optarg);
        if (Taken <= 0)
            return Taken;
    }
    if (optind + 1 != Argc)
        return CheckUsageError(optind >= Argc ? "no bundle directory given"
                                              : "only one bundle directory, please");
    O->BundleDir = Argv[optind];
    return 1;
}

static void SayProblems(const Json &Summary, const std::string &AnswersFile)
{
    for (const Json &E : Summary["answers"]["errors"])
        fprintf(stderr, "zelrzp-manager check: %s\n", CliStr(E).c_str());
    for (const Json &W : Summary["answers"]["warnings"])
        fprintf(stderr, "zelrzp-manager check: warning: %s: %s\n", AnswersFile.c_str(),
                CliStr(W).c_str());
}

static void SayNoPlan(const Json &M)
{
    if (!M["failure"].is_null())
        fprintf(stderr, "zelrzp-manager check: %s: no plan: %s\n", CliStr(M["name"]).c_str(),
                CliStr(M["failure"]).c_str());
}

int CkMain(int Argc, char **Argv)
{
    CkOptions O;
    int Parsed = ParseCheck(Argc, Argv, &O);
    if (Parsed <= 0)
        return Parsed == 0 ? CLI_CLEAN : CLI_USAGE;
    CkTable T;
    Json Summary;
    bool First = true;
    size_t Machines = O.Snapshots.empty() ? 1 : O.Snapshots.size();
    int Status = CkRunCheck(
        O,
        [&](const Json &S) {
            Summary = S;
            SayProblems(S, O.AnswersFile);
            O.Json ? CkJsonBegin(S) : CkTableBegin(&T, S, Machines);
        },
        [&](Json &&M) {
            SayNoPlan(M);
            O.Json ? CkJsonMachine(M, First) : CkTableMachine(&T, M);
            First = false;
        });
    O.Json ? CkJsonEnd(Status) : CkTableEnd(T, Summary, Status);
    return Status;
}
