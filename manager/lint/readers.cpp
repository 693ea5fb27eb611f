// readers.cpp - the sub-service's bundle and component readers run in this process for lint:
// the lines they print tied to the element they concern, and the size of the install record
// the builder would make. Writes CurrentlyInstalledOS (the distribution read for) and reads
// the sub-service's tree.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "checks.h"
#include "packages.h"
#include "records.h"
#include "support.h"
#include "zelrzp.h"

namespace {

// ---- The tree ----------------------------------------------------------------------------

SECTIONPTR FindDeep(SECTIONPTR From, const char *Name)
{
    for (SECTIONPTR S = From != nullptr ? From->Child : nullptr; S != nullptr; S = S->NextSibling) {
        if (strcmp(S->Name, Name) == 0)
            return S;
        if (SECTIONPTR Found = FindDeep(S, Name))
            return Found;
    }
    return nullptr;
}

// section" at the element that should have held x; else at the top element.
int LineOfMessage(const std::string &Text)
{
    static const std::map<std::string, std::string> Parents = {
        {"version", "zel_package"},
        {"name", "zel_package"},
        {"name_xlate", "name"},
        {"description", "zel_package"},
        {"description_xlate", "description"},
        {"installation", "zel_package"},
        {"install", "installation"},
        {"reboot_required", "install"},
        {"command", "install"},
        {"prerequisite", "zel_package"},
        {"supported_devices", "prerequisites"},
        {"supported_device", "supported_devices_and"},
        {"requirements", "preconfiguration_data_and"},
        {"prompt", "preconfiguration_data_and"},
        {"prompt_xlate", "prompt"},
        {"operating_systems", "zel_bundle"},
        {"contents", "zel_bundle"},
        {"package", "contents"}};
    SECTIONPTR Root = GetRootNode();
    size_t Of = Text.find("attribute of the ");
    std::string Element;
    if (Of != std::string::npos) {
        Element = Text.substr(Of + 17, Text.find(' ', Of + 17) - Of - 17);
    } else {
        size_t Open = Text.find('\'');
        size_t Close = Open == std::string::npos ? Open : Text.find('\'', Open + 1);
        if (Close != std::string::npos) {
            std::string Word = Text.substr(Open + 1, Close - Open - 1);
            auto It = Parents.find(Word);
            if (It != Parents.end())
                Element = It->second;
            else if (CurrentlyInstalledOS != nullptr && Text.find("token") == std::string::npos)
                Element = CurrentlyInstalledOS;
            else
                Element = Word;
        }
    }
    SECTIONPTR S = Element.empty() ? nullptr : FindDeep(Root, Element.c_str());
    return S != nullptr ? S->Line : LintTopLine();
}

// Each line a reader printed since the last take becomes a finding with Tag; returns how

// ---- Readers ------------------------------------------------------------------------------------

// What the device reader prints when the component has no device list. The device reader
// itself is not linked here: its object also holds the serializer of the record builder, which
// would bring the sub-service's transport binding into this program and clash with the
// transport library the manager uses (docs/decisions.md). Its only messages are these two; a
// malformed entry ends its list silently (pci-id).
void DeviceListMessages(const std::string &Shown, LintReport *R)
{
    SECTIONPTR Package = FindFirstChildOf(GetRootNode(), "zel_package");
    if (Package == nullptr)
        return;
    SECTIONPTR Prerequisites = FindFirstChildOf(Package, "prerequisites");
    const char *Missing = Prerequisites == nullptr ? "prerequisite"
                          : FindFirstChildOf(Prerequisites, "supported_devices") == nullptr
                              ? "supported_devices"
                              : nullptr;
    if (Missing != nullptr)
        AddFinding(R, Shown, Prerequisites != nullptr ? Prerequisites->Line : Package->Line,
                   "no-device-list",
                   std::string("\"The XML file is corrupt.  The '") + Missing +
                       "' section cannot be found.\"");
}

// The readers of one component for the installed distribution D, as the record builder calls
// them. Returns true when the record would be built.
// Bytes of one encoded string item value: its characters and the NUL (1 for an absent one).
size_t StringBytes(const char *Text)
{
    return (Text != nullptr ? strlen(Text) : 0) + 1;
}

// The identifiers of the supported devices as the device reader builds them (each part at most
// four characters, "0000" when absent), up to the first malformed entry, which ends the list.
std::vector<size_t> DeviceIdLengths(void)
{
    std::vector<size_t> Lengths;
    SECTIONPTR Package = FindFirstChildOf(GetRootNode(), "zel_package");
    SECTIONPTR Devices = FindFirstChildOf(FindFirstChildOf(Package, "prerequisites"),
                                          "supported_devices");
    for (SECTIONPTR And = FindFirstChildOf(Devices, "supported_devices_and"); And != nullptr;
         And = GetNextSibling(And)) {
        SECTIONPTR Device = FindFirstChildOf(And, "supported_device");
        if (Device == nullptr)
            break;
        size_t Parts[4] = {4, 4, 4, 4};
        static const char *const Names[4] = {"ven", "dev", "subven", "subdev"};
        for (SECTIONPTR Data = FindFirstChildOf(Device, "supported_device_data"); Data != nullptr;
             Data = GetNextSibling(Data)) {
            const char *Name = GetAttribute(Data, "name");
            int Part = -1;
            for (int p = 0; Name != nullptr && p < 4; p++)
                Part = strcmp(Name, Names[p]) == 0 ? p : Part;
            if (Part < 0)
                return Lengths;
            const char *Text = GetFirstToken(Data);
            Parts[Part] = Text != nullptr ? std::min<size_t>(strlen(Text), 4) : 4;
        }
        Lengths.push_back(Parts[0] + Parts[1] + Parts[2] + Parts[3] + 3);
    }
    return Lengths;
}

// Encoded sizes of the install record's pieces (type and length items 4 bytes each, a
// boolean 1, a string its characters and NUL).
const size_t RECORD_NUMBER_BYTES = 12;
const size_t RECORD_MAIN_FIXED = 7 * 9 + 12 + 8 * 8 + 8 + 3 + 3; // + the five component strings
const size_t REQUISITE_FIXED = 16;                               // + the value
const size_t CONFIGURATION_FIXED = 8 + 113;                      // + seven strings
const size_t RECORD_END_BYTES = 8;

// The configuration variables of one list, as the builder reads them; returns their bytes.
size_t ConfigurationBytes(const std::string &Xml, bool Pre)
{
    size_t Bytes = 0;
    for (int i = 0;; i++) {
        PRECONFIGURATION *Config = static_cast<PRECONFIGURATION *>(
            calloc(1, sizeof(PRECONFIGURATION)));
        if (Config == nullptr)
            break;
        int Got = Pre ? GetPreConfigurationInfo(Xml.c_str(), i, Config, "en")
                      : GetPostConfigurationInfo(Xml.c_str(), i, Config, "en");
        if (Got == 0)
            Bytes += CONFIGURATION_FIXED + StringBytes(Config->Prompt) +
                     StringBytes(Config->AcceptableCharacters) +
                     StringBytes(Config->RequiredFormat) + StringBytes(Config->OutputName) +
                     StringBytes(Config->DefaultValue) + StringBytes(Config->ActualValue) +
                     StringBytes(Config->OutputFileName);
        FreeConfigStruct(Config, Pre ? 303 : 304);
        if (Got != 0)
            break;
    }
    return Bytes;
}

size_t RequisiteBytes(const std::string &Xml, bool Pre)
{
    char SubType[10], Value[1024];
    size_t Bytes = 0;
    for (int i = 0; (Pre ? GetPrerequisites(Xml.c_str(), SubType, Value, i)
                         : GetPostrequisites(Xml.c_str(), SubType, Value, i)) == 0;
         i++)
        Bytes += REQUISITE_FIXED + StringBytes(Value);
    return Bytes;
}
} // namespace

int LintTopLine(void)
{
    SECTIONPTR Root = GetRootNode();
    return Root != nullptr && Root->Child != nullptr ? Root->Child->Line : 0;
}

// Where a reader's message belongs: "the 'x' attribute of the y section" at y; "the 'x'
// many lines there were.
int LintReportPrinted(LintReport *R, const std::string &Shown, const char *Tag,
                      const std::string &Prefix)
{
    std::string Printed = LintCaptureTake();
    int Count = 0;
    size_t Start = 0;
    while (Start < Printed.size()) {
        size_t End = Printed.find('\n', Start);
        if (End == std::string::npos)
            End = Printed.size();
        std::string Line = Printed.substr(Start, End - Start);
        Start = End + 1;
        if (Line.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        const char *LineTag = Tag;
        if (Line.find("'prerequisite' section") != std::string::npos ||
            Line.find("'supported_devices' section") != std::string::npos)
            LineTag = "no-device-list";
        AddFinding(R, Shown, LineOfMessage(Line), LineTag, Prefix + "\"" + Line + "\"");
        Count++;
    }
    return Count;
}

// The readers of one component for the installed distribution D, in the order of the record
// builder, with the size of the record they make. Returns true when the record would be built.
bool LintComponentReaders(const std::string &Package, const std::string &Xml,
                          const std::string &Shown, const LintDistro &D, LintReport *R)
{
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = DuplicateString(D.Key.c_str());
    ComponentInfo Info = {};
    int Result = GetComponentInformation(Xml.c_str(), &Info, "en");
    if (Result == 0)
        Result = GetRebootValue(Xml.c_str(), &Info);
    if (Result == 0)
        Result = GetInstallCommand(Xml.c_str(), &Info);
    size_t Size = RECORD_NUMBER_BYTES + RECORD_MAIN_FIXED + StringBytes(Package.c_str()) +
                  StringBytes(Info.Name) + StringBytes(Info.Description) +
                  StringBytes(Info.Version) + StringBytes(Info.InstallCommand) + RECORD_END_BYTES;
    free(Info.Version);
    free(Info.Name);
    free(Info.Description);
    free(Info.InstallCommand);
    free(Info.RebootRequired);
    if (LintReportPrinted(R, Shown, "component-unreadable", "the record is not built: ") > 0 ||
        Result != 0)
        return false;
    DeviceListMessages(Shown, R);
    std::vector<size_t> Devices = DeviceIdLengths();
    for (size_t Length : Devices)
        Size += REQUISITE_FIXED + Length + 1;
    signed char Pre = GetHasPrerequisitesValue(Xml.c_str()) || !Devices.empty();
    signed char PreConfig = GetRequiresPreConfigurationValue(Xml.c_str());
    GetRequiresPreCompilationValue(Xml.c_str());
    signed char PostConfig = GetRequiresPostConfigurationValue(Xml.c_str());
    GetRequiresPostCompilationValue(Xml.c_str());
    signed char Post = GetHasPostrequisitesValue(Xml.c_str());
    Size += Pre ? RequisiteBytes(Xml, true) : 0;
    Size += Post ? RequisiteBytes(Xml, false) : 0;
    Size += PreConfig ? ConfigurationBytes(Xml, true) : 0;
    Size += PostConfig ? ConfigurationBytes(Xml, false) : 0;
    LintReportPrinted(R, Shown, "reader-message", std::string("on ") + D.Id + ": ");
    if (Size > RZP_MAX_PAYLOAD) {
        AddFinding(R, Shown, LintTopLine(), "record-too-long",
                   "on " + std::string(D.Id) + " the install record would be " +
                       std::to_string(Size) + " bytes, more than " +
                       std::to_string(RZP_MAX_PAYLOAD) + ": the component is refused");
        return false;
    }
    return true;
}
