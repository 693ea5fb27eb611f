// parser.h - the parser sub-service: run flags, the connection record and transport
// binding, the manager protocol (dump, send path, pending-I/O queue, listener,
// registration, requests to the manager), the parser operations and the install records.
#pragma once

#include <fcntl.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "xmltokenizer.h"
#include "zelrzp.h"

// ---- Run flags (command line, opcodes 4/5/9) -------------------------------------------
// Flags set only on the main thread before any other thread starts are plain integers;
// those that the listener changes later are atomic.
extern int SILENT_INSTALL;
extern std::atomic<char> DEBUG_FLAG;
extern std::atomic<int> FORCE_INSTALL_FLAG;
extern int HELP_REQUESTED;
extern std::atomic<int> NO_USER_INTERFACE;
extern int VERBOSE_MODE;
extern int SINGLE_STEP_MODE;
extern int OK_TO_RUN;
extern int INPUT_FILE_FOUND;
extern char InputFileName[1024];
extern int TQR_INSTALL;
#define TQR_MAX_PACKAGES 100
#define TQR_NAME_SIZE 256
extern char *TQR_PackageName[TQR_MAX_PACKAGES];
extern int VIEW_ONLY;
extern char PackageName[1024];
extern std::atomic<int> REBOOT_IF_NEEDED;
extern const int BADPARM; // -1
extern std::atomic<int> Parser_Exiting;
extern std::atomic<int> ThreadCount;
extern std::atomic<int> LocalSequenceNumber;

#define ARGUMENT_BUFFER_SIZE 1024

int CheckCommandLineParameters(int argc, char **argv);
// Releases the TQR package slots (used by tests and at process end).
void FreeCommandLineState(void);

// ---- Connection record and transport binding --------------------------------------------
typedef struct _QUEUE {
    char *ReadConnectionName;
    char *WriteConnectionName;
    char *SubServiceName;
    BUNDLEINFOPTR BundleList;
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

// ---- Packets ------------------------------------------------------------------------------
// Takes the next sequence number (read and advance as one atomic step).
int NextSequenceNumber(void);
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
// Waits for the answer with LocalSequenceNumber SequenceNumber (the header area is zeroed
// first). Returns when it is taken or when Parser_Exiting is 1. Wakes as soon as the answer
// is parked, and at least every 10 milliseconds to look at Parser_Exiting.
void WaitForAnswer(PRZP_HEADER_PACKET Header, unsigned char *Payload, int SequenceNumber);
// The same by opcode, without zeroing the header first.
void WaitForAnswerByOpCode(PRZP_HEADER_PACKET Header, unsigned char *Payload, uint32_t OpCode);

// ---- Listener and registration ----------------------------------------------------------------
void *Listen(void *parm);
int HandleIncomingPacket(PRZP_HEADER_PACKET Header, unsigned char *Payload);
int RegisterWithRZPManager(void);
int HandlePostRegistration(PRZP_HEADER_PACKET Header, unsigned char *Payload);
int DeRegisterWithRZPManager(void);
int ProcessUpdateCommandLineParms(PRZP_HEADER_PACKET Header, unsigned char *Payload);

// ---- Requests to the manager ----------------------------------------------------------------
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
int SendPromptForNumberPacket(void);
int SendPromptForHexPacket(void);
int SendPromptForCharacterPacket(void);
int SendIsComponentSupportedByThisErrataPacket(unsigned char *Buffer, int BufferLength);
// The screen-then-log message pair: Coloured goes to the screen when NO_USER_INTERFACE is 1,
// Plain otherwise; Plain always to the log. Each is one STRING item (length with the NUL).
// Coloured may be NULL (the plain text is then used for both).
void SendScreenAndLog(const char *Coloured, const char *Plain);
void SendLogOnly(const char *Plain);

// ---- Parser operations (detached worker threads) ------------------------------------------------
extern int NumberOfComponentsInBundle;
void *HandleParserOpenInputFilePacket(void *parm1);
void *HandleParserParseInputFilePacket(void *parm1);
void *HandleParserCloseInputFilePacket(void *parm1);
void *HandleParserReturnNumberOfItemsPacket(void *parm1);
void *HandleParserReturnFirstItemPacket(void *parm1);
void *HandleParserReturnNextItemPacket(void *parm1);
void *HandleParserReturnLastItemPacket(void *parm1);
int GetTQRPackages(void);

// ---- The shape every parser worker shares (parser/workers.cpp) ----------------------------------
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
// sub-service's locks (see parser/workers.cpp), never taken by the listener.
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

// ---- Install records ---------------------------------------------------------------------------
extern PINSTALL_PACKET_LIST InstallPacketList;
extern int32_t InstallPacketNumber;
int BuildRZPInstallStructures(const char *XMLFileName, COMPONENTINFOPTR Component,
                              const char *language);
void FreeInstallPacketList(void);
#define SUBTYPE_BUFFER_SIZE 10
#define REQUISITE_VALUE_SIZE 1024
int GetPrerequisites(const char *XMLFileName, char *SubType, char *SubTypeValue, int LineNumber);
int GetPostrequisites(const char *XMLFileName, char *SubType, char *SubTypeValue, int LineNumber);
int GetPreConfigurationInfo(const char *XMLFileName, int LineNumber,
                            PPRECONFIGURATION PreConfigurationStruct,
                            const char *CurrentLocaleName);
int GetPostConfigurationInfo(const char *XMLFileName, int LineNumber,
                             PPOSTCONFIGURATION PostConfigurationStruct,
                             const char *CurrentLocaleName);
void DumpConfigurationStruct(PPRECONFIGURATION ConfigurationStruct, int StructType);
void FreeConfigStruct(PPRECONFIGURATION ConfigurationStruct, int StructType);
int GetPCIDevices(const char *XMLFileName, char *Value, int LineNumber);
int RetrievePCIDevicesFromXML(const char *XMLFileName, unsigned char *Buffer, int *BufferLength);

// Helpers shared by the install-record readers and the builder.
// The child named SectionName of Parent with the 0-based Index among the children of that name
// (the first one, then Index times GetNextSibling); NULL when there are fewer or Index < 0.
SECTIONPTR FindNthChildOf(SECTIONPTR Parent, const char *SectionName, int Index);
// Entry LineNumber of a list below the installed distribution's element of a component file
// (zel_package/platform_specific/LINUX/<CurrentlyInstalledOS>/ListName/EntryName), with the
// shared walk's messages; NULL when the walk or the list runs out.
SECTIONPTR FindPlatformEntry(const char *XMLFileName, const char *ListName, const char *EntryName,
                             int LineNumber);
// The leading decimal digits of Text as an unsigned number: 0 when Text is NULL or does not
// start with a digit; a value beyond 32 bits gives 4294967295.
uint32_t DecimalValue(const char *Text);
// The number of bytes that Tokenize writes for Format, by the codec's widths (%U %L 4, %B %C
// %X 1, %S the text and its NUL; Strings supply the %S values in order, NULL as ""). -1 for
// an unknown letter or too few strings.
long PredictEncodedLength(const char *Format, const char *const *Strings, int StringCount);
// Appends one requisite sub-record "%U%U%U%U%S" (StructType, body length, SubType, value
// length, Value) at *Position of Buffer (Capacity bytes) and advances *Position. 0, or -1
// with nothing written when it would not fit. BodyLength and RecordLength (may be NULL)
// receive the body length and the whole sub-record's length.
int AppendRequisiteRecord(unsigned char *Buffer, int Capacity, int *Position, uint32_t StructType,
                          uint32_t SubType, const char *Value, int *BodyLength, int *RecordLength);
