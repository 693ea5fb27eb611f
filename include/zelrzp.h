// zelrzp.h - the records and codes of the packet protocol between the manager and the
// parser sub-service: the 32-byte header, item type codes, opcodes, return codes, the
// registration record, the install record and its requisite and configuration sub-records.
#pragma once

#include <cstdint>

#define RZP_HEADER_SIZE 32
#define RZP_MAX_PAYLOAD 16384 /* every payload, receive, queue and work buffer */

typedef unsigned char BOOLEAN;
// One-byte truth values of BOOLEAN items and of the yes/no readers (signed char).
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// The header of every packet. Host byte order in memory; the transport writes it
// little-endian on the wire. Data is reserved: written as 0, ignored on receipt.
typedef struct _RZP_HEADER_PACKET {
    int32_t SrcHandle;
    int32_t DestHandle;
    int32_t LocalSequenceNumber;
    int32_t RemoteSequenceNumber;
    uint32_t opCode;
    int32_t ReturnCode;
    int32_t DataLength;
    uint32_t Data;
} RZP_HEADER_PACKET, *PRZP_HEADER_PACKET;

static_assert(sizeof(RZP_HEADER_PACKET) == RZP_HEADER_SIZE, "the header is 32 bytes");

// Item type codes. 1..11 are requisite subtypes (string values).
enum {
    SUBTYPE_LIBRARY_FILE_PRESENCE = 1,
    SUBTYPE_EXECUTE_COMMAND = 2,
    SUBTYPE_FILE_PRESENCE = 3,
    SUBTYPE_RUN_SCRIPT_FILE = 4,
    SUBTYPE_DIRECTORY_PRESENCE = 5,
    SUBTYPE_MINIMUM_KERNEL_VERSION = 6,
    SUBTYPE_MAXIMUM_KERNEL_VERSION = 7,
    SUBTYPE_PCI_DEVICE_PRESENT = 8,
    SUBTYPE_ENVIRONMENT_VARIABLE = 9,
    SUBTYPE_OS_VERSION_SUPPORTED = 10,
    SUBTYPE_PROGRAM_RUNNING = 11,

    RZP_TYPE_BOOL = 201,
    RZP_TYPE_USHORT = 202,
    RZP_TYPE_USHORT_ILLEGAL = 203,
    RZP_TYPE_ULONG = 204,
    RZP_TYPE_SCHAR = 205,
    RZP_TYPE_SSHORT_ILLEGAL = 206,
    RZP_TYPE_SLONG = 207,
    RZP_TYPE_STRING = 208,

    RZP_STRUCT_PREREQ = 301,
    RZP_STRUCT_POSTREQ = 302,
    RZP_STRUCT_PRECONFIG = 303,
    RZP_STRUCT_POSTCONFIG = 304,
    RZP_TERMINATE_LIST = 999,
};

// Opcodes.
enum : uint32_t {
    RZP_REGISTER = 1,
    RZP_SHUTDOWN = 2,
    RZP_ENABLE_DEBUG = 4,
    RZP_DISABLE_DEBUG = 5,
    RZP_IS_OPCODE_SUPPORTED = 6,
    RZP_UPDATE_COMMAND_LINE_PARMS = 9,
    RZP_OUTPUT_DATA = 2001,
    RZP_LOG_DATA = 2002,
    RZP_PROMPT_FOR_NUMBER = 2202,
    RZP_PROMPT_FOR_HEX = 2203,
    RZP_PROMPT_FOR_CHARACTER = 2204,
    RZP_GET_LOG_FILE_NAME = 2401,
    RZP_PARSER_OPEN_INPUT_FILE = 4001,
    RZP_PARSER_PARSE_INPUT_FILE = 4002,
    RZP_PARSER_CLOSE_INPUT_FILE = 4003,
    RZP_PARSER_RETURN_NUMBER_OF_ITEMS = 4101,
    RZP_PARSER_RETURN_FIRST_ITEM = 4102,
    RZP_PARSER_RETURN_NEXT_ITEM = 4103,
    RZP_PARSER_RETURN_LAST_ITEM = 4104,
    RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA = 6007,
};

// Result codes: every code that a function of the sub-service returns or that a packet carries
// in ReturnCode, one name each; RZPResultName gives the name. The values are fixed (the wire
// codes are the manager's contract; the others are named in the functions' contracts).
// -502 is only the empty-component-XML result: the InstallStatus value -502 of a component not
// yet built is a status (packages.h), never a result.
enum RZP_RESULT : int32_t {
    RZP_SUCCESS = 0,
    RZP_FAILED = -1,                 // a bad argument or option value, a missing file, a refusal
    RZP_COMPONENT_FILE_EMPTY = -101, // DoesComponentFileExist: the component file is empty
    RZP_OPCODE_NOT_SUPPORTED = -103, // wire
    RZP_NO_RESULT_YET = -106,        // wire: in every request
    RZP_OUT_OF_MEMORY = -111,        // wire
    RZP_TRANSPORT_UNAVAILABLE = -114, // the transport library cannot be loaded or bound
    RZP_ALREADY_INITIALIZED = -115,   // InitializeCommunicationsInterface called twice
    RZP_OPCODE_SUPPORTED = -118,      // wire
    RZP_NO_SEQUENCE_NUMBER = -119,    // Dequeue with sequence number -1
    RZP_NOTHING_PENDING = -120,       // Dequeue: no parked packet matches
    RZP_COMPONENT_XML_EMPTY = -502,   // FindComponentXmlFile: the component XML file is empty
    RZP_PARSER_BAD_XML = -504,        // wire; also every reader's missing section
    RZP_PARSER_NOT_ONE_BUNDLE = -505, // wire
    RZP_PARSER_NO_MORE_ITEMS = -508,  // wire
    RZP_PARSER_ERRATA_UNSUPPORTED = -509, // builder: unsupported on the errata kernel
    RZP_PARSER_NO_BUNDLE = -703,      // wire
    RZP_PARSER_BAD_BUNDLE = -704,     // GetBundleVersion: no usable version
    XML_NO_MEMORY = 0x10001,          // InsertToken could not allocate
    XML_OPEN_FAILED = 0x10010,        // no name, cannot open, empty file; also: no bundle file
    XML_PARSE_FAILED = 0x10100,       // read error, unterminated CDATA, over-long line
    XML_NO_PACKAGES = 0x12000,        // GetBundlePackages: nothing to install or unusable
};

// The name of a result code ("RZP_PARSER_BAD_XML"), or "unknown" for a value not in the
// enum. Never NULL; the string is static.
const char *RZPResultName(long Code);


// Registration record: six items, "%U%U%U%U%U%B%U%U%B%U%U%S%U%U%S%U%U%S".
#define RZP_REGISTER_FORMAT "%U%U%U%U%U%B%U%U%B%U%U%S%U%U%S%U%U%S"
typedef struct _RZP_REGISTER_PACKET {
    uint32_t opCodeVarType;
    uint32_t opCodeVarLength;
    uint32_t opCode;
    uint32_t OverrideExistingVarType;
    uint32_t OverrideExistingVarLength;
    BOOLEAN OverrideExisting;
    uint32_t AllowOverrideVarType;
    uint32_t AllowOverrideVarLength;
    BOOLEAN AllowOverride;
    uint32_t SubServiceNameVarType;
    uint32_t SubServiceNameVarLength;
    char *SubServiceName;
    uint32_t SendConnectionNameVarType;
    uint32_t SendConnectionNameVarLength;
    char *SendConnectionName;
    uint32_t ReceiveConnectionNameVarType;
    uint32_t ReceiveConnectionNameVarLength;
    char *ReceiveConnectionName;
} RZP_REGISTER_PACKET, *PRZP_REGISTER_PACKET;

// Main body of one install record: sixteen (type, length, value) triples.
#define RZP_INSTALL_BODY_FORMAT                                                                  \
    "%U%U%B%U%U%B%U%U%B%U%U%B%U%U%B%U%U%B%U%U%B%U%U%L%U%U%S%U%U%S%U%U%S%U%U%S%U%U%S%U%U%S%U%U%S" \
    "%U%U%S"
typedef struct _RZP_INSTALL_PACKET {
    uint32_t HasPrerequisitesType;
    uint32_t HasPrerequisitesLength;
    BOOLEAN HasPrerequisites;
    uint32_t RequiresPreConfigurationType;
    uint32_t RequiresPreConfigurationLength;
    BOOLEAN RequiresPreConfiguration;
    uint32_t RequiresPreCompilationType;
    uint32_t RequiresPreCompilationLength;
    BOOLEAN RequiresPreCompilation;
    uint32_t RequiresPostConfigurationType;
    uint32_t RequiresPostConfigurationLength;
    BOOLEAN RequiresPostConfiguration;
    uint32_t RequiresPostCompilationType;
    uint32_t RequiresPostCompilationLength;
    BOOLEAN RequiresPostCompilation;
    uint32_t HasPostrequisitesType;
    uint32_t HasPostrequisitesLength;
    BOOLEAN HasPostrequisites;
    uint32_t ComponentRequiresRebootType;
    uint32_t ComponentRequiresRebootLength;
    BOOLEAN ComponentRequiresReboot;
    uint32_t FailureReasonType;
    uint32_t FailureReasonLength;
    int32_t FailureReason;
    uint32_t FailureReasonStringType;
    uint32_t FailureReasonStringLength;
    char *FailureReasonString;
    uint32_t ComponentFileNameType;
    uint32_t ComponentFileNameLength;
    char *ComponentFileName;
    uint32_t ComponentNameType;
    uint32_t ComponentNameLength;
    char *ComponentName;
    uint32_t ComponentDescriptionType;
    uint32_t ComponentDescriptionLength;
    char *ComponentDescription;
    uint32_t ComponentVersionType;
    uint32_t ComponentVersionLength;
    char *ComponentVersion;
    uint32_t InstallCommandType;
    uint32_t InstallCommandLength;
    char *InstallCommand;
    uint32_t ConfigurationInputFileNameType;
    uint32_t ConfigurationInputFileNameLength;
    char *ConfigurationInputFileName;
    uint32_t ConfigurationOutputFileNameType;
    uint32_t ConfigurationOutputFileNameLength;
    char *ConfigurationOutputFileName;
} RZP_INSTALL_PACKET, *PRZP_INSTALL_PACKET;

// One node of InstallPacketList per accepted component.
typedef struct _INSTALL_PACKET_LIST {
    char *FileName;
    int32_t InstallPacketHandle;
    int32_t InstallPacketSendBufferLength;
    unsigned char *InstallPacketSendBuffer; // record length + 512 bytes
    struct _INSTALL_PACKET_LIST *NextPacket;
} INSTALL_PACKET_LIST, *PINSTALL_PACKET_LIST;

// Requisite entries: "%U%U%S" (subtype, value length, value).
typedef struct _PREREQUISITE {
    int32_t SubType;
    uint32_t PrerequisiteLength;
    char *Prerequisite;
} PREREQUISITE, *PPREQUISITE;

typedef struct _POSTREQUISITE {
    int32_t SubType;
    uint32_t PostrequisiteLength;
    char *Postrequisite;
} POSTREQUISITE, *PPOSTQUISITE;

// Configuration variable: twelve triples, 36 items.
#define RZP_CONFIGURATION_FORMAT \
    "%U%U%B%U%U%U%U%U%U%U%U%S%U%U%S%U%U%S%U%U%U%U%U%S%U%U%S%U%U%S%U%U%S%U%U%U"
typedef struct _PRECONFIGURATION {
    uint32_t IsVariableRequiredType;
    uint32_t IsVariableRequiredLength;
    BOOLEAN IsVariableRequired;
    uint32_t MinimumLengthType;
    uint32_t MinimumLengthLength;
    uint32_t MinimumLength;
    uint32_t MaximumLengthType;
    uint32_t MaximumLengthLength;
    uint32_t MaximumLength;
    uint32_t PromptType;
    uint32_t PromptLength;
    char *Prompt;
    uint32_t AcceptableCharactersType;
    uint32_t AcceptableCharactersLength;
    char *AcceptableCharacters;
    uint32_t RequiredFormatType;
    uint32_t RequiredFormatLength;
    char *RequiredFormat;
    uint32_t OutputTypeType;
    uint32_t OutputTypeLength;
    uint32_t OutputType;
    uint32_t OutputNameType;
    uint32_t OutputNameLength;
    char *OutputName;
    uint32_t DefaultValueType;
    uint32_t DefaultValueLength;
    char *DefaultValue;
    uint32_t ActualValueType;
    uint32_t ActualValueLength;
    char *ActualValue;
    uint32_t OutputFileNameType;
    uint32_t OutputFileNameLength;
    char *OutputFileName;
    uint32_t AttributesType;
    uint32_t AttributesLength;
    uint32_t Attributes;
} PRECONFIGURATION, *PPRECONFIGURATION;

typedef PRECONFIGURATION POSTCONFIGURATION;
typedef PRECONFIGURATION *PPOSTCONFIGURATION;

// Entry points of the transport library, as the sub-service holds them after dlopen
// (zelrzptransport.h declares the functions themselves, for processes that link it).
#define RZP_TRANSPORT_LIBRARY "libzelrzptransport.so.0"
typedef int (*OpenRZPTransport_t)(const char *);
typedef int (*CloseRZPTransport_t)(int);
typedef int (*ReceiveRZPDataAsyncRaw_t)(int, PRZP_HEADER_PACKET, unsigned char *, const char *);
typedef int (*SendRZPDataRaw_t)(PRZP_HEADER_PACKET, unsigned char *, const char *);
typedef int (*Tokenize_t)(unsigned char *, const char *, ...);
typedef int (*DeTokenize_t)(unsigned char *, const char *, ...);
typedef int (*DeTokenizeWithOffset_t)(unsigned char *, const char *, int, ...);

