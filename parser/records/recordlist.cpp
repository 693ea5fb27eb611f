// recordlist.cpp - the list of accepted install records, in the order the components were
// built, each with its handle; the manager walks it by first, next and last item. Writes
// InstallPacketList, InstallPacketNumber and the list's index (under ParserStateMutex, like
// every user of the list).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "records.h"
#include "support.h"

PINSTALL_PACKET_LIST InstallPacketList = nullptr;
int32_t InstallPacketNumber = 0;
// Every node of the list by its position. Handles are given out one after the other and the
// list is only appended to or freed whole, so a record's position is its handle minus the
// head's: a lookup takes constant time whatever order the manager asks in.
static PINSTALL_PACKET_LIST *InstallRecordIndex = nullptr;
static int32_t InstallRecordCount = 0;
static int32_t InstallRecordCapacity = 0;

#define INSTALL_BUFFER_SLACK 512 /* a node's buffer is the record plus this */
#define INSTALL_INDEX_INITIAL 64 /* the index's first size; it doubles when full */

// Room in the index for one more node: 0, or -111 with the index unchanged.
static int GrowInstallRecordIndex(void)
{
    if (InstallRecordCount < InstallRecordCapacity)
        return 0;
    if (InstallRecordCapacity > INT32_MAX / 2) // handles are 32-bit: no larger index is needed
        return RZP_OUT_OF_MEMORY;
    int32_t Capacity = InstallRecordCapacity == 0 ? INSTALL_INDEX_INITIAL
                                                  : InstallRecordCapacity * 2;
    void *Grown = realloc(InstallRecordIndex,
                          static_cast<size_t>(Capacity) * sizeof(*InstallRecordIndex));
    if (Grown == nullptr)
        return RZP_OUT_OF_MEMORY;
    InstallRecordIndex = static_cast<PINSTALL_PACKET_LIST *>(Grown);
    InstallRecordCapacity = Capacity;
    return 0;
}

int AppendInstallRecord(const char *FileName, const unsigned char *Record, int Length)
{
    if (GrowInstallRecordIndex() != 0)
        return RZP_OUT_OF_MEMORY;
    PINSTALL_PACKET_LIST Node = static_cast<PINSTALL_PACKET_LIST>(calloc(1, sizeof(*Node)));
    unsigned char *Buffer = static_cast<unsigned char *>(
        calloc(static_cast<size_t>(Length) + INSTALL_BUFFER_SLACK, 1));
    char *Name = DuplicateString(FileName);
    if (Node == nullptr || Buffer == nullptr || Name == nullptr) {
        free(Node);
        free(Buffer);
        free(Name);
        return RZP_OUT_OF_MEMORY;
    }
    memcpy(Buffer, Record, static_cast<size_t>(Length));
    Node->FileName = Name;
    Node->InstallPacketSendBuffer = Buffer;
    Node->InstallPacketSendBufferLength = Length;
    Node->InstallPacketHandle = InstallPacketNumber++;
    if (InstallRecordCount == 0)
        InstallPacketList = Node;
    else
        InstallRecordIndex[InstallRecordCount - 1]->NextPacket = Node;
    InstallRecordIndex[InstallRecordCount++] = Node;
    return 0;
}

PINSTALL_PACKET_LIST FindInstallRecord(int32_t Handle)
{
    if (InstallPacketList == nullptr)
        return nullptr;
    int64_t Position = static_cast<int64_t>(Handle) - InstallPacketList->InstallPacketHandle;
    if (Position < 0 || Position >= InstallRecordCount)
        return nullptr;
    return InstallRecordIndex[Position];
}

PINSTALL_PACKET_LIST LastInstallRecord(void)
{
    return InstallRecordCount == 0 ? nullptr : InstallRecordIndex[InstallRecordCount - 1];
}

void FreeInstallPacketList(void)
{
    while (InstallPacketList != nullptr) {
        PINSTALL_PACKET_LIST Next = InstallPacketList->NextPacket;
        free(InstallPacketList->FileName);
        free(InstallPacketList->InstallPacketSendBuffer);
        free(InstallPacketList);
        InstallPacketList = Next;
    }
    free(InstallRecordIndex);
    InstallRecordIndex = nullptr;
    InstallRecordCount = 0;
    InstallRecordCapacity = 0;
}
