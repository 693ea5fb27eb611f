// operations.h - the parser operations: one detached worker thread per parser request (open,
// parse, close, number of items, first, next, last), the shape they share, the update of run
// flags by the manager and the three prompts. Defined in parser/operations/.
#pragma once

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
// Encodes Text as one STRING item at the start of Buffer (BufferSize bytes); the declared
// length counts the NUL when CountNul is 1. Returns the bytes written, or -1 when the item
// does not fit (nothing is written then).
int EncodeStringItem(unsigned char *Buffer, size_t BufferSize, const char *Text, int CountNul);
