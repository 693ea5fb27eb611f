// The protocol core inside one process: the packet dump, the pending-I/O queue, the
// registration answers and the result code names.
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "../common/helpers.h"
#include "package_fixture.h"
#include "protocol.h"
#include "service.h"

namespace {

RZP_HEADER_PACKET MakeHeader(uint32_t OpCode, int Sequence, int DataLength)
{
    return {101, 102, Sequence, -1, OpCode, RZP_NO_RESULT_YET, DataLength, 0};
}

class Protocol : public testing::Test {
protected:
    RZP_HEADER_PACKET H;
    Bytes Out = Bytes(RZP_MAX_PAYLOAD, 0xee);
    void SetUp() override
    {
        ASSERT_EQ(BindTransportLibrary(), 0);
        DEBUG_FLAG = 0;
        Parser_Exiting = 0;
        while (PendingIOList != nullptr) // drop whatever an earlier test left
            DequeueByOpCode(&H, Out.data(), PendingIOList->Header->opCode);
    }
    void TearDown() override { DEBUG_FLAG = 0; }
};

TEST_F(Protocol, DumpShowsEveryItemTypeStopsAtAnOverlongItemAndExitsOnAnUnknownOne)
{
    // The 301 record declares its string's length too short.
    int Length = Tokenize(Out.data(),
                          "%U%U%B%U%U%B%U%U%B%U%U%U%U%U%C%U%U%L%U%U%S%U%U%S%U%U%U%U%S"
                          "%U%U%U%S%U%U%U",
                          201u, 1u, 1, 201u, 1u, 2, 202u, 1u, 0xab, 204u, 4u, 70000u, 205u, 1u, 'Z',
                          207u, 4u, -5, 208u, 6u, "hello", 3u, 7u, "/etc/x", 301u, 20u, 208u, 2u,
                          "longer text", 203u, 1u, 5u, "abcd", 206u, 999u, 0u);
    H = MakeHeader(77, 12, Length); // the expected dump gives each item's byte offset
    EXPECT_EQ(Captured([&] { DumpPacket(&H, Out.data(), 1); }),
              ReadAll(ZEL_TEST_DATA "/unit/dumps/every-item.txt"));
    H = MakeHeader(2, 3, 0); // the send side, without payload: only the header
    EXPECT_EQ(Captured([&] { DumpPacket(&H, nullptr, 0); }),
              "\nParser sending SrcHandle is 101\nParser sending DestHandle 102\n"
              "Parser sending LocalSequenceNumber is 3\nParser sending RemoteSequenceNumber is -1\n"
              "Parser sending opCode is 2\nParser sending Return Code is -106\n"
              "Parser sending Data Length is 0\n\n");

    // An item that runs past the data length stops the dump; an unknown item type or a missing
    // buffer ends the process.
    Bytes P(11); // a string without its NUL, in a buffer of exactly DataLength bytes
    Tokenize(P.data(), "%U%U%C%C%C", 208u, 5u, 'a', 'b', 'c');
    H = MakeHeader(2001, 1, 11);
    EXPECT_TRUE(Has(Captured([&] { DumpPacket(&H, P.data(), 1); }),
                    "BO 8 STRING with Length 5 and Value of \nBO 8 item runs past Data Length 11"));
    Tokenize(P.data(), "%U", 77u);
    H = MakeHeader(2001, 1, 4);
    EXPECT_EXIT(DumpPacket(&H, P.data(), 1), testing::ExitedWithCode(255), "");
    EXPECT_EXIT(DumpPacket(&H, nullptr, 1), testing::ExitedWithCode(255), "");
}

TEST_F(Protocol, QueueServesTheOldestMatchCopiesOnlyDataLengthAndDumpsPromptsInDebugMode)
{
    Bytes Payload = {1, 2, 3};
    RZP_HEADER_PACKET Open = MakeHeader(RZP_PARSER_OPEN_INPUT_FILE, 5, 3);
    RZP_HEADER_PACKET Count = MakeHeader(RZP_PARSER_RETURN_NUMBER_OF_ITEMS, 6, 0);
    RZP_HEADER_PACKET Again = MakeHeader(RZP_LOG_DATA, 5, 0);
    ASSERT_EQ(Enqueue(&Open, Payload.data()), 0);
    ASSERT_EQ(Enqueue(&Count, nullptr), 0);
    ASSERT_EQ(Enqueue(&Again, nullptr), 0);
    EXPECT_EQ(PendingIOList->Next->Buffer, nullptr); // no buffer without payload

    EXPECT_EQ(DequeueByOpCode(&H, Out.data(), RZP_PARSER_RETURN_NUMBER_OF_ITEMS), 0);
    EXPECT_EQ(H.LocalSequenceNumber, 6);
    EXPECT_EQ(Out[0], 0);
    EXPECT_EQ(Out[1], 0xee);
    EXPECT_EQ(PendingIOList->Header->opCode, RZP_PARSER_OPEN_INPUT_FILE);

    EXPECT_EQ(Dequeue(&H, Out.data(), -1), RZP_NO_SEQUENCE_NUMBER);
    EXPECT_EQ(Dequeue(&H, Out.data(), 5), 0);
    EXPECT_EQ(H.opCode, RZP_PARSER_OPEN_INPUT_FILE);
    EXPECT_EQ(Out[2], 3);
    EXPECT_EQ(Out[3], 0xee);
    EXPECT_EQ(Dequeue(&H, Out.data(), 5), 0);
    EXPECT_EQ(H.opCode, RZP_LOG_DATA);
    EXPECT_EQ(Dequeue(&H, Out.data(), 5), RZP_NOTHING_PENDING);
    EXPECT_EQ(DequeueByOpCode(&H, Out.data(), 4001), RZP_OPCODE_NOT_SUPPORTED);
    ASSERT_EQ(Enqueue(&Open, Payload.data()), 0); // taken for its return code: no payload area
    EXPECT_EQ(Dequeue(&H, nullptr, 5), 0);
    EXPECT_EQ(H.DataLength, 3);
    EXPECT_EQ(PendingIOLength(), 0);

    Bytes Prompt = {0x10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}; // shown in debug mode
    H = MakeHeader(RZP_PROMPT_FOR_NUMBER, 9, 11);
    ASSERT_EQ(Enqueue(&H, Prompt.data()), 0);
    DEBUG_FLAG = 1;
    EXPECT_EQ(
        Captured([&] { EXPECT_EQ(DequeueByOpCode(&H, Out.data(), RZP_PROMPT_FOR_NUMBER), 0); }),
        "Parser opCode asked for 2202    Found opCode is 2202\nPARSER BUFFER DUMP...\n"
        "10  01  02  03  04  05  06  07  08  09  \n0a  \nEnd PARSER BUFFER DUMP\n");
}

TEST_F(Protocol, QueueBeyondItsBoundDropsOnlyTheOldestAnswerNobodyExpects)
{
    Bytes Payload(100, 0x5a);
    PENDINGWAIT Expected;
    ExpectAnswer(&Expected, 7);
    RZP_HEADER_PACKET Answer = MakeHeader(RZP_LOG_DATA, 7, 100);
    Answer.ReturnCode = 3;
    RZP_HEADER_PACKET Request = MakeHeader(RZP_PARSER_RETURN_NEXT_ITEM, 8, 0);
    ASSERT_EQ(Enqueue(&Answer, Payload.data()), 0); // oldest, but expected
    ASSERT_EQ(Enqueue(&Request, nullptr), 0);       // a worker is about to take it
    for (int i = 2; i < PENDING_IO_LIMIT; i++) {    // answers that nobody asked for
        RZP_HEADER_PACKET Stray = MakeHeader(RZP_OUTPUT_DATA, 1000 + i, 100);
        ASSERT_EQ(Enqueue(&Stray, Payload.data()), 0);
    }
    ASSERT_EQ(PendingIOLength(), PENDING_IO_LIMIT);
    RZP_HEADER_PACKET Late = MakeHeader(RZP_OUTPUT_DATA, 99999, 100);
    EXPECT_EQ(Captured([&] { ASSERT_EQ(Enqueue(&Late, Payload.data()), 0); }),
              "Parser dropped an unrequested packet for opCode 2001 (sequence number "
              "1002): 4096 packets were already waiting. 1 dropped so far.\n");
    EXPECT_EQ(PendingIOLength(), PENDING_IO_LIMIT);

    EXPECT_EQ(Dequeue(&H, Out.data(), 1002), RZP_NOTHING_PENDING);
    WaitForExpectedAnswer(&Expected, &H, Out.data());
    EXPECT_EQ(H.ReturnCode, 3);
    EXPECT_EQ(Out[99], 0x5a);
    EXPECT_EQ(DequeueByOpCode(&H, Out.data(), RZP_PARSER_RETURN_NEXT_ITEM), 0);
    EXPECT_EQ(Dequeue(&H, Out.data(), 1003), 0);
    EXPECT_EQ(Dequeue(&H, Out.data(), 99999), 0); // appended at the tail after the drop
    EXPECT_EQ(Out[0], 0x5a);
}

// ---- Registration answers ----------------------------------------------------------------------

class Registration : public Protocol {
protected:
    BOOLEAN *Flags = nullptr; // the eight Provides_ flags, in order
    void SetUp() override
    {
        Protocol::SetUp();
        ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
        Flags = &ParserQueue->Provides_RZPParserOpenInputFile;
        memset(Flags, 1, 8 * sizeof *Flags);
    }
    void TearDown() override
    {
        free(ParserQueue);
        ParserQueue = nullptr;
        Protocol::TearDown();
    }
    // Hands the manager's answer for OpCode (sub-service Name) with ReturnCode to the sub-service,
    // DataLength cut by Cut bytes; returns the console output.
    std::string Handle(uint32_t OpCode, const std::string &Name, int ReturnCode, int Cut = 0)
    {
        int Length = Tokenize(Out.data(), "%U%U%U%U%U%B%U%U%B%U%U%S%U%U%S%U%U%S", 204u, 4u, OpCode,
                              201u, 1u, 1, 201u, 1u, 1, 208u,
                              static_cast<unsigned>(Name.size() + 1), Name.c_str(), 208u, 21u,
                              "/dev/zelparser_write", 208u, 20u, "/dev/zelparser_read");
        H = MakeHeader(RZP_REGISTER, 3, Length - Cut);
        H.ReturnCode = ReturnCode;
        return Captured([&] { HandlePostRegistration(&H, Out.data()); });
    }
    std::string Provided() const { return std::string(Flags, Flags + 8); }
};

// A refusal clears only the flag of its opcode; unknown opcodes, overlong names (cut in the
// debug dump) and truncated answers change nothing.
TEST_F(Registration, ARefusalClearsOnlyTheFlagOfThatOpcode)
{
    EXPECT_EQ("", Handle(RZP_PARSER_RETURN_FIRST_ITEM, "PARSER_V100", -1));
    EXPECT_EQ(ParserQueue->Provides_RZPParserReturnFirstItem, 0);
    EXPECT_EQ(7, std::count(Flags, Flags + 8, 1));
    Handle(RZP_PARSER_RETURN_LAST_ITEM, "PARSER_V100", 0);
    EXPECT_EQ(ParserQueue->Provides_RZPParserReturnLastItem, 1);
    std::string Before = Provided();
    EXPECT_EQ(Handle(4200, "PARSER_V100", -1), "PARSER: Found an unknown opCode type of 4200\n");
    EXPECT_EQ(Before, Provided());
    DEBUG_FLAG = 1;
    EXPECT_TRUE(Has(Handle(RZP_PARSER_OPEN_INPUT_FILE, std::string(400, 'n'), -1),
                    "SubServiceName is " + std::string(255, 'n') + "\n"));
    DEBUG_FLAG = 0;
    EXPECT_EQ(ParserQueue->Provides_RZPParserOpenInputFile, 0);
    EXPECT_TRUE(Has(Handle(RZP_PARSER_PARSE_INPUT_FILE, "PARSER_V100", -1, 10),
                    "does not hold the registration record"));
    EXPECT_EQ(ParserQueue->Provides_RZPParserParseInputFile, 1);
}

// Every result code has a name of its own, so a log or a failed test names what went wrong.
// The enumerators are read from zelrzp.h itself: each one's value gives back its own name, and
// no other value in the codes' range has a name.
TEST(ResultCodes, EachCodeHasOneNameAndNamesAreUnique)
{
    std::ifstream Header(ZEL_INCLUDE "/zelrzp.h");
    std::string Text((std::istreambuf_iterator<char>(Header)), std::istreambuf_iterator<char>());
    size_t Start = Text.find("enum RZP_RESULT");
    ASSERT_NE(Start, std::string::npos);
    const std::regex Enumerator(R"((\w+) = (-?(0x[0-9a-fA-F]+|\d+)),)");
    std::map<std::string, long> Enum;
    for (std::sregex_iterator It(Text.begin() + Start, Text.begin() + Text.find("};", Start),
                                 Enumerator),
         Stop;
         It != Stop; ++It)
        Enum[(*It)[1]] = std::stol((*It)[2], nullptr, 0);
    ASSERT_GE(Enum.size(), 20u);
    for (const auto &Code : Enum)
        EXPECT_STREQ(RZPResultName(Code.second), Code.first.c_str()) << Code.second;
    std::set<std::string> Names;
    for (long Code = -1000; Code <= XML_NO_PACKAGES; Code++) {
        std::string Name = RZPResultName(Code);
        if (Name == "unknown")
            continue;
        EXPECT_TRUE(Names.insert(Name).second) << Name << " names two codes";
        auto Known = Enum.find(Name);
        EXPECT_TRUE(Known != Enum.end() && Known->second == Code) << Name << " is not the enum's";
    }
    EXPECT_EQ(Names.size(), Enum.size());
}

} // namespace
