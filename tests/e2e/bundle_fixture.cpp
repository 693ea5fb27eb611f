// bundle_fixture.cpp - writes test bundles and encodes by hand the records and messages that
// the sub-service must produce for them. Under the sanitizer builds it also fails the test
// program when a sub-service it ran printed a sanitizer report, even where a test looked only
// at the packets.
#include "bundle_fixture.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "sandbox.h"

// A component with its five describing strings; the rest as TComponent's defaults.
static TComponent NamedComponent(const char *FileName, const char *Version, const char *Name,
                                 const char *Description, const char *Command)
{
    TComponent C;
    C.FileName = FileName;
    C.Version = Version;
    C.Name = Name;
    C.Description = Description;
    C.Command = Command;
    return C;
}

TComponent AgentComponent(void)
{
    TComponent C = NamedComponent("agent-5.0-3.i386.rpm", "5.0.2", "Management agent",
                                  "Publishes the health of the server.\nAsks for its port first.",
                                  "rpm -Uvh agent-5.0-3.i386.rpm");
    C.Prerequisites = {{1, "libssl.so.2"}, {9, "HOSTNAME"}};
    C.Postrequisites = {{11, "snmpd"}};
    TVariable Port;
    Port.Required = true;
    Port.Minimum = 2;
    Port.Maximum = 5;
    Port.Prompt = "Port of the HTTPS server:";
    Port.Acceptable = "0123456789";
    Port.OutputName = "HTTPPORT";
    Port.OutputType = 1;
    Port.Default = "2381";
    Port.OutputFile = "/etc/agent.conf";
    Port.Attributes = 0x1f;
    TVariable Community; // required no, no maximum, several absent strings
    Community.WriteMaximum = false;
    Community.Prompt = "SNMP community:";
    Community.Actual = "public";
    C.PreConfiguration = {Port};
    C.PostConfiguration = {Community};
    C.PostCompilation = true;
    return C;
}

TComponent DriverComponent(void)
{
    TComponent C = NamedComponent("e100-5.2-1.i386.rpm", "5.2.30", "Ethernet driver",
                                  "Driver for the 10/100 adapters.",
                                  "rpm -Uvh --force e100-5.2-1.i386.rpm");
    C.Reboot = true;
    C.Devices = {{"8086", "1229", "0E11", "B0DD"}, {"8086", "2449", "", ""}};
    C.Prerequisites = {{6, "2.4.18-3"}};
    return C;
}

TComponent PlainComponent(const std::string &FileName)
{
    TComponent C;
    C.FileName = FileName;
    C.Name = "Component " + FileName;
    C.Description = "Plain component.";
    C.Command = "rpm -Uvh " + FileName;
    return C;
}

// ---- XML ---------------------------------------------------------------------------------------

// <E>Body</E> on lines of their own; Attrs goes inside the opening tag.
static std::string El(const std::string &E, const std::string &Body, const std::string &Attrs = "")
{
    return "<" + E + Attrs + ">\n" + Body + "</" + E + ">\n";
}
static std::string Empty(const std::string &E, const std::string &Attrs)
{
    return "<" + E + Attrs + "/>\n";
}
static std::string At(const std::string &Name, const std::string &Value)
{
    return " " + Name + "=\"" + Value + "\"";
}
static std::string Cdata(const std::string &E, const std::string &Text, const std::string &Lang)
{
    return El(E, "<![CDATA[" + Text + "]]>\n", Lang.empty() ? "" : At("lang", Lang));
}
static std::string Flag(const std::string &E, bool Value)
{
    return Empty(E, At("value", Value ? "yes" : "no"));
}

static std::string VariableXml(const std::string &Kind, const TVariable &V)
{
    char Hex[16];
    snprintf(Hex, sizeof(Hex), "%x", V.Attributes);
    std::string X = Empty("requirements", At("required", V.Required ? "yes" : "no") +
                                              At("minimumlength", std::to_string(V.Minimum)) +
                                              (V.WriteMaximum ? At("maximumlength", std::to_string(V.Maximum)) : ""));
    X += El("prompt", Cdata("prompt_xlate", "Eingabe:", "de") + Cdata("prompt_xlate", V.Prompt, "en"));
    if (!V.Acceptable.empty())
        X += Cdata("acceptable_characters", V.Acceptable, "");
    if (!V.Format.empty())
        X += Cdata("required_format", V.Format, "");
    if (!V.OutputName.empty())
        X += Empty("outputname", At("type", std::to_string(V.OutputType)) + At("name", V.OutputName));
    const std::string Values[3][2] = {
        {"default_value", V.Default}, {"actual_value", V.Actual}, {"output_filename", V.OutputFile}};
    for (const auto &Each : Values)
        if (!Each[1].empty())
            X += Empty(Each[0], At("value", Each[1]));
    if (V.Attributes != 0)
        X += Empty("attributes", At("value", Hex));
    return El(Kind + "_data_and", X);
}

static std::string RequisitesXml(const std::string &Kind, const std::vector<TRequisite> &List)
{
    std::string X;
    for (const TRequisite &R : List)
        X += Empty(Kind + "_data", At("SubType", std::to_string(R.SubType)) + At("value", R.Value));
    return El(Kind + "s", X);
}

static std::string DevicesXml(const std::vector<TDevice> &Devices)
{
    std::string X;
    for (const TDevice &D : Devices) {
        std::string Device;
        const std::string Parts[4][2] = {
            {"ven", D.Ven}, {"dev", D.Dev}, {"subven", D.SubVen}, {"subdev", D.SubDev}};
        for (const auto &P : Parts)
            if (!P[1].empty())
                Device += "<supported_device_data name=\"" + P[0] + "\">" + P[1] +
                          "</supported_device_data>\n";
        X += El("supported_devices_and", El("supported_device", Device));
    }
    return El("prerequisites", El("supported_devices", X));
}

static std::string ConfigurationXml(const std::string &Kind, const std::vector<TVariable> &List)
{
    std::string X;
    for (const TVariable &V : List)
        X += VariableXml(Kind, V);
    return El(Kind, X);
}

static std::string PlatformXml(const TComponent &C)
{
    std::string Ours = Flag("has_prerequisites", !C.Prerequisites.empty()) +
                       Flag("has_postrequisites", !C.Postrequisites.empty()) +
                       Flag("requires_preconfiguration", !C.PreConfiguration.empty()) +
                       Flag("requires_postconfiguration", !C.PostConfiguration.empty()) +
                       Flag("requires_precompilation", C.PreCompilation) +
                       Flag("requires_postcompilation", C.PostCompilation) +
                       RequisitesXml("prerequisite", C.Prerequisites) +
                       RequisitesXml("postrequisite", C.Postrequisites) +
                       ConfigurationXml("preconfiguration", C.PreConfiguration) +
                       ConfigurationXml("postconfiguration", C.PostConfiguration);
    // Another distribution's section, which must never be read on this machine.
    std::string Other = Flag("has_prerequisites", true) + Flag("has_postrequisites", true) +
                        RequisitesXml("prerequisite", {{3, "/wrong/distribution"}});
    return El("platform_specific", El("LINUX", El("Red_Hat_Linux_7.3", Ours) +
                                                   El("Red_Hat_Enterprise_Linux_3", Other)));
}

std::string ComponentXml(const TComponent &C)
{
    std::string X = Empty("version", At("value", C.Version)) +
                    El("name", "<name_xlate lang=\"fr\">Nom</name_xlate>\n<name_xlate lang=\"en\">" +
                                   C.Name + "</name_xlate>\n") +
                    El("description", Cdata("description_xlate", C.Description, "en"));
    if (!C.BreakXml)
        X += El("installation", El("install", Flag("reboot_required", C.Reboot) + "<command>" +
                                                  C.Command + "</command>\n"));
    return "<?xml version=\"1.0\"?>\n" + El("zel_package", X + DevicesXml(C.Devices) + PlatformXml(C));
}

std::string BundleXml(const std::vector<TComponent> &Components)
{
    std::string X = "<zel_bundle>\n<version value=\"" TEST_BUNDLE_VERSION "\"/>\n<name>\n"
                    "<name_xlate lang=\"de\">Testpaket</name_xlate>\n"
                    "<name_xlate lang=\"en\">" TEST_BUNDLE_NAME "</name_xlate>\n</name>\n"
                    "<operating_systems>\n<operating_system>\n"
                    "<operating_system_xlate lang=\"en\">Red Hat Linux 7.3</operating_system_xlate>\n"
                    "</operating_system>\n</operating_systems>\n<contents>\n";
    for (const TComponent &C : Components)
        X += "<package install=\"yes\">" + C.FileName + "</package>\n";
    return X + "<package install=\"no\">unselected-1.0.rpm</package>\n</contents>\n</zel_bundle>\n";
}

static void WriteText(const std::string &Path, const std::string &Text)
{
    std::ofstream(Path, std::ios::binary | std::ios::trunc) << Text;
}

void WriteOtherBundle(const std::string &Path, const std::string &Name, const std::string &System)
{
    WriteText(Path, "<zel_bundle>\n<version value=\"1\"/>\n<name>\n<name_xlate lang=\"en\">" + Name +
                        "</name_xlate>\n</name>\n<operating_systems>\n<operating_system>\n"
                        "<operating_system_xlate>" + System + "</operating_system_xlate>\n"
                        "</operating_system>\n</operating_systems>\n<contents>\n"
                        "<package install=\"yes\">a-1.0.rpm</package>\n</contents>\n</zel_bundle>\n");
}

void WriteBundle(const std::vector<TComponent> &Components)
{
    mkdir(TEST_BUNDLE_DIR, 0755);
    WriteText(TEST_BUNDLE_DIR "/bp000001.xml", BundleXml(Components));
    for (const TComponent &C : Components) {
        std::string Base = std::string(TEST_BUNDLE_DIR "/") + C.FileName;
        if (C.WritePackage)
            WriteText(Base, "package " + C.FileName + "\n");
        if (C.WriteXml)
            WriteText(Base.substr(0, Base.rfind('.')) + ".xml", ComponentXml(C));
    }
}

// ---- Records -----------------------------------------------------------------------------------

static void PutTriple(Bytes *B, uint32_t Type, uint32_t Value)
{
    ZmPutU32(B, Type);
    ZmPutU32(B, 4);
    ZmPutU32(B, Value);
}

static void PutBool(Bytes *B, bool Value)
{
    ZmPutU32(B, RZP_TYPE_BOOL);
    ZmPutU32(B, 1);
    ZmPutByte(B, Value ? 1 : 0);
}

// An absent string is declared with length 0 and sent as a lone NUL.
static void PutString(Bytes *B, const std::string &Text, bool Absent = false)
{
    ZmPutU32(B, RZP_TYPE_STRING);
    ZmPutU32(B, Absent ? 0 : (uint32_t)Text.size() + 1);
    ZmPutString(B, Text);
}

static void PutRequisite(Bytes *B, uint32_t Structure, uint32_t SubType, const std::string &Value)
{
    ZmPutU32(B, Structure);
    ZmPutU32(B, 4 + 4 + (uint32_t)Value.size() + 1);
    ZmPutU32(B, SubType);
    ZmPutU32(B, (uint32_t)Value.size() + 1);
    ZmPutString(B, Value);
}

static void PutVariable(Bytes *B, uint32_t Structure, const TVariable &V)
{
    Bytes Body;
    PutBool(&Body, V.Required);
    PutTriple(&Body, RZP_TYPE_ULONG, V.Minimum);
    PutTriple(&Body, RZP_TYPE_ULONG, V.WriteMaximum ? V.Maximum : 16384);
    PutString(&Body, V.Prompt);
    PutString(&Body, V.Acceptable, V.Acceptable.empty());
    PutString(&Body, V.Format, V.Format.empty());
    PutTriple(&Body, RZP_TYPE_ULONG, V.OutputName.empty() ? 0 : V.OutputType);
    for (const std::string *S : {&V.OutputName, &V.Default, &V.Actual, &V.OutputFile})
        PutString(&Body, *S, S->empty());
    PutTriple(&Body, RZP_TYPE_ULONG, V.Attributes);
    ZmPutU32(B, Structure);
    ZmPutU32(B, (uint32_t)Body.size());
    B->insert(B->end(), Body.begin(), Body.end());
}

static std::string DevicePart(const std::string &Part)
{
    return Part.empty() ? "0000" : Part;
}

Bytes ExpectedRecord(const TComponent &C, uint32_t Number)
{
    Bytes B;
    bool HasPre = !C.Prerequisites.empty() || !C.Devices.empty();
    PutTriple(&B, RZP_TYPE_ULONG, Number);
    for (bool Flag : {HasPre, !C.PreConfiguration.empty(), C.PreCompilation,
                      !C.PostConfiguration.empty(), C.PostCompilation, !C.Postrequisites.empty(),
                      C.Reboot})
        PutBool(&B, Flag);
    PutTriple(&B, RZP_TYPE_SLONG, 0);
    for (const std::string &S : {std::string("SUCCESS"), C.FileName, C.Name, C.Description,
                                 C.Version, C.Command, std::string("MG"), std::string("MG")})
        PutString(&B, S);
    for (const TDevice &D : C.Devices)
        PutRequisite(&B, RZP_STRUCT_PREREQ, SUBTYPE_PCI_DEVICE_PRESENT,
                     DevicePart(D.Ven) + "." + DevicePart(D.Dev) + "." + DevicePart(D.SubVen) +
                         "." + DevicePart(D.SubDev));
    for (const TRequisite &R : C.Prerequisites)
        PutRequisite(&B, RZP_STRUCT_PREREQ, R.SubType, R.Value);
    for (const TRequisite &R : C.Postrequisites)
        PutRequisite(&B, RZP_STRUCT_POSTREQ, R.SubType, R.Value);
    for (const TVariable &V : C.PreConfiguration)
        PutVariable(&B, RZP_STRUCT_PRECONFIG, V);
    for (const TVariable &V : C.PostConfiguration)
        PutVariable(&B, RZP_STRUCT_POSTCONFIG, V);
    ZmPutU32(&B, RZP_TERMINATE_LIST);
    ZmPutU32(&B, 0);
    return B;
}

// ---- Sessions ----------------------------------------------------------------------------------

bool EnterRedHat73(void)
{
    return SandboxEnter() == 0 && SandboxClearReleaseFiles() == 0 &&
           SandboxSetFile("/etc/redhat-release", "Red Hat Linux release 7.3 (Valhalla)\n") == 0;
}

RZP_HEADER_PACKET HeaderTo(ZmSession *S, uint32_t OpCode, int Sequence, int ReturnCode)
{
    RZP_HEADER_PACKET H;
    memset(&H, 0, sizeof H);
    H.SrcHandle = S->ReceiveHandle;
    H.DestHandle = S->SendHandle;
    H.LocalSequenceNumber = Sequence;
    H.RemoteSequenceNumber = -1;
    H.opCode = OpCode;
    H.ReturnCode = ReturnCode;
    return H;
}


bool PrepareMachine(const std::vector<TComponent> &Components)
{
    bool Ready = EnterRedHat73();
    EXPECT_TRUE(Ready) << "the sandbox cannot be entered";
    if (Ready)
        WriteBundle(Components);
    return Ready;
}

bool StartParser(ZmSession *S, const std::vector<std::string> &Args, ZmConfig Config)
{
    Config.ParserPath = ZEL_PARSER_PATH;
    Config.BundleDir = TEST_BUNDLE_DIR;
    Config.Args = Args;
    std::string Error;
    int Result = ZmStart(S, Config, &Error);
    EXPECT_EQ(Result, 0) << Error;
    return Result == 0;
}

bool BlockMidParse(ZmSession *S)
{
    auto IsLog = [](const ZmPacket &P, const void *) {
        return P.Direction == ZM_FROM_PARSER && P.Header.opCode == RZP_LOG_DATA;
    };
    size_t From = 0;
    return ZmSendPacket(S, HeaderTo(S, RZP_PARSER_PARSE_INPUT_FILE, 1, RZP_NO_RESULT_YET), {}) == 0 &&
           ZmWaitForPacket(S, IsLog, nullptr, &From, nullptr) == 0;
}

std::vector<Bytes> FetchRecords(ZmSession *S, int32_t *Count)
{
    std::vector<Bytes> Raw;
    std::string Error;
    EXPECT_EQ(ZmFetchAllRecords(S, &Raw, nullptr, Count, &Error), 0) << Error;
    return Raw;
}

void ExpectRecords(const std::vector<Bytes> &Raw, const std::vector<TComponent> &Built, uint32_t First)
{
    ASSERT_EQ(Raw.size(), Built.size());
    for (size_t i = 0; i < Raw.size(); i++)
        EXPECT_EQ(Raw[i], ExpectedRecord(Built[i], First + (uint32_t)i)) << "record " << i;
}

ZmPacket Ask(ZmSession *S, uint32_t OpCode, const Bytes &Payload)
{
    ZmPacket Answer;
    EXPECT_EQ(ZmRequest(S, OpCode, Payload, &Answer), 0) << "no answer to opcode " << OpCode;
    return Answer;
}

// ---- Messages ----------------------------------------------------------------------------------

static const std::string Banner = std::string(91, '*') + "\n";

void ExpectBundleOpening(TMessages *M)
{
    std::string Announce = "This installation of the Strovane Rezapak will use the " TEST_BUNDLE_FILE
                           " bundle file.\n";
    std::string Progress = "\nThe " TEST_BUNDLE_NAME " v" TEST_BUNDLE_VERSION
                           " installation is now in progress.\n";
    M->Screen.insert(M->Screen.end(), {Announce, Progress});
    M->Log.insert(M->Log.end(), {Banner, Announce, Progress, Banner});
}

static void Pair(TMessages *M, const std::string &Screen, const std::string &Log)
{
    M->Screen.push_back(Screen);
    M->Log.push_back(Log);
}

void ExpectComponent(TMessages *M, const std::string &F, int Outcome, bool Coloured)
{
    const std::string Red = Coloured ? "\x1b[1;31mFAILED\x1b[0;39m" : "FAILED";
    const std::string Green = Coloured ? "\x1b[1;32mSUCCESSFUL\x1b[0;39m" : "SUCCESSFUL";
    const std::string Blue = Coloured ? "\x1b[1;34mDOES NOT SUPPORT\x1b[0;39m" : "DOES NOT SUPPORT";
    const std::string Missing = "Installation of Component " + F + " ";
    const std::string Parsed = "Parsing of XML file for " + F + " package\n\twas ";
    const std::string Errata = "However, this component ";
    const std::string Kernel = " the currently installed errata kernel.";
    switch (Outcome) {
    case OUTCOME_BUILT:
        Pair(M, Parsed + Green + ".\n", Parsed + "SUCCESSFUL.\n");
        break;
    case OUTCOME_NO_PACKAGE:
        Pair(M, Missing + Red + ".  The component file to install is missing.\n",
             Missing + "FAILED.  The component file to install is missing.\n");
        break;
    case OUTCOME_NO_XML:
        Pair(M, Missing + Red + ".  The component XML file is missing.\n",
             Missing + "FAILED.  The component XML file is missing.\n");
        break;
    default:
        Pair(M, Parsed + Green + ".", Parsed + "SUCCESSFUL.");
        Pair(M, Errata + Blue + Kernel, Errata + "DOES NOT SUPPORT" + Kernel);
        Pair(M, "\tInstallation of this component will not be attempted.\n",
             "\tInstallation of this component will not be attempted.\n");
    }
}

namespace {
struct SanitizerCheck : testing::Environment {
    void TearDown() override { EXPECT_EQ(ZmSanitizerReports(), 0) << "a sub-service printed a sanitizer report"; }
};
const testing::Environment *const Registered = testing::AddGlobalTestEnvironment(new SanitizerCheck);
} // namespace
