// xmltokenizer.h - the XML document model (the line-oriented tokenizer, the one tree it
// builds, the lookups over it) and the package descriptions read from it: installed OS
// detection, bundle files and component files.
//
// Contract of the tokenizer: ParseFile reads a whole file and adds its elements to the one
// process-wide tree at ActiveSection; it returns 0, XML_OPEN_FAILED or XML_PARSE_FAILED.
// The tree belongs to the file named by CurrentXMLFileParsed. Pointers handed out by the
// lookups point into the tree and stay valid until the tree is deleted, which happens when a
// reader names another file (UseXMLFile): callers copy what they keep. The strings of the
// tree live in the tree's own memory: change their bytes in place if need be (strupr), never
// free or replace them. The dialect is described in docs/xml-dialect.md.
#pragma once

#include <cstddef>

#include "zelrzp.h"

#define XML_OPEN_FAILED 0x10010L  /* no name, cannot open, empty file; also: no bundle file */
#define XML_PARSE_FAILED 0x10100L /* read error, unterminated CDATA, over-long line */
#define XML_NO_MEMORY 0x10001L    /* InsertToken could not allocate */
#define XML_NO_PACKAGES 0x12000   /* GetBundlePackages: nothing to install or unusable */
#define XML_LINE_MAX 16384        /* a logical line with its terminator */

enum { XML_ATTRIBUTE = 1, XML_TEXT = 2, XML_ELEMENT_START = 3, XML_ELEMENT_END = 4, XML_CDATA = 5 };

typedef struct key {
    char *Attribute;
    char *Value;
    struct key *NextKey;
} key, *KEYPTR;

typedef struct token {
    char *Token;
    struct token *NextToken;
} token, *TOKENPTR;

typedef struct CDATA {
    char *CDATAString;
    struct CDATA *NextCDATA;
} CDATA, *CDATAPTR;

typedef struct section {
    char *Name; // NULL only in the root
    KEYPTR NextKey;
    TOKENPTR NextToken;
    CDATAPTR NextCDATA;
    struct section *Parent;
    struct section *Child;
    struct section *NextSibling;
    struct section *PreviousSibling;
} section, *SECTIONPTR;

// Module state.
extern SECTIONPTR FirstSection;
extern SECTIONPTR ActiveSection;
extern char *CurrentXMLFileParsed;
extern char *CurrentlyInstalledOS; // e.g. "Red_Hat_Linux_7.3"; NULL until detected

// Tokenizer.
long ParseFile(const char *FileName);
long ReadXMLFile(int xmlsfp, char *xmlbuffer, long xmllength);
long InternalParseXML(char *xmlbuffer, long xmllength);
void FindXMLTokens(char *line);
unsigned long InsertToken(char *tokenstring, int tokentype);
unsigned long DeleteTree(void);
unsigned long DeleteSection(SECTIONPTR CurrentSection);
unsigned long DeleteKeys(SECTIONPTR CurrentSection);
unsigned long DeleteTokens(SECTIONPTR CurrentSection);
unsigned long DeleteCDATA(SECTIONPTR CurrentSection);

// The current-file rule, which every reader applies before it looks at the tree. Returns 0
// when the reader may go on (the tree holds FileName, or a first parse was attempted
// whatever its outcome), non-zero when a switch to FileName failed to parse: the reader
// then returns its own failure code without a message.
long UseXMLFile(const char *FileName);

// Navigation. All lookups are exact (strcmp), first match wins, NULL when nothing is found.
SECTIONPTR GetRootNode(void);
SECTIONPTR FindFirstChildOf(SECTIONPTR CurrentSection, const char *SectionName);
SECTIONPTR GetNextSibling(SECTIONPTR CurrentSection);
char *GetAttribute(SECTIONPTR CurrentSection, const char *AttributeName);
char *GetFirstChild(SECTIONPTR CurrentSection, const char *Value);
char *GetFirstCDATAChild(SECTIONPTR CurrentSection, const char *Value);
char *GetFirstToken(SECTIONPTR CurrentSection);
char *GetFirstCDATA(SECTIONPTR CurrentSection);

// A reader's walk to its element. Each step names a child to find below the previous
// section; Missing is the word put into "The XML file is corrupt.  The '%s' section cannot be
// found.\n" when the child is missing, or NULL to fail silently. A step named
// XML_INSTALLED_OS stands for the element named by CurrentlyInstalledOS.
typedef struct XMLSTEP {
    const char *Name;
    const char *Missing;
} XMLSTEP;
extern const char XML_INSTALLED_OS[];
enum { XML_WALK_OK = 0, XML_WALK_SWITCH_FAILED = 1, XML_WALK_MISSING = 2 };
// Applies the current-file rule to FileName, takes the root (printing the root-node message
// when there is none) and walks Steps. Returns the last section found, or NULL with
// *Failure set to XML_WALK_SWITCH_FAILED or XML_WALK_MISSING.
// In detail: a failed switch to another file gives NULL and XML_WALK_SWITCH_FAILED with no
// message of the walk's own (ParseFile has printed its own); a failed first parse goes on
// with the empty or partial tree. No root: "The XML file is corrupt.  The root node is
// null.\n" and XML_WALK_MISSING. Each step is one FindFirstChildOf below the section found by
// the step before (direct children only); a step that finds nothing prints the message for
// its Missing word when that is not NULL and gives XML_WALK_MISSING. StepCount 0 gives the
// root. *Failure is XML_WALK_OK when a section is returned; Failure may be NULL.
// Example: {{"zel_package", NULL}, {"platform_specific", "platform_specific"},
//           {"LINUX", "LINUX"}, {XML_INSTALLED_OS, NULL}}.
SECTIONPTR WalkToSection(const char *FileName, const XMLSTEP *Steps, int StepCount,
                         int *Failure);
// The same walk over the tree as it stands, for a reader that has applied the current-file
// rule itself (no file is parsed here).
SECTIONPTR WalkTreeToSection(const XMLSTEP *Steps, int StepCount, int *Failure);
// Prints "The XML file is corrupt.  The '%s' section cannot be found.\n".
void PrintMissingSection(const char *What);
// Language selection: the content (CDATA when WantCDATA, else text) of the first child of
// Parent named ChildName whose lang equals Language and that has such content; NULL (and
// the missing-section message naming ChildName) when there is none.
char *SelectLanguage(SECTIONPTR Parent, const char *ChildName, const char *Language,
                     int WantCDATA);

// One-byte truth values of the OS, bundle and flag readers (signed char).
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// Installed OS detection.
enum { OS_RED_HAT = 1, OS_SUSE = 2, OS_RED_HAT_AS = 3, OS_UNITED_LINUX = 4, OS_RED_HAT_EL = 6 };
#define RELEASE_OUT_FILE "/tmp/release.out"
#define OS_NAME_MAX 256
signed char GetInstalledOSVersion(int OSMfg, char *InstalledOSName, char *InstalledOSVersion);
void CheckForULSP3(void);
// The detection sequence that IsOSSupportedByBundle runs first: probes the release files,
// fills the caller's two zero-filled OS_NAME_MAX buffers and sets CurrentlyInstalledOS.
// FALSE (with the unsupported-OS message) when no release file exists, FALSE (with a message
// naming /tmp/release.out) when that path cannot be made safe for the pipelines, else TRUE
// whatever the pipelines gave.
signed char DetectInstalledOS(char *InstalledOSName, char *InstalledOSVersion);

// Bundle descriptions.
typedef struct _BundleInfo {
    char *FileName; // 256 bytes
    char *Version;  // 256 bytes
    char *OSVersion; // 256 bytes
    int Status;     // 301 for a bundle file that has been found
    struct _BundleInfo *Next;
} BundleInfo, *BUNDLEINFOPTR;
#define BUNDLE_FOUND 301
#define BUNDLE_FIELD_SIZE 256

long FindBundleXmlFile(const char *DirectoryName, int Index, BUNDLEINFOPTR Bundle);
signed char IsOSSupportedByBundle(const char *BundleXMLFileName);
// BundleVersionSize / BundleNameSize: the caller's buffer sizes (values that do not fit are
// refused, see docs/decisions.md).
int GetBundleVersion(const char *BundleXMLFileName, char *BundleVersion, size_t BundleVersionSize);
int GetBundlePackages(const char *BundleXMLFileName);
int GetBundleName(const char *BundleXMLFileName, const char *LanguageName, char *BundleName,
                  size_t BundleNameSize);
// Frees one record and its three buffers (not the records after it).
void FreeBundleInfo(BUNDLEINFOPTR Bundle);

// Component descriptions.
typedef struct _ComponentInfo {
    char *FileName;       // 256 bytes
    char *Version;        // or NULL
    char *Name;           // or NULL
    char *Description;    // or NULL
    char *xmlfilename;    // 256 bytes
    char *InstallCommand; // or NULL
    char *RebootRequired; // or NULL
    char *ScratchField;   // 4000 bytes
    int Status;
    int InstallStatus;
    PRZP_INSTALL_PACKET InstallPacket;
    struct _ComponentInfo *next;
} ComponentInfo, *COMPONENTINFOPTR;
#define COMPONENT_FIELD_SIZE 256
#define COMPONENT_SCRATCH_SIZE 4000
enum {
    COMPONENT_BUILT = 101,
    COMPONENT_LISTED = 201,
    COMPONENT_FILE_MISSING = 402,
    COMPONENT_BUILD_FAILED = 403,
    COMPONENT_NOT_INSTALLED = -502,
};

extern COMPONENTINFOPTR ComponentList;

// Allocates a component record as the bundle reader and the TQR list create it: FileName
// (a copy of FileName, refused with NULL when it does not fit 256 bytes), xmlfilename and
// ScratchField zero-filled, Status 201, InstallStatus -502. Appends it to ComponentList.
COMPONENTINFOPTR AppendComponent(const char *FileName);
void FreeComponentList(void);

// XMLFileName: a buffer of COMPONENT_FIELD_SIZE bytes. A derived name that would not fit is
// refused with -1 and a message, the buffer untouched.
int FindCorrespondingXMLFileName(const char *InstallFileName, char *XMLFileName);
int FindComponentXmlFile(const char *FileName, char *XMLFileName);
int DoesComponentFileExist(const char *FileName);
int GetComponentInformation(const char *ComponentXMLFileName, COMPONENTINFOPTR Component,
                            const char *language);
int GetRebootValue(const char *ComponentXMLFileName, COMPONENTINFOPTR Component);
int GetInstallCommand(const char *XMLFileName, COMPONENTINFOPTR Component);
signed char GetHasPrerequisitesValue(const char *XMLFileName);
signed char GetHasPostrequisitesValue(const char *XMLFileName);
signed char GetRequiresPreConfigurationValue(const char *XMLFileName);
signed char GetRequiresPostConfigurationValue(const char *XMLFileName);
signed char GetRequiresPreCompilationValue(const char *XMLFileName);
signed char GetRequiresPostCompilationValue(const char *XMLFileName);
