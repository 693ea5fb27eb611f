// records.h - the install records: the builder that turns one component into one serialized
// record, the requisite, configuration and PCI-device readers it calls, and the list of
// accepted records. Defined in parser/records/.
#pragma once

#include <cstdint>

#include "packages.h"
#include "xmltokenizer.h"
#include "zelrzp.h"

extern PINSTALL_PACKET_LIST InstallPacketList;
extern int32_t InstallPacketNumber;
int BuildRZPInstallStructures(const char *XMLFileName, COMPONENTINFOPTR Component,
                              const char *language);
// The accepted records (recordlist.cpp). AppendInstallRecord keeps a copy of Record at the
// end of the list under the next handle: 0, or -111 with nothing kept when memory runs out.
// FindInstallRecord gives the node with Handle, or NULL; LastInstallRecord the tail, or NULL
// when the list is empty. Both take constant time.
int AppendInstallRecord(const char *FileName, const unsigned char *Record, int Length);
PINSTALL_PACKET_LIST FindInstallRecord(int32_t Handle);
PINSTALL_PACKET_LIST LastInstallRecord(void);
void FreeInstallPacketList(void);
#define SUBTYPE_BUFFER_SIZE 10    /* a requisite's subtype, a number of at most 9 digits */
#define REQUISITE_VALUE_SIZE 1024 /* a requisite's text: a path, a command or a version */
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
