// requests.cpp - the requests that the sub-service puts to the manager: screen and log text,
// the log file's name, the support query that precedes the optional requests, the three
// prompts and the errata question. Each is a send under SendDataMutex followed by a wait for
// the answer, which the listener parks. They run on worker threads, never on the listener.
// Owns SupportQueryLimit; writes LocalSequenceNumber (each request's number), Parser_Exiting (a
// support query that reaches its limit) and, through the waits, the pending-I/O list.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "runflags.h"
#include "service.h"
#include "support.h"

int SupportQueryLimit = SUPPORT_QUERY_LIMIT;

namespace {

// A request to the manager: sent on the write connection.
void BuildRequestHeader(PRZP_HEADER_PACKET Header, uint32_t OpCode, int DataLength)
{
    FillRequestHeader(Header, OpCode, ParserQueue->WriteConnectionHandle, DataLength);
}

// Sends one request and waits for its answer, expected from before the send; Header holds the
// answer's header afterwards (zeroed when the wait ended because the service is ending), Answer
// (payload-sized, or nullptr when only the return code is read) its payload.
void RoundTrip(PRZP_HEADER_PACKET Header, unsigned char *Payload, unsigned char *Answer)
{
    PENDINGWAIT Wait;
    ExpectAnswer(&Wait, Header->LocalSequenceNumber);
    SendPacketLocked(Header, Header->DataLength > 0 ? Payload : nullptr);
    WaitForExpectedAnswer(&Wait, Header, Answer);
}

// A zero-filled area of Size bytes for a request or its answer, or nullptr (after a console
// line) when memory has run out; the request is then not sent.
unsigned char *RequestArea(size_t Size)
{
    unsigned char *Buffer = static_cast<unsigned char *>(calloc(1, Size));
    if (Buffer == nullptr)
        printf("Unable to allocate memory for a request to the manager.\n");
    return Buffer;
}

unsigned char *PayloadBuffer(void)
{
    return RequestArea(RZP_MAX_PAYLOAD);
}

// A request whose payload the caller encoded: returns the answer's ReturnCode, the one thing
// read of the answer.
int SendRequest(uint32_t OpCode, unsigned char *Payload, int PayloadLength)
{
    RZP_HEADER_PACKET Header;
    BuildRequestHeader(&Header, OpCode, PayloadLength);
    RoundTrip(&Header, Payload, nullptr);
    return Header.ReturnCode;
}

// The room of a STRING item: its type and declared length (two 32-bit words) and the NUL.
const size_t MessageItemRoom = 9;

// The length of Text sent as a message: text that does not fit a payload is cut, as it is
// display text.
size_t MessageLength(const char *Text)
{
    return Text == nullptr ? 0 : strnlen(Text, RZP_MAX_PAYLOAD - MessageItemRoom);
}

// One STRING item holding the Length bytes of Text (declared length with its NUL) in Payload,
// which has Length + MessageItemRoom bytes.
int EncodeMessage(unsigned char *Payload, const char *Text, size_t Length)
{
    int Offset = Tokenize(Payload, "%U%U", RZP_TYPE_STRING, static_cast<uint32_t>(Length + 1));
    if (Length > 0)
        memcpy(Payload + Offset, Text, Length);
    Payload[Offset + Length] = '\0';
    return Offset + static_cast<int>(Length) + 1;
}

// Sends Text as the one STRING item of a screen or log request (Send), in a payload of the
// item's own size.
void SendText(int (*Send)(unsigned char *, int), const char *Text)
{
    size_t Length = MessageLength(Text);
    unsigned char *Payload = RequestArea(Length + MessageItemRoom);
    if (Payload == nullptr)
        return;
    Send(Payload, EncodeMessage(Payload, Text, Length));
    free(Payload);
}

} // namespace

int SendLogDataPacket(unsigned char *Payload, int PayloadLength)
{
    return SendRequest(RZP_LOG_DATA, Payload, PayloadLength);
}

int SendOutputDataPacket(unsigned char *Payload, int PayloadLength)
{
    return SendRequest(RZP_OUTPUT_DATA, Payload, PayloadLength);
}

void SendScreenAndLog(const char *Coloured, const char *Plain)
{
    SendText(SendOutputDataPacket,
             (NO_USER_INTERFACE == 1 && Coloured != nullptr) ? Coloured : Plain);
    SendText(SendLogDataPacket, Plain);
}

void SendLogOnly(const char *Plain)
{
    SendText(SendLogDataPacket, Plain);
}

int QueryOpcodeSupport(uint32_t OpCode, const char *DebugName)
{
    RZP_HEADER_PACKET Header;
    unsigned char Query[16];
    int Result = RZP_OPCODE_NOT_SUPPORTED;
    int Count = 0;
    while (Parser_Exiting != 1 && Result == RZP_OPCODE_NOT_SUPPORTED && Count < SupportQueryLimit) {
        int Length = Tokenize(Query, "%U%U%U", RZP_TYPE_ULONG, 4u, OpCode);
        BuildRequestHeader(&Header, RZP_IS_OPCODE_SUPPORTED, Length);
        RoundTrip(&Header, Query, nullptr); // only its return code is read
        Count++;
        Result = Header.ReturnCode;
        if (Debugging() && DebugName != nullptr)
            printf("%s %s supported.\n", DebugName,
                   Result == RZP_OPCODE_SUPPORTED ? "is" : "is not");
    }
    if (Count >= SupportQueryLimit) {
        Parser_Exiting = 1;
        return RZP_OPCODE_NOT_SUPPORTED;
    }
    return 0;
}

namespace {

// The log file name request and its answer's one STRING item, read through Answer and Text
// (payload-sized buffers) into Name.
int FetchLogFileName(unsigned char *Answer, char *Text, char *Name, size_t NameSize,
                     uint32_t *NameLength)
{
    RZP_HEADER_PACKET Header;
    BuildRequestHeader(&Header, RZP_GET_LOG_FILE_NAME, 0);
    RoundTrip(&Header, nullptr, Answer);
    if (Header.ReturnCode != 0)
        return Header.ReturnCode;
    // A payload that does not hold a whole item leaves the caller's areas untouched.
    PAYLOADREADER Reader = {Answer, Header.DataLength, 0, 0};
    ReadPayloadU32(&Reader);
    uint32_t Length = ReadPayloadU32(&Reader);
    ReadPayloadString(&Reader, Text, RZP_MAX_PAYLOAD);
    if (Reader.Failed)
        return Header.ReturnCode;
    *NameLength = Length;
    CopyBounded(Name, NameSize, Text);
    return Header.ReturnCode;
}

} // namespace

int SendGetLogFileNamePacket(char *Name, size_t NameSize, uint32_t *NameLength)
{
    if (QueryOpcodeSupport(RZP_GET_LOG_FILE_NAME, nullptr) != 0)
        return RZP_OPCODE_NOT_SUPPORTED;
    unsigned char *Answer = PayloadBuffer();
    char *Text = reinterpret_cast<char *>(PayloadBuffer());
    int Result = RZP_OUT_OF_MEMORY;
    if (Answer != nullptr && Text != nullptr)
        Result = FetchLogFileName(Answer, Text, Name, NameSize, NameLength);
    free(Answer);
    free(Text);
    return Result;
}

int SendIsComponentSupportedByThisErrataPacket(unsigned char *Buffer, int BufferLength)
{
    if (QueryOpcodeSupport(RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA,
                           "RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA") != 0)
        return RZP_OPCODE_NOT_SUPPORTED;
    int Result = SendRequest(RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA, Buffer, BufferLength);
    DebugPrint("The return code from the SendIsComponentSupportByThisErrataPacket is %d\n", Result);
    return Result;
}
