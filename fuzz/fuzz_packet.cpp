// fuzz_packet.cpp - libFuzzer target: one received packet as the listener hands it over (a
// header and a 16384-byte payload area), in debug mode, through HandleIncomingPacket for the
// opcodes that the listener answers itself or parks (registration answer, shut-down, debug
// switches, run-flag update, the parked answers and requests, which are then taken back off
// the list), and through the receive-side dump alone for the opcodes that would start a
// worker or be answered as not supported. So the dump and every payload reader run without a
// connection; a send aborts the run (nothing may be sent) and no thread is started.
// Input: byte 0 picks the opcode (below the table's size: that entry; else the header's own),
// bit 7 of byte 1 makes DataLength the payload's size; then 7 header fields of 4 bytes
// (SrcHandle, DestHandle, the two sequence numbers, opCode, ReturnCode, DataLength); the rest
// is the payload. Writes DEBUG_FLAG, Parser_Exiting, ParserQueue and the run flags.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "harness.h"
#include "protocol.h"
#include "runflags.h"
#include "service.h"

static const uint32_t DispatchedOpCodes[] = {
    RZP_REGISTER,          RZP_SHUTDOWN,       RZP_ENABLE_DEBUG,       RZP_DISABLE_DEBUG,
    RZP_UPDATE_COMMAND_LINE_PARMS, RZP_IS_OPCODE_SUPPORTED, RZP_OUTPUT_DATA, RZP_LOG_DATA,
    RZP_PROMPT_FOR_NUMBER, RZP_PROMPT_FOR_HEX, RZP_PROMPT_FOR_CHARACTER, RZP_GET_LOG_FILE_NAME,
    RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA};
static const size_t DispatchedCount = sizeof DispatchedOpCodes / sizeof DispatchedOpCodes[0];
static const uint32_t DumpedOpCodes[] = {
    RZP_PARSER_OPEN_INPUT_FILE,        RZP_PARSER_PARSE_INPUT_FILE,  RZP_PARSER_CLOSE_INPUT_FILE,
    RZP_PARSER_RETURN_NUMBER_OF_ITEMS, RZP_PARSER_RETURN_FIRST_ITEM, RZP_PARSER_RETURN_NEXT_ITEM,
    RZP_PARSER_RETURN_LAST_ITEM};
static const size_t HeaderBytes = 2 + 7 * 4;

static unsigned char *Payload;

static int SendForbidden(PRZP_HEADER_PACKET, unsigned char *, const char *)
{
    abort(); // the dispatch chosen here never sends
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    HarnessSilence();
    if (BindTransportLibrary() != 0) // the codec
        abort();
    SendDataRaw = SendForbidden;
    ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
    Payload = static_cast<unsigned char *>(malloc(RZP_MAX_PAYLOAD));
    if (ParserQueue == nullptr || Payload == nullptr)
        abort();
    return 0;
}

static int32_t Field(const uint8_t *Data, int Index)
{
    uint32_t Value;
    memcpy(&Value, Data + 2 + 4 * Index, 4);
    return static_cast<int32_t>(Value);
}

static bool Dispatched(uint32_t OpCode)
{
    for (uint32_t Known : DispatchedOpCodes)
        if (Known == OpCode)
            return true;
    return false;
}

// Takes back whatever the dispatch parked, so that no input leaves anything behind.
static void DrainParked(void)
{
    RZP_HEADER_PACKET Taken;
    static unsigned char Area[RZP_MAX_PAYLOAD];
    for (uint32_t OpCode : DispatchedOpCodes)
        while (DequeueByOpCode(&Taken, Area, OpCode) == 0) {
        }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    if (Size < HeaderBytes)
        return 0;
    RZP_HEADER_PACKET Header = {Field(Data, 0), Field(Data, 1), Field(Data, 2), Field(Data, 3),
                                static_cast<uint32_t>(Field(Data, 4)), Field(Data, 5),
                                Field(Data, 6), 0};
    size_t Carried = Size - HeaderBytes < RZP_MAX_PAYLOAD ? Size - HeaderBytes : RZP_MAX_PAYLOAD;
    if (Data[0] < DispatchedCount + 7)
        Header.opCode = Data[0] < DispatchedCount ? DispatchedOpCodes[Data[0]]
                                                  : DumpedOpCodes[Data[0] - DispatchedCount];
    if (Data[1] & 0x80)
        Header.DataLength = static_cast<int32_t>(Carried);
    memset(Payload, 0, RZP_MAX_PAYLOAD);
    memcpy(Payload, Data + HeaderBytes, Carried);
    DEBUG_FLAG = 1;
    Parser_Exiting = 0;
    HarnessGuard([&] {
        if (Dispatched(Header.opCode))
            HandleIncomingPacket(&Header, Payload);
        else if (Header.DataLength >= 0 && Header.DataLength <= RZP_MAX_PAYLOAD)
            DumpPacket(&Header, Payload, 1);
    });
    DrainParked();
    return 0;
}
