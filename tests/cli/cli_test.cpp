// The zelrzp-manager program as a user runs it: exit status, the JSON parsed back, the table,
// the support matrix, an unprivileged run, and every XML example of the docs run through the
// sub-service. Each bundle is written to a fresh directory under /tmp.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../common/helpers.h"

using Json = nlohmann::json;

namespace
{

struct CliResult : RunResult {
    Json Parsed; // Out as JSON, or discarded
};

// Runs zelrzp-manager with Args; as user Uid (and group Uid) when Uid >= 0.
CliResult RunCli(const std::vector<std::string> &Args, int Uid = -1)
{
    CliResult R;
    static_cast<RunResult &>(R) = RunProgram(ZEL_MANAGER_PATH, Args, Uid);
    R.Parsed = Json::parse(R.Out, nullptr, false);
    // A sanitizer report of the program, or of the sub-service it ran (which the program
    // repeats on its standard error), fails the test whatever the exit status says.
    for (const char *Marker : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                               "WARNING: ThreadSanitizer", "runtime error:", "sanitizer report"})
        EXPECT_EQ(std::string::npos, R.Err.find(Marker)) << R.Err;
    return R;
}

std::string Bundle(const std::vector<std::string> &Packages,
                   const std::string &System = "Red Hat Linux 7.3")
{
    std::string X = "<?xml version=\"1.0\"?>\n<zel_bundle>\n  <version value=\"1.0\"/>\n"
                    "  <name>\n    <name_xlate lang=\"en\">Test Pack</name_xlate>\n  </name>\n"
                    "  <operating_systems>\n    <operating_system>\n"
                    "      <operating_system_xlate lang=\"en\">" + System +
                    "</operating_system_xlate>\n    </operating_system>\n  </operating_systems>\n"
                    "  <contents>\n";
    for (const std::string &P : Packages)
        X += "    <package install=\"yes\">" + P + "</package>\n";
    return X + "  </contents>\n</zel_bundle>\n";
}

std::string Component(const std::string &Name, bool WithNameSection = true)
{
    return "<?xml version=\"1.0\"?>\n<zel_package>\n  <version value=\"2.0\"/>\n" +
           std::string(WithNameSection ? "  <name>\n    <name_xlate lang=\"en\">" + Name +
                                             "</name_xlate>\n  </name>\n"
                                       : "") +
           "  <description>\n    <description_xlate lang=\"en\">\n"
           "      <![CDATA[A component.]]>\n    </description_xlate>\n  </description>\n"
           "  <installation>\n    <install>\n      <reboot_required value=\"no\"/>\n"
           "      <command>rpm -Uvh " + Name + "</command>\n    </install>\n  </installation>\n"
           "  <prerequisites>\n    <supported_devices>\n    </supported_devices>\n  </prerequisites>\n"
           "  <platform_specific>\n    <LINUX>\n      <Red_Hat_Linux_7.3>\n"
           "        <has_prerequisites value=\"no\"/>\n        <has_postrequisites value=\"no\"/>\n"
           "        <requires_preconfiguration value=\"no\"/>\n"
           "        <requires_postconfiguration value=\"no\"/>\n"
           "      </Red_Hat_Linux_7.3>\n    </LINUX>\n  </platform_specific>\n</zel_package>\n";
}

// A bundle of the named components, each with its package and XML file.
void WriteGood(const BundleDir &D, const std::vector<std::string> &Names)
{
    std::vector<std::string> Packages;
    for (const std::string &N : Names) {
        D.Write(N + ".rpm", "package\n");
        D.Write(N + ".xml", Component(N));
        Packages.push_back(N + ".rpm");
    }
    D.Write("bp000001.xml", Bundle(Packages));
}

CliResult RunJson(const BundleDir &D, std::vector<std::string> Extra = {})
{
    Extra.insert(Extra.begin(), {"--distro=rh73", "--json"});
    Extra.push_back(D.Path);
    return RunCli(Extra);
}

int Problems(const Json &R)
{
    int N = 0;
    for (const Json &F : R["findings"])
        N += F["problem"].get<bool>();
    return N;
}

TEST(Cli, GoodBundleIsCleanAndItsJsonSaysSo)
{
    BundleDir D;
    WriteGood(D, {"alpha-1.0-1", "beta-1.0-1"});
    CliResult R = RunJson(D);
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(0, R.Status) << R.Out;
    EXPECT_EQ("clean", R.Parsed["outcome"]);
    EXPECT_EQ(0, R.Parsed["exitStatus"]);
    EXPECT_EQ("./bp000001.xml", R.Parsed["bundle"]["file"]);
    EXPECT_EQ("Test Pack", R.Parsed["bundle"]["name"]);
    EXPECT_EQ("Red Hat Linux 7.3", R.Parsed["bundle"]["matchedEntry"]);
    EXPECT_EQ("Red_Hat_Linux_7.3", R.Parsed["distribution"]["key"]);
    ASSERT_EQ(2u, R.Parsed["components"].size());
    EXPECT_EQ("alpha-1.0-1.rpm", R.Parsed["components"][0]["file"]);
    EXPECT_TRUE(R.Parsed["refused"].empty());
    EXPECT_EQ(0, Problems(R.Parsed));
    EXPECT_TRUE(R.Parsed["failure"].is_null());
}

TEST(Cli, MissingAndCorruptComponentsAreRefusedWithTheirFiles)
{
    BundleDir D;
    WriteGood(D, {"alpha-1.0-1"});
    D.Write("broken-1.0-1.rpm", "package\n");
    D.Write("broken-1.0-1.xml", Component("broken-1.0-1", false)); // no name section
    D.Write("bp000001.xml", Bundle({"alpha-1.0-1.rpm", "gone-1.0-1.rpm", "broken-1.0-1.rpm"}));
    CliResult R = RunJson(D);
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(1, R.Status);
    EXPECT_EQ("findings", R.Parsed["outcome"]);
    ASSERT_EQ(2u, R.Parsed["refused"].size());
    EXPECT_EQ("gone-1.0-1.rpm", R.Parsed["refused"][0]["component"]);
    EXPECT_EQ("The component file to install is missing.", R.Parsed["refused"][0]["reason"]);
    EXPECT_EQ("broken-1.0-1.rpm", R.Parsed["refused"][1]["component"]);
    bool Tied = false; // the console line that says why names no file; the run ties it
    for (const Json &F : R.Parsed["findings"])
        if (F["text"] == "The XML file is corrupt.  The 'name' section cannot be found.")
            Tied = F["file"] == "broken-1.0-1.xml" && F["component"] == "broken-1.0-1.rpm" &&
                   F["sources"][0] == "console" && F["problem"] == true;
    EXPECT_TRUE(Tied) << R.Parsed["findings"].dump(1);
}

TEST(Cli, NoPlanCasesExitThreeAndSayWhyOnStdout)
{
    struct Case {
        const char *What;
        std::vector<std::string> Files; // name, text pairs
        std::vector<std::string> Args;
        int Code;
        const char *Says;
    };
    std::string Good = Bundle({"alpha-1.0-1.rpm"});
    std::string Corrupt = "<?xml version=\"1.0\"?>\n<zel_bundle>\n  <version value=\"1\"/>\n"
                          "</zel_bundle>\n";
    std::vector<Case> Cases = {
        {"no bundle file", {}, {}, -703, "holds no bundle XML file"},
        {"broken bundle", {"bp000001.xml", Corrupt}, {}, -703, "./bp000001.xml corrupt"},
        {"two supported", {"bp000001.xml", Good, "bp000002.xml", Good}, {}, -505, "more than one"},
        {"other system", {"bp000001.xml", Bundle({"alpha-1.0-1.rpm"}, "Red Hat Linux 9")}, {}, -703,
         "./bp000001.xml not supported"},
        {"view matches nothing", {"bp000001.xml", Good}, {"--VIEW=zzz"}, 0, "contains \"zzz\""},
        {"-C matches nothing", {}, {"-C", "nothere-1.rpm"}, 0, "the plan is empty"},
    };
    for (const Case &C : Cases) {
        BundleDir D;
        WriteGood(D, {"alpha-1.0-1"});
        unlink((D.Path + "/bp000001.xml").c_str());
        for (size_t i = 0; i + 1 < C.Files.size(); i += 2)
            D.Write(C.Files[i], C.Files[i + 1]);
        CliResult R = RunJson(D, C.Args);
        ASSERT_FALSE(R.Parsed.is_discarded()) << C.What << "\n" << R.Out << R.Err;
        EXPECT_EQ(3, R.Status) << C.What;
        EXPECT_EQ(3, R.Parsed["exitStatus"]) << C.What;
        ASSERT_TRUE(R.Parsed["failure"].is_object()) << C.What;
        if (C.Code != 0) {
            EXPECT_EQ(C.Code, R.Parsed["failure"]["code"]) << C.What;
        }
        std::string What = R.Parsed["failure"]["what"];
        EXPECT_NE(std::string::npos, What.find(C.Says)) << C.What << ": " << What;
        EXPECT_NE(std::string::npos, R.Err.find(What)) << C.What; // one line on stderr too
    }
}

TEST(Cli, CommandLine)
{
    BundleDir D;
    WriteGood(D, {"alpha-1.0-1"});
    CliResult R = RunCli({"--distro=nowhere", D.Path});
    EXPECT_EQ(2, R.Status);
    EXPECT_NE(std::string::npos, R.Err.find("rh73")) << R.Err; // lists the known ones
    EXPECT_NE(std::string::npos, R.Err.find("sles8-ul"));
    EXPECT_EQ(2, RunCli({"--bogus", D.Path}).Status);
    EXPECT_EQ(2, RunCli({"--distro"}).Status);
    EXPECT_EQ(2, RunCli({"--distro=rh73"}).Status);
    EXPECT_EQ(2, RunCli({"--all-distros", "--distro=rh73", D.Path}).Status);
    R = RunCli({"--version"});
    EXPECT_EQ(0, R.Status);
    EXPECT_EQ(0u, R.Out.find("zelrzp-manager "));
    R = RunCli({"--help"});
    EXPECT_EQ(0, R.Status);
    EXPECT_NE(std::string::npos, R.Out.find("Exit status"));
    // "--" ends the options; the separate-value form works like --opt=value.
    R = RunCli({"--distro", "rh73", "--NUI", "--", D.Path});
    EXPECT_EQ(0, R.Status) << R.Out << R.Err;
    EXPECT_NE(std::string::npos, R.Out.find("Result: clean (exit status 0)")) << R.Out;
    EXPECT_EQ(std::string::npos, R.Out.find('\x1b')) << "colour on a file";
}

TEST(Cli, JsonStaysValidUtf8ForBytesThatAreNot)
{
    BundleDir D;
    std::string Name = "caf\xc3\xa9\xc0\xaf\xed\xa0\x80-1.0-1"; // overlong and surrogate bytes
    WriteGood(D, {Name});
    CliResult R = RunJson(D);
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out; // the strict parser accepts only UTF-8
    EXPECT_EQ(0, R.Status);
    std::string File = R.Parsed["components"][0]["file"];
    EXPECT_EQ(0u, File.find("caf\xc3\xa9\xef\xbf\xbd")) << File; // bad bytes became U+FFFD
}

TEST(Cli, MatrixOfTheExampleBundleExplainsEachDistribution)
{
    CliResult R = RunCli({"--all-distros", "--json", ZEL_EXAMPLES "/server-bundle"});
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(1, R.Status);
    std::map<std::string, Json> By;
    for (const Json &Run : R.Parsed["distributions"])
        By[Run["distribution"]["name"]] = Run;
    ASSERT_EQ(8u, By.size());
    // What the example was made to show, and nothing else.
    std::map<std::string, std::vector<std::string>> Expected = {
        {"rh73", {"fwupdate-3.1-1.i386.rpm"}},
        {"rhel3", {"fwupdate-3.1-1.i386.rpm", "raidutil-1.7-2.i386.rpm"}},
        {"sles7", {}}, {"sles8", {}}};
    for (const auto &E : Expected) {
        const Json &Run = By[E.first];
        std::vector<std::string> Concerned;
        for (const Json &F : Run["findings"])
            if (F["problem"].get<bool>() && F["sources"][0] != "log")
                Concerned.push_back(F["component"].is_string() ? F["component"] : F["text"]);
        EXPECT_EQ(E.second, Concerned) << E.first << Run["findings"].dump(1);
        EXPECT_EQ(E.second.empty() ? "clean" : "findings", Run["outcome"]) << E.first;
    }
    EXPECT_EQ("./bp000200.xml", By["sles7"]["bundle"]["file"]); // SLES: versions not compared
    for (const char *Name : {"rhas21", "ul10", "ul10-sp3", "sles8-ul"}) {
        EXPECT_EQ("not claimed", By[Name]["outcome"]) << Name;
        EXPECT_EQ(-703, By[Name]["failure"]["code"]);
        EXPECT_EQ(2u, By[Name]["bundleFiles"].size());
    }
    EXPECT_EQ("UnitedLinux_1.0_SP3", By["ul10-sp3"]["distribution"]["key"]);
    R = RunCli({"matrix", ZEL_EXAMPLES "/server-bundle"});
    EXPECT_EQ(1, R.Status);
    EXPECT_NE(std::string::npos, R.Out.find("raidutil-1.7-2.i386.rpm      recorded with findings"))
        << R.Out;
}

// 1 when a user other than root may create a user namespace here. The probe runs in a fresh
// single-threaded program, since unshare refuses a new user namespace to a threaded process
// (a sanitizer's runtime has threads).
bool UnprivilegedNamespacesAllowed(int Uid)
{
    pid_t Pid = fork();
    if (Pid == 0) {
        if (setgroups(0, nullptr) == 0 && setgid(Uid) == 0 && setuid(Uid) == 0)
            execl("/usr/bin/unshare", "unshare", "--user", "--mount", "true", (char *)nullptr);
        _exit(1);
    }
    int Status = 0;
    waitpid(Pid, &Status, 0);
    return WIFEXITED(Status) && WEXITSTATUS(Status) == 0;
}

TEST(Cli, AnOrdinaryUserGetsThePlan)
{
    const int Nobody = 65534;
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user for the test";
    if (!UnprivilegedNamespacesAllowed(Nobody))
        GTEST_SKIP() << "this kernel forbids user namespaces to unprivileged users (or "
                        "/usr/bin/unshare is missing)";
    CliResult R = RunCli({"--distro=rhel3", "--json", ZEL_EXAMPLES "/server-bundle"}, Nobody);
    ASSERT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    EXPECT_EQ(1, R.Status) << R.Err;
    EXPECT_EQ(3u, R.Parsed["components"].size());
    R = RunCli({"--json", ZEL_EXAMPLES "/server-bundle"}, Nobody); // this system: needs root
    EXPECT_EQ(3, R.Status);
    EXPECT_NE(std::string::npos, R.Parsed["failure"]["what"].get<std::string>().find("needs root"));
}

// Every ```xml block of the docs is a whole file, named in its info string (file=NAME).
std::map<std::string, std::string> XmlExamples(const std::string &Doc)
{
    std::string All = ReadAll(Doc);
    std::map<std::string, std::string> Files;
    std::regex Block("```xml([^\\n]*)\\n([\\s\\S]*?)```");
    for (std::sregex_iterator I(All.begin(), All.end(), Block), End; I != End; ++I) {
        std::smatch Name;
        std::string Info = (*I)[1];
        EXPECT_TRUE(std::regex_search(Info, Name, std::regex("file=(\\S+)")))
            << Doc << ": an xml block without file=: " << Info;
        if (!Name.empty())
            Files[Name[1]] = (*I)[2];
    }
    return Files;
}

TEST(Cli, EveryXmlExampleOfTheDocsRunsWithoutAFinding)
{
    for (const char *Doc : {"bundle-format.md", "xml-dialect.md"}) {
        std::map<std::string, std::string> Files = XmlExamples(ZEL_DOCS "/" + std::string(Doc));
        ASSERT_FALSE(Files.empty()) << Doc;
        BundleDir D;
        for (const auto &F : Files) {
            D.Write(F.first, F.second);
            if (F.first.find("bp0") == std::string::npos) // a component: its package too
                D.Write(F.first.substr(0, F.first.rfind('.')) + ".rpm", "package\n");
        }
        CliResult R = RunCli({"--all-distros", "--json", D.Path});
        ASSERT_FALSE(R.Parsed.is_discarded()) << Doc << R.Out << R.Err;
        EXPECT_EQ(0, R.Status) << Doc << "\n" << R.Out;
        int Clean = 0;
        for (const Json &Run : R.Parsed["distributions"]) {
            Clean += Run["outcome"] == "clean";
            if (Run["outcome"] != "not claimed") {
                EXPECT_EQ(0, Problems(Run)) << Doc << " " << Run["findings"].dump(1);
            }
        }
        EXPECT_GT(Clean, 0) << Doc;
    }
}

} // namespace
