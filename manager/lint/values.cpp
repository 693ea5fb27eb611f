// values.cpp - lint's checks of the values in one component file: translations against the
// bundle's languages, PCI ids, requisite subtypes, configuration lengths and prompts; and a
// lone XML file linted by itself. Reads the sub-service's tree; writes no globals.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "checks.h"
#include "records.h"

namespace {

std::string Join(const std::set<std::string> &Items)
{
    std::string Out;
    for (const std::string &I : Items)
        Out += (Out.empty() ? "" : ", ") + I;
    return Out;
}

// The translations of Parent against the bundle's languages.
void CheckTranslations(SECTIONPTR Parent, const char *Child, const std::string &What,
                       const std::set<std::string> &Languages, const std::string &Shown,
                       LintReport *R, bool Prompt)
{
    if (Parent == nullptr || Languages.empty())
        return;
    std::set<std::string> Have = LintLanguagesOf(Parent, Child);
    std::set<std::string> Missing;
    for (const std::string &L : Languages)
        if (Have.count(L) == 0)
            Missing.insert(L);
    if (Missing.empty() || (Prompt ? false : Have.empty()))
        return;
    const char *Tag = Prompt ? "prompt-language" : "translation-incomplete";
    AddFinding(R, Shown, Parent->Line, Tag,
               What + " is translated into " + (Have.empty() ? "no language" : Join(Have)) +
                   " but not into " + Join(Missing) + ", which the bundle's name has");
}

bool IsHex(const std::string &Text)
{
    return !Text.empty() && Text.size() <= 4 &&
           Text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool IsDecimal(const char *Text)
{
    return Text != nullptr && *Text != '\0' && strspn(Text, "0123456789") == strlen(Text);
}

void CheckDevices(SECTIONPTR Package, const std::string &Shown, LintReport *R)
{
    SECTIONPTR Devices = FindFirstChildOf(FindFirstChildOf(Package, "prerequisites"),
                                          "supported_devices");
    for (SECTIONPTR And = FindFirstChildOf(Devices, "supported_devices_and"); And != nullptr;
         And = GetNextSibling(And)) {
        SECTIONPTR Device = FindFirstChildOf(And, "supported_device");
        for (SECTIONPTR Data = FindFirstChildOf(Device, "supported_device_data"); Data != nullptr;
             Data = GetNextSibling(Data)) {
            const char *Name = GetAttribute(Data, "name");
            std::string Part = Name != nullptr ? Name : "";
            const char *Text = GetFirstToken(Data);
            if (Part != "ven" && Part != "dev" && Part != "subven" && Part != "subdev")
                AddFinding(R, Shown, Data->Line, "pci-id",
                           "supported_device_data name " + LintQuoted(Part) +
                               " is none of ven, dev, subven, subdev: this device and the ones "
                               "after it are dropped");
            else if (Text != nullptr && !IsHex(Text))
                AddFinding(R, Shown, Data->Line, "pci-id",
                           "PCI " + Part + " id " + LintQuoted(Text) +
                               " is not 1 to 4 hexadecimal digits");
        }
    }
}

void CheckRequisites(SECTIONPTR Platform, const char *List, const char *Entry,
                     const std::string &Shown, LintReport *R)
{
    for (SECTIONPTR E = FindFirstChildOf(FindFirstChildOf(Platform, List), Entry); E != nullptr;
         E = GetNextSibling(E)) {
        const char *SubType = GetAttribute(E, "SubType");
        unsigned long Value = IsDecimal(SubType) ? strtoul(SubType, nullptr, 10) : 0;
        if (Value < 1 || Value > 11)
            AddFinding(R, Shown, E->Line, "subtype-range",
                       std::string(Entry) + " SubType " +
                           LintQuoted(SubType != nullptr ? SubType : "") +
                           " is not a condition from 1 to 11");
    }
}

void CheckVariables(SECTIONPTR Platform, const char *List, const char *Entry,
                    const std::set<std::string> &Languages, const std::string &Shown, LintReport *R)
{
    int Number = 0;
    for (SECTIONPTR E = FindFirstChildOf(FindFirstChildOf(Platform, List), Entry); E != nullptr;
         E = GetNextSibling(E), Number++) {
        SECTIONPTR Req = FindFirstChildOf(E, "requirements");
        const char *Min = GetAttribute(Req, "minimumlength");
        const char *Max = GetAttribute(Req, "maximumlength");
        uint32_t Minimum = DecimalValue(Min);
        uint32_t Maximum = Max != nullptr ? DecimalValue(Max) : 16384;
        if (Req != nullptr && Minimum > Maximum)
            AddFinding(R, Shown, Req->Line, "length-range",
                       "minimumlength " + std::to_string(Minimum) + " is above maximumlength " +
                           std::to_string(Maximum) + ": no answer can be accepted");
        CheckTranslations(FindFirstChildOf(E, "prompt"), "prompt_xlate",
                          std::string(List) + " variable " + std::to_string(Number + 1) +
                              "'s prompt",
                          Languages, Shown, R, true);
    }
}

} // namespace

std::string LintQuoted(const std::string &Text)
{
    return "'" + Text + "'";
}

std::set<std::string> LintLanguagesOf(SECTIONPTR Parent, const char *Child)
{
    std::set<std::string> Out;
    for (SECTIONPTR S = FindFirstChildOf(Parent, Child); S != nullptr; S = GetNextSibling(S)) {
        const char *Lang = GetAttribute(S, "lang");
        Out.insert(Lang != nullptr ? Lang : "");
    }
    return Out;
}

void LintComponentValues(const std::string &Shown, const std::set<std::string> &Languages,
                         LintReport *R)
{
    SECTIONPTR Package = FindFirstChildOf(GetRootNode(), "zel_package");
    if (Package == nullptr)
        return;
    CheckTranslations(FindFirstChildOf(Package, "name"), "name_xlate", "the component's name",
                      Languages, Shown, R, false);
    CheckTranslations(FindFirstChildOf(Package, "description"), "description_xlate",
                      "the component's description", Languages, Shown, R, false);
    CheckDevices(Package, Shown, R);
    SECTIONPTR Linux = FindFirstChildOf(FindFirstChildOf(Package, "platform_specific"), "LINUX");
    for (SECTIONPTR Platform = Linux != nullptr ? Linux->Child : nullptr; Platform != nullptr;
         Platform = Platform->NextSibling) {
        CheckRequisites(Platform, "prerequisites", "prerequisite_data", Shown, R);
        CheckRequisites(Platform, "postrequisites", "postrequisite_data", Shown, R);
        CheckVariables(Platform, "preconfiguration", "preconfiguration_data_and", Languages, Shown,
                       R);
        CheckVariables(Platform, "postconfiguration", "postconfiguration_data_and", Languages,
                       Shown, R);
    }
}

void LintXmlFile(const std::string &Path, LintReport *R)
{
    if (LintCaptureBegin() != 0)
        return;
    if (LintDifferential(Path, Path, R) == 0)
        LintComponentValues(Path, {}, R);
    DeleteTree();
    LintCaptureEnd();
}
