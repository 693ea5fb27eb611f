// lint_test.cpp - `zelrzp-manager lint` as a user runs it: the corpus of small bad bundles
// (one per tag, each with its expected file and line, in JSON and in GNU lines, its good half
// clean), the example bundle, the tag table against docs/lint.md, and the agreement with the
// real sub-service (run in the sandbox by the reference manager) on what reads cleanly and on
// files that are not regular. The
// command line, a run as nobody and the docs' XML examples are in tests/cli.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../common/helpers.h"

namespace {

using Json = nlohmann::json;
const std::string Corpus = ZEL_LINT_CORPUS;

std::string BaseName(const std::string &Path) { return Path.substr(Path.find_last_of('/') + 1); }

// The names in Dir but those starting with '.', sorted.
std::vector<std::string> Entries(const std::string &Dir)
{
    std::vector<std::string> Names;
    for (const auto &E : std::filesystem::directory_iterator(Dir))
        if (E.path().filename().string()[0] != '.')
            Names.push_back(E.path().filename());
    std::sort(Names.begin(), Names.end());
    return Names;
}

// Runs the manager with Args and --json before Target; its output parsed, its exit status.
Json LintJson(std::vector<std::string> Args, const std::string &Target, int *Status = nullptr)
{
    Args.insert(Args.end(), {"--json", Target});
    RunResult R = RunProgram(ZEL_MANAGER_PATH, Args);
    if (Status != nullptr)
        *Status = R.Status;
    Json J = Json::parse(R.Out, nullptr, false);
    EXPECT_FALSE(J.is_discarded()) << R.Out << R.Err;
    return J;
}

// The component files the sub-service built records of, simulating Red Hat Linux 7.3.
std::set<std::string> Built(const std::string &Dir)
{
    int Status = -1;
    Json Plan = LintJson({"--distro=rh73"}, Dir, &Status);
    EXPECT_TRUE(Status == 0 || Status == 1) << Plan.dump(1); // a plan was made
    std::set<std::string> Files;
    for (const auto &C : Plan["components"])
        Files.insert(C["file"].get<std::string>());
    return Files;
}

} // namespace

// Every corpus bundle shows its tag at its file and line, in JSON and in the GNU lines, the
// exit status follows the severities, and its good half (good-1.0-1.i386.xml) reads cleanly
// where the bundle lists it.
TEST(LintCorpus, EachBundleShowsItsTagAtItsLine)
{
    std::vector<std::string> Cases = Entries(Corpus);
    ASSERT_GE(Cases.size(), 20u);
    for (const std::string &Case : Cases) {
        SCOPED_TRACE(Case);
        std::string Dir = Corpus + "/" + Case, File, Tag;
        std::istringstream Expect(ReadAll(Dir + "/.expect"));
        int Line = -1, Status = -1;
        Expect >> File >> Line >> Tag;
        ASSERT_TRUE(Case == Tag || Case.find("trap-") == 0) << "a corpus bundle is named after its tag";
        Json J = LintJson({"lint"}, Dir, &Status);
        bool Found = false, GoodListed = Case != "package-listed-twice" && Case != "no-bundle-file" &&
                                         Case != "trap-quote-in-package-text";
        for (const auto &F : J["findings"]) {
            Found |= F["tag"] == Tag && F["line"] == Line &&
                     (File == "-" ? F["file"] == Dir : BaseName(F["file"]) == File);
            EXPECT_FALSE(GoodListed && BaseName(F["file"]) == "good-1.0-1.i386.xml") << F.dump();
        }
        EXPECT_TRUE(Found) << J.dump(2);
        EXPECT_EQ(Status, J["counts"]["error"].get<int>() > 0 ? 1 : 0);
        // The same finding as a GNU-style line.
        std::string Path = File == "-" ? Dir : Dir + "/" + File;
        std::string Prefix = Path + (Line > 0 ? ":" + std::to_string(Line) : std::string()) + ": ";
        RunResult Text = RunProgram(ZEL_MANAGER_PATH, {"lint", Dir});
        EXPECT_EQ(Text.Status, Status);
        bool Shown = false;
        std::istringstream Lines(Text.Out);
        for (std::string L; std::getline(Lines, L);)
            for (const char *Severity : {"error", "warning", "info"})
                Shown |= L.rfind(Prefix + Severity + ": " + Tag + ": ", 0) == 0;
        EXPECT_TRUE(Shown) << Text.Out;
    }
}

// Fault: lint skipped a bundle file that is a FIFO without a word and called a component XML
// file that is a FIFO "missing", where the plan refuses both as files that are not regular.
// A FIFO cannot be committed: the corpus case (a link to /dev/null) is copied, with FIFOs made.
TEST(LintOddFiles, AFifoIsNamedForWhatItIsAsThePlanRefusesIt)
{
    BundleDir D;
    const std::string Source = Corpus + "/not-a-regular-file";
    for (const std::string &Name : Entries(Source))
        if (Name != "bad-1.0-1.i386.xml")
            D.Write(Name, ReadAll(Source + "/" + Name));
    ASSERT_EQ(0, mkfifo((D.Path + "/bad-1.0-1.i386.xml").c_str(), 0644));
    ASSERT_EQ(0, mkfifo((D.Path + "/bp000009.xml").c_str(), 0644));
    std::set<std::string> Found;
    Json Lint = LintJson({"lint"}, D.Path);
    for (const auto &F : Lint["findings"])
        Found.insert(BaseName(F["file"]) + ":" + std::to_string(F["line"].get<int>()) + ":" +
                     F["tag"].get<std::string>() + ":" +
                     (F["message"].get<std::string>().find(" a FIFO, ") != std::string::npos ? "FIFO" : "?"));
    EXPECT_EQ(Found, (std::set<std::string>{"bp000001.xml:15:not-a-regular-file:FIFO",
                                            "bp000009.xml:0:not-a-regular-file:FIFO"}));
    Json Plan = LintJson({"--distro=rh73"}, D.Path);
    ASSERT_EQ(1u, Plan["refused"].size());
    EXPECT_EQ("bad-1.0-1.i386.rpm", Plan["refused"][0]["component"]);
    bool Said = false;
    for (const auto &F : Plan["findings"])
        Said |= F["text"] == "Unable to open XML file ./bp000009.xml";
    EXPECT_TRUE(Said) << Plan["findings"].dump(1);
}

// fwupdate's package file is missing; raidutil has no section for RHEL 3, which bp000101
// supports. --strict keeps the status.
TEST(LintExample, ShowsExactlyWhatItWasMadeToShow)
{
    int Status = -1;
    Json J = LintJson({"lint", "--strict"}, ZEL_EXAMPLES "/server-bundle", &Status);
    std::set<std::string> Serious, Expected = {"bp000101.xml:21:package-file-missing",
                                               "raidutil-1.7-2.i386.xml:23:no-platform-section"};
    for (const auto &F : J["findings"])
        if (F["severity"] != "info")
            Serious.insert(BaseName(F["file"]) + ":" + std::to_string(F["line"].get<int>()) + ":" +
                           F["tag"].get<std::string>());
    EXPECT_EQ(Serious, Expected) << J.dump(2);
    EXPECT_EQ(Status, 1);
}

// docs/lint.md lists every tag of the code's table, --explain knows each, and each has its
// corpus bundle.
TEST(LintTags, EveryTagIsDocumentedAndExplained)
{
    std::string Page = ReadAll(ZEL_DOCS "/lint.md");
    RunResult List = RunProgram(ZEL_MANAGER_PATH, {"lint", "--list-tags"});
    ASSERT_EQ(List.Status, 0);
    std::istringstream Lines(List.Out);
    std::string Tag, Severity;
    int Count = 0;
    const std::vector<std::string> Bundles = Entries(Corpus);
    for (; Lines >> Tag >> Severity; Count++) {
        EXPECT_NE(Page.find("`" + Tag + "`"), std::string::npos) << Tag << " is not in docs/lint.md";
        RunResult Explain = RunProgram(ZEL_MANAGER_PATH, {"lint", "--explain", Tag});
        EXPECT_EQ(Explain.Status, 0);
        EXPECT_NE(Explain.Out.find("Fix:"), std::string::npos);
        EXPECT_NE(std::find(Bundles.begin(), Bundles.end(), Tag), Bundles.end())
            << Tag << " has no corpus bundle";
    }
    EXPECT_GE(Count, 20);
}

// Where lint says a component reads cleanly on Red Hat Linux 7.3, the real sub-service, run in
// the sandbox by the reference manager, builds its record. The record size lint computes is the
// sub-service's to the byte: record-too-long's bad component, flagged and refused, is cut to a
// record of exactly 16384 bytes (built, not flagged) and of one byte more (flagged, refused).
TEST(LintAgreement, CleanComponentsGetRecordsAndTheRecordSizeIsExact)
{
    if (getuid() != 0)
        GTEST_SKIP() << "the sandbox needs root";
    std::vector<std::pair<std::string, int>> Dirs; // a bundle; its bad one too long (1), not (0)
    for (const char *Case : {"dialect-text", "reader-message", "pci-id", "subtype-range",
                             "length-range", "prompt-language", "no-platform-section",
                             "unlisted-file", "package-file-missing", "record-too-long"})
        Dirs.push_back({Corpus + "/" + Case, std::string(Case) == "record-too-long" ? 1 : -1});
    // Keep 17 of the 900-character prerequisites and add one of 196 characters (a record of
    // 16384 bytes) or 197.
    std::string Source = Corpus + "/record-too-long";
    std::string Xml = ReadAll(Source + "/bad-1.0-1.i386.xml");
    size_t Kept = Xml.find("          <prerequisite_data");
    size_t After = Xml.find("        </prerequisites>");
    ASSERT_NE(Kept, std::string::npos);
    for (int i = 0; i < 17; i++)
        Kept = Xml.find('\n', Kept) + 1;
    BundleDir Boundary[2];
    for (int i = 0; i < 2; i++) {
        for (const std::string &Name : Entries(Source))
            Boundary[i].Write(Name, ReadAll(Source + "/" + Name));
        Boundary[i].Write("bad-1.0-1.i386.xml",
                          Xml.substr(0, Kept) + "          <prerequisite_data SubType=\"3\" value=\"" +
                              std::string(196 + i, 'y') + "\"/>\n" + Xml.substr(After));
        Dirs.push_back({Boundary[i].Path, i});
    }
    for (const auto &Dir : Dirs) {
        SCOPED_TRACE(Dir.first);
        std::set<std::string> Flagged; // files and packages with an error or warning
        bool TooLong = false;
        Json Lint = LintJson({"lint"}, Dir.first);
        for (const auto &F : Lint["findings"]) {
            TooLong |= F["tag"] == "record-too-long";
            if (F["severity"] != "info")
                Flagged.insert(F["tag"].get<std::string>().find("package-") == 0
                                   ? "bad-1.0-1.i386.xml" // every package tag concerns bad
                                   : BaseName(F["file"]));
        }
        std::set<std::string> Records = Built(Dir.first);
        for (const char *Name : {"good-1.0-1.i386", "bad-1.0-1.i386"})
            if (Flagged.count(Name + std::string(".xml")) == 0) {
                EXPECT_EQ(Records.count(Name + std::string(".rpm")), 1u) << Name << " reads cleanly";
            }
        if (Dir.second >= 0) {
            EXPECT_EQ(TooLong, Dir.second == 1) << Lint.dump(2);
            EXPECT_EQ(Records.count("bad-1.0-1.i386.rpm"), Dir.second == 1 ? 0u : 1u);
        }
    }
}
