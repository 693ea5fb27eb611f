// Allocation failures in the sub-service's two peers: the transport's frame reader
// (ReceiveRZPDataAsyncRaw, its sources linked into this program so that their allocations are
// wrapped) and the reference manager's record decoder (ZmDecodeRecord). operator new is
// replaced here by one over malloc, so a failed allocation is the std::bad_alloc that the C++
// code meets when memory runs out. The n-th allocation fails for every n in turn
// (failing_alloc.h): no crash, no leak (ASan), a clean result, and nothing half done.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "failing_alloc.h"
#include "zelrzpmanager.h"
#include "zelrzptransport.h"

void *operator new(size_t Size)
{
    void *Memory = malloc(Size > 0 ? Size : 1);
    if (Memory == nullptr)
        throw std::bad_alloc();
    return Memory;
}
void *operator new[](size_t Size)
{
    return operator new(Size);
}
void operator delete(void *Memory) noexcept
{
    free(Memory);
}
void operator delete[](void *Memory) noexcept
{
    free(Memory);
}
void operator delete(void *Memory, size_t) noexcept
{
    free(Memory);
}
void operator delete[](void *Memory, size_t) noexcept
{
    free(Memory);
}

namespace {

const int NO_MEMORY = -9; // the transport's result when memory ran out

class FrameReaderAllocation : public testing::Test {
  protected:
    char Directory[64] = "/tmp/zelpeeralloc.XXXXXX";
    std::string Path;
    int Handle = -1, Peer = -1;
    RZP_HEADER_PACKET Header{};
    unsigned char Buffer[RZP_MAX_PAYLOAD];
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(Directory), nullptr);
        Path = std::string(Directory) + "/conn";
        Peer = OpenRZPTransport((std::string(Directory) + "/peer").c_str());
        ASSERT_GE(Peer, 0);
    }
    void TearDown() override
    {
        CloseRZPTransport(Handle);
        CloseRZPTransport(Peer);
        std::filesystem::remove_all(Directory);
    }
    // A frame from Peer (so that it carries Peer's name to reply to) on the connection.
    int Send(uint32_t OpCode, int Length)
    {
        RZP_HEADER_PACKET Out{Peer, Handle, 5, -1, OpCode, RZP_NO_RESULT_YET, Length, 0};
        std::vector<unsigned char> Payload(Length, static_cast<unsigned char>(OpCode));
        return SendRZPDataRaw(&Out, Payload.data(), "TEST");
    }
    // Receives until nothing is waiting; true when a frame of OpCode came whole.
    bool ReceivedWhole(uint32_t OpCode)
    {
        bool Whole = false;
        for (int Result; (Result = ReceiveRZPDataAsyncRaw(Handle, &Header, Buffer, "T")) != -1;)
            Whole |= Result == 0 && Header.opCode == OpCode && Header.DataLength == 300 &&
                     Buffer[299] == static_cast<unsigned char>(OpCode);
        return Whole;
    }
    // A fresh connection (nothing pending, nothing learned yet) with one frame waiting.
    void Reopen()
    {
        CloseRZPTransport(Handle);
        Handle = OpenRZPTransport(Path.c_str());
        ASSERT_GE(Handle, 0);
        ASSERT_EQ(Send(4100, 300), 0);
    }
};

// Fault pinned: a receive that ran out of memory let std::bad_alloc out of the library, which
// ended the caller. Now it returns the transport's out-of-memory result and leaves the
// connection usable: the next frame sent is delivered whole.
TEST_F(FrameReaderAllocation, ReceiveFailsCleanlyAtEveryAllocation)
{
    Reopen();
    long Runs = FailEachAllocation(
        [&] { return static_cast<long>(ReceiveRZPDataAsyncRaw(Handle, &Header, Buffer, "T")); },
        [&](bool Completed, long Result, long N) {
            EXPECT_TRUE(Result == 0 || Result == NO_MEMORY) << Result << " at " << N;
            EXPECT_TRUE(!Completed || Result == 0);
            EXPECT_TRUE(Result != 0 || (Header.opCode == 4100 && Header.DataLength == 300)) << N;
            ReceivedWhole(4100); // what is left of the frame, if anything
            ASSERT_EQ(Send(4101, 300), 0);
            EXPECT_TRUE(ReceivedWhole(4101)) << "connection unusable after failure " << N;
            Reopen();
        });
    EXPECT_GT(Runs, 2);
}

std::vector<unsigned char> ReadBytes(const std::string &Path)
{
    std::ifstream In(Path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(In), {});
}

// Fault pinned: the decoder let std::bad_alloc out to its caller. Now it fails with "out of
// memory" and leaves the caller's record untouched, or decodes the record as a run without
// failures does.
TEST(RecordDecoderAllocation, DecodeFailsCleanlyAtEveryAllocation)
{
    for (const char *Leaf : {"plain.bin", "requisites.bin", "configuration.bin"}) {
        std::vector<unsigned char> Bytes = ReadBytes(std::string(ZEL_FUZZ_CORPUS "/records/") +
                                                     Leaf);
        ZmRecord Expected, Record;
        std::string Error;
        ASSERT_EQ(ZmDecodeRecord(Bytes.data(), Bytes.size(), &Expected, &Error), 0) << Leaf;
        long Runs = FailEachAllocation(
            [&] {
                Record = ZmRecord{};
                Record.Name = "untouched";
                return static_cast<long>(
                    ZmDecodeRecord(Bytes.data(), Bytes.size(), &Record, &Error));
            },
            [&](bool Completed, long Result, long N) {
                EXPECT_EQ(Completed, Result == 0) << Leaf << " at " << N;
                if (Result != 0) {
                    EXPECT_EQ("out of memory", Error) << Leaf << " at " << N;
                    EXPECT_EQ("untouched", Record.Name) << Leaf << " at " << N;
                    return;
                }
                EXPECT_EQ(Expected.Name, Record.Name);
                EXPECT_EQ(Expected.InstallCommand, Record.InstallCommand);
                EXPECT_EQ(Expected.Requisites.size(), Record.Requisites.size());
                EXPECT_EQ(Expected.Configuration.size(), Record.Configuration.size());
            });
        EXPECT_GT(Runs, 3) << Leaf;
    }
}

} // namespace
