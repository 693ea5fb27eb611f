// The parser workers' failure paths that a manager cannot provoke: a worker started with no
// request of its opcode parked, a worker whose buffers cannot be allocated (calloc is wrapped at
// link time and failed on the test's thread only), and the record walk's answers around a list
// whose handles do not start at 0. Each worker runs on the test's thread and answers over real
// FIFOs (tests/common/queue_fixture.h); what it sends is read back from the write connection.
// Writes the calloc wrapper's counters.
#include <algorithm>

#include "../common/queue_fixture.h"
#include "operations.h"
#include "package_fixture.h"
#include "protocol.h"
#include "records.h"

extern "C" void *__real_calloc(size_t Count, size_t Size);

namespace {
thread_local bool CallocArmed = false; // counting on this thread
long CallocSeen = 0;                   // callocs since armed
long CallocFailAt = 0;                 // the one to fail (1-based)
} // namespace

extern "C" void *__wrap_calloc(size_t Count, size_t Size)
{
    if (CallocArmed && ++CallocSeen == CallocFailAt)
        return nullptr;
    return __real_calloc(Count, Size);
}

namespace {

struct WorkerCase {
    uint32_t OpCode;
    const char *Name;
};
const WorkerCase WorkerCases[] = {
    {RZP_PARSER_OPEN_INPUT_FILE, "RZP_PARSER_OPEN_INPUT_FILE"},
    {RZP_PARSER_PARSE_INPUT_FILE, "RZP_PARSER_PARSE_INPUT_FILE"},
    {RZP_PARSER_CLOSE_INPUT_FILE, "RZP_PARSER_CLOSE_INPUT_FILE"},
    {RZP_PARSER_RETURN_NUMBER_OF_ITEMS, "RZP_PARSER_RETURN_NUMBER_OF_ITEMS"},
    {RZP_PARSER_RETURN_FIRST_ITEM, "RZP_PARSER_RETURN_FIRST_ITEM"},
    {RZP_PARSER_RETURN_NEXT_ITEM, "RZP_PARSER_RETURN_NEXT_ITEM"},
    {RZP_PARSER_RETURN_LAST_ITEM, "RZP_PARSER_RETURN_LAST_ITEM"},
};

struct Answer {
    RZP_HEADER_PACKET Header;
    Bytes Payload;
};

class ParserWorkers : public testing::Test {
  protected:
    char Directory[64] = "/tmp/zelworkers.XXXXXX";

    void SetUp() override
    {
        ASSERT_TRUE(OpenTestQueue(Directory));
        Parser_Exiting = 0;
        ThreadCount = 0;
    }
    void TearDown() override
    {
        FreeInstallPacketList();
        CloseTestQueue(Directory);
        Parser_Exiting = 0;
        ThreadCount = 0;
    }
    // Parks a request of OpCode as the listener does.
    void Park(uint32_t OpCode, const Bytes &Payload, int Sequence = 7)
    {
        RZP_HEADER_PACKET Header = {};
        Header.SrcHandle = 101;
        Header.DestHandle = ParserQueue->ReadConnectionHandle;
        Header.LocalSequenceNumber = Sequence;
        Header.RemoteSequenceNumber = -1;
        Header.opCode = OpCode;
        Header.ReturnCode = RZP_NO_RESULT_YET;
        Header.DataLength = static_cast<int>(Payload.size());
        Bytes Copy(RZP_MAX_PAYLOAD);
        std::copy(Payload.begin(), Payload.end(), Copy.begin());
        ASSERT_EQ(0, Enqueue(&Header, Copy.data()));
    }
    // Runs the worker of OpCode on this thread, counted as the listener counts it; its console.
    std::string Run(uint32_t OpCode, long FailCalloc = 0)
    {
        const PARSERWORKER *Worker = FindParserWorker(OpCode);
        EXPECT_NE(nullptr, Worker);
        if (Worker == nullptr)
            return "";
        ThreadCount++;
        std::string Out = Captured([&] {
            CallocSeen = 0;
            CallocFailAt = FailCalloc;
            CallocArmed = true;
            Worker->Worker(nullptr);
            CallocArmed = false;
        });
        EXPECT_EQ(0, ThreadCount.load()) << "the worker did not uncount itself";
        return Out;
    }
    // The packets sent on the write connection so far.
    std::vector<Answer> Sent()
    {
        std::vector<Answer> All;
        Answer One;
        One.Payload.resize(RZP_MAX_PAYLOAD);
        while (ReceiveDataAsyncRaw(ParserQueue->WriteConnectionHandle, &One.Header,
                                   One.Payload.data(), "TEST") == 0) {
            All.push_back({One.Header, Bytes(One.Payload.begin(),
                                             One.Payload.begin() + One.Header.DataLength)});
        }
        return All;
    }
};

// Every worker started without its request says so in its own opcode's name, sends nothing and
// uncounts itself; only the parse worker's missing request ends the service.
TEST_F(ParserWorkers, WithoutAParkedRequestEachWorkerSaysSoAndSendsNothing)
{
    for (const WorkerCase &Case : WorkerCases) {
        EXPECT_EQ(std::string("We received a call to handle a packet for opCode ") + Case.Name +
                      ", yet no incoming packet was available.\n",
                  Run(Case.OpCode));
        EXPECT_EQ(Case.OpCode == RZP_PARSER_PARSE_INPUT_FILE ? 1 : 0, Parser_Exiting.load())
            << Case.Name;
        Parser_Exiting = 0;
    }
    EXPECT_TRUE(Sent().empty());
}

// A worker whose header or payload area cannot be allocated says so and answers nothing; its
// request stays parked and the next worker of its opcode answers it, once. Nothing leaks (ASan).
TEST_F(ParserWorkers, AWorkerWithoutMemoryLeavesItsRequestForTheNext)
{
    for (const WorkerCase &Case : WorkerCases) {
        if (Case.OpCode == RZP_PARSER_OPEN_INPUT_FILE || Case.OpCode == RZP_PARSER_PARSE_INPUT_FILE)
            continue; // their work reads the bundle directory: end to end
        Park(Case.OpCode, Bytes{1, 2, 3});
        for (long Fail : {1L, 2L})
            EXPECT_EQ(std::string("Parser worker for opCode ") + Case.Name +
                          " could not allocate its buffers.\n",
                      Run(Case.OpCode, Fail));
        EXPECT_TRUE(Sent().empty()) << Case.Name;
        Run(Case.OpCode);
        std::vector<Answer> Answers = Sent();
        ASSERT_EQ(1u, Answers.size()) << Case.Name;
        EXPECT_EQ(Case.OpCode, Answers[0].Header.opCode);
        EXPECT_EQ(7, Answers[0].Header.LocalSequenceNumber);
    }
}

// After a second parse the handles go on from the first parse's: the walk starts at the new
// head's handle, and a handle of the first parse, or one beyond 31 bits, finds nothing.
TEST_F(ParserWorkers, TheWalkFollowsHandlesThatDoNotStartAtZero)
{
    const unsigned char Record[6] = {'r', 'e', 'c', 'o', 'r', 'd'};
    ASSERT_EQ(0, AppendInstallRecord("a.rpm", Record, sizeof Record));
    int32_t Old = InstallPacketList->InstallPacketHandle;
    FreeInstallPacketList();
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(0, AppendInstallRecord("b.rpm", Record, static_cast<int>(sizeof Record) - i));
    int32_t First = InstallPacketList->InstallPacketHandle;
    ASSERT_GT(First, Old);

    const uint32_t Asked[] = {static_cast<uint32_t>(First),
                              static_cast<uint32_t>(First + 1),
                              static_cast<uint32_t>(First + 2),
                              static_cast<uint32_t>(Old),
                              0xFFFFFFFFu,
                              0x80000000u};
    for (uint32_t Handle : Asked) {
        Bytes Request(12);
        Tokenize(Request.data(), "%U%U%U", static_cast<uint32_t>(RZP_TYPE_ULONG), 4u, Handle);
        Park(RZP_PARSER_RETURN_NEXT_ITEM, Request);
        Run(RZP_PARSER_RETURN_NEXT_ITEM);
    }
    Park(RZP_PARSER_RETURN_LAST_ITEM, {});
    Run(RZP_PARSER_RETURN_LAST_ITEM);
    std::vector<Answer> Answers = Sent();
    ASSERT_EQ(7u, Answers.size());
    const int Lengths[] = {5, 4, 0, 0, 0, 0, 4}; // next of First, First+1; then none; the last
    for (size_t i = 0; i < Answers.size(); i++) {
        EXPECT_EQ(Lengths[i] == 0 ? RZP_PARSER_NO_MORE_ITEMS : 0, Answers[i].Header.ReturnCode)
            << i;
        EXPECT_EQ(Lengths[i], Answers[i].Header.DataLength) << i;
    }
}

} // namespace
