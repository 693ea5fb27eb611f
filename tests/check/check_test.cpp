// check_test.cpp - zelrzp-manager check, snapshot and answers run as a user runs them, on
// hand-written snapshots and bundles: the state of every requisite subtype both ways, the
// supported devices, links that point out of a snapshot, missing facts, every answers case,
// a fleet of two distributions, the exit statuses, and an unprivileged snapshot and check.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/utsname.h>

#include <algorithm>
#include <map>

#include <nlohmann/json.hpp>

#include "../common/helpers.h"

using Json = nlohmann::json;

// Under ThreadSanitizer a forked child keeps the runtime's thread, and a threaded process cannot
// enter a user namespace as an ordinary user: the plans of a check (made by forked children)
// then need root.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEL_FORKS_THREADED 1
#endif
#endif
#ifndef ZEL_FORKS_THREADED
#define ZEL_FORKS_THREADED 0
#endif

namespace {

struct CheckResult : RunResult {
    Json Parsed;
};

CheckResult RunManager(const std::vector<std::string> &Args, int Uid = -1)
{
    CheckResult R;
    static_cast<RunResult &>(R) = RunProgram(ZEL_MANAGER_PATH, Args, Uid);
    R.Parsed = Json::parse(R.Out, nullptr, false);
    for (const char *Marker : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                               "WARNING: ThreadSanitizer", "runtime error:"})
        EXPECT_EQ(std::string::npos, R.Err.find(Marker)) << R.Err;
    return R;
}

// A scratch directory tree: files, directories, links, PCI devices written by path.
struct Tree : BundleDir {
    void Put(const std::string &Rel, const std::string &Text, mode_t Mode = 0644) const
    {
        if (Rel.find('/') != std::string::npos)
            Mkdirs(Rel.substr(0, Rel.rfind('/')));
        Write(Rel, Text);
        chmod((Path + "/" + Rel).c_str(), Mode);
    }
    void Mkdirs(const std::string &Rel) const
    {
        EXPECT_EQ(0, system(("mkdir -p '" + Path + "/" + Rel + "'").c_str()));
    }
    void Link(const std::string &Rel, const std::string &Target) const
    {
        Mkdirs(Rel.substr(0, Rel.rfind('/')));
        EXPECT_EQ(0, symlink(Target.c_str(), (Path + "/" + Rel).c_str()));
    }
    void Device(const std::string &Address, const char *Ids) const // "8086 1229 0e11 b0dd"
    {
        const char *Names[] = {"vendor", "device", "subsystem_vendor", "subsystem_device"};
        std::istringstream In(Ids);
        std::string Id;
        for (const char *Name : Names)
            if (In >> Id)
                Put("sys/bus/pci/devices/" + Address + "/" + Name, "0x" + Id + "\n");
    }
};

const char RedHat73[] = "Red Hat Linux release 7.3 (Valhalla)\n";

// A machine with its release file and, unless empty, its running kernel.
void Machine(const Tree &T, const std::string &Kernel, const char *Release = RedHat73)
{
    T.Put("etc/redhat-release", Release);
    if (!Kernel.empty())
        T.Put("proc/sys/kernel/osrelease", Kernel + "\n");
}

// A bundle for one distribution (Red Hat Linux 7.3 unless said) of the given components: the
// inside of its section for that distribution, its supported devices, and further sections.
struct Component {
    std::string Name, Section, Devices;
    std::string OtherSections = "";
};

std::string SectionOf(const std::string &Key, const std::string &Inside)
{
    return "      <" + Key + ">\n" + Inside + "      </" + Key + ">\n";
}

void WriteBundle(const Tree &B, const std::vector<Component> &Components,
                 const std::string &Os = "Red Hat Linux 7.3")
{
    std::string Key = Os;
    std::replace(Key.begin(), Key.end(), ' ', '_');
    std::string Packages;
    for (const Component &C : Components) {
        Packages += "    <package install=\"yes\">" + C.Name + "-1.0-1.i386.rpm</package>\n";
        B.Write(C.Name + "-1.0-1.i386.rpm", "placeholder\n");
        B.Write(C.Name + "-1.0-1.i386.xml",
                "<?xml version=\"1.0\"?>\n<zel_package>\n  <version value=\"1.0\"/>\n  <name>\n"
                "    <name_xlate lang=\"en\">" +
                    C.Name +
                    "</name_xlate>\n  </name>\n"
                    "  <description>\n    <description_xlate lang=\"en\">\n"
                    "      <![CDATA[A test component.]]>\n    </description_xlate>\n"
                    "  </description>\n  <installation>\n    <install>\n      <reboot_required "
                    "value=\"no\"/>\n"
                    "      <command>rpm -Uvh " +
                    C.Name +
                    "-1.0-1.i386.rpm</command>\n"
                    "    </install>\n  </installation>\n  <prerequisites>\n"
                    "    <supported_devices>\n" +
                    C.Devices +
                    "    </supported_devices>\n"
                    "  </prerequisites>\n  <platform_specific>\n    <LINUX>\n" +
                    SectionOf(Key, C.Section) + C.OtherSections +
                    "    </LINUX>\n  </platform_specific>\n</zel_package>\n");
    }
    B.Write("bp000101.xml",
            "<?xml version=\"1.0\"?>\n<zel_bundle>\n  <version value=\"1.0\"/>\n  <name>\n"
            "    <name_xlate lang=\"en\">Test bundle</name_xlate>\n  </name>\n"
            "  <operating_systems>\n    <operating_system>\n"
            "      <operating_system_xlate lang=\"en\">" +
                Os +
                "</operating_system_xlate>\n"
                "    </operating_system>\n  </operating_systems>\n  <contents>\n" +
                Packages + "  </contents>\n</zel_bundle>\n");
}

std::string Flags(bool Pre, bool Post, bool PreConfig, bool PostConfig)
{
    auto Flag = [](const char *Name, bool On) {
        return std::string("        <") + Name + " value=\"" + (On ? "yes" : "no") + "\"/>\n";
    };
    return Flag("has_prerequisites", Pre) + Flag("has_postrequisites", Post) +
           Flag("requires_preconfiguration", PreConfig) +
           Flag("requires_postconfiguration", PostConfig) + Flag("requires_precompilation", false) +
           Flag("requires_postcompilation", false);
}

std::string Requisite(const char *Tag, int SubType, const std::string &Value)
{
    return std::string("          <") + Tag + " SubType=\"" + std::to_string(SubType) +
           "\" value=\"" + Value + "\"/>\n";
}

std::string SupportedDevice(const std::vector<std::pair<const char *, const char *>> &Parts)
{
    std::string Text = "      <supported_devices_and>\n        <supported_device>\n";
    for (const auto &P : Parts)
        Text += std::string("          <supported_device_data name=\"") + P.first + "\">" +
                P.second + "</supported_device_data>\n";
    return Text + "        </supported_device>\n      </supported_devices_and>\n";
}

const Json *FindComponent(const Json &Machine, const std::string &Prefix)
{
    for (const Json &C : Machine["components"])
        if (C["file"].get<std::string>().rfind(Prefix, 0) == 0)
            return &C;
    return nullptr;
}

const Json *FindMachine(const Json &R, const std::string &Path)
{
    for (const Json &M : R["machines"])
        if (M["name"] == Path)
            return &M;
    return nullptr;
}

} // namespace

// One bundle, six hand-written machines, one plan: each subtype's state both ways, the kernel
// comparisons (2.4.9 < 2.4.10, 2.4.18-3 < 2.4.18-10, an epoch, a tilde), the supported devices
// (none, one through a 0000 part, all), links resolved inside the snapshot, missing facts.
// The command the requisite names would leave a file behind; it never does.
TEST(Check, EverySubtypeOnHandWrittenSnapshots)
{
    Tree B, Present, Absent, Links, Bare, Tilde;
    const std::string Marker = B.Path + "/the-command-ran";
    const char *Pre = "prerequisite_data";
    std::string Probe = Flags(true, true, false, false) + "        <prerequisites>\n" +
                        Requisite(Pre, 1, "libssl.so.2") + Requisite(Pre, 1, "libextra.so.1") +
                        Requisite(Pre, 2, "touch " + Marker) + Requisite(Pre, 3, "/etc/app.conf") +
                        Requisite(Pre, 4, "/opt/app/setup.sh --now") +
                        Requisite(Pre, 5, "/var/app") + Requisite(Pre, 6, "2.4.10") +
                        Requisite(Pre, 6, "2.4.18-10") + Requisite(Pre, 6, "1:2.4.1") +
                        Requisite(Pre, 7, "2.4.10") + Requisite(Pre, 9, "APPHOME") +
                        Requisite(Pre, 10, "Red Hat Linux 7.3") +
                        Requisite(Pre, 10, "Red Hat Enterprise Linux AS 3") +
                        Requisite(Pre, 11, "snmpd") + "        </prerequisites>\n" +
                        "        <postrequisites>\n" +
                        Requisite("postrequisite_data", 11, "postd") +
                        "        </postrequisites>\n";
    std::string Devices = SupportedDevice({{"ven", "8086"},
                                           {"dev", "1229"},
                                           {"subven", "0E11"},
                                           {"subdev", "B0DD"}}) +
                          SupportedDevice({{"ven", "8086"}, {"dev", "2449"}});
    // A device that the PCI ID database does not know once crashed the name lookup; the machine
    // that has one is kept in tests/data/check/unknown-device.
    const std::string UnknownDevice = std::string(ZEL_CHECK_DATA) + "/unknown-device";
    std::string Unnamed = SupportedDevice({{"ven", "FFF0"}, {"dev", "0001"}});
    WriteBundle(B, {{"probe", Probe, ""},
                    {"nic", Flags(true, false, false, false), Devices},
                    {"unnamed", Flags(true, false, false, false), Unnamed}});

    Machine(Present, "2.4.18-10");
    Present.Put("lib/libssl.so.2", "");
    Present.Put("etc/ld.so.conf", "include ld.so.conf.d/*.conf\n");
    Present.Put("etc/ld.so.conf.d/extra.conf", "# extra\n/opt/extra/lib\n");
    Present.Put("opt/extra/lib/libextra.so.1", "");
    Present.Put("bin/touch", "", 0755);
    Present.Put("etc/app.conf", "");
    Present.Put("opt/app/setup.sh", "", 0755);
    Present.Mkdirs("var/app");
    Present.Put("environ", "PATH=/bin\nAPPHOME=/opt/app\n");
    Present.Put("proc/7/comm", "snmpd\n");
    Present.Device("0000:00:03.0", "8086 1229 0e11 b0dd");
    Present.Device("0000:00:04.0", "8086 2449 8086 3013");

    Machine(Absent, "2.4.9");
    Absent.Mkdirs("etc/app.conf");
    Absent.Put("var/app", "");
    Absent.Put("opt/app/setup.sh", "", 0644);
    Absent.Put("environ", "PATH=/bin\n");
    Absent.Put("proc/1/comm", "init\n");
    Absent.Device("0000:00:03.0", "8086 1229 0e11 0001"); // another subdevice: not the one

    Machine(Links, "2.4.18-3");
    Links.Link("etc/app.conf", "/etc/real.conf"); // absolute: the snapshot's own /etc
    Links.Put("etc/real.conf", "");
    Links.Link("var/app", "../../../../../../../../tmp"); // host's /tmp exists, the snapshot's not
    Links.Link("lib/libssl.so.2", "/etc/passwd");         // the host's, not the snapshot's
    Links.Device("0000:00:04.0", "8086 2449 1234 5678");  // 0000 parts match any

    Machine(Bare, ""); // no kernel, environment, processes or devices

    Machine(Tilde, "2.4.10~rc1");
    Tilde.Put("sys/bus/pci/devices/0000:00:01.0/vendor", "garbage\n");

    CheckResult R = RunManager({"check", "--json", "--snapshot=" + Present.Path,
                                "--snapshot=" + Absent.Path, "--snapshot=" + Links.Path,
                                "--snapshot=" + Bare.Path, "--snapshot=" + Tilde.Path,
                                "--snapshot=" + UnknownDevice, B.Path});
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(1, R.Status) << R.Err;
    EXPECT_EQ(1, R.Parsed["plans"]);
    EXPECT_FALSE(Exists(Marker.c_str())) << "the check ran a requisite's command";

    struct Row {
        const Tree *M;
        int SubType;
        std::string Value, State, Code;
    } Rows[] = {
        {&Present, 1, "libssl.so.2", "satisfied", "library-found"},
        {&Present, 1, "libextra.so.1", "satisfied", "library-found"}, // through ld.so.conf.d
        {&Absent, 1, "libssl.so.2", "not-satisfied", "library-missing"},
        {&Links, 1, "libssl.so.2", "not-satisfied", "library-missing"},
        {&Present, 2, "touch " + Marker, "unknown", "not-run-program-found"},
        {&Absent, 2, "touch " + Marker, "unknown", "not-run-program-missing"},
        {&Present, 3, "/etc/app.conf", "satisfied", "present"},
        {&Absent, 3, "/etc/app.conf", "not-satisfied", "wrong-kind"},
        {&Links, 3, "/etc/app.conf", "satisfied", "present"},
        {&Bare, 3, "/etc/app.conf", "not-satisfied", "absent"},
        {&Present, 4, "/opt/app/setup.sh --now", "unknown", "not-run-script-present"},
        {&Absent, 4, "/opt/app/setup.sh --now", "unknown", "not-run-script-not-executable"},
        {&Bare, 4, "/opt/app/setup.sh --now", "unknown", "not-run-script-missing"},
        {&Present, 5, "/var/app", "satisfied", "present"},
        {&Absent, 5, "/var/app", "not-satisfied", "wrong-kind"},
        {&Links, 5, "/var/app", "not-satisfied", "absent"},
        {&Present, 6, "2.4.10", "satisfied", "kernel-in-range"},
        {&Absent, 6, "2.4.10", "not-satisfied", "kernel-too-old"},   // 2.4.9
        {&Present, 6, "2.4.18-10", "satisfied", "kernel-in-range"},  // equal
        {&Links, 6, "2.4.18-10", "not-satisfied", "kernel-too-old"}, // 2.4.18-3
        {&Present, 6, "1:2.4.1", "not-satisfied", "kernel-too-old"}, // an epoch wins
        {&Tilde, 6, "2.4.10", "not-satisfied", "kernel-too-old"},    // ~rc1 before the release
        {&Bare, 6, "2.4.10", "unknown", "kernel-unknown"},
        {&Present, 7, "2.4.10", "not-satisfied", "kernel-too-new"},
        {&Absent, 7, "2.4.10", "satisfied", "kernel-in-range"},
        {&Tilde, 7, "2.4.10", "satisfied", "kernel-in-range"},
        {&Present, 8, "8086.1229.0E11.B0DD", "satisfied", "device-present"},
        {&Absent, 8, "8086.1229.0E11.B0DD", "not-satisfied", "device-absent"},
        {&Links, 8, "8086.2449.0000.0000", "satisfied", "device-present"},
        {&Bare, 8, "8086.2449.0000.0000", "unknown", "devices-unknown"},
        {&Tilde, 8, "8086.2449.0000.0000", "unknown", "devices-unknown"}, // a garbage vendor file
        {&Present, 9, "APPHOME", "satisfied", "variable-set"},
        {&Absent, 9, "APPHOME", "not-satisfied", "variable-unset"},
        {&Bare, 9, "APPHOME", "unknown", "environment-unknown"},
        {&Present, 10, "Red Hat Linux 7.3", "satisfied", "os-matches"},
        {&Present, 10, "Red Hat Enterprise Linux AS 3", "not-satisfied", "os-differs"},
        {&Present, 11, "snmpd", "satisfied", "running"},
        {&Absent, 11, "snmpd", "not-satisfied", "not-running"},
        {&Bare, 11, "snmpd", "unknown", "processes-unknown"},
    };
    for (const Row &Q : Rows) {
        const Json *M = FindMachine(R.Parsed, Q.M->Path);
        ASSERT_NE(nullptr, M);
        const Json *C = FindComponent(*M, Q.SubType == 8 ? "nic" : "probe");
        ASSERT_NE(nullptr, C) << M->dump(1);
        bool Seen = false;
        for (const Json &Req : (*C)["requisites"])
            if (Req["subtype"] == Q.SubType && Req["value"] == Q.Value) {
                Seen = true;
                EXPECT_EQ(Q.State, Req["state"]) << Q.M->Path << " " << Req.dump();
                EXPECT_EQ(Q.Code, Req["code"]) << Q.M->Path << " " << Req.dump();
                EXPECT_GT(Req["line"].get<int>(), 0) << Req.dump();
            }
        EXPECT_TRUE(Seen) << Q.SubType << " " << Q.Value;
    }
    // The devices: all, none, one (through a 0000 part), unknown.
    const char *NicVerdicts[][2] = {{"installs", Present.Path.c_str()},
                                    {"refused", Absent.Path.c_str()},
                                    {"installs", Links.Path.c_str()},
                                    {"installs", Bare.Path.c_str()}};
    for (const auto &V : NicVerdicts)
        EXPECT_EQ(V[0], (*FindComponent(*FindMachine(R.Parsed, V[1]), "nic"))["verdict"]) << V[1];
    // The device no database knows: absent, and present at 0000:00:05.0.
    const char *UnnamedVerdicts[][2] = {{"refused", Present.Path.c_str()},
                                        {"installs", UnknownDevice.c_str()}};
    for (const auto &V : UnnamedVerdicts) {
        const Json &Unknown = (*FindComponent(*FindMachine(R.Parsed, V[1]), "unnamed"));
        EXPECT_EQ(V[0], Unknown["verdict"]) << V[1];
        EXPECT_NE(std::string::npos,
                  Unknown["requisites"][0]["name"].get<std::string>().find("fff0"));
    }
    // A postrequisite that does not hold is shown, and never refuses its component; the
    // failing prerequisites come first.
    const Json &Probe1 = *FindComponent(*FindMachine(R.Parsed, Present.Path), "probe");
    EXPECT_EQ("refused", Probe1["verdict"]);
    EXPECT_EQ(2, Probe1["otherReasons"]); // the epoch first; the maximum, the other distribution
    EXPECT_EQ(true, Probe1["requisites"][0]["fails"]);
    for (const Json &Req : Probe1["requisites"])
        if (Req["kind"] == "postrequisite") {
            EXPECT_EQ("not-satisfied", Req["state"]);
            EXPECT_EQ(false, Req["fails"]);
        }

    // --strict: an unknown fails its component.
    CheckResult Loose = RunManager({"check", "--json", "--snapshot=" + Bare.Path, B.Path});
    CheckResult Strict = RunManager(
        {"check", "--json", "--strict", "--snapshot=" + Bare.Path, B.Path});
    EXPECT_EQ("installs", (*FindComponent(Loose.Parsed["machines"][0], "nic"))["verdict"]);
    EXPECT_EQ("refused", (*FindComponent(Strict.Parsed["machines"][0], "nic"))["verdict"]);
}

// SP3=YES (exactly) in a UnitedLinux 1.0 machine's environment makes the sub-service read the
// component's UnitedLinux_1.0_SP3 section, so that machine gets a plan of its own (once every
// snapshot's plan was made without SP3, whatever the machine's environment said).
TEST(Check, Sp3ChoosesTheSection)
{
    Tree B, Plain, Sp3, Lower;
    auto Needs = [](const std::string &Path) {
        return Flags(true, false, false, false) + "        <prerequisites>\n" +
               Requisite("prerequisite_data", 3, Path) + "        </prerequisites>\n";
    };
    WriteBundle(B,
                {{"ul", Needs("/etc/base.conf"), "",
                  SectionOf("UnitedLinux_1.0_SP3", Needs("/etc/sp3.conf"))}},
                "UnitedLinux 1.0");
    for (const Tree *T : {&Plain, &Sp3, &Lower}) {
        T->Put("etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n");
        T->Put("etc/sp3.conf", "");
    }
    Sp3.Put("environ", "SP3=YES\n");
    Lower.Put("environ", "SP3=yes\n");
    CheckResult R = RunManager({"check", "--json", "--snapshot=" + Plain.Path,
                                "--snapshot=" + Sp3.Path, "--snapshot=" + Lower.Path, B.Path});
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(1, R.Status) << R.Err;
    EXPECT_EQ(2, R.Parsed["plans"]);
    struct {
        const Tree *M;
        const char *Key, *Verdict, *Value;
    } Rows[] = {{&Plain, "UnitedLinux_1.0", "refused", "/etc/base.conf"},
                {&Sp3, "UnitedLinux_1.0_SP3", "installs", "/etc/sp3.conf"},
                {&Lower, "UnitedLinux_1.0", "refused", "/etc/base.conf"}};
    for (const auto &Row : Rows) {
        const Json *M = FindMachine(R.Parsed, Row.M->Path);
        ASSERT_NE(nullptr, M);
        EXPECT_EQ(std::string(Row.Key), (*M)["key"]);
        const Json &C = *FindComponent(*M, "ul");
        EXPECT_EQ(std::string(Row.Verdict), C["verdict"]) << C.dump();
        ASSERT_EQ(1u, C["requisites"].size()) << C.dump();
        EXPECT_EQ(std::string(Row.Value), C["requisites"][0]["value"]);
        EXPECT_GT(C["requisites"][0]["line"].get<int>(), 0) << "not found in its section";
    }
}

namespace {

std::string Variable(const char *Tag, const std::string &Requirements, const std::string &Name,
                     int Type, const std::string &Rest = "")
{
    return std::string("          <") + Tag + ">\n            <requirements " + Requirements +
           "/>\n            <prompt>\n              <prompt_xlate lang=\"en\">\n"
           "                <![CDATA[" +
           Name +
           " please:]]>\n              </prompt_xlate>\n"
           "            </prompt>\n            <outputname type=\"" +
           std::to_string(Type) + "\" name=\"" + Name + "\"/>\n" + Rest + "          </" + Tag +
           ">\n";
}

// A bundle of one component with five variables, before and after the install.
void WriteConfigBundle(const Tree &B)
{
    const char *Pre = "preconfiguration_data_and", *Post = "postconfiguration_data_and";
    std::string Section =
        Flags(false, false, true, true) + "        <preconfiguration>\n" +
        Variable(Pre, "required=\"yes\" minimumlength=\"2\" maximumlength=\"5\"", "PORT", 1,
                 "            <acceptable_characters>\n              <![CDATA[0123456789]]>\n"
                 "            </acceptable_characters>\n") +
        Variable(Pre, "required=\"yes\" minimumlength=\"8\"", "QXHTTPSERVERADMINPASSWD", 2) +
        Variable(Pre, "required=\"no\"", "LANGCODE", 1,
                 "            <default_value value=\"en\"/>\n") +
        "        </preconfiguration>\n        <postconfiguration>\n" +
        Variable(Post, "required=\"yes\" maximumlength=\"8\"", "COMMUNITY", 1) +
        Variable(Post, "required=\"no\"", "NOTE", 1) + "        </postconfiguration>\n";
    WriteBundle(B, {{"conf", Section, ""}});
}

std::map<std::string, std::string> States(const Json &R, const char *Field, size_t Machine = 0)
{
    std::map<std::string, std::string> Out;
    for (const Json &V : (*FindComponent(R["machines"][Machine], "conf"))["configuration"])
        Out[V["name"].get<std::string>()] = V[Field].get<std::string>();
    return Out;
}

} // namespace

// Every answers case: answered (a value holding '='), default, optional and empty, missing,
// invalid (short, long, a character outside the acceptable ones), a name that is no variable,
// a line without '=' (with its line number), comments; a password never shown, in any output.
// RZPELMCONFIGURED=YES in a machine's environment makes the password optional in its own plan
// (once the caller's environment decided every machine's plan).
TEST(Check, ConfigurationAnswers)
{
    Tree B, M, Answers;
    WriteConfigBundle(B);
    Machine(M, "2.4.18-3");
    Answers.Put("good",
                "# prepared\nPORT=8080\nQXHTTPSERVERADMINPASSWD=Good-Secret-77\nCOMMUNITY=a=b\n");
    Answers.Put(
        "bad",
        "PORT=80a\nQXHTTPSERVERADMINPASSWD=Pw-zq9x\n\n# a comment line\nCOMTUNITY=x\nno equals\n"
        "LANGCODE=\n");
    Answers.Put("limits", "PORT=1\nQXHTTPSERVERADMINPASSWD=Long-enough-1\nCOMMUNITY=123456789\n");
    const std::vector<std::string> Base = {"check", "--snapshot=" + M.Path, "--json"};
    auto Check = [&](const std::string &File) {
        std::vector<std::string> Args = Base;
        Args.insert(Args.end(), {"--answers=" + Answers.Path + "/" + File, B.Path});
        return RunManager(Args);
    };

    CheckResult Good = Check("good");
    EXPECT_EQ(0, Good.Status) << Good.Out << Good.Err;
    ASSERT_EQ(5u, (*FindComponent(Good.Parsed["machines"][0], "conf"))["configuration"].size());
    EXPECT_EQ((std::map<std::string, std::string>{{"PORT", "answered"},
                                                  {"QXHTTPSERVERADMINPASSWD", "answered"},
                                                  {"LANGCODE", "default"},
                                                  {"COMMUNITY", "answered"},
                                                  {"NOTE", "default"}}),
              States(Good.Parsed, "state"));
    EXPECT_EQ("optional-empty", States(Good.Parsed, "code")["NOTE"]);
    EXPECT_EQ("a=b",
              (*FindComponent(Good.Parsed["machines"][0], "conf"))["configuration"][3]["value"]);

    CheckResult Bad = Check("bad");
    EXPECT_EQ(1, Bad.Status);
    EXPECT_EQ((std::map<std::string, std::string>{{"PORT", "bad-character"},
                                                  {"QXHTTPSERVERADMINPASSWD", "too-short"},
                                                  {"LANGCODE", "answered"},
                                                  {"COMMUNITY", "missing"},
                                                  {"NOTE", "optional-empty"}}),
              States(Bad.Parsed, "code"));
    EXPECT_EQ(Json({"line 5: COMTUNITY is no configuration variable of the plan"}),
              Bad.Parsed["answers"]["warnings"]);
    ASSERT_EQ(1u, Bad.Parsed["answers"]["errors"].size());
    EXPECT_NE(std::string::npos,
              Bad.Parsed["answers"]["errors"][0].get<std::string>().find("bad:6:"));
    CheckResult Limits = Check("limits");
    EXPECT_EQ("too-short", States(Limits.Parsed, "code")["PORT"]);
    EXPECT_EQ("too-long", States(Limits.Parsed, "code")["COMMUNITY"]);

    // The table too; the password's value nowhere, neither whole nor in part.
    std::vector<std::string> Table = {"check", "--snapshot=" + M.Path,
                                      "--answers=" + Answers.Path + "/bad", B.Path};
    CheckResult Shown = RunManager(Table);
    EXPECT_NE(std::string::npos, Shown.Out.find("COMTUNITY")) << Shown.Out;
    for (const CheckResult *R : {&Good, &Bad, &Shown})
        for (const char *Secret : {"Good-Secret-77", "Pw-zq9x"})
            EXPECT_EQ(std::string::npos, (R->Out + R->Err).find(Secret)) << R->Out << R->Err;

    // The template lists every variable; the required ones without a default are to be filled.
    CheckResult Template = RunManager({"answers", "--snapshot=" + M.Path, B.Path});
    EXPECT_EQ(0, Template.Status) << Template.Err;
    for (const char *Line : {"\nPORT=\n", "\nQXHTTPSERVERADMINPASSWD=\n", "\n#LANGCODE=en\n",
                             "\nCOMMUNITY=\n", "acceptable characters: 0123456789"})
        EXPECT_NE(std::string::npos, Template.Out.find(Line)) << Line << Template.Out;

    Tree Configured;
    Machine(Configured, "2.4.18-3");
    Configured.Put("environ", "RZPELMCONFIGURED=YES\n");
    Answers.Put("nopassword", "PORT=8080\nCOMMUNITY=x\n");
    CheckResult Two = RunManager({"check", "--json", "--snapshot=" + M.Path,
                                  "--snapshot=" + Configured.Path,
                                  "--answers=" + Answers.Path + "/nopassword", B.Path});
    ASSERT_FALSE(Two.Parsed.is_discarded()) << Two.Out << Two.Err;
    EXPECT_EQ(2, Two.Parsed["plans"]);
    EXPECT_EQ("missing", States(Two.Parsed, "code", 0)["QXHTTPSERVERADMINPASSWD"]);
    EXPECT_EQ("optional-empty", States(Two.Parsed, "code", 1)["QXHTTPSERVERADMINPASSWD"]);
    EXPECT_EQ(1, Two.Parsed["machines"][0]["exitStatus"]);
    EXPECT_EQ(0, Two.Parsed["machines"][1]["exitStatus"]);
    CheckResult Optional = RunManager({"answers", "--snapshot=" + Configured.Path, B.Path});
    EXPECT_NE(std::string::npos, Optional.Out.find("\n#QXHTTPSERVERADMINPASSWD=\n"))
        << Optional.Out;
}

// The example fleet: three machines of two distributions share two plans; one machine where
// everything installs, one where each component is refused for its own reason, and the
// second distribution. Run as the user nobody: neither the snapshots nor the plans need root.
TEST(Check, ExampleFleetAsAnOrdinaryUser)
{
    struct passwd *Nobody = getpwnam("nobody");
    int Uid = -1;
    if (geteuid() == 0 && Nobody != nullptr && !ZEL_FORKS_THREADED &&
        RunProgram("/usr/bin/unshare", {"--user", "--mount", "true"}, (int)Nobody->pw_uid).Status ==
            0)
        Uid = (int)Nobody->pw_uid;
    const std::string Ex = ZEL_EXAMPLES;
    CheckResult R = RunManager(
        {"check", "--json", "--snapshot=" + Ex + "/snapshots/rh73-ready",
         "--snapshot=" + Ex + "/snapshots/rh73-legacy", "--snapshot=" + Ex + "/snapshots/rhel3",
         "--answers=" + Ex + "/snapshots/answers.txt", Ex + "/server-bundle"},
        Uid);
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(1, R.Status);
    EXPECT_EQ(2, R.Parsed["plans"]);
    std::vector<std::string> Seen;
    for (const Json &M : R.Parsed["machines"]) {
        std::string Row = M["distribution"].get<std::string>() + ":";
        for (const Json &C : M["components"])
            Row += " " + C["verdict"].get<std::string>();
        Seen.push_back(Row);
    }
    EXPECT_EQ((std::vector<std::string>{
                  "Red Hat Linux 7.3: installs installs installs not-recorded",
                  "Red Hat Linux 7.3: refused refused refused not-recorded",
                  "Red Hat Enterprise Linux 3: installs installs installs not-recorded"}),
              Seen);
    const Json &Legacy = R.Parsed["machines"][1];
    EXPECT_EQ("none of its 2 supported devices is present", Legacy["components"][0]["reason"]);
    EXPECT_EQ("kernel-too-new", Legacy["components"][2]["requisites"][0]["code"]);
    EXPECT_EQ("2.4.20-99",
              Legacy["components"][2]["requisites"][0]["expected"].get<std::string>().substr(3));
    EXPECT_EQ("2.4.21-4", Legacy["components"][2]["requisites"][0]["actual"]);
    EXPECT_EQ("invalid", Legacy["components"][1]["configuration"][0]["state"]); // HTTPPORT=23a1
}

// A snapshot without release files has no plan; the command lines that are wrong.
TEST(Check, NoPlanAndCommandLines)
{
    Tree B, Empty, Full;
    WriteConfigBundle(B);
    Empty.Put("proc/sys/kernel/osrelease", "2.4.18-3\n");
    CheckResult R = RunManager({"check", "--snapshot=" + Empty.Path, B.Path});
    EXPECT_EQ(3, R.Status);
    EXPECT_NE(std::string::npos, R.Err.find("no release file")) << R.Err;
    R = RunManager({"check", "--snapshot=" + Empty.Path + "/missing", B.Path});
    EXPECT_EQ(3, R.Status) << R.Err;

    const std::vector<std::vector<std::string>> Wrong = {{"check"},
                                                         {"check", "--bogus", B.Path},
                                                         {"check", B.Path, B.Path},
                                                         {"check", "--snapshot"},
                                                         {"check", "--answers"},
                                                         {"snapshot"},
                                                         {"snapshot", "--for"},
                                                         {"snapshot", "--x", "d"},
                                                         {"answers"},
                                                         {"answers", "--distro=nonesuch", B.Path}};
    for (const std::vector<std::string> &Args : Wrong) {
        CheckResult U = RunManager(Args);
        EXPECT_EQ(2, U.Status) << Args.back();
        EXPECT_NE(std::string::npos, U.Err.find("usage:")) << Args.back() << U.Err;
    }
}

// snapshot records this machine without root: the fixed facts, and with --for the presence of
// what the bundle's requisites name (never their contents, never a path with ".."), the named
// variables only; a directory that is not empty is refused untouched. Its snapshot is checked.
TEST(Check, SnapshotOfThisMachine)
{
    struct passwd *Nobody = getpwnam("nobody");
    int Uid = geteuid() == 0 && Nobody != nullptr ? (int)Nobody->pw_uid : -1;
    Tree B, Out;
    const char *Pre = "prerequisite_data";
    WriteBundle(B, {{"probe",
                     Flags(true, false, false, false) + "        <prerequisites>\n" +
                         Requisite(Pre, 3, "/bin/sh") + Requisite(Pre, 5, "/usr") +
                         Requisite(Pre, 3, "/usr/../etc/passwd") +
                         Requisite(Pre, 9, "ZELSNAP_NAMED") + Requisite(Pre, 1, "libc.so.6") +
                         Requisite(Pre, 2, "sh -c true") + "        </prerequisites>\n",
                     ""}});
    setenv("ZELSNAP_NAMED", "named-value", 1);
    setenv("ZELSNAP_OTHER", "other-value", 1);
    setenv("SP3", "YES", 1); // recorded whether a requisite names it or not
    setenv("RZPELMCONFIGURED", "YES", 1);
    chmod(Out.Path.c_str(), 0777);
    const std::string Dir = Out.Path + "/snap";
    CheckResult R = RunManager({"snapshot", "--for=" + B.Path, Dir}, Uid);
    EXPECT_EQ(0, R.Status) << R.Err;
    struct stat St;
    ASSERT_EQ(0, stat((Dir + "/bin/sh").c_str(), &St));
    EXPECT_EQ(0, St.st_size);
    EXPECT_NE(0, St.st_mode & 0111);
    EXPECT_TRUE(Exists((Dir + "/usr").c_str()));
    EXPECT_FALSE(Exists((Dir + "/etc/passwd").c_str()));
    EXPECT_NE(std::string::npos, R.Err.find("/usr/../etc/passwd")) << R.Err;
    std::string Environ = ReadAll(Dir + "/environ");
    EXPECT_NE(std::string::npos, Environ.find("ZELSNAP_NAMED=named-value\n"));
    EXPECT_EQ(std::string::npos, Environ.find("ZELSNAP_OTHER"));
    for (const char *Fixed : {"\nSP3=YES\n", "\nRZPELMCONFIGURED=YES\n"})
        EXPECT_NE(std::string::npos, ("\n" + Environ).find(Fixed)) << Environ;
    CheckResult Fixed = RunManager({"snapshot", Out.Path + "/fixed"}, Uid);
    EXPECT_EQ(0, Fixed.Status) << Fixed.Err;
    EXPECT_EQ("RZPELMCONFIGURED=YES\nSP3=YES\n", ReadAll(Out.Path + "/fixed/environ"));
    struct utsname U;
    uname(&U);
    EXPECT_EQ(std::string(U.release) + "\n", ReadAll(Dir + "/proc/sys/kernel/osrelease"));
    for (const char *Name : {"ZELSNAP_NAMED", "ZELSNAP_OTHER", "SP3", "RZPELMCONFIGURED"})
        unsetenv(Name);

    // Its facts read back: the file, the directory, the library, the program, the variable.
    Machine(Out, "");
    EXPECT_EQ(0, rename((Out.Path + "/etc/redhat-release").c_str(),
                        (Dir + "/etc/redhat-release").c_str()));
    CheckResult C = RunManager({"check", "--json", "--snapshot=" + Dir, B.Path});
    ASSERT_FALSE(C.Parsed.is_discarded()) << C.Out << C.Err;
    for (const Json &Req : (*FindComponent(C.Parsed["machines"][0], "probe"))["requisites"])
        EXPECT_EQ(Req["value"] == "/usr/../etc/passwd" ? "not-satisfied"
                  : Req["subtype"] == 2                ? "unknown"
                                                       : "satisfied",
                  Req["state"])
            << Req.dump();

    CheckResult Again = RunManager({"snapshot", Dir}, Uid);
    EXPECT_EQ(1, Again.Status);
    EXPECT_NE(std::string::npos, Again.Err.find("not an empty directory")) << Again.Err;
}
