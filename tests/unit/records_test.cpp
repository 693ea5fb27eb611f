// Install records: the requisite, configuration and PCI device readers over component XML
// files written by the tests, and the pieces of the record builder that need no manager.
#include <dlfcn.h>

#include "package_fixture.h"
#include "records.h"
#include "service.h"

namespace {

const char OS[] = "Red_Hat_Linux_7.3";

// A component file: Top goes straight below zel_package, Platform below the installed OS.
std::string Component(const std::string &Platform, const std::string &Top = "",
                      const std::string &Os = OS)
{
    return "<zel_package>\n<version value=\"1.0\"/>\n" + Top + "<platform_specific>\n<LINUX>\n<" +
           Os + ">\n" + Platform + "</" + Os + ">\n</LINUX>\n</platform_specific>\n</zel_package>\n";
}

// <Outer>, the Inner elements, </Outer>.
std::string List(const std::string &Outer, const std::vector<std::string> &Inner)
{
    std::string Text = "<" + Outer + ">\n";
    for (const std::string &Element : Inner)
        Text += Element;
    return Text + "</" + Outer + ">\n";
}

std::string Devices(const std::vector<std::string> &Entries)
{
    std::vector<std::string> Ands;
    for (const std::string &Entry : Entries)
        Ands.push_back(List("supported_devices_and", {Entry}));
    return List("prerequisites", {List("supported_devices", Ands)});
}

// A supported_device of (name, text) data pairs.
std::string Device(const std::vector<std::pair<const char *, const char *>> &Data)
{
    std::string Text = "<supported_device>\n";
    for (const auto &D : Data)
        Text += std::string("<supported_device_data name=\"") + D.first + "\">" + D.second +
                "</supported_device_data>\n";
    return Text + "</supported_device>\n";
}

class Records : public PackageTest {
protected:
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

// Entries are read in document order skipping other elements; each missing element is reported
// (or not); an overlong text refuses its entry and those after it instead of being cut.
TEST_F(Records, RequisitesInOrderMissingElementsAndOverlongTexts)
{
    auto Ordered = [](const std::string &N) {
        return Component(List(N + "s", {"<" + N + "_data SubType=\"3\" value=\"/etc/a b\"/>\n",
                                        "<other/>\n<" + N + "_data SubType=\"11\" value=\"httpd\"/>\n"}));
    };
    const std::string Entry = "<prerequisite_data SubType=\"1\" value=\"libc.so\"/>\n";
    const std::string Long(1024, 'v'), End = "-504|||";
    const std::string Overlong =
        "<prerequisite_data SubType=\"123456789\" value=\"" + Long.substr(1) + "\"/>\n"
        "<prerequisite_data SubType=\"1234567890\" value=\"x\"/>\n"
        "<prerequisite_data SubType=\"3\" value=\"" + Long + "\"/>\n";
    const struct {
        bool Post;
        std::string Xml;
        std::vector<std::string> Reads; // of entries 0, 1, ...
    } Cases[] = {
        {false, Ordered("prerequisite"), {"0|3|/etc/a b|", "0|11|httpd|", End}},
        {true, Ordered("postrequisite"), {"0|3|/etc/a b|", "0|11|httpd|", End}},
        {false, "<other>\n</other>\n", {End + Missing("zel_package")}},
        {false, "<zel_package>\n<LINUX>\n</LINUX>\n</zel_package>\n", {End}},
        {false, Component(List("prerequisites", {Entry}), "", "SuSE_8.0"), {End}},
        {false, Component(""), {End + Missing("prerequisites")}},
        {false, Component(List("prerequisites", {})), {End}},
        {false, Component(List("prerequisites", {"<prerequisite_data SubType=\"1\"/>\n"})), {End}},
        {true, Component(Entry), {End + Missing("postrequisites")}},
        {false, Component(List("prerequisites", {Overlong})),
         {"0|123456789|" + Long.substr(1) + "|",
          End + "The 'SubType' attribute of prerequisite_data entry 1 is longer than 9 "
                "characters; that entry and the entries after it are left out.\n",
          End + "The 'value' attribute of prerequisite_data entry 2 is longer than 1023 "
                "characters; that entry and the entries after it are left out.\n"}},
    };
    for (const auto &Case : Cases) {
        std::string Path = WriteNew(Case.Xml);
        for (size_t Index = 0; Index < Case.Reads.size(); Index++)
            EXPECT_EQ(Case.Reads[Index], ReadRequisite(Case.Post, Path, Index)) << Case.Xml;
    }
    char Value[REQUISITE_VALUE_SIZE];
    std::string Path = WriteNew(Component(List("prerequisites", {Entry})));
    EXPECT_EQ(-111, GetPrerequisites(Path.c_str(), nullptr, Value, 0));
}

TEST(RecordHelpers, SubtypeTextConvertsByLeadingDecimalDigits)
{
    const std::pair<const char *, uint32_t> Cases[] = {
        {"3", 3}, {"0x3", 0}, {"12abc", 12}, {"abc", 0}, {nullptr, 0}, {"99999999999", 4294967295u}};
    for (const auto &Case : Cases)
        EXPECT_EQ(Case.second, DecimalValue(Case.first)) << (Case.first ? Case.first : "NULL");
}

// "result|identifier|console output" of one device read.
std::string ReadDevice(const std::string &Path, int Index)
{
    char Value[REQUISITE_VALUE_SIZE] = {0};
    int Result = 0;
    std::string Out = Captured([&] { Result = GetPCIDevices(Path.c_str(), Value, Index); });
    return std::to_string(Result) + "|" + Value + "|" + Out;
}

// Identifiers are assembled from the first supported_device of each entry; what is missing
// reads as 0000 and the last value of a name wins.
TEST_F(Records, DeviceIdentifiersComeFromTheFirstSupportedDevice)
{
    std::string Path = WriteNew(Component("", Devices({
        Device({{"ven", "ABCD"}, {"dev", "0001"}, {"subven", ""}}) + Device({{"ven", "FFFF"}}),
        "<supported_device>\n</supported_device>\n",
        Device({{"ven", "1111"}, {"ven", "2222"}, {"subdev", "00AB"}}),
        Device({{"class", "0200"}}), Device({{"ven", "ABCDE"}}), "<other/>\n"})));
    const std::string Reads[] = {
        "0|ABCD.0001.0000.0000|", "0|0000.0000.0000.0000|", "0|2222.0000.0000.00AB|",
        "-504||",
        "-504||The 'ven' identifier part of supported device entry 4 is longer than 4 "
        "characters; that entry and the entries after it are left out.\n",
        "-504||" + Missing("supported_device")};
    for (int Index = 0; Index < 6; Index++)
        EXPECT_EQ(Reads[Index], ReadDevice(Path, Index)) << Index;
    EXPECT_EQ("-504||" + Missing("prerequisite"), ReadDevice(WriteNew(Component("")), 0));
    EXPECT_EQ("-504||" + Missing("supported_devices"),
              ReadDevice(WriteNew(Component("", List("prerequisites", {}))), 0));
}

// Sub-records have the requisite layout (code 301, length, 8, text length, text); the list ends
// at an unknown name; devices beyond the buffer are left out with a message.
TEST_F(Records, DeviceSubRecordsHaveTheRequisiteLayoutAndStayInTheBuffer)
{
    std::string Two = Device({{"ven", "8086"}, {"dev", "100E"}});
    std::string Path = WriteNew(Component("", Devices({Two, Device({{"subdev", "0002"}}),
                                                       Device({{"class", "1"}}), Two})));
    Bytes Expected, Buffer(RZP_MAX_PAYLOAD + 64, 0xEE);
    for (const char *Id : {"8086.100E.0000.0000", "0000.0000.0000.0002"}) {
        uint32_t Length = static_cast<uint32_t>(strlen(Id) + 1);
        PutU32(&Expected, {301, 8 + Length, 8, Length});
        PutString(&Expected, Id);
    }
    int Length = -1;
    EXPECT_EQ(2, RetrievePCIDevicesFromXML(Path.c_str(), Buffer.data(), &Length));
    ASSERT_EQ(static_cast<int>(Expected.size()), Length);
    EXPECT_TRUE(std::equal(Expected.begin(), Expected.end(), Buffer.begin()));

    Path = WriteNew(Component("", Devices(std::vector<std::string>(500, Device({{"ven", "ABCD"}})))));
    int Count = 0;
    std::string Out =
        Captured([&] { Count = RetrievePCIDevicesFromXML(Path.c_str(), Buffer.data(), &Length); });
    EXPECT_EQ(RZP_MAX_PAYLOAD / 36, Count); // 16 bytes of codes and lengths, 20 of text
    EXPECT_EQ(Count * 36, Length);
    EXPECT_TRUE(Has(Out, "device entry 455 and the entries after it")) << Out;
    EXPECT_EQ(0xEE, Buffer[RZP_MAX_PAYLOAD]);
}

std::string Variable(const std::string &Requirements, const std::string &Rest,
                     const std::string &Name = "preconfiguration_data_and")
{
    return "<" + Name + ">\n" + Requirements + Rest + "</" + Name + ">\n";
}

const std::string Prompts = "<prompt>\n<prompt_xlate lang=\"fr\">\n<![CDATA[Mot]]>\n"
                            "</prompt_xlate>\n<prompt_xlate>\n<![CDATA[None]]>\n</prompt_xlate>\n"
                            "<prompt_xlate lang=\"en\">\n<![CDATA[Password please]]>\n"
                            "</prompt_xlate>\n</prompt>\n";

// One configuration read: the result, the console output and the fields, in a record that
// the caller frees with FreeConfigStruct.
struct ConfigRead {
    int Result;
    std::string Output;
    PPRECONFIGURATION Config;
};

ConfigRead ReadConfig(const std::string &Path, int Index, bool Post = false)
{
    ConfigRead R;
    R.Config = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(PRECONFIGURATION)));
    R.Output = Captured([&] {
        R.Result = (Post ? GetPostConfigurationInfo : GetPreConfigurationInfo)(Path.c_str(), Index,
                                                                              R.Config, "en");
    });
    return R;
}

// The fields of a configuration record, "|"-separated, "-" for an absent text.
std::string Fields(PPRECONFIGURATION C)
{
    auto S = [](const char *Text) { return std::string(Text ? Text : "-") + "|"; };
    auto N = [](uint32_t Value) { return std::to_string(Value) + "|"; };
    return N(C->IsVariableRequired) + N(C->MinimumLength) + N(C->MaximumLength) + S(C->Prompt) +
           N(C->PromptLength) + S(C->AcceptableCharacters) + S(C->RequiredFormat) +
           N(C->RequiredFormatLength) + N(C->RequiredFormatType) + N(C->OutputType) +
           S(C->OutputName) + S(C->OutputFileName) + N(C->Attributes) + S(C->ActualValue);
}

// The English prompt, hexadecimal attributes, defaults where requirements say nothing; each
// incomplete variable ends the list with its message.
TEST_F(Records, ConfigurationVariablesAreReadOrEndTheListWithTheirMessage)
{
    const char *Req = "<requirements required=\"NO\"/>\n";
    std::string French = "<prompt>\n<prompt_xlate lang=\"fr\">\n<![CDATA[Mot]]>\n"
                         "</prompt_xlate>\n</prompt>\n";
    std::string Path = WriteNew(Component(List("preconfiguration", {
        Variable("<requirements required=\"yes\" minimumlength=\"4\" maximumlength=\"12\"/>\n",
                 Prompts + "<acceptable_characters>\n<![CDATA[a-z]]>\n</acceptable_characters>\n"
                 "<outputname type=\"2\" name=\"QXPORT\"/>\n<default_value value=\"80\"/>\n"
                 "<actual_value value=\"81\"/>\n<output_filename value=\"/etc/x.conf\"/>\n"
                 "<attributes value=\"1F\"/>\n"),
        Variable("<requirements/>\n", Prompts + "<attributes value=\"0x1F\"/>\n"),
        Variable("", Prompts), Variable(Req, ""), Variable(Req, French)})));
    const struct {
        int Result;
        std::string Output, Fields;
    } Reads[] = {
        {0, "", "1|4|12|Password please|16|a-z|-|0|208|2|QXPORT|/etc/x.conf|31|81|"},
        {0,
         "The XML file is corrupt.  The 'required' attribute of the requirements section "
         "cannot be found.\n",
         "0|0|16384|Password please|16|-|-|0|208|0|-|-|31|-|"},
        {-504, Missing("requirements"), ""},
        {-504, Missing("prompt"), ""},
        {-504, Missing("prompt_xlate"), ""},
        {-504, "", ""},
    };
    for (int Index = 0; Index < 6; Index++) {
        ConfigRead R = ReadConfig(Path, Index);
        EXPECT_EQ(Reads[Index].Result, R.Result) << Index;
        EXPECT_EQ(Reads[Index].Output, R.Output) << Index;
        if (R.Result == 0) {
            EXPECT_EQ(Reads[Index].Fields, Fields(R.Config));
        }
        if (Index == 0) { // another code releases nothing: the record is still usable
            FreeConfigStruct(R.Config, 302);
            EXPECT_STREQ("81", R.Config->ActualValue);
        }
        FreeConfigStruct(R.Config, RZP_STRUCT_PRECONFIG);
    }
    ConfigRead Post = ReadConfig(Path, 0, true);
    EXPECT_EQ(Missing("postconfiguration"), Post.Output);
    FreeConfigStruct(Post.Config, RZP_STRUCT_POSTCONFIG);
}

TEST_F(Records, PasswordVariablesAreOptionalOnlyOnceConfiguredIsExactlyYes)
{
    std::string Path = WriteNew(Component(List("postconfiguration", {Variable(
        "<requirements required=\"YES\"/>\n",
        Prompts + "<outputname type=\"1\" name=\"QXHTTPSERVERADMINPASSWD\"/>\n",
        "postconfiguration_data_and")})));
    const std::pair<const char *, int> Cases[] = {{nullptr, 1}, {"yes", 1}, {"YES", 0}};
    for (const auto &Case : Cases) {
        if (Case.first != nullptr)
            setenv("RZPELMCONFIGURED", Case.first, 1);
        ConfigRead R = ReadConfig(Path, 0, true);
        EXPECT_EQ(0, R.Result);
        EXPECT_EQ(Case.second, R.Config->IsVariableRequired) << Case.first;
        FreeConfigStruct(R.Config, RZP_STRUCT_POSTCONFIG);
    }
}

TEST_F(Records, DumpShowsAbsentStringsAsEmptyValues)
{
    PRECONFIGURATION *C = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(PRECONFIGURATION)));
    C->PromptType = RZP_TYPE_STRING;
    DEBUG_FLAG = 1;
    std::string Out = Captured([&] { DumpConfigurationStruct(C, RZP_STRUCT_POSTCONFIG); });
    EXPECT_EQ(0u, Out.find("PostConfiguration Structure found\n"));
    EXPECT_TRUE(Has(Out, "Prompt                                     Type:  208"
                         "    Length:  0    Value: \n"));
    FreeConfigStruct(C, RZP_STRUCT_POSTCONFIG);
}

TEST_F(Records, RecordLongerThanItsBufferRefusesTheComponent)
{
    std::string Long(9000, 'x');
    std::string Path = WriteNew(
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
    EXPECT_TRUE(Has(Out, "driver.rpm would be longer than 16384 bytes")) << Out;
    EXPECT_EQ(Before, InstallPacketList);
    EXPECT_EQ(Number, InstallPacketNumber);
}

} // namespace
