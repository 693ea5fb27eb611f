// fuzz_records.cpp - libFuzzer target: arbitrary bytes as one serialized install record through
// the reference manager's strict decoder, and the same bytes read item by item with the
// bounded payload cursor. Nothing may be read outside the input; a decoded record's strings
// must lie inside it. Writes no globals.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "harness.h"
#include "zelrzpmanager.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    HarnessSilence();
    return 0;
}

// Reads the payload as a run of items of any known type until the cursor fails.
static void WalkItems(const std::vector<unsigned char> &Payload)
{
    ZmReader Reader = ZmReaderOf(Payload);
    for (int Item = 0; Item < 4096 && Reader.Error.empty(); Item++) {
        uint32_t Type = 0, Value = 0;
        bool Flag = false;
        std::string Text;
        size_t Start = Reader.Offset;
        if (!ZmReadU32(&Reader, &Type))
            break;
        Reader.Offset = Start;
        if (Type == RZP_TYPE_BOOL)
            ZmReadBoolItem(&Reader, "bool", &Flag);
        else if (Type == RZP_TYPE_STRING)
            ZmReadStringItem(&Reader, "string", &Text, nullptr, Item % 2 == 0);
        else
            ZmReadU32Item(&Reader, Type, "number", &Value);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    ZmRecord Record;
    std::string Error;
    if (ZmDecodeRecord(Data, Size, &Record, &Error) == 0) {
        size_t Text = Record.FileName.size() + Record.Name.size() + Record.Description.size() +
                      Record.Version.size() + Record.InstallCommand.size();
        if (Text > Size)
            abort(); // every string comes from the input
    }
    WalkItems(std::vector<unsigned char>(Data, Data + Size));
    return 0;
}
