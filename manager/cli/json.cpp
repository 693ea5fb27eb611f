// json.cpp - the JSON of the zelrzp-manager program: an install record, what the analysis
// of the sub-service's messages found (bundle file verdicts, refusals, findings), a failure,
// and the printing of a whole result. The table and the matrix read the same objects.
// Writes no globals.
#include <cstdio>
#include <string>

#include "zelcli.h"
#include "zelfindings.h"

Json CliNullIfEmpty(const std::string &Text) { return Text.empty() ? Json(nullptr) : Json(Text); }

std::string CliStr(const Json &V) { return V.is_string() ? V.get<std::string>() : std::string(); }

Json CliFailureJson(const char *Stage, int Code, const std::string &What)
{
    return {{"stage", Stage}, {"code", Code == 0 ? Json(nullptr) : Json(Code)}, {"what", What}};
}

static Json TextOrNull(bool Present, const std::string &T) { return Present ? Json(T) : Json(nullptr); }

// A PCI device is a prerequisite on the wire; the record shows it in a list of its own.
static bool IsDevice(const ZmRequisite &Q)
{
    return Q.Structure == RZP_STRUCT_PREREQ && Q.SubType == SUBTYPE_PCI_DEVICE_PRESENT;
}

static Json RequisitesJson(const ZmRecord &R, uint32_t Structure)
{
    Json List = Json::array();
    for (const ZmRequisite &Q : R.Requisites)
        if (Q.Structure == Structure && !IsDevice(Q))
            List.push_back({{"subType", Q.SubType}, {"subTypeName", ZmSubTypeName(Q.SubType)},
                            {"value", Q.Value}});
    return List;
}

static Json VariableJson(const ZmConfigVariable &V)
{
    return {{"outputName", TextOrNull(V.HasOutputName, V.OutputName)},
            {"outputType", V.OutputType},
            {"required", V.IsVariableRequired},
            {"minimumLength", V.MinimumLength},
            {"maximumLength", V.MaximumLength},
            {"prompt", TextOrNull(V.HasPrompt, V.Prompt)},
            {"acceptableCharacters", TextOrNull(V.HasAcceptableCharacters, V.AcceptableCharacters)},
            {"requiredFormat", TextOrNull(V.HasRequiredFormat, V.RequiredFormat)},
            {"defaultValue", TextOrNull(V.HasDefaultValue, V.DefaultValue)},
            {"actualValue", TextOrNull(V.HasActualValue, V.ActualValue)},
            {"outputFileName", TextOrNull(V.HasOutputFileName, V.OutputFileName)},
            {"attributes", V.Attributes}};
}

static Json ConfigurationJson(const ZmRecord &R, uint32_t Structure)
{
    Json List = Json::array();
    for (const ZmConfigVariable &V : R.Configuration)
        if (V.Structure == Structure)
            List.push_back(VariableJson(V));
    return List;
}

Json CliRecordJson(const ZmRecord &R)
{
    Json Devices = Json::array();
    for (const ZmRequisite &Q : R.Requisites)
        if (IsDevice(Q))
            Devices.push_back(Q.Value);
    return {{"number", R.Number}, {"file", R.FileName}, {"name", R.Name}, {"version", R.Version},
            {"description", R.Description}, {"installCommand", R.InstallCommand},
            {"reboot", R.ComponentRequiresReboot},
            {"requiresPreCompilation", R.RequiresPreCompilation},
            {"requiresPostCompilation", R.RequiresPostCompilation},
            {"prerequisites", RequisitesJson(R, RZP_STRUCT_PREREQ)},
            {"postrequisites", RequisitesJson(R, RZP_STRUCT_POSTREQ)},
            {"pciDevices", Devices},
            {"preConfiguration", ConfigurationJson(R, RZP_STRUCT_PRECONFIG)},
            {"postConfiguration", ConfigurationJson(R, RZP_STRUCT_POSTCONFIG)}};
}

void CliAnalysisJson(const ZfAnalysis &A, Json *Result)
{
    (*Result)["installedOS"] = A.InstalledOS;
    Json Bundles = Json::array();
    for (const ZfBundleVerdict &B : A.Bundles)
        Bundles.push_back({{"file", B.File}, {"verdict", B.Verdict}, {"claims", B.Claims},
                           {"matched", CliNullIfEmpty(B.Matched)}, {"messages", B.Messages}});
    (*Result)["bundleFiles"] = Bundles;
    Json Refused = Json::array();
    for (const ZfRefused &R : A.Refused)
        Refused.push_back({{"component", R.Component}, {"reason", R.Reason}});
    (*Result)["refused"] = Refused;
    Json Findings = Json::array();
    for (const ZfFinding &F : A.Findings)
        Findings.push_back({{"sources", F.Sources}, {"text", F.Text},
                            {"file", CliNullIfEmpty(F.File)},
                            {"component", CliNullIfEmpty(F.Component)}, {"problem", F.Problem}});
    (*Result)["findings"] = Findings;
}

void CliPrintJson(const Json &R)
{
    std::string Text = R.dump(2, ' ', false, Json::error_handler_t::replace);
    fwrite(Text.data(), 1, Text.size(), stdout);
    fputc('\n', stdout);
}
