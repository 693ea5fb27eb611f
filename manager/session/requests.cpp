// requests.cpp - the caller's requests and waits on a session, the one send path that records
// every packet we write, and the copies of the recorded state. Writes only the ZmSession it is
// given (its Packets, Problems and NextSequence).
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "session_internal.h"
#include "zelrzptransport.h"

// ---- Recording and sending ---------------------------------------------------------------------

void SessionNote(ZmSession *S, const std::string &What)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->Problems.push_back(What);
    S->Changed.notify_all();
}

void SessionRecord(ZmSession *S, int Direction, const char *Connection,
                   const RZP_HEADER_PACKET &Header, const unsigned char *Payload, size_t Length)
{
    ZmPacket P;
    P.Direction = Direction;
    P.Connection = Connection;
    P.Header = Header;
    P.Payload.assign(Payload, Payload + Length);
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->Packets.push_back(std::move(P));
    S->Changed.notify_all();
}

// Sends one packet on the sub-service's read connection and records it. The payload is copied
// into a full-size buffer, so a header whose DataLength lies cannot make the library read past
// the caller's bytes.
int SessionSend(ZmSession *S, RZP_HEADER_PACKET Header, const std::vector<unsigned char> &Payload)
{
    if (Payload.size() > RZP_MAX_PAYLOAD)
        return -1;
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD, 0);
    std::copy(Payload.begin(), Payload.end(), Buffer.begin());
    size_t Recorded = Header.DataLength < 0 ? 0
                                            : std::min((size_t)Header.DataLength, Payload.size());
    std::lock_guard<std::mutex> Guard(S->SendLock);
    SessionRecord(S, ZM_TO_PARSER, ZM_PARSER_READ_CONNECTION, Header, Buffer.data(), Recorded);
    return SendRZPDataRaw(&Header, Buffer.data(), ZM_CALLER);
}

void SessionHandles(ZmSession *S, int *Receive, int *Send)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    *Receive = S->ReceiveHandle;
    *Send = S->SendHandle;
}

// ---- Requests ----------------------------------------------------------------------------------

int ZmSendPacket(ZmSession *S, RZP_HEADER_PACKET Header, const std::vector<unsigned char> &Payload)
{
    if (Header.DataLength == 0)
        Header.DataLength = (int32_t)Payload.size();
    return SessionSend(S, Header, Payload);
}

int ZmRequest(ZmSession *S, uint32_t OpCode, const std::vector<unsigned char> &Payload,
              ZmPacket *Answer, int TimeoutMs)
{
    RZP_HEADER_PACKET H{};
    SessionHandles(S, &H.SrcHandle, &H.DestHandle);
    if (H.SrcHandle < 0 || H.DestHandle < 0)
        return -1;
    H.LocalSequenceNumber = S->NextSequence++;
    H.RemoteSequenceNumber = -1;
    H.opCode = OpCode;
    H.ReturnCode = RZP_NO_RESULT_YET;
    H.DataLength = (int32_t)Payload.size();
    size_t From = 0;
    {
        std::lock_guard<std::mutex> Guard(S->Lock);
        From = S->Packets.size();
    }
    if (SessionSend(S, H, Payload) != 0)
        return -1;
    auto IsAnswer = [](const ZmPacket &P, const void *Arg) {
        return P.Connection == ZM_PARSER_WRITE_CONNECTION &&
               P.Header.LocalSequenceNumber == *(const int32_t *)Arg &&
               P.Header.ReturnCode != RZP_NO_RESULT_YET;
    };
    ZmPacket Found;
    if (ZmWaitForPacket(S, IsAnswer, &H.LocalSequenceNumber, &From, &Found, TimeoutMs) != 0)
        return -1;
    if (Answer != nullptr)
        *Answer = Found;
    return 0;
}

int ZmSendBytes(ZmSession *S, const void *Bytes, size_t Length)
{
    int Receive = -1, Send = -1;
    SessionHandles(S, &Receive, &Send);
    if (Send < 0)
        return -1;
    std::lock_guard<std::mutex> Guard(S->SendLock);
    const char *P = (const char *)Bytes;
    for (int Tries = 0; Length > 0 && Tries < 2000; Tries++) {
        ssize_t N = write(Send, P, Length);
        if (N > 0) {
            P += N;
            Length -= (size_t)N;
        } else if (N < 0 && errno != EAGAIN && errno != EINTR) {
            return -1;
        } else {
            SessionSleepMs(1);
        }
    }
    return Length == 0 ? 0 : -1;
}

// ---- Waits -------------------------------------------------------------------------------------

// A wait for a packet also ends when the sub-service has ended: the pump takes its last frames
// before it publishes the exit, so nothing more can come.
int ZmWaitForPacket(ZmSession *S, bool (*Match)(const ZmPacket &, const void *), const void *Arg,
                    size_t *From, ZmPacket *Found, int TimeoutMs)
{
    size_t Start = From != nullptr ? *From : 0;
    size_t Hit = 0;
    bool Matched = false;
    ZmGuard Guard(S->Lock);
    SessionWaitUntil(S, Guard, TimeoutMs, [&] {
        for (size_t i = Start; i < S->Packets.size() && !Matched; i++) {
            Matched = S->Packets[i].Direction == ZM_FROM_PARSER && Match(S->Packets[i], Arg);
            Hit = i;
        }
        Start = S->Packets.size();
        return Matched || S->ExitStatus != ZM_RUNNING;
    });
    if (!Matched)
        return -1;
    if (Found != nullptr)
        *Found = S->Packets[Hit];
    if (From != nullptr)
        *From = Hit + 1;
    return 0;
}

int ZmWaitForConsole(ZmSession *S, const std::string &Text, int TimeoutMs)
{
    ZmGuard Guard(S->Lock);
    return SessionWaitUntil(S, Guard, TimeoutMs,
                            [&] { return S->Console.find(Text) != std::string::npos; })
               ? 0
               : -1;
}

// ---- Copies of the recorded state --------------------------------------------------------------

std::vector<ZmPacket> ZmPacketsSnapshot(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->Packets;
}

std::string ZmConsoleSnapshot(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->Console;
}
