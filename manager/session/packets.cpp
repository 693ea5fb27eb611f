// packets.cpp - the manager's side of payloads: the encoders of the protocol's items and the
// bounded reader whose first failure stores its reason. Writes no globals; every read is
// checked against the buffer's end.
#include <cstring>

#include "zelrzpmanager.h"

// ---- Encoders ----------------------------------------------------------------------------------

void ZmPutU32(std::vector<unsigned char> *Out, uint32_t Value)
{
    for (int i = 0; i < 4; i++)
        Out->push_back((unsigned char)(Value >> (8 * i)));
}

void ZmPutByte(std::vector<unsigned char> *Out, unsigned char Value)
{
    Out->push_back(Value);
}

void ZmPutString(std::vector<unsigned char> *Out, const std::string &Text)
{
    Out->insert(Out->end(), Text.begin(), Text.end());
    Out->push_back(0);
}

std::vector<unsigned char> ZmStringItem(const std::string &Text, int DeclaredLength)
{
    std::vector<unsigned char> Out;
    ZmPutU32(&Out, RZP_TYPE_STRING);
    ZmPutU32(&Out, DeclaredLength < 0 ? (uint32_t)Text.size() + 1 : (uint32_t)DeclaredLength);
    ZmPutString(&Out, Text);
    return Out;
}

std::vector<unsigned char> ZmULongItem(uint32_t Value)
{
    std::vector<unsigned char> Out;
    ZmPutU32(&Out, RZP_TYPE_ULONG);
    ZmPutU32(&Out, 4);
    ZmPutU32(&Out, Value);
    return Out;
}

// ---- Bounded reader ----------------------------------------------------------------------------

bool ZmReaderFail(ZmReader *R, const std::string &What)
{
    if (R->Error.empty())
        R->Error = What + " at byte " + std::to_string(R->Offset);
    return false;
}

ZmReader ZmReaderOf(const std::vector<unsigned char> &Payload)
{
    ZmReader R;
    R.Bytes = Payload.data();
    R.Length = Payload.size();
    return R;
}

bool ZmReadU32(ZmReader *R, uint32_t *Value)
{
    if (!R->Error.empty())
        return false;
    if (R->Length - R->Offset < 4)
        return ZmReaderFail(R, "payload ends inside a 4-byte value");
    const unsigned char *P = R->Bytes + R->Offset;
    *Value = (uint32_t)P[0] | (uint32_t)P[1] << 8 | (uint32_t)P[2] << 16 | (uint32_t)P[3] << 24;
    R->Offset += 4;
    return true;
}

bool ZmReadByte(ZmReader *R, unsigned char *Value)
{
    if (!R->Error.empty())
        return false;
    if (R->Offset >= R->Length)
        return ZmReaderFail(R, "payload ends inside a 1-byte value");
    *Value = R->Bytes[R->Offset++];
    return true;
}

bool ZmReadText(ZmReader *R, std::string *Text)
{
    if (!R->Error.empty())
        return false;
    if (R->Offset >= R->Length)
        return ZmReaderFail(R, "payload ends before a string");
    const void *Nul = memchr(R->Bytes + R->Offset, 0, R->Length - R->Offset);
    if (Nul == nullptr)
        return ZmReaderFail(R, "string without its terminating NUL");
    size_t End = (size_t)((const unsigned char *)Nul - R->Bytes);
    Text->assign((const char *)R->Bytes + R->Offset, End - R->Offset);
    R->Offset = End + 1;
    return true;
}

// Reads the type and length of an item and checks the type against what the layout expects.
static bool ReadItemHead(ZmReader *R, uint32_t Type, const char *Name, uint32_t *Length)
{
    uint32_t Got = 0;
    if (!ZmReadU32(R, &Got) || !ZmReadU32(R, Length))
        return false;
    if (Got != Type)
        return ZmReaderFail(R, std::string(Name) + ": item type " + std::to_string(Got) +
                                   " where " + std::to_string(Type) + " belongs");
    return true;
}

static bool CheckLength(ZmReader *R, uint32_t Length, uint32_t Want, const char *Name)
{
    if (Length != Want)
        return ZmReaderFail(R, std::string(Name) + ": declared length " + std::to_string(Length) +
                                   " where " + std::to_string(Want) + " belongs");
    return true;
}

bool ZmReadBoolItem(ZmReader *R, const char *Name, bool *Value)
{
    uint32_t Length = 0;
    unsigned char Byte = 0;
    if (!ReadItemHead(R, RZP_TYPE_BOOL, Name, &Length) || !CheckLength(R, Length, 1, Name) ||
        !ZmReadByte(R, &Byte))
        return false;
    *Value = Byte == 1;
    return true;
}

bool ZmReadU32Item(ZmReader *R, uint32_t Type, const char *Name, uint32_t *Value)
{
    uint32_t Length = 0;
    return ReadItemHead(R, Type, Name, &Length) && CheckLength(R, Length, 4, Name) &&
           ZmReadU32(R, Value);
}

bool ZmReadStringItem(ZmReader *R, const char *Name, std::string *Text, bool *Present, bool Strict)
{
    uint32_t Length = 0;
    if (!ReadItemHead(R, RZP_TYPE_STRING, Name, &Length) || !ZmReadText(R, Text))
        return false;
    bool Absent = Length == 0 && Text->empty();
    if (Present != nullptr)
        *Present = !Absent;
    if (Strict && !Absent && Length != Text->size() + 1)
        return ZmReaderFail(R, std::string(Name) + ": declared length " + std::to_string(Length) +
                                   " for a text of " + std::to_string(Text->size()) + " bytes");
    return true;
}
