// workers.cpp - the shape every parser worker thread shares: its request and answer areas,
// taking the request back from the pending-I/O list, answering in the request's header and
// ending. Writes ThreadCount (each worker uncounts itself) and LocalSequenceNumber (answers).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "operations.h"
#include "protocol.h"
#include "runflags.h"
#include "service.h"

// The shared lists, the XML tree and the counts pass from one worker to the next without a
// lock: the manager asks for the next operation only after the previous answer arrived. That
// order travels through the connection, where thread analysers cannot see it, so every
// answer is also published here and every worker acquires it after taking its request.
static std::atomic<unsigned> AnswersSent(0);

int BeginParserWork(PPARSERWORK Work, uint32_t OpCode, const char *OpCodeName)
{
    Work->Header = static_cast<PRZP_HEADER_PACKET>(calloc(1, sizeof(RZP_HEADER_PACKET)));
    Work->Buffer = static_cast<unsigned char *>(calloc(1, RZP_MAX_PAYLOAD));
    if (Work->Header == nullptr || Work->Buffer == nullptr) {
        printf("Parser worker for opCode %s could not allocate its buffers.\n", OpCodeName);
        return RZP_OUT_OF_MEMORY;
    }
    if (DequeueByOpCode(Work->Header, Work->Buffer, OpCode) == RZP_OPCODE_NOT_SUPPORTED) {
        printf("We received a call to handle a packet for opCode %s, yet no incoming packet was "
               "available.\n",
               OpCodeName);
        return RZP_OPCODE_NOT_SUPPORTED;
    }
    AnswersSent.load(std::memory_order_acquire);
    return 0;
}

void SendParserAnswer(PPARSERWORK Work, int ReturnCode, unsigned char *Payload, int DataLength)
{
    PRZP_HEADER_PACKET Header = Work->Header;
    Header->ReturnCode = ReturnCode;
    Header->RemoteSequenceNumber = NextSequenceNumber();
    Header->DestHandle = ParserQueue->WriteConnectionHandle;
    Header->DataLength = DataLength;
    AnswersSent.fetch_add(1, std::memory_order_release);
    SendPacketLocked(Header, DataLength > 0 ? Payload : nullptr);
}

void SendParserAnswerWithRequest(PPARSERWORK Work, int ReturnCode)
{
    SendParserAnswer(Work, ReturnCode, Work->Buffer, Work->Header->DataLength);
}

void EndParserWork(PPARSERWORK Work)
{
    free(Work->Header);
    free(Work->Buffer);
    Work->Header = nullptr;
    Work->Buffer = nullptr;
    ThreadCount.fetch_sub(1);
}

int EncodeStringItem(unsigned char *Buffer, size_t BufferSize, const char *Text, int CountNul)
{
    size_t Characters = strlen(Text);
    // type and length (4 bytes each), the text and its NUL
    if (Characters + 9 > BufferSize)
        return -1;
    uint32_t Length = static_cast<uint32_t>(Characters) + (CountNul == 1 ? 1 : 0);
    return Tokenize(Buffer, "%U%U%S", static_cast<uint32_t>(RZP_TYPE_STRING), Length, Text);
}
