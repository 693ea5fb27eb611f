// pcidevices.cpp - the PCI devices that a component supports: reading one device identifier
// (vendor.device.subvendor.subdevice) per call, and serializing all of them as prerequisite
// sub-records of subtype 8 for the install record. Writes no globals.
#include <cstdio>
#include <cstring>

#include "records.h"
#include "runflags.h"

#define PCI_PART_COUNT 4
#define PCI_PART_MAX 4 /* hexadecimal digits of one identifier part */

// The name attribute of each supported_device_data element, in identifier order.
static const char *const PCIPartNames[PCI_PART_COUNT] = {"ven", "dev", "subven", "subdev"};

static int PartIndex(const char *Name)
{
    for (int Index = 0; Index < PCI_PART_COUNT; Index++)
        if (strcmp(Name, PCIPartNames[Index]) == 0)
            return Index;
    return -1;
}

// Fills Parts (pointers into the tree, "0000" where nothing is given) from the data elements
// of Device. -504 for a data element without a known name or with a part too long to be an
// identifier part (refused, not cut: a cut part names another device).
static int ReadDeviceParts(SECTIONPTR Device, const char *Parts[PCI_PART_COUNT], int LineNumber)
{
    for (int Index = 0; Index < PCI_PART_COUNT; Index++)
        Parts[Index] = "0000";
    for (SECTIONPTR Data = FindFirstChildOf(Device, "supported_device_data"); Data != nullptr;
         Data = GetNextSibling(Data)) {
        const char *Name = GetAttribute(Data, "name");
        int Index = Name == nullptr ? -1 : PartIndex(Name);
        if (Index < 0)
            return RZP_PARSER_BAD_XML;
        const char *Text = GetFirstToken(Data);
        if (Text != nullptr && strlen(Text) > PCI_PART_MAX) {
            printf("The '%s' identifier part of supported device entry %d is longer than %d "
                   "characters; that entry and the entries after it are left out.\n",
                   Name, LineNumber, PCI_PART_MAX);
            return RZP_PARSER_BAD_XML;
        }
        Parts[Index] = Text == nullptr ? "0000" : Text;
    }
    return 0;
}

int GetPCIDevices(const char *XMLFileName, char *Value, int LineNumber)
{
    const XMLSTEP Steps[] = {{"zel_package", "zel_package"},
                             {"prerequisites", "prerequisite"},
                             {"supported_devices", "supported_devices"}};
    int Failure = XML_WALK_OK;
    SECTIONPTR Devices = WalkToSection(XMLFileName, Steps, 3, &Failure);
    SECTIONPTR Entry = FindNthChildOf(Devices, "supported_devices_and", LineNumber);
    if (Entry == nullptr)
        return RZP_PARSER_BAD_XML;
    SECTIONPTR Device = FindFirstChildOf(Entry, "supported_device");
    if (Device == nullptr) {
        PrintMissingSection("supported_device");
        return RZP_PARSER_BAD_XML;
    }
    const char *Parts[PCI_PART_COUNT];
    if (ReadDeviceParts(Device, Parts, LineNumber) != 0)
        return RZP_PARSER_BAD_XML;
    if (Value == nullptr)
        return RZP_OUT_OF_MEMORY;
    snprintf(Value, REQUISITE_VALUE_SIZE, "%s.%s.%s.%s", Parts[0], Parts[1], Parts[2], Parts[3]);
    DebugPrint("PCI Device found Value--> %s\n", Value);
    return 0;
}

int RetrievePCIDevicesFromXML(const char *XMLFileName, unsigned char *Buffer, int *BufferLength)
{
    char Value[REQUISITE_VALUE_SIZE] = {0};
    int Position = 0;
    int Count = 0;
    if (Buffer == nullptr || BufferLength == nullptr)
        return 0;
    for (int Index = 0;; Index++) {
        int Result = GetPCIDevices(XMLFileName, Value, Index);
        DebugPrint("Return code from GetPCIDevices is %d\n", Result);
        if (Result != 0)
            break;
        int BodyLength = 0, RecordLength = 0;
        if (AppendRequisiteRecord(Buffer, RZP_MAX_PAYLOAD, &Position, RZP_STRUCT_PREREQ,
                                  SUBTYPE_PCI_DEVICE_PRESENT, Value, &BodyLength,
                                  &RecordLength) != 0) {
            printf("The supported devices of %s do not fit in one install record; device entry "
                   "%d and the entries after it are left out.\n",
                   XMLFileName, Index);
            break;
        }
        DebugPrint("TempType is %d   TempLength is %d   SubTypeLength is %d   StructLength is %d\n",
                   SUBTYPE_PCI_DEVICE_PRESENT, static_cast<int>(strlen(Value) + 1), BodyLength,
                   RecordLength);
        Count++;
    }
    VerbosePrint("The number of PCI Device records found was %d\n", Count);
    *BufferLength = Position;
    return Count;
}
