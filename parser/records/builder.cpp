// builder.cpp - the install record builder: turns one component into one serialized install
// record (main body, device, requisite and configuration sub-records), asks the manager about
// the errata kernel and hands accepted records to the record list (recordlist.cpp).
// Writes InstallPacketList and InstallPacketNumber (through AppendInstallRecord), the XML tree
// (through the readers) and, through the errata question, LocalSequenceNumber.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "records.h"
#include "runflags.h"
#include "service.h"
#include "support.h"

#define CONFIGURATION_LOCALE "en"

// The record being built: every piece is checked to fit before it is written.
typedef struct _RECORD_WRITER {
    unsigned char *Buffer;
    int Capacity;
    int Position;
} RECORD_WRITER;

static const char *TextOrEmpty(const char *Text)
{
    return Text == nullptr ? "" : Text;
}

long PredictEncodedLength(const char *Format, const char *const *Strings, int StringCount)
{
    long Length = 0;
    int Next = 0;
    for (const char *p = Format; p[0] != '\0'; p++) {
        if (p[0] != '%' || p[1] == '\0')
            continue;
        switch (*++p) {
        case 'U':
        case 'L': Length += 4; break;
        case 'B':
        case 'C':
        case 'X': Length += 1; break;
        case 'S':
            if (Next >= StringCount)
                return -1;
            Length += static_cast<long>(strlen(TextOrEmpty(Strings[Next++]))) + 1;
            break;
        default: return -1;
        }
    }
    return Length;
}

static int Fits(int Capacity, int Position, long Needed)
{
    return Needed >= 0 && Needed <= static_cast<long>(Capacity) - Position;
}

// The codec must have written what its widths promise; anything else is a broken library.
static int CheckEncoded(int Written, long Predicted)
{
    if (Written == Predicted)
        return 0;
    printf("The payload encoder wrote %d bytes where %ld were expected.\n", Written, Predicted);
    return -1;
}

int AppendRequisiteRecord(unsigned char *Buffer, int Capacity, int *Position, uint32_t StructType,
                          uint32_t SubType, const char *Value, int *BodyLength, int *RecordLength)
{
    const char *Strings[] = {TextOrEmpty(Value)};
    long Predicted = PredictEncodedLength("%U%U%U%U%S", Strings, 1);
    if (Buffer == nullptr || Position == nullptr || !Fits(Capacity, *Position, Predicted))
        return -1;
    uint32_t ValueLength = static_cast<uint32_t>(strlen(Strings[0]) + 1);
    unsigned char *At = Buffer + *Position;
    // The body alone is encoded in place first to learn its length, then overwritten.
    int Body = Tokenize(At, "%U%U%S", SubType, ValueLength, Strings[0]);
    int Record = Tokenize(At, "%U%U%U%U%S", StructType, static_cast<uint32_t>(Body), SubType,
                          ValueLength, Strings[0]);
    if (CheckEncoded(Record, Predicted) != 0)
        return -1;
    *Position += Record;
    if (BodyLength != nullptr)
        *BodyLength = Body;
    if (RecordLength != nullptr)
        *RecordLength = Record;
    return 0;
}

// One string triple: a copy of Text (absent text is kept as the empty string).
static int SetPacketString(uint32_t *Type, uint32_t *Length, char **Value, const char *Text)
{
    *Type = RZP_TYPE_STRING;
    *Value = DuplicateString(TextOrEmpty(Text));
    *Length = static_cast<uint32_t>(strlen(TextOrEmpty(Text)) + 1);
    return *Value == nullptr ? RZP_OUT_OF_MEMORY : 0;
}

static void SetFlag(uint32_t *Type, uint32_t *Length, BOOLEAN *Value, int Flag)
{
    *Type = RZP_TYPE_BOOL;
    *Length = 1;
    *Value = Flag == 1 ? 1 : 0;
}

static void FillFlags(PRZP_INSTALL_PACKET P, const char *XMLFileName, int DeviceCount,
                      COMPONENTINFOPTR Component)
{
    SetFlag(&P->HasPrerequisitesType, &P->HasPrerequisitesLength, &P->HasPrerequisites,
            GetHasPrerequisitesValue(XMLFileName));
    SetFlag(&P->RequiresPreConfigurationType, &P->RequiresPreConfigurationLength,
            &P->RequiresPreConfiguration, GetRequiresPreConfigurationValue(XMLFileName));
    SetFlag(&P->RequiresPreCompilationType, &P->RequiresPreCompilationLength,
            &P->RequiresPreCompilation, GetRequiresPreCompilationValue(XMLFileName));
    SetFlag(&P->RequiresPostConfigurationType, &P->RequiresPostConfigurationLength,
            &P->RequiresPostConfiguration, GetRequiresPostConfigurationValue(XMLFileName));
    SetFlag(&P->RequiresPostCompilationType, &P->RequiresPostCompilationLength,
            &P->RequiresPostCompilation, GetRequiresPostCompilationValue(XMLFileName));
    SetFlag(&P->HasPostrequisitesType, &P->HasPostrequisitesLength, &P->HasPostrequisites,
            GetHasPostrequisitesValue(XMLFileName));
    if (P->HasPrerequisites == 0 && DeviceCount > 0)
        P->HasPrerequisites = 1;
    if (Component->RebootRequired != nullptr)
        strupr(Component->RebootRequired);
    SetFlag(&P->ComponentRequiresRebootType, &P->ComponentRequiresRebootLength,
            &P->ComponentRequiresReboot,
            strcmp(TextOrEmpty(Component->RebootRequired), "YES") == 0);
}

// The in-memory main body of the record, or NULL when memory runs out.
static PRZP_INSTALL_PACKET NewInstallPacket(const char *XMLFileName, COMPONENTINFOPTR Component,
                                            int DeviceCount)
{
    PRZP_INSTALL_PACKET P = static_cast<PRZP_INSTALL_PACKET>(calloc(1, sizeof(*P)));
    if (P == nullptr)
        return nullptr;
    FillFlags(P, XMLFileName, DeviceCount, Component);
    P->FailureReasonType = RZP_TYPE_SLONG;
    P->FailureReasonLength = 4;
    P->FailureReason = 0;
    int Result =
        SetPacketString(&P->FailureReasonStringType, &P->FailureReasonStringLength,
                        &P->FailureReasonString, "SUCCESS") |
        SetPacketString(&P->ComponentFileNameType, &P->ComponentFileNameLength,
                        &P->ComponentFileName, Component->FileName) |
        SetPacketString(&P->ComponentNameType, &P->ComponentNameLength, &P->ComponentName,
                        Component->Name) |
        SetPacketString(&P->ComponentDescriptionType, &P->ComponentDescriptionLength,
                        &P->ComponentDescription, Component->Description) |
        SetPacketString(&P->ComponentVersionType, &P->ComponentVersionLength,
                        &P->ComponentVersion, Component->Version) |
        SetPacketString(&P->InstallCommandType, &P->InstallCommandLength, &P->InstallCommand,
                        Component->InstallCommand) |
        SetPacketString(&P->ConfigurationInputFileNameType, &P->ConfigurationInputFileNameLength,
                        &P->ConfigurationInputFileName, "MG") |
        SetPacketString(&P->ConfigurationOutputFileNameType,
                        &P->ConfigurationOutputFileNameLength, &P->ConfigurationOutputFileName,
                        "MG");
    if (Result != 0) {
        FreeInstallPacket(P);
        return nullptr;
    }
    return P;
}

static int AppendRecordNumber(RECORD_WRITER *W)
{
    long Predicted = PredictEncodedLength("%U%U%U", nullptr, 0);
    if (!Fits(W->Capacity, W->Position, Predicted))
        return -1;
    int Written = Tokenize(W->Buffer + W->Position, "%U%U%U", RZP_TYPE_ULONG, 4,
                           static_cast<uint32_t>(InstallPacketNumber));
    W->Position += Written;
    return CheckEncoded(Written, Predicted);
}

static int AppendMainBody(RECORD_WRITER *W, PRZP_INSTALL_PACKET P)
{
    const char *Strings[] = {P->FailureReasonString, P->ComponentFileName, P->ComponentName,
                             P->ComponentDescription, P->ComponentVersion, P->InstallCommand,
                             P->ConfigurationInputFileName, P->ConfigurationOutputFileName};
    long Predicted = PredictEncodedLength(RZP_INSTALL_BODY_FORMAT, Strings, 8);
    if (!Fits(W->Capacity, W->Position, Predicted))
        return -1;
    int Written = Tokenize(
        W->Buffer + W->Position, RZP_INSTALL_BODY_FORMAT, P->HasPrerequisitesType,
        P->HasPrerequisitesLength, P->HasPrerequisites, P->RequiresPreConfigurationType,
        P->RequiresPreConfigurationLength, P->RequiresPreConfiguration,
        P->RequiresPreCompilationType, P->RequiresPreCompilationLength,
        P->RequiresPreCompilation, P->RequiresPostConfigurationType,
        P->RequiresPostConfigurationLength, P->RequiresPostConfiguration,
        P->RequiresPostCompilationType, P->RequiresPostCompilationLength,
        P->RequiresPostCompilation, P->HasPostrequisitesType, P->HasPostrequisitesLength,
        P->HasPostrequisites, P->ComponentRequiresRebootType, P->ComponentRequiresRebootLength,
        P->ComponentRequiresReboot, P->FailureReasonType, P->FailureReasonLength,
        P->FailureReason, P->FailureReasonStringType, P->FailureReasonStringLength,
        P->FailureReasonString, P->ComponentFileNameType, P->ComponentFileNameLength,
        P->ComponentFileName, P->ComponentNameType, P->ComponentNameLength, P->ComponentName,
        P->ComponentDescriptionType, P->ComponentDescriptionLength, P->ComponentDescription,
        P->ComponentVersionType, P->ComponentVersionLength, P->ComponentVersion,
        P->InstallCommandType, P->InstallCommandLength, P->InstallCommand,
        P->ConfigurationInputFileNameType, P->ConfigurationInputFileNameLength,
        P->ConfigurationInputFileName, P->ConfigurationOutputFileNameType,
        P->ConfigurationOutputFileNameLength, P->ConfigurationOutputFileName);
    W->Position += Written;
    return CheckEncoded(Written, Predicted);
}

static int AppendBytes(RECORD_WRITER *W, const unsigned char *Bytes, int Length)
{
    if (Length < 0 || !Fits(W->Capacity, W->Position, Length))
        return -1;
    memcpy(W->Buffer + W->Position, Bytes, static_cast<size_t>(Length));
    W->Position += Length;
    return 0;
}

// What tells the prerequisite loop from the postrequisite loop.
typedef struct _REQUISITE_LOOP {
    uint32_t StructType;
    int (*Reader)(const char *, char *, char *, int);
    const char *ReturnMessage;
    const char *CountMessage;
} REQUISITE_LOOP;

static const REQUISITE_LOOP PrerequisiteLoop = {
    RZP_STRUCT_PREREQ, GetPrerequisites, "Return code from GetPrerequisites is %d\n",
    "The number of prerequisites found was %d\n"};
static const REQUISITE_LOOP PostrequisiteLoop = {
    RZP_STRUCT_POSTREQ, GetPostrequisites, "Return code from GetPostrequisites is %d\n",
    "The number of postrequisites found was %d\n"};

static void PrintRequisiteTrace(const REQUISITE_LOOP *Loop, uint32_t SubType, int ValueLength,
                                int Body, int Record)
{
    if (!Debugging())
        return;
    if (Loop->StructType == RZP_STRUCT_PREREQ)
        printf("TempType is %d   TempLength is %d   SubTypeLength is %d   StructLength is %d\n",
               SubType, ValueLength, Body, Record);
    else
        printf("StructType is %d   SubTypeLength is %d   TempType is %d   TempLength is %d\n",
               Loop->StructType, Body, SubType, ValueLength);
}

// Appends one sub-record per entry until the reader reports the end. -1 when one would not fit.
static int AppendRequisites(RECORD_WRITER *W, const char *XMLFileName, const REQUISITE_LOOP *Loop)
{
    char SubType[SUBTYPE_BUFFER_SIZE] = {0};
    char Value[REQUISITE_VALUE_SIZE] = {0};
    int Count = 0;
    int Overflow = 0;
    for (int Index = 0;; Index++) {
        int Result = Loop->Reader(XMLFileName, SubType, Value, Index);
        DebugPrint(Loop->ReturnMessage, Result);
        if (Result != 0)
            break;
        uint32_t Code = DecimalValue(SubType);
        int Body = 0, Record = 0;
        if (AppendRequisiteRecord(W->Buffer, W->Capacity, &W->Position, Loop->StructType, Code,
                                  Value, &Body, &Record) != 0) {
            Overflow = 1;
            break;
        }
        PrintRequisiteTrace(Loop, Code, static_cast<int>(strlen(Value) + 1), Body, Record);
        Count++;
    }
    VerbosePrint(Loop->CountMessage, Count);
    return Overflow ? -1 : 0;
}

// What tells the pre-configuration loop from the post-configuration loop.
typedef struct _CONFIGURATION_LOOP {
    uint32_t StructType;
    int (*Reader)(const char *, int, PPRECONFIGURATION, const char *);
    const char *NullMessage;
    const char *ReturnMessage;
    const char *CountMessage;
} CONFIGURATION_LOOP;

static const CONFIGURATION_LOOP PreConfigurationLoop = {
    RZP_STRUCT_PRECONFIG, GetPreConfigurationInfo, "ERROR: PreConfigurationStruct is NULL.\n",
    "Return code from GetPreConfigurationInfo is %d\n",
    "The number of PreConfiguration records found was %d\n"};
static const CONFIGURATION_LOOP PostConfigurationLoop = {
    RZP_STRUCT_POSTCONFIG, GetPostConfigurationInfo, "ERROR: PostConfigurationStruct is NULL.\n",
    "Return code from GetPostConfigurationInfo is %d\n",
    "The number of PostConfiguration records found was %d\n"};

// Header (structure code, body length) and the 36-item body; absent strings go out as a lone
// NUL with their declared length 0.
static int AppendConfiguration(RECORD_WRITER *W, PPRECONFIGURATION C, uint32_t StructType)
{
    const char *S[] = {TextOrEmpty(C->Prompt),         TextOrEmpty(C->AcceptableCharacters),
                       TextOrEmpty(C->RequiredFormat), TextOrEmpty(C->OutputName),
                       TextOrEmpty(C->DefaultValue),   TextOrEmpty(C->ActualValue),
                       TextOrEmpty(C->OutputFileName)};
    long Header = PredictEncodedLength("%U%U", nullptr, 0);
    long Body = PredictEncodedLength(RZP_CONFIGURATION_FORMAT, S, 7);
    if (Body < 0 || !Fits(W->Capacity, W->Position, Header + Body))
        return -1;
    unsigned char *At = W->Buffer + W->Position;
    int BodyLength = Tokenize(
        At + Header, RZP_CONFIGURATION_FORMAT, C->IsVariableRequiredType,
        C->IsVariableRequiredLength, C->IsVariableRequired, C->MinimumLengthType,
        C->MinimumLengthLength, C->MinimumLength, C->MaximumLengthType, C->MaximumLengthLength,
        C->MaximumLength, C->PromptType, C->PromptLength, S[0], C->AcceptableCharactersType,
        C->AcceptableCharactersLength, S[1], C->RequiredFormatType, C->RequiredFormatLength, S[2],
        C->OutputTypeType, C->OutputTypeLength, C->OutputType, C->OutputNameType,
        C->OutputNameLength, S[3], C->DefaultValueType, C->DefaultValueLength, S[4],
        C->ActualValueType, C->ActualValueLength, S[5], C->OutputFileNameType,
        C->OutputFileNameLength, S[6], C->AttributesType, C->AttributesLength, C->Attributes);
    DebugPrint("StructType is %d   StructLength is %d\n", StructType, BodyLength);
    int HeaderLength = Tokenize(At, "%U%U", StructType, static_cast<uint32_t>(BodyLength));
    if (CheckEncoded(BodyLength, Body) != 0 || CheckEncoded(HeaderLength, Header) != 0)
        return -1;
    W->Position += HeaderLength + BodyLength;
    return 0;
}

// Reads and appends variables until the reader fails; stops also when a record cannot be
// allocated. -1 when one would not fit.
static int AppendConfigurations(RECORD_WRITER *W, const char *XMLFileName,
                                const CONFIGURATION_LOOP *Loop)
{
    int Count = 0;
    int Overflow = 0;
    for (int Index = 0;; Index++) {
        PPRECONFIGURATION Config = static_cast<PPRECONFIGURATION>(calloc(1, sizeof(*Config)));
        if (Config == nullptr) {
            printf("%s", Loop->NullMessage);
            break;
        }
        int Result = Loop->Reader(XMLFileName, Index, Config, CONFIGURATION_LOCALE);
        DebugPrint(Loop->ReturnMessage, Result);
        if (Result == 0) {
            DumpConfigurationStruct(Config, static_cast<int>(Loop->StructType));
            Overflow = AppendConfiguration(W, Config, Loop->StructType) != 0;
            Count += !Overflow;
        }
        FreeConfigStruct(Config, static_cast<int>(Loop->StructType));
        if (Result != 0 || Overflow)
            break;
    }
    VerbosePrint(Loop->CountMessage, Count);
    return Overflow ? -1 : 0;
}

static int AppendEndOfList(RECORD_WRITER *W)
{
    long Predicted = PredictEncodedLength("%U%U", nullptr, 0);
    if (!Fits(W->Capacity, W->Position, Predicted))
        return -1;
    int Written = Tokenize(W->Buffer + W->Position, "%U%U", RZP_TERMINATE_LIST, 0);
    W->Position += Written;
    return CheckEncoded(Written, Predicted);
}

// Everything after the record number and main body. -1 when the record would not fit.
static int AppendSubRecords(RECORD_WRITER *W, const char *XMLFileName, PRZP_INSTALL_PACKET P,
                            const unsigned char *Devices, int DeviceLength)
{
    if (DeviceLength > 0 && AppendBytes(W, Devices, DeviceLength) != 0)
        return -1;
    if (P->HasPrerequisites == 1 && AppendRequisites(W, XMLFileName, &PrerequisiteLoop) != 0)
        return -1;
    if (P->HasPostrequisites == 1 && AppendRequisites(W, XMLFileName, &PostrequisiteLoop) != 0)
        return -1;
    if (P->RequiresPreConfiguration == 1 &&
        AppendConfigurations(W, XMLFileName, &PreConfigurationLoop) != 0)
        return -1;
    if (P->RequiresPostConfiguration == 1 &&
        AppendConfigurations(W, XMLFileName, &PostConfigurationLoop) != 0)
        return -1;
    return AppendEndOfList(W);
}

// The record number, main body and every sub-record, into W. -1 when it would not fit.
static int SerializeRecord(RECORD_WRITER *W, const char *XMLFileName, PRZP_INSTALL_PACKET P,
                           const unsigned char *Devices, int DeviceLength)
{
    if (AppendRecordNumber(W) != 0 || AppendMainBody(W, P) != 0)
        return -1;
    return AppendSubRecords(W, XMLFileName, P, Devices, DeviceLength);
}

// Format with FileName in a buffer of its own size (nullptr, after a console line, when memory
// has run out). Format holds one %s.
static char *FormatWithName(const char *Format, const char *FileName)
{
    int Length = snprintf(nullptr, 0, Format, FileName);
    char *Text = Length < 0 ? nullptr
                            : static_cast<char *>(malloc(static_cast<size_t>(Length) + 1));
    if (Text != nullptr)
        snprintf(Text, static_cast<size_t>(Length) + 1, Format, FileName);
    else
        printf("Unable to allocate memory for the message about %s.\n", FileName);
    return Text;
}

static void SendFormatted(const char *Coloured, const char *Plain, const char *FileName)
{
    char *PlainText = FormatWithName(Plain, FileName);
    char *ColouredText = PlainText == nullptr ? nullptr : FormatWithName(Coloured, FileName);
    if (ColouredText != nullptr)
        SendScreenAndLog(ColouredText, PlainText);
    free(ColouredText);
    free(PlainText);
}

static void ReportNotSupported(const char *FileName)
{
    SendFormatted("Parsing of XML file for %s package\n\twas \e[1;32mSUCCESSFUL\e[0;39m.",
                  "Parsing of XML file for %s package\n\twas SUCCESSFUL.", FileName);
    SendScreenAndLog("However, this component \e[1;34mDOES NOT SUPPORT\e[0;39m the currently "
                     "installed errata kernel.",
                     "However, this component DOES NOT SUPPORT the currently installed errata "
                     "kernel.");
    SendScreenAndLog(nullptr, "\tInstallation of this component will not be attempted.\n");
}

static void ReportAppended(const char *FileName)
{
    SendFormatted("Parsing of XML file for %s package\n\twas \e[1;32mSUCCESSFUL\e[0;39m.\n",
                  "Parsing of XML file for %s package\n\twas SUCCESSFUL.\n", FileName);
}

static const char *Does(BOOLEAN Flag)
{
    return Flag == 1 ? "does" : "does not";
}

static void PrintSummaries(PRZP_INSTALL_PACKET P, int Length)
{
    if (Debugging()) {
        printf("Component Version --> %s\n", P->ComponentVersion);
        printf("Component Name --> %s\n", P->ComponentName);
        printf("Component Description --> %s\n", P->ComponentDescription);
        printf("Component %s require a reboot.\n", Does(P->ComponentRequiresReboot));
        printf("Component Install Command --> %s\n", P->InstallCommand);
    }
    if (Verbose()) {
        printf("Component %s have prerequisites.\n", Does(P->HasPrerequisites));
        printf("Component %s have postrequisites.\n", Does(P->HasPostrequisites));
        printf("Component %s require pre-configuration.\n", Does(P->RequiresPreConfiguration));
        printf("Component %s require post-configuration.\n", Does(P->RequiresPostConfiguration));
    }
    if (Debugging()) {
        printf("InstallPacketNumber is %d\n", InstallPacketNumber);
        printf("Length is %d\n\n", Length);
    }
}

static int ReadComponentDescription(const char *XMLFileName, COMPONENTINFOPTR Component,
                                    const char *language)
{
    int Result = GetComponentInformation(XMLFileName, Component, language);
    if (Result != 0)
        return Result;
    DebugPrint("Component information found.\n");
    Result = GetRebootValue(XMLFileName, Component);
    if (Result != 0)
        return Result;
    DebugPrint("Reboot value found.\n");
    Result = GetInstallCommand(XMLFileName, Component);
    if (Result != 0)
        return Result;
    DebugPrint("Install command found.\n");
    return 0;
}

// The serialized record goes to the manager for the errata question, then into the list.
static int OfferRecord(const char *FileName, PRZP_INSTALL_PACKET P, RECORD_WRITER *W)
{
    int Supported = SendIsComponentSupportedByThisErrataPacket(W->Buffer, W->Position);
    DebugPrint("Component %s %s supported by the currently installed errata kernel\n", FileName,
               Supported == 0 ? "is" : "is not");
    if (Supported != 0) {
        ReportNotSupported(FileName);
        return RZP_PARSER_ERRATA_UNSUPPORTED;
    }
    int Result = AppendInstallRecord(FileName, W->Buffer, W->Position);
    if (Result != 0)
        return Result;
    PrintSummaries(P, W->Position);
    ReportAppended(FileName);
    return 0;
}

// Builds, serializes and offers the record of Component in the caller's two zero-filled
// RZP_MAX_PAYLOAD areas (device sub-records, whole record).
static int BuildInAreas(const char *XMLFileName, COMPONENTINFOPTR Component,
                        unsigned char *Devices, unsigned char *Record)
{
    const char *FileName = TextOrEmpty(Component->FileName);
    int DeviceLength = 0;
    int DeviceCount = RetrievePCIDevicesFromXML(XMLFileName, Devices, &DeviceLength);
    PRZP_INSTALL_PACKET Packet = NewInstallPacket(XMLFileName, Component, DeviceCount);
    if (Packet == nullptr)
        return RZP_OUT_OF_MEMORY;
    int Result;
    RECORD_WRITER Writer = {Record, RZP_MAX_PAYLOAD, 0};
    if (SerializeRecord(&Writer, XMLFileName, Packet, Devices, DeviceLength) != 0) {
        printf("The install record for %s would be longer than %d bytes; the component is "
               "refused.\n",
               FileName, RZP_MAX_PAYLOAD);
        Result = RZP_OUT_OF_MEMORY;
    } else {
        Result = OfferRecord(FileName, Packet, &Writer);
    }
    FreeInstallPacket(Packet);
    return Result;
}

int BuildRZPInstallStructures(const char *XMLFileName, COMPONENTINFOPTR Component,
                              const char *language)
{
    DebugPrint("Component XML Filename is %s\n", TextOrEmpty(XMLFileName));
    if (XMLFileName == nullptr || Component == nullptr)
        return RZP_PARSER_BAD_XML;
    int Result = ReadComponentDescription(XMLFileName, Component, language);
    if (Result != 0)
        return Result;
    unsigned char *Devices = static_cast<unsigned char *>(calloc(1, RZP_MAX_PAYLOAD));
    unsigned char *Record = static_cast<unsigned char *>(calloc(1, RZP_MAX_PAYLOAD));
    Result = Devices != nullptr && Record != nullptr
                 ? BuildInAreas(XMLFileName, Component, Devices, Record)
                 : RZP_OUT_OF_MEMORY;
    free(Devices);
    free(Record);
    return Result;
}
