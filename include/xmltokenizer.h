// xmltokenizer.h - the XML document model: the line-oriented tokenizer, the one tree it
// builds, the lookups over it and the walk that every reader of the tree shares. Defined in
// parser/xml/. The package descriptions read from the tree are in packages.h.
//
// Contract of the tokenizer: ParseFile reads a whole file (a regular file, links followed, of
// at most XML_FILE_MAX bytes; anything else is refused before it is opened) and adds its elements to the one
// process-wide tree at ActiveSection; it returns 0, XML_OPEN_FAILED or XML_PARSE_FAILED.
// The tree belongs to the file named by CurrentXMLFileParsed. Pointers handed out by the
// lookups point into the tree and stay valid until the tree is deleted, which happens when a
// reader names another file (UseXMLFile): callers copy what they keep. The strings of the
// tree live in the tree's own memory: change their bytes in place if need be (strupr), never
// free or replace them. The dialect is described in docs/xml-dialect.md.
#pragma once

#include <cstddef>

#include "zelrzp.h" // the result codes

#define XML_LINE_MAX 16384        /* a logical line with its terminator */
#define XML_FILE_MAX (16 << 20)   /* the largest XML file read; larger ones are refused */

enum { XML_ATTRIBUTE = 1, XML_TEXT = 2, XML_ELEMENT_START = 3, XML_ELEMENT_END = 4, XML_CDATA = 5 };

typedef struct key {
    char *Attribute;
    char *Value;
    struct key *NextKey;
    int Line; // source line of the record (1-based); 0 when not known
} key, *KEYPTR;

typedef struct token {
    char *Token;
    struct token *NextToken;
    int Line;
} token, *TOKENPTR;

typedef struct CDATA {
    char *CDATAString;
    struct CDATA *NextCDATA;
    int Line; // the line where the block starts
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
    int Line; // line of the start tag; 0 in the root
} section, *SECTIONPTR;

// Module state.
extern SECTIONPTR FirstSection;
extern SECTIONPTR ActiveSection;
extern char *CurrentXMLFileParsed;
// The installed distribution, e.g. "Red_Hat_Linux_7.3"; NULL until detected. Owned by the OS
// detection (parser/packages/osdetect.cpp); the lookups here read it (XML_INSTALLED_OS).
extern char *CurrentlyInstalledOS;

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
