// report.cpp - the `zelrzp-manager report` command: its options, the lint findings (with the
// source line each points at) and the support matrix of one bundle directory, turned into the
// page's view and rendered with mstch, which escapes every text. Writes the page file and the
// working directory (the matrix enters the bundle directory); getopt's optind and opterr.
#include <getopt.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <mstch/mstch.hpp>

#include "check.h"
#include "report.h"
#include "zelcli.h"
#include "zellint.h"

#ifndef ZEL_VERSION
#define ZEL_VERSION "0"
#endif

static const char ReportUsage[] =
    "usage: zelrzp-manager report [--snapshot=DIR]... [-o FILE] [--timeout=SECONDS]\n"
    "                             [--parser=PATH] BUNDLE_DIR\n"
    "Writes one self-contained HTML page: the support matrix as a coloured grid\n"
    "(distributions by components, each cell the verdict, the reasons below), for each\n"
    "distribution the bundle chosen and why, every lint finding with its source line, and\n"
    "with snapshots the check of those machines (machines by components, each refusal's\n"
    "requisites below).\n"
    "\n"
    "  --snapshot=DIR       a machine recorded by zelrzp-manager snapshot (repeatable)\n"
    "  -o, --output=FILE    the page (default: report.html)\n"
    "  --timeout=SECONDS    longest wait for any answer of the sub-service (default 60)\n"
    "  --parser=PATH        the sub-service executable\n"
    "  -h, --help           this text\n"
    "Exit status: that of the matrix (0, 1, 3), 2 usage, 3 when the page cannot be written.\n";

struct ReportOptions {
    std::string Output = "report.html", BundleDir, ParserPath;
    std::vector<std::string> Snapshots;
    int TimeoutSeconds = 60;
};

static int ReportUsageError(const char *What, const char *Value)
{
    fprintf(stderr, "zelrzp-manager report: %s%s\n%s", What, Value, ReportUsage);
    return -1;
}

// 1 to run, 0 after --help, -1 on a usage error.
static int ParseReportArguments(int argc, char **argv, ReportOptions *O)
{
    static const struct option Long[] = {{"output", required_argument, nullptr, 'o'},
                                         {"timeout", required_argument, nullptr, 't'},
                                         {"parser", required_argument, nullptr, 'p'},
                                         {"snapshot", required_argument, nullptr, 's'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    optind = 1;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, ":ho:", Long, nullptr)) != -1) {
        switch (c) {
        case 'o': O->Output = optarg; break;
        case 'p': O->ParserPath = optarg; break;
        case 's': O->Snapshots.push_back(optarg); break;
        case 't':
            if (!CliParseSeconds(optarg, &O->TimeoutSeconds))
                return ReportUsageError("--timeout wants a number of seconds, not ", optarg);
            break;
        case 'h': fputs(ReportUsage, stdout); return 0;
        case ':': return ReportUsageError("a value is missing after ", argv[optind - 1]);
        default: return ReportUsageError("unknown option ", argv[optind - 1]);
        }
    }
    if (optind != argc - 1)
        return ReportUsageError("name one bundle directory", "");
    O->BundleDir = argv[optind];
    return 1;
}

// ---- The view --------------------------------------------------------------------------------

// Line Number (from 1) of a file, at most 400 characters; "" when there is none.
static std::string SourceLine(const std::string &File, int Number)
{
    std::ifstream In(File);
    std::string Line;
    for (int i = 0; i < Number && std::getline(In, Line); i++) {
    }
    if (!In || Number < 1)
        return "";
    if (!Line.empty() && Line.back() == '\r')
        Line.pop_back();
    return Line.size() > 400 ? Line.substr(0, 400) + "..." : Line;
}

// Findings name their files under the bundle directory as given; the page names them in it.
static std::string InBundle(const std::string &File, const std::string &BundleDir)
{
    std::string Prefix = BundleDir.empty() || BundleDir.back() == '/' ? BundleDir : BundleDir + "/";
    return File.compare(0, Prefix.size(), Prefix) == 0 ? File.substr(Prefix.size()) : File;
}

static Json LintView(const LintReport &R, const std::string &BundleDir)
{
    Json Findings = Json::array();
    int Counts[3] = {0, 0, 0};
    for (const LintFinding &F : R.Findings) {
        Counts[F.Severity]++;
        Findings.push_back({{"file", InBundle(F.File, BundleDir)},
                            {"line", F.Line},
                            {"severity", LintSeverityName(F.Severity)},
                            {"tag", F.Tag},
                            {"message", F.Message},
                            {"source", SourceLine(F.File, F.Line)}});
    }
    char Summary[160];
    snprintf(Summary, sizeof Summary, "Findings: %zu (errors %d, warnings %d, information %d).",
             R.Findings.size(), Counts[LINT_ERROR], Counts[LINT_WARNING], Counts[LINT_INFO]);
    return {{"lintSummary", Summary}, {"hasFindings", !R.Findings.empty()}, {"findings", Findings}};
}

// A component's verdict in a run: the grid's class and label, and the full text.
static Json Cell(const Json &Run, const std::string &Distro, const std::string &Component)
{
    std::string Text = CliComponentVerdict(Run, Component);
    std::string Verdict = !Run["failure"].is_null()             ? "no-plan"
                          : Text.rfind("refused", 0) == 0       ? "refused"
                          : Text.rfind("recorded with", 0) == 0 ? "findings"
                          : Text.rfind("recorded", 0) == 0      ? "recorded"
                                                                : "not-recorded";
    std::string Label = Verdict == "no-plan"        ? "no plan"
                        : Verdict == "not-recorded" ? "-"
                                                    : Verdict;
    return {{"distro", Distro},
            {"component", Component},
            {"verdict", Verdict},
            {"label", Label},
            {"reasons", Text}};
}

static std::string Joined(const Json &List)
{
    std::string Text;
    for (const Json &Item : List)
        Text += (Text.empty() ? "" : ", ") + CliStr(Item);
    return Text;
}

static Json BundleFilesView(const Json &Run)
{
    Json Files = Json::array();
    for (const Json &B : Run["bundleFiles"])
        Files.push_back({{"file", CliStr(B["file"])},
                         {"verdict", CliStr(B["verdict"])},
                         {"claims", Joined(B["claims"])}});
    return Files;
}

// One distribution: its row of the grid over Components and its section.
static Json DistributionView(const Json &Run, const std::vector<std::string> &Components)
{
    std::string Name = CliStr(Run["distribution"]["name"]);
    Json Cells = Json::array(), Verdicts = Json::array();
    for (const std::string &C : Components)
        Cells.push_back(Cell(Run, Name, C));
    for (const std::string &C : CliComponentsOf(Run)) {
        Json Own = Cell(Run, Name, C);
        Verdicts.push_back(
            {{"component", C}, {"verdict", Own["verdict"]}, {"text", Own["reasons"]}});
    }
    bool Plan = Run["bundle"].is_object();
    return {{"name", Name},
            {"description", CliStr(Run["distribution"]["description"])},
            {"detectedAs", CliStr(Run["installedOS"])},
            {"outcome", CliStr(Run["outcome"])},
            {"bundleFile", Plan ? CliStr(Run["bundle"]["file"]) : ""},
            {"bundleName", Plan ? CliStr(Run["bundle"]["name"]) : ""},
            {"matchedEntry", Plan ? CliStr(Run["bundle"]["matchedEntry"]) : ""},
            {"failure", Run["failure"].is_null() ? "" : CliStr(Run["failure"]["what"])},
            {"hasBundleFiles", !Run["bundleFiles"].empty()},
            {"bundleFiles", BundleFilesView(Run)},
            {"cells", Cells},
            {"verdicts", Verdicts}};
}

static Json MatrixView(const Json &Matrix)
{
    std::vector<std::string> Components;
    for (const Json &Run : Matrix["distributions"])
        for (const std::string &C : CliComponentsOf(Run))
            if (std::find(Components.begin(), Components.end(), C) == Components.end())
                Components.push_back(C);
    Json Distributions = Json::array();
    for (const Json &Run : Matrix["distributions"])
        Distributions.push_back(DistributionView(Run, Components));
    return {{"components", Components},
            {"distributions", Distributions},
            {"setupFailure", Matrix["failure"].is_null() ? "" : CliStr(Matrix["failure"]["what"])},
            {"exitStatus", Matrix["exitStatus"]},
            {"matrixJson", Matrix.dump(2, ' ', false, Json::error_handler_t::replace)}};
}

// The view as mstch's nodes; every string is escaped when the template shows it.
static mstch::node ToNode(const Json &V)
{
    if (V.is_object()) {
        mstch::map Map;
        for (auto It = V.begin(); It != V.end(); ++It)
            Map.emplace(It.key(), ToNode(It.value()));
        return Map;
    }
    if (V.is_array()) {
        mstch::array Array;
        for (const Json &Item : V)
            Array.push_back(ToNode(Item));
        return Array;
    }
    if (V.is_boolean())
        return V.get<bool>();
    if (V.is_number_integer())
        return V.get<int>();
    if (V.is_number())
        return V.get<double>();
    if (V.is_string())
        return V.get<std::string>();
    return nullptr;
}

// The check of the snapshots' machines: machines by components, each cell the component's
// verdict on that machine with its first reason, and below the grid every refused component's
// failing requisites (with the component XML file and line each is written at).
static Json FleetCell(const Json &Machine, const Json &C, Json *Refusals)
{
    std::string Verdict = CliStr(C["verdict"]);
    if (Verdict == "refused") {
        Json Failing = Json::array();
        for (const Json &R : C["requisites"])
            if (R.value("fails", false))
                Failing.push_back({{"text", CliStr(R["reason"])},
                                   {"where", CliStr(R["file"]) + ":" + R["line"].dump()}});
        Refusals->push_back({{"machine", Machine["name"]},
                             {"component", C["file"]},
                             {"requisites", Failing}});
    }
    return {{"component", C["file"]},
            {"verdict", Verdict},
            {"label", Verdict == "not-recorded" ? "-" : Verdict},
            {"reasons", CliStr(C["reason"])}};
}

// A machine without a plan: every cell says so, with the reason.
static Json NoPlanCell(const Json &Machine, const std::string &File)
{
    std::string Why = Machine["failure"].is_string() ? CliStr(Machine["failure"]) : "no plan";
    return {{"component", File}, {"verdict", "no-plan"}, {"label", "no plan"}, {"reasons", Why}};
}

static Json FleetView(const Json &Check)
{
    std::vector<std::string> Files;
    for (const Json &M : Check["machines"])
        for (const Json &C : M["components"])
            if (std::find(Files.begin(), Files.end(), CliStr(C["file"])) == Files.end())
                Files.push_back(CliStr(C["file"]));
    Json Machines = Json::array(), Refusals = Json::array();
    for (const Json &M : Check["machines"]) {
        Json Cells = Json::array();
        for (const std::string &File : Files) {
            Json Cell = NoPlanCell(M, File);
            for (const Json &C : M["components"])
                if (CliStr(C["file"]) == File)
                    Cell = FleetCell(M, C, &Refusals);
            Cells.push_back(Cell);
        }
        Machines.push_back(
            {{"name", M["name"]}, {"distribution", CliStr(M["distribution"])}, {"cells", Cells}});
    }
    return {{"fleetComponents", Files},
            {"machines", Machines},
            {"refusals", Refusals},
            {"fleetJson", Check.dump(1)}};
}

// ---- The command ------------------------------------------------------------------------------

static int WritePage(const std::string &Path, const std::string &Page)
{
    FILE *Out = fopen(Path.c_str(), "w");
    bool Written = Out != nullptr && fwrite(Page.data(), 1, Page.size(), Out) == Page.size();
    if (Out != nullptr && fclose(Out) != 0)
        Written = false;
    if (!Written)
        fprintf(stderr, "zelrzp-manager report: cannot write %s: %s\n", Path.c_str(),
                strerror(errno));
    return Written ? 0 : -1;
}

// The output's absolute path, taken before the runs change the working directory.
static std::string AbsoluteOutput(const std::string &Output)
{
    char Here[PATH_MAX];
    if (Output.empty() || Output[0] == '/' || getcwd(Here, sizeof Here) == nullptr)
        return Output;
    return std::string(Here) + "/" + Output;
}

int ReportMain(int argc, char **argv)
{
    ReportOptions RO;
    int Parsed = ParseReportArguments(argc, argv, &RO);
    if (Parsed <= 0)
        return Parsed == 0 ? CLI_CLEAN : CLI_USAGE;
    std::string Output = AbsoluteOutput(RO.Output);
    LintReport Lint;
    LintBundleDirectory(RO.BundleDir, &Lint);
    LintSortFindings(&Lint);
    Json View = LintView(Lint, RO.BundleDir);
    CliOptions O;
    O.BundleDir = RO.BundleDir;
    O.ParserPath = RO.ParserPath;
    O.TimeoutSeconds = RO.TimeoutSeconds;
    O.AllDistros = true;
    Json Matrix = CliMatrixRun(O);
    View.update(MatrixView(Matrix));
    if (!RO.Snapshots.empty()) {
        CkOptions Check;
        Check.Snapshots = RO.Snapshots;
        Check.BundleDir = RO.BundleDir;
        Check.ParserPath = RO.ParserPath;
        Check.TimeoutSeconds = RO.TimeoutSeconds;
        View["fleet"] = FleetView(CkCheckJson(Check));
    }
    View["bundleDirectory"] = RO.BundleDir;
    View["version"] = ZEL_VERSION;
    std::string Page = mstch::render(ReportTemplate, ToNode(View));
    if (WritePage(Output, Page) != 0)
        return CLI_NO_PLAN;
    fprintf(stderr, "zelrzp-manager report: wrote %s\n", Output.c_str());
    return Matrix["exitStatus"].get<int>();
}
