// outcome.cpp - what one run of the zelrzp-manager program comes to: the parts a failed
// run lacks, the key of the distribution's platform sections and the manager's own finding
// about components without one, the bundle chosen and the install records, then why there is
// no plan, the outcome and the exit status. Writes only the run record it is given.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "zelcli.h"
#include "zelfindings.h"

// The key of the platform-specific sections on the detected distribution.
static std::string DistributionKey(const std::string &InstalledOS)
{
    std::string Key = InstalledOS;
    std::replace(Key.begin(), Key.end(), ' ', '_');
    const char *Sp3 = getenv("SP3");
    if (Key == "UnitedLinux_1.0" && Sp3 != nullptr && strcmp(Sp3, "YES") == 0)
        Key += "_SP3";
    return Key;
}

// What the sub-service does not say: a component XML file without a section for the
// distribution gets every flag off, silently.
static void CheckSections(CliRun *Run, const std::string &Key)
{
    if (Key.empty())
        return;
    for (const ZmRecord &R : Run->Records) {
        std::string Xml = ZfXmlFileOf(R.FileName);
        std::ifstream In(Xml, std::ios::binary);
        std::stringstream Text;
        Text << In.rdbuf();
        if (!In || ZfHasSection(Text.str(), Key))
            continue;
        Run->Result["findings"].push_back(
            {{"sources", {"manager"}},
             {"text", "The component XML file has no '" + Key +
                          "' section under platform_specific/LINUX: on this distribution all its "
                          "flags are off (no prerequisites, postrequisites or configuration)."},
             {"file", Xml}, {"component", R.FileName}, {"problem", true}});
    }
}

static std::string NoBundleReason(const Json &R)
{
    const Json &Files = R["bundleFiles"];
    if (Files.empty())
        return "the directory holds no bundle XML file (a name containing \".xml\" and \"BP0\", in "
               "any case) (-703)";
    std::string What = "no bundle XML file supports " +
                       (R["installedOS"].get<std::string>().empty()
                            ? std::string("the installed distribution")
                            : R["installedOS"].get<std::string>()) + " (-703):";
    for (const Json &B : Files)
        What += " " + B["file"].get<std::string>() + " " + B["verdict"].get<std::string>() + ";";
    What.pop_back();
    return What;
}

static std::string FailureText(const CliRun &Run, const Json &R, int Code)
{
    if (Code == RZP_PARSER_NO_BUNDLE)
        return NoBundleReason(R);
    if (Code == RZP_PARSER_NOT_ONE_BUNDLE && Run.Tqr)
        return "the installed distribution is not supported (-505)";
    if (Code == RZP_PARSER_NOT_ONE_BUNDLE) {
        std::string What = "more than one bundle XML file supports the distribution (-505):";
        for (const Json &B : R["bundleFiles"])
            if (B["verdict"] == "supported")
                What += " " + B["file"].get<std::string>() + ",";
        What.pop_back();
        return What;
    }
    return "open input file was answered " + ZmResultText(Code);
}

// True when a -703 only says that no bundle file claims this distribution.
static bool NotClaimed(const Json &R)
{
    if (R["failure"].is_null() || R["failure"]["code"] != RZP_PARSER_NO_BUNDLE ||
        R["bundleFiles"].empty())
        return false;
    for (const Json &B : R["bundleFiles"])
        if (B["verdict"] != "not supported")
            return false;
    return true;
}

static std::string EmptyPlanReason(const CliRun &Run, const CliOptions &O)
{
    if (!O.View.empty())
        return "no component file name of the bundle contains \"" + O.View + "\"";
    return Run.Result["refused"].empty() ? "the bundle names no component to install"
                                         : "every component was refused";
}

// Outcome and exit status from what the run found.
static void Judge(CliRun *Run, const CliOptions &O)
{
    Json &R = Run->Result;
    if (Run->Failure.is_object() && Run->Failure["what"] == "")
        Run->Failure["what"] = FailureText(*Run, R, Run->Failure["code"].get<int>());
    if (Run->Failure.is_null() && Run->Records.empty())
        CliFailed(Run, "plan", 0, "the plan is empty: " + EmptyPlanReason(*Run, O));
    bool Problem = !R["refused"].empty();
    for (const Json &F : R["findings"])
        Problem = Problem || F["problem"].get<bool>();
    int Status = !Run->Failure.is_null() ? CLI_NO_PLAN : Problem ? CLI_FINDINGS : CLI_CLEAN;
    R["failure"] = Run->Failure;
    R["outcome"] = Status == CLI_CLEAN      ? "clean"
                   : Status == CLI_FINDINGS ? "findings"
                   : NotClaimed(R)          ? "not claimed"
                                            : "no plan";
    R["exitStatus"] = Status;
}

// The bundle file the sub-service chose, its name and the entry that matched; null when none.
static Json BundleJson(const CliRun &Run)
{
    if (Run.BundleFile.empty())
        return nullptr;
    std::string Matched;
    for (const Json &B : Run.Result["bundleFiles"])
        if (B["file"] == Run.BundleFile && B["matched"].is_string())
            Matched = B["matched"];
    return {{"file", Run.BundleFile}, {"name", Run.BundleName},
            {"matchedEntry", CliNullIfEmpty(Matched)}};
}

void CliComplete(CliRun *Run, const CliOptions &O)
{
    Json &R = Run->Result;
    for (const char *Key : {"bundleFiles", "refused", "findings"})
        if (!R.contains(Key))
            R[Key] = Json::array();
    if (!R.contains("installedOS"))
        R["installedOS"] = "";
    std::string Key = DistributionKey(R["installedOS"].get<std::string>());
    R["distribution"]["key"] = R["installedOS"] == "" ? Json(nullptr) : Json(Key);
    if (Run->HaveItems)
        CheckSections(Run, R["installedOS"] == "" ? "" : Key);
    R["bundle"] = BundleJson(*Run);
    if (Run->Tqr)
        R["packages"] = O.Packages;
    R["numberOfItems"] = Run->HaveItems ? Json(Run->NumberOfItems) : Json(nullptr);
    Json Components = Json::array();
    for (const ZmRecord &Rec : Run->Records)
        Components.push_back(CliRecordJson(Rec));
    R["components"] = Components;
    Judge(Run, O);
}
