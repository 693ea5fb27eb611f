// op_items.cpp - the workers that hand out the install records (number of items, first, next,
// last), the close-input-file worker, and the update of three run flags from the manager's
// packet. Reads InstallPacketList and NumberOfComponentsInBundle (holding ParserStateMutex);
// writes REBOOT_IF_NEEDED, FORCE_INSTALL_FLAG and NO_USER_INTERFACE (update packet, on the
// listener thread).
#include <cstdio>
#include <cstring>

#include "operations.h"
#include "protocol.h"
#include "records.h"
#include "runflags.h"
#include "service.h"

int NumberOfComponentsInBundle = 0;

// Answers with the record stored in Node; the bytes go out unchanged and stay in the list.
static void AnswerWithRecord(PPARSERWORK Work, PINSTALL_PACKET_LIST Node)
{
    SendParserAnswer(Work, RZP_SUCCESS, Node->InstallPacketSendBuffer,
                     Node->InstallPacketSendBufferLength);
}

static void CloseInputFile(PPARSERWORK Work)
{
    SendParserAnswerWithRequest(Work, RZP_SUCCESS);
}

static void AnswerNumberOfItems(PPARSERWORK Work)
{
    int Count = NumberOfComponentsInBundle;
    memset(Work->Buffer, 0, RZP_MAX_PAYLOAD);
    int Length = Tokenize(Work->Buffer, "%U%U%U", static_cast<uint32_t>(RZP_TYPE_ULONG),
                          static_cast<uint32_t>(4), static_cast<uint32_t>(Count));
    DebugPrint("Parser number of items: Type %d  Length %d  Value %d\n", RZP_TYPE_ULONG, 4, Count);
    SendParserAnswer(Work, RZP_SUCCESS, Work->Buffer, Length);
}

static void AnswerFirstItem(PPARSERWORK Work)
{
    if (InstallPacketList == nullptr)
        SendParserAnswer(Work, RZP_PARSER_NO_MORE_ITEMS, nullptr, 0);
    else
        AnswerWithRecord(Work, InstallPacketList);
}

// The node after the one whose handle the next-item request names, or NULL when the request
// holds no whole handle item, names an unknown handle, or names the last record.
static PINSTALL_PACKET_LIST FindNextRecord(PPARSERWORK Work)
{
    PAYLOADREADER Reader = {Work->Buffer, Work->Header->DataLength, 0, 0};
    ReadPayloadU32(&Reader); // type
    ReadPayloadU32(&Reader); // length
    int32_t Handle = static_cast<int32_t>(ReadPayloadU32(&Reader));
    if (Reader.Failed)
        return nullptr;
    DebugPrint("Parser received Handle %d\n", Handle);
    PINSTALL_PACKET_LIST Node = FindInstallRecord(Handle);
    return Node == nullptr ? nullptr : Node->NextPacket;
}

static void AnswerNextItem(PPARSERWORK Work)
{
    PINSTALL_PACKET_LIST Next = nullptr;
    if (InstallPacketList == nullptr)
        SendParserAnswerWithRequest(Work, RZP_PARSER_NO_MORE_ITEMS);
    else if ((Next = FindNextRecord(Work)) == nullptr)
        SendParserAnswer(Work, RZP_PARSER_NO_MORE_ITEMS, nullptr, 0);
    else
        AnswerWithRecord(Work, Next);
}

static void AnswerLastItem(PPARSERWORK Work)
{
    PINSTALL_PACKET_LIST Node = LastInstallRecord();
    if (Node == nullptr)
        SendParserAnswerWithRequest(Work, RZP_PARSER_NO_MORE_ITEMS);
    else
        AnswerWithRecord(Work, Node);
}

// Close touches no shared state and answers beside a running parse; the item workers read
// what a parse writes and wait for it.
void *HandleParserCloseInputFilePacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_CLOSE_INPUT_FILE, "RZP_PARSER_CLOSE_INPUT_FILE", CloseInputFile,
                    WORK_ALONE);
    return nullptr;
}

void *HandleParserReturnNumberOfItemsPacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_RETURN_NUMBER_OF_ITEMS, "RZP_PARSER_RETURN_NUMBER_OF_ITEMS",
                    AnswerNumberOfItems, WORK_ON_PARSER_STATE);
    return nullptr;
}

void *HandleParserReturnFirstItemPacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_RETURN_FIRST_ITEM, "RZP_PARSER_RETURN_FIRST_ITEM", AnswerFirstItem,
                    WORK_ON_PARSER_STATE);
    return nullptr;
}

void *HandleParserReturnNextItemPacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_RETURN_NEXT_ITEM, "RZP_PARSER_RETURN_NEXT_ITEM", AnswerNextItem,
                    WORK_ON_PARSER_STATE);
    return nullptr;
}

void *HandleParserReturnLastItemPacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_RETURN_LAST_ITEM, "RZP_PARSER_RETURN_LAST_ITEM", AnswerLastItem,
                    WORK_ON_PARSER_STATE);
    return nullptr;
}

// A payload that does not hold the three items whole changes nothing: decoding it would read
// past what the manager sent.
int ProcessUpdateCommandLineParms(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    if (Payload == nullptr || Header == nullptr)
        return 0;
    PAYLOADREADER Reader = {Payload, Header->DataLength, 0, 0};
    int Flags[3] = {0, 0, 0};
    for (int &Flag : Flags) {
        ReadPayloadU32(&Reader); // type
        ReadPayloadU32(&Reader); // length
        Flag = ReadPayloadByte(&Reader);
    }
    if (Reader.Failed)
        return 0;
    REBOOT_IF_NEEDED = Flags[0];
    FORCE_INSTALL_FLAG = Flags[1];
    NO_USER_INTERFACE = Flags[2];
    return 0;
}
