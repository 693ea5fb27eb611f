// protocol.h - the manager protocol: the debug dump and the bounded reading of payloads, the
// send path, the pending-I/O queue, the listener and registration, and the requests that the
// sub-service puts to the manager (screen and log text, log file name, support query, errata
// question). Defined in parser/protocol/.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "zelrzp.h"

// ---- Packets ------------------------------------------------------------------------------
// Debug dump of a packet; Received selects the receive-side or send-side header wording.
// Ends the process for a NULL buffer with DataLength set or an unknown item type.
void DumpPacket(const RZP_HEADER_PACKET *Header, const unsigned char *Payload, int Received);

// Bounds-checked reading of a payload that came from the manager: every value is checked to
// lie inside Length before it is decoded. A read past the end sets Failed and yields 0 / "".
typedef struct PAYLOADREADER {
    const unsigned char *Payload;
    int Length;
    int Offset;
    int Failed;
} PAYLOADREADER;
uint32_t ReadPayloadU32(PAYLOADREADER *Reader);
unsigned char ReadPayloadByte(PAYLOADREADER *Reader);
// Copies the string at the reader's offset into Dest (DestSize bytes), cut to fit; returns 1
// when it was cut, 0 otherwise. A string without its NUL inside the payload sets Failed.
int ReadPayloadString(PAYLOADREADER *Reader, char *Dest, size_t DestSize);

// The header of a request that the sub-service starts (requests to the manager, registration,
// deregistration): zeroed, then SrcHandle the read connection's handle, DestHandle, the next
// sequence number, RemoteSequenceNumber -1, OpCode, ReturnCode -106 and DataLength.
void FillRequestHeader(PRZP_HEADER_PACKET Header, uint32_t OpCode, int DestHandle, int DataLength);

// Send path: callers hold SendDataMutex.
extern pthread_mutex_t SendDataMutex;
int HandleOutgoingPacket(PRZP_HEADER_PACKET Header, unsigned char *Payload);
// Locks SendDataMutex around one HandleOutgoingPacket.
int SendPacketLocked(PRZP_HEADER_PACKET Header, unsigned char *Payload);

// ---- Pending-I/O queue ----------------------------------------------------------------------
typedef struct _PENDINGIO {
    PRZP_HEADER_PACKET Header;
    unsigned char *Buffer;
    struct _PENDINGIO *Next;
} PENDINGIO, *PPENDINGIO;

extern PPENDINGIO PendingIOList;
extern pthread_mutex_t PendingIOMutex;
int Enqueue(PRZP_HEADER_PACKET Header, unsigned char *Payload);
int Dequeue(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber);
int DequeueByOpCode(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode);
// At most this many packets stay parked; beyond it parking drops the oldest answer that no
// thread expects (parser requests and expected answers are never dropped). The bound keeps a
// manager that floods the service with unasked answers from growing it without end (16 MiB of
// parked payloads at most), while far more than one run's requests ever wait at once.
#define PENDING_IO_LIMIT 4096
// One wait for an answer, on the waiter's stack: linked into the list of expected answers from
// ExpectAnswer (called before the request is sent, so that the answer is never dropped) until
// WaitForExpectedAnswer returns.
typedef struct _PENDINGWAIT {
    int ByOpCode;       // 1: the first parked packet of OpCode; 0: by SequenceNumber
    int SequenceNumber;
    uint32_t OpCode;
    struct _PENDINGWAIT *Next;
} PENDINGWAIT, *PPENDINGWAIT;
void ExpectAnswer(PPENDINGWAIT Wait, int SequenceNumber);
void ExpectAnswerByOpCode(PPENDINGWAIT Wait, uint32_t OpCode);
// Waits for the expected packet (by sequence number the header area is zeroed first). Returns
// when it is taken or when Parser_Exiting is 1. Wakes as soon as the packet is parked, and at
// least every 10 milliseconds to look at Parser_Exiting. The expectation ends with it. Payload
// is payload-sized, or nullptr when only the answer's header is read.
void WaitForExpectedAnswer(PPENDINGWAIT Wait, PRZP_HEADER_PACKET Header, unsigned char *Payload);
// ExpectAnswer and WaitForExpectedAnswer in one, for an answer that cannot have come yet.
void WaitForAnswer(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber);
// The same by opcode, without zeroing the header first.
void WaitForAnswerByOpCode(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode);
// The number of parked packets.
int PendingIOLength(void);

// ---- Listener and registration ----------------------------------------------------------------
void *Listen(void *parm);
int HandleIncomingPacket(PRZP_HEADER_PACKET Header, unsigned char *Payload);
int RegisterWithRZPManager(void);
int HandlePostRegistration(PRZP_HEADER_PACKET Header, unsigned char *Payload);
int DeRegisterWithRZPManager(void);

// ---- Requests to the manager ----------------------------------------------------------------
// The manager's 'not supported' answers to one support query after which the service gives up
// and ends: a manager that never supports the opcode must not hold the worker forever.
#define SUPPORT_QUERY_LIMIT 50000
// Test hook: the number of "not supported" answers after which a support query gives up.
extern int SupportQueryLimit;
int SendLogDataPacket(unsigned char *Payload, int PayloadLength);
int SendOutputDataPacket(unsigned char *Payload, int PayloadLength);
// On ReturnCode 0 the name (cut to NameSize) and its declared length item are stored.
int SendGetLogFileNamePacket(char *Name, size_t NameSize, uint32_t *NameLength);
// The support query for OpCode, repeated while the manager answers -103. Returns 0 when the
// request may follow (whatever the last answer was), -103 after SupportQueryLimit answers of
// -103 (Parser_Exiting is then 1). DebugName, when not NULL, is printed after each answer in
// debug mode as "<DebugName> is supported.\n" (answer -118) or "<DebugName> is not supported.\n".
int QueryOpcodeSupport(uint32_t OpCode, const char *DebugName);
int SendIsComponentSupportedByThisErrataPacket(unsigned char *Buffer, int BufferLength);
// The screen-then-log message pair: Coloured goes to the screen when NO_USER_INTERFACE is 1,
// Plain otherwise; Plain always to the log. Each is one STRING item (length with the NUL).
// Coloured may be NULL (the plain text is then used for both).
void SendScreenAndLog(const char *Coloured, const char *Plain);
void SendLogOnly(const char *Plain);
