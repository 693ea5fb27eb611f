// workers.cpp - the table of the parser workers by opcode, and the shape every worker thread
// shares: its request and answer areas, taking the request back from the pending-I/O list,
// the parser state lock around its work, answering in the request's header and ending. Owns
// ParserStateMutex. Writes ThreadCount (each worker uncounts itself) and LocalSequenceNumber
// (answers).
//
// Lock order, outermost first: ParserStateMutex (a worker's whole work on the shared state,
// waits for the manager's answers included), SendDataMutex (one send), the write
// connection's lock. PendingIOMutex is taken alone, inside Enqueue and the dequeues. The
// listener never takes ParserStateMutex, so the answers a parse waits for always arrive.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "operations.h"
#include "protocol.h"
#include "runflags.h"
#include "service.h"

// BundleList, ComponentList, InstallPacketList, NumberOfComponentsInBundle, the XML tree and
// CurrentlyInstalledOS belong to the worker that holds this lock. A manager is meant to wait
// for each answer before its next request; one that does not must still find every request
// answered once and the records whole, so the workers take turns here.
pthread_mutex_t ParserStateMutex = PTHREAD_MUTEX_INITIALIZER;

static const PARSERWORKER ParserWorkers[] = {
    {RZP_PARSER_OPEN_INPUT_FILE, "Parser found RZP_PARSER_OPEN_INPUT_FILE.\n",
     HandleParserOpenInputFilePacket},
    {RZP_PARSER_PARSE_INPUT_FILE, "Parser found RZP_PARSER_PARSE_INPUT_FILE.\n",
     HandleParserParseInputFilePacket},
    {RZP_PARSER_CLOSE_INPUT_FILE, "Parser found RZP_PARSER_CLOSE_INPUT_FILE.\n",
     HandleParserCloseInputFilePacket},
    {RZP_PARSER_RETURN_NUMBER_OF_ITEMS, "Parser found RZP_PARSER_RETURN_NUMBER_OF_ITEMS.\n",
     HandleParserReturnNumberOfItemsPacket},
    {RZP_PARSER_RETURN_FIRST_ITEM, "Parser found RZP_PARSER_RETURN_FIRST_ITEM.\n",
     HandleParserReturnFirstItemPacket},
    {RZP_PARSER_RETURN_NEXT_ITEM, "Parser found RZP_PARSER_RETURN_NEXT_ITEM.\n",
     HandleParserReturnNextItemPacket},
    {RZP_PARSER_RETURN_LAST_ITEM, "Parser found RZP_PARSER_RETURN_LAST_ITEM.\n",
     HandleParserReturnLastItemPacket},
};

const PARSERWORKER *FindParserWorker(uint32_t OpCode)
{
    for (const PARSERWORKER &Entry : ParserWorkers)
        if (Entry.OpCode == OpCode)
            return &Entry;
    return nullptr;
}

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
    return 0;
}

void SendParserAnswer(PPARSERWORK Work, int ReturnCode, unsigned char *Payload, int DataLength)
{
    PRZP_HEADER_PACKET Header = Work->Header;
    Header->ReturnCode = ReturnCode;
    Header->RemoteSequenceNumber = NextSequenceNumber();
    Header->DestHandle = ParserQueue->WriteConnectionHandle;
    Header->DataLength = DataLength;
    SendPacketLocked(Header, DataLength > 0 ? Payload : nullptr);
}

int RunParserWorker(uint32_t OpCode, const char *OpCodeName, PARSERSTEP Step, int Flags)
{
    PARSERWORK Work = {nullptr, nullptr};
    int Result = BeginParserWork(&Work, OpCode, OpCodeName);
    if (Result == RZP_OPCODE_NOT_SUPPORTED && (Flags & WORK_EXIT_WITHOUT_REQUEST) != 0)
        Parser_Exiting = 1;
    if (Result == 0) {
        if ((Flags & WORK_ON_PARSER_STATE) != 0)
            pthread_mutex_lock(&ParserStateMutex);
        Step(&Work);
        if ((Flags & WORK_ON_PARSER_STATE) != 0)
            pthread_mutex_unlock(&ParserStateMutex);
    }
    EndParserWork(&Work);
    return Result;
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
    UncountThread();
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
