// transport.cpp - the connections of libzelrzptransport.so.0: named FIFOs opened and closed,
// packets framed onto them and read back, and answers routed to the connection that a received
// frame named. Writes the globals ConnectionTable, ReplyToNames and HandleBase.
//
// Locks. ConnectionTableMutex guards the two maps and is never held across I/O. Per connection,
// SendMutex orders this process's senders and flock(LOCK_EX) on the FIFO orders the senders of
// all processes; ReceiveMutex and flock on the companion file "<name>.lock" do the same for
// readers. Senders and readers never wait for each other, so a sender that waits for room in a
// full FIFO is always drained. No fcntl record lock or OFD lock is taken here: the caller
// holds fcntl record locks on the same descriptors, and ours would release or block on them.
#include "zelrzptransport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <mutex>
#include <string>
#include <vector>

#define RZP_EXPORT extern "C" __attribute__((visibility("default")))

// Results of the entry points; every failure is negative.
enum {
    RZPT_NOTHING_WAITING = -1, // receive: no frame waiting
    RZPT_BAD_HANDLE = -2,      // not a connection of this process, or no route to it
    RZPT_BAD_ARGUMENT = -3,    // null header, bad DataLength, null payload, bad name
    RZPT_BAD_FRAME = -4,       // receive: frame refused and the connection resynchronised
    RZPT_TIMEOUT = -5,         // no room, no rest of frame, or lock not had within the wait
    RZPT_IO_ERROR = -6,        // a system call failed
    RZPT_WRONG_FILE = -7,      // open: not a FIFO at the path (or the lock file is not a file)
    RZPT_WRONG_PROCESS = -8,   // the handle was inherited across fork, not opened here
    RZPT_NO_MEMORY = -9,       // send or receive: memory ran out; nothing was sent or delivered
};

#define RZPT_WAIT_MS 5000        // longest wait for room, for the rest of a frame, for a lock
#define RZPT_PIPE_SIZE (1 << 20) // asked for at open so that whole frames usually fit
#define RZPT_MAX_REPLY_TO 1024   // peer handles remembered with their reply-to names

struct RZP_CONNECTION {
    int Handle = -1;     // the FIFO, O_RDWR | O_NONBLOCK
    int ReadLockFd = -1; // "<Name>.lock", flocked by readers
    pid_t OwnerPid = 0;  // the process that opened it; flock does not order a fork's copies
    bool Closed = false; // set under both mutexes by CloseRZPTransport
    // Under ReceiveMutex: bytes taken from the FIFO that no frame has used yet. They are the
    // start of the frame being read, or what followed a refused or cut frame's first byte,
    // kept so that a frame whose start lies among them is still found.
    std::vector<unsigned char> Pending;
    std::string Name;
    std::mutex SendMutex;
    std::mutex ReceiveMutex;
};

static std::mutex ConnectionTableMutex;
static std::map<int, std::shared_ptr<RZP_CONNECTION>> ConnectionTable; // handle -> connection
static std::map<int, std::string> ReplyToNames; // peer's SrcHandle -> its reply-to name
static std::atomic<int> HandleBase{0};

static long long NowMs()
{
    timespec Now{};
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return static_cast<long long>(Now.tv_sec) * 1000 + Now.tv_nsec / 1000000;
}

static int RemainingMs(long long Deadline)
{
    long long Left = Deadline - NowMs();
    return Left > 0 ? static_cast<int>(Left) : 0;
}

static void SleepBriefly()
{
    timespec Pause{0, 100 * 1000};
    nanosleep(&Pause, nullptr);
}

static void PutLE32(unsigned char *At, uint32_t Value)
{
    for (int i = 0; i < 4; i++)
        At[i] = static_cast<unsigned char>(Value >> (8 * i));
}

static uint32_t GetLE32(const unsigned char *At)
{
    return static_cast<uint32_t>(At[0]) | static_cast<uint32_t>(At[1]) << 8 |
           static_cast<uint32_t>(At[2]) << 16 | static_cast<uint32_t>(At[3]) << 24;
}

// ---- the connection table -------------------------------------------------------------

static std::shared_ptr<RZP_CONNECTION> FindConnection(int Handle)
{
    std::lock_guard<std::mutex> Guard(ConnectionTableMutex);
    auto It = ConnectionTable.find(Handle);
    return It == ConnectionTable.end() ? nullptr : It->second;
}

// A handle this process opened names that connection; a handle learned from a received
// frame's SrcHandle names the connection of that frame's reply-to name, if it is open here.
static std::shared_ptr<RZP_CONNECTION> ResolveDestination(int Handle)
{
    std::lock_guard<std::mutex> Guard(ConnectionTableMutex);
    auto Own = ConnectionTable.find(Handle);
    if (Own != ConnectionTable.end())
        return Own->second;
    auto Learned = ReplyToNames.find(Handle);
    if (Learned == ReplyToNames.end())
        return nullptr;
    for (auto &Entry : ConnectionTable)
        if (Entry.second->Name == Learned->second)
            return Entry.second;
    return nullptr;
}

static std::string ReplyToNameOf(int SrcHandle)
{
    std::lock_guard<std::mutex> Guard(ConnectionTableMutex);
    auto It = ConnectionTable.find(SrcHandle);
    return It == ConnectionTable.end() ? std::string() : It->second->Name;
}

// The table of learned names is bounded: past RZPT_MAX_REPLY_TO peers, new ones are not kept.
static void RememberReplyTo(int SrcHandle, const std::string &Name)
{
    if (Name.empty())
        return;
    std::lock_guard<std::mutex> Guard(ConnectionTableMutex);
    if (ReplyToNames.size() >= RZPT_MAX_REPLY_TO && ReplyToNames.count(SrcHandle) == 0)
        return;
    ReplyToNames[SrcHandle] = Name;
}

// ---- opening ----------------------------------------------------------------------------

// Creates the FIFO when nothing is at Name; refuses anything else that is not a FIFO there
// (a symbolic link is refused too, whatever it points to).
static int MakeFifo(const char *Name)
{
    struct stat Info = {};
    if (lstat(Name, &Info) == 0)
        return S_ISFIFO(Info.st_mode) ? 0 : RZPT_WRONG_FILE;
    if (errno != ENOENT)
        return RZPT_IO_ERROR;
    if (mkfifo(Name, 0600) == 0 || errno == EEXIST)
        return lstat(Name, &Info) == 0 && S_ISFIFO(Info.st_mode) ? 0 : RZPT_WRONG_FILE;
    return RZPT_IO_ERROR;
}

// Opens Name without following a link and checks that what was opened has the wanted type.
static int OpenChecked(const std::string &Name, int Flags, bool WantFifo)
{
    int Fd = open(Name.c_str(), Flags | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (Fd < 0)
        return errno == ELOOP ? RZPT_WRONG_FILE : RZPT_IO_ERROR;
    struct stat Info = {};
    bool Right =
        fstat(Fd, &Info) == 0 && (WantFifo ? S_ISFIFO(Info.st_mode) : S_ISREG(Info.st_mode));
    if (!Right) {
        close(Fd);
        return RZPT_WRONG_FILE;
    }
    return Fd;
}

// Moves Fd to a descriptor of at least the handle base; the original is closed either way.
static int MoveAboveBase(int Fd)
{
    int Base = HandleBase.load();
    if (Fd >= Base)
        return Fd;
    int Moved = fcntl(Fd, F_DUPFD_CLOEXEC, Base);
    close(Fd);
    return Moved >= 0 ? Moved : RZPT_IO_ERROR;
}

static int AddConnection(int Handle, int ReadLockFd, const char *Name)
{
    auto Connection = std::make_shared<RZP_CONNECTION>();
    Connection->Handle = Handle;
    Connection->ReadLockFd = ReadLockFd;
    Connection->OwnerPid = getpid();
    Connection->Name = Name;
    std::lock_guard<std::mutex> Guard(ConnectionTableMutex);
    ConnectionTable[Handle] = Connection;
    return Handle;
}

RZP_EXPORT int OpenRZPTransport(const char *Name)
{
    if (Name == nullptr || Name[0] == '\0' || strlen(Name) > RZP_MAX_REPLY_NAME)
        return RZPT_BAD_ARGUMENT;
    int Result = MakeFifo(Name);
    if (Result < 0)
        return Result;
    int Fd = OpenChecked(Name, O_RDWR | O_NONBLOCK, true);
    if (Fd < 0)
        return Fd;
    (void)fcntl(Fd, F_SETPIPE_SZ, RZPT_PIPE_SIZE); // a smaller pipe still works
    int ReadLockFd = OpenChecked(std::string(Name) + ".lock", O_RDWR | O_CREAT, false);
    if (ReadLockFd < 0) {
        close(Fd);
        return ReadLockFd;
    }
    int Handle = MoveAboveBase(Fd);
    if (Handle < 0) {
        close(ReadLockFd);
        return Handle;
    }
    return AddConnection(Handle, ReadLockFd, Name);
}

RZP_EXPORT int CloseRZPTransport(int Handle)
{
    std::shared_ptr<RZP_CONNECTION> Connection;
    {
        std::lock_guard<std::mutex> Guard(ConnectionTableMutex);
        auto It = ConnectionTable.find(Handle);
        if (It == ConnectionTable.end())
            return RZPT_BAD_HANDLE;
        Connection = It->second;
        ConnectionTable.erase(It);
    }
    // Waits for a send or receive in progress on another thread to finish with the descriptors.
    std::scoped_lock Both(Connection->SendMutex, Connection->ReceiveMutex);
    Connection->Closed = true;
    close(Connection->Handle);
    close(Connection->ReadLockFd);
    return 0;
}

RZP_EXPORT void SetRZPTransportHandleBase(int Base)
{
    HandleBase.store(Base > 0 ? Base : 0);
}

// ---- locks and whole reads and writes ---------------------------------------------------

// Checked under the connection's mutex: a closed connection, or one inherited across fork
// (whose flock would not order it against its parent), is refused.
static int UsableHere(const RZP_CONNECTION &Connection)
{
    if (Connection.Closed)
        return RZPT_BAD_HANDLE;
    return Connection.OwnerPid == getpid() ? 0 : RZPT_WRONG_PROCESS;
}

static int FlockWithin(int Fd, long long Deadline)
{
    for (;;) {
        if (flock(Fd, LOCK_EX | LOCK_NB) == 0)
            return 0;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return RZPT_IO_ERROR;
        if (NowMs() >= Deadline)
            return RZPT_TIMEOUT;
        SleepBriefly();
    }
}

// Waits until Fd is ready for Events or the deadline passes.
static int WaitFor(int Fd, short Events, long long Deadline)
{
    for (;;) {
        pollfd Poll{Fd, Events, 0};
        int Ready = poll(&Poll, 1, RemainingMs(Deadline));
        if (Ready > 0)
            return 0;
        if (Ready == 0)
            return RZPT_TIMEOUT;
        if (errno != EINTR)
            return RZPT_IO_ERROR;
    }
}

// Moves bytes *Done..Length of Data to (POLLOUT) or from (POLLIN) the FIFO, waiting for room
// or for bytes until the deadline. *Done tells how far it got, on failure too.
static int TransferAll(int Fd, unsigned char *Data, size_t *Done, size_t Length, short Events,
                       long long Deadline)
{
    while (*Done < Length) {
        ssize_t Moved = Events == POLLOUT ? write(Fd, Data + *Done, Length - *Done)
                                          : read(Fd, Data + *Done, Length - *Done);
        if (Moved > 0) {
            *Done += static_cast<size_t>(Moved);
            continue;
        }
        if (Moved < 0 && errno == EINTR)
            continue;
        if (Moved == 0 || errno != EAGAIN)
            return RZPT_IO_ERROR;
        int Waited = WaitFor(Fd, Events, Deadline);
        if (Waited < 0)
            return Waited;
    }
    return 0;
}

static bool Readable(int Fd)
{
    pollfd Poll{Fd, POLLIN, 0};
    return poll(&Poll, 1, 0) > 0 && (Poll.revents & POLLIN) != 0;
}

// ---- frames -----------------------------------------------------------------------------

static std::vector<unsigned char> BuildFrame(const RZP_HEADER_PACKET &Header,
                                             const std::string &ReplyTo,
                                             const unsigned char *Payload)
{
    const int32_t Fields[8] = {Header.SrcHandle,
                               Header.DestHandle,
                               Header.LocalSequenceNumber,
                               Header.RemoteSequenceNumber,
                               static_cast<int32_t>(Header.opCode),
                               Header.ReturnCode,
                               Header.DataLength,
                               0};
    std::vector<unsigned char> Frame(RZP_FRAME_PREFIX + ReplyTo.size() + Header.DataLength);
    memcpy(Frame.data(), RZP_FRAME_MAGIC, 4);
    for (int i = 0; i < 8; i++)
        PutLE32(Frame.data() + 4 + 4 * i, static_cast<uint32_t>(Fields[i]));
    PutLE32(Frame.data() + 36, static_cast<uint32_t>(ReplyTo.size()));
    memcpy(Frame.data() + RZP_FRAME_PREFIX, ReplyTo.data(), ReplyTo.size());
    if (Header.DataLength > 0)
        memcpy(Frame.data() + RZP_FRAME_PREFIX + ReplyTo.size(), Payload, Header.DataLength);
    return Frame;
}

// Decodes the 40-byte prefix; false when the frame is to be refused.
static bool ParsePrefix(const unsigned char *Prefix, RZP_HEADER_PACKET *Header,
                        uint32_t *ReplyToLength)
{
    if (memcmp(Prefix, RZP_FRAME_MAGIC, 4) != 0)
        return false;
    int32_t Fields[8];
    for (int i = 0; i < 8; i++)
        Fields[i] = static_cast<int32_t>(GetLE32(Prefix + 4 + 4 * i));
    *ReplyToLength = GetLE32(Prefix + 36);
    Header->SrcHandle = Fields[0];
    Header->DestHandle = Fields[1];
    Header->LocalSequenceNumber = Fields[2];
    Header->RemoteSequenceNumber = Fields[3];
    Header->opCode = static_cast<uint32_t>(Fields[4]);
    Header->ReturnCode = Fields[5];
    Header->DataLength = Fields[6];
    Header->Data = 0;
    return Header->DataLength >= 0 && Header->DataLength <= RZP_MAX_PAYLOAD &&
           *ReplyToLength <= RZP_MAX_REPLY_NAME;
}

static int SendFrame(RZP_CONNECTION &Connection, std::vector<unsigned char> Frame)
{
    std::lock_guard<std::mutex> Guard(Connection.SendMutex);
    int Result = UsableHere(Connection);
    if (Result < 0)
        return Result;
    long long Deadline = NowMs() + RZPT_WAIT_MS;
    Result = FlockWithin(Connection.Handle, Deadline);
    if (Result < 0)
        return Result;
    size_t Done = 0;
    Result = TransferAll(Connection.Handle, Frame.data(), &Done, Frame.size(), POLLOUT, Deadline);
    flock(Connection.Handle, LOCK_UN);
    return Result;
}

// Whether Length bytes can be the start of a frame: the magic as far as they go and, once the
// 40-byte prefix is there, a header that ParsePrefix accepts.
static bool MayStartFrame(const unsigned char *Bytes, size_t Length)
{
    if (memcmp(Bytes, RZP_FRAME_MAGIC, std::min<size_t>(Length, 4)) != 0)
        return false;
    RZP_HEADER_PACKET Header{};
    uint32_t ReplyToLength = 0;
    return Length < RZP_FRAME_PREFIX || ParsePrefix(Bytes, &Header, &ReplyToLength);
}

// Drops leading bytes of Pending until what is left may start a frame (or nothing is left).
static void DropToCandidate(std::vector<unsigned char> &Pending, size_t From)
{
    size_t Start = From;
    while (Start < Pending.size() && !MayStartFrame(Pending.data() + Start, Pending.size() - Start))
        Start++;
    Pending.erase(Pending.begin(), Pending.begin() + std::min(Start, Pending.size()));
}

// After a refused or cut frame. Nothing in the stream marks where the next frame starts, so
// every offset after the bad frame's first byte is a candidate: the bytes already read are
// searched first, then what the FIFO holds right now (no more: senders may go on writing), read
// at most a prefix's worth at a time, so that no byte beyond the 40-byte prefix of the
// candidate found is taken, until a whole magic is had. A candidate whose header turns out bad
// when its prefix is complete is refused in turn, and the search goes on from its next byte.
static void Resynchronise(RZP_CONNECTION &Connection)
{
    std::vector<unsigned char> &Pending = Connection.Pending;
    DropToCandidate(Pending, 1);
    unsigned char Chunk[RZP_FRAME_PREFIX];
    while (Pending.size() < 4) {
        ssize_t Got = read(Connection.Handle, Chunk, sizeof Chunk - Pending.size());
        if (Got <= 0)
            break;
        Pending.insert(Pending.end(), Chunk, Chunk + Got);
        DropToCandidate(Pending, 0);
    }
}

// Reads from the FIFO until Pending holds Need bytes, waiting until the deadline.
static int FillPending(RZP_CONNECTION &Connection, size_t Need, long long Deadline)
{
    std::vector<unsigned char> &Pending = Connection.Pending;
    size_t Done = Pending.size();
    if (Done >= Need)
        return 0;
    Pending.resize(Need);
    int Result = TransferAll(Connection.Handle, Pending.data(), &Done, Need, POLLIN, Deadline);
    Pending.resize(Done);
    return Result;
}

// The whole frame's length when Pending holds a valid prefix, else 0.
static size_t FrameLength(const std::vector<unsigned char> &Pending, RZP_HEADER_PACKET *Header,
                          uint32_t *ReplyToLength)
{
    if (Pending.size() < RZP_FRAME_PREFIX || !ParsePrefix(Pending.data(), Header, ReplyToLength))
        return 0;
    return RZP_FRAME_PREFIX + *ReplyToLength + static_cast<size_t>(Header->DataLength);
}

// Whether Pending alone decides the next receive: a whole frame, or a prefix to refuse.
static bool PendingDecides(const std::vector<unsigned char> &Pending)
{
    RZP_HEADER_PACKET Header{};
    uint32_t ReplyToLength = 0;
    size_t Length = FrameLength(Pending, &Header, &ReplyToLength);
    return Pending.size() >= RZP_FRAME_PREFIX && Pending.size() >= Length;
}

// Reads one frame into the connection's own storage; the caller's buffers are written only on
// success. A frame refused, or cut short within the wait, is followed by Resynchronise.
static int ReadFrame(RZP_CONNECTION &Connection, PRZP_HEADER_PACKET Header, unsigned char *Buffer)
{
    std::vector<unsigned char> &Pending = Connection.Pending;
    if (Pending.empty()) {
        unsigned char First;
        if (read(Connection.Handle, &First, 1) != 1)
            return RZPT_NOTHING_WAITING; // another reader took what was there
        Pending.push_back(First);
    }
    long long Deadline = NowMs() + RZPT_WAIT_MS;
    int Result = FillPending(Connection, RZP_FRAME_PREFIX, Deadline);
    RZP_HEADER_PACKET Received{};
    uint32_t ReplyToLength = 0;
    size_t Length = Result < 0 ? 0 : FrameLength(Pending, &Received, &ReplyToLength);
    if (Length == 0) {
        Resynchronise(Connection);
        return Result < 0 ? Result : RZPT_BAD_FRAME;
    }
    Result = FillPending(Connection, Length, Deadline);
    if (Result < 0) {
        Resynchronise(Connection);
        return Result;
    }
    const unsigned char *Rest = Pending.data() + RZP_FRAME_PREFIX;
    Result = Buffer == nullptr && Received.DataLength > 0 ? RZPT_BAD_ARGUMENT : 0;
    if (Result == 0) {
        // First what may run out of memory: then the caller's areas are written only on success.
        RememberReplyTo(Received.SrcHandle,
                        std::string(reinterpret_cast<const char *>(Rest), ReplyToLength));
        *Header = Received;
        if (Received.DataLength > 0)
            memcpy(Buffer, Rest + ReplyToLength, Received.DataLength);
    }
    Pending.erase(Pending.begin(), Pending.begin() + Length); // consumed either way
    return Result;
}

RZP_EXPORT int SendRZPDataRaw(PRZP_HEADER_PACKET Header, unsigned char *Buffer, const char *Caller)
{
    (void)Caller;
    if (Header == nullptr || Header->DataLength < 0 || Header->DataLength > RZP_MAX_PAYLOAD)
        return RZPT_BAD_ARGUMENT;
    if (Buffer == nullptr && Header->DataLength > 0)
        return RZPT_BAD_ARGUMENT;
    std::shared_ptr<RZP_CONNECTION> Destination = ResolveDestination(Header->DestHandle);
    if (Destination == nullptr)
        return RZPT_BAD_HANDLE;
    try {
        return SendFrame(*Destination, BuildFrame(*Header, ReplyToNameOf(Header->SrcHandle), Buffer));
    } catch (const std::bad_alloc &) {
        return RZPT_NO_MEMORY; // the frame is built whole before a byte is written
    }
}

RZP_EXPORT int ReceiveRZPDataAsyncRaw(int Handle, PRZP_HEADER_PACKET Header, unsigned char *Buffer,
                                      const char *Caller)
{
    (void)Caller;
    if (Header == nullptr)
        return RZPT_BAD_ARGUMENT;
    std::shared_ptr<RZP_CONNECTION> Connection = FindConnection(Handle);
    if (Connection == nullptr)
        return RZPT_BAD_HANDLE;
    // Nothing waiting, or another reader (a thread here or another process) busy with the
    // waiting frame: -1 at once, and the caller asks again later.
    std::unique_lock<std::mutex> Guard(Connection->ReceiveMutex, std::try_to_lock);
    if (!Guard.owns_lock())
        return RZPT_NOTHING_WAITING;
    int Result = UsableHere(*Connection);
    if (Result < 0)
        return Result;
    if (!Readable(Handle) && !PendingDecides(Connection->Pending))
        return RZPT_NOTHING_WAITING;
    if (flock(Connection->ReadLockFd, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK || errno == EINTR ? RZPT_NOTHING_WAITING : RZPT_IO_ERROR;
    try {
        Result = ReadFrame(*Connection, Header, Buffer);
    } catch (const std::bad_alloc &) {
        Result = RZPT_NO_MEMORY; // what was read stays in Pending, or is lost like a cut frame
    }
    flock(Connection->ReadLockFd, LOCK_UN);
    return Result;
}
