// The zelrzp-manager program as a user runs it: exit status, the JSON parsed back, the table,
// the support matrix, an unprivileged run (plan and lint), and every XML example of the docs
// linted and run through the sub-service. The bundles are those of the lint corpus
// (tests/lint/corpus) or written to a fresh directory under /tmp.
#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../common/helpers.h"
#include "distros.h"

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

// The lint corpus: small bundles of a clean component ("good") beside one mistake ("bad").
const std::string CorpusDir = ZEL_LINT_CORPUS "/";

// Runs on the bundle simulating Red Hat Linux 7.3 (or with Options alone), JSON parsed back.
CliResult PlanJson(const std::string &Dir, std::vector<std::string> Options = {"--distro=rh73"})
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
    std::string Odd = "caf\xc3\xa9\xc0\xaf\xed\xa0\x80-1.0-1"; // overlong and surrogate bytes
    std::string Good = ReadAll(CorpusDir + "pci-id/good-1.0-1.i386.xml"), Bundle = ReadAll(CorpusDir + "pci-id/bp000001.xml");
    for (const std::string &Name : {std::string("good-1.0-1.i386"), Odd}) {
        D.Write(Name + ".xml", Good);
        D.Write(Name + ".rpm", "package\n");
    }
    D.Write("bp000001.xml", Bundle.replace(Bundle.find("bad-1.0-1.i386"), 14, Odd));
    CliResult R = PlanJson(D.Path);
    EXPECT_EQ(0, R.Status) << R.Out;
    EXPECT_EQ("clean", R.Parsed["outcome"]);
    EXPECT_EQ(0, R.Parsed["exitStatus"]);
    EXPECT_EQ("./bp000001.xml", R.Parsed["bundle"]["file"]);
    EXPECT_EQ("Test Pack", R.Parsed["bundle"]["name"]);
    EXPECT_EQ("Red Hat Linux 7.3", R.Parsed["bundle"]["matchedEntry"]);
    EXPECT_EQ("Red_Hat_Linux_7.3", R.Parsed["distribution"]["key"]);
    ASSERT_EQ(2u, R.Parsed["components"].size());
    EXPECT_EQ("good-1.0-1.i386.rpm", R.Parsed["components"][0]["file"]);
    std::string File = R.Parsed["components"][1]["file"];
    EXPECT_EQ(0u, File.find("caf\xc3\xa9\xef\xbf\xbd")) << File;
    EXPECT_TRUE(R.Parsed["refused"].empty());
    EXPECT_EQ(0, Problems(R.Parsed));
    EXPECT_TRUE(R.Parsed["failure"].is_null());
}

// A missing package or an unreadable component XML file is refused, and the console line
// that says why (it names no file) is tied to its file and component.
TEST(Cli, MissingAndCorruptComponentsAreRefusedWithTheirFiles)
{
    for (const std::vector<std::string> &C :
         {std::vector<std::string>{"package-file-missing", "The component file to install is missing.", ""},
          {"component-unreadable", "The component XML file is missing.",
           "The XML file is corrupt.  The 'command' section cannot be found."}}) {
        SCOPED_TRACE(C[0]);
        CliResult R = PlanJson(CorpusDir + C[0]);
        EXPECT_EQ(1, R.Status);
        EXPECT_EQ("findings", R.Parsed["outcome"]);
        ASSERT_EQ(1u, R.Parsed["refused"].size());
        EXPECT_EQ("bad-1.0-1.i386.rpm", R.Parsed["refused"][0]["component"]);
        EXPECT_EQ(C[1], R.Parsed["refused"][0]["reason"]);
        bool Tied = C[2].empty();
        for (const Json &F : R.Parsed["findings"])
            Tied |= F["text"] == C[2] && F["file"] == "bad-1.0-1.i386.xml" &&
                    F["component"] == "bad-1.0-1.i386.rpm" && F["sources"][0] == "console" &&
                    F["problem"] == true;
        EXPECT_TRUE(Tied) << R.Parsed["findings"].dump(1);
    }
}

// Fault: after a failed open the sub-service was killed without being asked to end, and the
// console line that says why ("No supported Bundle XML files were found.") was lost in about a
// third of the runs on an empty directory.
TEST(Cli, NoPlanKeepsTheSubServicesLastConsoleLine)
{
    BundleDir Empty;
    for (int i = 0; i < 10; i++) {
        CliResult R = PlanJson(Empty.Path);
        ASSERT_EQ(1u, R.Parsed["findings"].size()) << "run " << i << R.Out;
        EXPECT_EQ("No supported Bundle XML files were found.", R.Parsed["findings"][0]["text"]);
        EXPECT_EQ(3, R.Parsed["exitStatus"]); // no plan, and why, on stdout and stderr
        ASSERT_EQ(-703, R.Parsed["failure"]["code"]);
        EXPECT_NE(std::string::npos, R.Err.find(R.Parsed["failure"]["what"].get<std::string>()));
    }
}

// Wrong command lines exit 2 and say why on stderr; a run without a plan exits 3 and says why
// on stdout and stderr; --help and --version exit 0; "--" ends the options, the separate-value
// form works like --opt=value, and a file gets no colour.
TEST(Cli, CommandLine)
{
    const std::string Dir = CorpusDir + "dialect-text"; // a clean plan
    const std::string Pci = CorpusDir + "pci-id", Rh73 = "--distro=rh73";
    BundleDir Corrupt; // a bundle file with a version and nothing else
    Corrupt.Write("bp000001.xml", "<?xml version=\"1.0\"?>\n<zel_bundle>\n  <version value=\"1\"/>\n</zel_bundle>\n");
    struct Case {
        std::vector<std::string> Args;
        int Status;
        std::string Out, Err; // expected in standard output, standard error
    } Cases[] = {
        {{"--distro=nowhere", Dir}, 2, "", "  sles8-ul  "}, // lists the known ones
        {{"--bogus", Dir}, 2, "", "unknown option --bogus"},
        {{"--distro"}, 2, "", "--distro needs a value"},
        {{"--distro=rh73"}, 2, "", "no bundle directory"},
        {{"--all-distros", "--distro=rh73", Dir}, 2, "", "leave out --distro"},
        {{"lint"}, 2, "", ""},
        {{"lint", "--explain", "no-such-tag"}, 2, "", ""},
        {{"lint", "--bogus", Dir}, 2, "", ""},
        {{"lint", "/nonexistent/bundle"}, 2, "", ""},
        {{"lint", Dir, Dir}, 2, "", ""},
        {{"lint", "--help"}, 0, "", ""},
        {{"--version"}, 0, "zelrzp-manager ", ""},
        {{"--help"}, 0, "Exit status", ""},
        {{"--distro", "rh73", "--NUI", "--", Dir}, 0, "Result: clean (exit status 0)", ""},
        {{Rh73, CorpusDir + "no-bundle-file"}, 3, "holds no bundle XML file", ""},
        {{Rh73, Corrupt.Path}, 3, "(-703): ./bp000001.xml corrupt", ""},
        {{Rh73, CorpusDir + "bundle-unreadable"}, 3, "cannot be read (-504)", ""},
        {{Rh73, CorpusDir + "distribution-claimed-twice"}, 3, "supports the distribution (-505)", ""},
        {{"--distro=rhel3", Pci}, 3, "(-703): ./bp000001.xml not supported", ""},
        {{Rh73, "--VIEW=zzz", Pci}, 3, "file name of the bundle contains \"zzz\"", ""},
        {{Rh73, "-C", "nothere-1.rpm", Pci}, 3, "the plan is empty: every component", ""},
    };
    for (const Case &C : Cases) {
        CliResult R = RunCli(C.Args);
        EXPECT_EQ(C.Status, R.Status) << C.Args[0] << R.Out << R.Err;
        EXPECT_NE(std::string::npos, R.Out.find(C.Out)) << C.Args[0] << R.Out;
        EXPECT_NE(std::string::npos, R.Err.find(C.Err)) << C.Args[0] << R.Err;
        EXPECT_EQ(std::string::npos, R.Out.find('\x1b')) << "colour on a file";
        if (C.Status == 3) {
            EXPECT_NE(std::string::npos, R.Out.find("No plan: ")) << R.Out;
            EXPECT_NE(std::string::npos, R.Err.find(C.Out)) << R.Err;
        }
    }
}

TEST(Cli, MatrixOfTheExampleBundleExplainsEachDistribution)
{
    CliResult R = PlanJson(ZEL_EXAMPLES "/server-bundle", {"--all-distros"});
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
    // lint reads each row's release files itself: it must come to the key the sub-service detects.
    for (size_t i = 0; i < CliDistroCount; i++)
        EXPECT_EQ(By[CliDistros[i].Name]["distribution"]["key"], CliDetect(CliDistros[i]).Key)
            << CliDistros[i].Name;
    R = RunCli({"matrix", ZEL_EXAMPLES "/server-bundle"});
    EXPECT_EQ(1, R.Status);
    EXPECT_NE(std::string::npos, R.Out.find("raidutil-1.7-2.i386.rpm      recorded with findings"))
        << R.Out;
}

// Lint finds the same as nobody as root; the plan needs root only without a simulation.
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
    // The probe is a fresh single-threaded program: unshare refuses a new user namespace to a
    // threaded process (a sanitizer's runtime has threads).
    if (RunProgram("/usr/bin/unshare", {"--user", "--mount", "true"}, Uid).Status != 0)
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
            CliResult L = PlanJson(D.Path + "/" + Name[1].str(), {"lint"});
            EXPECT_TRUE(L.Parsed["findings"].empty()) << Text << L.Parsed.dump(2);
            EXPECT_EQ(0, L.Status);
        }
        ASSERT_GT(Count, 0);
        CliResult R = PlanJson(D.Path, {"--all-distros"});
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
