// zelrzpmanager.h - the reference manager: plays the manager's side of the packet protocol
// for tests and for people who want to see what the sub-service makes of a bundle. It
// starts zelparser, answers its registrations and requests (each answer configurable),
// sends requests and control packets, records every packet both ways with the sub-service's
// console output, decodes install records and shuts the sub-service down. Every wait has a
// timeout: a hung sub-service fails a caller, it never hangs it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <condition_variable>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "zelrzp.h"

#define ZM_HANDLE_BASE 100

// What the manager answers. Defaults: everything accepted and supported.
struct ZmConfig {
    std::string ParserPath;        // the zelparser executable
    std::string BundleDir;         // the sub-service's current directory
    std::vector<std::string> Args; // arguments after "-MG"
    bool PassMG = true;            // false: start without -MG
    std::map<uint32_t, int> RegistrationAnswer;   // opcode registered -> ReturnCode (default 0)
    std::map<uint32_t, int> NotSupportedAnswers;  // opcode asked about -> number of -103 answers
    int SupportedAnswer = RZP_OPCODE_SUPPORTED;   // answer after those (-118)
    std::set<std::string> ErrataUnsupported;      // component file names the errata kernel refuses
    int ErrataRefusal = 1;                        // ReturnCode for those
    int LogReturnCode = 0;
    int OutputReturnCode = 0;
    std::string LogFileName = "/var/log/zelrzp.log";
    int LogFileNameReturnCode = 0;
    std::string PromptNumberAnswer = "3";
    std::string PromptHexAnswer = "1f";
    unsigned char PromptCharacterAnswer = 'y';
    int PromptReturnCode = 0;
    bool AnswerRequests = true; // false: requests of the sub-service are recorded, not answered
    bool EchoScreen = false;    // print screen messages to our stdout as they arrive
    int TimeoutMs = 10000;      // default wait
    bool EchoConsole = false;   // copy the sub-service's console output as it arrives
    int EchoFd = 1;             // where EchoScreen and EchoConsole write (1 stdout, 2 stderr)
};

enum { ZM_FROM_PARSER = 0, ZM_TO_PARSER = 1 };

// Where a message of the sub-service appeared: its screen (output request 2001), its log
// (log request 2002) or its console (one line of standard output or error).
enum { ZM_SCREEN = 0, ZM_LOG = 1, ZM_CONSOLE = 2 };
struct ZmMessage {
    int Source = ZM_CONSOLE;
    std::string Text;
};

struct ZmPacket {
    int Direction = ZM_FROM_PARSER;
    std::string Connection; // connection path it travelled on
    RZP_HEADER_PACKET Header{};
    std::vector<unsigned char> Payload;
};

// One running sub-service and the manager's side of its connections.
struct ZmSession {
    ZmConfig Config;
    pid_t Pid = -1;
    int ExitStatus = -1000;          // wait status decoded: exit code, or -signal; -1000 running
    int RegistrationHandle = -1;     // "/dev/zelrzp_np1", we receive registrations
    int ReceiveHandle = -1;          // "/dev/zelparser_write", we receive
    int SendHandle = -1;             // "/dev/zelparser_read", we send
    int ConsoleFd = -1;              // read end of the sub-service's stdout and stderr
    int PidFd = -1;                  // readable once the sub-service has ended (-1: none)
    int WakeFd = -1;                 // eventfd, readable once Stopping is set
    std::atomic<int> NextSequence{1000};
    std::atomic<bool> Stopping{false};
    std::thread Pump;                // receives, answers, records
    std::thread ConsoleReader;
    std::mutex Lock;                 // guards everything below
    std::condition_variable Changed;
    std::vector<ZmPacket> Packets;   // every packet both ways, in order
    std::string Console;             // the sub-service's console output so far
    std::vector<std::string> ScreenTexts; // decoded output requests (2001)
    std::vector<std::string> LogTexts;    // decoded log requests (2002)
    std::vector<ZmMessage> Messages;      // screen, log and console lines in the order produced
    size_t ConsoleLinesEnd = 0;           // Console up to here is split into Messages
    std::map<uint32_t, int> SupportQueries; // opcode asked about -> queries so far
    int RegistrationsSeen = 0;
    bool ConsoleEnded = false;       // the console reader has stopped reading
    std::vector<std::string> ErrataQuestions; // ComponentFileName of each errata question (6007)
    std::vector<std::string> Problems;  // malformed packets of the sub-service, one line each
    std::mutex SendLock;             // keeps our frames whole on the read connection
};

// Starts the sub-service in Config.BundleDir with "-MG" and Config.Args, and the pump that
// answers it. Waits until the seven registrations have been answered (or the sub-service
// ended). Returns 0, or -1 with the reason in *Error.
int ZmStart(ZmSession *S, const ZmConfig &Config, std::string *Error = nullptr);
// Sends a request (SrcHandle our receive handle, DestHandle our send handle, next sequence
// number, RemoteSequenceNumber -1, ReturnCode -106) and waits for the answer carrying its
// sequence number. 0 with *Answer filled, -1 on timeout or when the sub-service ended.
int ZmRequest(ZmSession *S, uint32_t OpCode, const std::vector<unsigned char> &Payload,
              ZmPacket *Answer, int TimeoutMs = -1);
// Sends a packet whose header the caller filled (recorded like any other); a DataLength of 0
// is taken as the payload's size, any other value is sent as it is. 0 or negative.
int ZmSendPacket(ZmSession *S, RZP_HEADER_PACKET Header, const std::vector<unsigned char> &Payload);
// Writes raw bytes on the sub-service's read connection (malformed frames). 0 or -1.
int ZmSendBytes(ZmSession *S, const void *Bytes, size_t Length);
// Waits for a packet from the sub-service, recorded at index >= *From, for which Match is
// true; on success *From is set past it. 0 or -1 on timeout.
int ZmWaitForPacket(ZmSession *S, bool (*Match)(const ZmPacket &, const void *), const void *Arg,
                    size_t *From, ZmPacket *Found, int TimeoutMs = -1);
// Waits until the console output contains Text. 0 or -1 on timeout.
int ZmWaitForConsole(ZmSession *S, const std::string &Text, int TimeoutMs = -1);
// Sends opcode 2 and waits for the deregistration packet and the exit. Kills the sub-service
// after the timeout. Returns its exit status (0..255), or -1 when it had to be killed.
int ZmStop(ZmSession *S, int TimeoutMs = -1);
// Waits for the sub-service to exit by itself; returns its exit status, or -1 on timeout
// (the sub-service is then killed).
int ZmWaitExit(ZmSession *S, int TimeoutMs = -1);
// Ends everything (kills the sub-service if needed, joins threads, closes connections).
void ZmClose(ZmSession *S);
// The number of closed sessions whose sub-service printed a sanitizer report (AddressSanitizer,
// LeakSanitizer, ThreadSanitizer, UndefinedBehaviorSanitizer) in this process.
int ZmSanitizerReports(void);

// Takes the console output that is waiting now, so that Messages holds every line the
// sub-service printed before the last packet that was received from it.
void ZmSyncConsole(ZmSession *S);

// Copies of the recorded state, taken under the lock.
std::vector<ZmPacket> ZmPacketsSnapshot(ZmSession *S);
std::string ZmConsoleSnapshot(ZmSession *S);

// ---- Payload helpers --------------------------------------------------------------------------
// Encoders of the protocol's items (the same bytes as the transport codec writes).
void ZmPutU32(std::vector<unsigned char> *Out, uint32_t Value);
void ZmPutByte(std::vector<unsigned char> *Out, unsigned char Value);
void ZmPutString(std::vector<unsigned char> *Out, const std::string &Text); // bytes and NUL
// One STRING item: 208, declared length (Text length + 1 unless given), text.
std::vector<unsigned char> ZmStringItem(const std::string &Text, int DeclaredLength = -1);
// One ULONG item: 204, 4, value.
std::vector<unsigned char> ZmULongItem(uint32_t Value);

// Bounded reading of payloads: a cursor whose first failure stores its reason (with the byte
// offset) in Error; every later read then fails too, so a run of reads is tested once.
struct ZmReader {
    const unsigned char *Bytes = nullptr;
    size_t Length = 0;
    size_t Offset = 0;
    std::string Error;
};
ZmReader ZmReaderOf(const std::vector<unsigned char> &Payload);
// Stores What (with the byte offset) as the reader's error unless it has one; false.
bool ZmReaderFail(ZmReader *R, const std::string &What);
bool ZmReadU32(ZmReader *R, uint32_t *Value);
bool ZmReadByte(ZmReader *R, unsigned char *Value);
bool ZmReadText(ZmReader *R, std::string *Text); // up to a NUL that lies inside the buffer
// Items of a fixed type and length (BOOL 1; ULONG and SLONG 4). Name goes into the error.
bool ZmReadBoolItem(ZmReader *R, const char *Name, bool *Value);
bool ZmReadU32Item(ZmReader *R, uint32_t Type, const char *Name, uint32_t *Value);
// A STRING item. Strict: the declared length is the text's with its NUL, or 0 for an absent
// string (a lone NUL; *Present false). Not strict: any declared length is taken.
bool ZmReadStringItem(ZmReader *R, const char *Name, std::string *Text, bool *Present = nullptr,
                      bool Strict = true);

// ---- Install records ---------------------------------------------------------------------------
struct ZmRequisite {
    uint32_t Structure = 0; // 301 or 302
    uint32_t SubType = 0;
    std::string Value;
};
struct ZmConfigVariable {
    uint32_t Structure = 0; // 303 or 304
    bool IsVariableRequired = false;
    uint32_t MinimumLength = 0, MaximumLength = 0;
    bool HasPrompt = false, HasAcceptableCharacters = false, HasRequiredFormat = false;
    std::string Prompt, AcceptableCharacters, RequiredFormat;
    uint32_t OutputType = 0;
    bool HasOutputName = false, HasDefaultValue = false, HasActualValue = false,
         HasOutputFileName = false;
    std::string OutputName, DefaultValue, ActualValue, OutputFileName;
    uint32_t Attributes = 0;
};
struct ZmRecord {
    uint32_t Number = 0;
    bool HasPrerequisites = false, RequiresPreConfiguration = false,
         RequiresPreCompilation = false, RequiresPostConfiguration = false,
         RequiresPostCompilation = false, HasPostrequisites = false,
         ComponentRequiresReboot = false;
    int32_t FailureReason = 0;
    std::string FailureReasonString, FileName, Name, Description, Version, InstallCommand,
        ConfigurationInputFileName, ConfigurationOutputFileName;
    std::vector<ZmRequisite> Requisites; // devices and prerequisites (301), postrequisites (302), in order
    std::vector<ZmConfigVariable> Configuration; // 303 then 304, in order
};
// Decodes one serialized install record, checking every length against the buffer.
// 0, or -1 with the reason in *Error ("out of memory" when memory ran out); *Record is
// written only on success.
int ZmDecodeRecord(const unsigned char *Bytes, size_t Length, ZmRecord *Record,
                   std::string *Error = nullptr);
// Walks the items: number of items, first item, next until -508. Returns 0 with the raw
// records (payloads) and decoded records, or -1 on timeout or a malformed answer.
int ZmFetchAllRecords(ZmSession *S, std::vector<std::vector<unsigned char>> *Raw,
                      std::vector<ZmRecord> *Records, int32_t *NumberOfItems,
                      std::string *Error = nullptr);
const char *ZmSubTypeName(uint32_t SubType);
// A result code as the manager prints it: "-504 (RZP_PARSER_BAD_XML)" (names: RZPResultName).
std::string ZmResultText(int32_t Code);
