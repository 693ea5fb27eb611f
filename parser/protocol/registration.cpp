// registration.cpp - registration of the seven parser opcodes with the manager, the
// handling of the manager's answers (a refusal clears the matching Provides_ flag of
// ParserQueue) and the deregistration at shut-down. Writes the Provides_ flags of ParserQueue
// and LocalSequenceNumber (each registration's number).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "runflags.h"
#include "service.h"

namespace {

const uint32_t RegisteredOpCodes[] = {
    RZP_PARSER_OPEN_INPUT_FILE,        RZP_PARSER_PARSE_INPUT_FILE,
    RZP_PARSER_CLOSE_INPUT_FILE,       RZP_PARSER_RETURN_NUMBER_OF_ITEMS,
    RZP_PARSER_RETURN_FIRST_ITEM,      RZP_PARSER_RETURN_NEXT_ITEM,
    RZP_PARSER_RETURN_LAST_ITEM,
};

#define REGISTRATION_NAME_SIZE 256 /* a name echoed back: our longest is 20 characters */

void FillRegistrationRecord(PRZP_REGISTER_PACKET Record)
{
    Record->opCodeVarType = RZP_TYPE_ULONG;
    Record->opCodeVarLength = 4;
    Record->OverrideExistingVarType = RZP_TYPE_BOOL;
    Record->OverrideExistingVarLength = 1;
    Record->OverrideExisting = 1;
    Record->AllowOverrideVarType = RZP_TYPE_BOOL;
    Record->AllowOverrideVarLength = 1;
    Record->AllowOverride = 1;
    Record->SubServiceNameVarType = RZP_TYPE_STRING;
    Record->SubServiceName = ParserQueue->SubServiceName;
    Record->SubServiceNameVarLength = strlen(Record->SubServiceName) + 1;
    Record->SendConnectionNameVarType = RZP_TYPE_STRING;
    Record->SendConnectionName = ParserQueue->WriteConnectionName;
    Record->SendConnectionNameVarLength = strlen(Record->SendConnectionName) + 1;
    Record->ReceiveConnectionNameVarType = RZP_TYPE_STRING;
    Record->ReceiveConnectionName = ParserQueue->ReadConnectionName;
    Record->ReceiveConnectionNameVarLength = strlen(Record->ReceiveConnectionName) + 1;
}

int EncodeRegistrationRecord(unsigned char *Payload, const RZP_REGISTER_PACKET *R)
{
    return Tokenize(Payload, RZP_REGISTER_FORMAT, R->opCodeVarType, R->opCodeVarLength, R->opCode,
                    R->OverrideExistingVarType, R->OverrideExistingVarLength, R->OverrideExisting,
                    R->AllowOverrideVarType, R->AllowOverrideVarLength, R->AllowOverride,
                    R->SubServiceNameVarType, R->SubServiceNameVarLength, R->SubServiceName,
                    R->SendConnectionNameVarType, R->SendConnectionNameVarLength,
                    R->SendConnectionName, R->ReceiveConnectionNameVarType,
                    R->ReceiveConnectionNameVarLength, R->ReceiveConnectionName);
}

// Decodes the manager's answer item by item inside DataLength. Names longer than their
// 256-byte areas are cut: they are only shown. Returns 0, or -1 for a payload that does not
// hold the six items.
int DecodeRegistrationAnswer(const RZP_HEADER_PACKET *Header, const unsigned char *Payload,
                             PRZP_REGISTER_PACKET R)
{
    PAYLOADREADER Reader = {Payload, Header->DataLength, 0, 0};
    R->opCodeVarType = ReadPayloadU32(&Reader);
    R->opCodeVarLength = ReadPayloadU32(&Reader);
    R->opCode = ReadPayloadU32(&Reader);
    R->OverrideExistingVarType = ReadPayloadU32(&Reader);
    R->OverrideExistingVarLength = ReadPayloadU32(&Reader);
    R->OverrideExisting = ReadPayloadByte(&Reader);
    R->AllowOverrideVarType = ReadPayloadU32(&Reader);
    R->AllowOverrideVarLength = ReadPayloadU32(&Reader);
    R->AllowOverride = ReadPayloadByte(&Reader);
    R->SubServiceNameVarType = ReadPayloadU32(&Reader);
    R->SubServiceNameVarLength = ReadPayloadU32(&Reader);
    ReadPayloadString(&Reader, R->SubServiceName, REGISTRATION_NAME_SIZE);
    R->SendConnectionNameVarType = ReadPayloadU32(&Reader);
    R->SendConnectionNameVarLength = ReadPayloadU32(&Reader);
    ReadPayloadString(&Reader, R->SendConnectionName, REGISTRATION_NAME_SIZE);
    R->ReceiveConnectionNameVarType = ReadPayloadU32(&Reader);
    R->ReceiveConnectionNameVarLength = ReadPayloadU32(&Reader);
    ReadPayloadString(&Reader, R->ReceiveConnectionName, REGISTRATION_NAME_SIZE);
    return Reader.Failed ? -1 : 0;
}

const char *TruthText(BOOLEAN Value)
{
    return Value == 1 ? "TRUE" : "FALSE";
}

void DumpRegistrationAnswer(const RZP_REGISTER_PACKET *R)
{
    printf("Data received by Parser Sub-Service is...\n");
    printf("opCodeVarType is %d\n", R->opCodeVarType);
    printf("opCodeVarLength is %d\n", R->opCodeVarLength);
    printf("opCode is %d\n", R->opCode);
    printf("OverrideExistingVarType is %d\n", R->OverrideExistingVarType);
    printf("OverrideExistingVarLength is %d\n", R->OverrideExistingVarLength);
    printf("OverrideExisting is %s\n", TruthText(R->OverrideExisting));
    printf("AllowOverrideVarType is %d\n", R->AllowOverrideVarType);
    printf("AllowOverrideVarLength is %d\n", R->AllowOverrideVarLength);
    printf("AllowOverride is %s\n", TruthText(R->AllowOverride));
    printf("SubServiceNameVarType is %d\n", R->SubServiceNameVarType);
    printf("SubServiceNameVarLength is %d\n", R->SubServiceNameVarLength);
    printf("SubServiceName is %s\n", R->SubServiceName);
    printf("SendConnectionNameVarType is %d\n", R->SendConnectionNameVarType);
    printf("SendConnectionNameVarLength is %d\n", R->SendConnectionNameVarLength);
    printf("SendConnectionName is %s\n", R->SendConnectionName);
    printf("ReceiveConnectionNameVarType is %d\n", R->ReceiveConnectionNameVarType);
    printf("ReceiveConnectionNameVarLength is %d\n", R->ReceiveConnectionNameVarLength);
    printf("ReceiveConnectionName is %s\n", R->ReceiveConnectionName);
}

// The Provides_ flag of a registered opcode, or NULL for any other opcode.
BOOLEAN *ProvidesFlag(uint32_t OpCode)
{
    switch (OpCode) {
    case RZP_PARSER_OPEN_INPUT_FILE: return &ParserQueue->Provides_RZPParserOpenInputFile;
    case RZP_PARSER_PARSE_INPUT_FILE: return &ParserQueue->Provides_RZPParserParseInputFile;
    case RZP_PARSER_CLOSE_INPUT_FILE: return &ParserQueue->Provides_RZPParserCloseInputFile;
    case RZP_PARSER_RETURN_NUMBER_OF_ITEMS:
        return &ParserQueue->Provides_RZPParserReturnNumberOfItems;
    case RZP_PARSER_RETURN_FIRST_ITEM: return &ParserQueue->Provides_RZPParserReturnFirstItem;
    case RZP_PARSER_RETURN_NEXT_ITEM: return &ParserQueue->Provides_RZPParserReturnNextItem;
    case RZP_PARSER_RETURN_LAST_ITEM: return &ParserQueue->Provides_RZPParserReturnLastItem;
    default: return nullptr;
    }
}

} // namespace

int RegisterWithRZPManager(void)
{
    RZP_HEADER_PACKET Header;
    RZP_REGISTER_PACKET Record;
    unsigned char *Payload = static_cast<unsigned char *>(calloc(RZP_MAX_PAYLOAD, 1));
    if (Payload == nullptr) {
        printf("Unable to allocate memory for the registration.\n");
        return 0;
    }
    FillRegistrationRecord(&Record);
    DebugPrint("Sending data to register the parser.\n");
    for (uint32_t OpCode : RegisteredOpCodes) {
        Record.opCode = OpCode;
        FillRequestHeader(&Header, RZP_REGISTER, ParserQueue->RegistrationConnectionHandle,
                          EncodeRegistrationRecord(Payload, &Record));
        LockConnection(ParserQueue->RegistrationConnectionHandle, &RegistrationConnectionFileLock);
        SendPacketLocked(&Header, Payload);
        UnlockConnection(ParserQueue->RegistrationConnectionHandle,
                         &RegistrationConnectionFileLock);
    }
    DebugPrint("Send registration data complete.\n");
    free(Payload);
    return 0;
}

int HandlePostRegistration(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    char Names[3][REGISTRATION_NAME_SIZE];
    RZP_REGISTER_PACKET Record;
    memset(&Record, 0, sizeof Record);
    Record.SubServiceName = Names[0];
    Record.SendConnectionName = Names[1];
    Record.ReceiveConnectionName = Names[2];
    if (DecodeRegistrationAnswer(Header, Payload, &Record) != 0) {
        printf("PARSER: Found a registration answer that does not hold the registration "
               "record (Data Length %d); it is ignored.\n",
               Header->DataLength);
        return 0;
    }
    if (Debugging()) { // one block on the console, as a packet dump
        flockfile(stdout);
        DumpRegistrationAnswer(&Record);
        funlockfile(stdout);
    }
    BOOLEAN *Flag = ProvidesFlag(Record.opCode);
    if (Flag == nullptr)
        printf("PARSER: Found an unknown opCode type of %d\n", Record.opCode);
    else if (Header->ReturnCode != 0)
        *Flag = 0;
    return 0;
}

int DeRegisterWithRZPManager(void)
{
    RZP_HEADER_PACKET Header;
    if (ParserQueue == nullptr)
        return 0;
    FillRequestHeader(&Header, RZP_SHUTDOWN, ParserQueue->RegistrationConnectionHandle, 0);
    SendPacketLocked(&Header, nullptr);
    return 0;
}
