// Component files: the XML file name, the file checks, and which files are opened at all (the
// readers over component files are in readers_test.cpp).
#include <sys/inotify.h>
#include <sys/stat.h>

#include "package_fixture.h"

namespace {

class Components : public PackageTest {};

TEST_F(Components, XMLFileNameAndFileChecks)
{
    const char *Names[][3] = {{"driver-1.0-1.i386.rpm", "0", "driver-1.0-1.i386.xml"},
                              {"setup.RPM", "0", "setup.xml"},
                              {"./driver", "0", ".xml"},
                              {"README", "-1", "untouched"}};
    for (auto &Case : Names) {
        char Out[COMPONENT_FIELD_SIZE] = "untouched";
        EXPECT_EQ(atoi(Case[1]), FindCorrespondingXMLFileName(Case[0], Out)) << Case[0];
        EXPECT_STREQ(Case[2], Out);
    }
    char Xml[COMPONENT_FIELD_SIZE] = {};
    std::string Long = std::string(252, 'a') + ".rpm"; // 252 + ".xml" does not fit, 251 does
    EXPECT_EQ(0, FindCorrespondingXMLFileName(Long.c_str() + 1, Xml));
    EXPECT_TRUE(
        Has(Captured([&] { EXPECT_EQ(-1, FindComponentXmlFile(Long.c_str(), Xml)); }), "refused"));

    std::string Rpm = Write("a.rpm", "payload");
    EXPECT_EQ("XML File " + Dir + "/a.xml returned error No such file or directory\n",
              Captured([&] { EXPECT_EQ(-1, FindComponentXmlFile(Rpm.c_str(), Xml)); }));
    Write("a.xml", "");
    EXPECT_EQ(RZP_COMPONENT_XML_EMPTY, FindComponentXmlFile(Rpm.c_str(), Xml));
    Write("a.xml", "<version value=\"2.1.0\"/>\n");
    SetInstalledOS("UnitedLinux_1.0");
    setenv("SP3", "YES", 1);
    EXPECT_EQ(0, FindComponentXmlFile(Rpm.c_str(), Xml));
    unsetenv("SP3");
    EXPECT_EQ(Dir + "/a.xml", Xml);
    EXPECT_STREQ("UnitedLinux_1.0_SP3", CurrentlyInstalledOS);

    EXPECT_EQ(0, DoesComponentFileExist(Rpm.c_str()));
    EXPECT_EQ(RZP_COMPONENT_FILE_EMPTY, DoesComponentFileExist(Write("empty.rpm", "").c_str()));
    EXPECT_EQ("",
              Captured([&] { EXPECT_EQ(-1, DoesComponentFileExist((Dir + "/no.rpm").c_str())); }));
}

// A bundle's XML and component files that lead to something other than a regular file (a
// FIFO, a directory, a link to a device) are refused without being opened, each XML file in
// the words of a file that cannot be opened and in no others (they once had a wording of their
// own); a link to a regular file is followed; an XML file above XML_FILE_MAX is refused before
// it is read.
TEST_F(Components, OnlyRegularFilesOfBoundedSizeAreOpened)
{
    std::string Fifo = Dir + "/fifo";
    ASSERT_EQ(0, mkfifo(Fifo.c_str(), 0600));
    int Watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(Watch, 0);
    ASSERT_GE(inotify_add_watch(Watch, Fifo.c_str(), IN_OPEN), 0);
    ASSERT_EQ(0, mkdir((Dir + "/bp0dir.xml").c_str(), 0700));
    ASSERT_EQ(0, mkdir((Dir + "/dir.xml").c_str(), 0700));
    ASSERT_EQ(0, symlink("/dev/null", (Dir + "/bp0dev.xml").c_str()));
    ASSERT_EQ(0, symlink("/dev/null", (Dir + "/dev.xml").c_str()));
    for (const char *Leaf : {"bp0link.xml", "drv.xml", "drv.rpm", "other.rpm"})
        ASSERT_EQ(0, symlink(Fifo.c_str(), (Dir + "/" + Leaf).c_str()));

    std::string Expected;
    std::string Out = Captured([&] {
        for (const char *Leaf : {"bp0link.xml", "fifo", "bp0dir.xml", "bp0dev.xml"})
            EXPECT_EQ(XML_OPEN_FAILED, ParseFile((Dir + "/" + Leaf).c_str())) << Leaf;
        char Xml[COMPONENT_FIELD_SIZE] = {};
        for (const char *Leaf : {"drv.rpm", "dir.rpm", "dev.rpm"})
            EXPECT_EQ(-1, FindComponentXmlFile((Dir + "/" + Leaf).c_str(), Xml)) << Leaf;
    });
    for (const char *Leaf :
         {"bp0link.xml", "fifo", "bp0dir.xml", "bp0dev.xml", "drv.xml", "dir.xml", "dev.xml"})
        Expected += "Unable to open XML file " + Dir + "/" + Leaf + "\n";
    EXPECT_EQ(Expected, Out);
    // A component file that is not a regular file is refused with no wording of its own.
    EXPECT_EQ("", Captured([&] {
        EXPECT_EQ(-1, DoesComponentFileExist((Dir + "/other.rpm").c_str()));
    }));
    char Events[4096]; // any IN_OPEN event since the watch began
    EXPECT_LE(read(Watch, Events, sizeof Events), 0) << "the FIFO was opened";
    close(Watch);

    std::string Real = Write("real.xml", "<zel_bundle>\n</zel_bundle>\n");
    ASSERT_EQ(0, symlink(Real.c_str(), (Dir + "/bp0real.xml").c_str()));
    EXPECT_EQ(0, ParseFile((Dir + "/bp0real.xml").c_str()));

    std::string Huge = Dir + "/huge.xml";
    ASSERT_EQ(0, truncate(Write("huge.xml", "<zel_package>\n").c_str(), XML_FILE_MAX + 1L));
    EXPECT_EQ("The XML file " + Huge + " is larger than 16777216 bytes; it is refused.\n",
              Captured([&] { EXPECT_EQ(XML_OPEN_FAILED, ParseFile(Huge.c_str())); }));
}

} // namespace
