// service.h - the service process: the connection record (ParserQueue), the binding of the
// transport library, the three connections with their fcntl locks, and the shut-down thread.
// Defined in parser/service/comms.cpp.
#pragma once

#include <fcntl.h>

#include "zelrzp.h"

struct _BundleInfo; // packages.h

typedef struct _QUEUE {
    char *ReadConnectionName;
    char *WriteConnectionName;
    char *SubServiceName;
    struct _BundleInfo *BundleList; // BUNDLEINFOPTR
    int ReadConnectionHandle;
    int RegistrationConnectionHandle;
    int WriteConnectionHandle;
    BOOLEAN Provides_RZPParserOpenInputFile;
    BOOLEAN Provides_RZPParserParseInputFile;
    BOOLEAN Provides_RZPParserCloseInputFile;
    BOOLEAN Provides_RZPParserReturnNumberOfItems;
    BOOLEAN Provides_RZPParserReturnFirstItem;
    BOOLEAN Provides_RZPParserReturnNextItem;
    BOOLEAN Provides_RZPParserReturnLastItem;
    BOOLEAN AllowOverride;
} QUEUE, *PQUEUE;

#define PARSER_READ_CONNECTION "/dev/zelparser_read"
#define PARSER_WRITE_CONNECTION "/dev/zelparser_write"
#define REGISTRATION_CONNECTION "/dev/zelrzp_np1"
#define PARSER_SUBSERVICE_NAME "PARSER_V100"
#define PARSER_CALLER "PARSER"

extern PQUEUE ParserQueue;
extern void *TransportLibrary;
extern OpenRZPTransport_t OpenTransport;
extern CloseRZPTransport_t CloseTransport;
extern ReceiveRZPDataAsyncRaw_t ReceiveDataAsyncRaw;
extern DeTokenize_t DeTokenize;
extern DeTokenizeWithOffset_t DeTokenizeWithOffset;
extern SendRZPDataRaw_t SendDataRaw;
extern Tokenize_t Tokenize;

extern struct flock ReadConnectionFileLock;
extern struct flock WriteConnectionFileLock;
extern struct flock RegistrationConnectionFileLock;

// Loads the transport library and resolves its seven entry points. 0, or negative with the
// message printed and nothing left loaded. Used by InitializeCommunicationsInterface.
int BindTransportLibrary(void);
void UnbindTransportLibrary(void);
int InitializeCommunicationsInterface(void);
void *Shutdown(void *parm);
// The connection lock protocol: whole-file fcntl write lock, F_SETLKW until it succeeds.
void LockConnection(int Handle, struct flock *Lock);
void UnlockConnection(int Handle, struct flock *Lock);
