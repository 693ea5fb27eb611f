// pendingio.cpp - the pending-I/O list: packets parked by the listener for the thread that
// waits for them (answers, by sequence number) or serves them (requests, by opcode).
// Owns PendingIOList and PendingIOMutex. Every access to the list, the copies into the
// caller's areas included, happens under PendingIOMutex. Parking also signals PendingIOParked
// so that a waiter wakes as soon as its packet arrives instead of at its next poll.
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "runflags.h"

PPENDINGIO PendingIOList = nullptr;
pthread_mutex_t PendingIOMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pthread_cond_t PendingIOParked = PTHREAD_COND_INITIALIZER;
const long PollNanoseconds = 10000000; // 10 milliseconds

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

// Copies the node to the caller's areas and unlinks it. Called under PendingIOMutex.
void TakeNode(PPENDINGIO *Link, PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    PPENDINGIO Node = *Link;
    memcpy(Header, Node->Header, sizeof *Header);
    if (Node->Header->DataLength > 0 && Node->Buffer != nullptr)
        memcpy(Payload, Node->Buffer, Node->Header->DataLength);
    else
        Payload[0] = 0;
    *Link = Node->Next;
    FreeNode(Node);
}

// The walk of both dequeue operations: takes the oldest node for which Match holds.
template <typename MatchFn, typename TraceFn>
bool TakeFirst(PRZP_HEADER_PACKET Header, unsigned char *Payload, MatchFn Match, TraceFn Trace)
{
    for (PPENDINGIO *Link = &PendingIOList; *Link != nullptr; Link = &(*Link)->Next) {
        if (Debugging())
            Trace((*Link)->Header);
        if (Match((*Link)->Header)) {
            TakeNode(Link, Header, Payload);
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

} // namespace

int Enqueue(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    pthread_mutex_lock(&PendingIOMutex);
    PPENDINGIO Node = static_cast<PPENDINGIO>(calloc(1, sizeof(PENDINGIO)));
    if (Node != nullptr)
        Node->Header = static_cast<PRZP_HEADER_PACKET>(malloc(sizeof(RZP_HEADER_PACKET)));
    bool HasPayload = Node != nullptr && Header->DataLength > 0;
    if (HasPayload)
        Node->Buffer = static_cast<unsigned char *>(calloc(RZP_MAX_PAYLOAD, 1));
    if (Node == nullptr || Node->Header == nullptr || (HasPayload && Node->Buffer == nullptr)) {
        if (Node != nullptr)
            FreeNode(Node);
        Parser_Exiting = 1;
        pthread_mutex_unlock(&PendingIOMutex);
        return RZP_OUT_OF_MEMORY;
    }
    memcpy(Node->Header, Header, sizeof *Header);
    if (HasPayload)
        memcpy(Node->Buffer, Payload, Header->DataLength);
    PPENDINGIO *Tail = &PendingIOList;
    while (*Tail != nullptr)
        Tail = &(*Tail)->Next;
    *Tail = Node;
    pthread_cond_broadcast(&PendingIOParked);
    pthread_mutex_unlock(&PendingIOMutex);
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

// The wait of every request: try, then sleep on the parked signal for at most 10 ms, until
// the packet is taken or the service is ending. The try and the sleep happen under one hold
// of the mutex, so a packet parked in between is never missed.
void WaitForAnswer(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber)
{
    memset(Header, 0, sizeof *Header);
    if (SequenceNumber == -1)
        return;
    pthread_mutex_lock(&PendingIOMutex);
    while (Parser_Exiting != 1 && DequeueLocked(Header, Payload, SequenceNumber) != 0)
        WaitParked();
    pthread_mutex_unlock(&PendingIOMutex);
}

void WaitForAnswerByOpCode(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode)
{
    pthread_mutex_lock(&PendingIOMutex);
    while (Parser_Exiting != 1 && DequeueByOpCodeLocked(Header, Payload, OpCode) != 0)
        WaitParked();
    pthread_mutex_unlock(&PendingIOMutex);
}
