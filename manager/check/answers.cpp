// answers.cpp - the configuration answers: the answers file read (NAME=VALUE a line, the value
// everything after the first '=', '#' a comment line), each pre- and post-configuration
// variable of a component judged (answered, default, missing, invalid), and the answers
// command that writes a template for a distribution. A password variable's value never
// appears in any output, not even a character of it. Writes no globals.
#include <getopt.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "check.h"

static std::string TrimAnswer(const std::string &Text)
{
    size_t First = Text.find_first_not_of(" \t\r");
    if (First == std::string::npos)
        return "";
    return Text.substr(First, Text.find_last_not_of(" \t\r") - First + 1);
}

int CkReadAnswers(const std::string &Path, CkAnswers *A, std::vector<std::string> *Errors)
{
    std::ifstream In(Path, std::ios::binary);
    if (!In) {
        Errors->push_back(Path + ": cannot be read");
        return -1;
    }
    A->Given = true;
    std::string Line;
    for (int Number = 1; std::getline(In, Line); Number++) {
        if (!Line.empty() && Line.back() == '\r')
            Line.pop_back();
        std::string Bare = TrimAnswer(Line);
        if (Bare.empty() || Bare[0] == '#')
            continue;
        size_t Eq = Line.find('=');
        if (Eq == std::string::npos || TrimAnswer(Line.substr(0, Eq)).empty()) {
            Errors->push_back(Path + ":" + std::to_string(Number) +
                              ": not NAME=VALUE (no '=' or no name); the line is ignored");
            continue;
        }
        std::string Name = TrimAnswer(Line.substr(0, Eq));
        A->Values[Name] = Line.substr(Eq + 1);
        A->Lines[Name] = Number;
    }
    return Errors->empty() ? 0 : -1;
}

bool CkIsPassword(const Json &V)
{
    return V["outputType"] == 2 || CliStr(V["outputName"]).find("PASSWD") != std::string::npos;
}

namespace {

struct Judgement {
    const char *State, *Code;
    std::string Reason;
};

// An answer checked against the variable's limits; a password's characters are never named.
Judgement CheckValue(const Json &V, const std::string &Value, bool Password)
{
    size_t Min = V["minimumLength"].get<size_t>(), Max = V["maximumLength"].get<size_t>();
    if (Value.size() < Min)
        return {"invalid", "too-short", "shorter than the minimum of " + std::to_string(Min)};
    if (Max > 0 && Value.size() > Max)
        return {"invalid", "too-long", "longer than the maximum of " + std::to_string(Max)};
    std::string Acceptable = CliStr(V["acceptableCharacters"]);
    size_t Bad = Acceptable.empty() ? std::string::npos : Value.find_first_not_of(Acceptable);
    if (Bad != std::string::npos)
        return {"invalid", "bad-character",
                Password ? "a character is not among the acceptable ones"
                         : "'" + Value.substr(Bad, 1) +
                               "' is not among the acceptable characters \"" + Acceptable + "\""};
    return {"answered", "answered", "answered"};
}

Judgement JudgeVariable(const Json &V, const CkAnswers &A, bool Password)
{
    auto Answer = A.Values.find(CliStr(V["outputName"]));
    if (Answer != A.Values.end())
        return CheckValue(V, Answer->second, Password);
    if (V["defaultValue"].is_string())
        return {"default", "default", "not answered: its default is taken"};
    if (V["required"].get<bool>())
        return {"missing", "missing", "required, not answered and without a default"};
    return {"default", "optional-empty",
            "optional, not answered and without a default: left empty"};
}

Json VariableVerdict(const Json &V, const char *Phase, const CkAnswers &A)
{
    bool Password = CkIsPassword(V);
    Judgement J = JudgeVariable(V, A, Password);
    auto Answer = A.Values.find(CliStr(V["outputName"]));
    Json Value = Password                        ? Json(nullptr)
                 : Answer != A.Values.end()      ? Json(Answer->second)
                 : V["defaultValue"].is_string() ? V["defaultValue"]
                                                 : Json(nullptr);
    return {{"name", V["outputName"]}, {"phase", Phase},       {"state", J.State}, {"code", J.Code},
            {"reason", J.Reason},      {"password", Password}, {"value", Value}};
}

} // namespace

Json CkJudgeConfiguration(const Json &Component, const CkAnswers &A)
{
    Json List = Json::array();
    for (const Json &V : Component["preConfiguration"])
        List.push_back(VariableVerdict(V, "pre", A));
    for (const Json &V : Component["postConfiguration"])
        List.push_back(VariableVerdict(V, "post", A));
    return List;
}

// ---- The template
// ---------------------------------------------------------------------------------

static void TemplateVariable(const Json &V)
{
    bool Password = CkIsPassword(V);
    std::string Name = CliStr(V["outputName"]);
    printf("\n# %s\n", V["prompt"].is_string() ? CliStr(V["prompt"]).c_str() : Name.c_str());
    printf("# %s; length %u to %u", V["required"].get<bool>() ? "required" : "optional",
           V["minimumLength"].get<unsigned>(), V["maximumLength"].get<unsigned>());
    if (V["acceptableCharacters"].is_string())
        printf("; acceptable characters: %s", CliStr(V["acceptableCharacters"]).c_str());
    if (V["requiredFormat"].is_string())
        printf("; format: %s", CliStr(V["requiredFormat"]).c_str());
    if (Password)
        printf("; a password");
    else if (V["defaultValue"].is_string())
        printf("; default: %s", CliStr(V["defaultValue"]).c_str());
    printf("\n");
    bool Needed = V["required"].get<bool>() && (Password || !V["defaultValue"].is_string());
    if (Needed)
        printf("%s=\n", Name.c_str());
    else
        printf("#%s=%s\n", Name.c_str(), Password ? "" : CliStr(V["defaultValue"]).c_str());
}

static void TemplateOf(const Json &Plan)
{
    printf("# Configuration answers for %s on %s (zelrzp-manager answers).\n"
           "# One NAME=VALUE a line; the value is everything after the first '='.\n",
           CliStr(Plan["bundleDirectory"]).c_str(), CliStr(Plan["installedOS"]).c_str());
    for (const Json &C : Plan["components"])
        for (const char *Phase : {"preConfiguration", "postConfiguration"}) {
            if (!C[Phase].empty())
                printf("\n# -- %s, %s the install\n", CliStr(C["file"]).c_str(),
                       Phase[1] == 'r' ? "before" : "after");
            for (const Json &V : C[Phase])
                TemplateVariable(V);
        }
}

static const char AnswersUsage[] =
    "usage: zelrzp-manager answers [--distro=NAME | --snapshot=DIR] [--parser=PATH] BUNDLE_DIR\n"
    "Writes on standard output a template answers file for the check (--answers=FILE): every\n"
    "configuration variable of the plan with its prompt, limits, acceptable characters, required\n"
    "format and default as comments. The plan is made for --distro NAME (see --list-distros),\n"
    "for the release files and environment (SP3, RZPELMCONFIGURED) of a snapshot, or for\n"
    "this machine's.\n"
    "Exit status: 0 written; 2 a wrong command line; 3 no plan.\n";

int CkAnswersMain(int Argc, char **Argv)
{
    static const struct option Options[] = {{"distro", required_argument, nullptr, 'd'},
                                            {"snapshot", required_argument, nullptr, 's'},
                                            {"parser", required_argument, nullptr, 'p'},
                                            {"help", no_argument, nullptr, 'h'},
                                            {nullptr, 0, nullptr, 0}};
    CkOptions O;
    std::string Distro;
    opterr = 0;
    optind = 1;
    for (int Code; (Code = getopt_long(Argc, Argv, ":h", Options, nullptr)) != -1;) {
        if (Code == 'h') {
            fputs(AnswersUsage, stdout);
            return CLI_CLEAN;
        }
        if (Code == '?' || Code == ':') {
            fprintf(stderr, "zelrzp-manager answers: %s %s\n%s", Argv[optind - 1],
                    Code == '?' ? "is not an option" : "needs a value", AnswersUsage);
            return CLI_USAGE;
        }
        (Code == 'd' ? Distro : Code == 's' ? O.Snapshots.emplace_back() : O.ParserPath) = optarg;
    }
    if (optind + 1 != Argc || O.Snapshots.size() > 1) {
        fprintf(stderr, "zelrzp-manager answers: one bundle directory, at most one snapshot\n%s",
                AnswersUsage);
        return CLI_USAGE;
    }
    O.BundleDir = Argv[optind];
    CkPlanInput Input;
    std::string Error;
    if (CkPlanInputFor(Distro, O.Snapshots, &Input, &Error) != 0) {
        bool Usage = Error.rfind("unknown", 0) == 0;
        fprintf(stderr, "zelrzp-manager answers: %s\n%s", Error.c_str(), Usage ? AnswersUsage : "");
        return Usage ? CLI_USAGE : CLI_NO_PLAN;
    }
    std::vector<CkPlan> Plans = CkMakePlans(O, {Input});
    if (Plans.empty() || !Plans[0].Result["failure"].is_null()) {
        fprintf(stderr, "zelrzp-manager answers: no plan: %s\n",
                Plans.empty() ? "" : CliStr(Plans[0].Result["failure"]["what"]).c_str());
        return CLI_NO_PLAN;
    }
    TemplateOf(Plans[0].Result);
    return CLI_CLEAN;
}
