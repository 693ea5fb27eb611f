// Lookups over the XML tree and the readers' shared helpers: the walk with its messages and
// the language selection.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "xmltokenizer.h"

namespace {

class XmlNavigation : public ::testing::Test {
protected:
    char *SavedOS = nullptr;
    void SetUp() override
    {
        DeleteTree();
        SavedOS = CurrentlyInstalledOS;
        CurrentlyInstalledOS = nullptr;
    }
    void TearDown() override
    {
        DeleteTree();
        CurrentlyInstalledOS = SavedOS;
    }
    // Builds the tree from Text without a file.
    void Build(std::string Text)
    {
        DeleteTree();
        ASSERT_EQ(InternalParseXML(&Text[0], static_cast<long>(Text.size())), 0);
    }
    SECTIONPTR Package() { return FindFirstChildOf(GetRootNode(), "zel_package"); }
};

TEST_F(XmlNavigation, ChildLookupIsDirectExactAndInDocumentOrder)
{
    Build("<zel_package>\n<linux>\n<deep/>\n</linux>\n<other/>\n<linux n=\"2\"/>\n</zel_package>\n"
          "<zel_package n=\"second\"/>\n");
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
}

TEST_F(XmlNavigation, AttributesAndContentPairByPosition)
{
    Build("<zel_package>\n<a lang=\"en\" lang=\"de\">Text</a>\n<b x=\"1\" lang=\"en\">Only</b>\n"
          "<c lang=\"en\">\n<![CDATA[Block]]>\n</c>\n</zel_package>\n");
    SECTIONPTR A = FindFirstChildOf(Package(), "a");
    EXPECT_STREQ(GetAttribute(A, "lang"), "en");
    EXPECT_STREQ(GetFirstChild(A, "en"), "Text");
    EXPECT_EQ(GetFirstChild(A, "de"), nullptr);
    EXPECT_EQ(GetFirstChild(FindFirstChildOf(Package(), "b"), "en"), nullptr);
    SECTIONPTR C = FindFirstChildOf(Package(), "c");
    EXPECT_EQ(GetFirstChild(C, "en"), nullptr);
    EXPECT_STREQ(GetFirstCDATAChild(C, "en"), "Block");
    EXPECT_STREQ(GetFirstCDATA(C), "Block");
    EXPECT_STREQ(GetFirstToken(A), "Text");
    EXPECT_EQ(GetFirstToken(nullptr), nullptr);
    EXPECT_EQ(GetFirstCDATA(A), nullptr);
}

TEST_F(XmlNavigation, WalkFollowsStepsAndReportsWhatIsMissing)
{
    char Template[] = "/tmp/xmlnav-XXXXXX";
    ASSERT_NE(mkdtemp(Template), nullptr);
    std::string Path = std::string(Template) + "/c.xml";
    std::string Empty = std::string(Template) + "/empty.xml";
    FILE *File = fopen(Path.c_str(), "w");
    fputs("<zel_package>\n<platform_specific>\n<LINUX>\n<Red_Hat_Linux_7.3 v=\"1\"/>\n", File);
    fclose(File);
    fclose(fopen(Empty.c_str(), "w"));
    const XMLSTEP Steps[] = {{"zel_package", nullptr}, {"platform_specific", "platform_specific"},
                             {"LINUX", "LINUX"}, {XML_INSTALLED_OS, nullptr}};
    int Failure = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(WalkToSection(Path.c_str(), Steps, 4, &Failure), nullptr);
    EXPECT_EQ(Failure, XML_WALK_MISSING);
    char OS[] = "Red_Hat_Linux_7.3";
    CurrentlyInstalledOS = OS;
    EXPECT_STREQ(GetAttribute(WalkToSection(Path.c_str(), Steps, 4, &Failure), "v"), "1");
    EXPECT_EQ(Failure, XML_WALK_OK);
    const XMLSTEP Wrong[] = {{"zel_package", nullptr}, {"linux", "linux"}};
    EXPECT_EQ(WalkToSection(Path.c_str(), Wrong, 2, &Failure), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "The XML file is corrupt.  The 'linux' section cannot be found.\n");
    // Switching to a file that fails is silent in the walk; a first parse that fails is not.
    testing::internal::CaptureStdout();
    EXPECT_EQ(WalkToSection(Empty.c_str(), Steps, 4, &Failure), nullptr);
    EXPECT_EQ(Failure, XML_WALK_SWITCH_FAILED);
    EXPECT_EQ(WalkToSection(Empty.c_str(), Steps, 4, &Failure), nullptr);
    EXPECT_EQ(Failure, XML_WALK_MISSING);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "XML File is missing for " + Empty + "\nXML File is missing for " + Empty +
                  "\nThe XML file is corrupt.  The root node is null.\n");
    CurrentlyInstalledOS = nullptr;
    std::string Command = std::string("rm -rf ") + Template;
    ASSERT_EQ(system(Command.c_str()), 0);
}

TEST_F(XmlNavigation, LanguageSelectionTakesTheFirstExactMatchWithContent)
{
    Build("<zel_package>\n<name>\n<name_xlate lang=\"en_US\">US</name_xlate>\n"
          "<name_xlate lang=\"en\"></name_xlate>\n<name_xlate>None</name_xlate>\n"
          "<name_xlate lang=\"en\">English</name_xlate>\n</name>\n<description>\n"
          "<description_xlate lang=\"de\">\n<![CDATA[Deutsch]]>\n</description_xlate>\n"
          "</description>\n</zel_package>\n");
    SECTIONPTR Name = FindFirstChildOf(Package(), "name");
    SECTIONPTR Description = FindFirstChildOf(Package(), "description");
    EXPECT_STREQ(SelectLanguage(Name, "name_xlate", "en", 0), "English");
    EXPECT_STREQ(SelectLanguage(Description, "description_xlate", "de", 1), "Deutsch");
    testing::internal::CaptureStdout();
    EXPECT_EQ(SelectLanguage(Name, "name_xlate", "fr", 0), nullptr);
    EXPECT_EQ(SelectLanguage(Description, "description_xlate", "de", 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "The XML file is corrupt.  The 'name_xlate' section cannot be found.\n"
              "The XML file is corrupt.  The 'description_xlate' section cannot be found.\n");
}

} // namespace
