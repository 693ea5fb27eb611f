// xml_lines_test.cpp - the source line that the tokenizer puts into every record of the tree
// (what lint reports findings at): physical lines counted across multi-line CDATA blocks,
// records made from one line share it, a last line without LF has its own.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "xmltokenizer.h"

static void Parse(const std::string &Text)
{
    DeleteTree();
    std::string Buffer = Text;
    ASSERT_EQ(InternalParseXML(&Buffer[0], static_cast<long>(Buffer.size())), 0);
}

TEST(XmlLines, RecordsCarryTheLineWhereTheyStart)
{
    Parse("<?xml version=\"1.0\"?>\n"                       // 1
          "<zel_package>\n"                                 // 2
          "  <version value=\"1.0\"/>\n"                    // 3
          "  <description>\n"                               // 4
          "    <![CDATA[two\n"                              // 5
          "    lines]]>\n"                                  // 6
          "    <![CDATA[third]]>\n"                         // 7 (taken unchanged)
          "  </description>\n"                              // 8
          "  <command>rpm -Uvh x.rpm</command>\n"           // 9
          "</zel_package>");                                // 10, no LF
    SECTIONPTR Package = FindFirstChildOf(FirstSection, "zel_package");
    ASSERT_NE(Package, nullptr);
    EXPECT_EQ(Package->Line, 2);
    SECTIONPTR Version = FindFirstChildOf(Package, "version");
    ASSERT_NE(Version, nullptr);
    EXPECT_EQ(Version->Line, 3);
    EXPECT_EQ(Version->NextKey->Line, 3);
    SECTIONPTR Description = FindFirstChildOf(Package, "description");
    ASSERT_NE(Description, nullptr);
    ASSERT_NE(Description->NextCDATA, nullptr);
    EXPECT_EQ(Description->NextCDATA->Line, 5);
    ASSERT_NE(Description->NextCDATA->NextCDATA, nullptr);
    EXPECT_EQ(Description->NextCDATA->NextCDATA->Line, 7);
    SECTIONPTR Command = FindFirstChildOf(Package, "command");
    ASSERT_NE(Command, nullptr);
    EXPECT_EQ(Command->Line, 9);
    EXPECT_EQ(Command->NextToken->Line, 9);
    EXPECT_EQ(FirstSection->Line, 0);
    DeleteTree();
}

TEST(XmlLines, LastLineWithoutLineFeedAndDirectCalls)
{
    Parse("<a>\n\n<b>text</b>");
    SECTIONPTR A = FindFirstChildOf(FirstSection, "a");
    ASSERT_NE(A, nullptr);
    SECTIONPTR B = FindFirstChildOf(A, "b");
    ASSERT_NE(B, nullptr);
    EXPECT_EQ(B->Line, 3);
    char Line[] = "<c>x</c>";
    FindXMLTokens(Line); // not from a buffer: no line known
    SECTIONPTR C = FindFirstChildOf(A, "c");
    ASSERT_NE(C, nullptr);
    EXPECT_EQ(C->Line, 0);
    DeleteTree();
}
