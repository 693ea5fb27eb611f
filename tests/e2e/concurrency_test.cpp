// concurrency_test.cpp - a manager that does not wait for one answer before its next request:
// parser requests written back to back must each be answered exactly once, the sub-service
// must live through them, and the records it then hands out must be whole. Run in the TSan
// build too, where a race on the lists or the tree fails the suite.
#include <map>

#include "bundle_fixture.h"

namespace {

struct TRequest {
    uint32_t OpCode;
    Bytes Payload;
};

// Writes every request at once, then waits for each answer. Returns the answers in request
// order; a request left unanswered fails the test.
std::vector<ZmPacket> AskAtOnce(ZmSession *S, const std::vector<TRequest> &Requests)
{
    std::vector<int32_t> Numbers;
    size_t From = ZmPacketsSnapshot(S).size();
    for (const TRequest &R : Requests) {
        RZP_HEADER_PACKET H = HeaderTo(S, R.OpCode, S->NextSequence++, RZP_NO_RESULT_YET);
        EXPECT_EQ(ZmSendPacket(S, H, R.Payload), 0);
        Numbers.push_back(H.LocalSequenceNumber);
    }
    auto IsAnswer = [](const ZmPacket &P, const void *Arg) {
        return P.Header.LocalSequenceNumber == *(const int32_t *)Arg &&
               P.Header.ReturnCode != RZP_NO_RESULT_YET && P.Header.opCode >= 4000;
    };
    std::vector<ZmPacket> Answers(Requests.size());
    for (size_t i = 0; i < Requests.size(); i++) {
        size_t Start = From;
        EXPECT_EQ(ZmWaitForPacket(S, IsAnswer, &Numbers[i], &Start, &Answers[i], 30000), 0)
            << "no answer to request " << i << " (opcode " << Requests[i].OpCode << ")";
    }
    return Answers;
}

// After the session: every parser request was answered exactly once.
void ExpectEachAnsweredOnce(ZmSession *S)
{
    std::map<int32_t, int> Asked, Answered;
    for (const ZmPacket &P : ZmPacketsSnapshot(S))
        if (P.Header.opCode >= RZP_PARSER_OPEN_INPUT_FILE && P.Header.opCode <= 4200)
            (P.Direction == ZM_TO_PARSER ? Asked : Answered)[P.Header.LocalSequenceNumber]++;
    for (const auto &A : Asked)
        EXPECT_EQ(Answered[A.first], 1) << "request " << A.first;
    EXPECT_EQ(Answered.size(), Asked.size());
}

using Concurrency = BundleTest;

TEST_F(Concurrency, RequestsWrittenBackToBackAreEachAnsweredOnceAndKeepTheRecordsWhole)
{
    std::vector<TComponent> C = {AgentComponent(), DriverComponent()};
    for (const char *Name : {"a-1.0.rpm", "b-1.0.rpm", "c-1.0.rpm", "d-1.0.rpm", "e-1.0.rpm"})
        C.push_back(PlainComponent(Name));
    ASSERT_TRUE(StartParser(&S, C));
    const Bytes Name = ZmStringItem(TEST_BUNDLE_NAME, sizeof(TEST_BUNDLE_NAME) - 1);
    const Bytes File = ZmStringItem(TEST_BUNDLE_FILE);
    const TRequest Open = {RZP_PARSER_OPEN_INPUT_FILE, {}};
    const TRequest Parse = {RZP_PARSER_PARSE_INPUT_FILE, {}};
    for (const auto &Burst : {std::vector<TRequest>{Open, Open}, {Parse, Parse, Open, Parse},
                              {Parse, Parse, Open, Parse}, {Parse, Parse, Open, Parse}})
        for (const ZmPacket &P : AskAtOnce(&S, Burst)) {
            EXPECT_EQ(P.Header.ReturnCode, 0) << "opcode " << P.Header.opCode;
            EXPECT_EQ(P.Payload, P.Header.opCode == RZP_PARSER_OPEN_INPUT_FILE ? Name : File);
        }
    // Item requests beside a parse are answered from one whole parse or the next.
    AskAtOnce(&S, {Parse, {RZP_PARSER_RETURN_NUMBER_OF_ITEMS, {}},
                   {RZP_PARSER_RETURN_FIRST_ITEM, {}},
                   {RZP_PARSER_RETURN_NEXT_ITEM, ZmULongItem(0)}, {RZP_PARSER_RETURN_LAST_ITEM, {}},
                   {RZP_PARSER_CLOSE_INPUT_FILE, {}}, Parse});
    // The records of the last parse: one per component, each whole and in order.
    int32_t Count = -1;
    std::vector<Bytes> Raw = FetchRecords(&S, &Count);
    EXPECT_EQ(Count, (int32_t)C.size());
    ZmRecord First;
    ASSERT_FALSE(Raw.empty());
    ASSERT_EQ(ZmDecodeRecord(Raw[0].data(), Raw[0].size(), &First, nullptr), 0);
    ExpectRecords(Raw, C, First.Number);
    EXPECT_EQ(ZmStop(&S), 0);
    EXPECT_EQ(S.ExitStatus, 0);
    ExpectEachAnsweredOnce(&S);
}

} // namespace
