// session_internal.h - what the files of a session share (manager/session's session files
// only): the connections' names, the wait on S->Changed, the recording send path, the pump and
// the console reader. Declares no globals.
//
// Threads: the caller's (ZmStart, requests, waits, ZmStop, ZmClose); the pump, the only
// receiver on our two connections, which answers what the sub-service asks, records every
// packet and reaps the process; the console reader, which appends the sub-service's standard
// output and error. S->Lock guards the recorded state, the handles and ExitStatus, and
// S->Changed is notified on every change; S->SendLock keeps each frame we write whole.
#pragma once

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "zelrzpmanager.h"

#define ZM_REGISTRATION_CONNECTION "/dev/zelrzp_np1"
#define ZM_PARSER_WRITE_CONNECTION "/dev/zelparser_write" // we receive on it
#define ZM_PARSER_READ_CONNECTION "/dev/zelparser_read"   // we send on it
#define ZM_REGISTRATIONS 7
#define ZM_CALLER "ZMANAGER"
#define ZM_RUNNING -1000

typedef std::unique_lock<std::mutex> ZmGuard;

// Waits on S->Changed until Ready() holds or the timeout (-1: the configured one) passes.
template <typename Pred>
inline bool SessionWaitUntil(ZmSession *S, ZmGuard &Guard, int TimeoutMs, Pred Ready)
{
    int Ms = TimeoutMs < 0 ? S->Config.TimeoutMs : TimeoutMs;
    auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(Ms);
    return S->Changed.wait_until(Guard, Deadline, Ready);
}

inline void SessionSleepMs(int Ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(Ms));
}

// requests.cpp: a malformed packet of the sub-service, one line in S->Problems; one packet
// recorded; a packet sent on the sub-service's read connection and recorded (0, or negative);
// our receive and send handles, read under the lock.
void SessionNote(ZmSession *S, const std::string &What);
void SessionRecord(ZmSession *S, int Direction, const char *Connection,
                   const RZP_HEADER_PACKET &Header, const unsigned char *Payload, size_t Length);
int SessionSend(ZmSession *S, RZP_HEADER_PACKET Header, const std::vector<unsigned char> &Payload);
void SessionHandles(ZmSession *S, int *Receive, int *Send);

// answers.cpp: answers (or notes) one packet the pump received and recorded.
void SessionDispatch(ZmSession *S, const ZmPacket &P);

// startstop.cpp: whether the exit has been published; reaps the sub-service under the lock
// (waitpid with Flags) and publishes its exit.
bool SessionHasExited(ZmSession *S);
void SessionReap(ZmSession *S, int Flags);

// pump.cpp and console.cpp: the two threads ZmStart starts; the console output waiting now,
// taken with S->Lock held (false at the end of the output).
void SessionPump(ZmSession *S);
void SessionConsoleReader(ZmSession *S);
bool SessionReadConsoleLocked(ZmSession *S);
