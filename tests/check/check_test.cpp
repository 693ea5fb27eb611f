// check_test.cpp - zelrzp-manager check, snapshot and answers run as a user runs them, on
// hand-written snapshots and bundles: the state of every requisite subtype both ways, the
// supported devices, links that point out of a snapshot, missing facts, every answers case,
// a fleet of two distributions, the exit statuses, and an unprivileged snapshot and check.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/utsname.h>

#include <nlohmann/json.hpp>

#include "../common/helpers.h"

using Json = nlohmann::json;

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

// A bundle for Red Hat Linux 7.3 of the given components (name -> the inside of its section
// and of its top-level prerequisites).
struct Component {
    std::string Name, Section, Devices;
};

void WriteBundle(const Tree &B, const std::vector<Component> &Components)
{
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
                    "  </prerequisites>\n  <platform_specific>\n    <LINUX>\n"
                    "      <Red_Hat_Linux_7.3>\n" +
                    C.Section +
                    "      </Red_Hat_Linux_7.3>\n    </LINUX>\n  </platform_specific>\n"
                    "</zel_package>\n");
    }
    B.Write("bp000101.xml",
            "<?xml version=\"1.0\"?>\n<zel_bundle>\n  <version value=\"1.0\"/>\n  <name>\n"
            "    <name_xlate lang=\"en\">Test bundle</name_xlate>\n  </name>\n"
            "  <operating_systems>\n    <operating_system>\n"
            "      <operating_system_xlate lang=\"en\">Red Hat Linux 7.3</operating_system_xlate>\n"
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
    WriteBundle(B, {{"probe", Probe, ""}, {"nic", Flags(true, false, false, false), Devices}});

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
                                "--snapshot=" + Bare.Path, "--snapshot=" + Tilde.Path, B.Path});
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
