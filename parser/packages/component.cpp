// component.cpp - the component list and the readers of component XML files: the file
// checks, version/name/description, reboot flag, install command and the six yes/no flags.
// Owns ComponentList; writes component records and, in the tree, upper-cased values.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "parser.h"
#include "support.h"
#include "xmltokenizer.h"

#define COMPONENT_READ_FAILED -504
#define COMPONENT_FILE_EMPTY -101
#define COMPONENT_XML_EMPTY -502

COMPONENTINFOPTR ComponentList = nullptr;

// ---- The component list -------------------------------------------------------------------------

static void FreeComponent(COMPONENTINFOPTR Component)
{
    char *Strings[] = {Component->FileName,       Component->Version,
                       Component->Name,           Component->Description,
                       Component->xmlfilename,    Component->InstallCommand,
                       Component->RebootRequired, Component->ScratchField};
    for (char *String : Strings)
        free(String);
    PRZP_INSTALL_PACKET Packet = Component->InstallPacket;
    if (Packet != nullptr) {
        char *PacketStrings[] = {Packet->FailureReasonString, Packet->ComponentFileName,
                                 Packet->ComponentName, Packet->ComponentDescription,
                                 Packet->ComponentVersion, Packet->InstallCommand,
                                 Packet->ConfigurationInputFileName,
                                 Packet->ConfigurationOutputFileName};
        for (char *String : PacketStrings)
            free(String);
        free(Packet);
    }
    free(Component);
}

COMPONENTINFOPTR AppendComponent(const char *FileName)
{
    if (FileName == nullptr)
        return nullptr;
    if (strlen(FileName) >= COMPONENT_FIELD_SIZE) {
        printf("The component file name %s is longer than %d characters; it is refused.\n",
               FileName, COMPONENT_FIELD_SIZE - 1);
        return nullptr;
    }
    COMPONENTINFOPTR Component = static_cast<COMPONENTINFOPTR>(calloc(1, sizeof(ComponentInfo)));
    if (Component == nullptr)
        return nullptr;
    Component->FileName = static_cast<char *>(calloc(1, COMPONENT_FIELD_SIZE));
    Component->xmlfilename = static_cast<char *>(calloc(1, COMPONENT_FIELD_SIZE));
    Component->ScratchField = static_cast<char *>(calloc(1, COMPONENT_SCRATCH_SIZE));
    if (Component->FileName == nullptr || Component->xmlfilename == nullptr ||
        Component->ScratchField == nullptr) {
        FreeComponent(Component);
        return nullptr;
    }
    CopyBounded(Component->FileName, COMPONENT_FIELD_SIZE, FileName);
    Component->Status = COMPONENT_LISTED;
    Component->InstallStatus = COMPONENT_NOT_INSTALLED;
    COMPONENTINFOPTR *Tail = &ComponentList;
    while (*Tail != nullptr)
        Tail = &(*Tail)->next;
    *Tail = Component;
    return Component;
}

void FreeComponentList(void)
{
    while (ComponentList != nullptr) {
        COMPONENTINFOPTR Next = ComponentList->next;
        FreeComponent(ComponentList);
        ComponentList = Next;
    }
}

// ---- Component and XML files --------------------------------------------------------------------

int FindCorrespondingXMLFileName(const char *InstallFileName, char *XMLFileName)
{
    const char *Dot = InstallFileName != nullptr ? strrchr(InstallFileName, '.') : nullptr;
    if (Dot == nullptr || XMLFileName == nullptr)
        return -1;
    size_t Stem = static_cast<size_t>(Dot - InstallFileName);
    if (Stem + sizeof(".xml") > COMPONENT_FIELD_SIZE) {
        printf("The XML file name for %s would be longer than %d characters; it is refused.\n",
               InstallFileName, COMPONENT_FIELD_SIZE - 1);
        return -1;
    }
    memcpy(XMLFileName, InstallFileName, Stem);
    memcpy(XMLFileName + Stem, ".xml", sizeof(".xml"));
    return 0;
}

int FindComponentXmlFile(const char *FileName, char *XMLFileName)
{
    if (FindCorrespondingXMLFileName(FileName, XMLFileName) != 0)
        return -1;
    struct stat Info;
    if (stat(XMLFileName, &Info) != 0) {
        printf("XML File %s returned error %s\n", XMLFileName, strerror(errno));
        return -1;
    }
    if (Info.st_size == 0)
        return COMPONENT_XML_EMPTY;
    if (DEBUG_FLAG == 1)
        printf("XMLTOKENIZER--Calling CheckForULSP3\n");
    CheckForULSP3();
    return 0;
}

int DoesComponentFileExist(const char *FileName)
{
    struct stat Info;
    if (FileName == nullptr || stat(FileName, &Info) != 0)
        return -1;
    if (DEBUG_FLAG == 1)
        printf("XML Filename found is %s\n", FileName);
    return Info.st_size > 0 ? 0 : COMPONENT_FILE_EMPTY;
}

// ---- Readers ------------------------------------------------------------------------------------

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
    return COMPONENT_READ_FAILED;
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
        return COMPONENT_READ_FAILED;
    const char *Block = SelectLanguage(Description, "description_xlate", language, 1);
    if (SetField(&Component->Description, Block) != 0 || Block == nullptr)
        return COMPONENT_READ_FAILED;
    return 0;
}

int GetComponentInformation(const char *ComponentXMLFileName, COMPONENTINFOPTR Component,
                            const char *language)
{
    static const XMLSTEP Steps[] = {{"zel_package", "zel_package"}, {"version", "version"}};
    if (Component == nullptr)
        return COMPONENT_READ_FAILED;
    int Failure = XML_WALK_OK;
    SECTIONPTR Version = WalkToSection(ComponentXMLFileName, Steps, 2, &Failure);
    if (Version == nullptr)
        return COMPONENT_READ_FAILED;
    if (SetField(&Component->Version, GetAttribute(Version, "value")) != 0)
        return COMPONENT_READ_FAILED;
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
        return COMPONENT_READ_FAILED;
    int Failure = XML_WALK_OK;
    SECTIONPTR Reboot = WalkToInstallChild(ComponentXMLFileName, "reboot_required", &Failure);
    if (Failure == XML_WALK_SWITCH_FAILED)
        return COMPONENT_READ_FAILED;
    char *Value = Reboot != nullptr ? GetAttribute(Reboot, "value") : nullptr;
    if (Reboot != nullptr && Value == nullptr)
        PrintMissingValue("reboot_required");
    strupr(Value);
    if (SetField(&Component->RebootRequired, Value) != 0 || Value == nullptr)
        return COMPONENT_READ_FAILED;
    return 0;
}

int GetInstallCommand(const char *XMLFileName, COMPONENTINFOPTR Component)
{
    if (Component == nullptr)
        return COMPONENT_READ_FAILED;
    int Failure = XML_WALK_OK;
    SECTIONPTR Command = WalkToInstallChild(XMLFileName, "command", &Failure);
    if (Failure == XML_WALK_SWITCH_FAILED)
        return COMPONENT_READ_FAILED;
    const char *Text = GetFirstToken(Command);
    if (Command != nullptr && Text == nullptr)
        printf("The XML file is corrupt.  The 'command' token cannot be found.\n");
    if (SetField(&Component->InstallCommand, Text) != 0 || Text == nullptr)
        return COMPONENT_READ_FAILED;
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
    bool Tracing = Trace && DEBUG_FLAG == 1;
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
