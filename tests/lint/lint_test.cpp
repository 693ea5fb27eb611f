// lint_test.cpp - `zelrzp-manager lint` as a user runs it: the corpus of small bad bundles
// (one per tag, each with its expected file and line), the example bundle, the XML examples
// of docs/, the tag table against docs/lint.md, a run as nobody, and the agreement with the
// real sub-service (run in the sandbox by the reference manager) on what reads cleanly.
#include <dirent.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../common/helpers.h"

namespace {

// Runs the manager with Args; AsUser: as that user.
RunResult RunManager(const std::vector<std::string> &Args, int AsUser = -1)
{
    return RunProgram(ZEL_MANAGER_PATH, Args, AsUser);
}

std::string BaseName(const std::string &Path)
{
    size_t Slash = Path.find_last_of('/');
    return Slash == std::string::npos ? Path : Path.substr(Slash + 1);
}

std::vector<std::string> Entries(const std::string &Dir)
{
    std::vector<std::string> Names;
    if (DIR *D = opendir(Dir.c_str())) {
        while (struct dirent *E = readdir(D))
            if (E->d_name[0] != '.')
                Names.push_back(E->d_name);
        closedir(D);
    }
    std::sort(Names.begin(), Names.end());
    return Names;
}

nlohmann::json LintJson(const std::string &Target, int *Status = nullptr)
{
    RunResult R = RunManager({"lint", "--json", Target});
    if (Status != nullptr)
        *Status = R.Status;
    return nlohmann::json::parse(R.Out);
}

// "file:line:tag" of the errors and warnings.
std::set<std::string> Serious(const nlohmann::json &J)
{
    std::set<std::string> Out;
    for (const auto &F : J["findings"])
        if (F["severity"] != "info")
            Out.insert(BaseName(F["file"]) + ":" + std::to_string(F["line"].get<int>()) + ":" +
                       F["tag"].get<std::string>());
    return Out;
}

const std::string Corpus = ZEL_LINT_CORPUS;

} // namespace

// Every corpus bundle shows its tag at its file and line, in JSON and in the GNU lines, and
// the exit status follows the severities.
TEST(LintCorpus, EachBundleShowsItsTagAtItsLine)
{
    std::vector<std::string> Cases = Entries(Corpus);
    ASSERT_GE(Cases.size(), 20u);
    for (const std::string &Case : Cases) {
        SCOPED_TRACE(Case);
        std::string Dir = Corpus + "/" + Case;
        std::istringstream Expect(ReadAll(Dir + "/.expect"));
        std::string File, Tag;
        int Line = -1;
        Expect >> File >> Line >> Tag;
        ASSERT_TRUE(Case == Tag || Case.find("trap-") == 0) << "a corpus bundle is named after its tag";
        int Status = -1;
        nlohmann::json J = LintJson(Dir, &Status);
        bool Found = false;
        for (const auto &F : J["findings"])
            Found |= F["tag"] == Tag && F["line"] == Line &&
                     (File == "-" ? F["file"] == Dir : BaseName(F["file"]) == File);
        EXPECT_TRUE(Found) << J.dump(2);
        int Errors = J["counts"]["error"];
        EXPECT_EQ(Status, Errors > 0 ? 1 : 0);
        // The same finding as a GNU-style line.
        std::string Path = File == "-" ? Dir : Dir + "/" + File;
        std::string Prefix = Path + (Line > 0 ? ":" + std::to_string(Line) : std::string()) + ": ";
        RunResult Text = RunManager({"lint", Dir});
        EXPECT_EQ(Text.Status, Status);
        bool Shown = false;
        std::istringstream Lines(Text.Out);
        for (std::string L; std::getline(Lines, L);)
            for (const char *Severity : {"error", "warning", "info"})
                Shown |= L.rfind(Prefix + Severity + ": " + Tag + ": ", 0) == 0;
        EXPECT_TRUE(Shown) << Text.Out;
    }
}

// The good half of a corpus bundle reads cleanly: lint says nothing about good-1.0-1.i386.xml
// (the no-platform-section case adds a second distribution, which it has too).
TEST(LintCorpus, GoodHalvesAreClean)
{
    for (const std::string &Case : Entries(Corpus)) {
        if (Case == "package-listed-twice" || Case == "no-bundle-file" || Case == "trap-quote-in-package-text")
            continue; // the good package is the mistake, or no bundle lists it
        nlohmann::json J = LintJson(Corpus + "/" + Case);
        for (const auto &F : J["findings"])
            EXPECT_NE(BaseName(F["file"]), "good-1.0-1.i386.xml") << Case << ": " << F.dump();
    }
}

TEST(LintExample, ShowsExactlyWhatItWasMadeToShow)
{
    int Status = -1;
    nlohmann::json J = LintJson(std::string(ZEL_EXAMPLES) + "/server-bundle", &Status);
    // fwupdate's package file is missing; raidutil has no section for RHEL 3, which bp000101
    // supports.
    std::set<std::string> Expected = {"bp000101.xml:21:package-file-missing",
                                      "raidutil-1.7-2.i386.xml:23:no-platform-section"};
    EXPECT_EQ(Serious(J), Expected) << J.dump(2);
    EXPECT_EQ(Status, 1);
    EXPECT_EQ(RunManager({"lint", "--strict", std::string(ZEL_EXAMPLES) + "/server-bundle"}).Status, 1);
}

// Every ```xml block of docs/ reads the same with the sub-service's tokenizer and with a
// standard parser, and its values pass.
TEST(LintDocs, XmlExamplesHaveNoFindings)
{
    BundleDir Dir;
    int Count = 0;
    for (const std::string &Page : Entries(ZEL_DOCS)) {
        std::string Text = ReadAll(std::string(ZEL_DOCS) + "/" + Page);
        // A fence "```xml" at the start of a line may name its file after it ("```xml file=NAME").
        for (size_t At = Text.find("\n```xml"); At != std::string::npos; At = Text.find("\n```xml", At + 1)) {
            size_t Start = Text.find('\n', At + 1);
            if (Start == std::string::npos)
                break;
            Start++;
            size_t Stop = Text.find("```", Start);
            if (Stop == std::string::npos)
                break;
            std::string Example = Text.substr(Start, Stop - Start);
            // A block with comments is an annotated illustration (the pages say such
            // comments are for the page only), not a file.
            if (Example.find("<!--") != std::string::npos)
                continue;
            std::string Path = Dir.Path + "/" + Page + "-" + std::to_string(Count++) + ".xml";
            std::ofstream(Path) << Example;
            RunResult R = RunManager({"lint", "--json", Path});
            nlohmann::json J = nlohmann::json::parse(R.Out);
            EXPECT_TRUE(J["findings"].empty()) << Page << " example:\n" << Example << J.dump(2);
            EXPECT_EQ(R.Status, 0);
        }
    }
    EXPECT_GT(Count, 0);
}

// docs/lint.md lists every tag of the code's table, and --explain knows each.
TEST(LintTags, EveryTagIsDocumentedAndExplained)
{
    std::string Page = ReadAll(std::string(ZEL_DOCS) + "/lint.md");
    RunResult List = RunManager({"lint", "--list-tags"});
    ASSERT_EQ(List.Status, 0);
    std::istringstream Lines(List.Out);
    std::string Tag, Severity;
    int Count = 0;
    const std::vector<std::string> Bundles = Entries(Corpus);
    while (Lines >> Tag >> Severity) {
        Count++;
        EXPECT_NE(Page.find("`" + Tag + "`"), std::string::npos) << Tag << " is not in docs/lint.md";
        RunResult Explain = RunManager({"lint", "--explain", Tag});
        EXPECT_EQ(Explain.Status, 0);
        EXPECT_NE(Explain.Out.find("Fix:"), std::string::npos);
        EXPECT_TRUE(Bundles.empty() ||
                    std::find(Bundles.begin(), Bundles.end(), Tag) != Bundles.end())
            << Tag << " has no corpus bundle";
    }
    EXPECT_GE(Count, 20);
}

TEST(LintUsage, BadCommandLinesExitTwo)
{
    EXPECT_EQ(RunManager({"lint"}).Status, 2);
    EXPECT_EQ(RunManager({"lint", "--explain", "no-such-tag"}).Status, 2);
    EXPECT_EQ(RunManager({"lint", "--bogus", Corpus}).Status, 2);
    EXPECT_EQ(RunManager({"lint", "/nonexistent/bundle"}).Status, 2);
    EXPECT_EQ(RunManager({"lint", Corpus + "/x", Corpus + "/y"}).Status, 2);
    EXPECT_EQ(RunManager({"lint", "--help"}).Status, 0);
}

// Lint needs no root: as nobody it finds the same in a copy of the example bundle.
TEST(LintPrivileges, RunsAsNobody)
{
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to become nobody";
    struct passwd *Nobody = getpwnam("nobody");
    if (Nobody == nullptr)
        GTEST_SKIP() << "no user nobody";
    BundleDir Dir;
    std::string Source = std::string(ZEL_EXAMPLES) + "/server-bundle";
    for (const std::string &Name : Entries(Source))
        Dir.Write(Name, ReadAll(Source + "/" + Name));
    RunResult Root = RunManager({"lint", "--json", Dir.Path});
    RunResult AsNobody = RunManager({"lint", "--json", Dir.Path}, static_cast<int>(Nobody->pw_uid));
    if (AsNobody.Status == 121) // RunProgram's status when the exec failed
        GTEST_SKIP() << "nobody cannot execute " << ZEL_MANAGER_PATH;
    EXPECT_EQ(AsNobody.Status, 1);
    EXPECT_EQ(AsNobody.Out, Root.Out);
}

// Where lint says a component reads cleanly on Red Hat Linux 7.3, the real sub-service,
// run in the sandbox by the reference manager, builds its record.
TEST(LintAgreement, CleanComponentsGetRecords)
{
    if (getuid() != 0)
        GTEST_SKIP() << "the sandbox needs root";
    std::vector<std::string> Dirs = {std::string(ZEL_EXAMPLES) + "/server-bundle"};
    for (const char *Case : {"dialect-text", "reader-message", "pci-id", "subtype-range",
                                    "length-range", "prompt-language", "no-platform-section",
                                    "unlisted-file", "package-file-missing", "record-too-long"})
        Dirs.push_back(Corpus + "/" + std::string(Case));
    for (const std::string &Dir : Dirs) {
        SCOPED_TRACE(Dir);
        nlohmann::json Lint = LintJson(Dir);
        std::set<std::string> Flagged; // files with an error or warning
        for (const auto &F : Lint["findings"])
            if (F["severity"] != "info")
                Flagged.insert(BaseName(F["file"]));
        RunResult Plan = RunManager({"--distro", "rh73", "--json", Dir});
        ASSERT_TRUE(Plan.Status == 0 || Plan.Status == 1) << Plan.Out; // a plan was made
        nlohmann::json J = nlohmann::json::parse(Plan.Out);
        std::set<std::string> Built;
        for (const auto &C : J["components"])
            Built.insert(C["file"].get<std::string>());
        // The sub-service refuses the component whose record lint finds too long.
        if (Dir.find("record-too-long") != std::string::npos) {
            EXPECT_EQ(Built.count("bad-1.0-1.i386.rpm"), 0u);
        }
        for (const std::string &Name : Entries(Dir)) {
            if (Name.size() < 4 || Name.substr(Name.size() - 4) != ".xml" || Name.find("bp0") == 0)
                continue;
            std::string Package = Name.substr(0, Name.size() - 4) + ".rpm";
            std::string Bundle = ReadAll(Dir + "/bp000101.xml") + ReadAll(Dir + "/bp000001.xml");
            bool Selected = Bundle.find("install=\"yes\">" + Package) != std::string::npos ||
                            Bundle.find("install=\"Yes\">" + Package) != std::string::npos;
            bool PackageFlagged = false;
            for (const auto &F : Lint["findings"])
                PackageFlagged |= F["severity"] == "error" && F["message"].get<std::string>().find(Package) != std::string::npos;
            if (!Selected || PackageFlagged || Flagged.count(Name) != 0)
                continue;
            EXPECT_EQ(Built.count(Package), 1u) << Package << " reads cleanly but got no record";
        }
    }
}

// The record size lint computes is the sub-service's to the byte: a component whose record is
// exactly 16384 bytes is built and not flagged; one byte more is refused and flagged.
TEST(LintAgreement, RecordSizeBoundary)
{
    if (getuid() != 0)
        GTEST_SKIP() << "the sandbox needs root";
    std::string Source = Corpus + "/record-too-long";
    std::string Xml = ReadAll(Source + "/bad-1.0-1.i386.xml");
    // Keep 17 of the 900-character prerequisites and add one of Length characters: 196 makes
    // the record 16384 bytes long.
    std::string Kept, Rest = Xml;
    size_t First = Xml.find("          <prerequisite_data");
    size_t After = Xml.find("        </prerequisites>");
    ASSERT_NE(First, std::string::npos);
    std::istringstream Lines(Xml.substr(First, After - First));
    std::string Line;
    for (int i = 0; i < 17 && std::getline(Lines, Line); i++)
        Kept += Line + "\n";
    for (int Length : {196, 197}) {
        SCOPED_TRACE(Length);
        BundleDir Dir;
        for (const std::string &Name : Entries(Source))
            Dir.Write(Name, ReadAll(Source + "/" + Name));
        Dir.Write("bad-1.0-1.i386.xml",
                  Xml.substr(0, First) + Kept + "          <prerequisite_data SubType=\"3\" value=\"" +
                      std::string(static_cast<size_t>(Length), 'y') + "\"/>\n" + Xml.substr(After));
        bool Flagged = false;
        nlohmann::json Lint = LintJson(Dir.Path);
        for (const auto &F : Lint["findings"])
            Flagged |= F["tag"] == "record-too-long";
        RunResult Plan = RunManager({"--distro", "rh73", "--json", Dir.Path});
        bool Built = false;
        nlohmann::json Components = nlohmann::json::parse(Plan.Out)["components"];
        for (const auto &C : Components)
            Built |= C["file"] == "bad-1.0-1.i386.rpm";
        EXPECT_EQ(Flagged, Length == 197) << Lint.dump(2);
        EXPECT_EQ(Built, Length == 196) << Plan.Out;
    }
}
