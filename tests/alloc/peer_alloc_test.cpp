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

// Fault pinned: a receive that ran out of memory let std::bad_alloc out of the library, which
// ended the caller. Now it returns the transport's out-of-memory result (-9), writes nothing
// into the caller's areas and leaves the connection usable: the next frame is delivered whole. Each
// run reads a frame from Peer (so that it carries a name to reply to) on a freshly opened
// connection.
TEST(FrameReaderAllocation, ReceiveFailsCleanlyAtEveryAllocation)
{
    char Directory[64] = "/tmp/zelpeeralloc.XXXXXX";
    ASSERT_NE(mkdtemp(Directory), nullptr);
    std::string Path = std::string(Directory) + "/conn";
    int Peer = OpenRZPTransport((Path + "-peer").c_str()), Handle = -1;
    RZP_HEADER_PACKET Header{};
    static unsigned char Buffer[RZP_MAX_PAYLOAD];
    auto Send = [&](uint32_t OpCode) {
        RZP_HEADER_PACKET Out{Peer, Handle, 5, -1, OpCode, RZP_NO_RESULT_YET, 300, 0};
        std::vector<unsigned char> Payload(300, static_cast<unsigned char>(OpCode));
        return SendRZPDataRaw(&Out, Payload.data(), "TEST");
    };
    auto ReceivedWhole = [&](uint32_t OpCode) { // receives until nothing is waiting
        bool Whole = false;
        for (int Result; (Result = ReceiveRZPDataAsyncRaw(Handle, &Header, Buffer, "T")) != -1;)
            Whole |= Result == 0 && Header.opCode == OpCode && Header.DataLength == 300 &&
                     Buffer[299] == static_cast<unsigned char>(OpCode);
        return Whole;
    };
    auto Reopen = [&] {
        CloseRZPTransport(Handle);
        Handle = OpenRZPTransport(Path.c_str());
        return Handle >= 0 && Send(4100) == 0;
    };
    ASSERT_TRUE(Peer >= 0 && Reopen());
    long Runs = FailEachAllocation(
        [&] {
            Header = RZP_HEADER_PACKET{};
            return static_cast<long>(ReceiveRZPDataAsyncRaw(Handle, &Header, Buffer, "T"));
        },
        [&](bool Completed, long Result, long N) {
            EXPECT_TRUE(Result == 0 || Result == -9) << Result << " at " << N;
            EXPECT_TRUE(!Completed || Result == 0);
            EXPECT_EQ(Result == 0 ? 4100u : 0u, Header.opCode) << "the caller's header at " << N;
            ReceivedWhole(4100); // what is left of the frame, if anything
            ASSERT_EQ(Send(4101), 0);
            EXPECT_TRUE(ReceivedWhole(4101)) << "connection unusable after failure " << N;
            ASSERT_TRUE(Reopen());
        });
    EXPECT_GT(Runs, 2);
    CloseRZPTransport(Handle);
    CloseRZPTransport(Peer);
    std::filesystem::remove_all(Directory);
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
