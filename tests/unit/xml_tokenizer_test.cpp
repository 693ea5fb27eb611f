// The tokenizer of the XML dialect: golden trees for its corner cases, its failures, the
// current-file rule, and the inputs that once crashed it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "package_fixture.h"

namespace {

std::string Escaped(const char *Text)
{
    std::string Out;
    for (; *Text; Text++)
        Out += *Text == '\n' ? std::string("\\n") : *Text == '\t' ? std::string("\\t")
                                                                    : std::string(1, *Text);
    return Out;
}

// One line per section, indented by depth: name, then @attribute=value, "text", [cdata].
void DumpSection(SECTIONPTR Section, int Depth, std::string &Out)
{
    Out += std::string(2 * Depth, ' ') + (Section->Name ? Escaped(Section->Name) : "(root)");
    for (KEYPTR Key = Section->NextKey; Key; Key = Key->NextKey)
        Out += " @" + Escaped(Key->Attribute) + "=" + Escaped(Key->Value);
    for (TOKENPTR Text = Section->NextToken; Text; Text = Text->NextToken)
        Out += " \"" + Escaped(Text->Token) + "\"";
    for (CDATAPTR Block = Section->NextCDATA; Block; Block = Block->NextCDATA)
        Out += " [" + Escaped(Block->CDATAString) + "]";
    Out += "\n";
    for (SECTIONPTR Child = Section->Child; Child; Child = Child->NextSibling)
        DumpSection(Child, Depth + 1, Out);
}

std::string Tree()
{
    std::string Out;
    if (FirstSection)
        DumpSection(FirstSection, 0, Out);
    return Out;
}

class XmlTokenizer : public PackageTest {
protected:
    // Parses Text as a file and returns the tree (the result code in *Result).
    std::string Parse(const std::string &Text, long *Result = nullptr)
    {
        DeleteTree();
        long Code = ParseFile(Write("t.xml", Text).c_str());
        if (Result)
            *Result = Code;
        return Tree();
    }
};

// Each input file and the tree it must give.
TEST_F(XmlTokenizer, GoldenTrees)
{
    const struct {
        const char *Input, *Tree;
    } Cases[] = {
        // The typical tree; the declaration line is ignored.
        {"<?xml version=\"1.0\"?>\n<zel_package>\n  <version value=\"2.1.0\"/>\n"
         "  <name>\n    <name_xlate lang=\"en\">Network driver</name_xlate>\n  </name>\n"
         "</zel_package>\n",
         "(root)\n  zel_package\n    version @value=2.1.0\n    name\n"
         "      name_xlate @lang=en \"Network driver\"\n"},
        {"<?xml version=\"1.0\"?><zel_package>\n<a/>\n", "(root)\n  a\n"},
        // Self-closing tags and several tags on one line.
        {"<r>\n<reboot_required value=\"yes\"/>\n<reboot_required value=\"yes\" />\n"
         "<a x=\"1\"/><b y=\"2\"/>\n<c/>\n",
         "(root)\n  r\n    reboot_required @value=yes\n    reboot_required @value=yes\n"
         "    a @x=1\n      b @y=2\n      c\n"},
        {"<p><q>t</q><q>u</q></p>\n", "(root)\n  p\n    q \"t\"\n    q \"u\"\n"},
        // Text keeps spaces only after a letter or digit.
        {"<r>\n<command>rpm -Uvh x.rpm</command>\n<command>./setup.sh -f</command>\n"
         "alone on a line\n<t>dangling text\n</t>\n<e>x = y</e>\n<v w=\"a=b\" n= />\n",
         "(root)\n  r\n    command \"rpm -Uvh x.rpm\"\n    command \"./setup.sh-f\"\n"
         "    t\n    e @x=y\n    v @w=a @n=\n"},
        // A tab after the name makes one attribute of the enclosing section.
        {"<a>\n<version\tvalue=\"2\"/>\n<b/>\n", "(root)\n  a @version\\tvalue=2\n  b\n"},
        // CDATA lines and the line after them.
        {"<d>\n    <![CDATA[Some text]]>\n    </d>\n<e>\n", "(root)\n  d \"    \" [Some text]\n  e\n"},
        {"<d>\n  <![CDATA[one]]>\n  <![CDATA[two]]>\n</d>\n", "(root)\n  d [one] [A[two]\n"},
        {"<d>\n  <![CDATA[line 1\n  line 2\nline 3]]>\n</d>\n",
         "(root)\n  d [line 1\\n  line 2\\nline 3]\n"},
        {"<d>\n<x lang=\"en\"><![CDATA[Text]]></x>\n</d>\n<e/>\n",
         "(root)\n  d [en\"><![CDATA[Text]]><]\n  e\n"},
        // Carriage returns are whitespace; a "CDATA" line shorter than its markers is empty.
        {"<d>\r\n<a>x y</a>\r\n<![CDATA[]]>\r\n<![CDATA[x", "(root)\n  d [] []\n    a \"x y\"\n"},
        // Comments open elements; end tags at the root stay there.
        {"<!-- note -->\n<a>\n", "(root)\n  !-- \" note\" \" --\"\n    a\n"},
        {"</x>\n</y>\n<a>\n", "(root)\n  a\n"},
    };
    for (const auto &Case : Cases)
        EXPECT_EQ(Parse(Case.Input), Case.Tree) << Escaped(Case.Input);
}

TEST_F(XmlTokenizer, FailuresReportAndLeaveNoCurrentFile)
{
    long Result = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse("", &Result), "");
    EXPECT_EQ(Result, XML_OPEN_FAILED);
    EXPECT_EQ(ParseFile((Dir + "/none.xml").c_str()), XML_OPEN_FAILED);
    EXPECT_EQ(ParseFile(nullptr), XML_OPEN_FAILED);
    ASSERT_EQ(mkfifo((Dir + "/fifo.xml").c_str(), 0600), 0);
    EXPECT_EQ(ParseFile((Dir + "/fifo.xml").c_str()), XML_OPEN_FAILED); // and does not hang
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "XML File is missing for " + Dir + "/t.xml\nUnable to open XML file " + Dir +
                  "/none.xml\nThe XML file " + Dir + "/fifo.xml is not a regular file; it is refused.\n");
    EXPECT_EQ(CurrentXMLFileParsed, nullptr);

    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse("<a>\n<b>\n<![CDATA[never closed\n</b>\n", &Result), "(root)\n  a\n    b\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "XML file is corrupted.  Please download the package and restart the \n"
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
    EXPECT_EQ(Parse(Fits + "\n", &Result), "(root)\n  a \"" + std::string(XML_LINE_MAX - 8, 'x') + "\"\n");
    EXPECT_EQ(Result, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse("<b/>\n" + Fits + "x\n", &Result), "(root)\n  b\n");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("longer than 16383"), std::string::npos);
    EXPECT_EQ(Result, XML_PARSE_FAILED);
    // A CDATA block counts as one line with its line breaks.
    testing::internal::CaptureStdout();
    Parse("<![CDATA[\n" + std::string(XML_LINE_MAX - 12, 'y') + "]]>", &Result);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Result, XML_PARSE_FAILED);
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
    char *SavedOS = CurrentlyInstalledOS;
    CurrentlyInstalledOS = nullptr;
    std::string Path = Write("d.xml", "<a>\n<b/>\n</a>\n<c>\n<![CDATA[x]]>\n");
    DEBUG_FLAG = 1;
    testing::internal::CaptureStdout();
    ParseFile(Path.c_str());
    DeleteTree();
    std::string Out = testing::internal::GetCapturedStdout();
    DEBUG_FLAG = 0;
    CurrentlyInstalledOS = SavedOS;
    EXPECT_EQ(Out, "XMLTOKENIZER--Parsing file, " + Path +
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
    testing::internal::CaptureStdout();
    EXPECT_NE(UseXMLFile((Dir + "/none.xml").c_str()), 0);
    testing::internal::GetCapturedStdout();
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

} // namespace
