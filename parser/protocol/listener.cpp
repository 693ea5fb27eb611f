// listener.cpp - the listener thread, the only reader of the read connection, and the
// dispatch of every incoming packet (the parser workers it starts are listed in
// operations/workers.cpp). Writes Parser_Exiting (shut-down, or no memory to listen with),
// DEBUG_FLAG (debug on and off), ThreadCount (each worker it starts, and itself at its end)
// and, through the update packet, three run flags.
//
// Threads: the listener runs Listen; it answers control packets itself, parks answers and
// parser requests on the pending-I/O list and starts one detached worker per parser request
// (counted in ThreadCount before it is created). It holds the read connection's lock only
// around a receive, SendDataMutex only for the not-supported answer, PendingIOMutex only
// inside Enqueue.
//
// Between receives the listener waits in poll on the read connection's descriptor (the
// handle on which its record locks are taken) for at most 10 ms, so a packet is taken as soon
// as it arrives and Parser_Exiting is still seen within 10 ms when idle.
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "operations.h"
#include "protocol.h"
#include "runflags.h"
#include "service.h"

namespace {

// What the listener does itself; a parser request goes to its worker (FindParserWorker).
enum DispatchAction { ACTION_REGISTER, ACTION_SHUTDOWN, ACTION_DEBUG_ON, ACTION_DEBUG_OFF,
                      ACTION_UPDATE, ACTION_PARK };

struct DispatchEntry {
    uint32_t OpCode;
    const char *DebugLine;
    DispatchAction Action;
};

const DispatchEntry DispatchTable[] = {
    {RZP_REGISTER, "Parser found RZP_REGISTER packet.\n", ACTION_REGISTER},
    {RZP_SHUTDOWN, "Parser found RZP_SHUTDOWN packet.\n", ACTION_SHUTDOWN},
    {RZP_ENABLE_DEBUG, "Parser found RZP_ENABLE_DEBUG packet.\n", ACTION_DEBUG_ON},
    {RZP_DISABLE_DEBUG, "Parser found RZP_DISABLE_DEBUG packet.\n", ACTION_DEBUG_OFF},
    {RZP_UPDATE_COMMAND_LINE_PARMS, "Parser--RZP_UPDATE_COMMAND_LINE_PARMS packet received.\n",
     ACTION_UPDATE},
    {RZP_IS_OPCODE_SUPPORTED, "Parser found RZP_IS_OPCODE_SUPPORTED.\n", ACTION_PARK},
    {RZP_OUTPUT_DATA, "Parser found RZP_OUTPUT_DATA.\n", ACTION_PARK},
    {RZP_LOG_DATA, "Parser found RZP_LOG_DATA.\n", ACTION_PARK},
    {RZP_PROMPT_FOR_NUMBER, "Parser found RZP_PROMPT_FOR_NUMBER.\n", ACTION_PARK},
    {RZP_PROMPT_FOR_HEX, "Parser found RZP_PROMPT_FOR_HEX.\n", ACTION_PARK},
    {RZP_PROMPT_FOR_CHARACTER, "Parser found RZP_PROMPT_FOR_CHARACTER.\n", ACTION_PARK},
    {RZP_GET_LOG_FILE_NAME, "Parser found RZP_GET_LOG_FILE_NAME.\n", ACTION_PARK},
    {RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA,
     "Parser found RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA.\n", ACTION_PARK},
};

const DispatchEntry *FindDispatchEntry(uint32_t OpCode)
{
    for (const DispatchEntry &Entry : DispatchTable)
        if (Entry.OpCode == OpCode)
            return &Entry;
    return nullptr;
}

void Park(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    int Result = Enqueue(Header, Payload);
    DebugPrint("Return code from Enqueue is %d\n", Result);
}

// Parks the request and starts its worker detached. A worker that cannot be started is
// uncounted again; its request stays parked.
void StartWorker(PRZP_HEADER_PACKET Header, unsigned char *Payload, void *(*Worker)(void *))
{
    Enqueue(Header, Payload);
    ThreadCount++;
    pthread_attr_t Attributes;
    pthread_t Thread;
    pthread_attr_init(&Attributes);
    pthread_attr_setdetachstate(&Attributes, PTHREAD_CREATE_DETACHED);
    if (pthread_create(&Thread, &Attributes, Worker, nullptr) != 0) {
        UncountThread();
        printf("Unable to start a worker for opCode %d.\n", static_cast<int>(Header->opCode));
    }
    pthread_attr_destroy(&Attributes);
}

// Answers an opcode that this sub-service does not serve: -103, back to the sender.
void AnswerNotSupported(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    printf("Parser found opCode %d is not supported by this sub-service.\n",
           static_cast<int>(Header->opCode));
    Header->ReturnCode = RZP_OPCODE_NOT_SUPPORTED;
    Header->DestHandle = Header->SrcHandle;
    Header->SrcHandle = ParserQueue->ReadConnectionHandle;
    SendPacketLocked(Header, Header->DataLength > 0 ? Payload : nullptr);
}

const int PollMilliseconds = 10;

void SleepPoll(void)
{
    struct timespec Delay = {0, PollMilliseconds * 1000000L};
    nanosleep(&Delay, nullptr);
}

// Waits until the connection shows data (or hangs up, or fails) or 10 ms have passed. True
// when it showed something: if the next receive then takes nothing, that round sleeps instead
// of polling again, so a connection that stays readable without yielding a packet is not spun
// on.
bool WaitForData(int Handle)
{
    struct pollfd Wait = {Handle, POLLIN, 0};
    int Ready = poll(&Wait, 1, PollMilliseconds);
    if (Ready < 0 && errno != EINTR) {
        SleepPoll();
        return false;
    }
    return Ready > 0;
}

} // namespace

int HandleIncomingPacket(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    if (Header->DataLength < 0 || Header->DataLength > RZP_MAX_PAYLOAD) {
        printf("Parser refused a packet for opCode %d: Data Length %d is outside 0 to %d.\n",
               static_cast<int>(Header->opCode), Header->DataLength, RZP_MAX_PAYLOAD);
        return 0;
    }
    if (Debugging())
        DumpPacket(Header, Payload, 1);
    const PARSERWORKER *Worker = FindParserWorker(Header->opCode);
    if (Worker != nullptr) {
        DebugPrint("%s", Worker->DebugLine);
        StartWorker(Header, Payload, Worker->Worker);
        return 0;
    }
    const DispatchEntry *Entry = FindDispatchEntry(Header->opCode);
    if (Entry == nullptr) {
        AnswerNotSupported(Header, Payload);
        return 0;
    }
    DebugPrint("%s", Entry->DebugLine);
    switch (Entry->Action) {
    case ACTION_REGISTER:
        HandlePostRegistration(Header, Payload);
        break;
    case ACTION_SHUTDOWN:
        Parser_Exiting = 1;
        break;
    case ACTION_DEBUG_ON:
        DEBUG_FLAG = 1;
        break;
    case ACTION_DEBUG_OFF:
        DEBUG_FLAG = 0;
        break;
    case ACTION_UPDATE:
        ProcessUpdateCommandLineParms(Header, Payload);
        break;
    case ACTION_PARK:
        Park(Header, Payload);
        break;
    }
    return 0;
}

void *Listen(void *)
{
    PRZP_HEADER_PACKET Header = static_cast<PRZP_HEADER_PACKET>(calloc(1, sizeof *Header));
    unsigned char *Payload = static_cast<unsigned char *>(calloc(RZP_MAX_PAYLOAD, 1));
    if (Header == nullptr || Payload == nullptr) {
        printf("Unable to allocate memory for the listener.\n");
        Parser_Exiting = 1;
    }
    bool ShowedData = false;
    while (Parser_Exiting == 0) {
        LockConnection(ParserQueue->ReadConnectionHandle, &ReadConnectionFileLock);
        int Result = ReceiveDataAsyncRaw(ParserQueue->ReadConnectionHandle, Header, Payload,
                                         PARSER_CALLER);
        UnlockConnection(ParserQueue->ReadConnectionHandle, &ReadConnectionFileLock);
        if (Result < 0) {
            if (ShowedData)
                SleepPoll();
            ShowedData = !ShowedData && WaitForData(ParserQueue->ReadConnectionHandle);
            continue;
        }
        ShowedData = false;
        HandleIncomingPacket(Header, Payload);
        memset(Header, 0, sizeof *Header);
        memset(Payload, 0, RZP_MAX_PAYLOAD);
    }
    DebugPrint("Exiting Listen thread\n");
    free(Header);
    free(Payload);
    UncountThread();
    return nullptr;
}
