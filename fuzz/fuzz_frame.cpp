// fuzz_frame.cpp - libFuzzer target: arbitrary bytes written into a connection's FIFO and read
// back with ReceiveRZPDataAsyncRaw until nothing is waiting; then one valid frame, which must
// be delivered whatever came before it, into caller areas whose guard bytes must stay intact.
// The input is followed by enough zero bytes to complete any frame it begins (zeros never
// start a frame), so that no receive waits for the rest of a frame. Links the transport
// library directly; owns one connection in a temporary directory.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "zelrzptransport.h"

static char Directory[64] = "/tmp/zelfuzz-frame-XXXXXX";
static std::string FifoPath;
static int Handle = -1;
static int Writer = -1;
static const size_t Padding = RZP_FRAME_PREFIX + RZP_MAX_REPLY_NAME + RZP_MAX_PAYLOAD;
static const uint32_t SentinelOpCode = 0x5E47;

struct GuardedAreas {
    unsigned char Before[32];
    RZP_HEADER_PACKET Header;
    unsigned char Between[32];
    unsigned char Buffer[RZP_MAX_PAYLOAD];
    unsigned char After[32];
};

static void RemoveDirectory(void)
{
    unlink(FifoPath.c_str());
    unlink((FifoPath + ".lock").c_str());
    rmdir(Directory);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    HarnessSilence();
    if (mkdtemp(Directory) == nullptr)
        abort();
    atexit(RemoveDirectory);
    FifoPath = std::string(Directory) + "/conn";
    Handle = OpenRZPTransport(FifoPath.c_str());
    Writer = open(FifoPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (Handle < 0 || Writer < 0)
        abort();
    return 0;
}

static void WriteAll(const unsigned char *Bytes, size_t Size)
{
    while (Size > 0) {
        ssize_t Written = write(Writer, Bytes, Size);
        if (Written <= 0)
            abort(); // the 1 MiB pipe holds every input the run allows
        Bytes += Written;
        Size -= static_cast<size_t>(Written);
    }
}

static bool GuardsIntact(const GuardedAreas &Areas)
{
    for (size_t i = 0; i < sizeof Areas.Before; i++)
        if (Areas.Before[i] != 0xC5 || Areas.Between[i] != 0xC5 || Areas.After[i] != 0xC5)
            return false;
    return true;
}

// Receives until nothing is waiting; true when the sentinel frame was among what came.
static bool ReceiveAll(void)
{
    static GuardedAreas Areas;
    bool Sentinel = false;
    for (;;) {
        memset(&Areas, 0xC5, sizeof Areas);
        int Result = ReceiveRZPDataAsyncRaw(Handle, &Areas.Header, Areas.Buffer, "FUZZ");
        if (!GuardsIntact(Areas))
            abort();
        if (Result == -1)
            return Sentinel;
        if (Result == 0 && Areas.Header.opCode == SentinelOpCode && Areas.Header.DataLength == 3 &&
            memcmp(Areas.Buffer, "end", 3) == 0)
            Sentinel = true;
    }
}

static uint32_t LE32(const uint8_t *At)
{
    return At[0] | At[1] << 8 | At[2] << 16 | static_cast<uint32_t>(At[3]) << 24;
}

// Zero bytes enough to complete every frame that a magic in the input begins (its lengths
// taken as they stand, capped at the largest frame), and the prefix of a magic cut at the end.
static size_t PaddingFor(const uint8_t *Data, size_t Size)
{
    size_t End = Size + RZP_FRAME_PREFIX;
    for (size_t At = 0; At + 4 <= Size; At++) {
        if (memcmp(Data + At, RZP_FRAME_MAGIC, 4) != 0)
            continue;
        size_t Extent = Padding;
        if (At + RZP_FRAME_PREFIX <= Size) {
            uint32_t Length = LE32(Data + At + 28), ReplyTo = LE32(Data + At + 36);
            if (Length <= RZP_MAX_PAYLOAD && ReplyTo <= RZP_MAX_REPLY_NAME)
                Extent = RZP_FRAME_PREFIX + Length + ReplyTo;
        }
        End = std::max(End, At + Extent);
    }
    return std::min(End - Size, Padding);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    if (Size > 65536)
        return 0;
    static std::vector<unsigned char> Zeros(Padding, 0);
    WriteAll(Data, Size);
    WriteAll(Zeros.data(), PaddingFor(Data, Size));
    RZP_HEADER_PACKET Header = {Handle, Handle, 1, -1, SentinelOpCode, 0, 3, 0};
    unsigned char End[3] = {'e', 'n', 'd'};
    if (SendRZPDataRaw(&Header, End, "FUZZ") != 0)
        abort();
    if (!ReceiveAll())
        abort(); // a valid frame behind the input was lost
    return 0;
}
