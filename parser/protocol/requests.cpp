// requests.cpp - the requests that the sub-service puts to the manager: screen and log text,
// the log file's name, the support query that precedes the optional requests, the three
// prompts and the errata question. Each is a send under SendDataMutex followed by a wait for
// the answer, which the listener parks. They run on worker threads, never on the listener.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

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

// Sends one request and waits for its answer; Header holds the answer's header afterwards
// (zeroed when the wait ended because the service is ending), Answer its payload.
void RoundTrip(PRZP_HEADER_PACKET Header, unsigned char *Payload, unsigned char *Answer)
{
    int SequenceNumber = Header->LocalSequenceNumber;
    SendPacketLocked(Header, Header->DataLength > 0 ? Payload : nullptr);
    WaitForAnswer(Header, Answer, SequenceNumber);
}

// A request whose payload the caller encoded: returns the answer's ReturnCode.
int SendTextRequest(uint32_t OpCode, unsigned char *Payload, int PayloadLength)
{
    RZP_HEADER_PACKET Header;
    std::vector<unsigned char> Answer(RZP_MAX_PAYLOAD);
    BuildRequestHeader(&Header, OpCode, PayloadLength);
    RoundTrip(&Header, Payload, Answer.data());
    return Header.ReturnCode;
}

// One STRING item holding Text (declared length with its NUL). Text that does not fit a
// payload is cut: it is display text.
int EncodeMessage(unsigned char *Payload, const char *Text)
{
    char Cut[RZP_MAX_PAYLOAD - 8];
    CopyBounded(Cut, sizeof Cut, Text);
    return Tokenize(Payload, "%U%U%S", RZP_TYPE_STRING, static_cast<uint32_t>(strlen(Cut) + 1), Cut);
}

} // namespace

int SendLogDataPacket(unsigned char *Payload, int PayloadLength)
{
    return SendTextRequest(RZP_LOG_DATA, Payload, PayloadLength);
}

int SendOutputDataPacket(unsigned char *Payload, int PayloadLength)
{
    return SendTextRequest(RZP_OUTPUT_DATA, Payload, PayloadLength);
}

void SendScreenAndLog(const char *Coloured, const char *Plain)
{
    std::vector<unsigned char> Payload(RZP_MAX_PAYLOAD);
    const char *Screen = (NO_USER_INTERFACE == 1 && Coloured != nullptr) ? Coloured : Plain;
    int Length = EncodeMessage(Payload.data(), Screen);
    SendOutputDataPacket(Payload.data(), Length);
    Length = EncodeMessage(Payload.data(), Plain);
    SendLogDataPacket(Payload.data(), Length);
}

void SendLogOnly(const char *Plain)
{
    std::vector<unsigned char> Payload(RZP_MAX_PAYLOAD);
    int Length = EncodeMessage(Payload.data(), Plain);
    SendLogDataPacket(Payload.data(), Length);
}

int QueryOpcodeSupport(uint32_t OpCode, const char *DebugName)
{
    RZP_HEADER_PACKET Header;
    unsigned char Query[16];
    std::vector<unsigned char> Answer(RZP_MAX_PAYLOAD);
    int Result = RZP_OPCODE_NOT_SUPPORTED;
    int Count = 0;
    while (Parser_Exiting != 1 && Result == RZP_OPCODE_NOT_SUPPORTED && Count < SupportQueryLimit) {
        int Length = Tokenize(Query, "%U%U%U", RZP_TYPE_ULONG, 4u, OpCode);
        BuildRequestHeader(&Header, RZP_IS_OPCODE_SUPPORTED, Length);
        RoundTrip(&Header, Query, Answer.data());
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

int SendGetLogFileNamePacket(char *Name, size_t NameSize, uint32_t *NameLength)
{
    if (QueryOpcodeSupport(RZP_GET_LOG_FILE_NAME, nullptr) != 0)
        return RZP_OPCODE_NOT_SUPPORTED;
    RZP_HEADER_PACKET Header;
    std::vector<unsigned char> Answer(RZP_MAX_PAYLOAD);
    BuildRequestHeader(&Header, RZP_GET_LOG_FILE_NAME, 0);
    RoundTrip(&Header, nullptr, Answer.data());
    if (Header.ReturnCode != 0)
        return Header.ReturnCode;
    // A payload that does not hold a whole item leaves the caller's areas untouched.
    PAYLOADREADER Reader = {Answer.data(), Header.DataLength, 0, 0};
    ReadPayloadU32(&Reader);
    uint32_t Length = ReadPayloadU32(&Reader);
    std::vector<char> Text(RZP_MAX_PAYLOAD);
    ReadPayloadString(&Reader, Text.data(), Text.size());
    if (Reader.Failed)
        return Header.ReturnCode;
    *NameLength = Length;
    CopyBounded(Name, NameSize, Text.data());
    return Header.ReturnCode;
}

int SendIsComponentSupportedByThisErrataPacket(unsigned char *Buffer, int BufferLength)
{
    if (QueryOpcodeSupport(RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA,
                           "RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA") != 0)
        return RZP_OPCODE_NOT_SUPPORTED;
    RZP_HEADER_PACKET Header;
    std::vector<unsigned char> Answer(RZP_MAX_PAYLOAD);
    BuildRequestHeader(&Header, RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA, BufferLength);
    RoundTrip(&Header, Buffer, Answer.data());
    DebugPrint("The return code from the SendIsComponentSupportByThisErrataPacket is %d\n",
               Header.ReturnCode);
    return Header.ReturnCode;
}
