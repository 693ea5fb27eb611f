// session.cpp - one session of the reference manager: starts the sub-service, answers its
// registrations and requests, sends the caller's requests, records every packet both ways and
// its console output, and ends it. Writes only the ZmSession it is given.
//
// Threads: the caller's (ZmStart, requests, waits, ZmStop, ZmClose); the pump, the only
// receiver on our two connections, which answers what the sub-service asks, records every
// packet and reaps the process; the console reader, which appends the sub-service's standard
// output and error. S->Lock guards the recorded state, the handles and ExitStatus, and
// S->Changed is notified on every change; S->SendLock keeps each frame we write whole.
//
// Both threads sleep in poll: the pump on our two receiving connections, a pidfd of the
// sub-service (readable when it exits) and S->WakeFd (written by ZmClose); the console reader
// on the console pipe and S->WakeFd. Where pidfd_open is missing, the pump looks at the process
// every 10 ms instead.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "process.h"
#include "zelrzpmanager.h"
#include "zelrzptransport.h"

#define ZM_REGISTRATION_CONNECTION "/dev/zelrzp_np1"
#define ZM_PARSER_WRITE_CONNECTION "/dev/zelparser_write" // we receive on it
#define ZM_PARSER_READ_CONNECTION "/dev/zelparser_read"   // we send on it
#define ZM_REGISTRATIONS 7
#define ZM_CALLER "ZMANAGER"
#define ZM_RUNNING -1000

typedef std::unique_lock<std::mutex> ZmGuard;

static int Fail(std::string *Error, const std::string &What)
{
    if (Error != nullptr)
        *Error = What;
    return -1;
}

static void Note(ZmSession *S, const std::string &What)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->Problems.push_back(What);
    S->Changed.notify_all();
}

static void Echo(ZmSession *S, const std::string &Text)
{
    std::string Line = Text;
    if (Line.empty() || Line.back() != '\n')
        Line += '\n';
    ssize_t Written = write(S->Config.EchoFd, Line.data(), Line.size());
    (void)Written; // an echo that cannot be shown is not worth failing over
}

// Waits on S->Changed until Ready() holds or the timeout (-1: the configured one) passes.
template <typename Pred>
static bool WaitUntil(ZmSession *S, ZmGuard &Guard, int TimeoutMs, Pred Ready)
{
    int Ms = TimeoutMs < 0 ? S->Config.TimeoutMs : TimeoutMs;
    auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(Ms);
    return S->Changed.wait_until(Guard, Deadline, Ready);
}

static void SleepMs(int Ms) { std::this_thread::sleep_for(std::chrono::milliseconds(Ms)); }

// ---- Recording and sending ---------------------------------------------------------------------

static void Record(ZmSession *S, int Direction, const char *Connection,
                   const RZP_HEADER_PACKET &Header, const unsigned char *Payload, size_t Length)
{
    ZmPacket P;
    P.Direction = Direction;
    P.Connection = Connection;
    P.Header = Header;
    P.Payload.assign(Payload, Payload + Length);
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->Packets.push_back(std::move(P));
    S->Changed.notify_all();
}

// Sends one packet on the sub-service's read connection and records it. The payload is copied
// into a full-size buffer, so a header whose DataLength lies cannot make the library read past
// the caller's bytes.
static int SendRecorded(ZmSession *S, RZP_HEADER_PACKET Header, const std::vector<unsigned char> &Payload)
{
    if (Payload.size() > RZP_MAX_PAYLOAD)
        return -1;
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD, 0);
    std::copy(Payload.begin(), Payload.end(), Buffer.begin());
    size_t Recorded = Header.DataLength < 0 ? 0 : std::min((size_t)Header.DataLength, Payload.size());
    std::lock_guard<std::mutex> Guard(S->SendLock);
    Record(S, ZM_TO_PARSER, ZM_PARSER_READ_CONNECTION, Header, Buffer.data(), Recorded);
    return SendRZPDataRaw(&Header, Buffer.data(), ZM_CALLER);
}

static void OurHandles(ZmSession *S, int *Receive, int *Send)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    *Receive = S->ReceiveHandle;
    *Send = S->SendHandle;
}

// The header of our answer to a packet of the sub-service: its sequence number and opcode
// back, our next number, our two handles.
static RZP_HEADER_PACKET AnswerHeader(ZmSession *S, const RZP_HEADER_PACKET &Request, int ReturnCode,
                                      size_t Length)
{
    RZP_HEADER_PACKET H{};
    OurHandles(S, &H.SrcHandle, &H.DestHandle);
    H.LocalSequenceNumber = Request.LocalSequenceNumber;
    H.RemoteSequenceNumber = S->NextSequence++;
    H.opCode = Request.opCode;
    H.ReturnCode = ReturnCode;
    H.DataLength = (int32_t)Length;
    return H;
}

static void Answer(ZmSession *S, const RZP_HEADER_PACKET &Request, int ReturnCode,
                   const std::vector<unsigned char> &Payload)
{
    if (SendRecorded(S, AnswerHeader(S, Request, ReturnCode, Payload.size()), Payload) != 0)
        Note(S, "could not send the answer to opcode " + std::to_string(Request.opCode));
}

// ---- Registration ------------------------------------------------------------------------------

struct ZmRegistration {
    uint32_t OpCode = 0;
    std::string SubServiceName, SendConnectionName, ReceiveConnectionName;
};

static bool DecodeRegistration(const std::vector<unsigned char> &Payload, ZmRegistration *Out,
                               std::string *Error)
{
    ZmReader R = ZmReaderOf(Payload);
    bool Override = false, Allow = false;
    ZmReadU32Item(&R, RZP_TYPE_ULONG, "opCode", &Out->OpCode);
    ZmReadBoolItem(&R, "OverrideExisting", &Override);
    ZmReadBoolItem(&R, "AllowOverride", &Allow);
    ZmReadStringItem(&R, "SubServiceName", &Out->SubServiceName, nullptr, false);
    ZmReadStringItem(&R, "SendConnectionName", &Out->SendConnectionName, nullptr, false);
    ZmReadStringItem(&R, "ReceiveConnectionName", &Out->ReceiveConnectionName, nullptr, false);
    *Error = R.Error;
    return R.Error.empty();
}

// Opens the sub-service's two connections once it has created them (its first registration
// names them). Runs on the pump only.
static int OpenParserConnections(ZmSession *S, const ZmRegistration &Reg)
{
    int Receive = -1, Send = -1;
    OurHandles(S, &Receive, &Send);
    if (Receive >= 0 && Send >= 0)
        return 0;
    Receive = OpenRZPTransport(Reg.SendConnectionName.c_str());
    Send = OpenRZPTransport(Reg.ReceiveConnectionName.c_str());
    if (Receive < 0 || Send < 0) {
        if (Receive >= 0)
            CloseRZPTransport(Receive);
        if (Send >= 0)
            CloseRZPTransport(Send);
        Note(S, "could not open the connections " + Reg.SendConnectionName + " and " +
                    Reg.ReceiveConnectionName);
        return -1;
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->ReceiveHandle = Receive;
    S->SendHandle = Send;
    return 0;
}

static void AnswerRegistration(ZmSession *S, const ZmPacket &P)
{
    ZmRegistration Reg;
    std::string Why;
    if (!DecodeRegistration(P.Payload, &Reg, &Why)) {
        Note(S, "malformed registration: " + Why);
        return;
    }
    if (OpenParserConnections(S, Reg) != 0)
        return;
    auto Found = S->Config.RegistrationAnswer.find(Reg.OpCode);
    int ReturnCode = Found == S->Config.RegistrationAnswer.end() ? 0 : Found->second;
    Answer(S, P.Header, ReturnCode, P.Payload);
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->RegistrationsSeen++;
    S->Changed.notify_all();
}

// ---- Requests of the sub-service ---------------------------------------------------------------

static int SupportAnswer(ZmSession *S, const ZmPacket &P)
{
    ZmReader R = ZmReaderOf(P.Payload);
    uint32_t OpCode = 0;
    if (!ZmReadU32Item(&R, RZP_TYPE_ULONG, "opcode asked about", &OpCode)) {
        Note(S, "malformed support query: " + R.Error);
        return RZP_OPCODE_NOT_SUPPORTED;
    }
    auto Limit = S->Config.NotSupportedAnswers.find(OpCode);
    int Refusals = Limit == S->Config.NotSupportedAnswers.end() ? 0 : Limit->second;
    std::lock_guard<std::mutex> Guard(S->Lock);
    int Asked = S->SupportQueries[OpCode]++;
    return Asked < Refusals ? RZP_OPCODE_NOT_SUPPORTED : S->Config.SupportedAnswer;
}

static bool ReadConsoleLocked(ZmSession *S);

// Output (2001) and log (2002): one string item, kept in the session.
static int TextAnswer(ZmSession *S, const ZmPacket &P, std::vector<std::string> *Texts)
{
    ZmReader R = ZmReaderOf(P.Payload);
    std::string Text;
    if (!ZmReadStringItem(&R, "message", &Text, nullptr, false)) {
        Note(S, "malformed message (opcode " + std::to_string(P.Header.opCode) + "): " + R.Error);
    } else {
        {
            std::lock_guard<std::mutex> Guard(S->Lock);
            ReadConsoleLocked(S); // the lines printed before this message come first
            Texts->push_back(Text);
            S->Messages.push_back({P.Header.opCode == RZP_OUTPUT_DATA ? ZM_SCREEN : ZM_LOG, Text});
        }
        if (P.Header.opCode == RZP_OUTPUT_DATA && S->Config.EchoScreen)
            Echo(S, Text);
    }
    return P.Header.opCode == RZP_OUTPUT_DATA ? S->Config.OutputReturnCode : S->Config.LogReturnCode;
}

// A prompt's answer is the request's items followed by the answer item.
static void AnswerPrompt(ZmSession *S, const ZmPacket &P)
{
    std::vector<unsigned char> Out = P.Payload;
    std::vector<unsigned char> Item;
    if (P.Header.opCode == RZP_PROMPT_FOR_CHARACTER) {
        ZmPutU32(&Item, RZP_TYPE_USHORT);
        ZmPutU32(&Item, 1);
        ZmPutByte(&Item, S->Config.PromptCharacterAnswer);
    } else if (P.Header.opCode == RZP_PROMPT_FOR_NUMBER) {
        Item = ZmStringItem(S->Config.PromptNumberAnswer);
    } else {
        Item = ZmStringItem(S->Config.PromptHexAnswer);
    }
    if (Out.size() + Item.size() > RZP_MAX_PAYLOAD) {
        Note(S, "prompt too long to answer (opcode " + std::to_string(P.Header.opCode) + ")");
        Answer(S, P.Header, RZP_OUT_OF_MEMORY, {});
        return;
    }
    Out.insert(Out.end(), Item.begin(), Item.end());
    Answer(S, P.Header, S->Config.PromptReturnCode, Out);
}

// The errata question carries a whole install record; a record we cannot read is refused.
static int ErrataAnswer(ZmSession *S, const ZmPacket &P)
{
    ZmRecord Rec;
    std::string Why;
    if (ZmDecodeRecord(P.Payload.data(), P.Payload.size(), &Rec, &Why) != 0) {
        Note(S, "malformed install record in errata question: " + Why);
        return S->Config.ErrataRefusal;
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->ErrataQuestions.push_back(Rec.FileName);
    return S->Config.ErrataUnsupported.count(Rec.FileName) ? S->Config.ErrataRefusal : 0;
}

static void AnswerRequest(ZmSession *S, const ZmPacket &P)
{
    const ZmConfig &C = S->Config;
    switch (P.Header.opCode) {
    case RZP_IS_OPCODE_SUPPORTED:
        Answer(S, P.Header, SupportAnswer(S, P), P.Payload);
        break;
    case RZP_OUTPUT_DATA:
        Answer(S, P.Header, TextAnswer(S, P, &S->ScreenTexts), {});
        break;
    case RZP_LOG_DATA:
        Answer(S, P.Header, TextAnswer(S, P, &S->LogTexts), {});
        break;
    case RZP_GET_LOG_FILE_NAME:
        Answer(S, P.Header, C.LogFileNameReturnCode, ZmStringItem(C.LogFileName));
        break;
    case RZP_PROMPT_FOR_NUMBER:
    case RZP_PROMPT_FOR_HEX:
    case RZP_PROMPT_FOR_CHARACTER:
        AnswerPrompt(S, P);
        break;
    case RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA:
        Answer(S, P.Header, ErrataAnswer(S, P), {});
        break;
    default:
        Answer(S, P.Header, RZP_OPCODE_NOT_SUPPORTED, P.Payload);
        break;
    }
}

// ---- The pump ----------------------------------------------------------------------------------

static void Dispatch(ZmSession *S, const ZmPacket &P)
{
    if (P.Connection == ZM_REGISTRATION_CONNECTION) {
        if (P.Header.opCode == RZP_REGISTER)
            AnswerRegistration(S, P);
        else if (P.Header.opCode != RZP_SHUTDOWN)
            Note(S, "opcode " + std::to_string(P.Header.opCode) + " on the registration connection");
    } else if (P.Header.ReturnCode == RZP_NO_RESULT_YET && S->Config.AnswerRequests) {
        AnswerRequest(S, P);
    }
    // Anything else answers one of our requests: recorded, and the waiters look for it.
}

enum { ZM_NONE, ZM_TAKEN, ZM_REFUSED };

// Takes one frame from a connection into *P: ZM_NONE when none was waiting, ZM_REFUSED for a
// frame we could not read (noted).
static int TakeFrame(ZmSession *S, int Handle, const char *Connection, unsigned char *Buffer,
                     ZmPacket *P)
{
    if (Handle < 0)
        return ZM_NONE;
    int Result = ReceiveRZPDataAsyncRaw(Handle, &P->Header, Buffer, ZM_CALLER);
    if (Result == -1)
        return ZM_NONE;
    if (Result < 0 || P->Header.DataLength < 0 || P->Header.DataLength > RZP_MAX_PAYLOAD) {
        Note(S, std::string("refused frame on ") + Connection);
        return ZM_REFUSED;
    }
    P->Direction = ZM_FROM_PARSER;
    P->Connection = Connection;
    P->Payload.assign(Buffer, Buffer + P->Header.DataLength);
    return ZM_TAKEN;
}

static void Deliver(ZmSession *S, const ZmPacket &P)
{
    Record(S, P.Direction, P.Connection.c_str(), P.Header, P.Payload.data(), P.Payload.size());
    Dispatch(S, P);
}

// Takes, records and answers one frame of a connection. False when none was waiting.
static bool ReceiveOne(ZmSession *S, int Handle, const char *Connection, unsigned char *Buffer)
{
    ZmPacket P;
    int Taken = TakeFrame(S, Handle, Connection, Buffer, &P);
    if (Taken == ZM_TAKEN)
        Deliver(S, P);
    return Taken != ZM_NONE;
}

// One frame of each connection. A frame of the registration connection is recorded after
// every frame that already waits on the write connection: those were written before it (the
// deregistration follows the last answer of a worker), so the record keeps the order in which
// the sub-service sent them.
static bool ReceiveRound(ZmSession *S, unsigned char *Buffer)
{
    int Receive = -1, Send = -1;
    OurHandles(S, &Receive, &Send);
    bool Got = ReceiveOne(S, Receive, ZM_PARSER_WRITE_CONNECTION, Buffer);
    ZmPacket Registration;
    int Taken = TakeFrame(S, S->RegistrationHandle, ZM_REGISTRATION_CONNECTION, Buffer, &Registration);
    if (Taken == ZM_TAKEN) {
        while (ReceiveOne(S, Receive, ZM_PARSER_WRITE_CONNECTION, Buffer)) {
        }
        Deliver(S, Registration);
    }
    return Got || Taken != ZM_NONE;
}

static int DecodeWaitStatus(int Status)
{
    if (WIFEXITED(Status))
        return WEXITSTATUS(Status);
    if (WIFSIGNALED(Status))
        return -WTERMSIG(Status);
    return -1;
}

// Reaps the sub-service under the lock, so that nobody signals a pid that is gone.
static void Reap(ZmSession *S, int Flags)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    if (S->Pid <= 0 || S->ExitStatus != ZM_RUNNING)
        return;
    int Status = 0;
    if (waitpid(S->Pid, &Status, Flags) == S->Pid) {
        S->ExitStatus = DecodeWaitStatus(Status);
        S->Changed.notify_all();
    }
}

static bool HasExited(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->ExitStatus != ZM_RUNNING;
}

static bool ProcessEnded(ZmSession *S)
{
    siginfo_t Info;
    memset(&Info, 0, sizeof Info);
    return waitid(P_PID, (id_t)S->Pid, &Info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           Info.si_pid == S->Pid;
}

// Sleeps until one of our connections shows data, the sub-service ends, or ZmClose wakes us.
// Returns true when a descriptor showed something.
static bool WaitForWork(ZmSession *S, bool Running)
{
    int Receive = -1, Send = -1;
    OurHandles(S, &Receive, &Send);
    struct pollfd Fds[4];
    nfds_t Count = 0;
    for (int Fd : {S->RegistrationHandle, Receive, S->WakeFd, Running ? S->PidFd : -1})
        if (Fd >= 0)
            Fds[Count++] = {Fd, POLLIN, 0};
    // Without a pidfd the exit is only seen by looking: every 10 ms. A timeout also bounds the
    // wait for a connection that the pump opened after this poll began (it opens them itself,
    // so that cannot happen, but the bound costs nothing).
    int Timeout = Running && S->PidFd < 0 ? 10 : 1000;
    return poll(Fds, Count, Timeout) > 0;
}

// Once the process has ended (seen without reaping it), the frames it wrote last are taken
// before its exit is published, so a waiter for the exit also finds its deregistration. A
// round in which a descriptor showed data but no frame came is followed by a 1 ms sleep, so a
// connection that stays readable is not spun on.
static void PumpThread(ZmSession *S)
{
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD);
    bool ShowedData = false;
    while (!S->Stopping) {
        if (ReceiveRound(S, Buffer.data())) {
            ShowedData = false;
            continue;
        }
        bool Running = !HasExited(S);
        if (Running && ProcessEnded(S)) {
            while (ReceiveRound(S, Buffer.data()) && !S->Stopping) {
            }
            Reap(S, 0);
            continue;
        }
        if (ShowedData)
            SleepMs(1);
        ShowedData = !ShowedData && WaitForWork(S, Running);
    }
}

// Waits until the console pipe has something to read (true). Once Stopping is set it returns
// false when the pipe is quiet: at once after the process was reaped, after 20 ms of quiet
// while it may still write.
static bool ConsoleHasData(ZmSession *S)
{
    for (;;) {
        struct pollfd Fds[2] = {{S->ConsoleFd, POLLIN, 0}, {S->WakeFd, POLLIN, 0}};
        bool Stopping = S->Stopping;
        nfds_t Count = Stopping || S->WakeFd < 0 ? 1 : 2;
        int Timeout = Stopping ? (HasExited(S) ? 0 : 20) : (S->WakeFd < 0 ? 20 : -1);
        int Ready = poll(Fds, Count, Timeout);
        if (Ready < 0 && errno != EINTR)
            return false;
        if (Ready > 0 && Fds[0].revents != 0)
            return true;
        if (Ready == 0 && Stopping)
            return false;
    }
}

// Takes every byte of console output that is waiting (the pipe is non-blocking), echoes it and
// splits the complete lines into S->Messages. Called with S->Lock held, by the console reader
// and by the pump before it records a screen or log text: the sub-service prints a line before
// it sends the packets that follow it, so Messages keeps the order in which it produced them.
// Returns false at the end of the output.
static bool ReadConsoleLocked(ZmSession *S)
{
    char Buffer[4096];
    for (;;) {
        ssize_t N = S->ConsoleFd < 0 ? 0 : read(S->ConsoleFd, Buffer, sizeof Buffer);
        if (N < 0 && errno == EINTR)
            continue;
        if (N < 0 && errno == EAGAIN)
            return true;
        if (N <= 0)
            return false;
        if (S->Config.EchoConsole) {
            ssize_t Written = write(S->Config.EchoFd, Buffer, (size_t)N);
            (void)Written;
        }
        S->Console.append(Buffer, (size_t)N);
        size_t End;
        while ((End = S->Console.find('\n', S->ConsoleLinesEnd)) != std::string::npos) {
            S->Messages.push_back(
                {ZM_CONSOLE, S->Console.substr(S->ConsoleLinesEnd, End - S->ConsoleLinesEnd)});
            S->ConsoleLinesEnd = End + 1;
        }
        S->Changed.notify_all();
    }
}

// Appends the sub-service's output until the pipe ends or the session stops, then keeps a
// last line without its line feed and marks the console ended.
static void ConsoleThread(ZmSession *S)
{
    while (ConsoleHasData(S)) {
        std::lock_guard<std::mutex> Guard(S->Lock);
        if (!ReadConsoleLocked(S))
            break;
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    if (S->ConsoleLinesEnd < S->Console.size())
        S->Messages.push_back({ZM_CONSOLE, S->Console.substr(S->ConsoleLinesEnd)});
    S->ConsoleLinesEnd = S->Console.size();
    S->ConsoleEnded = true;
    S->Changed.notify_all();
}

void ZmSyncConsole(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    ReadConsoleLocked(S);
}

// ---- Starting and ending -----------------------------------------------------------------------

// The sub-service with "-MG" and the caller's arguments, in the bundle directory; its
// standard input /dev/null, its standard output and error the console pipe.
static int StartProcess(ZmSession *S, std::string *Error)
{
    ZpChild Child;
    Child.Argv = {S->Config.ParserPath};
    if (S->Config.PassMG)
        Child.Argv.push_back("-MG");
    Child.Argv.insert(Child.Argv.end(), S->Config.Args.begin(), S->Config.Args.end());
    int Pipe[2];
    if (pipe2(Pipe, O_CLOEXEC) != 0)
        return Fail(Error, std::string("cannot make the console pipe: ") + strerror(errno));
    int Null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Child.Stdin = Null;
    Child.Stdout = Child.Stderr = Pipe[1];
    Child.Directory = S->Config.BundleDir;
    Child.DirectoryFailed = "zelrzp-manager: cannot enter the bundle directory\n";
    Child.ExecFailed = "zelrzp-manager: cannot start the sub-service\n";
    pid_t Pid = ZpSpawn(Child);
    int Failure = errno;
    close(Pipe[1]);
    if (Null >= 0)
        close(Null);
    if (Pid < 0) {
        close(Pipe[0]);
        return Fail(Error, std::string("cannot fork: ") + strerror(Failure));
    }
    S->Pid = Pid;
    S->ConsoleFd = Pipe[0];
    S->PidFd = (int)syscall(SYS_pidfd_open, Pid, 0); // -1 on kernels without it: the pump polls
    fcntl(S->ConsoleFd, F_SETFL, fcntl(S->ConsoleFd, F_GETFL) | O_NONBLOCK);
    return 0;
}

static void ResetRecorded(ZmSession *S, const ZmConfig &Config)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->Config = Config;
    S->Pid = -1;
    S->ExitStatus = ZM_RUNNING;
    S->Stopping = false;
    S->Packets.clear();
    S->Console.clear();
    S->ConsoleLinesEnd = 0;
    S->Messages.clear();
    S->ScreenTexts.clear();
    S->LogTexts.clear();
    S->SupportQueries.clear();
    S->ErrataQuestions.clear();
    S->Problems.clear();
    S->RegistrationsSeen = 0;
    S->ConsoleEnded = false;
}

static int CheckConfig(const ZmConfig &Config, std::string *Error)
{
    struct stat St;
    if (stat(Config.BundleDir.c_str(), &St) != 0 || !S_ISDIR(St.st_mode))
        return Fail(Error, "bundle directory " + Config.BundleDir + " does not exist");
    if (access(Config.ParserPath.c_str(), X_OK) != 0)
        return Fail(Error, "sub-service " + Config.ParserPath + " is not an executable file");
    return 0;
}

// Frames left on the registration connection by an earlier run belong to nobody.
static void DrainStale(int Handle)
{
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD);
    RZP_HEADER_PACKET H;
    for (int i = 0; i < 10000 && ReceiveRZPDataAsyncRaw(Handle, &H, Buffer.data(), ZM_CALLER) != -1; i++) {
    }
}

// Why a start failed; called after ZmClose, so the console output is complete.
static std::string StartFailure(ZmSession *S, bool Ended)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    std::string Why = Ended ? "the sub-service ended with status " + std::to_string(S->ExitStatus)
                            : "the sub-service did not register in time and was killed";
    Why += " after " + std::to_string(S->RegistrationsSeen) + " of 7 registrations";
    if (!S->Console.empty())
        Why += "; its output:\n" + S->Console;
    return Why;
}

int ZmStart(ZmSession *S, const ZmConfig &Config, std::string *Error)
{
    if (S->Pump.joinable() || S->ConsoleReader.joinable() || S->Pid > 0)
        return Fail(Error, "the session is already running");
    ResetRecorded(S, Config);
    if (CheckConfig(Config, Error) != 0)
        return -1;
    SetRZPTransportHandleBase(ZM_HANDLE_BASE);
    S->RegistrationHandle = OpenRZPTransport(ZM_REGISTRATION_CONNECTION);
    if (S->RegistrationHandle < 0)
        return Fail(Error, "cannot open " ZM_REGISTRATION_CONNECTION);
    DrainStale(S->RegistrationHandle);
    S->WakeFd = eventfd(0, EFD_CLOEXEC);
    if (S->WakeFd < 0) {
        ZmClose(S);
        return Fail(Error, std::string("cannot make an eventfd: ") + strerror(errno));
    }
    if (StartProcess(S, Error) != 0) {
        ZmClose(S);
        return -1;
    }
    S->ConsoleReader = std::thread(ConsoleThread, S);
    S->Pump = std::thread(PumpThread, S);
    ZmGuard Guard(S->Lock);
    WaitUntil(S, Guard, -1, [S] {
        return S->RegistrationsSeen >= ZM_REGISTRATIONS || S->ExitStatus != ZM_RUNNING;
    });
    bool Registered = S->RegistrationsSeen >= ZM_REGISTRATIONS;
    bool Ended = S->ExitStatus != ZM_RUNNING;
    Guard.unlock();
    if (Registered)
        return 0;
    ZmClose(S);
    return Fail(Error, StartFailure(S, Ended));
}

// ---- Requests and waits ------------------------------------------------------------------------

int ZmSendPacket(ZmSession *S, RZP_HEADER_PACKET Header, const std::vector<unsigned char> &Payload)
{
    if (Header.DataLength == 0)
        Header.DataLength = (int32_t)Payload.size();
    return SendRecorded(S, Header, Payload);
}

int ZmRequest(ZmSession *S, uint32_t OpCode, const std::vector<unsigned char> &Payload,
              ZmPacket *Answer, int TimeoutMs)
{
    RZP_HEADER_PACKET H{};
    OurHandles(S, &H.SrcHandle, &H.DestHandle);
    if (H.SrcHandle < 0 || H.DestHandle < 0)
        return -1;
    H.LocalSequenceNumber = S->NextSequence++;
    H.RemoteSequenceNumber = -1;
    H.opCode = OpCode;
    H.ReturnCode = RZP_NO_RESULT_YET;
    H.DataLength = (int32_t)Payload.size();
    size_t From = 0;
    {
        std::lock_guard<std::mutex> Guard(S->Lock);
        From = S->Packets.size();
    }
    if (SendRecorded(S, H, Payload) != 0)
        return -1;
    auto IsAnswer = [](const ZmPacket &P, const void *Arg) {
        return P.Connection == ZM_PARSER_WRITE_CONNECTION &&
               P.Header.LocalSequenceNumber == *(const int32_t *)Arg &&
               P.Header.ReturnCode != RZP_NO_RESULT_YET;
    };
    ZmPacket Found;
    if (ZmWaitForPacket(S, IsAnswer, &H.LocalSequenceNumber, &From, &Found, TimeoutMs) != 0)
        return -1;
    if (Answer != nullptr)
        *Answer = Found;
    return 0;
}

int ZmSendBytes(ZmSession *S, const void *Bytes, size_t Length)
{
    int Receive = -1, Send = -1;
    OurHandles(S, &Receive, &Send);
    if (Send < 0)
        return -1;
    std::lock_guard<std::mutex> Guard(S->SendLock);
    const char *P = (const char *)Bytes;
    for (int Tries = 0; Length > 0 && Tries < 2000; Tries++) {
        ssize_t N = write(Send, P, Length);
        if (N > 0) {
            P += N;
            Length -= (size_t)N;
        } else if (N < 0 && errno != EAGAIN && errno != EINTR) {
            return -1;
        } else {
            SleepMs(1);
        }
    }
    return Length == 0 ? 0 : -1;
}

// A wait for a packet also ends when the sub-service has ended: the pump takes its last frames
// before it publishes the exit, so nothing more can come.
int ZmWaitForPacket(ZmSession *S, bool (*Match)(const ZmPacket &, const void *), const void *Arg,
                    size_t *From, ZmPacket *Found, int TimeoutMs)
{
    size_t Start = From != nullptr ? *From : 0;
    size_t Hit = 0;
    bool Matched = false;
    ZmGuard Guard(S->Lock);
    WaitUntil(S, Guard, TimeoutMs, [&] {
        for (size_t i = Start; i < S->Packets.size() && !Matched; i++) {
            Matched = S->Packets[i].Direction == ZM_FROM_PARSER && Match(S->Packets[i], Arg);
            Hit = i;
        }
        Start = S->Packets.size();
        return Matched || S->ExitStatus != ZM_RUNNING;
    });
    if (!Matched)
        return -1;
    if (Found != nullptr)
        *Found = S->Packets[Hit];
    if (From != nullptr)
        *From = Hit + 1;
    return 0;
}

int ZmWaitForConsole(ZmSession *S, const std::string &Text, int TimeoutMs)
{
    ZmGuard Guard(S->Lock);
    return WaitUntil(S, Guard, TimeoutMs, [&] { return S->Console.find(Text) != std::string::npos; })
               ? 0
               : -1;
}

// Waits for the exit; after the timeout kills the process and returns -1. After the exit the
// console output is complete once the pipe has ended, which takes a moment more (at most a
// second is granted: a child of the sub-service may hold the pipe open).
static int WaitForExit(ZmSession *S, int TimeoutMs)
{
    ZmGuard Guard(S->Lock);
    if (S->Pid <= 0 && S->ExitStatus == ZM_RUNNING)
        return -1;
    if (WaitUntil(S, Guard, TimeoutMs, [S] { return S->ExitStatus != ZM_RUNNING; })) {
        WaitUntil(S, Guard, 1000, [S] { return S->ConsoleEnded; });
        return S->ExitStatus;
    }
    kill(S->Pid, SIGKILL);
    WaitUntil(S, Guard, 5000, [S] { return S->ExitStatus != ZM_RUNNING; });
    return -1;
}

int ZmStop(ZmSession *S, int TimeoutMs)
{
    int Receive = -1, Send = -1;
    OurHandles(S, &Receive, &Send);
    if (!HasExited(S) && Receive >= 0 && Send >= 0) {
        RZP_HEADER_PACKET H{};
        H.SrcHandle = Receive;
        H.DestHandle = Send;
        H.LocalSequenceNumber = S->NextSequence++;
        H.RemoteSequenceNumber = -1;
        H.opCode = RZP_SHUTDOWN;
        H.ReturnCode = RZP_NO_RESULT_YET;
        SendRecorded(S, H, {});
    }
    return WaitForExit(S, TimeoutMs);
}

int ZmWaitExit(ZmSession *S, int TimeoutMs) { return WaitForExit(S, TimeoutMs); }

static std::atomic<int> SanitizerReports{0};

// Counts (and shows on standard error) a sanitizer's report in the sub-service's console, so
// that a test whose sub-service misbehaved under a sanitizer build fails even when the test
// looked only at packets.
static void CheckSanitizerReports(ZmSession *S)
{
    static const char *const Markers[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                          "WARNING: ThreadSanitizer", "runtime error:"};
    std::lock_guard<std::mutex> Guard(S->Lock);
    for (const char *Marker : Markers) {
        size_t At = S->Console.find(Marker);
        if (At == std::string::npos)
            continue;
        SanitizerReports++;
        fprintf(stderr, "zelrzp-manager: the sub-service's console holds a sanitizer report:\n%s\n",
                S->Console.substr(At > 200 ? At - 200 : 0, 4000).c_str());
        return;
    }
}

int ZmSanitizerReports(void)
{
    return SanitizerReports.load();
}

// Wakes the pump and the console reader out of their polls; the eventfd stays readable.
static void WakeThreads(ZmSession *S)
{
    if (S->WakeFd < 0)
        return;
    uint64_t One = 1;
    ssize_t Written = write(S->WakeFd, &One, sizeof One);
    (void)Written;
}

void ZmClose(ZmSession *S)
{
    S->Stopping = true;
    WakeThreads(S);
    if (S->Pump.joinable())
        S->Pump.join();
    {
        std::lock_guard<std::mutex> Guard(S->Lock);
        if (S->Pid > 0 && S->ExitStatus == ZM_RUNNING)
            kill(S->Pid, SIGKILL);
    }
    Reap(S, 0);
    if (S->ConsoleReader.joinable())
        S->ConsoleReader.join();
    for (int *Fd : {&S->ConsoleFd, &S->PidFd, &S->WakeFd}) {
        if (*Fd >= 0)
            close(*Fd);
        *Fd = -1;
    }
    CheckSanitizerReports(S);
    std::lock_guard<std::mutex> Guard(S->Lock);
    for (int *Handle : {&S->RegistrationHandle, &S->ReceiveHandle, &S->SendHandle}) {
        if (*Handle >= 0)
            CloseRZPTransport(*Handle);
        *Handle = -1;
    }
    S->Pid = -1;
    S->Changed.notify_all();
}

std::vector<ZmPacket> ZmPacketsSnapshot(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->Packets;
}

std::string ZmConsoleSnapshot(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->Console;
}
