// Install records: the requisite, configuration and PCI device readers over component XML
// files written by the tests, and the pieces of the record builder that need no manager.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "package_fixture.h"
#include "records.h"
#include "service.h"

namespace {

const char OS[] = "Red_Hat_Linux_7.3";
const std::string &Corrupt = CorruptSection;

// A component file: Top goes straight below zel_package, Platform below the installed OS.
std::string Component(const std::string &Platform, const std::string &Top = "",
                      const std::string &Os = OS)
{
    return "<zel_package>\n<version value=\"1.0\"/>\n" + Top +
           "<platform_specific>\n<LINUX>\n<" + Os + ">\n" + Platform + "</" + Os +
           ">\n</LINUX>\n</platform_specific>\n</zel_package>\n";
}

std::string Devices(const std::vector<std::string> &Entries)
{
    std::string Text = "<prerequisites>\n<supported_devices>\n";
    for (const std::string &Entry : Entries)
        Text += "<supported_devices_and>\n" + Entry + "</supported_devices_and>\n";
    return Text + "</supported_devices>\n</prerequisites>\n";
}

std::string Data(const char *Name, const char *Text)
{
    return std::string("<supported_device_data name=\"") + Name + "\">" + Text +
           "</supported_device_data>\n";
}

class Records : public PackageTest {
protected:
    int Files = 0;

    void SetUp() override
    {
        if (Tokenize == nullptr) {
            // Loaded by path first: under the address sanitizer dlopen does not see our RUNPATH.
            dlopen(ZEL_TRANSPORT_DIR "/" RZP_TRANSPORT_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
            ASSERT_EQ(0, BindTransportLibrary());
        }
        PackageTest::SetUp();
        SetInstalledOS(OS);
        unsetenv("RZPELMCONFIGURED");
    }
    // Every file gets its own path, so that the current-file rule reads it afresh.
    std::string Write(const std::string &Text)
    {
        return PackageTest::Write("c" + std::to_string(Files++) + ".xml", Text);
    }
};

// "result|subtype|value|console output" of one requisite read.
std::string ReadRequisite(bool Post, const std::string &Path, int Index)
{
    char SubType[SUBTYPE_BUFFER_SIZE] = {0}, Value[REQUISITE_VALUE_SIZE] = {0};
    int Result = 0;
    std::string Output = Captured([&] {
        Result = (Post ? GetPostrequisites : GetPrerequisites)(Path.c_str(), SubType, Value, Index);
    });
    return std::to_string(Result) + "|" + SubType + "|" + Value + "|" + Output;
}

TEST_F(Records, RequisitesAreReadInDocumentOrderSkippingOtherElements)
{
    for (std::string Name : {"prerequisite", "postrequisite"}) {
        std::string Path = Write(Component("<" + Name + "s>\n<" + Name +
                                           "_data SubType=\"3\" value=\"/etc/a b\"/>\n<other/>\n<" +
                                           Name + "_data SubType=\"11\" value=\"httpd\"/>\n</" +
                                           Name + "s>\n"));
        bool Post = Name[1] == 'o';
        EXPECT_EQ("0|3|/etc/a b|", ReadRequisite(Post, Path, 0));
        EXPECT_EQ("0|11|httpd|", ReadRequisite(Post, Path, 1));
        EXPECT_EQ("-504|||", ReadRequisite(Post, Path, 2));
    }
}

TEST_F(Records, RequisiteReaderReportsEachMissingElement)
{
    const std::string Entry = "<prerequisite_data SubType=\"1\" value=\"libc.so\"/>\n";
    const struct {
        std::string Xml, Output;
    } Cases[] = {
        {"<other>\n</other>\n", Corrupt + "zel_package' section cannot be found.\n"},
        {"<zel_package>\n<LINUX>\n</LINUX>\n</zel_package>\n", ""},
        {Component("<prerequisites>\n" + Entry + "</prerequisites>\n", "", "SuSE_8.0"), ""},
        {Component(""), Corrupt + "prerequisites' section cannot be found.\n"},
        {Component("<prerequisites>\n</prerequisites>\n"), ""},
        {Component("<prerequisites>\n<prerequisite_data SubType=\"1\"/>\n</prerequisites>\n"), ""},
    };
    for (const auto &Case : Cases)
        EXPECT_EQ("-504|||" + Case.Output, ReadRequisite(false, Write(Case.Xml), 0)) << Case.Xml;
    EXPECT_EQ("-504|||" + Corrupt + "postrequisites' section cannot be found.\n",
              ReadRequisite(true, Write(Component(Entry)), 0));
    char Value[REQUISITE_VALUE_SIZE];
    std::string Path = Write(Component("<prerequisites>\n" + Entry + "</prerequisites>\n"));
    EXPECT_EQ(-111, GetPrerequisites(Path.c_str(), nullptr, Value, 0));
}

TEST_F(Records, OverlongRequisiteTextsRefuseTheEntryInsteadOfCuttingIt)
{
    std::string Long(1024, 'v');
    std::string Path = Write(Component(
        "<prerequisites>\n<prerequisite_data SubType=\"123456789\" value=\"" + Long.substr(1) +
        "\"/>\n<prerequisite_data SubType=\"1234567890\" value=\"x\"/>\n"
        "<prerequisite_data SubType=\"3\" value=\"" + Long + "\"/>\n</prerequisites>\n"));
    EXPECT_EQ("0|123456789|" + Long.substr(1) + "|", ReadRequisite(false, Path, 0));
    EXPECT_EQ("-504|||The 'SubType' attribute of prerequisite_data entry 1 is longer than 9 "
              "characters; that entry and the entries after it are left out.\n",
              ReadRequisite(false, Path, 1));
    EXPECT_EQ(0u, ReadRequisite(false, Path, 2).find("-504|||The 'value' attribute"));
}

TEST(RecordHelpers, SubtypeTextConvertsByLeadingDecimalDigits)
{
    EXPECT_EQ(3u, DecimalValue("3"));
    EXPECT_EQ(0u, DecimalValue("0x3"));
    EXPECT_EQ(12u, DecimalValue("12abc"));
    EXPECT_EQ(0u, DecimalValue("abc"));
    EXPECT_EQ(0u, DecimalValue(nullptr));
    EXPECT_EQ(4294967295u, DecimalValue("99999999999"));
}

std::string Device(const std::string &Path, int Index, int *Result, std::string *Out)
{
    char Value[REQUISITE_VALUE_SIZE] = {0};
    *Out = Captured([&] { *Result = GetPCIDevices(Path.c_str(), Value, Index); });
    return Value;
}

TEST_F(Records, DeviceIdentifiersAreAssembledFromTheFirstSupportedDevice)
{
    std::string Path = Write(Component("", Devices({
        "<supported_device>\n" + Data("ven", "ABCD") + Data("dev", "0001") + Data("subven", "") +
            "</supported_device>\n<supported_device>\n" + Data("ven", "FFFF") +
            "</supported_device>\n",
        "<supported_device>\n</supported_device>\n",
        "<supported_device>\n" + Data("ven", "1111") + Data("ven", "2222") +
            Data("subdev", "00AB") + "</supported_device>\n",
        "<supported_device>\n" + Data("class", "0200") + "</supported_device>\n",
        "<supported_device>\n" + Data("ven", "ABCDE") + "</supported_device>\n",
        "<other/>\n"})));
    int Result = 0;
    std::string Out;
    EXPECT_EQ("ABCD.0001.0000.0000", Device(Path, 0, &Result, &Out));
    EXPECT_EQ("0000.0000.0000.0000", Device(Path, 1, &Result, &Out));
    EXPECT_EQ("2222.0000.0000.00AB", Device(Path, 2, &Result, &Out));
    Device(Path, 3, &Result, &Out);
    EXPECT_EQ(-504, Result);
    Device(Path, 4, &Result, &Out);
    EXPECT_EQ(-504, Result);
    EXPECT_NE(std::string::npos, Out.find("longer than 4 characters"));
    Device(Path, 5, &Result, &Out);
    EXPECT_EQ(Corrupt + "supported_device' section cannot be found.\n", Out);
    Device(Write(Component("")), 0, &Result, &Out);
    EXPECT_EQ(Corrupt + "prerequisite' section cannot be found.\n", Out);
    Device(Write(Component("", "<prerequisites>\n</prerequisites>\n")), 0, &Result, &Out);
    EXPECT_EQ(Corrupt + "supported_devices' section cannot be found.\n", Out);
}

void PutLE32(std::vector<unsigned char> *Bytes, uint32_t Value)
{
    for (int Shift = 0; Shift < 32; Shift += 8)
        Bytes->push_back(static_cast<unsigned char>(Value >> Shift));
}

TEST_F(Records, DeviceSubRecordsHaveThePrerequisiteLayoutAndEndAtAnUnknownName)
{
    std::string Two = "<supported_device>\n" + Data("ven", "8086") + Data("dev", "100E") +
                      "</supported_device>\n";
    std::string Path = Write(Component("", Devices({Two, "<supported_device>\n" +
        Data("subdev", "0002") + "</supported_device>\n", "<supported_device>\n" +
        Data("class", "1") + "</supported_device>\n", Two})));
    std::vector<unsigned char> Expected;
    for (const char *Id : {"8086.100E.0000.0000", "0000.0000.0000.0002"}) {
        uint32_t Length = static_cast<uint32_t>(strlen(Id) + 1);
        PutLE32(&Expected, 301);
        PutLE32(&Expected, 8 + Length);
        PutLE32(&Expected, 8);
        PutLE32(&Expected, Length);
        Expected.insert(Expected.end(), Id, Id + Length);
    }
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD);
    int Length = -1;
    EXPECT_EQ(2, RetrievePCIDevicesFromXML(Path.c_str(), Buffer.data(), &Length));
    ASSERT_EQ(static_cast<int>(Expected.size()), Length);
    EXPECT_TRUE(std::equal(Expected.begin(), Expected.end(), Buffer.begin()));
}

TEST_F(Records, DevicesBeyondTheBufferAreLeftOutWithAMessage)
{
    std::vector<std::string> Entries(500, "<supported_device>\n" + Data("ven", "ABCD") +
                                              "</supported_device>\n");
    std::string Path = Write(Component("", Devices(Entries)));
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD + 64, 0xEE);
    int Length = 0, Count = 0;
    std::string Out =
        Captured([&] { Count = RetrievePCIDevicesFromXML(Path.c_str(), Buffer.data(), &Length); });
    EXPECT_EQ(RZP_MAX_PAYLOAD / 36, Count); // 16 bytes of codes and lengths, 20 of text
    EXPECT_EQ(Count * 36, Length);
    EXPECT_NE(std::string::npos, Out.find("device entry 455 and the entries after it"));
    EXPECT_EQ(0xEE, Buffer[RZP_MAX_PAYLOAD]);
}

std::string Variable(const std::string &Requirements, const std::string &Rest)
{
    return "<preconfiguration_data_and>\n" + Requirements + Rest +
           "</preconfiguration_data_and>\n";
}

const std::string Prompts = "<prompt>\n<prompt_xlate lang=\"fr\">\n<![CDATA[Mot]]>\n"
                            "</prompt_xlate>\n<prompt_xlate>\n<![CDATA[None]]>\n</prompt_xlate>\n"
                            "<prompt_xlate lang=\"en\">\n<![CDATA[Password please]]>\n"
                            "</prompt_xlate>\n</prompt>\n";

std::string Configuration(const std::vector<std::string> &Variables, const char *Section)
{
    std::string Text = std::string("<") + Section + ">\n";
    for (const std::string &V : Variables)
        Text += V;
    return Text + "</" + Section + ">\n";
}

struct ConfigResult {
    int Result;
    std::string Output;
    PPRECONFIGURATION Config;
};

ConfigResult ReadConfig(const std::string &Path, int Index, bool Post = false)
{
    ConfigResult R;
    R.Config = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(PRECONFIGURATION)));
    R.Output = Captured([&] {
        R.Result = (Post ? GetPostConfigurationInfo : GetPreConfigurationInfo)(Path.c_str(), Index,
                                                                              R.Config, "en");
    });
    return R;
}

TEST_F(Records, ConfigurationVariableIsReadWithEnglishPromptAndHexAttributes)
{
    std::string Full = Variable(
        "<requirements required=\"yes\" minimumlength=\"4\" maximumlength=\"12\"/>\n", Prompts +
        "<acceptable_characters>\n<![CDATA[a-z]]>\n</acceptable_characters>\n"
        "<outputname type=\"2\" name=\"QXPORT\"/>\n<default_value value=\"80\"/>\n"
        "<actual_value value=\"81\"/>\n<output_filename value=\"/etc/x.conf\"/>\n"
        "<attributes value=\"1F\"/>\n");
    std::string Bare = Variable("<requirements/>\n", Prompts + "<attributes value=\"0x1F\"/>\n");
    std::string Path = Write(Component(Configuration({Full, Bare}, "preconfiguration")));
    ConfigResult R = ReadConfig(Path, 0);
    PPRECONFIGURATION C = R.Config;
    EXPECT_EQ(0, R.Result);
    EXPECT_EQ(1, C->IsVariableRequired);
    EXPECT_EQ(4u, C->MinimumLength);
    EXPECT_EQ(12u, C->MaximumLength);
    EXPECT_STREQ("Password please", C->Prompt);
    EXPECT_EQ(16u, C->PromptLength);
    EXPECT_STREQ("a-z", C->AcceptableCharacters);
    EXPECT_TRUE(C->RequiredFormat == nullptr && C->RequiredFormatLength == 0 &&
                C->RequiredFormatType == 208u);
    EXPECT_EQ(2u, C->OutputType);
    EXPECT_STREQ("QXPORT", C->OutputName);
    EXPECT_STREQ("/etc/x.conf", C->OutputFileName);
    EXPECT_EQ(31u, C->Attributes);
    FreeConfigStruct(C, 302); // another code releases nothing: the record is still usable
    EXPECT_STREQ("81", C->ActualValue);
    FreeConfigStruct(C, RZP_STRUCT_PRECONFIG);

    R = ReadConfig(Path, 1);
    EXPECT_EQ("The XML file is corrupt.  The 'required' attribute of the requirements section "
              "cannot be found.\n",
              R.Output);
    EXPECT_EQ(0u, R.Config->MinimumLength);
    EXPECT_EQ(16384u, R.Config->MaximumLength);
    EXPECT_EQ(31u, R.Config->Attributes);
    EXPECT_EQ(nullptr, R.Config->OutputName);
    FreeConfigStruct(R.Config, RZP_STRUCT_PRECONFIG);
}

TEST_F(Records, IncompleteVariablesEndTheListWithTheirMessages)
{
    const char *Req = "<requirements required=\"NO\"/>\n";
    std::string FrenchOnly = "<prompt>\n<prompt_xlate lang=\"fr\">\n<![CDATA[Mot]]>\n"
                             "</prompt_xlate>\n</prompt>\n";
    std::string Path = Write(Component(Configuration(
        {Variable("", Prompts), Variable(Req, ""), Variable(Req, FrenchOnly)},
        "preconfiguration")));
    const char *Missing[] = {"requirements", "prompt", "prompt_xlate"};
    for (int Index = 0; Index < 3; Index++) {
        ConfigResult R = ReadConfig(Path, Index);
        EXPECT_EQ(-504, R.Result);
        EXPECT_EQ(Corrupt + Missing[Index] + "' section cannot be found.\n", R.Output);
        FreeConfigStruct(R.Config, RZP_STRUCT_PRECONFIG);
    }
    ConfigResult End = ReadConfig(Path, 3);
    EXPECT_EQ(-504, End.Result);
    EXPECT_EQ("", End.Output);
    FreeConfigStruct(End.Config, RZP_STRUCT_PRECONFIG);
    ConfigResult Post = ReadConfig(Path, 0, true);
    EXPECT_EQ(Corrupt + "postconfiguration' section cannot be found.\n", Post.Output);
    FreeConfigStruct(Post.Config, RZP_STRUCT_POSTCONFIG);
}

TEST_F(Records, PasswordVariablesAreOptionalOnlyOnceConfiguredIsExactlyYes)
{
    std::string Path = Write(Component(Configuration(
        {"<postconfiguration_data_and>\n<requirements required=\"YES\"/>\n" + Prompts +
         "<outputname type=\"1\" name=\"QXHTTPSERVERADMINPASSWD\"/>\n"
         "</postconfiguration_data_and>\n"}, "postconfiguration")));
    const struct {
        const char *Environment;
        int Required;
    } Cases[] = {{nullptr, 1}, {"yes", 1}, {"YES", 0}};
    for (const auto &Case : Cases) {
        if (Case.Environment != nullptr)
            setenv("RZPELMCONFIGURED", Case.Environment, 1);
        ConfigResult R = ReadConfig(Path, 0, true);
        EXPECT_EQ(0, R.Result);
        EXPECT_EQ(Case.Required, R.Config->IsVariableRequired) << Case.Environment;
        FreeConfigStruct(R.Config, RZP_STRUCT_POSTCONFIG);
    }
}

TEST_F(Records, DumpShowsAbsentStringsAsEmptyValues)
{
    PRECONFIGURATION *C = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(PRECONFIGURATION)));
    C->PromptType = RZP_TYPE_STRING;
    DEBUG_FLAG = 1;
    std::string Out = Captured([&] { DumpConfigurationStruct(C, RZP_STRUCT_POSTCONFIG); });
    DEBUG_FLAG = 0;
    EXPECT_EQ(0u, Out.find("PostConfiguration Structure found\n"));
    EXPECT_NE(std::string::npos, Out.find("Prompt                                     Type:  208"
                                          "    Length:  0    Value: \n"));
    FreeConfigStruct(C, RZP_STRUCT_POSTCONFIG);
}

TEST_F(Records, RecordLongerThanItsBufferRefusesTheComponent)
{
    std::string Long(9000, 'x');
    std::string Path = Write(
        "<zel_package>\n<version value=\"1\"/>\n<name>\n<name_xlate lang=\"en\">Driver"
        "</name_xlate>\n</name>\n<description>\n<description_xlate lang=\"en\">\n<![CDATA[" +
        Long + "]]>\n</description_xlate>\n</description>\n<installation>\n<install>\n"
        "<reboot_required value=\"no\"/>\n<command>" + Long + "</command>\n</install>\n"
        "</installation>\n</zel_package>\n");
    COMPONENTINFOPTR Component = AppendComponent("driver.rpm");
    ASSERT_NE(nullptr, Component);
    PINSTALL_PACKET_LIST Before = InstallPacketList;
    int32_t Number = InstallPacketNumber;
    std::string Out = Captured(
        [&] { EXPECT_EQ(-111, BuildRZPInstallStructures(Path.c_str(), Component, "en")); });
    EXPECT_NE(std::string::npos, Out.find("driver.rpm would be longer than 16384 bytes"));
    EXPECT_EQ(Before, InstallPacketList);
    EXPECT_EQ(Number, InstallPacketNumber);
    FreeComponentList();
}

} // namespace
