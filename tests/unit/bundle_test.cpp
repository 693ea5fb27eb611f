// Bundle files: finding them in directory order, the five matching rules against the
// installed distribution, and the contents reader.
#include <sys/stat.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "package_fixture.h"

namespace {

// A bundle whose List element holds the Lines, each on its own line.
std::string Bundle(const std::string &List, const std::vector<std::string> &Lines)
{
    std::string Text = "<zel_bundle>\n<" + List + ">\n";
    for (const std::string &Line : Lines)
        Text += Line + "\n";
    return Text + "</" + List + ">\n</zel_bundle>\n";
}

// A bundle that lists the operating systems Names, "|" between two ("" for an entry without
// text).
std::string Systems(const std::string &Names)
{
    std::vector<std::string> Lines;
    std::istringstream In(Names);
    for (std::string Name; std::getline(In, Name, '|');)
        Lines.push_back("<operating_system>\n" +
                        (Name.empty() ? ""
                                      : "<operating_system_xlate lang=\"en\">" + Name +
                                            "</operating_system_xlate>\n") +
                        "</operating_system>");
    return Bundle("operating_systems", Lines);
}

class Bundles : public PackageTest {};

TEST_F(Bundles, FindsBundleFilesInDirectoryOrder)
{
    for (const char *Name :
         {"bp000101.xml", "readme.txt", "BP000102.XML", "xbp0.xml.bak", "bp0.txt"})
        Write(Name, "x");
    const std::set<std::string> Bundles = {"bp000101.xml", "BP000102.XML", "xbp0.xml.bak"};
    std::vector<std::string> Expected; // in the order the directory yields them
    for (const auto &Entry : std::filesystem::directory_iterator(Dir))
        if (Bundles.count(Entry.path().filename()))
            Expected.push_back(Entry.path());

    char FileName[BUNDLE_FIELD_SIZE] = "stale";
    BundleInfo Info = {FileName, nullptr, nullptr, 0, &Info};
    for (int Index = 0; Index < 3; Index++) {
        ASSERT_EQ(0, FindBundleXmlFile(Dir.c_str(), Index, &Info));
        EXPECT_EQ(Expected[Index], FileName);
        EXPECT_TRUE(Info.Status == BUNDLE_FOUND && Info.Next == nullptr);
    }
    EXPECT_EQ(XML_OPEN_FAILED, FindBundleXmlFile(Dir.c_str(), 3, &Info));
    EXPECT_STREQ("", FileName);
    ASSERT_EQ(0, FindBundleXmlFile((Dir + "/").c_str(), 0, &Info));
    EXPECT_EQ(0, strncmp(FileName, (Dir + "//").c_str(), Dir.size() + 2));
    EXPECT_EQ(XML_OPEN_FAILED, FindBundleXmlFile(Dir.c_str(), 0, nullptr));
    EXPECT_EQ(XML_OPEN_FAILED, FindBundleXmlFile((Dir + "/none").c_str(), 0, &Info));

    // A path that would not fit FileName is skipped and takes no position.
    std::string Long = Dir + "/" + std::string(240 - Dir.size(), 'd');
    ASSERT_EQ(0, mkdir(Long.c_str(), 0755));
    std::ofstream(Long + "/bp0-" + std::string(30, 'n') + ".xml") << "x";
    std::ofstream(Long + "/bp01.xml") << "x";
    ASSERT_EQ(0, FindBundleXmlFile(Long.c_str(), 0, &Info));
    EXPECT_EQ(Long + "/bp01.xml", FileName);
    EXPECT_TRUE(Has(Captured([&] { FindBundleXmlFile(Long.c_str(), 1, &Info); }),
                    "is longer than 255 characters; it is skipped.\n"));
}

class Matching : public PackageTest {
protected:
    bool Sandboxed() const override { return true; }
    // Runs the matching of a bundle with Systems on a machine with the Release file.
    signed char Supported(const char *Release, const std::string &Names, std::string *Out)
    {
        SetRelease(Release);
        std::string Path = Write("bp0" + std::to_string(++Serial) + ".xml", Systems(Names));
        signed char Result = -1;
        *Out = Captured([&] { Result = IsOSSupportedByBundle(Path.c_str()); });
        return Result;
    }
};

// For each installed distribution: bundles it accepts (entries split by '|'), with the message
// naming the rule that did, and bundles it rejects.
TEST_F(Matching, EachRuleAcceptsAndRejects)
{
    struct {
        const char *Release, *Found;
        std::vector<std::string> Accepted, Rejected;
    } Rules[] = {
        // An entry naming Advanced Server must hold its version; the entries after it are read.
        {AS21, "Advanced Server was found\n",
         {"Red Hat Linux Advanced Server 2.1",
          "Red Hat Linux Advanced Server 2.2|Red Hat Linux Advanced Server 2.1"},
         {"Red Hat Linux Advanced Server 2.2"}},
        {EL3, "Red Hat Enterprise Linux was found\n", {"Red Hat Enterprise Linux 3"},
         {"Red Hat Enterprise Linux 4"}},
        {RH73, "Red Hat Linux Professional was found\n", {"Red Hat Linux 7.3", "Red Hat Linux 7.31"},
         {"Red Hat Linux 8.0|UnitedLinux 7.3"}},
        {UL10, "UnitedLinux was found.\n", {"UnitedLinux 1.0"}, {"UnitedLinux 2.0"}},
        {SLES8, "(SLES) was found.\n", {"SUSE Linux Enterprise Server 9"}, {"SuSE SLES 8.1"}},
        // Every code fails: the empty name and version are contained in every entry, so the
        // first Red Hat entry matches (a planted /tmp/release.out fails the detection instead).
        {"Linux\n", "Red Hat Linux Professional was found\n",
         {"Red Hat Linux 7.3|Red Hat Enterprise Linux 3"}, {}},
    };
    VERBOSE_MODE = 1;
    std::string Out;
    auto Expect = [&](const char *Release, const std::string &Names, bool Accepted, const char *Says) {
        SCOPED_TRACE(Names);
        EXPECT_EQ(Accepted ? TRUE : FALSE, Supported(Release, Names, &Out));
        EXPECT_TRUE(Has(Out, Says)) << Out;
        EXPECT_EQ(!Accepted, Has(Out, "is not supported on this version of Linux.\n"));
    };
    for (const auto &Rule : Rules) {
        for (const std::string &Names : Rule.Accepted)
            Expect(Rule.Release, Names, true, Rule.Found);
        for (const std::string &Names : Rule.Rejected)
            Expect(Rule.Release, Names, false, "");
    }
    // An entry without text ends the search, silently, before a matching one.
    EXPECT_EQ(FALSE, Supported(RH73, "|Red Hat Linux 7.3", &Out));
    EXPECT_FALSE(Has(Out, "not supported")) << Out;
}

// A silent install says nothing; a bundle without systems, or one that fails to parse (read
// and reported once), is corrupt; without a tree the name reader reports a null root (the
// version and name readers over files are in readers.txt).
TEST_F(Matching, SilentInstallAndCorruptBundles)
{
    char Text[16] = {};
    EXPECT_EQ("Unable to open XML file \nThe XML file is corrupt.  The root node is null.\n",
              Captured([&] { EXPECT_EQ(-2, GetBundleName("", "en", Text, sizeof(Text))); }));
    std::string Out;
    SILENT_INSTALL = 1;
    EXPECT_EQ(FALSE, Supported(RH73, "Red Hat Linux 9", &Out));
    EXPECT_EQ("", Out);
    SILENT_INSTALL = 0;
    std::string NoSystems = Write("bp0.xml", "<zel_bundle>\n</zel_bundle>\n");
    EXPECT_EQ(Missing("operating_systems"),
              Captured([&] { EXPECT_EQ(FALSE, IsOSSupportedByBundle(NoSystems.c_str())); }));
    DeleteTree();
    std::string Broken = Write("bp0b.xml", "<zel_bundle>\n<![CDATA[never closed\n");
    Out = Captured([&] { EXPECT_EQ(FALSE, IsOSSupportedByBundle(Broken.c_str())); });
    EXPECT_EQ(Out.find("Error 10100"), Out.rfind("Error 10100"));
    EXPECT_TRUE(Has(Out, Missing("operating_systems")));
}

// From the first call on, the bundle is parsed before the detection runs, also when the
// detection then fails for want of a release file.
TEST_F(Matching, TheBundleIsParsedBeforeTheDetectionFromTheFirstCallOn)
{
    std::string Out;
    DEBUG_FLAG = 1;
    VERBOSE_MODE = 1;
    EXPECT_EQ(TRUE, Supported(RH73, "Red Hat Linux 7.3", &Out));
    size_t Parsing = Out.find("XMLTOKENIZER--Parsing file, ");
    ASSERT_NE(std::string::npos, Parsing) << Out;
    EXPECT_LT(Parsing, Out.find("Installed OS Version is Red Hat Linux 7.3 \n")) << Out;
    DeleteTree();
    std::string Path = Write("bp0n.xml", Systems("x"));
    ASSERT_EQ(0, SandboxClearReleaseFiles());
    Out = Captured([&] { EXPECT_EQ(FALSE, IsOSSupportedByBundle(Path.c_str())); });
    Parsing = Out.find("XMLTOKENIZER--Parsing file, " + Path);
    ASSERT_NE(std::string::npos, Parsing) << Out;
    EXPECT_LT(Parsing, Out.find("on an unsupported operating system.")) << Out;
    EXPECT_STREQ(Path.c_str(), CurrentXMLFileParsed);
}

TEST_F(Bundles, PackagesSelectedByInstallYesInAnyCase)
{
    ASSERT_NE(nullptr, AppendComponent("earlier.rpm"));
    std::string Path = Write(
        "bp0.xml",
        Bundle("contents", {"<package install=\"yes\">a-1.0.rpm</package>",
                            "<package install=\"No\">b-1.0.rpm</package>",
                            "<package install=\"Yes\">c-1.0.rpm</package>",
                            "<package>d-1.0.rpm</package>", "<package install=\"YES\"></package>",
                            "<package install=\"YES\">" + std::string(256, 'e') + ".rpm</package>",
                            "<package install=\"YES\">f-1.0.rpm</package>"}));
    int Count = 0;
    std::string Out = Captured([&] { Count = GetBundlePackages(Path.c_str()); });
    EXPECT_EQ(3, Count);
    std::string Names;
    for (COMPONENTINFOPTR C = ComponentList; C != nullptr; C = C->next) {
        Names += std::string(C->FileName) + " ";
        EXPECT_TRUE(C->Status == COMPONENT_LISTED && C->InstallStatus == INSTALL_STATUS_NOT_BUILT);
    }
    EXPECT_EQ("earlier.rpm a-1.0.rpm c-1.0.rpm f-1.0.rpm ", Names);
    EXPECT_TRUE(Has(Out, "has no 'install' attribute") && Has(Out, "has no file name") &&
                Has(Out, "longer than 255 characters; it is refused.\n"))
        << Out;

    std::string None = Write("bp0b.xml",
                             Bundle("contents", {"<package install=\"no\">a.rpm</package>"}));
    EXPECT_EQ(XML_NO_PACKAGES, GetBundlePackages(None.c_str()));
    std::string Empty = Write("bp0c.xml", Bundle("contents", {}));
    EXPECT_EQ(Missing("package"),
              Captured([&] { EXPECT_EQ(XML_NO_PACKAGES, GetBundlePackages(Empty.c_str())); }));
}

} // namespace
