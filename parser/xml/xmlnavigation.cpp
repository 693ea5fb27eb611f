// xmlnavigation.cpp - the read-only lookups over the one XML tree, and the helpers that every
// reader of bundle and component files shares: the current-file rule (UseXMLFile), the walk
// to an element with its "corrupt" messages, and the language selection. Writes no globals
// of its own; UseXMLFile replaces the tree through the tokenizer.
#include <cstdio>
#include <cstring>

#include "xmltokenizer.h"

// Stands for the element named by CurrentlyInstalledOS in a walk. No element can carry this
// name: the tokenizer removes '<' and '>' from every element name.
const char XML_INSTALLED_OS[] = "<installed-os>";

// ---- The current-file rule ----------------------------------------------------------------

long UseXMLFile(const char *FileName)
{
    if (CurrentXMLFileParsed == nullptr) {
        // First parse (or the last one failed): go on whatever it gives; a failure shows as
        // an empty or partial tree, which ParseFile discards before the next parse.
        ParseFile(FileName);
        return 0;
    }
    if (FileName != nullptr && strcmp(CurrentXMLFileParsed, FileName) == 0)
        return 0;
    DeleteTree();
    return ParseFile(FileName);
}

// ---- Walk and messages --------------------------------------------------------------------

void PrintMissingSection(const char *What)
{
    if (What != nullptr)
        printf("The XML file is corrupt.  The '%s' section cannot be found.\n", What);
}

// The name a step looks for: XML_INSTALLED_OS stands for CurrentlyInstalledOS (which may be
// NULL, and then nothing is found).
static const char *StepName(const XMLSTEP *Step)
{
    if (Step->Name != nullptr && strcmp(Step->Name, XML_INSTALLED_OS) == 0)
        return CurrentlyInstalledOS;
    return Step->Name;
}

SECTIONPTR WalkToSection(const char *FileName, const XMLSTEP *Steps, int StepCount,
                         int *Failure)
{
    int Ignored = 0;
    if (Failure == nullptr)
        Failure = &Ignored;
    *Failure = XML_WALK_OK;
    if (UseXMLFile(FileName) != 0) {
        *Failure = XML_WALK_SWITCH_FAILED;
        return nullptr;
    }
    SECTIONPTR Section = GetRootNode();
    if (Section == nullptr) {
        printf("The XML file is corrupt.  The root node is null.\n");
        *Failure = XML_WALK_MISSING;
        return nullptr;
    }
    for (int Index = 0; Steps != nullptr && Index < StepCount; Index++) {
        Section = FindFirstChildOf(Section, StepName(&Steps[Index]));
        if (Section == nullptr) {
            PrintMissingSection(Steps[Index].Missing);
            *Failure = XML_WALK_MISSING;
            return nullptr;
        }
    }
    return Section;
}

char *SelectLanguage(SECTIONPTR Parent, const char *ChildName, const char *Language,
                     int WantCDATA)
{
    if (Language != nullptr) {
        for (SECTIONPTR Child = FindFirstChildOf(Parent, ChildName); Child != nullptr;
             Child = GetNextSibling(Child)) {
            const char *Lang = GetAttribute(Child, "lang");
            if (strcmp(Lang != nullptr ? Lang : "", Language) != 0)
                continue;
            char *Content = WantCDATA ? GetFirstCDATAChild(Child, Language)
                                      : GetFirstChild(Child, Language);
            if (Content != nullptr)
                return Content;
        }
    }
    PrintMissingSection(ChildName);
    return nullptr;
}

// ---- Lookups --------------------------------------------------------------------------------
// All accept a NULL section and give NULL for it, so that a caller's unchecked step cannot
// crash; the readers check each step anyway.

SECTIONPTR GetRootNode(void)
{
    return FirstSection;
}

SECTIONPTR FindFirstChildOf(SECTIONPTR CurrentSection, const char *SectionName)
{
    if (CurrentSection == nullptr || SectionName == nullptr)
        return nullptr;
    for (SECTIONPTR Child = CurrentSection->Child; Child != nullptr; Child = Child->NextSibling)
        if (Child->Name != nullptr && strcmp(Child->Name, SectionName) == 0)
            return Child;
    return nullptr;
}

SECTIONPTR GetNextSibling(SECTIONPTR CurrentSection)
{
    if (CurrentSection == nullptr || CurrentSection->Name == nullptr)
        return nullptr;
    for (SECTIONPTR Next = CurrentSection->NextSibling; Next != nullptr; Next = Next->NextSibling)
        if (Next->Name != nullptr && strcmp(Next->Name, CurrentSection->Name) == 0)
            return Next;
    return nullptr;
}

char *GetAttribute(SECTIONPTR CurrentSection, const char *AttributeName)
{
    if (CurrentSection == nullptr || AttributeName == nullptr)
        return nullptr;
    for (KEYPTR Key = CurrentSection->NextKey; Key != nullptr; Key = Key->NextKey)
        if (strcmp(Key->Attribute, AttributeName) == 0)
            return Key->Value;
    return nullptr;
}

// The 1-based position of the first key whose Value equals Value, or 0 when none does.
static int PositionOfValue(SECTIONPTR CurrentSection, const char *Value)
{
    if (CurrentSection == nullptr || Value == nullptr)
        return 0;
    int Position = 1;
    for (KEYPTR Key = CurrentSection->NextKey; Key != nullptr; Key = Key->NextKey, Position++)
        if (strcmp(Key->Value, Value) == 0)
            return Position;
    return 0;
}

char *GetFirstChild(SECTIONPTR CurrentSection, const char *Value)
{
    int Position = PositionOfValue(CurrentSection, Value);
    if (Position == 0)
        return nullptr;
    TOKENPTR Token = CurrentSection->NextToken;
    while (Token != nullptr && --Position > 0)
        Token = Token->NextToken;
    return Token != nullptr ? Token->Token : nullptr;
}

char *GetFirstCDATAChild(SECTIONPTR CurrentSection, const char *Value)
{
    int Position = PositionOfValue(CurrentSection, Value);
    if (Position == 0)
        return nullptr;
    CDATAPTR Block = CurrentSection->NextCDATA;
    while (Block != nullptr && --Position > 0)
        Block = Block->NextCDATA;
    return Block != nullptr ? Block->CDATAString : nullptr;
}

char *GetFirstToken(SECTIONPTR CurrentSection)
{
    if (CurrentSection == nullptr || CurrentSection->NextToken == nullptr)
        return nullptr;
    return CurrentSection->NextToken->Token;
}

char *GetFirstCDATA(SECTIONPTR CurrentSection)
{
    if (CurrentSection == nullptr || CurrentSection->NextCDATA == nullptr)
        return nullptr;
    return CurrentSection->NextCDATA->CDATAString;
}
