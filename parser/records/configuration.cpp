// configuration.cpp - the readers of a component's pre- and post-configuration variables for
// the installed distribution, their debug dump and their release. Writes no globals; reads
// the environment variable RZPELMCONFIGURED.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "records.h"
#include "runflags.h"
#include "support.h"

#define DEFAULT_MAXIMUM_LENGTH 16384 /* no maximumlength: a payload's size, the longest answer */

// Names that tell the two configuration lists apart.
typedef struct _CONFIGURATION_LIST {
    const char *Section; // below the installed OS element; also the missing-section word
    const char *Entry;   // one element per variable
} CONFIGURATION_LIST;

static const CONFIGURATION_LIST PreConfigurationList = {"preconfiguration",
                                                        "preconfiguration_data_and"};
static const CONFIGURATION_LIST PostConfigurationList = {"postconfiguration",
                                                         "postconfiguration_data_and"};

// Variables whose prompt is not required once the management agent has been configured.
static const char *const PasswordVariables[] = {
    "QXHTTPSERVEROPERATORPASSWD", "QXHTTPSERVERADMINPASSWD", "QXHTTPSERVERUSERPASSWD"};

// Type and length fields are set up front, whether or not the value is found later.
static void SetConfigurationTypes(PPRECONFIGURATION Config)
{
    Config->IsVariableRequiredType = RZP_TYPE_BOOL;
    Config->IsVariableRequiredLength = 1;
    Config->MinimumLengthType = Config->MaximumLengthType = RZP_TYPE_ULONG;
    Config->MinimumLengthLength = Config->MaximumLengthLength = 4;
    Config->OutputTypeType = Config->AttributesType = RZP_TYPE_ULONG;
    Config->OutputTypeLength = Config->AttributesLength = 4;
    Config->PromptType = Config->AcceptableCharactersType = RZP_TYPE_STRING;
    Config->RequiredFormatType = Config->OutputNameType = RZP_TYPE_STRING;
    Config->DefaultValueType = Config->ActualValueType = RZP_TYPE_STRING;
    Config->OutputFileNameType = RZP_TYPE_STRING;
}

// Stores a copy of Text with its length (characters + 1); a NULL Text leaves the field absent
// (NULL, length 0). -111 when the copy cannot be allocated.
static int SetString(char **Field, uint32_t *Length, const char *Text)
{
    if (Text == nullptr)
        return 0;
    *Field = DuplicateString(Text);
    if (*Field == nullptr)
        return RZP_OUT_OF_MEMORY;
    *Length = static_cast<uint32_t>(strlen(Text) + 1);
    return 0;
}

static const char *AttributeOf(SECTIONPTR Entry, const char *Element, const char *Attribute)
{
    SECTIONPTR Section = FindFirstChildOf(Entry, Element);
    return Section == nullptr ? nullptr : GetAttribute(Section, Attribute);
}

static int ReadRequirements(SECTIONPTR Entry, PPRECONFIGURATION Config)
{
    SECTIONPTR Requirements = FindFirstChildOf(Entry, "requirements");
    if (Requirements == nullptr) {
        PrintMissingSection("requirements");
        return RZP_PARSER_BAD_XML;
    }
    char *Required = GetAttribute(Requirements, "required");
    if (Required == nullptr) {
        printf("The XML file is corrupt.  The 'required' attribute of the requirements section "
               "cannot be found.\n");
        Config->IsVariableRequired = 0;
    } else {
        strupr(Required);
        Config->IsVariableRequired = strcmp(Required, "YES") == 0;
    }
    Config->MinimumLength = DecimalValue(GetAttribute(Requirements, "minimumlength"));
    const char *Maximum = GetAttribute(Requirements, "maximumlength");
    Config->MaximumLength = Maximum == nullptr ? DEFAULT_MAXIMUM_LENGTH : DecimalValue(Maximum);
    return 0;
}

// The prompt in CurrentLocaleName: the first CDATA of the first prompt_xlate whose lang equals
// it exactly. A prompt_xlate without lang is passed over. A match without CDATA leaves the
// prompt absent.
static int ReadPrompt(SECTIONPTR Entry, PPRECONFIGURATION Config, const char *CurrentLocaleName)
{
    SECTIONPTR Prompt = FindFirstChildOf(Entry, "prompt");
    if (Prompt == nullptr) {
        PrintMissingSection("prompt");
        return RZP_PARSER_BAD_XML;
    }
    for (SECTIONPTR Xlate = FindFirstChildOf(Prompt, "prompt_xlate"); Xlate != nullptr;
         Xlate = GetNextSibling(Xlate)) {
        const char *Language = GetAttribute(Xlate, "lang");
        if (Language == nullptr)
            continue;
        DebugPrint("language found is %s   CurrentLocaleName is %s\n", Language,
                   CurrentLocaleName == nullptr ? "" : CurrentLocaleName);
        if (CurrentLocaleName != nullptr && strcmp(Language, CurrentLocaleName) == 0)
            return SetString(&Config->Prompt, &Config->PromptLength, GetFirstCDATA(Xlate));
    }
    PrintMissingSection("prompt_xlate");
    return RZP_PARSER_BAD_XML;
}

static int IsPasswordVariable(const char *OutputName)
{
    for (const char *Name : PasswordVariables)
        if (OutputName != nullptr && strcmp(OutputName, Name) == 0)
            return 1;
    return 0;
}

static unsigned long HexadecimalValue(const char *Text)
{
    if (Text == nullptr)
        return 0;
    unsigned long Value = strtoul(Text, nullptr, 16);
    return Value > UINT32_MAX ? UINT32_MAX : Value;
}

// Everything after the prompt: the optional strings, the output description and attributes.
static int ReadOutputs(SECTIONPTR Entry, PPRECONFIGURATION Config)
{
    PPRECONFIGURATION C = Config;
    int Result = SetString(&C->AcceptableCharacters, &C->AcceptableCharactersLength,
                           GetFirstCDATA(FindFirstChildOf(Entry, "acceptable_characters")));
    Result |= SetString(&C->RequiredFormat, &C->RequiredFormatLength,
                        GetFirstCDATA(FindFirstChildOf(Entry, "required_format")));
    C->OutputType = DecimalValue(AttributeOf(Entry, "outputname", "type"));
    Result |= SetString(&C->OutputName, &C->OutputNameLength,
                        AttributeOf(Entry, "outputname", "name"));
    const char *Configured = getenv("RZPELMCONFIGURED");
    if (IsPasswordVariable(C->OutputName) && Configured != nullptr &&
        strcmp(Configured, "YES") == 0)
        C->IsVariableRequired = 0;
    Result |= SetString(&C->DefaultValue, &C->DefaultValueLength,
                        AttributeOf(Entry, "default_value", "value"));
    Result |= SetString(&C->ActualValue, &C->ActualValueLength,
                        AttributeOf(Entry, "actual_value", "value"));
    Result |= SetString(&C->OutputFileName, &C->OutputFileNameLength,
                        AttributeOf(Entry, "output_filename", "value"));
    C->Attributes =
        static_cast<uint32_t>(HexadecimalValue(AttributeOf(Entry, "attributes", "value")));
    DebugPrint("Attributes is set to %08x\n", C->Attributes);
    return Result == 0 ? 0 : RZP_OUT_OF_MEMORY;
}

static int GetConfigurationInfo(const CONFIGURATION_LIST *List, const char *XMLFileName,
                                int LineNumber, PPRECONFIGURATION Config,
                                const char *CurrentLocaleName)
{
    if (Config == nullptr)
        return RZP_OUT_OF_MEMORY;
    SetConfigurationTypes(Config);
    SECTIONPTR Entry = FindPlatformEntry(XMLFileName, List->Section, List->Entry, LineNumber);
    if (Entry == nullptr)
        return RZP_PARSER_BAD_XML;
    int Result = ReadRequirements(Entry, Config);
    if (Result == 0)
        Result = ReadPrompt(Entry, Config, CurrentLocaleName);
    if (Result == 0)
        Result = ReadOutputs(Entry, Config);
    return Result;
}

int GetPreConfigurationInfo(const char *XMLFileName, int LineNumber,
                            PPRECONFIGURATION PreConfigurationStruct,
                            const char *CurrentLocaleName)
{
    return GetConfigurationInfo(&PreConfigurationList, XMLFileName, LineNumber,
                                PreConfigurationStruct, CurrentLocaleName);
}

int GetPostConfigurationInfo(const char *XMLFileName, int LineNumber,
                             PPOSTCONFIGURATION PostConfigurationStruct,
                             const char *CurrentLocaleName)
{
    return GetConfigurationInfo(&PostConfigurationList, XMLFileName, LineNumber,
                                PostConfigurationStruct, CurrentLocaleName);
}

// An absent string is shown as an empty value.
static const char *Shown(const char *Text)
{
    return Text == nullptr ? "" : Text;
}

void DumpConfigurationStruct(PPRECONFIGURATION ConfigurationStruct, int StructType)
{
    PPRECONFIGURATION C = ConfigurationStruct;
    if (!Debugging() || C == nullptr)
        return;
    printf(StructType == RZP_STRUCT_PRECONFIG ? "PreConfiguration Structure found\n"
                                              : "PostConfiguration Structure found\n");
    printf("IsVariableRequired                         Type:  %d    Length:  %d    Value: %s\n",
           C->IsVariableRequiredType, C->IsVariableRequiredLength,
           C->IsVariableRequired == 1 ? "TRUE" : "FALSE");
    printf("MinimumLength         Type:  %d    Length:  %d    Value: %d\n", C->MinimumLengthType,
           C->MinimumLengthLength, C->MinimumLength);
    printf("MaximumLength         Type:  %d    Length:  %d    Value: %d\n", C->MaximumLengthType,
           C->MaximumLengthLength, C->MaximumLength);
    printf("Prompt                                     Type:  %d    Length:  %d    Value: %s\n",
           C->PromptType, C->PromptLength, Shown(C->Prompt));
    printf("AcceptableCharacters  Type:  %d    Length:  %d    Value: %s\n",
           C->AcceptableCharactersType, C->AcceptableCharactersLength,
           Shown(C->AcceptableCharacters));
    printf("RequiredFormat        Type:  %d    Length:  %d    Value: %s\n", C->RequiredFormatType,
           C->RequiredFormatLength, Shown(C->RequiredFormat));
    printf("OutputType            Type:  %d    Length:  %d    Value: %d\n", C->OutputTypeType,
           C->OutputTypeLength, C->OutputType);
    printf("ConfiguraiotnVariableOutputName            Type:  %d    Length:  %d    Value: %s\n",
           C->OutputNameType, C->OutputNameLength, Shown(C->OutputName));
    printf("DefaultValue\t       Type:  %d    Length:  %d    Value: %s\n", C->DefaultValueType,
           C->DefaultValueLength, Shown(C->DefaultValue));
    printf("ActualValue\t       Type:  %d    Length:  %d    Value: %s\n", C->ActualValueType,
           C->ActualValueLength, Shown(C->ActualValue));
    printf("OutputFileName       Type:  %d    Length:  %d    Value: %s\n", C->OutputFileNameType,
           C->OutputFileNameLength, Shown(C->OutputFileName));
    printf("Attributes       Type:  %d    Length:  %d    Value: %d\n", C->AttributesType,
           C->AttributesLength, C->Attributes);
}

void FreeConfigStruct(PPRECONFIGURATION ConfigurationStruct, int StructType)
{
    PPRECONFIGURATION C = ConfigurationStruct;
    if (C == nullptr || (StructType != RZP_STRUCT_PRECONFIG && StructType != RZP_STRUCT_POSTCONFIG))
        return;
    free(C->Prompt);
    free(C->AcceptableCharacters);
    free(C->RequiredFormat);
    free(C->DefaultValue);
    free(C->ActualValue);
    free(C->OutputName);
    free(C->OutputFileName);
    free(C);
}
