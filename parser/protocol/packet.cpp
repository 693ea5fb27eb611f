// packet.cpp - the debug dump of a packet, printed by the receive and the send path, and the
// bounded readers of a received payload (ReadPayloadU32, ReadPayloadByte, ReadPayloadString).
// Both walk the payload item by item and check every item's extent against DataLength before
// they decode it, so a lying length never reads or writes past a buffer. Writes no globals.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "runflags.h"
#include "service.h"
#include "support.h"

namespace {

void DumpHeader(const RZP_HEADER_PACKET *Header, int Received)
{
    if (Received) {
        printf("\nParser Received SrcHandle is %d\n", Header->SrcHandle);
        printf("Parser Received DestHandle is %d\n", Header->DestHandle);
        printf("Parser Received Local SequenceNumber is %d\n", Header->LocalSequenceNumber);
        printf("Parser Received Remote Sequence Number is %d\n", Header->RemoteSequenceNumber);
        printf("Parser Received HIP opCode is %lu\n", static_cast<unsigned long>(Header->opCode));
        printf("Parser Received Return Code is %d\n", Header->ReturnCode);
        printf("Parser Received Data Length is %d\n\n", Header->DataLength);
    } else {
        printf("\nParser sending SrcHandle is %d\n", Header->SrcHandle);
        printf("Parser sending DestHandle %d\n", Header->DestHandle);
        printf("Parser sending LocalSequenceNumber is %d\n", Header->LocalSequenceNumber);
        printf("Parser sending RemoteSequenceNumber is %d\n", Header->RemoteSequenceNumber);
        printf("Parser sending opCode is %d\n", static_cast<int>(Header->opCode));
        printf("Parser sending Return Code is %d\n", Header->ReturnCode);
        printf("Parser sending Data Length is %d\n\n", Header->DataLength);
    }
}

// Ends the process from the dump; the send side first releases the send lock.
[[noreturn]] void DumpFatal(int Received)
{
    if (!Received)
        pthread_mutex_unlock(&SendDataMutex);
    fflush(stdout);
    exit(-1);
}

const char *const SubTypeNames[] = {
    "STRING",
    "SUBTYPE_LIBRARY_FILE_PRESENCE",
    "SUBTYPE_EXECUTE_COMMAND",
    "SUBTYPE_FILE_PRESENCE",
    "SUBTYPE_RUN_SCRIPT_FILE",
    "SUBTYPE_DIRECTORY_PRESENCE",
    "SUBTYPE_MINIMUM_KERNEL_VERSION",
    "SUBTYPE_MAXIMUM_KERNEL_VERSION",
    "SUBTYPE_PCI_DEVICE_PRESENT",
    "SUBTYPE_ENVIRONMENT_VARIABLE",
    "SUBTYPE_OS_VERSION_SUPPORTED",
    "SUBTYPE_PROGRAM_RUNNING",
};

// The walk over one payload. Fits() says whether Need more bytes lie inside DataLength.
struct DumpWalk {
    unsigned char *Payload;
    int Length;
    int Offset;
    bool Fits(int Need) const { return Need <= Length - Offset; }
};

// Prints why the dump cannot go on (an item runs past DataLength) and returns false.
bool Truncated(const DumpWalk &Walk)
{
    printf("BO %d item runs past Data Length %d---dump ended\n", Walk.Offset, Walk.Length);
    return false;
}

bool DumpScalar(DumpWalk *Walk, uint32_t Type)
{
    uint32_t Length = 0;
    if (!Walk->Fits(Type == RZP_TYPE_ULONG || Type == RZP_TYPE_SLONG ? 8 : 5))
        return Truncated(*Walk);
    if (Type == RZP_TYPE_BOOL) {
        unsigned char Value = 0;
        Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U%B", Walk->Offset, &Length, &Value);
        printf("BO %d BOOL with Length %d and Value of %s\n", Walk->Offset, Length,
               Value == 1 ? "TRUE" : "FALSE");
    } else if (Type == RZP_TYPE_USHORT) {
        unsigned char Value = 0;
        Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U%X", Walk->Offset, &Length, &Value);
        printf("BO %d USHORT with Length %d and Value of %x\n", Walk->Offset, Length, Value);
    } else if (Type == RZP_TYPE_SCHAR) {
        signed char Value = 0;
        Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U%C", Walk->Offset, &Length, &Value);
        printf("BO %d SCHAR with Length %d and Value of %c\n", Walk->Offset, Length, Value);
    } else if (Type == RZP_TYPE_ULONG) {
        uint32_t Value = 0;
        Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U%U", Walk->Offset, &Length, &Value);
        printf("BO %d ULONG with Length %d and Value of %d\n", Walk->Offset, Length, Value);
    } else {
        int32_t Value = 0;
        Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U%L", Walk->Offset, &Length, &Value);
        printf("BO %d SLONG with Length %d and Value of %d\n", Walk->Offset, Length, Value);
    }
    return true;
}

// A string item: its length, then the text. The text's real extent (up to its NUL, inside
// DataLength) sizes the buffer, whatever length the item declares.
bool DumpString(DumpWalk *Walk, uint32_t Type)
{
    uint32_t Length = 0;
    if (!Walk->Fits(4))
        return Truncated(*Walk);
    Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U", Walk->Offset, &Length);
    printf("BO %d %s with Length %d and Value of ", Walk->Offset,
           SubTypeNames[Type == RZP_TYPE_STRING ? 0 : Type], Length);
    const void *End = memchr(Walk->Payload + Walk->Offset, '\0', Walk->Length - Walk->Offset);
    if (End == nullptr) {
        printf("\n");
        return Truncated(*Walk);
    }
    size_t Extent = static_cast<const unsigned char *>(End) - (Walk->Payload + Walk->Offset);
    char *Text = static_cast<char *>(calloc(Extent + 1, 1));
    if (Text == nullptr) {
        printf("\n");
        return false;
    }
    Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%S", Walk->Offset, Text);
    printf("%s\n", Text);
    free(Text);
    return true;
}

bool DumpStructure(DumpWalk *Walk, uint32_t Type)
{
    static const char *const Names[] = {"Prereq", "Postreq", "Preconfig", "Postconfig"};
    uint32_t Length = 0;
    if (!Walk->Fits(4))
        return Truncated(*Walk);
    Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U", Walk->Offset, &Length);
    if (Type == RZP_TERMINATE_LIST)
        printf("BO %d TerminateList Struct value found\n", Walk->Offset);
    else
        printf("BO %d %s structure found with length %d\n", Walk->Offset,
               Names[Type - RZP_STRUCT_PREREQ], Length);
    return true;
}

// Dumps the item at the walk's offset; false when the dump cannot go on.
bool DumpItem(DumpWalk *Walk, int Received)
{
    uint32_t Type = 0;
    if (!Walk->Fits(4))
        return Truncated(*Walk);
    Walk->Offset = DeTokenizeWithOffset(Walk->Payload, "%U", Walk->Offset, &Type);
    switch (Type) {
    case RZP_TYPE_USHORT_ILLEGAL:
        printf("BO %d USHORT found---ERROR ILLEGAL CHARACTER\n", Walk->Offset);
        return true;
    case RZP_TYPE_SSHORT_ILLEGAL:
        printf("BO %d SSHORT found---ERROR ILLEGAL CHARACTER\n", Walk->Offset);
        return true;
    case RZP_TYPE_BOOL:
    case RZP_TYPE_USHORT:
    case RZP_TYPE_ULONG:
    case RZP_TYPE_SCHAR:
    case RZP_TYPE_SLONG:
        return DumpScalar(Walk, Type);
    case RZP_STRUCT_PREREQ:
    case RZP_STRUCT_POSTREQ:
    case RZP_STRUCT_PRECONFIG:
    case RZP_STRUCT_POSTCONFIG:
    case RZP_TERMINATE_LIST:
        return DumpStructure(Walk, Type);
    default:
        if (Type == RZP_TYPE_STRING || (Type >= SUBTYPE_LIBRARY_FILE_PRESENCE &&
                                        Type <= SUBTYPE_PROGRAM_RUNNING))
            return DumpString(Walk, Type);
        printf("Unknown Variable Type found of %d\n", static_cast<int>(Type));
        DumpFatal(Received);
    }
}

} // namespace

namespace {

void DumpPacketLines(const RZP_HEADER_PACKET *Header, const unsigned char *Payload, int Received)
{
    DumpHeader(Header, Received);
    if (Header->DataLength == 0)
        return;
    if (Payload == nullptr) {
        printf("CRITCAL ERROR---NULL BUFFER found with DataLength in Header set to %d\n",
               Header->DataLength);
        DumpFatal(Received);
    }
    int Length = Header->DataLength;
    if (Length > RZP_MAX_PAYLOAD || Length < 0)
        Length = Length < 0 ? 0 : RZP_MAX_PAYLOAD;
    DumpWalk Walk = {const_cast<unsigned char *>(Payload), Length, 0};
    while (Walk.Offset < Walk.Length && DumpItem(&Walk, Received)) {
    }
}

} // namespace

// One dump is one block on the console: stdout's own lock is held across its lines, so the
// lines of another thread do not fall between them.
void DumpPacket(const RZP_HEADER_PACKET *Header, const unsigned char *Payload, int Received)
{
    flockfile(stdout);
    DumpPacketLines(Header, Payload, Received);
    funlockfile(stdout);
}

uint32_t ReadPayloadU32(PAYLOADREADER *Reader)
{
    uint32_t Value = 0;
    if (Reader->Failed || Reader->Length - Reader->Offset < 4) {
        Reader->Failed = 1;
        return 0;
    }
    Reader->Offset = DeTokenizeWithOffset(const_cast<unsigned char *>(Reader->Payload), "%U",
                                          Reader->Offset, &Value);
    return Value;
}

unsigned char ReadPayloadByte(PAYLOADREADER *Reader)
{
    if (Reader->Failed || Reader->Length - Reader->Offset < 1) {
        Reader->Failed = 1;
        return 0;
    }
    return Reader->Payload[Reader->Offset++];
}

int ReadPayloadString(PAYLOADREADER *Reader, char *Dest, size_t DestSize)
{
    if (DestSize > 0)
        Dest[0] = '\0';
    if (Reader->Failed || Reader->Offset >= Reader->Length) {
        Reader->Failed = 1;
        return 0;
    }
    const unsigned char *Start = Reader->Payload + Reader->Offset;
    const void *End = memchr(Start, '\0', Reader->Length - Reader->Offset);
    if (End == nullptr) {
        Reader->Failed = 1;
        return 0;
    }
    Reader->Offset += static_cast<int>(static_cast<const unsigned char *>(End) - Start) + 1;
    return CopyBounded(Dest, DestSize, reinterpret_cast<const char *>(Start));
}
