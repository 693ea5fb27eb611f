// records.cpp - the strict decoder of one serialized install record, the walk over all records
// of a parsed bundle, and the names of the requisite subtypes and result codes. Writes no
// globals; every read is checked against the buffer's end.
#include <new>
#include <set>

#include "zelrzpmanager.h"

// ---- Install record ----------------------------------------------------------------------------

static bool ReadMainBody(ZmReader *C, ZmRecord *R)
{
    uint32_t Reason = 0;
    ZmReadBoolItem(C, "HasPrerequisites", &R->HasPrerequisites);
    ZmReadBoolItem(C, "RequiresPreConfiguration", &R->RequiresPreConfiguration);
    ZmReadBoolItem(C, "RequiresPreCompilation", &R->RequiresPreCompilation);
    ZmReadBoolItem(C, "RequiresPostConfiguration", &R->RequiresPostConfiguration);
    ZmReadBoolItem(C, "RequiresPostCompilation", &R->RequiresPostCompilation);
    ZmReadBoolItem(C, "HasPostrequisites", &R->HasPostrequisites);
    ZmReadBoolItem(C, "ComponentRequiresReboot", &R->ComponentRequiresReboot);
    if (ZmReadU32Item(C, RZP_TYPE_SLONG, "FailureReason", &Reason))
        R->FailureReason = (int32_t)Reason;
    ZmReadStringItem(C, "FailureReasonString", &R->FailureReasonString, nullptr);
    ZmReadStringItem(C, "ComponentFileName", &R->FileName, nullptr);
    ZmReadStringItem(C, "ComponentName", &R->Name, nullptr);
    ZmReadStringItem(C, "ComponentDescription", &R->Description, nullptr);
    ZmReadStringItem(C, "ComponentVersion", &R->Version, nullptr);
    ZmReadStringItem(C, "InstallCommand", &R->InstallCommand, nullptr);
    ZmReadStringItem(C, "ConfigurationInputFileName", &R->ConfigurationInputFileName, nullptr);
    ZmReadStringItem(C, "ConfigurationOutputFileName", &R->ConfigurationOutputFileName, nullptr);
    return C->Error.empty();
}

// Checks that a sub-record's content took exactly the bytes its header declared.
static bool CheckBodyEnd(ZmReader *C, size_t Start, uint32_t BodyLength, const char *Name)
{
    if (!C->Error.empty())
        return false;
    if (C->Offset - Start != BodyLength)
        return ZmReaderFail(C, std::string(Name) + " declares " + std::to_string(BodyLength) +
                                 " bytes but holds " + std::to_string(C->Offset - Start));
    return true;
}

static bool ReadBodyLength(ZmReader *C, uint32_t *BodyLength)
{
    if (!ZmReadU32(C, BodyLength))
        return false;
    if (*BodyLength > C->Length - C->Offset)
        return ZmReaderFail(C, "sub-record length " + std::to_string(*BodyLength) +
                                 " runs past the end of the record");
    return true;
}

static bool ReadRequisite(ZmReader *C, uint32_t Structure, ZmRecord *R)
{
    ZmRequisite Q;
    uint32_t BodyLength = 0, ValueLength = 0;
    Q.Structure = Structure;
    if (!ReadBodyLength(C, &BodyLength))
        return false;
    size_t Start = C->Offset;
    ZmReadU32(C, &Q.SubType);
    ZmReadU32(C, &ValueLength);
    ZmReadText(C, &Q.Value);
    if (!CheckBodyEnd(C, Start, BodyLength, "requisite"))
        return false;
    if (ValueLength != Q.Value.size() + 1)
        return ZmReaderFail(C, "requisite value of " + std::to_string(Q.Value.size()) +
                                 " bytes declared as " + std::to_string(ValueLength));
    R->Requisites.push_back(Q);
    return true;
}

static bool ReadConfiguration(ZmReader *C, uint32_t Structure, ZmRecord *R)
{
    ZmConfigVariable V;
    uint32_t BodyLength = 0;
    V.Structure = Structure;
    if (!ReadBodyLength(C, &BodyLength))
        return false;
    size_t Start = C->Offset;
    ZmReadBoolItem(C, "IsVariableRequired", &V.IsVariableRequired);
    ZmReadU32Item(C, RZP_TYPE_ULONG, "MinimumLength", &V.MinimumLength);
    ZmReadU32Item(C, RZP_TYPE_ULONG, "MaximumLength", &V.MaximumLength);
    ZmReadStringItem(C, "Prompt", &V.Prompt, &V.HasPrompt);
    ZmReadStringItem(C, "AcceptableCharacters", &V.AcceptableCharacters, &V.HasAcceptableCharacters);
    ZmReadStringItem(C, "RequiredFormat", &V.RequiredFormat, &V.HasRequiredFormat);
    ZmReadU32Item(C, RZP_TYPE_ULONG, "OutputType", &V.OutputType);
    ZmReadStringItem(C, "OutputName", &V.OutputName, &V.HasOutputName);
    ZmReadStringItem(C, "DefaultValue", &V.DefaultValue, &V.HasDefaultValue);
    ZmReadStringItem(C, "ActualValue", &V.ActualValue, &V.HasActualValue);
    ZmReadStringItem(C, "OutputFileName", &V.OutputFileName, &V.HasOutputFileName);
    ZmReadU32Item(C, RZP_TYPE_ULONG, "Attributes", &V.Attributes);
    if (!CheckBodyEnd(C, Start, BodyLength, "configuration record"))
        return false;
    R->Configuration.push_back(V);
    return true;
}

// Sub-records follow the main body in any order; the list ends with 999 and a 0.
static bool ReadSubRecords(ZmReader *C, ZmRecord *R)
{
    for (;;) {
        uint32_t Code = 0, Zero = 0;
        if (!ZmReadU32(C, &Code))
            return false;
        if (Code == RZP_STRUCT_PREREQ || Code == RZP_STRUCT_POSTREQ) {
            if (!ReadRequisite(C, Code, R))
                return false;
        } else if (Code == RZP_STRUCT_PRECONFIG || Code == RZP_STRUCT_POSTCONFIG) {
            if (!ReadConfiguration(C, Code, R))
                return false;
        } else if (Code == RZP_TERMINATE_LIST) {
            if (!ZmReadU32(C, &Zero))
                return false;
            if (Zero != 0)
                return ZmReaderFail(C, "end of list with value " + std::to_string(Zero));
            return true;
        } else {
            C->Offset -= 4;
            return ZmReaderFail(C, "unknown structure code " + std::to_string(Code));
        }
    }
}

static int DecodeRecord(const unsigned char *Bytes, size_t Length, ZmRecord *Record,
                        std::string *Error)
{
    ZmReader C;
    C.Bytes = Bytes;
    C.Length = Bytes == nullptr ? 0 : Length;
    ZmRecord R;
    ZmReadU32Item(&C, RZP_TYPE_ULONG, "record number", &R.Number);
    if (ReadMainBody(&C, &R) && ReadSubRecords(&C, &R) && C.Offset != C.Length)
        ZmReaderFail(&C, std::to_string(C.Length - C.Offset) + " bytes after the end of list");
    if (!C.Error.empty()) {
        if (Error != nullptr)
            *Error = C.Error;
        return -1;
    }
    if (Record != nullptr)
        *Record = std::move(R); // allocates nothing: the record is whole or untouched
    return 0;
}

int ZmDecodeRecord(const unsigned char *Bytes, size_t Length, ZmRecord *Record, std::string *Error)
{
    try {
        return DecodeRecord(Bytes, Length, Record, Error);
    } catch (const std::bad_alloc &) {
        if (Error != nullptr)
            *Error = "out of memory"; // fits the string's own storage: allocates nothing
        return -1;
    }
}

const char *ZmSubTypeName(uint32_t SubType)
{
    static const char *const Names[] = {
        "SUBTYPE_LIBRARY_FILE_PRESENCE", "SUBTYPE_EXECUTE_COMMAND",
        "SUBTYPE_FILE_PRESENCE",         "SUBTYPE_RUN_SCRIPT_FILE",
        "SUBTYPE_DIRECTORY_PRESENCE",    "SUBTYPE_MINIMUM_KERNEL_VERSION",
        "SUBTYPE_MAXIMUM_KERNEL_VERSION", "SUBTYPE_PCI_DEVICE_PRESENT",
        "SUBTYPE_ENVIRONMENT_VARIABLE",  "SUBTYPE_OS_VERSION_SUPPORTED",
        "SUBTYPE_PROGRAM_RUNNING",
    };
    if (SubType >= 1 && SubType <= 11)
        return Names[SubType - 1];
    return "SUBTYPE_UNKNOWN";
}

std::string ZmResultText(int32_t Code)
{
    return std::to_string(Code) + " (" + RZPResultName(Code) + ")";
}

// ---- Walking all records -----------------------------------------------------------------------
// More records than this in one answer stream means the sub-service hands out a cycle.
#define ZM_MAX_RECORDS 100000

static int FetchFail(std::string *Error, const std::string &What)
{
    if (Error != nullptr)
        *Error = What;
    return -1;
}

// Reads the count item of the number-of-items answer.
static int DecodeCount(const ZmPacket &Answer, int32_t *Count, std::string *Error)
{
    ZmReader C = ZmReaderOf(Answer.Payload);
    uint32_t Value = 0;
    if (!ZmReadU32Item(&C, RZP_TYPE_ULONG, "number of items", &Value))
        return FetchFail(Error, "malformed number-of-items answer: " + C.Error);
    *Count = (int32_t)Value;
    return 0;
}

int ZmFetchAllRecords(ZmSession *S, std::vector<std::vector<unsigned char>> *Raw,
                      std::vector<ZmRecord> *Records, int32_t *NumberOfItems, std::string *Error)
{
    ZmPacket Answer;
    int32_t Count = 0;
    if (ZmRequest(S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS, {}, &Answer) != 0)
        return FetchFail(Error, "no answer to the number-of-items request");
    if (Answer.Header.ReturnCode != 0)
        return FetchFail(Error, "number of items answered " + ZmResultText(Answer.Header.ReturnCode));
    if (DecodeCount(Answer, &Count, Error) != 0)
        return -1;
    if (NumberOfItems != nullptr)
        *NumberOfItems = Count;
    std::set<uint32_t> Seen;
    uint32_t OpCode = RZP_PARSER_RETURN_FIRST_ITEM;
    std::vector<unsigned char> Payload;
    for (;;) {
        if (ZmRequest(S, OpCode, Payload, &Answer) != 0)
            return FetchFail(Error, "no answer to item request " + std::to_string(OpCode));
        if (Answer.Header.ReturnCode == RZP_PARSER_NO_MORE_ITEMS)
            return 0;
        if (Answer.Header.ReturnCode != 0)
            return FetchFail(Error, "item request answered " + ZmResultText(Answer.Header.ReturnCode));
        ZmRecord R;
        std::string Why;
        if (ZmDecodeRecord(Answer.Payload.data(), Answer.Payload.size(), &R, &Why) != 0)
            return FetchFail(Error, "malformed record: " + Why);
        if (!Seen.insert(R.Number).second || Seen.size() > ZM_MAX_RECORDS)
            return FetchFail(Error, "record " + std::to_string(R.Number) + " handed out twice");
        if (Raw != nullptr)
            Raw->push_back(Answer.Payload);
        if (Records != nullptr)
            Records->push_back(R);
        OpCode = RZP_PARSER_RETURN_NEXT_ITEM;
        Payload = ZmULongItem(R.Number);
    }
}
