// install_test.cpp - whole installations through the real sub-service in the sandbox: the
// records it hands out, byte for byte, and the messages of a parse in both screen modes.
#include <cstring>

#include "bundle_fixture.h"

namespace {

class Install : public BundleTest {
protected:
    ZmPacket Open, Parse;
    // Writes the bundle of C, starts the sub-service with Args, opens and parses (answers in Open
    // and Parse), then expects Built's records, byte for byte, and Items items; returns them.
    std::vector<Bytes> Run(const std::vector<TComponent> &C, const std::vector<std::string> &Args,
                           const std::vector<TComponent> &Built, int32_t Items,
                           ZmConfig Config = ZmConfig())
    {
        if (!StartParser(&S, C, Args, Config))
            return {};
        Open = Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
        Parse = Ask(&S, RZP_PARSER_PARSE_INPUT_FILE);
        EXPECT_EQ(Parse.Header.ReturnCode, 0);
        int32_t Count = -1;
        std::vector<Bytes> Raw = FetchRecords(&S, &Count);
        ExpectRecords(Raw, Built);
        EXPECT_EQ(Count, Items);
        return Raw;
    }
};

TEST_F(Install, RecordsAndMessagesOfAWholeBundleMatchTheLayout)
{
    std::vector<TComponent> C = {DriverComponent(), AgentComponent(),
                                 PlainComponent("tools-2.1-1.i386.rpm")};
    std::vector<Bytes> Raw = Run(C, {}, C, 3);
    EXPECT_EQ(Open.Header.ReturnCode, 0);
    EXPECT_EQ(Open.Payload, ZmStringItem(TEST_BUNDLE_NAME, strlen(TEST_BUNDLE_NAME)));
    EXPECT_EQ(Parse.Payload, ZmStringItem(TEST_BUNDLE_FILE));
    std::vector<Bytes> Asked; // the errata question carries the very record stored later
    for (const ZmPacket &P : ZmPacketsSnapshot(&S))
        if (P.Direction == ZM_FROM_PARSER &&
            P.Header.opCode == RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA)
            Asked.push_back(P.Payload);
    EXPECT_EQ(Asked, Raw);
    ExpectMessages(&S, BundleOpening(), C);
    EXPECT_EQ(ZmStop(&S), 0);
}

TEST_F(Install, FailedComponentsAreReportedColouredAndDoNotUseUpNumbers)
{
    std::vector<TComponent> C;
    for (const char *Name : {"a-1.0.rpm", "b-1.0.rpm", "c-1.0.rpm", "d-1.0.rpm", "e-1.0.rpm",
                             "f-1.0.rpm"})
        C.push_back(PlainComponent(Name));
    C[1].WritePackage = false;
    C[2].WriteXml = false;
    C[3].BreakXml = true;
    ZmConfig Config;
    Config.ErrataUnsupported = {"e-1.0.rpm"};
    Run(C, {"--NUI"}, {C[0], C[5]}, 2, Config);
    ExpectMessages(&S, BundleOpening(), C,
                   {OUTCOME_BUILT, OUTCOME_NO_PACKAGE, OUTCOME_NO_XML, OUTCOME_NO_XML,
                    OUTCOME_ERRATA, OUTCOME_BUILT},
                   true);
    EXPECT_NE(ZmConsoleSnapshot(&S).find("XML File c-1.0.xml returned error"), std::string::npos);
}

TEST_F(Install, UpdatePacketSwitchesColoursForTheNextParse)
{
    std::vector<TComponent> C = {PlainComponent("a-1.0.rpm"), PlainComponent("b-1.0.rpm")};
    C[1].WritePackage = false;
    ASSERT_TRUE(StartParser(&S, C));
    Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    // Each parse starts afresh: its messages and one record, numbered on from the last parse.
    // The update's items are reboot, force, no user interface; one cut short changes nothing.
    struct Step {
        unsigned char Flags[3];
        size_t Cut;
        bool Coloured;
    } Steps[] = {{{1, 0, 1}, 0, true}, {{0, 0, 0}, 1, true}, {{0, 1, 0}, 0, false}};
    uint32_t Number = 0;
    for (const Step &Each : Steps) {
        Bytes Update;
        for (unsigned char Flag : Each.Flags)
            ZmPutU32(&Update, RZP_TYPE_BOOL), ZmPutU32(&Update, 1), ZmPutByte(&Update, Flag);
        Update.resize(Update.size() - Each.Cut);
        RZP_HEADER_PACKET H =
            HeaderTo(&S, RZP_UPDATE_COMMAND_LINE_PARMS, S.NextSequence++, RZP_NO_RESULT_YET);
        EXPECT_EQ(ZmSendPacket(&S, H, Update), 0); // the data length is filled in
        EXPECT_EQ(Ask(&S, RZP_PARSER_PARSE_INPUT_FILE).Header.ReturnCode, 0);
        ExpectMessages(&S, BundleOpening(), C, {OUTCOME_BUILT, OUTCOME_NO_PACKAGE}, Each.Coloured);
        int32_t Count = -1;
        ExpectRecords(FetchRecords(&S, &Count), {C[0]}, Number++);
        EXPECT_EQ(Count, 1);
    }
}

TEST_F(Install, ViewFilterCountsTheSelectedComponentsOnly)
{
    std::vector<TComponent> C = {PlainComponent("e100-5.2-1.i386.rpm"),
                                 PlainComponent("e1000-6.0-1.i386.rpm"),
                                 PlainComponent("e100-tools-1.0.rpm"), PlainComponent("other-1.0.rpm")};
    C[2].WritePackage = false;
    C[3].WriteXml = false;
    Run(C, {"--VIEW", "e100"}, {C[0]}, 2); // the failed selected component still counts
    ExpectMessages(&S, BundleOpening(), C,
                   {OUTCOME_BUILT, OUTCOME_UNSELECTED, OUTCOME_NO_PACKAGE, OUTCOME_UNSELECTED});
}

TEST_F(Install, TQRInstallBuildsTheNamedPackagesWithoutABundle)
{
    std::vector<TComponent> C = {AgentComponent(), PlainComponent("tools-2.1-1.i386.rpm")};
    Run(C, {"-C", C[0].FileName, "-C", "tools-2.1-1.i386.RPM"}, C, 2);
    EXPECT_EQ(Open.Header.ReturnCode, 0);
    EXPECT_EQ(Open.Payload, ZmStringItem("Performing TQR Install.", 23));
    EXPECT_EQ(Parse.Header.DataLength, 0);
    const std::string Banner = std::string(91, '*') + "\n";
    const std::string Marovex = "Performing an installation of components from Marovex.";
    ExpectMessages(&S, {{Marovex, ""}, {Banner, Marovex, "", Banner}}, C);
}

} // namespace
