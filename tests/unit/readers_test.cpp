// The component, bundle and install-record readers: a transcript of reader calls over XML files
// (tests/data/unit/readers.txt), and the pieces of the record builder that need no manager; the
// install record list, its handles in order of acceptance and the lookup of the next-item walk.
#include <dlfcn.h>

#include <sstream>

#include "package_fixture.h"
#include "records.h"
#include "service.h"

namespace {

class Records : public PackageTest {
protected:
    ComponentInfo Info = {};
    void SetUp() override
    {
        if (Tokenize == nullptr) {
            // Loaded by path first: under the address sanitizer dlopen does not see our RUNPATH.
            dlopen(ZEL_TRANSPORT_DIR "/" RZP_TRANSPORT_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
            ASSERT_EQ(0, BindTransportLibrary());
        }
        PackageTest::SetUp();
        SetInstalledOS("Red_Hat_Linux_7.3");
        unsetenv("RZPELMCONFIGURED");
    }
    void TearDown() override
    {
        for (char *Field :
             {Info.Version, Info.Name, Info.Description, Info.InstallCommand, Info.RebootRequired})
            free(Field);
        PackageTest::TearDown();
    }
    std::string Read(const std::string &Path, const std::string &Call, int Entry);
};

const char *Text(const char *Value)
{
    return Value ? Value : "(null)";
}

// The fields of a configuration record, "|"-separated, "-" for an absent text.
std::string Fields(PPRECONFIGURATION C)
{
    auto S = [](const char *Text) { return std::string(Text ? Text : "-"); };
    auto N = [](uint32_t Value) { return std::to_string(Value) + "|"; };
    return N(C->IsVariableRequired) + N(C->MinimumLength) + N(C->MaximumLength) + S(C->Prompt) +
           "|" + N(C->PromptLength) + S(C->AcceptableCharacters) + "|" + S(C->RequiredFormat) +
           "|" + N(C->RequiredFormatLength) + N(C->RequiredFormatType) + N(C->OutputType) +
           S(C->OutputName) + "|" + S(C->OutputFileName) + "|" + N(C->Attributes) +
           S(C->ActualValue);
}

const std::pair<const char *, signed char (*)(const char *)> FlagReaders[] = {
    {"has_prerequisites", GetHasPrerequisitesValue},
    {"has_postrequisites", GetHasPostrequisitesValue},
    {"requires_preconfiguration", GetRequiresPreConfigurationValue},
    {"requires_postconfiguration", GetRequiresPostConfigurationValue},
    {"requires_precompilation", GetRequiresPreCompilationValue},
    {"requires_postcompilation", GetRequiresPostCompilationValue}};

// One reader call of the transcript: "result|values|console output".
std::string Records::Read(const std::string &Path, const std::string &Call, int Entry)
{
    const char *File = Path.c_str();
    char Value[REQUISITE_VALUE_SIZE] = {0}, SubType[SUBTYPE_BUFFER_SIZE] = {0};
    std::string Values;
    int Result = -99999;
    std::string Out = Captured([&] {
        if (Call == "pre" || Call == "post") {
            Result = (Call == "pre" ? GetPrerequisites : GetPostrequisites)(File, SubType, Value,
                                                                            Entry);
            Values = std::string(SubType) + "|" + Value;
        } else if (Call == "device") {
            Result = GetPCIDevices(File, Value, Entry);
            Values = Value;
        } else if (Call == "preconfig" || Call == "postconfig") {
            auto C = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(PRECONFIGURATION)));
            bool Pre = Call == "preconfig";
            Result = (Pre ? GetPreConfigurationInfo : GetPostConfigurationInfo)(File, Entry, C, "en");
            Values = Result == 0 ? Fields(C) : "";
            FreeConfigStruct(C, Pre ? RZP_STRUCT_PRECONFIG : RZP_STRUCT_POSTCONFIG);
        } else if (Call == "info") {
            for (char **Field : {&Info.Version, &Info.Name, &Info.Description}) {
                free(*Field);
                *Field = DuplicateString("old");
            }
            Result = GetComponentInformation(File, &Info, "en");
            Values = std::string(Text(Info.Version)) + "|" + Text(Info.Name) + "|" +
                     Text(Info.Description);
        } else if (Call == "reboot") {
            Result = GetRebootValue(File, &Info);
            Values = Text(Info.RebootRequired);
        } else if (Call == "command") {
            Result = GetInstallCommand(File, &Info);
            Values = Text(Info.InstallCommand);
        } else if (Call == "version" || Call.compare(0, 5, "name:") == 0) {
            Result = Call == "version"
                         ? GetBundleVersion(File, Value, Entry)
                         : GetBundleName(File, Call.c_str() + 5, Entry ? Value : nullptr, Entry);
            Values = Result == 0 ? Value : "";
        }
        for (const auto &Flag : FlagReaders)
            if (Call == Flag.first)
                Result = Flag.second(File);
    });
    return std::to_string(Result) + "|" + Values + "|" + Out;
}

// Each line of the transcript, in order: a call and its outcome, or a change of the installed
// distribution or of the environment.
TEST_F(Records, ReadersFollowTheTranscript)
{
    std::ifstream Transcript(ZEL_TEST_DATA "/unit/readers.txt");
    std::string Line;
    int Number = 0, Calls = 0;
    while (std::getline(Transcript, Line)) {
        Number++;
        std::istringstream Words(Line.substr(0, Line.find(" => ")));
        std::string File, Call, Entry = "0";
        Words >> File >> Call >> Entry;
        if (File.empty() || File[0] == '#')
            continue;
        if (File == "os") {
            SetInstalledOS(Call == "-" ? nullptr : Call.c_str());
        } else if (File == "env") {
            Entry == "-" ? unsetenv(Call.c_str()) : setenv(Call.c_str(), Entry.c_str(), 1);
        } else {
            std::string Expected = Line.substr(Line.find(" => ") + 4);
            for (size_t At; (At = Expected.find("\\n")) != std::string::npos;)
                Expected.replace(At, 2, "\n");
            std::string Path = ZEL_TEST_DATA "/unit/readers/" + File;
            if (size_t At = Expected.find("$FILE"); At != std::string::npos)
                Expected.replace(At, 5, Path);
            EXPECT_EQ(Expected, Read(Path, Call, std::stoi(Entry)))
                << "readers.txt line " << Number;
            Calls++;
        }
    }
    EXPECT_EQ(Calls, 93); // the whole transcript was read
}

// An overlong text refuses its entry and those after it instead of being cut; a missing
// subtype buffer is refused.
TEST_F(Records, OverlongRequisiteTextsRefuseTheEntryInsteadOfCuttingIt)
{
    std::string Long(1024, 'v'), Item = "<prerequisite_data SubType=\"";
    std::string Path = Write("c.xml", "<zel_package>\n<platform_specific>\n<LINUX>\n"
                                      "<Red_Hat_Linux_7.3>\n<prerequisites>\n" +
                                          Item + "123456789\" value=\"" + Long.substr(1) +
                                          "\"/>\n" + Item + "1234567890\" value=\"x\"/>\n" + Item +
                                          "3\" value=\"" + Long +
                                          "\"/>\n</prerequisites>\n"
                                          "</Red_Hat_Linux_7.3>\n</LINUX>\n</platform_specific>\n"
                                          "</zel_package>\n");
    const std::string Reads[] = {
        "0|123456789|" + Long.substr(1) + "|",
        "-504|||The 'SubType' attribute of prerequisite_data entry 1 is longer than 9 "
        "characters; that entry and the entries after it are left out.\n",
        "-504|||The 'value' attribute of prerequisite_data entry 2 is longer than 1023 "
        "characters; that entry and the entries after it are left out.\n"};
    for (int Index = 0; Index < 3; Index++)
        EXPECT_EQ(Reads[Index], Read(Path, "pre", Index));
    char Value[REQUISITE_VALUE_SIZE];
    EXPECT_EQ(-111, GetPrerequisites(Path.c_str(), nullptr, Value, 0));
}

TEST(RecordHelpers, SubtypeTextConvertsByLeadingDecimalDigits)
{
    const std::pair<const char *, uint32_t> Cases[] = {
        {"3", 3}, {"0x3", 0}, {"12abc", 12}, {"abc", 0}, {nullptr, 0}, {"99999999999", 4294967295u}};
    for (const auto &Case : Cases)
        EXPECT_EQ(Case.second, DecimalValue(Case.first)) << (Case.first ? Case.first : "NULL");
}

// Sub-records have the requisite layout (code 301, length, 8, text length, text) for the
// devices the transcript reads; devices beyond the buffer are left out with a message.
TEST_F(Records, DeviceSubRecordsHaveTheRequisiteLayoutAndStayInTheBuffer)
{
    Bytes Expected(RZP_MAX_PAYLOAD), Buffer(RZP_MAX_PAYLOAD + 64, 0xEE);
    int Length = 0;
    for (const char *Id : {"ABCD.0001.0000.0000", "0000.0000.0000.0000", "2222.0000.0000.00AB"})
        Length += Tokenize(Expected.data() + Length, "%U%U%U%U%S", 301u, 28u, 8u, 20u, Id);
    Expected.resize(Length);
    EXPECT_EQ(3, RetrievePCIDevicesFromXML(ZEL_TEST_DATA "/unit/readers/devices.xml", Buffer.data(),
                                           &Length));
    ASSERT_EQ(static_cast<int>(Expected.size()), Length);
    EXPECT_TRUE(std::equal(Expected.begin(), Expected.end(), Buffer.begin()));

    std::string Many = "<zel_package>\n<prerequisites>\n<supported_devices>\n";
    for (int Index = 0; Index < 500; Index++)
        Many += "<supported_devices_and>\n<supported_device>\n<supported_device_data name=\"ven\">"
                "ABCD</supported_device_data>\n</supported_device>\n</supported_devices_and>\n";
    std::string Path = Write("d.xml",
                             Many + "</supported_devices>\n</prerequisites>\n</zel_package>\n");
    int Count = 0;
    std::string Out =
        Captured([&] { Count = RetrievePCIDevicesFromXML(Path.c_str(), Buffer.data(), &Length); });
    EXPECT_EQ(RZP_MAX_PAYLOAD / 36, Count); // 16 bytes of codes and lengths, 20 of text
    EXPECT_EQ(Count * 36, Length);
    EXPECT_TRUE(Has(Out, "device entry 455 and the entries after it")) << Out;
    EXPECT_EQ(0xEE, Buffer[RZP_MAX_PAYLOAD]);
}

// The dump shows absent strings as empty values; a release with another code than the two
// record codes releases nothing.
TEST_F(Records, DumpShowsAbsentStringsAsEmptyValues)
{
    PRECONFIGURATION *C = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(PRECONFIGURATION)));
    C->PromptType = RZP_TYPE_STRING;
    C->ActualValue = DuplicateString("81");
    FreeConfigStruct(C, 302);
    EXPECT_STREQ("81", C->ActualValue);
    DEBUG_FLAG = 1;
    std::string Out = Captured([&] { DumpConfigurationStruct(C, RZP_STRUCT_POSTCONFIG); });
    EXPECT_EQ(0u, Out.find("PostConfiguration Structure found\n"));
    EXPECT_TRUE(Has(Out, "Prompt                                     Type:  208"
                         "    Length:  0    Value: \n")) << Out;
    FreeConfigStruct(C, RZP_STRUCT_POSTCONFIG);
}

TEST_F(Records, RecordLongerThanItsBufferRefusesTheComponent)
{
    std::string Long(9000, 'x');
    std::string Path = Write(
        "c.xml",
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

// Enough records that the index grows past its first size; handles far out of range must not
// wrap into a position.
TEST(RecordList, LookupFindsEveryHandleInAnyOrderAndNothingAfterRelease)
{
    const unsigned char Record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const int32_t Count = 130;
    int32_t First = InstallPacketNumber;
    EXPECT_EQ(nullptr, LastInstallRecord());
    for (int i = 0; i < Count; i++)
        ASSERT_EQ(0, AppendInstallRecord("c.rpm", Record, sizeof Record));
    for (int32_t Handle : {First, First + 1, First + 129, First + 64, First + 63, First + 1, First}) {
        PINSTALL_PACKET_LIST Node = FindInstallRecord(Handle);
        ASSERT_NE(nullptr, Node) << Handle;
        EXPECT_EQ(Handle, Node->InstallPacketHandle);
        EXPECT_EQ(0, memcmp(Record, Node->InstallPacketSendBuffer, sizeof Record));
        if (Handle > First) {
            EXPECT_EQ(Node, FindInstallRecord(Handle - 1)->NextPacket);
        }
    }
    EXPECT_EQ(FindInstallRecord(First + Count - 1), LastInstallRecord());
    EXPECT_EQ(nullptr, LastInstallRecord()->NextPacket);
    for (int32_t Handle : {First + Count, First - 1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(nullptr, FindInstallRecord(Handle)) << Handle;
    FreeInstallPacketList();
    EXPECT_EQ(nullptr, FindInstallRecord(First + 2));
    EXPECT_EQ(nullptr, LastInstallRecord());
    ASSERT_EQ(0, AppendInstallRecord("d.rpm", Record, sizeof Record));
    EXPECT_EQ(InstallPacketList, FindInstallRecord(First + Count));
    EXPECT_EQ(InstallPacketList, LastInstallRecord());
    FreeInstallPacketList();
}

} // namespace
