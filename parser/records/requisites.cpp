// requisites.cpp - the readers of a component's prerequisite and postrequisite lists for the
// installed distribution, and the small helpers that every list reader of an install record
// shares (the walk to the n-th entry, decimal attribute values). Writes no globals.
#include <cstdio>
#include <cstring>

#include "records.h"
#include "runflags.h"
#include "support.h"

// Names and messages that tell the two requisite lists apart.
typedef struct _REQUISITE_LIST {
    const char *Section; // below the installed OS element; also the missing-section word
    const char *Entry;   // one element per entry
} REQUISITE_LIST;

static const REQUISITE_LIST PrerequisiteList = {"prerequisites", "prerequisite_data"};
static const REQUISITE_LIST PostrequisiteList = {"postrequisites", "postrequisite_data"};

SECTIONPTR FindNthChildOf(SECTIONPTR Parent, const char *SectionName, int Index)
{
    if (Parent == nullptr || Index < 0)
        return nullptr;
    SECTIONPTR Section = FindFirstChildOf(Parent, SectionName);
    for (int Step = 0; Section != nullptr && Step < Index; Step++)
        Section = GetNextSibling(Section);
    return Section;
}

SECTIONPTR FindPlatformEntry(const char *XMLFileName, const char *ListName, const char *EntryName,
                             int LineNumber)
{
    const XMLSTEP Steps[] = {{"zel_package", "zel_package"},
                             {"platform_specific", nullptr},
                             {"LINUX", nullptr},
                             {XML_INSTALLED_OS, nullptr},
                             {ListName, ListName}};
    int Failure = XML_WALK_OK;
    SECTIONPTR List = WalkToSection(XMLFileName, Steps, 5, &Failure);
    return FindNthChildOf(List, EntryName, LineNumber);
}

uint32_t DecimalValue(const char *Text)
{
    uint64_t Value = 0;
    if (Text == nullptr)
        return 0;
    for (const char *p = Text; *p >= '0' && *p <= '9'; p++) {
        Value = Value * 10 + static_cast<uint64_t>(*p - '0');
        if (Value > UINT32_MAX)
            return UINT32_MAX;
    }
    return static_cast<uint32_t>(Value);
}

// An attribute text that does not fit its caller's buffer is refused, never cut: a cut
// subtype or value would name another check. Returns 1 (with the message) when refused.
static int RefuseLongAttribute(const char *Entry, int LineNumber, const char *Attribute,
                               const char *Text, size_t BufferSize)
{
    if (strlen(Text) < BufferSize)
        return 0;
    printf("The '%s' attribute of %s entry %d is longer than %d characters; that entry and the "
           "entries after it are left out.\n",
           Attribute, Entry, LineNumber, static_cast<int>(BufferSize - 1));
    return 1;
}

static int GetRequisite(const REQUISITE_LIST *List, const char *XMLFileName, char *SubType,
                        char *SubTypeValue, int LineNumber)
{
    SECTIONPTR Entry = FindPlatformEntry(XMLFileName, List->Section, List->Entry, LineNumber);
    if (Entry == nullptr)
        return RZP_PARSER_BAD_XML;
    const char *TypeText = GetAttribute(Entry, "SubType");
    const char *ValueText = GetAttribute(Entry, "value");
    if (TypeText == nullptr || ValueText == nullptr)
        return RZP_PARSER_BAD_XML;
    if (SubType == nullptr || SubTypeValue == nullptr)
        return RZP_OUT_OF_MEMORY;
    if (RefuseLongAttribute(List->Entry, LineNumber, "SubType", TypeText, SUBTYPE_BUFFER_SIZE) ||
        RefuseLongAttribute(List->Entry, LineNumber, "value", ValueText, REQUISITE_VALUE_SIZE))
        return RZP_PARSER_BAD_XML;
    CopyBounded(SubType, SUBTYPE_BUFFER_SIZE, TypeText);
    CopyBounded(SubTypeValue, REQUISITE_VALUE_SIZE, ValueText);
    DebugPrint("Found SubType--> %s     Found Value--> %s\n", SubType, SubTypeValue);
    return 0;
}

int GetPrerequisites(const char *XMLFileName, char *SubType, char *SubTypeValue, int LineNumber)
{
    return GetRequisite(&PrerequisiteList, XMLFileName, SubType, SubTypeValue, LineNumber);
}

int GetPostrequisites(const char *XMLFileName, char *SubType, char *SubTypeValue, int LineNumber)
{
    return GetRequisite(&PostrequisiteList, XMLFileName, SubType, SubTypeValue, LineNumber);
}
