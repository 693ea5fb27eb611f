// Component files: the XML file name, the file checks, and the readers over files that
// miss each element in turn, under the platform-specific and language selections.
#include "package_fixture.h"

namespace
{

const std::string Version = "<version value=\"2.1.0\"/>\n";
const std::string Name = "<name>\n<name_xlate lang=\"en\">Network driver</name_xlate>\n</name>\n";
const std::string Description =
    "<description>\n<description_xlate lang=\"en\">\n"
    "<![CDATA[Drives the card]]>\n</description_xlate>\n</description>\n";

std::string Install(const std::string &Body)
{
    return "<installation>\n<install>\n" + Body + "</install>\n</installation>\n";
}

std::string Platform(const std::string &Flags, const std::string &Os = "Red_Hat_Linux_7.3")
{
    return "<platform_specific>\n<LINUX>\n<" + Os + ">\n" + Flags + "</" + Os +
           ">\n</LINUX>\n</platform_specific>\n";
}

const char *Text(const char *Value)
{
    return Value ? Value : "(null)";
}

class Components : public PackageTest
{
protected:
    ComponentInfo Info = {};
    int Serial = 0;
    void TearDown() override
    {
        for (char *Field :
             {Info.Version, Info.Name, Info.Description, Info.InstallCommand, Info.RebootRequired})
            free(Field);
        PackageTest::TearDown();
    }
    std::string File(const std::string &Body)
    {
        return Write("c" + std::to_string(++Serial) + ".xml",
                     "<zel_package>\n" + Body + "</zel_package>\n");
    }
};

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
    Write("a.xml", Version);
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

TEST_F(Components, InformationWithEachElementMissing)
{
    const std::string French = "<name>\n<name_xlate lang=\"fr\">Pilote</name_xlate>\n</name>\n";
    const std::string Plain =
        "<description>\n<description_xlate lang=\"en\">Plain</description_xlate>\n</description>\n";
    struct {
        std::string Body;
        const char *Version, *Name, *Description,
            *Missing; // Result is 0 exactly when Missing is ""
    } Cases[] = {
        {Version + Name + Description, "2.1.0", "Network driver", "Drives the card", ""},
        {"<version/>\n" + Name + Description, "(null)", "Network driver", "Drives the card", ""},
        {Name, "old", "old", "old", "version"},
        {Version + Description, "2.1.0", "(null)", "(null)", "name"},
        {Version + French + Description, "2.1.0", "(null)", "(null)", "name_xlate"},
        {Version + Name, "2.1.0", "(null)", "(null)", "description"},
        {Version + Name + Plain, "2.1.0", "Network driver", "(null)", "description_xlate"},
    };
    for (const auto &Case : Cases) {
        SCOPED_TRACE(Case.Body);
        std::string Path = File(Case.Body);
        for (char **Field : {&Info.Version, &Info.Name, &Info.Description}) {
            free(*Field);
            *Field = DuplicateString("old");
        }
        int Result = 0;
        std::string Out =
            Captured([&] { Result = GetComponentInformation(Path.c_str(), &Info, "en"); });
        EXPECT_EQ(*Case.Missing ? CorruptSection + Case.Missing + "' section cannot be found.\n"
                                : "",
                  Out);
        EXPECT_EQ(*Case.Missing ? -504 : 0, Result);
        EXPECT_STREQ(Case.Version, Text(Info.Version));
        EXPECT_STREQ(Case.Name, Text(Info.Name));
        EXPECT_STREQ(Case.Description, Text(Info.Description));
    }
}

TEST_F(Components, RebootValueAndInstallCommand)
{
    const std::string NoValue = "The XML file is corrupt.  The 'value' attribute of the "
                                "reboot_required section cannot be found.\n";
    struct {
        std::string Body;
        const char *Reboot, *Command;
        std::string Printed;
    } Cases[] = {
        {Install("<reboot_required value=\"yes\"/>\n<command>rpm -Uvh x.rpm</command>\n"), "YES",
         "rpm -Uvh x.rpm", ""},
        {Install("<reboot_required value=\"No\"/>\n"), "NO", "(null)",
         CorruptSection + "command' section cannot be found.\n"},
        {Install("<reboot_required/>\n<command></command>\n"), "(null)", "(null)",
         NoValue + "The XML file is corrupt.  The 'command' token cannot be found.\n"},
        {"<installation>\n</installation>\n", "(null)", "(null)",
         CorruptSection + "install' section cannot be found.\n" + CorruptSection +
             "install' section cannot be found.\n"},
    };
    for (const auto &Case : Cases) {
        SCOPED_TRACE(Case.Body);
        std::string Path = File(Case.Body);
        int Reboot = 0, Command = 0;
        EXPECT_EQ(Case.Printed, Captured([&] {
                      Reboot = GetRebootValue(Path.c_str(), &Info);
                      Command = GetInstallCommand(Path.c_str(), &Info);
                  }));
        EXPECT_STREQ(Case.Reboot, Text(Info.RebootRequired));
        EXPECT_EQ(Info.RebootRequired ? 0 : -504, Reboot);
        EXPECT_STREQ(Case.Command, Text(Info.InstallCommand));
        EXPECT_EQ(Info.InstallCommand ? 0 : -504, Command);
    }
}

const struct {
    signed char (*Read)(const char *);
    std::string Element;
    bool Reported;
} Flags[] = {
    {GetHasPrerequisitesValue, "has_prerequisites", true},
    {GetHasPostrequisitesValue, "has_postrequisites", true},
    {GetRequiresPreConfigurationValue, "requires_preconfiguration", true},
    {GetRequiresPostConfigurationValue, "requires_postconfiguration", true},
    {GetRequiresPreCompilationValue, "requires_precompilation", false},
    {GetRequiresPostCompilationValue, "requires_postcompilation", false},
};

TEST_F(Components, FlagsReadFromTheInstalledDistribution)
{
    SetInstalledOS("Red_Hat_Linux_7.3");
    for (const auto &Flag : Flags) {
        SCOPED_TRACE(Flag.Element);
        EXPECT_EQ(TRUE,
                  Flag.Read(File(Platform("<" + Flag.Element + " value=\"Yes\"/>\n")).c_str()));
        EXPECT_EQ(FALSE,
                  Flag.Read(File(Platform("<" + Flag.Element + " value=\"y\"/>\n")).c_str()));
        std::string NoValue = File(Platform("<" + Flag.Element + "/>\n"));
        EXPECT_EQ("The XML file is corrupt.  The 'value' attribute of the " + Flag.Element +
                      " section cannot be found.\n",
                  Captured([&] { EXPECT_EQ(FALSE, Flag.Read(NoValue.c_str())); }));
        std::string Missing = File(Platform(""));
        EXPECT_EQ(Flag.Reported ? CorruptSection + Flag.Element + "' section cannot be found.\n"
                                : "",
                  Captured([&] { EXPECT_EQ(FALSE, Flag.Read(Missing.c_str())); }));
    }
}

TEST_F(Components, NoPartForTheDistributionGivesFalseSilently)
{
    std::string Path = File(Platform("<has_prerequisites value=\"yes\"/>\n", "UnitedLinux_1.0"));
    for (const char *Key : {"UnitedLinux_1.0_SP3", static_cast<const char *>(nullptr)}) {
        SetInstalledOS(Key);
        for (const auto &Flag : Flags)
            EXPECT_EQ("", Captured([&] { EXPECT_EQ(FALSE, Flag.Read(Path.c_str())); }));
    }
    SetInstalledOS("UnitedLinux_1.0");
    EXPECT_EQ(TRUE, GetHasPrerequisitesValue(Path.c_str()));
    EXPECT_EQ(CorruptSection + "zel_package' section cannot be found.\n", Captured([&] {
                  EXPECT_EQ(FALSE, GetHasPrerequisitesValue(
                                       Write("x.xml", "<other>\n</other>\n").c_str()));
              }));
}

} // namespace
