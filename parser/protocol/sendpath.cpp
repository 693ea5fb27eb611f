// sendpath.cpp - the one path by which the sub-service writes a packet, and the header of every
// request it starts. Owns SendDataMutex, which callers hold around every send; the write
// connection's lock is taken inside.
#include <cstdio>
#include <cstring>

#include "protocol.h"
#include "runflags.h"
#include "service.h"

pthread_mutex_t SendDataMutex = PTHREAD_MUTEX_INITIALIZER;

void FillRequestHeader(PRZP_HEADER_PACKET Header, uint32_t OpCode, int DestHandle, int DataLength)
{
    memset(Header, 0, sizeof *Header);
    Header->SrcHandle = ParserQueue->ReadConnectionHandle;
    Header->DestHandle = DestHandle;
    Header->LocalSequenceNumber = NextSequenceNumber();
    Header->RemoteSequenceNumber = -1;
    Header->opCode = OpCode;
    Header->ReturnCode = RZP_NO_RESULT_YET;
    Header->DataLength = DataLength;
}

int HandleOutgoingPacket(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    if (Debugging())
        DumpPacket(Header, Payload, 0);
    LockConnection(ParserQueue->WriteConnectionHandle, &WriteConnectionFileLock);
    int Result = SendDataRaw(Header, Payload, PARSER_CALLER);
    UnlockConnection(ParserQueue->WriteConnectionHandle, &WriteConnectionFileLock);
    if (Result < 0 && Debugging())
        printf("Parser send of opCode %d failed with %d (%s)\n", static_cast<int>(Header->opCode),
               Result, RZPResultName(Result));
    return Result;
}

int SendPacketLocked(PRZP_HEADER_PACKET Header, unsigned char *Payload)
{
    pthread_mutex_lock(&SendDataMutex);
    int Result = HandleOutgoingPacket(Header, Payload);
    pthread_mutex_unlock(&SendDataMutex);
    return Result;
}
