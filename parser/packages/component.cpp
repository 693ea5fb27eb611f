// component.cpp - the readers of component XML files: version, name and description, reboot
// flag, install command and the six yes/no flags of the installed distribution.
// Writes the component records it is given and, in the tree, upper-cased values.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "packages.h"
#include "runflags.h"
#include "support.h"
#include "xmltokenizer.h"

// Replaces *Field by a copy of Value (NULL for none). 0, or -1 when memory runs out.
static int SetField(char **Field, const char *Value)
{
    free(*Field);
    *Field = DuplicateString(Value);
    return Value != nullptr && *Field == nullptr ? -1 : 0;
}

static void PrintMissingValue(const char *SectionName)
{
    printf("The XML file is corrupt.  The 'value' attribute of the %s section cannot be found.\n",
           SectionName);
}

static int FailNameAndDescription(COMPONENTINFOPTR Component)
{
    SetField(&Component->Name, nullptr);
    SetField(&Component->Description, nullptr);
    return RZP_PARSER_BAD_XML;
}

// Name and description, each read under the language selection. Both are NULL after a
// failure, except that a name already read stays when only the description fails.
static int ReadNameAndDescription(SECTIONPTR Package, COMPONENTINFOPTR Component,
                                  const char *language)
{
    SECTIONPTR Name = FindFirstChildOf(Package, "name");
    if (Name == nullptr) {
        PrintMissingSection("name");
        return FailNameAndDescription(Component);
    }
    const char *Text = SelectLanguage(Name, "name_xlate", language, 0);
    if (Text == nullptr)
        return FailNameAndDescription(Component);
    SECTIONPTR Description = FindFirstChildOf(Package, "description");
    if (Description == nullptr) {
        PrintMissingSection("description");
        return FailNameAndDescription(Component);
    }
    if (SetField(&Component->Name, Text) != 0)
        return RZP_PARSER_BAD_XML;
    const char *Block = SelectLanguage(Description, "description_xlate", language, 1);
    if (SetField(&Component->Description, Block) != 0 || Block == nullptr)
        return RZP_PARSER_BAD_XML;
    return 0;
}

int GetComponentInformation(const char *ComponentXMLFileName, COMPONENTINFOPTR Component,
                            const char *language)
{
    static const XMLSTEP Steps[] = {{"zel_package", "zel_package"}, {"version", "version"}};
    if (Component == nullptr)
        return RZP_PARSER_BAD_XML;
    int Failure = XML_WALK_OK;
    SECTIONPTR Version = WalkToSection(ComponentXMLFileName, Steps, 2, &Failure);
    if (Version == nullptr)
        return RZP_PARSER_BAD_XML;
    if (SetField(&Component->Version, GetAttribute(Version, "value")) != 0)
        return RZP_PARSER_BAD_XML;
    return ReadNameAndDescription(Version->Parent, Component, language);
}

// The walk shared by the reboot and install-command readers, down to zel_package/
// installation/install and then Last.
static SECTIONPTR WalkToInstallChild(const char *XMLFileName, const char *Last, int *Failure)
{
    const XMLSTEP Steps[] = {{"zel_package", "zel_package"},
                             {"installation", "installation"},
                             {"install", "install"},
                             {Last, Last}};
    return WalkToSection(XMLFileName, Steps, 4, Failure);
}

int GetRebootValue(const char *ComponentXMLFileName, COMPONENTINFOPTR Component)
{
    if (Component == nullptr)
        return RZP_PARSER_BAD_XML;
    int Failure = XML_WALK_OK;
    SECTIONPTR Reboot = WalkToInstallChild(ComponentXMLFileName, "reboot_required", &Failure);
    if (Failure == XML_WALK_SWITCH_FAILED)
        return RZP_PARSER_BAD_XML;
    char *Value = Reboot != nullptr ? GetAttribute(Reboot, "value") : nullptr;
    if (Reboot != nullptr && Value == nullptr)
        PrintMissingValue("reboot_required");
    strupr(Value);
    if (SetField(&Component->RebootRequired, Value) != 0 || Value == nullptr)
        return RZP_PARSER_BAD_XML;
    return 0;
}

int GetInstallCommand(const char *XMLFileName, COMPONENTINFOPTR Component)
{
    if (Component == nullptr)
        return RZP_PARSER_BAD_XML;
    int Failure = XML_WALK_OK;
    SECTIONPTR Command = WalkToInstallChild(XMLFileName, "command", &Failure);
    if (Failure == XML_WALK_SWITCH_FAILED)
        return RZP_PARSER_BAD_XML;
    const char *Text = GetFirstToken(Command);
    if (Command != nullptr && Text == nullptr)
        printf("The XML file is corrupt.  The 'command' token cannot be found.\n");
    if (SetField(&Component->InstallCommand, Text) != 0 || Text == nullptr)
        return RZP_PARSER_BAD_XML;
    return 0;
}

// ---- The six yes/no flags -----------------------------------------------------------------------

static const char *TextOrNull(const char *Text)
{
    return Text != nullptr ? Text : "(null)";
}

// The flag named Element in the installed distribution's part of the file: TRUE when its
// value, upper-cased in the tree, is "YES". A file without a part for this distribution gives
// FALSE silently; ReportMissing says whether a missing Element is reported; Trace turns on
// the debug lines that only the prerequisites reader prints.
static signed char ReadPlatformFlag(const char *XMLFileName, const char *Element,
                                    bool ReportMissing, bool Trace)
{
    static const XMLSTEP Steps[] = {
        {"zel_package", "zel_package"}, {"platform_specific", nullptr}, {"LINUX", nullptr}};
    bool Tracing = Trace && Debugging();
    if (Tracing)
        printf("XMLTokenizer--XMLFileName = %s, CurrentXMLFile = %s\n", TextOrNull(XMLFileName),
               TextOrNull(CurrentXMLFileParsed));
    int Failure = XML_WALK_OK;
    SECTIONPTR Linux = WalkToSection(XMLFileName, Steps, 3, &Failure);
    if (Linux == nullptr)
        return FALSE;
    if (Tracing)
        printf("XMLTokenizer--CurrentSection = %s\n", Linux->Name);
    SECTIONPTR Installed = FindFirstChildOf(Linux, CurrentlyInstalledOS);
    if (Installed == nullptr)
        return FALSE;
    SECTIONPTR Flag = FindFirstChildOf(Installed, Element);
    if (Flag == nullptr) {
        if (ReportMissing)
            PrintMissingSection(Element);
        return FALSE;
    }
    if (Tracing)
        printf("XMLTokenizer--CurrentSection = %s\n", Flag->Name);
    char *Value = GetAttribute(Flag, "value");
    if (Value == nullptr) {
        PrintMissingValue(Element);
        return FALSE;
    }
    strupr(Value);
    return strcmp(Value, "YES") == 0 ? TRUE : FALSE;
}

signed char GetHasPrerequisitesValue(const char *XMLFileName)
{
    return ReadPlatformFlag(XMLFileName, "has_prerequisites", true, true);
}

signed char GetHasPostrequisitesValue(const char *XMLFileName)
{
    return ReadPlatformFlag(XMLFileName, "has_postrequisites", true, false);
}

signed char GetRequiresPreConfigurationValue(const char *XMLFileName)
{
    return ReadPlatformFlag(XMLFileName, "requires_preconfiguration", true, false);
}

signed char GetRequiresPostConfigurationValue(const char *XMLFileName)
{
    return ReadPlatformFlag(XMLFileName, "requires_postconfiguration", true, false);
}

signed char GetRequiresPreCompilationValue(const char *XMLFileName)
{
    return ReadPlatformFlag(XMLFileName, "requires_precompilation", false, false);
}

signed char GetRequiresPostCompilationValue(const char *XMLFileName)
{
    return ReadPlatformFlag(XMLFileName, "requires_postcompilation", false, false);
}
