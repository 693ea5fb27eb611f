// pendingio.cpp - the pending-I/O list: packets parked by the listener for the thread that
// waits for them (answers, by sequence number) or serves them (requests, by opcode).
// Owns PendingIOList, its tail and count, the list of expected answers and PendingIOMutex.
// Every access to them, the copies into the caller's areas included, happens under
// PendingIOMutex. Parking also signals PendingIOParked so that a waiter wakes as soon as its
// packet arrives instead of at its next poll.
//
// The list is bounded: beyond PENDING_IO_LIMIT parked packets, parking drops the oldest answer
// that no thread expects. Parser requests (a worker is about to take them) and answers that a
// thread expects are never dropped. A node's buffer holds exactly its payload.
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "runflags.h"
#include "support.h"

PPENDINGIO PendingIOList = nullptr;
pthread_mutex_t PendingIOMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pthread_cond_t PendingIOParked = PTHREAD_COND_INITIALIZER;
PPENDINGIO PendingIOTail = nullptr;  // last node, or null
int PendingIOCount = 0;              // nodes on the list
PPENDINGWAIT ExpectedAnswers = nullptr; // the waits in progress, each on its waiter's stack
long DroppedPackets = 0;
const long PollNanoseconds = 10000000; // 10 milliseconds
const long DropReportInterval = 1000;  // a console line for the first drop and every 1000th

void FreeNode(PPENDINGIO Node)
{
    free(Node->Header);
    free(Node->Buffer);
    free(Node);
}

void DumpPromptBuffer(const unsigned char *Payload, int Length)
{
    printf("PARSER BUFFER DUMP...\n");
    for (int i = 0; i < Length; i++) {
        printf("%02x  ", Payload[i]);
        if ((i + 1) % 10 == 0)
            printf("\n");
    }
    printf("\nEnd PARSER BUFFER DUMP\n");
}

// Takes Node (after Previous, or the head) off the list. Called under PendingIOMutex.
void UnlinkNode(PPENDINGIO Previous, PPENDINGIO Node)
{
    if (Previous == nullptr)
        PendingIOList = Node->Next;
    else
        Previous->Next = Node->Next;
    if (PendingIOTail == Node)
        PendingIOTail = Previous;
    PendingIOCount--;
}

// Copies the node to the caller's areas (Payload nullptr: the payload is not wanted), unlinks
// and frees it. Called under PendingIOMutex.
void TakeNode(PPENDINGIO Previous, PPENDINGIO Node, PRZP_HEADER_PACKET Header,
              unsigned char *Payload)
{
    memcpy(Header, Node->Header, sizeof *Header);
    if (Payload != nullptr) {
        if (Node->Header->DataLength > 0 && Node->Buffer != nullptr)
            memcpy(Payload, Node->Buffer, Node->Header->DataLength);
        else
            Payload[0] = 0;
    }
    UnlinkNode(Previous, Node);
    FreeNode(Node);
}

// The walk of both dequeue operations: takes the oldest node for which Match holds.
template <typename MatchFn, typename TraceFn>
bool TakeFirst(PRZP_HEADER_PACKET Header, unsigned char *Payload, MatchFn Match, TraceFn Trace)
{
    PPENDINGIO Previous = nullptr;
    for (PPENDINGIO Node = PendingIOList; Node != nullptr; Previous = Node, Node = Node->Next) {
        if (Debugging())
            Trace(Node->Header);
        if (Match(Node->Header)) {
            TakeNode(Previous, Node, Header, Payload);
            return true;
        }
    }
    return false;
}

// Waits on PendingIOParked for at most 10 milliseconds. Called under PendingIOMutex.
void WaitParked(void)
{
    struct timespec Deadline;
    clock_gettime(CLOCK_REALTIME, &Deadline);
    Deadline.tv_nsec += PollNanoseconds;
    if (Deadline.tv_nsec >= 1000000000L) {
        Deadline.tv_sec++;
        Deadline.tv_nsec -= 1000000000L;
    }
    pthread_cond_timedwait(&PendingIOParked, &PendingIOMutex, &Deadline);
}

bool IsParserRequest(uint32_t OpCode)
{
    return (OpCode >= RZP_PARSER_OPEN_INPUT_FILE && OpCode <= RZP_PARSER_CLOSE_INPUT_FILE) ||
           (OpCode >= RZP_PARSER_RETURN_NUMBER_OF_ITEMS && OpCode <= RZP_PARSER_RETURN_LAST_ITEM);
}

// True when a worker or a waiting requester will take the packet. Called under PendingIOMutex.
bool IsWanted(const RZP_HEADER_PACKET *Header)
{
    if (IsParserRequest(Header->opCode))
        return true;
    for (PPENDINGWAIT Wait = ExpectedAnswers; Wait != nullptr; Wait = Wait->Next) {
        if (Wait->ByOpCode ? Wait->OpCode == Header->opCode
                           : Wait->SequenceNumber == Header->LocalSequenceNumber)
            return true;
    }
    return false;
}

// Makes room for one more node by dropping the oldest packet that nobody wants; the dropped
// header is copied to *Dropped. False when every parked packet is wanted (the list then grows
// past the bound). Called under PendingIOMutex.
bool DropOldestUnwanted(RZP_HEADER_PACKET *Dropped)
{
    PPENDINGIO Previous = nullptr;
    for (PPENDINGIO Node = PendingIOList; Node != nullptr; Previous = Node, Node = Node->Next) {
        if (!IsWanted(Node->Header)) {
            *Dropped = *Node->Header;
            UnlinkNode(Previous, Node);
            FreeNode(Node);
            DroppedPackets++;
            return true;
        }
    }
    return false;
}

// A node holding a copy of the header and of DataLength payload bytes; null when out of memory.
PPENDINGIO NewNode(PRZP_HEADER_PACKET Header, const unsigned char *Payload)
{
    PPENDINGIO Node = static_cast<PPENDINGIO>(calloc(1, sizeof(PENDINGIO)));
    if (Node == nullptr)
        return nullptr;
    Node->Header = static_cast<PRZP_HEADER_PACKET>(malloc(sizeof(RZP_HEADER_PACKET)));
    bool HasPayload = Header->DataLength > 0;
    if (HasPayload)
        Node->Buffer = static_cast<unsigned char *>(malloc(Header->DataLength));
    if (Node->Header == nullptr || (HasPayload && Node->Buffer == nullptr)) {
        FreeNode(Node);
        return nullptr;
    }
    memcpy(Node->Header, Header, sizeof *Header);
    if (HasPayload)
        memcpy(Node->Buffer, Payload, Header->DataLength);
    return Node;
}

void ReportDrop(const RZP_HEADER_PACKET &Dropped, long Count)
{
    if (Count != 1 && Count % DropReportInterval != 0)
        return;
    printf("Parser dropped an unrequested packet for opCode %d (sequence number %d): %d packets "
           "were already waiting. %ld dropped so far.\n",
           static_cast<int>(Dropped.opCode), Dropped.LocalSequenceNumber, PENDING_IO_LIMIT, Count);
}

} // namespace

int Enqueue(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    if (Header->DataLength > RZP_MAX_PAYLOAD)
        return RZP_OUT_OF_MEMORY; // refused before it is parked (the listener never offers one)
    PPENDINGIO Node = NewNode(Header, Payload);
    pthread_mutex_lock(&PendingIOMutex);
    if (Node == nullptr) {
        Parser_Exiting = 1;
        pthread_mutex_unlock(&PendingIOMutex);
        return RZP_OUT_OF_MEMORY;
    }
    RZP_HEADER_PACKET Dropped;
    bool Drop = PendingIOCount >= PENDING_IO_LIMIT && DropOldestUnwanted(&Dropped);
    long DroppedSoFar = DroppedPackets;
    AppendToList(&PendingIOList, &PendingIOTail, Node, &PENDINGIO::Next);
    PendingIOCount++;
    pthread_cond_broadcast(&PendingIOParked);
    pthread_mutex_unlock(&PendingIOMutex);
    if (Drop)
        ReportDrop(Dropped, DroppedSoFar);
    return 0;
}

namespace {

// The two dequeue walks, called under PendingIOMutex.
int DequeueLocked(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber)
{
    bool Taken = TakeFirst(
        Header, Payload,
        [SequenceNumber](PRZP_HEADER_PACKET H) { return H->LocalSequenceNumber == SequenceNumber; },
        [SequenceNumber](PRZP_HEADER_PACKET H) {
            printf("Parser SequenceNumber asked for %d    Found LSN is %d     Found RSN is %d\n",
                   SequenceNumber, H->LocalSequenceNumber, H->RemoteSequenceNumber);
        });
    return Taken ? 0 : RZP_NOTHING_PENDING;
}

int DequeueByOpCodeLocked(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode)
{
    bool Taken = TakeFirst(
        Header, Payload, [OpCode](PRZP_HEADER_PACKET H) { return H->opCode == OpCode; },
        [OpCode](PRZP_HEADER_PACKET H) {
            printf("Parser opCode asked for %d    Found opCode is %d\n", static_cast<int>(OpCode),
                   static_cast<int>(H->opCode));
        });
    if (Taken && OpCode == RZP_PROMPT_FOR_NUMBER && Debugging() && Header->DataLength > 0)
        DumpPromptBuffer(Payload, Header->DataLength);
    return Taken ? 0 : RZP_OPCODE_NOT_SUPPORTED;
}

} // namespace

int Dequeue(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber)
{
    if (SequenceNumber == -1)
        return RZP_NO_SEQUENCE_NUMBER;
    pthread_mutex_lock(&PendingIOMutex);
    int Result = DequeueLocked(Header, Payload, SequenceNumber);
    pthread_mutex_unlock(&PendingIOMutex);
    return Result;
}

int DequeueByOpCode(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode)
{
    pthread_mutex_lock(&PendingIOMutex);
    int Result = DequeueByOpCodeLocked(Header, Payload, OpCode);
    pthread_mutex_unlock(&PendingIOMutex);
    return Result;
}

namespace {

void LinkExpectation(PPENDINGWAIT Wait)
{
    pthread_mutex_lock(&PendingIOMutex);
    Wait->Next = ExpectedAnswers;
    ExpectedAnswers = Wait;
    pthread_mutex_unlock(&PendingIOMutex);
}

// Called under PendingIOMutex.
void UnlinkExpectation(PPENDINGWAIT Wait)
{
    for (PPENDINGWAIT *Link = &ExpectedAnswers; *Link != nullptr; Link = &(*Link)->Next) {
        if (*Link == Wait) {
            *Link = Wait->Next;
            return;
        }
    }
}

} // namespace

void ExpectAnswer(PPENDINGWAIT Wait, int SequenceNumber)
{
    Wait->ByOpCode = 0;
    Wait->SequenceNumber = SequenceNumber;
    Wait->OpCode = 0;
    Wait->Next = nullptr;
    if (SequenceNumber != -1)
        LinkExpectation(Wait);
}

void ExpectAnswerByOpCode(PPENDINGWAIT Wait, uint32_t OpCode)
{
    Wait->ByOpCode = 1;
    Wait->SequenceNumber = -1;
    Wait->OpCode = OpCode;
    Wait->Next = nullptr;
    LinkExpectation(Wait);
}

// The wait of every request: try, then sleep on the parked signal for at most 10 ms, until
// the packet is taken or the service is ending. The try and the sleep happen under one hold
// of the mutex, so a packet parked in between is never missed.
void WaitForExpectedAnswer(PPENDINGWAIT Wait, PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    if (!Wait->ByOpCode)
        memset(Header, 0, sizeof *Header);
    if (!Wait->ByOpCode && Wait->SequenceNumber == -1)
        return;
    pthread_mutex_lock(&PendingIOMutex);
    for (;;) {
        if (Parser_Exiting == 1)
            break;
        int Result = Wait->ByOpCode ? DequeueByOpCodeLocked(Header, Payload, Wait->OpCode)
                                    : DequeueLocked(Header, Payload, Wait->SequenceNumber);
        if (Result == 0)
            break;
        WaitParked();
    }
    UnlinkExpectation(Wait);
    pthread_mutex_unlock(&PendingIOMutex);
}

void WaitForAnswer(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber)
{
    PENDINGWAIT Wait;
    ExpectAnswer(&Wait, SequenceNumber);
    WaitForExpectedAnswer(&Wait, Header, Payload);
}

void WaitForAnswerByOpCode(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode)
{
    PENDINGWAIT Wait;
    ExpectAnswerByOpCode(&Wait, OpCode);
    WaitForExpectedAnswer(&Wait, Header, Payload);
}

int PendingIOLength(void)
{
    pthread_mutex_lock(&PendingIOMutex);
    int Count = PendingIOCount;
    pthread_mutex_unlock(&PendingIOMutex);
    return Count;
}
