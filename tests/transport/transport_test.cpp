// The connections between processes: whole frames both ways, senders that never interleave,
// refused frames that write nothing past the caller's buffers, reply-to routing, refusals.
#include "zelrzptransport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <numeric>
#include <thread>
#include <vector>

namespace
{

// The caller's areas of a receive, with guard bytes around both.
struct GuardedAreas {
    unsigned char Before[64];
    RZP_HEADER_PACKET Header;
    unsigned char Between[64];
    unsigned char Buffer[RZP_MAX_PAYLOAD];
    unsigned char After[64];
    GuardedAreas() { memset(this, 0xC5, sizeof *this); }
    bool GuardsIntact() const
    {
        for (size_t i = 0; i < sizeof Before; i++)
            if (Before[i] != 0xC5 || Between[i] != 0xC5 || After[i] != 0xC5)
                return false;
        return true;
    }
};

// A full payload that says who sent it and which of its frames it is.
std::vector<unsigned char> Pattern(uint32_t Sender, int32_t Sequence)
{
    std::vector<unsigned char> Payload(RZP_MAX_PAYLOAD);
    for (size_t i = 0; i < Payload.size(); i++)
        Payload[i] = static_cast<unsigned char>(Sender * 31 + Sequence * 7 + i);
    return Payload;
}

bool HoldsPattern(const GuardedAreas &Areas, uint32_t Sender, int32_t Sequence)
{
    return Areas.Header.DataLength == RZP_MAX_PAYLOAD &&
           memcmp(Areas.Buffer, Pattern(Sender, Sequence).data(), RZP_MAX_PAYLOAD) == 0;
}

int SendPacket(int Dest, int Src, uint32_t OpCode, int32_t Sequence, const unsigned char *Payload,
               int Length)
{
    RZP_HEADER_PACKET Header{Src,    Dest,      Sequence, -1, OpCode, RZP_NO_RESULT_YET,
                             Length, 0xDEADBEEF};
    return SendRZPDataRaw(&Header, const_cast<unsigned char *>(Payload), "TEST");
}

// Polls until a frame is taken or refused, or 10 seconds pass (-1).
int ReceiveWithin(int Handle, GuardedAreas &Areas)
{
    auto End = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        int Result = ReceiveRZPDataAsyncRaw(Handle, &Areas.Header, Areas.Buffer, "TEST");
        if (Result != -1 || std::chrono::steady_clock::now() > End)
            return Result;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

// A frame's 40-byte prefix with the given magic, DataLength and reply-to length, then Trailing
// bytes of 0xAA.
std::vector<unsigned char> RawFrame(const char *Magic, int32_t DataLength, uint32_t ReplyTo,
                                    size_t Trailing)
{
    std::vector<unsigned char> Bytes(RZP_FRAME_PREFIX + Trailing, 0xAA);
    memset(Bytes.data(), 0, RZP_FRAME_PREFIX);
    memcpy(Bytes.data(), Magic, 4);
    memcpy(Bytes.data() + 4 + 24, &DataLength, 4); // the test host is little-endian
    memcpy(Bytes.data() + 36, &ReplyTo, 4);
    return Bytes;
}

class TransportTest : public ::testing::Test
{
protected:
    char Dir[64] = "/tmp/zelrzp-transport-XXXXXX";
    std::vector<pid_t> Children; // killed at the end when a failed assertion left them running
    int Handle = -1;             // this process's end of the connection "conn"
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(Dir), nullptr);
        Handle = Open("conn");
        ASSERT_GE(Handle, 0);
    }
    void TearDown() override
    {
        for (pid_t Pid : Children) {
            kill(Pid, SIGKILL);
            waitpid(Pid, nullptr, 0);
        }
        std::filesystem::remove_all(Dir);
    }
    std::string Path(const char *Leaf) const { return std::string(Dir) + "/" + Leaf; }
    int Open(const char *Leaf) const { return OpenRZPTransport(Path(Leaf).c_str()); }
    pid_t RunChild(const std::function<int()> &Body)
    {
        pid_t Pid = fork();
        if (Pid == 0)
            _exit(Body());
        Children.push_back(Pid);
        return Pid;
    }
    int ExitCodeOf(pid_t Pid)
    {
        int Status = 0;
        waitpid(Pid, &Status, 0);
        Children.erase(std::find(Children.begin(), Children.end(), Pid));
        return WIFEXITED(Status) ? WEXITSTATUS(Status) : 100;
    }
};

TEST_F(TransportTest, EmptyAndLargestPayloadsCrossBetweenProcesses)
{
    pid_t Child = RunChild([&] {
        if (SendPacket(Handle, Handle, 7, 1, nullptr, 0) >= 0) // inherited, not opened here
            return 1;
        int Own = Open("conn");
        bool Sent = SendPacket(Own, Own, 4001, 1, nullptr, 0) == 0 &&
                    SendPacket(Own, Own, 4002, 2, Pattern(9, 2).data(), RZP_MAX_PAYLOAD) == 0;
        return Sent ? 0 : 2;
    });
    ASSERT_EQ(ExitCodeOf(Child), 0);

    GuardedAreas Areas;
    ASSERT_EQ(ReceiveWithin(Handle, Areas), 0);
    EXPECT_EQ(Areas.Header.opCode, 4001u);
    EXPECT_EQ(Areas.Header.ReturnCode, RZP_NO_RESULT_YET);
    EXPECT_EQ(Areas.Header.DataLength, 0);
    EXPECT_EQ(Areas.Header.Data, 0u) << "the reserved field is not carried";
    ASSERT_EQ(ReceiveWithin(Handle, Areas), 0);
    EXPECT_TRUE(HoldsPattern(Areas, 9, 2));
    EXPECT_TRUE(Areas.GuardsIntact());
}

// Senders in several processes and threads, readers in several processes: every frame is taken
// whole and exactly once, and each reader sees each sender's frames in the order they were sent.
TEST_F(TransportTest, ConcurrentSendersAndReadersNeverInterleaveNorSplitAFrame)
{
    const int Processes = 2, Threads = 2, Frames = 300, Readers = 2, Stop = 9999;
    const int Senders = Processes * Threads, Size = Senders * Frames * sizeof(int);
    void *Shared = mmap(nullptr, Size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(Shared, MAP_FAILED);
    int *Taken = static_cast<int *>(Shared); // how often each frame of each sender was taken
    for (int r = 0; r < Readers; r++) // a reader goes on after a bad frame: senders never stall
        RunChild([&] {
            int Own = Open("conn"), Bad = 0;
            GuardedAreas Areas;
            std::vector<int32_t> Next(Senders, 0);
            for (int Result; (Result = ReceiveWithin(Own, Areas)) != -1;) {
                uint32_t Sender = Areas.Header.opCode;
                int32_t Sequence = Areas.Header.LocalSequenceNumber;
                if (Result == 0 && Sender == Stop)
                    return Bad == 0 && Areas.GuardsIntact() ? 0 : 1;
                if (Result != 0 || Sender >= Next.size() || Sequence < Next[Sender] ||
                    Sequence >= Frames || !HoldsPattern(Areas, Sender, Sequence)) {
                    Bad++;
                    continue;
                }
                Next[Sender] = Sequence + 1;
                Taken[Sender * Frames + Sequence]++;
            }
            return 2; // no stop within the wait
        });
    std::vector<pid_t> SenderPids;
    for (int p = 0; p < Processes; p++)
        SenderPids.push_back(RunChild([&, p] {
            int Own = Open("conn");
            std::atomic<int> Failures{0};
            std::vector<std::thread> Workers;
            for (int t = 0; t < Threads; t++)
                Workers.emplace_back([&, t] {
                    uint32_t Sender = p * Threads + t;
                    for (int32_t s = 0; s < Frames; s++)
                        Failures += SendPacket(Own, Own, Sender, s, Pattern(Sender, s).data(),
                                               RZP_MAX_PAYLOAD) != 0;
                });
            for (auto &Worker : Workers)
                Worker.join();
            return Failures.load() == 0 ? 0 : 1;
        }));
    for (pid_t Pid : SenderPids)
        EXPECT_EQ(ExitCodeOf(Pid), 0);
    for (int r = 0; r < Readers; r++)
        ASSERT_EQ(SendPacket(Handle, Handle, Stop, 0, nullptr, 0), 0);
    while (!Children.empty())
        EXPECT_EQ(ExitCodeOf(Children.back()), 0);
    EXPECT_EQ(std::count(Taken, Taken + Senders * Frames, 1), Senders * Frames);
    munmap(Shared, Size);
}

// Fault pinned: a refused frame emptied the FIFO, and a valid frame queued behind the bad bytes
// was lost. Bad bytes ahead of a valid frame: a bad magic, a length past the largest payload, a reply-to
// past its bound or a negative length is refused whole, writing nothing past the caller's areas,
// and the next frame is the valid one. Bytes that are not a frame, or a frame longer than its
// header says, hide the valid frame's magic inside what the reader took for the bad one: it is
// still found within a few calls.
TEST_F(TransportTest, BadBytesWriteNothingPastTheCallerAndTheNextValidFrameIsDelivered)
{
    int Raw = open(Path("conn").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(Raw, 0);
    struct {
        const char *What;
        std::vector<unsigned char> Bytes;
        bool RefusedWhole;
    } Cases[] = {
        {"bad magic", RawFrame("XZP1", 8, 0, 8), true},
        {"payload too long", RawFrame("RZP1", 20000, 0, 20000), true},
        {"reply-to too long", RawFrame("RZP1", 10, 300, 310), true},
        {"negative length", RawFrame("RZP1", -1, 0, 64), true},
        {"longer than it says", RawFrame(RZP_FRAME_MAGIC, 4, 0, 40), false},
        {"no frame", std::vector<unsigned char>(21, 0x5A), false},
        {"false magic", {'R', 'Z', 'P', '1', 0xFF, 0xFF, 0xFF, 0xFF, 'R', 'Z'}, false},
        {"bad header alone", RawFrame(RZP_FRAME_MAGIC, 20000, 0, 0), false},
    };
    uint32_t OpCode = 4200;
    for (const auto &Bad : Cases) {
        SCOPED_TRACE(Bad.What);
        ASSERT_EQ(write(Raw, Bad.Bytes.data(), Bad.Bytes.size()),
                  static_cast<ssize_t>(Bad.Bytes.size()));
        GuardedAreas Areas;
        if (Bad.RefusedWhole) {
            EXPECT_LT(ReceiveWithin(Handle, Areas), -1);
        }
        const unsigned char Payload[5] = {9, 8, 7, 6, 5};
        ASSERT_EQ(SendPacket(Handle, Handle, ++OpCode, 7, Payload, 5), 0);
        bool Delivered = false;
        for (int Call = 0; Call < (Bad.RefusedWhole ? 1 : 8) && !Delivered; Call++) {
            int Result = ReceiveWithin(Handle, Areas);
            if (Result == -1)
                break;
            Delivered = Result == 0 && Areas.Header.opCode == OpCode &&
                        Areas.Header.DataLength == 5 && memcmp(Areas.Buffer, Payload, 5) == 0;
        }
        EXPECT_TRUE(Delivered);
        EXPECT_TRUE(Areas.GuardsIntact());
        EXPECT_EQ(ReceiveRZPDataAsyncRaw(Handle, &Areas.Header, Areas.Buffer, "TEST"), -1);
    }

    // A frame cut short: the reader gives up within its wait and the next frame is whole.
    std::vector<unsigned char> Cut = RawFrame(RZP_FRAME_MAGIC, 100, 0, 10);
    ASSERT_EQ(write(Raw, Cut.data(), Cut.size()), static_cast<ssize_t>(Cut.size()));
    close(Raw);
    GuardedAreas Areas;
    auto Start = std::chrono::steady_clock::now();
    EXPECT_LT(ReceiveRZPDataAsyncRaw(Handle, &Areas.Header, Areas.Buffer, "TEST"), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::seconds(8));
    ASSERT_EQ(SendPacket(Handle, Handle, 4104, 6, nullptr, 0), 0);
    ASSERT_EQ(ReceiveWithin(Handle, Areas), 0);
    EXPECT_EQ(Areas.Header.opCode, 4104u);
}

// Frames with bad bytes between them, written in pieces of 1 to 5 bytes while the reader reads
// as they come: every valid frame is delivered whole and in order, wherever a read happened to
// stop (within a magic, a prefix, a payload), and nothing is written past the caller's areas.
TEST_F(TransportTest, FramesWrittenInPiecesOfOneToFiveBytesAreDeliveredWholeInOrder)
{
    int Raw = open(Path("conn").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(Raw, 0);
    const int Frames = 40;
    std::vector<unsigned char> Stream;
    auto Append = [&Stream](const std::vector<unsigned char> &Bytes) {
        Stream.insert(Stream.end(), Bytes.begin(), Bytes.end());
    };
    for (int k = 0; k < Frames; k++) {
        switch (k % 5) { // bad bytes before the frame
        case 1: Append(std::vector<unsigned char>(7, 0x5A)); break;
        case 2: Append(RawFrame("XZP1", 8, 0, 8)); break;
        case 3: Append({'R', 'Z', 'R', 'Z', 'P'}); break;
        case 4: Append(RawFrame(RZP_FRAME_MAGIC, 20000, 0, 0)); break;
        }
        std::vector<unsigned char> Frame = RawFrame(RZP_FRAME_MAGIC, k * 13, 0, k * 13);
        uint32_t OpCode = 6000 + k;
        memcpy(Frame.data() + 4 + 16, &OpCode, 4);
        std::fill(Frame.begin() + RZP_FRAME_PREFIX, Frame.end(), static_cast<unsigned char>(k));
        Append(Frame);
    }
    std::thread Writer([&] {
        unsigned Seed = 11;
        for (size_t At = 0; At < Stream.size();) {
            size_t Piece = std::min<size_t>(1 + (Seed = Seed * 1103515245 + 12345) % 5,
                                            Stream.size() - At);
            ASSERT_EQ(write(Raw, Stream.data() + At, Piece), static_cast<ssize_t>(Piece));
            At += Piece;
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    std::vector<uint32_t> Delivered;
    auto End = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    GuardedAreas Areas;
    while (Delivered.size() < static_cast<size_t>(Frames) && std::chrono::steady_clock::now() < End) {
        int Result = ReceiveRZPDataAsyncRaw(Handle, &Areas.Header, Areas.Buffer, "TEST");
        ASSERT_TRUE(Areas.GuardsIntact());
        ASSERT_TRUE(Result == 0 || Result == -1 || Result == -4) << Result;
        if (Result != 0)
            continue;
        int k = static_cast<int>(Areas.Header.opCode) - 6000;
        Delivered.push_back(Areas.Header.opCode);
        EXPECT_EQ(Areas.Header.DataLength, k * 13);
        EXPECT_EQ(std::count(Areas.Buffer, Areas.Buffer + k * 13, static_cast<unsigned char>(k)),
                  k * 13);
    }
    Writer.join();
    close(Raw);
    std::vector<uint32_t> Expected(Frames);
    std::iota(Expected.begin(), Expected.end(), 6000u);
    EXPECT_EQ(Delivered, Expected);
}

TEST_F(TransportTest, AnswerToALearnedSrcHandleReachesTheReplyToConnection)
{
    int Requests = Open("requests"), Answers = Open("answers");
    ASSERT_GE(Requests, 0);
    ASSERT_GE(Answers, 0);
    pid_t Manager = RunChild([&] {
        SetRZPTransportHandleBase(100);
        int Send = Open("requests"), Receive = Open("answers");
        if (Send < 100 || Receive < 100)
            return 1;
        GuardedAreas Areas;
        if (SendPacket(Send, Receive, RZP_PARSER_RETURN_NUMBER_OF_ITEMS, 77, nullptr, 0) != 0 ||
            ReceiveWithin(Receive, Areas) != 0)
            return 2;
        return Areas.Header.LocalSequenceNumber == 77 && Areas.Header.DestHandle == Receive ? 0 : 3;
    });

    GuardedAreas Areas;
    ASSERT_EQ(ReceiveWithin(Requests, Areas), 0);
    RZP_HEADER_PACKET Answer = Areas.Header;
    EXPECT_GE(Answer.SrcHandle, 100) << "the peer's handle base is honoured";
    Answer.DestHandle = Answer.SrcHandle;
    EXPECT_EQ(SendRZPDataRaw(&Answer, nullptr, "TEST"), 0);
    EXPECT_EQ(ExitCodeOf(Manager), 0);

    Answer.DestHandle = 4242;
    EXPECT_LT(SendRZPDataRaw(&Answer, nullptr, "TEST"), 0) << "a handle never seen";
    Answer.DestHandle = Answer.SrcHandle;
    EXPECT_EQ(CloseRZPTransport(Answers), 0);
    EXPECT_LT(SendRZPDataRaw(&Answer, nullptr, "TEST"), 0)
        << "the reply-to connection is closed here";
    EXPECT_LT(ReceiveRZPDataAsyncRaw(Answers, &Areas.Header, Areas.Buffer, "TEST"), -1);
    EXPECT_LT(CloseRZPTransport(Answers), 0);
}

TEST_F(TransportTest, OpenAndSendRefuseBadArguments)
{
    struct stat Info = {};
    ASSERT_EQ(lstat(Path("conn").c_str(), &Info), 0);
    EXPECT_EQ(Info.st_mode & 0777, 0600u);
    close(creat(Path("file").c_str(), 0600));
    mkdir(Path("dir").c_str(), 0700);
    ASSERT_EQ(symlink(Path("conn").c_str(), Path("link").c_str()), 0);
    EXPECT_LT(Open("file"), 0);
    EXPECT_LT(Open("dir"), 0);
    EXPECT_LT(Open("link"), 0) << "a link is refused even when it points to a FIFO";
    EXPECT_LT(Open(std::string(RZP_MAX_REPLY_NAME, 'n').c_str()), 0)
        << "too long to travel as reply-to";

    unsigned char Payload[8] = {};
    EXPECT_LT(SendPacket(Handle, Handle, 1, 1, Payload, -1), 0);
    EXPECT_LT(SendPacket(Handle, Handle, 1, 1, Payload, RZP_MAX_PAYLOAD + 1), 0);
    EXPECT_LT(SendPacket(Handle, Handle, 1, 1, nullptr, 5), 0);
    GuardedAreas Areas;
    EXPECT_EQ(ReceiveRZPDataAsyncRaw(Handle, &Areas.Header, Areas.Buffer, "TEST"), -1)
        << "nothing was written";
}

} // namespace
