// The zelrzp-manager program as a user runs it: exit status, the JSON parsed back, the table,
// the support matrix, an unprivileged run (plan and lint), and every XML example of the docs
// linted and run through the sub-service. Each bundle is written to a fresh directory under /tmp.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
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

// Runs zelrzp-manager with Args; as user (and group) Uid when Uid >= 0.
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

// Runs on the bundle simulating Red Hat Linux 7.3 (or with Options alone), JSON parsed back.
CliResult RunJson(const std::string &Dir, std::vector<std::string> Options = {"--distro=rh73"})
{
    Options.insert(Options.end(), {"--json", Dir});
    CliResult R = RunCli(Options);
    EXPECT_FALSE(R.Parsed.is_discarded()) << R.Out << R.Err;
    return R;
}

int Problems(const Json &R)
{
    int N = 0;
    for (const Json &F : R["findings"])
        N += F["problem"].get<bool>();
    return N;
}

// A good bundle is clean; a file name that is not UTF-8 keeps the JSON valid (U+FFFD).
TEST(Cli, GoodBundleIsCleanAndItsJsonSaysSo)
{
    BundleDir D;
    WriteGood(D, {"alpha-1.0-1", "caf\xc3\xa9\xc0\xaf\xed\xa0\x80-1.0-1"}); // overlong, surrogate
    CliResult R = RunJson(D.Path);
    EXPECT_EQ(0, R.Status) << R.Out;
    EXPECT_EQ("clean", R.Parsed["outcome"]);
    EXPECT_EQ(0, R.Parsed["exitStatus"]);
    EXPECT_EQ("./bp000001.xml", R.Parsed["bundle"]["file"]);
    EXPECT_EQ("Test Pack", R.Parsed["bundle"]["name"]);
    EXPECT_EQ("Red Hat Linux 7.3", R.Parsed["bundle"]["matchedEntry"]);
    EXPECT_EQ("Red_Hat_Linux_7.3", R.Parsed["distribution"]["key"]);
    ASSERT_EQ(2u, R.Parsed["components"].size());
    EXPECT_EQ("alpha-1.0-1.rpm", R.Parsed["components"][0]["file"]);
    std::string Odd = R.Parsed["components"][1]["file"];
    EXPECT_EQ(0u, Odd.find("caf\xc3\xa9\xef\xbf\xbd")) << Odd;
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
    CliResult R = RunJson(D.Path);
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
        SCOPED_TRACE(C.What);
        BundleDir D;
        WriteGood(D, {"alpha-1.0-1"});
        unlink((D.Path + "/bp000001.xml").c_str());
        for (size_t i = 0; i + 1 < C.Files.size(); i += 2)
            D.Write(C.Files[i], C.Files[i + 1]);
        std::vector<std::string> Args = C.Args;
        Args.insert(Args.begin(), "--distro=rh73");
        CliResult R = RunJson(D.Path, Args);
        EXPECT_EQ(3, R.Status);
        EXPECT_EQ(3, R.Parsed["exitStatus"]);
        ASSERT_TRUE(R.Parsed["failure"].is_object());
        if (C.Code != 0) {
            EXPECT_EQ(C.Code, R.Parsed["failure"]["code"]);
        }
        std::string What = R.Parsed["failure"]["what"];
        EXPECT_NE(std::string::npos, What.find(C.Says)) << What;
        EXPECT_NE(std::string::npos, R.Err.find(What)); // one line on stderr too
    }
}

// Wrong command lines exit 2 and say why on stderr; --help and --version exit 0; "--" ends
// the options, the separate-value form works like --opt=value, and a file gets no colour.
TEST(Cli, CommandLine)
{
    BundleDir D;
    WriteGood(D, {"alpha-1.0-1"});
    struct Case {
        std::vector<std::string> Args;
        int Status;
        std::string Out, Err; // expected in standard output, standard error
    } Cases[] = {
        {{"--distro=nowhere", D.Path}, 2, "", "  sles8-ul  "}, // lists the known ones
        {{"--bogus", D.Path}, 2, "", "unknown option --bogus"},
        {{"--distro"}, 2, "", "--distro needs a value"},
        {{"--distro=rh73"}, 2, "", "no bundle directory"},
        {{"--all-distros", "--distro=rh73", D.Path}, 2, "", "leave out --distro"},
        {{"lint"}, 2, "", ""},
        {{"lint", "--explain", "no-such-tag"}, 2, "", ""},
        {{"lint", "--bogus", D.Path}, 2, "", ""},
        {{"lint", "/nonexistent/bundle"}, 2, "", ""},
        {{"lint", D.Path, D.Path}, 2, "", ""},
        {{"lint", "--help"}, 0, "", ""},
        {{"--version"}, 0, "zelrzp-manager ", ""},
        {{"--help"}, 0, "Exit status", ""},
        {{"--distro", "rh73", "--NUI", "--", D.Path}, 0, "Result: clean (exit status 0)", ""},
    };
    for (const Case &C : Cases) {
        CliResult R = RunCli(C.Args);
        EXPECT_EQ(C.Status, R.Status) << C.Args[0] << R.Out << R.Err;
        EXPECT_NE(std::string::npos, R.Out.find(C.Out)) << C.Args[0] << R.Out;
        EXPECT_NE(std::string::npos, R.Err.find(C.Err)) << C.Args[0] << R.Err;
        EXPECT_EQ(std::string::npos, R.Out.find('\x1b')) << "colour on a file";
    }
}

TEST(Cli, MatrixOfTheExampleBundleExplainsEachDistribution)
{
    CliResult R = RunJson(ZEL_EXAMPLES "/server-bundle", {"--all-distros"});
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

// True when a user other than root may create a user namespace here. The probe runs in a fresh
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

// Lint finds the same as nobody as as root; the plan needs root only without a simulation.
TEST(Cli, AnOrdinaryUserGetsThePlanAndTheLint)
{
    struct passwd *Nobody = getpwnam("nobody");
    if (geteuid() != 0 || Nobody == nullptr)
        GTEST_SKIP() << "needs root to become the user nobody";
    const int Uid = static_cast<int>(Nobody->pw_uid);
    const std::string Example = ZEL_EXAMPLES "/server-bundle";
    CliResult Lint = RunCli({"lint", "--json", Example}, Uid);
    EXPECT_EQ(1, Lint.Status) << Lint.Err;
    EXPECT_EQ(RunCli({"lint", "--json", Example}).Out, Lint.Out);
    CliResult R = RunCli({"--json", Example}, Uid); // this system: needs root
    EXPECT_EQ(3, R.Status);
    EXPECT_NE(std::string::npos, R.Parsed["failure"]["what"].get<std::string>().find("needs root"));
    if (!UnprivilegedNamespacesAllowed(Uid))
        GTEST_SKIP() << "this kernel forbids user namespaces to unprivileged users (or "
                        "/usr/bin/unshare is missing)";
    R = RunCli({"--distro=rhel3", "--json", Example}, Uid);
    EXPECT_EQ(1, R.Status) << R.Err;
    EXPECT_EQ(3u, R.Parsed["components"].size());
}

// Every ```xml block of the docs is a whole file, named in its info string (file=NAME); lint
// finds nothing in it (a block with comments is an annotated illustration, not linted), and
// the files of one page, as a bundle, get a plan without a finding wherever one is claimed.
TEST(Cli, EveryXmlExampleOfTheDocsLintsAndRunsWithoutAFinding)
{
    std::regex Block("\n```xml([^\\n]*)\\n([\\s\\S]*?)```"), FileName("file=(\\S+)");
    for (const char *Doc : {"bundle-format.md", "xml-dialect.md"}) {
        SCOPED_TRACE(Doc);
        std::string All = ReadAll(ZEL_DOCS "/" + std::string(Doc));
        BundleDir D;
        int Count = 0;
        for (std::sregex_iterator I(All.begin(), All.end(), Block), End; I != End; ++I, ++Count) {
            std::smatch Name;
            std::string Info = (*I)[1], Text = (*I)[2];
            ASSERT_TRUE(std::regex_search(Info, Name, FileName)) << "no file= after ```xml" << Info;
            D.Write(Name[1], Text);
            if (Name[1].str().find("bp0") == std::string::npos) // a component: its package too
                D.Write(Name[1].str().substr(0, Name[1].str().rfind('.')) + ".rpm", "package\n");
            if (Text.find("<!--") != std::string::npos)
                continue;
            CliResult L = RunJson(D.Path + "/" + Name[1].str(), {"lint"});
            EXPECT_TRUE(L.Parsed["findings"].empty()) << Text << L.Parsed.dump(2);
            EXPECT_EQ(0, L.Status);
        }
        ASSERT_GT(Count, 0);
        CliResult R = RunJson(D.Path, {"--all-distros"});
        EXPECT_EQ(0, R.Status) << R.Out;
        int Clean = 0;
        for (const Json &Run : R.Parsed["distributions"]) {
            Clean += Run["outcome"] == "clean";
            if (Run["outcome"] != "not claimed") {
                EXPECT_EQ(0, Problems(Run)) << Run["findings"].dump(1);
            }
        }
        EXPECT_GT(Clean, 0);
    }
}

} // namespace
