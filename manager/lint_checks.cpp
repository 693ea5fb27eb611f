// lint_checks.cpp - what lint finds beyond the differential reading: the messages that the
// sub-service's bundle and component readers print, run in this process for each
// distribution a bundle claims; the checks across files; the checks of values. Writes the
// sub-service's tree, ComponentList and CurrentlyInstalledOS while it runs (restoring the
// last two), and the working directory (restored).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "packages.h"
#include "records.h"
#include "support.h"
#include "xmltokenizer.h"
#include "zellint.h"

namespace {

// The distributions the reference manager can simulate: the name and version that the OS
// detection reads from their release files, and the key of their platform-specific element.
struct KnownDistro {
    const char *Id, *Name, *Version, *Key;
};
const KnownDistro Distros[] = {
    {"rh73", "Red Hat Linux", "7.3", "Red_Hat_Linux_7.3"},
    {"rhas21", "Red Hat Linux Advanced Server", "2.1", "Red_Hat_Linux_Advanced_Server_2.1"},
    {"rhel3", "Red Hat Enterprise Linux", "3", "Red_Hat_Enterprise_Linux_3"},
    {"sles8", "SuSE SLES-8", "8.1", "SuSE_SLES-8_8.1"},
    {"ul10", "UnitedLinux", "1.0", "UnitedLinux_1.0"},
};
const int DistroCount = static_cast<int>(sizeof(Distros) / sizeof(Distros[0]));

std::string Describe(const KnownDistro &D)
{
    return std::string(D.Name) + " " + D.Version + " (" + D.Id + ")";
}

std::string Quoted(const std::string &Text)
{
    return "'" + Text + "'";
}

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

int TopLine(void)
{
    SECTIONPTR Root = GetRootNode();
    return Root != nullptr && Root->Child != nullptr ? Root->Child->Line : 0;
}

// Where a reader's message belongs: "the 'x' attribute of the y section" at y; "the 'x'
// section" at the element that should have held x; else at the top element.
int LineOfMessage(const std::string &Text)
{
    static const std::map<std::string, std::string> Parents = {
        {"version", "zel_package"}, {"name", "zel_package"}, {"name_xlate", "name"},
        {"description", "zel_package"}, {"description_xlate", "description"},
        {"installation", "zel_package"}, {"install", "installation"},
        {"reboot_required", "install"}, {"command", "install"}, {"prerequisite", "zel_package"},
        {"supported_devices", "prerequisites"}, {"supported_device", "supported_devices_and"},
        {"requirements", "preconfiguration_data_and"}, {"prompt", "preconfiguration_data_and"},
        {"prompt_xlate", "prompt"}, {"operating_systems", "zel_bundle"},
        {"contents", "zel_bundle"}, {"package", "contents"}};
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
    return S != nullptr ? S->Line : TopLine();
}

// Each line a reader printed since the last take becomes a finding with Tag; returns how
// many lines there were.
int ReportPrinted(LintReport *R, const std::string &Shown, const char *Tag, const std::string &Prefix)
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

// ---- Values of a component file ----------------------------------------------------------------

std::set<std::string> LanguagesOf(SECTIONPTR Parent, const char *Child)
{
    std::set<std::string> Out;
    for (SECTIONPTR S = FindFirstChildOf(Parent, Child); S != nullptr; S = GetNextSibling(S)) {
        const char *Lang = GetAttribute(S, "lang");
        Out.insert(Lang != nullptr ? Lang : "");
    }
    return Out;
}

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
    std::set<std::string> Have = LanguagesOf(Parent, Child);
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
    SECTIONPTR Devices = FindFirstChildOf(FindFirstChildOf(Package, "prerequisites"), "supported_devices");
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
                           "supported_device_data name " + Quoted(Part) +
                               " is none of ven, dev, subven, subdev: this device and the ones after it are dropped");
            else if (Text != nullptr && !IsHex(Text))
                AddFinding(R, Shown, Data->Line, "pci-id",
                           "PCI " + Part + " id " + Quoted(Text) + " is not 1 to 4 hexadecimal digits");
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
                       std::string(Entry) + " SubType " + Quoted(SubType != nullptr ? SubType : "") +
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
                          std::string(List) + " variable " + std::to_string(Number + 1) + "'s prompt",
                          Languages, Shown, R, true);
    }
}

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
                          : FindFirstChildOf(Prerequisites, "supported_devices") == nullptr ? "supported_devices"
                                                                                         : nullptr;
    if (Missing != nullptr)
        AddFinding(R, Shown, Prerequisites != nullptr ? Prerequisites->Line : Package->Line, "no-device-list",
                   std::string("\"The XML file is corrupt.  The '") + Missing + "' section cannot be found.\"");
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
    SECTIONPTR Devices = FindFirstChildOf(FindFirstChildOf(Package, "prerequisites"), "supported_devices");
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
        PRECONFIGURATION *Config = static_cast<PRECONFIGURATION *>(calloc(1, sizeof(PRECONFIGURATION)));
        if (Config == nullptr)
            break;
        int Got = Pre ? GetPreConfigurationInfo(Xml.c_str(), i, Config, "en")
                      : GetPostConfigurationInfo(Xml.c_str(), i, Config, "en");
        if (Got == 0)
            Bytes += CONFIGURATION_FIXED + StringBytes(Config->Prompt) +
                     StringBytes(Config->AcceptableCharacters) + StringBytes(Config->RequiredFormat) +
                     StringBytes(Config->OutputName) + StringBytes(Config->DefaultValue) +
                     StringBytes(Config->ActualValue) + StringBytes(Config->OutputFileName);
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
                         : GetPostrequisites(Xml.c_str(), SubType, Value, i)) == 0; i++)
        Bytes += REQUISITE_FIXED + StringBytes(Value);
    return Bytes;
}

// The readers of one component for the installed distribution D, in the order of the record
// builder, with the size of the record they make. Returns true when the record would be built.
bool RunComponentReaders(const std::string &Package, const std::string &Xml, const std::string &Shown,
                         const KnownDistro &D, LintReport *R)
{
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = DuplicateString(D.Key);
    ComponentInfo Info = {};
    int Result = GetComponentInformation(Xml.c_str(), &Info, "en");
    if (Result == 0)
        Result = GetRebootValue(Xml.c_str(), &Info);
    if (Result == 0)
        Result = GetInstallCommand(Xml.c_str(), &Info);
    size_t Size = RECORD_NUMBER_BYTES + RECORD_MAIN_FIXED + StringBytes(Package.c_str()) +
                  StringBytes(Info.Name) + StringBytes(Info.Description) + StringBytes(Info.Version) +
                  StringBytes(Info.InstallCommand) + RECORD_END_BYTES;
    free(Info.Version);
    free(Info.Name);
    free(Info.Description);
    free(Info.InstallCommand);
    free(Info.RebootRequired);
    if (ReportPrinted(R, Shown, "component-unreadable", "the record is not built: ") > 0 || Result != 0)
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
    ReportPrinted(R, Shown, "reader-message", std::string("on ") + D.Id + ": ");
    if (Size > RZP_MAX_PAYLOAD) {
        AddFinding(R, Shown, TopLine(), "record-too-long",
                   "on " + std::string(D.Id) + " the install record would be " + std::to_string(Size) +
                       " bytes, more than " + std::to_string(RZP_MAX_PAYLOAD) + ": the component is refused");
        return false;
    }
    return true;
}

// ---- A bundle -----------------------------------------------------------------------------------

struct Package {
    std::string FileName;
    int Line = 0;
    bool Selected = false;
};

struct Bundle {
    std::string Path, Shown; // "./bp000101.xml" as the sub-service names it; shown name
    bool Readable = false;
    std::vector<Package> Packages;
    std::set<std::string> Languages;
    std::vector<int> Claims;        // indexes into Distros
    std::map<int, int> ClaimLines;  // distro -> line of the accepting entry
};

std::string ShownName(const std::string &Directory, const std::string &Name)
{
    return Directory == "." ? Name : Directory + (Directory.back() == '/' ? "" : "/") + Name;
}

// The operating_system entries, matched as IsOSSupportedByBundle matches them, for each
// known distribution in turn.
void ReadClaims(Bundle *B, LintReport *R)
{
    SECTIONPTR Systems = FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_bundle"), "operating_systems");
    std::vector<bool> EntryMatched;
    for (int d = 0; d < DistroCount; d++) {
        int Index = 0;
        for (SECTIONPTR S = FindFirstChildOf(Systems, "operating_system"); S != nullptr;
             S = GetNextSibling(S), Index++) {
            SECTIONPTR X = FindFirstChildOf(S, "operating_system_xlate");
            const char *F = X != nullptr ? GetFirstToken(X) : nullptr;
            if (F == nullptr) {
                AddFinding(R, B->Shown, S->Line, "os-entry-unreadable",
                           "operating_system entry without an operating_system_xlate text: the "
                           "sub-service stops here and takes the bundle as unsupported on every "
                           "distribution that no entry before it matches");
                break;
            }
            if (static_cast<int>(EntryMatched.size()) <= Index)
                EntryMatched.push_back(false);
            if (MatchOSEntry(Distros[d].Name, Distros[d].Version, F) > 0) {
                EntryMatched[Index] = true;
                if (B->ClaimLines.count(d) == 0) {
                    B->Claims.push_back(d);
                    B->ClaimLines[d] = S->Line;
                }
                break;
            }
        }
    }
    int Index = 0;
    for (SECTIONPTR S = FindFirstChildOf(Systems, "operating_system"); S != nullptr;
         S = GetNextSibling(S), Index++) {
        SECTIONPTR X = FindFirstChildOf(S, "operating_system_xlate");
        const char *F = X != nullptr ? GetFirstToken(X) : nullptr;
        if (F == nullptr || Index >= static_cast<int>(EntryMatched.size()) || EntryMatched[Index])
            continue;
        bool Any = false;
        for (int d = 0; d < DistroCount; d++)
            Any |= MatchOSEntry(Distros[d].Name, Distros[d].Version, F) > 0;
        if (!Any)
            AddFinding(R, B->Shown, X->Line, "unknown-os",
                       "operating_system " + Quoted(F) + " matches none of the known distributions "
                       "(rh73, rhas21, rhel3, sles8, ul10)");
    }
}

bool PathLeavesBundle(const std::string &Name)
{
    if (!Name.empty() && Name[0] == '/')
        return true;
    int Depth = 0;
    size_t Start = 0;
    while (Start <= Name.size()) {
        size_t End = Name.find('/', Start);
        if (End == std::string::npos)
            End = Name.size();
        std::string Part = Name.substr(Start, End - Start);
        Depth += Part == ".." ? -1 : (Part.empty() || Part == "." ? 0 : 1);
        if (Depth < 0)
            return true;
        Start = End + 1;
    }
    return false;
}

void ReadPackages(Bundle *B, LintReport *R)
{
    SECTIONPTR Contents = FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_bundle"), "contents");
    std::map<std::string, int> FirstLine;
    for (SECTIONPTR S = FindFirstChildOf(Contents, "package"); S != nullptr; S = GetNextSibling(S)) {
        const char *Text = GetFirstToken(S);
        const char *Install = GetAttribute(S, "install");
        if (Text == nullptr)
            continue;
        Package P;
        P.FileName = Text;
        P.Line = S->Line;
        std::string Upper = Install != nullptr ? Install : "";
        strupr(&Upper[0]);
        P.Selected = Upper == "YES";
        if (FirstLine.count(P.FileName) != 0)
            AddFinding(R, B->Shown, P.Line, "package-listed-twice",
                       "package " + Quoted(P.FileName) + " is listed again (first on line " +
                           std::to_string(FirstLine[P.FileName]) + ")");
        else
            FirstLine[P.FileName] = P.Line;
        if (PathLeavesBundle(P.FileName))
            AddFinding(R, B->Shown, P.Line, "package-path-escapes",
                       "package path " + Quoted(P.FileName) + " leaves the bundle directory");
        B->Packages.push_back(P);
    }
    B->Languages = LanguagesOf(FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_bundle"), "name"),
                               "name_xlate");
}

// The bundle readers of the open and parse operations, then what lint reads itself.
void ReadBundle(Bundle *B, LintReport *R)
{
    B->Readable = LintDifferential(B->Path, B->Shown, R) == 0;
    if (!B->Readable)
        return;
    char Text[1024] = {};
    GetBundleName(B->Path.c_str(), "en", Text, sizeof(Text));
    GetBundleVersion(B->Path.c_str(), Text, sizeof(Text));
    FreeComponentList();
    GetBundlePackages(B->Path.c_str());
    FreeComponentList();
    ReportPrinted(R, B->Shown, "bundle-unreadable", "");
    ReadClaims(B, R);
    ReadPackages(B, R);
}

// A component file listed by several bundles is read once, and by the readers once for each
// distribution that any of them claims.
struct ComponentState {
    bool Read = false, Readable = false;
    std::set<int> Distros;
};

void LintComponentFile(const std::string &Package, const std::string &Xml, const std::string &Shown,
                       const Bundle &B, ComponentState *State, LintReport *R)
{
    if (!State->Read) {
        State->Read = true;
        State->Readable = LintDifferential(Xml, Shown, R) == 0;
    } else if (State->Readable) {
        UseXMLFile(Xml.c_str());
        LintCaptureTake();
    }
    if (!State->Readable)
        return;
    LintComponentValues(Shown, B.Languages, R);
    SECTIONPTR Linux = FindFirstChildOf(
        FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_package"), "platform_specific"), "LINUX");
    for (int d : B.Claims) {
        if (!State->Distros.insert(d).second)
            continue;
        if (FindFirstChildOf(Linux, Distros[d].Key) == nullptr)
            AddFinding(R, Shown, Linux != nullptr ? Linux->Line : TopLine(), "no-platform-section",
                       std::string("no <") + Distros[d].Key + "> section for " + Describe(Distros[d]) +
                           ", which " + B.Shown + " supports: there every flag is off, and its "
                           "prerequisites and configuration are dropped");
        RunComponentReaders(Package, Xml, Shown, Distros[d], R);
    }
}

void LintPackage(const std::string &Directory, const Bundle &B, const Package &P,
                 std::map<std::string, ComponentState> *Components, LintReport *R)
{
    if (!P.Selected || PathLeavesBundle(P.FileName))
        return;
    int File = DoesComponentFileExist(P.FileName.c_str());
    if (File == -1)
        AddFinding(R, B.Shown, P.Line, "package-file-missing",
                   "the package file " + Quoted(P.FileName) + " is missing: \"The component file to install is missing.\"");
    else if (File != 0)
        AddFinding(R, B.Shown, P.Line, "package-file-empty", "the package file " + Quoted(P.FileName) + " is empty");
    if (File != 0)
        return; // the sub-service reports the component missing and never reads its XML file
    char Xml[COMPONENT_FIELD_SIZE] = {};
    int Found = FindComponentXmlFile(P.FileName.c_str(), Xml);
    std::string Printed = LintCaptureTake();
    if (Found != 0) {
        std::string Why = Found == -502 ? "empty" : "missing";
        AddFinding(R, B.Shown, P.Line, Found == -502 ? "package-xml-empty" : "package-xml-missing",
                   "the XML file of " + Quoted(P.FileName) + " is " + Why +
                       (Xml[0] != '\0' ? " (" + std::string(Xml) + ")" : ""));
        return;
    }
    ComponentState &State = (*Components)[Xml];
    LintComponentFile(P.FileName, Xml, ShownName(Directory, Xml), B, &State, R);
}

std::vector<std::string> DirectoryEntries(void)
{
    std::vector<std::string> Names;
    DIR *Dir = opendir(".");
    if (Dir == nullptr)
        return Names;
    for (struct dirent *E = readdir(Dir); E != nullptr; E = readdir(Dir)) {
        struct stat St;
        if (E->d_name[0] != '.' && stat(E->d_name, &St) == 0 && S_ISREG(St.st_mode))
            Names.push_back(E->d_name);
    }
    closedir(Dir);
    std::sort(Names.begin(), Names.end());
    return Names;
}

bool IsBundleName(const std::string &Name)
{
    std::string Upper = Name;
    strupr(&Upper[0]);
    return Upper.find(".XML") != std::string::npos && Upper.find("BP0") != std::string::npos;
}

void CheckAcrossBundles(const std::vector<Bundle> &Bundles, LintReport *R)
{
    for (int d = 0; d < DistroCount; d++) {
        const Bundle *First = nullptr;
        for (const Bundle &B : Bundles) {
            if (B.ClaimLines.count(d) == 0)
                continue;
            if (First == nullptr) {
                First = &B;
                continue;
            }
            AddFinding(R, B.Shown, B.ClaimLines.at(d), "distribution-claimed-twice",
                       Describe(Distros[d]) + " is supported by " + First->Shown + " too: opening "
                       "the bundle there fails (-505)");
        }
    }
}

void CheckUnlisted(const std::string &Directory, const std::vector<std::string> &Names,
                   const std::vector<Bundle> &Bundles, LintReport *R)
{
    std::set<std::string> Listed;
    for (const Bundle &B : Bundles)
        for (const Package &P : B.Packages) {
            Listed.insert(P.FileName);
            char Xml[COMPONENT_FIELD_SIZE] = {};
            if (FindCorrespondingXMLFileName(P.FileName.c_str(), Xml) == 0)
                Listed.insert(Xml);
        }
    LintCaptureTake();
    for (const std::string &Name : Names)
        if (!IsBundleName(Name) && Listed.count(Name) == 0)
            AddFinding(R, ShownName(Directory, Name), 0, "unlisted-file",
                       "no bundle file lists this file");
}

} // namespace

void LintComponentValues(const std::string &Shown, const std::set<std::string> &Languages, LintReport *R)
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
        CheckVariables(Platform, "preconfiguration", "preconfiguration_data_and", Languages, Shown, R);
        CheckVariables(Platform, "postconfiguration", "postconfiguration_data_and", Languages, Shown, R);
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

int LintBundleDirectory(const std::string &Directory, LintReport *R)
{
    int Home = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (Home < 0 || chdir(Directory.c_str()) != 0) {
        AddFinding(R, Directory, 0, "no-bundle-file", "the directory cannot be read: " + std::string(strerror(errno)));
        if (Home >= 0)
            close(Home);
        return -1;
    }
    if (LintCaptureBegin() != 0) {
        (void)!fchdir(Home);
        close(Home);
        return -1;
    }
    char *SavedOS = CurrentlyInstalledOS;
    CurrentlyInstalledOS = nullptr;
    std::vector<std::string> Names = DirectoryEntries();
    std::vector<Bundle> Bundles;
    for (const std::string &Name : Names)
        if (IsBundleName(Name)) {
            Bundle B;
            B.Path = "./" + Name;
            B.Shown = ShownName(Directory, Name);
            ReadBundle(&B, R);
            Bundles.push_back(B);
        }
    if (Bundles.empty())
        AddFinding(R, Directory, 0, "no-bundle-file",
                   "no bundle file (a name with .XML and BP0 in any case) in the directory");
    std::map<std::string, ComponentState> Components;
    for (const Bundle &B : Bundles)
        for (const Package &P : B.Packages)
            LintPackage(Directory, B, P, &Components, R);
    CheckAcrossBundles(Bundles, R);
    CheckUnlisted(Directory, Names, Bundles, R);
    DeleteTree();
    FreeComponentList();
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = SavedOS;
    LintCaptureEnd();
    (void)!fchdir(Home);
    close(Home);
    return 0;
}
