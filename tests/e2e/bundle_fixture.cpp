// bundle_fixture.cpp - writes test bundles and encodes by hand the records and messages that
// the sub-service must produce for them. Under the sanitizer builds it also fails the test
// program when a sub-service it ran printed a sanitizer report, even where a test looked only
// at the packets.
#include "bundle_fixture.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <mutex>

TComponent AgentComponent(void)
{
    // The port: required, 2 to 5 characters, every string but the format. The community: not
    // required, no maximum written, only the actual value of the optional strings.
    TVariable Port = {true, 2, 5, true, "Port of the HTTPS server:", "0123456789", "",
                      "HTTPPORT", "2381", "", "/etc/agent.conf", 1, 0x1f};
    TVariable Community = {false, 0, 16384, false, "SNMP community:", "", "", "", "", "public"};
    return {"agent-5.0-3.i386.rpm", "5.0.2", "Management agent",
            "Publishes the health of the server.\nAsks for its port first.",
            "rpm -Uvh agent-5.0-3.i386.rpm", false, false, true, {},
            {{1, "libssl.so.2"}, {9, "HOSTNAME"}}, {{11, "snmpd"}}, {Port}, {Community}};
}

TComponent DriverComponent(void)
{
    return {"e100-5.2-1.i386.rpm", "5.2.30", "Ethernet driver", "Driver for the 10/100 adapters.",
            "rpm -Uvh --force e100-5.2-1.i386.rpm", true, false, false,
            {{"8086", "1229", "0E11", "B0DD"}, {"8086", "2449", "", ""}}, {{6, "2.4.18-3"}}};
}

TComponent PlainComponent(const std::string &F)
{
    return {F, "1.0", "Component " + F, "Plain component.", "rpm -Uvh " + F};
}

// ---- XML ---------------------------------------------------------------------------------------

// <E>Text</E> on one line; El puts Body on lines of its own. Attrs goes inside the opening tag.
static std::string Line(const std::string &E, const std::string &Text,
                        const std::string &Attrs = "")
{
    return "<" + E + Attrs + ">" + Text + "</" + E + ">\n";
}
static std::string El(const std::string &E, const std::string &Body, const std::string &Attrs = "")
{
    return Line(E, "\n" + Body, Attrs);
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

static std::string ConfigurationXml(const std::string &Kind, const std::vector<TVariable> &List)
{
    std::string All;
    for (const TVariable &V : List) {
        char Hex[16];
        snprintf(Hex, sizeof(Hex), "%x", V.Attributes);
        std::string Limits = At("minimumlength", std::to_string(V.Minimum));
        if (V.WriteMaximum)
            Limits += At("maximumlength", std::to_string(V.Maximum));
        std::string X = Empty("requirements", At("required", V.Required ? "yes" : "no") + Limits) +
                        El("prompt", Cdata("prompt_xlate", "Eingabe:", "de") +
                                         Cdata("prompt_xlate", V.Prompt, "en"));
        if (!V.Acceptable.empty())
            X += Cdata("acceptable_characters", V.Acceptable, "");
        if (!V.Format.empty())
            X += Cdata("required_format", V.Format, "");
        if (!V.OutputName.empty())
            X += Empty("outputname",
                       At("type", std::to_string(V.OutputType)) + At("name", V.OutputName));
        const std::string Values[4][2] = {{"default_value", V.Default},
                                          {"actual_value", V.Actual},
                                          {"output_filename", V.OutputFile},
                                          {"attributes", V.Attributes != 0 ? Hex : ""}};
        for (const auto &Each : Values)
            if (!Each[1].empty())
                X += Empty(Each[0], At("value", Each[1]));
        All += El(Kind + "_data_and", X);
    }
    return El(Kind, All);
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
                Device += Line("supported_device_data", P[1], At("name", P[0]));
        X += El("supported_devices_and", El("supported_device", Device));
    }
    return El("prerequisites", El("supported_devices", X));
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

static std::string ComponentXml(const TComponent &C)
{
    std::string X = Empty("version", At("value", C.Version)) +
                    El("name", Line("name_xlate", "Nom", At("lang", "fr")) +
                                   Line("name_xlate", C.Name, At("lang", "en"))) +
                    El("description", Cdata("description_xlate", C.Description, "en"));
    if (!C.BreakXml)
        X += El("installation",
                El("install", Flag("reboot_required", C.Reboot) + Line("command", C.Command)));
    return "<?xml version=\"1.0\"?>\n" + El("zel_package", X + DevicesXml(C.Devices) + PlatformXml(C));
}

// A bundle file: its names (name_xlate lines), the one system it supports, its contents.
static std::string BundleXml(const std::string &Version, const std::string &Names,
                             const std::string &System, const std::string &Packages)
{
    return El("zel_bundle", Empty("version", At("value", Version)) + El("name", Names) +
                                El("operating_systems", El("operating_system", System)) +
                                El("contents", Packages));
}

static void WriteText(const std::string &Path, const std::string &Text)
{
    std::ofstream(Path, std::ios::binary | std::ios::trunc) << Text;
}

void WriteOtherBundle(const std::string &Path, const std::string &Name, const std::string &System)
{
    WriteText(Path, BundleXml("1", Line("name_xlate", Name, At("lang", "en")),
                              Line("operating_system_xlate", System),
                              Line("package", "a-1.0.rpm", At("install", "yes"))));
}

// Writes TEST_BUNDLE_DIR afresh: the bundle file and each component's files.
static void WriteBundle(const std::vector<TComponent> &Components)
{
    std::string Packages;
    for (const TComponent &C : Components)
        Packages += Line("package", C.FileName, At("install", "yes"));
    mkdir(TEST_BUNDLE_DIR, 0755);
    WriteText(TEST_BUNDLE_DIR "/bp000001.xml",
              BundleXml(TEST_BUNDLE_VERSION,
                        Line("name_xlate", "Testpaket", At("lang", "de")) +
                            Line("name_xlate", TEST_BUNDLE_NAME, At("lang", "en")),
                        Line("operating_system_xlate", "Red Hat Linux 7.3", At("lang", "en")),
                        Packages + Line("package", "unselected-1.0.rpm", At("install", "no"))));
    for (const TComponent &C : Components) {
        std::string Base = std::string(TEST_BUNDLE_DIR "/") + C.FileName;
        if (C.WritePackage)
            WriteText(Base, "package " + C.FileName + "\n");
        if (C.WriteXml)
            WriteText(Base.substr(0, Base.rfind('.')) + ".xml", ComponentXml(C));
    }
}

// ---- Records -----------------------------------------------------------------------------------

// An item or a structure: its type, its declared length, its bytes.
static void Put(Bytes *B, uint32_t Type, uint32_t Length, const Bytes &Value)
{
    ZmPutU32(B, Type);
    ZmPutU32(B, Length);
    B->insert(B->end(), Value.begin(), Value.end());
}

static void PutULong(Bytes *B, uint32_t Value, uint32_t Type = RZP_TYPE_ULONG)
{
    Bytes V;
    ZmPutU32(&V, Value);
    Put(B, Type, 4, V);
}

// An absent string is declared with length 0 and sent as a lone NUL.
static void PutString(Bytes *B, const std::string &Text, bool Absent = false)
{
    Bytes V;
    ZmPutString(&V, Text);
    Put(B, RZP_TYPE_STRING, Absent ? 0 : (uint32_t)V.size(), V);
}

static void PutRequisite(Bytes *B, uint32_t Structure, uint32_t SubType, const std::string &Value)
{
    Bytes Body;
    ZmPutU32(&Body, SubType);
    ZmPutU32(&Body, (uint32_t)Value.size() + 1);
    ZmPutString(&Body, Value);
    Put(B, Structure, (uint32_t)Body.size(), Body);
}

static void PutVariable(Bytes *B, uint32_t Structure, const TVariable &V)
{
    Bytes Body;
    Put(&Body, RZP_TYPE_BOOL, 1, {V.Required});
    PutULong(&Body, V.Minimum);
    PutULong(&Body, V.WriteMaximum ? V.Maximum : 16384);
    PutString(&Body, V.Prompt);
    PutString(&Body, V.Acceptable, V.Acceptable.empty());
    PutString(&Body, V.Format, V.Format.empty());
    PutULong(&Body, V.OutputName.empty() ? 0 : V.OutputType);
    for (const std::string *S : {&V.OutputName, &V.Default, &V.Actual, &V.OutputFile})
        PutString(&Body, *S, S->empty());
    PutULong(&Body, V.Attributes);
    Put(B, Structure, (uint32_t)Body.size(), Body);
}

Bytes ExpectedRecord(const TComponent &C, uint32_t Number)
{
    Bytes B;
    PutULong(&B, Number);
    for (bool Flag : {!C.Prerequisites.empty() || !C.Devices.empty(), !C.PreConfiguration.empty(),
                      C.PreCompilation, !C.PostConfiguration.empty(), C.PostCompilation,
                      !C.Postrequisites.empty(), C.Reboot})
        Put(&B, RZP_TYPE_BOOL, 1, {Flag});
    PutULong(&B, 0, RZP_TYPE_SLONG);
    for (const std::string &S : {std::string("SUCCESS"), C.FileName, C.Name, C.Description,
                                 C.Version, C.Command, std::string("MG"), std::string("MG")})
        PutString(&B, S);
    for (const TDevice &D : C.Devices) {
        std::string Id; // absent parts read as 0000
        for (const std::string *Part : {&D.Ven, &D.Dev, &D.SubVen, &D.SubDev})
            Id += (Id.empty() ? "" : ".") + (Part->empty() ? "0000" : *Part);
        PutRequisite(&B, RZP_STRUCT_PREREQ, SUBTYPE_PCI_DEVICE_PRESENT, Id);
    }
    for (const TRequisite &R : C.Prerequisites)
        PutRequisite(&B, RZP_STRUCT_PREREQ, R.SubType, R.Value);
    for (const TRequisite &R : C.Postrequisites)
        PutRequisite(&B, RZP_STRUCT_POSTREQ, R.SubType, R.Value);
    for (const TVariable &V : C.PreConfiguration)
        PutVariable(&B, RZP_STRUCT_PRECONFIG, V);
    for (const TVariable &V : C.PostConfiguration)
        PutVariable(&B, RZP_STRUCT_POSTCONFIG, V);
    Put(&B, RZP_TERMINATE_LIST, 0, {});
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
    // From our receiving handle to its; no remote number; the data length is filled in on send.
    return {S->ReceiveHandle, S->SendHandle, Sequence, -1, OpCode, ReturnCode, 0, 0};
}

bool StartParser(ZmSession *S, const std::vector<TComponent> &Components,
                 const std::vector<std::string> &Args, ZmConfig Config)
{
    if (!EnterRedHat73()) {
        ADD_FAILURE() << "the sandbox cannot be entered";
        return false;
    }
    WriteBundle(Components);
    Config.ParserPath = ZEL_PARSER_PATH;
    Config.BundleDir = TEST_BUNDLE_DIR;
    Config.Args = Args;
    Config.TimeoutMs = 15000;
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

TMessages BundleOpening(void)
{
    const std::string Banner = std::string(91, '*') + "\n";
    const std::string Announce = "This installation of the Strovane Rezapak will use the "
                                 TEST_BUNDLE_FILE " bundle file.\n";
    const std::string Progress = "\nThe " TEST_BUNDLE_NAME " v" TEST_BUNDLE_VERSION
                                 " installation is now in progress.\n";
    return {{Announce, Progress}, {Banner, Announce, Progress, Banner}};
}

// One message to both screen and log; on a coloured screen Word is painted in Colour.
static void Pair(TMessages *M, const std::string &Before, const std::string &Word, int Colour,
                 const std::string &After, bool Coloured)
{
    std::string Painted = "\x1b[1;" + std::to_string(Colour) + "m" + Word + "\x1b[0;39m";
    M->Screen.push_back(Before + (Coloured ? Painted : Word) + After);
    M->Log.push_back(Before + Word + After);
}

void ExpectMessages(ZmSession *S, TMessages M, const std::vector<TComponent> &C,
                    const std::vector<int> &Outcomes, bool Coloured)
{
    for (size_t i = 0; i < C.size(); i++) {
        const std::string &F = C[i].FileName;
        int Outcome = Outcomes.empty() ? OUTCOME_BUILT : Outcomes[i];
        if (Outcome == OUTCOME_NO_PACKAGE || Outcome == OUTCOME_NO_XML)
            Pair(&M, "Installation of Component " + F + " ", "FAILED", 31,
                 Outcome == OUTCOME_NO_XML ? ".  The component XML file is missing.\n"
                                           : ".  The component file to install is missing.\n",
                 Coloured);
        else if (Outcome != OUTCOME_UNSELECTED)
            Pair(&M, "Parsing of XML file for " + F + " package\n\twas ", "SUCCESSFUL", 32,
                 Outcome == OUTCOME_BUILT ? ".\n" : ".", Coloured);
        if (Outcome == OUTCOME_ERRATA) {
            Pair(&M, "However, this component ", "DOES NOT SUPPORT", 34,
                 " the currently installed errata kernel.", Coloured);
            Pair(&M, "\tInstallation of this component will not be attempted.\n", "", 0, "", false);
        }
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    EXPECT_EQ(S->ScreenTexts, M.Screen);
    EXPECT_EQ(S->LogTexts, M.Log);
    S->ScreenTexts.clear();
    S->LogTexts.clear();
}

namespace {
struct SanitizerCheck : testing::Environment {
    void TearDown() override { EXPECT_EQ(ZmSanitizerReports(), 0) << "a sub-service printed a sanitizer report"; }
};
const testing::Environment *const Registered = testing::AddGlobalTestEnvironment(new SanitizerCheck);
} // namespace
