// op_parse.cpp - the parse-input-file worker: announces the installation, builds the component
// list of the chosen bundle (or of the TQR packages), checks and builds every component and
// reports the failed ones. Writes, holding ParserStateMutex, ComponentList,
// NumberOfComponentsInBundle and, through the builder, InstallPacketList and the tree.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "operations.h"
#include "protocol.h"
#include "records.h"
#include "runflags.h"
#include "service.h"

#define BUNDLE_STRING_SIZE 1024 /* version and name told to screen and log, with room to spare */
#define PARSE_LANGUAGE "en"

// The two work buffers of one parse: the reply is encoded in Send, messages are formatted in
// Text (its two halves hold the coloured and the plain form of a two-form message).
typedef struct _PARSEBUFFERS {
    unsigned char *Send;
    char *Text;
} PARSEBUFFERS;

static const char BannerLine[] =
    "*******************************************************************************************\n";
static_assert(sizeof(BannerLine) == 93, "the banner is 91 asterisks and a line feed");

static const char MissingFileColoured[] =
    "Installation of Component %s \x1b[1;31mFAILED\x1b[0;39m.  The component file to install is "
    "missing.\n";
static const char MissingFilePlain[] =
    "Installation of Component %s FAILED.  The component file to install is missing.\n";
static const char MissingXmlColoured[] =
    "Installation of Component %s \x1b[1;31mFAILED\x1b[0;39m.  The component XML file is "
    "missing.\n";
static const char MissingXmlPlain[] =
    "Installation of Component %s FAILED.  The component XML file is missing.\n";

// Sends a failure of component FileName in its two forms, screen first, then log.
static void ReportComponentFailure(PARSEBUFFERS *Buffers, const char *Coloured, const char *Plain,
                                   const char *FileName)
{
    const size_t Half = RZP_MAX_PAYLOAD / 2;
    memset(Buffers->Text, 0, RZP_MAX_PAYLOAD);
    snprintf(Buffers->Text, Half, Coloured, FileName);
    snprintf(Buffers->Text + Half, Half, Plain, FileName);
    SendScreenAndLog(Buffers->Text, Buffers->Text + Half);
}

// The announcement of a bundle install, its identity and the progress line. 0, or -504 when
// the bundle's version or display name cannot be read.
static int AnnounceBundle(PARSEBUFFERS *Buffers, const char *BundleFile)
{
    char Version[BUNDLE_STRING_SIZE] = {0};
    char Name[BUNDLE_STRING_SIZE] = {0};
    snprintf(Buffers->Text, RZP_MAX_PAYLOAD,
             "This installation of the Strovane Rezapak will use the %s bundle file.\n",
             BundleFile);
    SendScreenAndLog(nullptr, Buffers->Text);
    int Result = GetBundleVersion(BundleFile, Version, sizeof(Version));
    DebugPrint("Return from GetBundleVersion is %d\n", Result);
    if (Result != 0)
        return RZP_PARSER_BAD_XML;
    if (GetBundleName(BundleFile, PARSE_LANGUAGE, Name, sizeof(Name)) < 0)
        return RZP_PARSER_BAD_XML;
    memset(Buffers->Text, 0, RZP_MAX_PAYLOAD);
    snprintf(Buffers->Text, RZP_MAX_PAYLOAD, "\nThe %s v%s installation is now in progress.\n",
             Name, Version);
    SendScreenAndLog(nullptr, Buffers->Text);
    return 0;
}

// Everything sent between the two banners. 0, or -504 from AnnounceBundle.
static int AnnounceInstallation(PARSEBUFFERS *Buffers, const char *BundleFile)
{
    SendLogOnly(BannerLine);
    memset(Buffers->Text, 0, RZP_MAX_PAYLOAD);
    if (TQR_INSTALL != 0) {
        SendScreenAndLog(nullptr, "Performing an installation of components from Marovex.");
        SendScreenAndLog(nullptr, "");
    } else if (AnnounceBundle(Buffers, BundleFile) != 0) {
        return RZP_PARSER_BAD_XML;
    }
    SendLogOnly(BannerLine);
    return 0;
}

// The number of components to install; a bundle that names none counts 0.
static int ListComponents(const char *BundleFile)
{
    int Count = TQR_INSTALL != 0 ? GetTQRPackages() : GetBundlePackages(BundleFile);
    if (Count == XML_NO_PACKAGES)
        Count = 0;
    DebugPrint("%d components were found to install.\n", Count);
    return Count;
}

// Checks and builds one component; returns 1 when it counts as installable, 0 when not.
static int ParseOneComponent(PARSEBUFFERS *Buffers, COMPONENTINFOPTR Component)
{
    if (DoesComponentFileExist(Component->FileName) != 0) {
        ReportComponentFailure(Buffers, MissingFileColoured, MissingFilePlain, Component->FileName);
        Component->Status = COMPONENT_FILE_MISSING;
        return 0;
    }
    if (FindComponentXmlFile(Component->FileName, Component->xmlfilename) != 0) {
        ReportComponentFailure(Buffers, MissingXmlColoured, MissingXmlPlain, Component->FileName);
        Component->Status = COMPONENT_FILE_MISSING;
        return 0;
    }
    DebugPrint("Parser--args to BRIS: %s, %p, %s\n", Component->xmlfilename,
               static_cast<void *>(Component), PARSE_LANGUAGE);
    int Result = BuildRZPInstallStructures(Component->xmlfilename, Component, PARSE_LANGUAGE);
    DebugPrint("Parser--return from BuildRZPInstallStructs = %d\n", Result);
    if (Result == 0) {
        Component->Status = COMPONENT_BUILT;
        Component->InstallStatus = INSTALL_STATUS_BUILT;
        return 1;
    }
    if (Result != RZP_PARSER_ERRATA_UNSUPPORTED) {
        Component->Status = COMPONENT_BUILD_FAILED;
        Component->InstallStatus = INSTALL_STATUS_BUILD_FAILED;
        ReportComponentFailure(Buffers, MissingXmlColoured, MissingXmlPlain, Component->FileName);
    }
    return 0;
}

// Walks ComponentList; leaves in NumberOfComponentsInBundle what the item operations report.
static void ParseComponents(PARSEBUFFERS *Buffers)
{
    int ViewCount = 0;
    for (COMPONENTINFOPTR Component = ComponentList; Component != nullptr;
         Component = Component->next) {
        if (VIEW_ONLY == 1) {
            if (strstr(Component->FileName, PackageName) == nullptr)
                continue;
            ViewCount++;
        }
        if (ParseOneComponent(Buffers, Component) == 0)
            NumberOfComponentsInBundle--;
    }
    if (VIEW_ONLY != 0)
        NumberOfComponentsInBundle = ViewCount;
    VerbosePrint("Completed parsing of component XML files.\n");
}

static void AnswerParse(PPARSERWORK Work, PARSEBUFFERS *Buffers, const char *BundleFile)
{
    memset(Buffers->Send, 0, RZP_MAX_PAYLOAD);
    if (TQR_INSTALL != 0) {
        SendParserAnswer(Work, RZP_SUCCESS, nullptr, 0);
        return;
    }
    DebugPrint("PARSER----BundleFileName sent is %s\n", BundleFile);
    int Length = EncodeStringItem(Buffers->Send, RZP_MAX_PAYLOAD, BundleFile, 1);
    SendParserAnswer(Work, RZP_SUCCESS, Buffers->Send, Length < 0 ? 0 : Length);
}

// A repeated parse starts from scratch, so that the items describe one parse only. Record
// handles keep counting, so a handle from the earlier parse never names a new record.
static void ForgetEarlierParse(void)
{
    FreeInstallPacketList();
    FreeComponentList();
    NumberOfComponentsInBundle = 0;
}

static void ParseInputFile(PPARSERWORK Work, PARSEBUFFERS *Buffers)
{
    const char *BundleFile = nullptr;
    if (TQR_INSTALL == 0) {
        if (ParserQueue->BundleList == nullptr) {
            SendParserAnswerWithRequest(Work, RZP_PARSER_BAD_XML);
            return;
        }
        BundleFile = ParserQueue->BundleList->FileName;
    }
    ForgetEarlierParse();
    if (AnnounceInstallation(Buffers, BundleFile) != 0) {
        SendParserAnswerWithRequest(Work, RZP_PARSER_BAD_XML);
        return;
    }
    NumberOfComponentsInBundle = ListComponents(BundleFile);
    ParseComponents(Buffers);
    AnswerParse(Work, Buffers, BundleFile);
}

static void ParseWithBuffers(PPARSERWORK Work)
{
    PARSEBUFFERS Buffers;
    Buffers.Send = static_cast<unsigned char *>(calloc(1, RZP_MAX_PAYLOAD));
    Buffers.Text = static_cast<char *>(calloc(1, RZP_MAX_PAYLOAD));
    if (Buffers.Send == nullptr || Buffers.Text == nullptr)
        SendParserAnswerWithRequest(Work, RZP_OUT_OF_MEMORY);
    else
        ParseInputFile(Work, &Buffers);
    free(Buffers.Send);
    free(Buffers.Text);
}

void *HandleParserParseInputFilePacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_PARSE_INPUT_FILE, "RZP_PARSER_PARSE_INPUT_FILE", ParseWithBuffers,
                    WORK_ON_PARSER_STATE | WORK_EXIT_WITHOUT_REQUEST);
    return nullptr;
}

int GetTQRPackages(void)
{
    int Count = 0;
    for (int Slot = 0; Slot < TQR_MAX_PACKAGES; Slot++) {
        if (TQR_PackageName[Slot] == nullptr || TQR_PackageName[Slot][0] == '\0')
            break;
        if (AppendComponent(TQR_PackageName[Slot]) != nullptr)
            Count++;
    }
    return Count;
}
