// recordlist.cpp - the list of accepted install records, in the order the components were
// built, each with its handle; the manager walks it by first, next and last item. Writes
// InstallPacketList, InstallPacketNumber and the list's tail and lookup cursor (under
// ParserStateMutex, like every user of the list).
#include <cstdlib>
#include <cstring>

#include "records.h"
#include "support.h"

PINSTALL_PACKET_LIST InstallPacketList = nullptr;
int32_t InstallPacketNumber = 0;
// The last node, so that an append takes constant time (trusted only while the list is not
// empty), and the node the last lookup found, so that a manager walking the records one after
// the other is answered in constant time per record instead of a walk from the head.
static PINSTALL_PACKET_LIST InstallPacketListTail = nullptr;
static PINSTALL_PACKET_LIST LastRecordFound = nullptr;

#define INSTALL_BUFFER_SLACK 512 /* a node's buffer is the record plus this */

int AppendInstallRecord(const char *FileName, const unsigned char *Record, int Length)
{
    PINSTALL_PACKET_LIST Node = static_cast<PINSTALL_PACKET_LIST>(calloc(1, sizeof(*Node)));
    unsigned char *Buffer =
        static_cast<unsigned char *>(calloc(static_cast<size_t>(Length) + INSTALL_BUFFER_SLACK, 1));
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
    AppendToList(&InstallPacketList, &InstallPacketListTail, Node,
                 &INSTALL_PACKET_LIST::NextPacket);
    return 0;
}

PINSTALL_PACKET_LIST FindInstallRecord(int32_t Handle)
{
    PINSTALL_PACKET_LIST Node = InstallPacketList;
    if (LastRecordFound != nullptr && LastRecordFound->InstallPacketHandle == Handle)
        return LastRecordFound;
    if (LastRecordFound != nullptr && LastRecordFound->NextPacket != nullptr &&
        LastRecordFound->NextPacket->InstallPacketHandle == Handle)
        Node = LastRecordFound->NextPacket;
    while (Node != nullptr && Node->InstallPacketHandle != Handle)
        Node = Node->NextPacket;
    if (Node != nullptr)
        LastRecordFound = Node;
    return Node;
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
    InstallPacketListTail = nullptr;
    LastRecordFound = nullptr;
}
