// The tokenizer of the XML dialect: golden trees for its corner cases, the source line of every
// record (what lint reports findings at), its failures, the current-file rule; and the lookups
// over the tree with the readers' shared walk and language selection.
#include <algorithm>

#include "../common/helpers.h"
#include "package_fixture.h"

namespace {

std::string Escaped(const char *Text)
{
    std::string Out;
    for (; *Text; Text++)
        Out += *Text == '\n' ? "\\n" : *Text == '\t' ? "\\t" : std::string(1, *Text);
    return Out;
}

// One line per section, indented by depth: name, then @attribute=value, "text", [cdata]; each
// followed by :line when Lines.
void DumpSection(SECTIONPTR Section, int Depth, bool Lines, std::string &Out)
{
    auto At = [Lines](int Line) { return Lines ? ":" + std::to_string(Line) : std::string(); };
    Out += std::string(2 * Depth, ' ') + (Section->Name ? Escaped(Section->Name) : "(root)") +
           At(Section->Line);
    for (KEYPTR Key = Section->NextKey; Key; Key = Key->NextKey)
        Out += " @" + Escaped(Key->Attribute) + "=" + Escaped(Key->Value) + At(Key->Line);
    for (TOKENPTR Text = Section->NextToken; Text; Text = Text->NextToken)
        Out += " \"" + Escaped(Text->Token) + "\"" + At(Text->Line);
    for (CDATAPTR Block = Section->NextCDATA; Block; Block = Block->NextCDATA)
        Out += " [" + Escaped(Block->CDATAString) + "]" + At(Block->Line);
    Out += "\n";
    for (SECTIONPTR Child = Section->Child; Child; Child = Child->NextSibling)
        DumpSection(Child, Depth + 1, Lines, Out);
}

std::string Tree(bool Lines = false)
{
    std::string Out;
    if (FirstSection)
        DumpSection(FirstSection, 0, Lines, Out);
    return Out;
}

class XmlTokenizer : public PackageTest {
protected:
    // Parses Text as a file and returns the tree (the result code in *Result).
    std::string Parse(const std::string &Text, long *Result = nullptr, bool Lines = false)
    {
        DeleteTree();
        long Code = ParseFile(Write("t.xml", Text).c_str());
        if (Result)
            *Result = Code;
        return Tree(Lines);
    }
};

// Each input file under tests/data/unit/trees and the tree it must give, every record with the
// physical line where it starts (NAME.xml, NAME.tree); their names say which corner case of the
// dialect they hold.
TEST_F(XmlTokenizer, GoldenTrees)
{
    int Cases = 0;
    for (const auto &Entry : std::filesystem::directory_iterator(ZEL_TEST_DATA "/unit/trees")) {
        if (Entry.path().extension() != ".xml")
            continue;
        std::string Tree = Entry.path().string();
        Tree.replace(Tree.size() - 4, 4, ".tree");
        EXPECT_EQ(Parse(ReadAll(Entry.path()), nullptr, true), ReadAll(Tree)) << Entry.path();
        Cases++;
    }
    EXPECT_EQ(14, Cases);
}

// Records made from one line share it (the golden trees show lines across CDATA blocks); a last
// line without LF has its own; tokens given directly, not from a file, have none.
TEST_F(XmlTokenizer, RecordsCarryTheLineWhereTheyStart)
{
    Parse("<a>\n\n<b>text</b>");
    char Line[] = "<c>x</c>";
    FindXMLTokens(Line);
    EXPECT_EQ(Tree(true), "(root):0\n  a:1\n    b:3 \"text\":3\n    c:0 \"x\":0\n");
}

TEST_F(XmlTokenizer, FailuresReportAndLeaveNoCurrentFile)
{
    long Result = 0;
    std::string Out = Captured([&] {
        EXPECT_EQ(Parse("", &Result), "");
        EXPECT_EQ(Result, XML_OPEN_FAILED);
        EXPECT_EQ(ParseFile((Dir + "/none.xml").c_str()), XML_OPEN_FAILED);
        EXPECT_EQ(ParseFile(nullptr), XML_OPEN_FAILED);
    });
    EXPECT_EQ(Out, "XML File is missing for " + Dir + "/t.xml\nUnable to open XML file " + Dir +
                       "/none.xml\n");
    EXPECT_EQ(CurrentXMLFileParsed, nullptr);

    Out = Captured([&] {
        EXPECT_EQ(Parse("<a>\n<b>\n<![CDATA[never closed\n</b>\n", &Result), "(root)\n  a\n    b\n");
    });
    EXPECT_EQ(Out, "XML file is corrupted.  Please download the package and restart the \n"
                   "installation of the package.\nError 10100 occurred while parsing the XML file " +
                       Dir + "/t.xml\n");
    EXPECT_EQ(Result, XML_PARSE_FAILED);
    EXPECT_EQ(CurrentXMLFileParsed, nullptr);
    // The partial tree is discarded before the next parse, not added to.
    EXPECT_EQ(ParseFile(Write("c.xml", "<c/>\n").c_str()), 0);
    EXPECT_EQ(Tree(), "(root)\n  c\n");
}

TEST_F(XmlTokenizer, LinesUpToTheBufferAreReadLongerOnesRefuseTheFile)
{
    long Result = 0;
    std::string Fits = "<a>" + std::string(XML_LINE_MAX - 1 - 7, 'x') + "</a>";
    EXPECT_EQ(Parse(Fits + "\n", &Result),
              "(root)\n  a \"" + std::string(XML_LINE_MAX - 8, 'x') + "\"\n");
    EXPECT_EQ(Result, 0);
    std::string Out;
    Out = Captured([&] { EXPECT_EQ(Parse("<b/>\n" + Fits + "x\n", &Result), "(root)\n  b\n"); });
    EXPECT_TRUE(Has(Out, "longer than 16383")) << Out;
    EXPECT_EQ(Result, XML_PARSE_FAILED);
    // A CDATA block counts as one line with its line breaks.
    Captured([&] { Parse("<![CDATA[\n" + std::string(XML_LINE_MAX - 12, 'y') + "]]>", &Result); });
    EXPECT_EQ(Result, XML_PARSE_FAILED);
}

// Fault pinned: a short read of a file over 16 KB leaves zeros after the bytes read, and these
// were counted into the last line, so the file was refused for a line it does not have.
// The input comes through a pipe in pieces of 1 to 5 bytes and the reader takes each as it
// comes (ReadXMLFile); at every stop, what a short read leaves ParseFile to parse (the bytes so
// far, zeros to the file's size) gives the tree and result of those bytes alone.
TEST_F(XmlTokenizer, InputInPiecesGivesAtEveryStopTheTreeOfTheBytesSoFar)
{
    std::string Small = ReadAll(ZEL_TEST_DATA "/unit/trees/typical.xml") +
                        ReadAll(ZEL_TEST_DATA "/unit/trees/cdata-multiline.xml"),
                Large;
    while (Large.size() <= 2 * XML_LINE_MAX)
        Large += "<item name=\"n" + std::to_string(Large.size()) + "\">text &amp; more</item>\n";
    for (const std::string *Text : {&Small, &Large}) {
        int Pipe[2];
        ASSERT_EQ(pipe(Pipe), 0);
        long Size = static_cast<long>(Text->size());
        std::vector<char> Buffer(Size + 1, 0);
        long Got = 0, Stops = 0;
        unsigned Seed = 7;
        while (Got < Size) {
            long Piece = std::min<long>(1 + (Seed = Seed * 1103515245 + 12345) % 5, Size - Got);
            ASSERT_EQ(write(Pipe[1], Text->data() + Got, Piece), Piece);
            ASSERT_EQ(ReadXMLFile(Pipe[0], Buffer.data() + Got, Size - Got), Piece);
            Got += Piece;
            if (Text == &Large && ++Stops % 97 != 0 && Got < Size)
                continue;
            std::vector<char> Short = Buffer, Alone(Buffer.begin(), Buffer.begin() + Got);
            long ShortResult, AloneResult;
            std::string Out = Captured([&] {
                DeleteTree();
                ShortResult = InternalParseXML(Short.data(), Size);
                std::string ShortTree = Tree(true);
                DeleteTree();
                AloneResult = InternalParseXML(Alone.data(), Got);
                EXPECT_EQ(ShortTree, Tree(true)) << Got << " of " << Size;
            });
            ASSERT_EQ(ShortResult, AloneResult) << Got << " of " << Size << ": " << Out;
        }
        close(Pipe[1]);
        EXPECT_EQ(ReadXMLFile(Pipe[0], Buffer.data(), Size), 0); // the end of the input
        close(Pipe[0]);
        EXPECT_EQ(Tree(true), Parse(*Text, nullptr, true));
    }
}

TEST_F(XmlTokenizer, DeepAndWideTreesAreBuiltAndDeletedWithoutRecursion)
{
    std::string Text;
    for (int Index = 0; Index < 200000; Index++)
        Text += "<a>\n";
    for (int Index = 0; Index < 200000; Index++)
        Text += "<b/>\n";
    ASSERT_EQ(ParseFile(Write("deep.xml", Text).c_str()), 0);
    DeleteSection(FirstSection->Child); // the open innermost section goes with it
    EXPECT_EQ(FirstSection->Child, nullptr);
    EXPECT_EQ(ActiveSection, FirstSection);
    EXPECT_EQ(InsertToken(const_cast<char *>("<after"), XML_ELEMENT_START), 0UL);
    EXPECT_EQ(Tree(), "(root)\n  after\n");
    EXPECT_EQ(DeleteTree(), 0UL);
    EXPECT_EQ(FirstSection, nullptr);
}

TEST_F(XmlTokenizer, DebugModeTracesParsingCdataAndDeletionInTreeOrder)
{
    std::string Path = Write("d.xml", "<a>\n<b/>\n</a>\n<c>\n<![CDATA[x]]>\n");
    DEBUG_FLAG = 1;
    EXPECT_EQ(Captured([&] {
                  ParseFile(Path.c_str());
                  DeleteTree();
              }),
              "XMLTOKENIZER--Parsing file, " + Path +
                  "\nXMLTOKENIZER--Calling InternalParseXML, CurrentlyInstalledOS = (null)\n"
                  "CDATA found is x\nCDATA string is being copied to CDATA structure.\n"
                  "CDATA string has been copied.\nNow deleting the sections of the tree.\n"
                  "Now deleting section a\nNow deleting section b\nNow deleting section c\n");
}

TEST_F(XmlTokenizer, CurrentFileRuleParsesOncePerPathAndReplacesOnSwitch)
{
    std::string A = Write("a.xml", "<a/>\n");
    ASSERT_EQ(UseXMLFile(A.c_str()), 0);
    Write("a.xml", "<changed/>\n");
    ASSERT_EQ(UseXMLFile(A.c_str()), 0);
    EXPECT_EQ(Tree(), "(root)\n  a\n");
    ASSERT_EQ(UseXMLFile(Write("b.xml", "<b/>\n").c_str()), 0);
    EXPECT_EQ(Tree(), "(root)\n  b\n");
    Captured([&] { EXPECT_NE(UseXMLFile((Dir + "/none.xml").c_str()), 0); });
    EXPECT_EQ(FirstSection, nullptr);

    char Saved[4096];
    ASSERT_NE(getcwd(Saved, sizeof Saved), nullptr);
    ASSERT_EQ(chdir(Dir.c_str()), 0);
    EXPECT_EQ(UseXMLFile("a.xml"), 0);
    EXPECT_EQ(Tree(), "(root)\n  changed\n");
    Write("a.xml", "<again/>\n");
    EXPECT_EQ(UseXMLFile("./a.xml"), 0);
    EXPECT_EQ(Tree(), "(root)\n  again\n");
    ASSERT_EQ(chdir(Saved), 0);
}

// ---- Lookups over the tree ----------------------------------------------------------------------

class XmlNavigation : public XmlTokenizer {
protected:
    SECTIONPTR Package() { return FindFirstChildOf(GetRootNode(), "zel_package"); }
};

// Children are found directly below, by exact name, in document order; an attribute and a
// section's text or CDATA pair by position.
TEST_F(XmlNavigation, LookupsAreDirectExactInDocumentOrderAndPairByPosition)
{
    Parse(
        "<zel_package>\n<linux>\n<deep/>\n</linux>\n<other/>\n<linux n=\"2\"/>\n"
        "<a lang=\"en\" lang=\"de\">Text</a>\n<b x=\"1\" lang=\"en\">Only</b>\n"
        "<c lang=\"en\">\n<![CDATA[Block]]>\n</c>\n</zel_package>\n<zel_package n=\"second\"/>\n");
    SECTIONPTR Top = Package();
    ASSERT_NE(Top, nullptr);
    EXPECT_STREQ(GetAttribute(GetNextSibling(Top), "n"), "second");
    SECTIONPTR First = FindFirstChildOf(Top, "linux");
    ASSERT_NE(First, nullptr);
    EXPECT_STREQ(GetAttribute(GetNextSibling(First), "n"), "2");
    EXPECT_EQ(GetNextSibling(GetNextSibling(First)), nullptr);
    EXPECT_EQ(FindFirstChildOf(Top, "deep"), nullptr);
    EXPECT_EQ(FindFirstChildOf(Top, "LINUX"), nullptr);
    EXPECT_EQ(FindFirstChildOf(Top, nullptr), nullptr);

    SECTIONPTR A = FindFirstChildOf(Top, "a"), C = FindFirstChildOf(Top, "c");
    EXPECT_STREQ(GetAttribute(A, "lang"), "en");
    EXPECT_STREQ(GetFirstChild(A, "en"), "Text");
    EXPECT_EQ(GetFirstChild(A, "de"), nullptr);
    EXPECT_EQ(GetFirstChild(FindFirstChildOf(Top, "b"), "en"), nullptr);
    EXPECT_EQ(GetFirstChild(C, "en"), nullptr);
    EXPECT_STREQ(GetFirstCDATAChild(C, "en"), "Block");
    EXPECT_STREQ(GetFirstCDATA(C), "Block");
    EXPECT_STREQ(GetFirstToken(A), "Text");
    EXPECT_EQ(GetFirstToken(nullptr), nullptr);
    EXPECT_EQ(GetFirstCDATA(A), nullptr);
}

// The walk follows its steps below the installed distribution and reports what is missing;
// switching to a file that fails is silent in the walk, a first parse that fails is not.
TEST_F(XmlNavigation, WalkFollowsStepsAndReportsWhatIsMissing)
{
    std::string Path = Write("c.xml", "<zel_package>\n<platform_specific>\n<LINUX>\n"
                                      "<Red_Hat_Linux_7.3 v=\"1\"/>\n");
    std::string Empty = Write("empty.xml", "");
    const XMLSTEP Steps[] = {{"zel_package", nullptr}, {"platform_specific", "platform_specific"},
                             {"LINUX", "LINUX"}, {XML_INSTALLED_OS, nullptr}};
    const XMLSTEP Wrong[] = {{"zel_package", nullptr}, {"linux", "linux"}};
    int Failure = -1;
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(WalkToSection(Path.c_str(), Steps, 4, &Failure), nullptr);
                  EXPECT_EQ(Failure, XML_WALK_MISSING);
                  SetInstalledOS("Red_Hat_Linux_7.3");
                  EXPECT_STREQ(GetAttribute(WalkToSection(Path.c_str(), Steps, 4, &Failure), "v"),
                               "1");
                  EXPECT_EQ(Failure, XML_WALK_OK);
                  EXPECT_EQ(WalkToSection(Path.c_str(), Wrong, 2, &Failure), nullptr);
              }),
              Missing("linux"));
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(WalkToSection(Empty.c_str(), Steps, 4, &Failure), nullptr);
                  EXPECT_EQ(Failure, XML_WALK_SWITCH_FAILED);
                  EXPECT_EQ(WalkToSection(Empty.c_str(), Steps, 4, &Failure), nullptr);
                  EXPECT_EQ(Failure, XML_WALK_MISSING);
              }),
              "XML File is missing for " + Empty + "\nXML File is missing for " + Empty +
                  "\nThe XML file is corrupt.  The root node is null.\n");
}

TEST_F(XmlNavigation, LanguageSelectionTakesTheFirstExactMatchWithContent)
{
    Parse("<zel_package>\n<name>\n<name_xlate lang=\"en_US\">US</name_xlate>\n"
          "<name_xlate lang=\"en\"></name_xlate>\n<name_xlate>None</name_xlate>\n"
          "<name_xlate lang=\"en\">English</name_xlate>\n</name>\n<description>\n"
          "<description_xlate lang=\"de\">\n<![CDATA[Deutsch]]>\n</description_xlate>\n"
          "</description>\n</zel_package>\n");
    SECTIONPTR Name = FindFirstChildOf(Package(), "name");
    SECTIONPTR Description = FindFirstChildOf(Package(), "description");
    EXPECT_STREQ(SelectLanguage(Name, "name_xlate", "en", 0), "English");
    EXPECT_STREQ(SelectLanguage(Description, "description_xlate", "de", 1), "Deutsch");
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(SelectLanguage(Name, "name_xlate", "fr", 0), nullptr);
                  EXPECT_EQ(SelectLanguage(Description, "description_xlate", "de", 0), nullptr);
              }),
              Missing("name_xlate") + Missing("description_xlate"));
}

} // namespace
