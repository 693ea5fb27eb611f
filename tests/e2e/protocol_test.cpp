// The manager protocol end to end: the real zelparser in the sandbox, driven by the reference
// manager: registration, shut-down (the last packet the listener takes, after a busy worker),
// and the not-supported answer, debug on and off and malformed packets, which must leave the
// sub-service serving the next request.
#include "bundle_fixture.h"

namespace {

using ManagerProtocol = BundleTest;

std::vector<ZmPacket> FromParser(ZmSession *S, uint32_t OpCode)
{
    std::vector<ZmPacket> Found;
    for (const ZmPacket &P : ZmPacketsSnapshot(S))
        if (P.Direction == ZM_FROM_PARSER && P.Header.opCode == OpCode)
            Found.push_back(P);
    return Found;
}

Bytes RegistrationRecord(uint32_t OpCode)
{
    Bytes P;
    ZmPutU32(&P, 204); ZmPutU32(&P, 4); ZmPutU32(&P, OpCode);
    ZmPutU32(&P, 201); ZmPutU32(&P, 1); ZmPutByte(&P, 1);
    ZmPutU32(&P, 201); ZmPutU32(&P, 1); ZmPutByte(&P, 1);
    ZmPutU32(&P, 208); ZmPutU32(&P, 12); ZmPutString(&P, "PARSER_V100");
    ZmPutU32(&P, 208); ZmPutU32(&P, 21); ZmPutString(&P, "/dev/zelparser_write");
    ZmPutU32(&P, 208); ZmPutU32(&P, 20); ZmPutString(&P, "/dev/zelparser_read");
    return P;
}

TEST_F(ManagerProtocol, SevenRegistrationsInOrderWithConsecutiveNumbers)
{
    ASSERT_TRUE(StartParser(&S, {}, {"--DEBUG"}));
    std::vector<ZmPacket> Registrations = FromParser(&S, RZP_REGISTER);
    const uint32_t Expected[] = {4001, 4002, 4003, 4101, 4102, 4103, 4104};
    ASSERT_EQ(Registrations.size(), 7u);
    for (size_t i = 0; i < 7; i++) {
        const ZmPacket &P = Registrations[i];
        EXPECT_EQ(P.Connection, "/dev/zelrzp_np1");
        EXPECT_EQ(P.Header.LocalSequenceNumber, Registrations[0].Header.LocalSequenceNumber + int(i));
        EXPECT_EQ(P.Header.RemoteSequenceNumber, -1);
        EXPECT_EQ(P.Header.ReturnCode, RZP_NO_RESULT_YET);
        EXPECT_EQ(P.Header.DataLength, int(P.Payload.size()));
        EXPECT_EQ(P.Payload, RegistrationRecord(Expected[i])) << "registration " << i;
    }
    // Debug mode shows each of the manager's answers.
    ASSERT_EQ(ZmWaitForConsole(&S, "ReceiveConnectionName is /dev/zelparser_read\n"), 0);
    std::string Console = ZmConsoleSnapshot(&S);
    EXPECT_NE(Console.find("Data received by Parser Sub-Service is...\nopCodeVarType is 204\n"
                           "opCodeVarLength is 4\nopCode is 4001\n"),
              std::string::npos);
    EXPECT_NE(Console.find("OverrideExisting is TRUE\n"), std::string::npos);
    EXPECT_EQ(ZmStop(&S), 0);
}

TEST_F(ManagerProtocol, ShutDownWaitsForABusyWorkerIsTheLastPacketTakenAndExitsZero)
{
    // The parse worker (of a TQR install, which needs no bundle) blocks on its first log
    // request, which this manager never answers.
    ZmConfig Config;
    Config.AnswerRequests = false;
    ASSERT_TRUE(StartParser(&S, {}, {"-V", "-C", "pkg.rpm"}, Config));
    ASSERT_TRUE(BlockMidParse(&S)) << ZmConsoleSnapshot(&S);
    // Opcode 2 and an unknown opcode right behind it, in one burst: the listener leaves its
    // loop after the first and never answers the second.
    ASSERT_EQ(ZmSendPacket(&S, HeaderTo(&S, RZP_SHUTDOWN, 2, RZP_NO_RESULT_YET), {}), 0);
    ASSERT_EQ(ZmSendPacket(&S, HeaderTo(&S, 77, 3, RZP_NO_RESULT_YET), {}), 0);
    EXPECT_EQ(ZmWaitExit(&S), 0);
    EXPECT_TRUE(FromParser(&S, 77).empty());
    std::string Console = ZmConsoleSnapshot(&S);
    EXPECT_EQ(Console.find("opCode 77"), std::string::npos);
    EXPECT_EQ(Console.substr(Console.size() - 32), "Parser sub-service is unloading\n");
    // Everything the worker sent after the exit flag precedes the deregistration.
    const ZmPacket Last = ZmPacketsSnapshot(&S).back();
    EXPECT_EQ(Last.Direction, ZM_FROM_PARSER);
    EXPECT_EQ(Last.Connection, "/dev/zelrzp_np1");
    EXPECT_EQ(Last.Header.opCode, RZP_SHUTDOWN);
    EXPECT_EQ(Last.Header.DataLength, 0);
    EXPECT_EQ(Last.Header.ReturnCode, RZP_NO_RESULT_YET);
}

TEST_F(ManagerProtocol, UnknownDebugAndMalformedPacketsLeaveTheSubServiceServing)
{
    ASSERT_TRUE(StartParser(&S, {}));
    // An unknown opcode is answered not supported, with its payload back.
    Bytes Payload(20);
    for (size_t i = 0; i < Payload.size(); i++)
        Payload[i] = static_cast<unsigned char>(i * 7);
    ZmPacket Answer = Ask(&S, 77, Payload);
    EXPECT_EQ(Answer.Header.ReturnCode, RZP_OPCODE_NOT_SUPPORTED);
    EXPECT_EQ(Answer.Header.opCode, 77u);
    EXPECT_EQ(Answer.Header.RemoteSequenceNumber, -1); // unchanged
    EXPECT_EQ(Answer.Header.DestHandle, S.ReceiveHandle); // our SrcHandle, back to us
    EXPECT_EQ(Answer.Payload, Payload);
    // The sub-service's own read handle stands in SrcHandle, as in its registrations.
    EXPECT_EQ(Answer.Header.SrcHandle, FromParser(&S, RZP_REGISTER)[0].Header.SrcHandle);
    const char *Refusal = "Parser found opCode 77 is not supported by this sub-service.\n";
    EXPECT_EQ(ZmWaitForConsole(&S, Refusal), 0);

    // Debug lines follow the flag at the packet's arrival: on after enable, off after disable.
    RZP_HEADER_PACKET H = HeaderTo(&S, RZP_ENABLE_DEBUG, 0, RZP_NO_RESULT_YET);
    ASSERT_EQ(ZmSendPacket(&S, H, {}), 0);
    H.opCode = RZP_DISABLE_DEBUG;
    ASSERT_EQ(ZmSendPacket(&S, H, {}), 0);
    ASSERT_EQ(ZmWaitForConsole(&S, "Parser found RZP_DISABLE_DEBUG packet.\n"), 0);
    ExpectStillServing();

    // A frame whose DataLength is beyond any buffer.
    Bytes Frame = {'R', 'Z', 'P', '1'};
    uint32_t Header[8] = {uint32_t(S.ReceiveHandle), uint32_t(S.SendHandle), 9,
                          0xffffffffu, 4101, uint32_t(RZP_NO_RESULT_YET), 20000, 0};
    for (uint32_t V : Header)
        ZmPutU32(&Frame, V);
    ZmPutU32(&Frame, 0);
    ASSERT_EQ(ZmSendBytes(&S, Frame.data(), Frame.size()), 0);
    ExpectStillServing();
    // A registration answer cut short, and one whose strings have no NUL.
    H = HeaderTo(&S, RZP_REGISTER, 0, 0);
    H.RemoteSequenceNumber = 0;
    Bytes Cut = RegistrationRecord(4001);
    Cut.resize(30);
    ASSERT_EQ(ZmSendPacket(&S, H, Cut), 0);
    Bytes NoNul = RegistrationRecord(4001);
    NoNul.resize(NoNul.size() - 1);
    ASSERT_EQ(ZmSendPacket(&S, H, NoNul), 0);
    // An update of the run flags without its three items.
    H.opCode = RZP_UPDATE_COMMAND_LINE_PARMS;
    ASSERT_EQ(ZmSendPacket(&S, H, {201, 0, 0}), 0);
    ExpectStillServing();
    std::string Console = ZmConsoleSnapshot(&S);
    EXPECT_EQ(Console.find("RZP_ENABLE_DEBUG"), std::string::npos);
    EXPECT_EQ(Console.find("RZP_PARSER_RETURN_NUMBER_OF_ITEMS"), std::string::npos); // off again
    EXPECT_EQ(ZmStop(&S), 0);
}

} // namespace
