// Requests to the manager: the support query and its give-up, the log-file-name request,
// the errata question, the prompts, the waits. A scripted manager thread reads what the
// sub-service sends and parks its answers the way the listener does.
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include "../common/queue_fixture.h"
#include "operations.h"
#include "protocol.h"
#include "package_fixture.h"

namespace {

struct ScriptedManager {
    std::mutex Lock;
    std::deque<int> Answers; // ReturnCodes, in order; empty: -118 for 6, 0 otherwise
    std::string Sent;        // the opcodes the sub-service sent, in order
    int LastSequence = -1;
    bool Consecutive = true; // every request took the next sequence number
    std::atomic<bool> Stop{false};
    std::thread Thread;
};

void AnswerOne(ScriptedManager *M, const RZP_HEADER_PACKET &Request, const unsigned char *Asked)
{
    RZP_HEADER_PACKET Answer = Request;
    unsigned char Payload[RZP_MAX_PAYLOAD] = {};
    std::lock_guard<std::mutex> Guard(M->Lock);
    M->Sent += std::to_string(Request.opCode) + " ";
    if (M->LastSequence != -1 && Request.LocalSequenceNumber != M->LastSequence + 1)
        M->Consecutive = false;
    M->LastSequence = Request.LocalSequenceNumber;
    Answer.ReturnCode = Request.opCode == RZP_IS_OPCODE_SUPPORTED ? RZP_OPCODE_SUPPORTED : 0;
    if (!M->Answers.empty()) {
        Answer.ReturnCode = M->Answers.front();
        M->Answers.pop_front();
    }
    Answer.RemoteSequenceNumber = 5000;
    Answer.DataLength = 0;
    if (Request.opCode == RZP_GET_LOG_FILE_NAME)
        Answer.DataLength = Tokenize(Payload, "%U%U%S", 208u, 21u, "/var/log/install.log");
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
        ASSERT_TRUE(OpenTestQueue(Directory));
        Parser_Exiting = 0;
        SupportQueryLimit = SUPPORT_QUERY_LIMIT;
    }
    void Start(std::deque<int> Answers)
    {
        Manager.Answers = Answers;
        Manager.Thread = std::thread(RunManager, &Manager);
    }
    std::string Sent()
    {
        std::lock_guard<std::mutex> Guard(Manager.Lock);
        EXPECT_TRUE(Manager.Consecutive);
        return Manager.Sent;
    }
    void TearDown() override
    {
        Manager.Stop = true;
        if (Manager.Thread.joinable())
            Manager.Thread.join();
        CloseTestQueue(Directory);
        Parser_Exiting = 0;
        SupportQueryLimit = SUPPORT_QUERY_LIMIT;
        DEBUG_FLAG = 0;
    }
};

// The support query repeats while not supported, then the request goes out; a refused log
// file name leaves the caller's buffer alone; log data, the errata question and a refused
// prompt return the manager's code as it gave it, the prompt without decoding an answer; at
// the limit the support query gives up and ends the service, without sending the request.
TEST_F(Requests, RequestsGoOutOnceSupportedReturnTheManagersCodeAndGiveUpAtTheLimit)
{
    const int Not = RZP_OPCODE_NOT_SUPPORTED, Yes = RZP_OPCODE_SUPPORTED;
    Start({Not, Not, Yes, 0, Yes, -1, 5, Yes, -509, Not, Yes, -5, Not, Not, Not, Not, Not, Not});
    char Name[64] = "untouched";
    uint32_t Length = 0;
    EXPECT_EQ(SendGetLogFileNamePacket(Name, sizeof Name, &Length), 0);
    EXPECT_STREQ(Name, "/var/log/install.log");
    EXPECT_EQ(Length, 21u);
    strcpy(Name, "untouched");
    Length = 7;
    EXPECT_EQ(SendGetLogFileNamePacket(Name, sizeof Name, &Length), -1);
    EXPECT_STREQ(Name, "untouched");
    EXPECT_EQ(Length, 7u);
    unsigned char Payload[32], Record[4] = {1, 2, 3, 4};
    EXPECT_EQ(SendLogDataPacket(Payload, Tokenize(Payload, "%U%U%S", 208u, 3u, "hi")), 5);
    EXPECT_EQ(SendIsComponentSupportedByThisErrataPacket(Record, 4), -509);
    EXPECT_EQ(SendPromptForCharacterPacket(), -5);
    SupportQueryLimit = 5;
    EXPECT_EQ(SendIsComponentSupportedByThisErrataPacket(Record, 4), Not);
    EXPECT_EQ(Parser_Exiting.load(), 1);
    EXPECT_EQ(Sent(), "6 6 6 2401 6 2401 2002 6 6007 6 6 2204 6 6 6 6 6 ");
}

TEST_F(Requests, AWaitEndsPromptlyWhenTheServiceIsEnding)
{
    RZP_HEADER_PACKET Header;
    Bytes Payload(RZP_MAX_PAYLOAD);
    Header.ReturnCode = 77;
    std::atomic<bool> Done{false};
    std::thread Waiter([&] {
        WaitForAnswer(&Header, Payload.data(), 424242);
        Done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(Done.load());
    auto Begin = std::chrono::steady_clock::now();
    Parser_Exiting = 1;
    Waiter.join();
    // Generous bound: the wait looks at the flag every 10 ms; this only catches a hang.
    EXPECT_LT(std::chrono::steady_clock::now() - Begin, std::chrono::seconds(1));
    EXPECT_EQ(Header.ReturnCode, 0); // zeroed before the wait
}

TEST_F(Requests, ANumberPromptAnswerIsDecodedAndShownInDebugMode)
{
    Start({});
    DEBUG_FLAG = 1;
    int Result = 0;
    std::string Out = Captured([&] { Result = SendPromptForNumberPacket(); });
    EXPECT_EQ(Result, 75); // the bytes decoded: 41 + 12 + 12 + 10
    EXPECT_TRUE(Has(Out, "RZP_PROMPT_FOR_NUMBER is supported.\n"));
    EXPECT_TRUE(Has(Out, "Parser...PromptType: 208   PromptLength: 32    Prompt:  Please enter a "
                         "value from 0 to 6\n"
                         "Parser...Min Type: 207   Min Length: 4     Minimum: 0\n"
                         "Parser...Max Type: 207   Max Length: 4     Maximum: 6\n"
                         "Parser...Returned Type: 208   Returned Length: 2     Returned Number: 3\n"))
        << Out;
}

} // namespace
