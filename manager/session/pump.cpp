// pump.cpp - the pump: the only receiver on our two connections, which takes every frame,
// records it, has it answered (answers.cpp) and reaps the sub-service once it has ended.
// Writes only the ZmSession it is given.
//
// It sleeps in poll on our two receiving connections, a pidfd of the sub-service (readable
// when it exits) and S->WakeFd (written by ZmClose). Where pidfd_open is missing, it looks at
// the process every 10 ms instead.
#include <poll.h>
#include <sys/wait.h>

#include <cstring>

#include "session_internal.h"
#include "zelrzptransport.h"

enum { ZM_NONE, ZM_TAKEN, ZM_REFUSED };

// Takes one frame from a connection into *P: ZM_NONE when none was waiting, ZM_REFUSED for a
// frame we could not read (noted).
static int TakeFrame(ZmSession *S, int Handle, const char *Connection, unsigned char *Buffer,
                     ZmPacket *P)
{
    if (Handle < 0)
        return ZM_NONE;
    int Result = ReceiveRZPDataAsyncRaw(Handle, &P->Header, Buffer, ZM_CALLER);
    if (Result == -1)
        return ZM_NONE;
    if (Result < 0 || P->Header.DataLength < 0 || P->Header.DataLength > RZP_MAX_PAYLOAD) {
        SessionNote(S, std::string("refused frame on ") + Connection);
        return ZM_REFUSED;
    }
    P->Direction = ZM_FROM_PARSER;
    P->Connection = Connection;
    P->Payload.assign(Buffer, Buffer + P->Header.DataLength);
    return ZM_TAKEN;
}

static void Deliver(ZmSession *S, const ZmPacket &P)
{
    SessionRecord(S, P.Direction, P.Connection.c_str(), P.Header, P.Payload.data(),
                  P.Payload.size());
    SessionDispatch(S, P);
}

// Takes, records and answers one frame of a connection. False when none was waiting.
static bool ReceiveOne(ZmSession *S, int Handle, const char *Connection, unsigned char *Buffer)
{
    ZmPacket P;
    int Taken = TakeFrame(S, Handle, Connection, Buffer, &P);
    if (Taken == ZM_TAKEN)
        Deliver(S, P);
    return Taken != ZM_NONE;
}

// One frame of each connection. A frame of the registration connection is recorded after
// every frame that already waits on the write connection: those were written before it (the
// deregistration follows the last answer of a worker), so the record keeps the order in which
// the sub-service sent them.
static bool ReceiveRound(ZmSession *S, unsigned char *Buffer)
{
    int Receive = -1, Send = -1;
    SessionHandles(S, &Receive, &Send);
    bool Got = ReceiveOne(S, Receive, ZM_PARSER_WRITE_CONNECTION, Buffer);
    ZmPacket Registration;
    int Taken = TakeFrame(S, S->RegistrationHandle, ZM_REGISTRATION_CONNECTION, Buffer,
                          &Registration);
    if (Taken == ZM_TAKEN) {
        while (ReceiveOne(S, Receive, ZM_PARSER_WRITE_CONNECTION, Buffer)) {
        }
        Deliver(S, Registration);
    }
    return Got || Taken != ZM_NONE;
}

static bool ProcessEnded(ZmSession *S)
{
    siginfo_t Info;
    memset(&Info, 0, sizeof Info);
    return waitid(P_PID, (id_t)S->Pid, &Info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           Info.si_pid == S->Pid;
}

// Sleeps until one of our connections shows data, the sub-service ends, or ZmClose wakes us.
// Returns true when a descriptor showed something.
static bool WaitForWork(ZmSession *S, bool Running)
{
    int Receive = -1, Send = -1;
    SessionHandles(S, &Receive, &Send);
    struct pollfd Fds[4];
    nfds_t Count = 0;
    for (int Fd : {S->RegistrationHandle, Receive, S->WakeFd, Running ? S->PidFd : -1})
        if (Fd >= 0)
            Fds[Count++] = {Fd, POLLIN, 0};
    // Without a pidfd the exit is only seen by looking: every 10 ms. A timeout also bounds the
    // wait for a connection that the pump opened after this poll began (it opens them itself,
    // so that cannot happen, but the bound costs nothing).
    int Timeout = Running && S->PidFd < 0 ? 10 : 1000;
    return poll(Fds, Count, Timeout) > 0;
}

// Once the process has ended (seen without reaping it), the frames it wrote last are taken
// before its exit is published, so a waiter for the exit also finds its deregistration. A
// round in which a descriptor showed data but no frame came is followed by a 1 ms sleep, so a
// connection that stays readable is not spun on.
void SessionPump(ZmSession *S)
{
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD);
    bool ShowedData = false;
    while (!S->Stopping) {
        if (ReceiveRound(S, Buffer.data())) {
            ShowedData = false;
            continue;
        }
        bool Running = !SessionHasExited(S);
        if (Running && ProcessEnded(S)) {
            while (ReceiveRound(S, Buffer.data()) && !S->Stopping) {
            }
            SessionReap(S, 0);
            continue;
        }
        if (ShowedData)
            SessionSleepMs(1);
        ShowedData = !ShowedData && WaitForWork(S, Running);
    }
}
