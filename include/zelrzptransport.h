// zelrzptransport.h - the entry points of the transport library libzelrzptransport.so.0.
// The sub-service loads the library with dlopen and holds these entry points in function
// pointers of the types below; a manager process links the library directly.
// The byte format on the connections is documented in docs/wire-format.md. The sub-service
// does not include this header: it uses the entry-point types of zelrzp.h.
#pragma once

#include "zelrzp.h"

extern "C" {
// Opens (creating a FIFO, mode 0600, when nothing exists at Name) a named connection.
// Returns the handle (a descriptor, at least the handle base) or a negative error.
int OpenRZPTransport(const char *Name);
// Closes a handle opened by OpenRZPTransport. Returns 0 or a negative error.
int CloseRZPTransport(int Handle);
// Takes one frame from the connection if one is waiting: -1 at once when none is; 0 with
// the header and DataLength payload bytes (at most 16384) written; another negative
// result for a refused frame (nothing beyond the caller's 32 + 16384 bytes is written).
int ReceiveRZPDataAsyncRaw(int Handle, PRZP_HEADER_PACKET Header, unsigned char *Buffer,
                           const char *Caller);
// Writes one whole frame on the connection named by Header->DestHandle. 0 or negative.
int SendRZPDataRaw(PRZP_HEADER_PACKET Header, unsigned char *Buffer, const char *Caller);
// Encodes values by format from the start of Buffer; returns bytes written, -1 for an
// unknown letter. %U %L: 4 bytes LE; %B %C %X: 1 byte; %S: the bytes and one NUL.
int Tokenize(unsigned char *Buffer, const char *Format, ...);
// Decodes values by format from the start of Buffer; returns the bytes decoded.
int DeTokenize(unsigned char *Buffer, const char *Format, ...);
// Decodes from Offset; returns the offset after the last value decoded.
int DeTokenizeWithOffset(unsigned char *Buffer, const char *Format, int Offset, ...);
// Handles opened after this call are descriptors of at least Base (a manager uses 100).
void SetRZPTransportHandleBase(int Base);
}

#define RZP_FRAME_MAGIC "RZP1"
#define RZP_FRAME_PREFIX 40 /* magic, header, reply-to length */
#define RZP_MAX_REPLY_NAME 255
