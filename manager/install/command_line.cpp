// command_line.cpp - the command lines of zelrzp-manager install and history (getopt_long)
// read into one InOptions record, with their usage texts. Writes getopt's optind and opterr.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "install.h"

static const char InstallUsage[] =
    "usage: zelrzp-manager install [--answers=FILE] [--dry-run] [--json] [--state-dir=DIR]\n"
    "                              [--log=FILE] [--command-timeout=SECONDS]\n"
    "                              [--retry-interrupted] [--parser=PATH] [--timeout=SECONDS]\n"
    "                              BUNDLE_DIR\n"
    "Installs the bundle on this machine, as root: the sub-service makes the plan from this\n"
    "machine's release files, then each component in turn is judged as check judges it, its\n"
    "configuration values are written, its install command runs (/bin/sh -c, in the bundle\n"
    "directory) and its postrequisites are judged. Every step is journaled: run the same\n"
    "install again after a crash and it resumes, running nothing that already ran.\n"
    "\n"
    "  --answers=FILE         the configuration answers (NAME=VALUE a line; zelrzp-manager\n"
    "                         answers writes a template); without it, a terminal is asked\n"
    "  --dry-run              say what would be done, in order; run and write nothing\n"
    "  --json                 print JSON instead of lines\n"
    "  --state-dir=DIR        the journal and its lock (default /var/lib/zelparser)\n"
    "  --log=FILE             the install's log (default /var/log/zelparser/install-ID.log)\n"
    "  --command-timeout=SECONDS  longest run of one install command (default 1800)\n"
    "  --retry-interrupted    run again a command that started and never ended (a component\n"
    "                         that is not an RPM package; those are looked up in the RPM\n"
    "                         database)\n"
    "  --parser=PATH          the sub-service executable (default: zelparser beside this\n"
    "                         program)\n"
    "  --timeout=SECONDS      longest wait for any answer of the sub-service (default 60)\n"
    "\n"
    "Exit status: 0 every recorded component is installed (now or before) and every\n"
    "postrequisite holds; 1 a component was refused, failed, was interrupted or not recorded,\n"
    "or a postrequisite does not hold; 2 a wrong command line; 3 no bundle file supports this\n"
    "machine (no plan); 4 the install did not start (not root, a file or directory another\n"
    "user could change, an answers file with a password that others can read, another\n"
    "install running, the journal or the log cannot be written).\n";

static const char HistoryUsage[] =
    "usage: zelrzp-manager history [--json] [--state-dir=DIR]\n"
    "The installs the journal of the state directory (default /var/lib/zelparser) holds, oldest\n"
    "first, each with the outcome and time of every component.\n"
    "Exit status: 0 shown (also when there is none); 2 a wrong command line.\n";

enum {
    IN_ANSWERS = 1000,
    IN_DRY_RUN,
    IN_JSON,
    IN_STATE_DIR,
    IN_LOG,
    IN_COMMAND_TIMEOUT,
    IN_RETRY,
    IN_PARSER,
    IN_TIMEOUT
};

static int UsageError(const char *Usage, const char *Command, const std::string &What)
{
    fprintf(stderr, "zelrzp-manager %s: %s\n%s", Command, What.c_str(), Usage);
    return -1;
}

// A whole number of seconds from 1 to Max; false when Text is none.
static bool Seconds(const char *Text, int Max, int *Value)
{
    char *End = nullptr;
    errno = 0;
    long N = strtol(Text, &End, 10);
    if (errno || End == Text || *End || N < 1 || N > Max)
        return false;
    *Value = (int)N;
    return true;
}

static int TakeOption(InOptions *O, int Code, const char *Value)
{
    switch (Code) {
    case IN_ANSWERS: O->AnswersFile = Value; return 1;
    case IN_DRY_RUN: O->DryRun = true; return 1;
    case IN_JSON: O->Json = true; return 1;
    case IN_STATE_DIR: O->StateDir = Value; return 1;
    case IN_LOG: O->LogFile = Value; return 1;
    case IN_RETRY: O->RetryInterrupted = true; return 1;
    case IN_PARSER: O->ParserPath = Value; return 1;
    case IN_COMMAND_TIMEOUT:
        if (Seconds(Value, 7 * 86400, &O->CommandTimeout))
            return 1;
        return UsageError(InstallUsage, "install",
                          std::string("--command-timeout wants a number of seconds, not ") + Value);
    case IN_TIMEOUT:
        if (Seconds(Value, 86400, &O->TimeoutSeconds))
            return 1;
        return UsageError(InstallUsage, "install",
                          std::string("--timeout wants a number of seconds, not ") + Value);
    default: return UsageError(InstallUsage, "install", "unknown option");
    }
}

// Reads the options of Table; every option but help goes to Take. 1, 0 (help) or -1.
template <typename F>
static int ReadOptions(int Argc, char **Argv, const struct option *Table, const char *Usage,
                       const char *Command, F Take)
{
    opterr = 0;
    optind = 1;
    for (int Code; (Code = getopt_long(Argc, Argv, ":h", Table, nullptr)) != -1;) {
        if (Code == '?')
            return UsageError(Usage, Command, std::string("unknown option ") + Argv[optind - 1]);
        if (Code == ':')
            return UsageError(Usage, Command, std::string(Argv[optind - 1]) + " needs a value");
        if (Code == 'h') {
            fputs(Usage, stdout);
            return 0;
        }
        int Taken = Take(Code, optarg);
        if (Taken <= 0)
            return Taken;
    }
    return 1;
}

int InParseInstall(int Argc, char **Argv, InOptions *O)
{
    static const struct option Table[] = {
        {"answers", required_argument, nullptr, IN_ANSWERS},
        {"dry-run", no_argument, nullptr, IN_DRY_RUN},
        {"json", no_argument, nullptr, IN_JSON},
        {"state-dir", required_argument, nullptr, IN_STATE_DIR},
        {"log", required_argument, nullptr, IN_LOG},
        {"command-timeout", required_argument, nullptr, IN_COMMAND_TIMEOUT},
        {"retry-interrupted", no_argument, nullptr, IN_RETRY},
        {"parser", required_argument, nullptr, IN_PARSER},
        {"timeout", required_argument, nullptr, IN_TIMEOUT},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};
    int Read = ReadOptions(Argc, Argv, Table, InstallUsage, "install",
                           [&](int Code, const char *Value) { return TakeOption(O, Code, Value); });
    if (Read <= 0)
        return Read;
    if (optind + 1 != Argc)
        return UsageError(InstallUsage, "install",
                          optind >= Argc ? "no bundle directory given"
                                         : "only one bundle directory, please");
    O->BundleDir = Argv[optind];
    return 1;
}

int InParseHistory(int Argc, char **Argv, InOptions *O)
{
    static const struct option Table[] = {{"json", no_argument, nullptr, IN_JSON},
                                          {"state-dir", required_argument, nullptr, IN_STATE_DIR},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    int Read = ReadOptions(Argc, Argv, Table, HistoryUsage, "history",
                           [&](int Code, const char *Value) { return TakeOption(O, Code, Value); });
    if (Read <= 0)
        return Read;
    if (optind != Argc)
        return UsageError(HistoryUsage, "history", std::string("unexpected ") + Argv[optind]);
    return 1;
}
