// operations.h - the parser operations: one detached worker thread per parser request (open,
// parse, close, number of items, first, next, last), the shape they share, the update of run
// flags by the manager and the three prompts. Defined in parser/operations/.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "zelrzp.h"

extern int NumberOfComponentsInBundle;
void *HandleParserOpenInputFilePacket(void *parm1);
void *HandleParserParseInputFilePacket(void *parm1);
void *HandleParserCloseInputFilePacket(void *parm1);
void *HandleParserReturnNumberOfItemsPacket(void *parm1);
void *HandleParserReturnFirstItemPacket(void *parm1);
void *HandleParserReturnNextItemPacket(void *parm1);
void *HandleParserReturnLastItemPacket(void *parm1);
int GetTQRPackages(void);
// Opcode 9 from the manager, answered on the listener thread.
int ProcessUpdateCommandLineParms(PRZP_HEADER_PACKET Header, unsigned char *Payload);
int SendPromptForNumberPacket(void);
int SendPromptForHexPacket(void);
int SendPromptForCharacterPacket(void);

// ---- The shape every parser worker shares (parser/operations/workers.cpp) ----------------------
// The worker of each parser opcode, with the line the listener prints in debug mode when it
// starts one. FindParserWorker gives the entry of OpCode, or NULL when no worker serves it.
typedef struct _PARSERWORKER {
    uint32_t OpCode;
    const char *DebugLine;
    void *(*Worker)(void *parm1);
} PARSERWORKER;
const PARSERWORKER *FindParserWorker(uint32_t OpCode);
// A worker allocates its two areas, takes its request by opcode, answers in the request's
// header and ends by releasing the areas and uncounting itself.
typedef struct _PARSERWORK {
    PRZP_HEADER_PACKET Header; // 32 bytes, zero-filled: the request's header, then the answer's
    unsigned char *Buffer;     // 16384 bytes, zero-filled: the request's payload
} PARSERWORK, *PPARSERWORK;
// Allocates both areas and takes the oldest parked request of OpCode. 0 when taken; -103 when
// none is parked ("We received a call to handle a packet for opCode %s, yet no incoming packet
// was available.\n" is printed with OpCodeName); -111 when the areas cannot be allocated.
int BeginParserWork(PPARSERWORK Work, uint32_t OpCode, const char *OpCodeName);
// Answers the request: ReturnCode, RemoteSequenceNumber the next sequence number, DestHandle
// the write connection, DataLength bytes of Payload (NULL for none); sent under SendDataMutex.
// SrcHandle, LocalSequenceNumber and opCode stay as received.
void SendParserAnswer(PPARSERWORK Work, int ReturnCode, unsigned char *Payload, int DataLength);
// The same, sending the request's own payload back as it was dequeued.
void SendParserAnswerWithRequest(PPARSERWORK Work, int ReturnCode);
// Releases both areas (either may be NULL) and uncounts the worker from ThreadCount.
void EndParserWork(PPARSERWORK Work);
// Held by a worker around all its work on BundleList, ComponentList, InstallPacketList,
// NumberOfComponentsInBundle, the XML tree and CurrentlyInstalledOS; outermost of the
// sub-service's locks (see parser/operations/workers.cpp), never taken by the listener.
extern pthread_mutex_t ParserStateMutex;
typedef void (*PARSERSTEP)(PPARSERWORK Work);
enum { WORK_ALONE = 0, WORK_ON_PARSER_STATE = 1, WORK_EXIT_WITHOUT_REQUEST = 2 };
// The whole life of one worker: takes the request of OpCode, runs Step (holding
// ParserStateMutex with WORK_ON_PARSER_STATE), ends. With WORK_EXIT_WITHOUT_REQUEST a missing
// request sets Parser_Exiting. Returns BeginParserWork's result.
int RunParserWorker(uint32_t OpCode, const char *OpCodeName, PARSERSTEP Step, int Flags);
// Encodes Text as one STRING item at the start of Buffer (BufferSize bytes); the declared
// length counts the NUL when CountNul is 1. Returns the bytes written, or -1 when the item
// does not fit (nothing is written then).
int EncodeStringItem(unsigned char *Buffer, size_t BufferSize, const char *Text, int CountNul);
