// lint_sarif.cpp - the findings of `zelrzp-manager lint --format=sarif`: one SARIF 2.1.0 log
// with one run, whose tool lists every tag as a rule (its severity and --explain text) and
// whose results point at the files relative to the bundle directory, for the code-scanning
// views of continuous-integration systems. Writes nothing but standard output.
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "zellint.h"

#ifndef ZEL_VERSION
#define ZEL_VERSION "0"
#endif

using SarifJson = nlohmann::ordered_json;

// The base that result locations are relative to.
static const char BundleBase[] = "BUNDLEDIR";

static const char *SarifLevel(int Severity)
{
    return Severity == LINT_ERROR ? "error" : Severity == LINT_WARNING ? "warning" : "note";
}

// A path as a URI reference: unreserved characters and '/' as they are, the rest %-encoded.
static std::string UriOf(const std::string &Path)
{
    static const char Hex[] = "0123456789ABCDEF";
    std::string Uri;
    for (unsigned char C : Path) {
        if (isalnum(C) || C == '-' || C == '.' || C == '_' || C == '~' || C == '/') {
            Uri += static_cast<char>(C);
        } else {
            Uri += '%';
            Uri += Hex[C >> 4];
            Uri += Hex[C & 15];
        }
    }
    return Uri;
}

// The bundle directory of the target (the file's own directory when one file is linted),
// absolute, with a final '/'; and the prefix that findings' file names start with.
static void BaseOf(const std::string &Target, std::string *Absolute, std::string *Prefix)
{
    struct stat St;
    bool Directory = stat(Target.c_str(), &St) == 0 && S_ISDIR(St.st_mode);
    std::string Dir = Directory ? Target : Target.substr(0, Target.rfind('/') + 1);
    *Prefix = Dir.empty() || Dir == "." ? "" : Dir + (Dir.back() == '/' ? "" : "/");
    char *Real = realpath(Dir.empty() ? "." : Dir.c_str(), nullptr);
    *Absolute = Real != nullptr ? Real : Dir;
    free(Real);
    if (Absolute->empty() || Absolute->back() != '/')
        *Absolute += '/';
}

static SarifJson Rules(void)
{
    SarifJson List = SarifJson::array();
    for (size_t i = 0; i < LintTagCount; i++) {
        const LintTagInfo &T = LintTags[i];
        List.push_back({{"id", T.Tag},
                        {"shortDescription", {{"text", T.Summary}}},
                        {"help", {{"text", LintExplanation(T)}}},
                        {"defaultConfiguration", {{"level", SarifLevel(T.Severity)}}}});
    }
    return List;
}

static SarifJson Result(const LintFinding &F, const std::string &Prefix)
{
    SarifJson R = {{"ruleId", F.Tag}};
    for (size_t i = 0; i < LintTagCount; i++)
        if (F.Tag == LintTags[i].Tag)
            R["ruleIndex"] = i;
    R["level"] = SarifLevel(F.Severity);
    R["message"] = {{"text", F.Message}};
    // A finding about the directory itself (no bundle file) has no file to point at.
    if (F.File.compare(0, Prefix.size(), Prefix) != 0 || F.File.size() == Prefix.size())
        return R;
    SarifJson Physical = {
        {"artifactLocation",
         {{"uri", UriOf(F.File.substr(Prefix.size()))}, {"uriBaseId", BundleBase}}}};
    if (F.Line > 0)
        Physical["region"] = {{"startLine", F.Line}};
    R["locations"] = SarifJson::array({{{"physicalLocation", Physical}}});
    return R;
}

void LintPrintSarif(const std::string &Target, const LintReport &R)
{
    std::string Absolute, Prefix;
    BaseOf(Target, &Absolute, &Prefix);
    SarifJson Results = SarifJson::array();
    for (const LintFinding &F : R.Findings)
        Results.push_back(Result(F, Prefix));
    SarifJson Driver = {{"name", "zelrzp-manager lint"},
                        {"version", ZEL_VERSION},
                        {"semanticVersion", ZEL_VERSION},
                        {"rules", Rules()}};
    SarifJson Run = {{"tool", {{"driver", Driver}}},
                     {"originalUriBaseIds", {{BundleBase, {{"uri", "file://" + UriOf(Absolute)}}}}},
                     {"results", Results}};
    SarifJson Log = {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
                     {"version", "2.1.0"},
                     {"runs", SarifJson::array({Run})}};
    printf("%s\n", Log.dump(2, ' ', false, SarifJson::error_handler_t::replace).c_str());
}
