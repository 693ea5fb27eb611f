// evaluate.cpp - one verdict per requisite of a component against a machine's facts, one rule
// per subtype (docs/check.md gives each rule its reason), and the component's verdict: installs,
// refused (a prerequisite not satisfied, none of its devices present, or with --strict an
// unknown), with its failing requisites first. Nothing a requisite names is ever run.
// Writes no globals.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "check.h"
#include "packages.h"

namespace {

struct Verdict {
    const char *State; // satisfied, not-satisfied, unknown
    std::string Code, Expected, Actual, Reason;
};

Verdict Satisfied(const std::string &Code, const std::string &Expected, const std::string &Actual,
                  const std::string &Reason)
{
    return {"satisfied", Code, Expected, Actual, Reason};
}

Verdict NotSatisfied(const std::string &Code, const std::string &Expected,
                     const std::string &Actual, const std::string &Reason)
{
    return {"not-satisfied", Code, Expected, Actual, Reason};
}

Verdict Unknown(const std::string &Code, const std::string &Expected, const std::string &Actual,
                const std::string &Reason)
{
    return {"unknown", Code, Expected, Actual, Reason};
}

// The kind of a path: 'f' regular file, 'd' directory, 'o' other, 0 absent, -1 unreadable.
int KindOf(const CkFacts &F, const std::string &Path, mode_t *Mode, std::string *Why)
{
    struct stat St;
    int Found = CkStat(F, Path, &St, Why);
    if (Found != 0)
        return Found == -1 ? 0 : -1;
    *Mode = St.st_mode;
    return S_ISREG(St.st_mode) ? 'f' : S_ISDIR(St.st_mode) ? 'd' : 'o';
}

Verdict PathOfKind(const CkFacts &F, const std::string &Path, int Wanted)
{
    const char *Noun = Wanted == 'f' ? "a file" : "a directory";
    mode_t Mode = 0;
    std::string Why;
    int Kind = KindOf(F, Path, &Mode, &Why);
    if (Kind == -1)
        return Unknown("unreadable", Noun, "", "cannot tell: " + Why);
    if (Kind == 0)
        return NotSatisfied("absent", Noun, "absent", Path + " does not exist");
    if (Kind != Wanted)
        return NotSatisfied("wrong-kind", Noun,
                            Kind == 'd' ? "a directory" : "not " + std::string(Noun),
                            Path + " exists but is not " + Noun);
    return Satisfied("present", Noun, "present", Path + " exists");
}

Verdict Library(const CkFacts &F, const std::string &Name)
{
    std::string Dirs;
    for (const std::string &Dir : F.LibraryDirs) {
        mode_t Mode = 0;
        std::string Why, Path = Dir + "/" + Name;
        if (KindOf(F, Path, &Mode, &Why) == 'f')
            return Satisfied("library-found", Name, Path, Name + " found: " + Path);
        Dirs += (Dirs.empty() ? "" : ", ") + Dir;
    }
    return NotSatisfied("library-missing", Name, "absent",
                        Name + " is in none of the library directories (" + Dirs + ")");
}

// A program as the shell would find it: a path, or a name on the machine's PATH.
std::string FindProgram(const CkFacts &F, const std::string &Program)
{
    if (Program.find('/') != std::string::npos)
        return Program;
    auto Path = F.Environ.find("PATH");
    std::string Dirs = Path != F.Environ.end()
                           ? Path->second
                           : "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    for (size_t Start = 0; Start <= Dirs.size();) {
        size_t End = Dirs.find(':', Start);
        std::string Dir = Dirs.substr(Start, End == std::string::npos ? End : End - Start);
        mode_t Mode = 0;
        std::string Why;
        if (!Dir.empty() && KindOf(F, Dir + "/" + Program, &Mode, &Why) == 'f' && (Mode & 0111))
            return Dir + "/" + Program;
        Start = End == std::string::npos ? Dirs.size() + 1 : End + 1;
    }
    return "";
}

Verdict Command(const CkFacts &F, const std::string &Value)
{
    std::string Program = FindProgram(F, CkFirstWord(Value));
    mode_t Mode = 0;
    std::string Why;
    if (!Program.empty() && KindOf(F, Program, &Mode, &Why) == 'f' && (Mode & 0111))
        return Unknown("not-run-program-found", "the command succeeds", Program,
                       "not run by the check; its program is " + Program);
    return Unknown("not-run-program-missing", "the command succeeds", "program not found",
                   "not run by the check; its program " + CkFirstWord(Value) + " is not found");
}

Verdict Script(const CkFacts &F, const std::string &Value)
{
    std::string Path = CkFirstWord(Value), Why;
    mode_t Mode = 0;
    int Kind = KindOf(F, Path, &Mode, &Why);
    if (Kind == 'f' && (Mode & 0111))
        return Unknown("not-run-script-present", "the script succeeds", "present, executable",
                       "not run by the check; " + Path + " is present and executable");
    if (Kind == 'f')
        return Unknown("not-run-script-not-executable", "the script succeeds", "not executable",
                       "not run by the check; " + Path + " is present but not executable");
    return Unknown("not-run-script-missing", "the script succeeds", "absent",
                   "not run by the check; " + Path + " does not exist");
}

Verdict Kernel(const CkFacts &F, const std::string &Value, bool Minimum)
{
    std::string Expected = (Minimum ? ">= " : "<= ") + Value;
    if (!F.KernelFact.Known)
        return Unknown("kernel-unknown", Expected, "",
                       "the running kernel is not known: " + F.KernelFact.Why);
    int Order = CkCompareVersions(F.Kernel, Value);
    if (Minimum && Order < 0)
        return NotSatisfied("kernel-too-old", Expected, F.Kernel,
                            "kernel " + F.Kernel + " is older than the minimum " + Value);
    if (!Minimum && Order > 0)
        return NotSatisfied("kernel-too-new", Expected, F.Kernel,
                            "kernel " + F.Kernel + " is newer than the maximum " + Value);
    return Satisfied("kernel-in-range", Expected, F.Kernel,
                     "kernel " + F.Kernel +
                         (Minimum ? " is not older than " : " is not newer than ") + Value);
}

Verdict Environment(const CkFacts &F, const std::string &Name)
{
    if (!F.EnvironFact.Known)
        return Unknown("environment-unknown", "set", "",
                       "the environment is not known: " + F.EnvironFact.Why);
    if (F.Environ.count(Name))
        return Satisfied("variable-set", "set", "set", Name + " is set");
    return NotSatisfied("variable-unset", "set", "unset", Name + " is not set");
}

Verdict OSVersion(const CkPlan &P, const std::string &Value)
{
    std::string Installed = P.OSName + " " + P.OSVersion;
    if (P.OSName.empty())
        return Unknown("os-unknown", Value, "", "the distribution was not detected");
    if (MatchOSEntry(P.OSName.c_str(), P.OSVersion.c_str(), Value.c_str()) > 0)
        return Satisfied("os-matches", Value, Installed, Installed + " matches \"" + Value + "\"");
    return NotSatisfied("os-differs", Value, Installed,
                        Installed + " does not match \"" + Value + "\"");
}

Verdict Running(const CkFacts &F, const std::string &Name)
{
    if (!F.ProcessFact.Known)
        return Unknown("processes-unknown", "running", "",
                       "the running programs are not known: " + F.ProcessFact.Why);
    // The kernel keeps 15 characters of a program's name.
    if (F.Programs.count(Name.substr(0, 15)))
        return Satisfied("running", "running", "running", Name + " is running");
    return NotSatisfied("not-running", "running", "not running", "no process named " + Name);
}

Verdict Judge(const CkFacts &F, const CkPlan &P, uint32_t SubType, const std::string &Value)
{
    switch (SubType) {
    case SUBTYPE_LIBRARY_FILE_PRESENCE: return Library(F, Value);
    case SUBTYPE_EXECUTE_COMMAND: return Command(F, Value);
    case SUBTYPE_FILE_PRESENCE: return PathOfKind(F, Value, 'f');
    case SUBTYPE_RUN_SCRIPT_FILE: return Script(F, Value);
    case SUBTYPE_DIRECTORY_PRESENCE: return PathOfKind(F, Value, 'd');
    case SUBTYPE_MINIMUM_KERNEL_VERSION: return Kernel(F, Value, true);
    case SUBTYPE_MAXIMUM_KERNEL_VERSION: return Kernel(F, Value, false);
    case SUBTYPE_ENVIRONMENT_VARIABLE: return Environment(F, Value);
    case SUBTYPE_OS_VERSION_SUPPORTED: return OSVersion(P, Value);
    case SUBTYPE_PROGRAM_RUNNING: return Running(F, Value);
    default:
        return Unknown("unknown-subtype", "", "",
                       "subtype " + std::to_string(SubType) + " has no rule");
    }
}

// ---- Devices
// -------------------------------------------------------------------------------------

struct DeviceId {
    unsigned Part[4] = {0, 0, 0, 0};
};

bool ParseDeviceValue(const std::string &Value, DeviceId *Id)
{
    char Tail = 0;
    return sscanf(Value.c_str(), "%x.%x.%x.%x%c", &Id->Part[0], &Id->Part[1], &Id->Part[2],
                  &Id->Part[3], &Tail) == 4;
}

// A subvendor or subdevice part of 0000 matches any.
bool Matches(const DeviceId &Id, const CkDevice &D)
{
    return Id.Part[0] == D.Vendor && Id.Part[1] == D.Device &&
           (Id.Part[2] == 0 || Id.Part[2] == D.SubVendor) &&
           (Id.Part[3] == 0 || Id.Part[3] == D.SubDevice);
}

Verdict Device(const CkFacts &F, const std::string &Value, std::string *Name)
{
    DeviceId Id;
    if (!ParseDeviceValue(Value, &Id))
        return Unknown("device-unreadable", Value, "",
                       "\"" + Value + "\" is not VENDOR.DEVICE.SUBVENDOR.SUBDEVICE");
    *Name = CkDeviceName(Id.Part[0], Id.Part[1]);
    if (!F.DeviceFact.Known)
        return Unknown("devices-unknown", Value, "",
                       "the PCI devices are not known: " + F.DeviceFact.Why);
    for (const CkDevice &D : F.Devices)
        if (Matches(Id, D))
            return Satisfied("device-present", Value, D.Address,
                             *Name + " present at " + D.Address);
    return NotSatisfied("device-absent", Value, "absent",
                        *Name + " (" + Value + ") is not in the machine");
}

// ---- The component
// -------------------------------------------------------------------------------

// Built field by field into a reserved object: a fleet builds a million of these, and an
// initializer list would build each pair as a temporary array first.
Json RequisiteJson(const char *Kind, uint32_t SubType, const std::string &Value, Verdict &&V,
                   const CkPlace &Where)
{
    Json R = Json::object();
    Json::object_t &Fields = R.get_ref<Json::object_t &>();
    Fields.reserve(14);
    Fields.emplace_back("kind", Kind);
    Fields.emplace_back("subtype", SubType);
    Fields.emplace_back("value", Value);
    Fields.emplace_back("state", V.State);
    Fields.emplace_back("code", std::move(V.Code));
    Fields.emplace_back("expected", std::move(V.Expected));
    Fields.emplace_back("actual", std::move(V.Actual));
    Fields.emplace_back("reason", std::move(V.Reason));
    Fields.emplace_back("file", Where.File);
    Fields.emplace_back("line", Where.Line == 0 ? Json(nullptr) : Json(Where.Line));
    return R;
}

struct Judged {
    Json Failing = Json::array(), Others = Json::array();
};

void Add(Judged *J, Json Requisite, bool Fails)
{
    Requisite["fails"] = Fails;
    (Fails ? J->Failing : J->Others).push_back(std::move(Requisite));
}

bool FailsFor(const Json &Requisite, bool Strict)
{
    return Requisite["state"] == "not-satisfied" || (Strict && Requisite["state"] == "unknown");
}

void JudgeList(const CkFacts &F, const CkPlan &P, const Json &C, const char *List, bool Strict,
               Judged *J)
{
    uint32_t Structure = std::string(List) == "prerequisites" ? RZP_STRUCT_PREREQ
                                                              : RZP_STRUCT_POSTREQ;
    const char *Kind = Structure == RZP_STRUCT_PREREQ ? "prerequisite" : "postrequisite";
    std::string Key = CliStr(P.Result["distribution"]["key"]);
    for (const Json &Q : C[List]) {
        uint32_t SubType = Q["subType"].get<uint32_t>();
        std::string Value = CliStr(Q["value"]);
        Json R = RequisiteJson(Kind, SubType, Value, Judge(F, P, SubType, Value),
                               CkLocate(CliStr(C["file"]), Key, Structure, SubType, Value, 0));
        bool Fails = Structure == RZP_STRUCT_PREREQ && FailsFor(R, Strict);
        Add(J, std::move(R), Fails);
    }
}

// The supported devices: every one shown present or absent; they fail together, when none is
// present (or, with --strict, when none is present and some are unknown).
void JudgeDevices(const CkFacts &F, const Json &C, bool Strict, Judged *J)
{
    std::vector<Json> Devices;
    bool AnyPresent = false, AnyUnknown = false;
    int Index = 0;
    for (const Json &D : C["pciDevices"]) {
        std::string Value = CliStr(D), Name;
        Verdict V = Device(F, Value, &Name);
        Json R = RequisiteJson("device", SUBTYPE_PCI_DEVICE_PRESENT, Value, std::move(V),
                               CkLocate(CliStr(C["file"]), "", RZP_STRUCT_PREREQ,
                                        SUBTYPE_PCI_DEVICE_PRESENT, Value, Index++));
        R["name"] = Name;
        AnyPresent = AnyPresent || R["state"] == "satisfied";
        AnyUnknown = AnyUnknown || R["state"] == "unknown";
        Devices.push_back(std::move(R));
    }
    bool Fail = !AnyPresent && (!AnyUnknown || Strict);
    for (Json &R : Devices) {
        bool Fails = Fail && R["state"] != "satisfied";
        Add(J, std::move(R), Fails);
    }
}

// The reasons a component is refused: its failing devices count as one (none present).
std::vector<std::string> Reasons(const Json &Failing, size_t DeviceCount)
{
    std::vector<std::string> Out;
    bool DevicesSaid = false;
    for (const Json &R : Failing) {
        if (R["kind"] != "device")
            Out.push_back(CliStr(R["reason"]));
        else if (!DevicesSaid)
            Out.push_back("none of its " + std::to_string(DeviceCount) +
                          " supported devices is present");
        DevicesSaid = DevicesSaid || R["kind"] == "device";
    }
    return Out;
}

} // namespace

std::string CkFirstWord(const std::string &Text)
{
    size_t Start = Text.find_first_not_of(" \t");
    if (Start == std::string::npos)
        return "";
    return Text.substr(Start, Text.find_first_of(" \t", Start) - Start);
}

Json CkEvaluateComponent(const CkFacts &F, const CkPlan &P, const Json &C, bool Strict)
{
    Judged J;
    JudgeDevices(F, C, Strict, &J);
    JudgeList(F, P, C, "prerequisites", Strict, &J);
    JudgeList(F, P, C, "postrequisites", Strict, &J);
    std::vector<std::string> Why = Reasons(J.Failing, C["pciDevices"].size());
    Json Requisites = std::move(J.Failing);
    for (Json &R : J.Others)
        Requisites.push_back(std::move(R));
    return {{"file", C["file"]},
            {"name", C["name"]},
            {"version", C["version"]},
            {"verdict", Why.empty() ? "installs" : "refused"},
            {"reason", Why.empty() ? Json(nullptr) : Json(Why[0])},
            {"otherReasons", Why.empty() ? 0 : (int)Why.size() - 1},
            {"requisites", std::move(Requisites)}};
}
