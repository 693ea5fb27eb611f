// Requests to the manager: the support query and its give-up, the log-file-name request,
// the errata question, the waits. A scripted manager thread reads what the sub-service sends
// and parks its answers the way the listener does.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "operations.h"
#include "protocol.h"
#include "runflags.h"
#include "service.h"

namespace {

struct ScriptedManager {
    std::mutex Lock;
    std::deque<int> Answers;       // ReturnCodes, in order; empty: -118 for 6, 0 otherwise
    std::vector<uint32_t> OpCodes; // what the sub-service sent, in order
    std::vector<int> Sequences;
    std::string LogFileName = "/var/log/install.log";
    std::atomic<bool> Stop{false};
    std::thread Thread;
};

void AnswerOne(ScriptedManager *M, const RZP_HEADER_PACKET &Request, const unsigned char *Asked)
{
    RZP_HEADER_PACKET Answer = Request;
    unsigned char Payload[RZP_MAX_PAYLOAD] = {};
    std::lock_guard<std::mutex> Guard(M->Lock);
    M->OpCodes.push_back(Request.opCode);
    M->Sequences.push_back(Request.LocalSequenceNumber);
    int Code = Request.opCode == RZP_IS_OPCODE_SUPPORTED ? RZP_OPCODE_SUPPORTED : 0;
    if (!M->Answers.empty()) {
        Code = M->Answers.front();
        M->Answers.pop_front();
    }
    Answer.ReturnCode = Code;
    Answer.RemoteSequenceNumber = 5000;
    Answer.DataLength = 0;
    if (Request.opCode == RZP_GET_LOG_FILE_NAME)
        Answer.DataLength = Tokenize(Payload, "%U%U%S", 208u,
                                     static_cast<uint32_t>(M->LogFileName.size() + 1),
                                     M->LogFileName.c_str());
    if (Request.opCode == RZP_PROMPT_FOR_NUMBER) { // the request's items, then the answer
        memcpy(Payload, Asked, Request.DataLength);
        Answer.DataLength = Request.DataLength +
                            Tokenize(Payload + Request.DataLength, "%U%U%S", 208u, 2u, "3");
    }
    Enqueue(&Answer, Payload);
}

void RunManager(ScriptedManager *M)
{
    RZP_HEADER_PACKET Request;
    static thread_local unsigned char Payload[RZP_MAX_PAYLOAD];
    while (!M->Stop) {
        if (ReceiveDataAsyncRaw(ParserQueue->WriteConnectionHandle, &Request, Payload, "TEST") == 0)
            AnswerOne(M, Request, Payload);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

class Requests : public testing::Test {
protected:
    ScriptedManager Manager;
    char Directory[64] = "/tmp/zelrequests.XXXXXX";

    void SetUp() override
    {
        ASSERT_EQ(BindTransportLibrary(), 0);
        ASSERT_NE(mkdtemp(Directory), nullptr);
        ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
        std::string Base = Directory;
        ParserQueue->ReadConnectionHandle = OpenTransport((Base + "/read").c_str());
        ParserQueue->WriteConnectionHandle = OpenTransport((Base + "/write").c_str());
        ASSERT_GE(ParserQueue->ReadConnectionHandle, 0);
        ASSERT_GE(ParserQueue->WriteConnectionHandle, 0);
        Parser_Exiting = 0;
        SupportQueryLimit = SUPPORT_QUERY_LIMIT;
    }
    void StartManager() { Manager.Thread = std::thread(RunManager, &Manager); }
    void TearDown() override
    {
        Manager.Stop = true;
        if (Manager.Thread.joinable())
            Manager.Thread.join();
        CloseTransport(ParserQueue->ReadConnectionHandle);
        CloseTransport(ParserQueue->WriteConnectionHandle);
        free(ParserQueue);
        ParserQueue = nullptr;
        Parser_Exiting = 0;
        SupportQueryLimit = SUPPORT_QUERY_LIMIT;
        std::string Command = std::string("rm -rf ") + Directory;
        ASSERT_EQ(system(Command.c_str()), 0);
    }
};

TEST_F(Requests, SupportQueryRepeatsWhileNotSupportedThenSendsTheRequest)
{
    Manager.Answers = {RZP_OPCODE_NOT_SUPPORTED, RZP_OPCODE_NOT_SUPPORTED, RZP_OPCODE_SUPPORTED, 0};
    StartManager();
    char Name[64] = "untouched";
    uint32_t Length = 0;
    EXPECT_EQ(SendGetLogFileNamePacket(Name, sizeof Name, &Length), 0);
    EXPECT_STREQ(Name, "/var/log/install.log");
    EXPECT_EQ(Length, 21u);
    std::lock_guard<std::mutex> Guard(Manager.Lock);
    ASSERT_EQ(Manager.OpCodes.size(), 4u);
    EXPECT_EQ(Manager.OpCodes[2], RZP_IS_OPCODE_SUPPORTED);
    EXPECT_EQ(Manager.OpCodes[3], RZP_GET_LOG_FILE_NAME);
    for (size_t i = 1; i < Manager.Sequences.size(); i++)
        EXPECT_EQ(Manager.Sequences[i], Manager.Sequences[i - 1] + 1);
}

TEST_F(Requests, ARefusedLogFileNameLeavesTheCallersBufferAlone)
{
    Manager.Answers = {RZP_OPCODE_SUPPORTED, -1};
    StartManager();
    char Name[64] = "untouched";
    uint32_t Length = 7;
    EXPECT_EQ(SendGetLogFileNamePacket(Name, sizeof Name, &Length), -1);
    EXPECT_STREQ(Name, "untouched");
    EXPECT_EQ(Length, 7u);
}

TEST_F(Requests, SupportQueryGivesUpAfterTheLimitAndEndsTheService)
{
    SupportQueryLimit = 5;
    Manager.Answers = std::deque<int>(10, RZP_OPCODE_NOT_SUPPORTED);
    StartManager();
    unsigned char Record[4] = {1, 2, 3, 4};
    EXPECT_EQ(SendIsComponentSupportedByThisErrataPacket(Record, 4), RZP_OPCODE_NOT_SUPPORTED);
    EXPECT_EQ(Parser_Exiting.load(), 1);
    std::lock_guard<std::mutex> Guard(Manager.Lock);
    EXPECT_EQ(Manager.OpCodes.size(), 5u); // no question after giving up
}

TEST_F(Requests, LogAndErrataAnswersAreReturnedAsTheManagerGaveThem)
{
    Manager.Answers = {5, RZP_OPCODE_SUPPORTED, -509};
    StartManager();
    unsigned char Payload[32];
    int Length = Tokenize(Payload, "%U%U%S", 208u, 3u, "hi");
    EXPECT_EQ(SendLogDataPacket(Payload, Length), 5);
    unsigned char Record[4] = {1, 2, 3, 4};
    EXPECT_EQ(SendIsComponentSupportedByThisErrataPacket(Record, 4), -509);
}

TEST_F(Requests, AWaitEndsPromptlyWhenTheServiceIsEnding)
{
    RZP_HEADER_PACKET Header;
    std::vector<unsigned char> Payload(RZP_MAX_PAYLOAD);
    Header.ReturnCode = 77;
    std::atomic<bool> Done{false};
    std::thread Waiter([&] {
        WaitForAnswer(&Header, Payload.data(), 424242);
        Done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(Done.load());
    auto Start = std::chrono::steady_clock::now();
    Parser_Exiting = 1;
    Waiter.join();
    // Generous bound: the wait looks at the flag every 10 ms; this only catches a hang.
    EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::seconds(1));
    EXPECT_EQ(Header.ReturnCode, 0); // zeroed before the wait
}

TEST_F(Requests, APromptRefusedByTheManagerReturnsItsCodeWithoutDecoding)
{
    Manager.Answers = {RZP_OPCODE_NOT_SUPPORTED, RZP_OPCODE_SUPPORTED, -5};
    StartManager();
    EXPECT_EQ(SendPromptForCharacterPacket(), -5);
    std::lock_guard<std::mutex> Guard(Manager.Lock);
    ASSERT_EQ(Manager.OpCodes.size(), 3u);
    EXPECT_EQ(Manager.OpCodes[2], RZP_PROMPT_FOR_CHARACTER);
}

TEST_F(Requests, ANumberPromptAnswerIsDecodedAndShownInDebugMode)
{
    StartManager();
    DEBUG_FLAG = 1;
    testing::internal::CaptureStdout();
    int Result = SendPromptForNumberPacket();
    fflush(stdout);
    std::string Out = testing::internal::GetCapturedStdout();
    DEBUG_FLAG = 0;
    EXPECT_EQ(Result, 75); // the bytes decoded: 41 + 12 + 12 + 10
    EXPECT_NE(Out.find("RZP_PROMPT_FOR_NUMBER is supported.\n"), std::string::npos);
    EXPECT_NE(Out.find("Parser...PromptType: 208   PromptLength: 32    Prompt:  Please enter a "
                       "value from 0 to 6\n"
                       "Parser...Min Type: 207   Min Length: 4     Minimum: 0\n"
                       "Parser...Max Type: 207   Max Length: 4     Maximum: 6\n"
                       "Parser...Returned Type: 208   Returned Length: 2     Returned Number: 3\n"),
              std::string::npos)
        << Out;
}

} // namespace
