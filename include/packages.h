// packages.h - the package descriptions: detection of the installed distribution, the
// readers of bundle XML files and of component XML files, and the component list. Defined in
// parser/packages/. The readers return the one-byte truth values TRUE and FALSE (zelrzp.h).
#pragma once

#include <cstddef>

#include "zelrzp.h"

// Installed OS detection.
enum { OS_RED_HAT = 1, OS_SUSE = 2, OS_RED_HAT_AS = 3, OS_UNITED_LINUX = 4, OS_RED_HAT_EL = 6 };
#define RELEASE_OUT_FILE "/tmp/release.out"
#define OS_NAME_MAX 256 /* a distribution's name or version from its release file's first line */
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
    char *FileName;  // 256 bytes
    char *Version;   // 256 bytes
    char *OSVersion; // 256 bytes
    int Status;      // 301 for a bundle file that has been found
    struct _BundleInfo *Next;
} BundleInfo, *BUNDLEINFOPTR;
#define BUNDLE_FOUND 301
#define BUNDLE_FIELD_SIZE 256 /* a bundle's path (./ and a file name: NAME_MAX is 255) */

long FindBundleXmlFile(const char *DirectoryName, int Index, BUNDLEINFOPTR Bundle);
signed char IsOSSupportedByBundle(const char *BundleXMLFileName);
// The five matching rules for the installed name N and version V against one
// operating_system_xlate text F: the number (1-5) of the rule that accepts, ENTRY_REJECTED
// when rule 1 rejects the entry, ENTRY_NOT_MATCHED when no rule applies.
enum { ENTRY_NOT_MATCHED = 0, ENTRY_REJECTED = -1 };
int MatchOSEntry(const char *N, const char *V, const char *F);
// BundleVersionSize / BundleNameSize: the caller's buffer sizes (values that do not fit are
// refused, see docs/decisions.md).
int GetBundleVersion(const char *BundleXMLFileName, char *BundleVersion, size_t BundleVersionSize);
int GetBundlePackages(const char *BundleXMLFileName);
int GetBundleName(const char *BundleXMLFileName, const char *LanguageName, char *BundleName,
                  size_t BundleNameSize);
// Frees one record and its three buffers (not the records after it).
void FreeBundleInfo(BUNDLEINFOPTR Bundle);
// Frees every record of the list at *List and sets *List to NULL.
void FreeBundleList(BUNDLEINFOPTR *List);

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
#define COMPONENT_FIELD_SIZE 256    /* a component's file name (NAME_MAX is 255) and its XML name */
#define COMPONENT_SCRATCH_SIZE 4000 /* the record's scratch area: room for any one field's text */
// Status and InstallStatus of a component record: statuses, not result codes. No operation
// reads them back; they say how far the parse worker got with the component.
enum {
    COMPONENT_BUILT = 101,
    COMPONENT_LISTED = 201,
    COMPONENT_FILE_MISSING = 402,
    COMPONENT_BUILD_FAILED = 403,
};
enum {
    INSTALL_STATUS_BUILT = 0,
    INSTALL_STATUS_NOT_BUILT = -502,       // as created by the bundle reader and the TQR list
    INSTALL_STATUS_BUILD_FAILED = 0x10100, // the builder failed (the tokenizer's failure value)
};

extern COMPONENTINFOPTR ComponentList;

// Allocates a component record as the bundle reader and the TQR list create it: FileName
// (a copy of FileName, refused with NULL when it does not fit 256 bytes), xmlfilename and
// ScratchField zero-filled, Status 201, InstallStatus -502. Appends it to ComponentList.
COMPONENTINFOPTR AppendComponent(const char *FileName);
void FreeComponentList(void);
// Frees an install record and its eight strings (NULL is allowed).
void FreeInstallPacket(PRZP_INSTALL_PACKET Packet);

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
