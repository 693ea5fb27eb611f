// install_test.cpp - whole installations through the real sub-service in the sandbox: the
// records it hands out, byte for byte, and the messages of a parse in both screen modes.
#include <cstring>
#include <mutex>

#include <gtest/gtest.h>

#include "bundle_fixture.h"

namespace {

// Compares the messages received so far with M, then forgets them.
void ExpectMessages(ZmSession *S, const TMessages &M)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    EXPECT_EQ(S->ScreenTexts, M.Screen);
    EXPECT_EQ(S->LogTexts, M.Log);
    S->ScreenTexts.clear();
    S->LogTexts.clear();
}

void SendUpdate(ZmSession *S, const Bytes &Payload)
{
    RZP_HEADER_PACKET H =
        HeaderTo(S, RZP_UPDATE_COMMAND_LINE_PARMS, S->NextSequence++, RZP_NO_RESULT_YET);
    EXPECT_EQ(ZmSendPacket(S, H, Payload), 0); // the data length is filled in
}

Bytes UpdateFlags(unsigned char Reboot, unsigned char Force, unsigned char NoUserInterface)
{
    Bytes B;
    for (unsigned char Flag : {Reboot, Force, NoUserInterface})
        ZmPutU32(&B, RZP_TYPE_BOOL), ZmPutU32(&B, 1), ZmPutByte(&B, Flag);
    return B;
}

using Install = BundleTest;

TEST_F(Install, RecordsAndMessagesOfAWholeBundleMatchTheLayout)
{
    std::vector<TComponent> C = {DriverComponent(), AgentComponent(),
                                 PlainComponent("tools-2.1-1.i386.rpm")};
    ASSERT_TRUE(PrepareMachine(C));
    ASSERT_TRUE(StartParser(&S, {}));
    ZmPacket Open = Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    EXPECT_EQ(Open.Header.ReturnCode, 0);
    EXPECT_EQ(Open.Payload, ZmStringItem(TEST_BUNDLE_NAME, strlen(TEST_BUNDLE_NAME)));
    ZmPacket Parse = Ask(&S, RZP_PARSER_PARSE_INPUT_FILE);
    EXPECT_EQ(Parse.Header.ReturnCode, 0);
    EXPECT_EQ(Parse.Payload, ZmStringItem(TEST_BUNDLE_FILE));

    int32_t Count = -1;
    std::vector<Bytes> Raw = FetchRecords(&S, &Count);
    EXPECT_EQ(Count, 3);
    ExpectRecords(Raw, C);
    std::vector<Bytes> Asked; // the errata question carries the very record stored later
    for (const ZmPacket &P : ZmPacketsSnapshot(&S))
        if (P.Header.opCode == RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA &&
            P.Direction == ZM_FROM_PARSER)
            Asked.push_back(P.Payload);
    EXPECT_EQ(Asked, Raw);

    TMessages M;
    ExpectBundleOpening(&M);
    for (const TComponent &Each : C)
        ExpectComponent(&M, Each.FileName, OUTCOME_BUILT, false);
    ExpectMessages(&S, M);
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
    ASSERT_TRUE(PrepareMachine(C));
    ZmConfig Config;
    Config.ErrataUnsupported = {"e-1.0.rpm"};
    ASSERT_TRUE(StartParser(&S, {"--NUI"}, Config));
    Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    EXPECT_EQ(Ask(&S, RZP_PARSER_PARSE_INPUT_FILE).Header.ReturnCode, 0);

    int32_t Count = -1;
    std::vector<Bytes> Raw = FetchRecords(&S, &Count);
    EXPECT_EQ(Count, 2);
    ExpectRecords(Raw, {C[0], C[5]});
    TMessages M;
    ExpectBundleOpening(&M);
    const int Outcomes[] = {OUTCOME_BUILT,  OUTCOME_NO_PACKAGE, OUTCOME_NO_XML,
                            OUTCOME_NO_XML, OUTCOME_ERRATA,     OUTCOME_BUILT};
    for (size_t i = 0; i < C.size(); i++)
        ExpectComponent(&M, C[i].FileName, Outcomes[i], true);
    ExpectMessages(&S, M);
    EXPECT_NE(ZmConsoleSnapshot(&S).find("XML File c-1.0.xml returned error"), std::string::npos);
}

TEST_F(Install, UpdatePacketSwitchesColoursForTheNextParse)
{
    std::vector<TComponent> C = {PlainComponent("a-1.0.rpm"), PlainComponent("b-1.0.rpm")};
    C[1].WritePackage = false;
    ASSERT_TRUE(PrepareMachine(C));
    ASSERT_TRUE(StartParser(&S, {}));
    Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    // Each parse starts afresh: its messages and one record, numbered on from the last parse.
    // A packet too short for its three items changes nothing.
    Bytes Short = UpdateFlags(0, 0, 0);
    Short.resize(Short.size() - 1);
    struct Step {
        Bytes Update;
        bool Coloured;
    } Steps[] = {{UpdateFlags(1, 0, 1), true}, {Short, true}, {UpdateFlags(0, 1, 0), false}};
    uint32_t Number = 0;
    for (const Step &Each : Steps) {
        SendUpdate(&S, Each.Update);
        EXPECT_EQ(Ask(&S, RZP_PARSER_PARSE_INPUT_FILE).Header.ReturnCode, 0);
        TMessages M;
        ExpectBundleOpening(&M);
        ExpectComponent(&M, "a-1.0.rpm", OUTCOME_BUILT, Each.Coloured);
        ExpectComponent(&M, "b-1.0.rpm", OUTCOME_NO_PACKAGE, Each.Coloured);
        ExpectMessages(&S, M);
        int32_t Count = -1;
        std::vector<Bytes> Raw = FetchRecords(&S, &Count);
        EXPECT_EQ(Count, 1);
        ASSERT_EQ(Raw.size(), 1u);
        EXPECT_EQ(Raw[0], ExpectedRecord(C[0], Number++));
    }
}

TEST_F(Install, ViewFilterCountsTheSelectedComponentsOnly)
{
    std::vector<TComponent> C = {PlainComponent("e100-5.2-1.i386.rpm"),
                                 PlainComponent("e1000-6.0-1.i386.rpm"),
                                 PlainComponent("e100-tools-1.0.rpm"), PlainComponent("other-1.0.rpm")};
    C[2].WritePackage = false;
    C[3].WriteXml = false;
    ASSERT_TRUE(PrepareMachine(C));
    ASSERT_TRUE(StartParser(&S, {"--VIEW", "e100"}));
    Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    Ask(&S, RZP_PARSER_PARSE_INPUT_FILE);
    int32_t Count = -1;
    std::vector<Bytes> Raw = FetchRecords(&S, &Count);
    EXPECT_EQ(Count, 2); // the failed selected component still counts
    ExpectRecords(Raw, {C[0]});
    TMessages M;
    ExpectBundleOpening(&M);
    ExpectComponent(&M, C[0].FileName, OUTCOME_BUILT, false);
    ExpectComponent(&M, C[2].FileName, OUTCOME_NO_PACKAGE, false);
    ExpectMessages(&S, M);
}

TEST_F(Install, TQRInstallBuildsTheNamedPackagesWithoutABundle)
{
    std::vector<TComponent> C = {AgentComponent(), PlainComponent("tools-2.1-1.i386.rpm")};
    ASSERT_TRUE(PrepareMachine(C));
    ASSERT_TRUE(StartParser(&S, {"-C", C[0].FileName, "-C", "tools-2.1-1.i386.RPM"}));
    ZmPacket Open = Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    EXPECT_EQ(Open.Header.ReturnCode, 0);
    EXPECT_EQ(Open.Payload, ZmStringItem("Performing TQR Install.", 23));
    ZmPacket Parse = Ask(&S, RZP_PARSER_PARSE_INPUT_FILE);
    EXPECT_EQ(Parse.Header.ReturnCode, 0);
    EXPECT_EQ(Parse.Header.DataLength, 0);
    int32_t Count = -1;
    ExpectRecords(FetchRecords(&S, &Count), C);
    EXPECT_EQ(Count, 2);
    const std::string Banner(91, '*');
    const std::string Marovex = "Performing an installation of components from Marovex.";
    TMessages M;
    M.Screen = {Marovex, ""};
    M.Log = {Banner + "\n", Marovex, "", Banner + "\n"};
    for (const TComponent &Each : C)
        ExpectComponent(&M, Each.FileName, OUTCOME_BUILT, false);
    ExpectMessages(&S, M);
}

} // namespace
