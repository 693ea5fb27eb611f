// bundle.cpp - the bundle XML files of a bundle directory: finding them, matching their
// supported distributions against the installed one, reading version, name and contents.
// Writes ComponentList (through AppendComponent) and, in the tree, upper-cased install values.
#include <dirent.h>
#include <limits.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "packages.h"
#include "runflags.h"
#include "support.h"
#include "xmltokenizer.h"

// A bundle file's name, upper-cased, contains both ".XML" and "BP0".
static bool IsBundleFileName(const char *Name)
{
    char Upper[sizeof(dirent::d_name)];
    CopyBounded(Upper, sizeof Upper, Name);
    strupr(Upper);
    return strstr(Upper, ".XML") != nullptr && strstr(Upper, "BP0") != nullptr;
}

// Path = Directory "/" Name. A bundle whose path would not fit the 256-byte FileName is skipped
// (it does not count as a position), since a cut path would name another file.
static bool BundlePathFits(char (&Path)[BUNDLE_FIELD_SIZE], const char *Directory, const char *Name)
{
    int Length = snprintf(Path, sizeof Path, "%s/%s", Directory, Name);
    if (Length >= 0 && Length < BUNDLE_FIELD_SIZE)
        return true;
    printf("The bundle XML file name %s/%s is longer than %d characters; it is skipped.\n",
           Directory, Name, BUNDLE_FIELD_SIZE - 1);
    return false;
}

// Opens DirectoryName as a directory; a name without its closing '/' gets one.
static DIR *OpenBundleDirectory(const char *DirectoryName)
{
    char Directory[PATH_MAX + 2];
    size_t Length = strnlen(DirectoryName, sizeof Directory);
    if (Length + 2 > sizeof Directory)
        return nullptr;
    memcpy(Directory, DirectoryName, Length);
    if (Length == 0 || Directory[Length - 1] != '/')
        Directory[Length++] = '/';
    Directory[Length] = '\0';
    return opendir(Directory);
}

long FindBundleXmlFile(const char *DirectoryName, int Index, BUNDLEINFOPTR Bundle)
{
    if (Bundle == nullptr || Bundle->FileName == nullptr || DirectoryName == nullptr)
        return XML_OPEN_FAILED;
    Bundle->FileName[0] = '\0';
    DIR *Dir = OpenBundleDirectory(DirectoryName);
    if (Dir == nullptr)
        return XML_OPEN_FAILED;
    int Position = 0;
    char Path[BUNDLE_FIELD_SIZE];
    for (struct dirent *Entry = readdir(Dir); Entry != nullptr; Entry = readdir(Dir)) {
        if (!IsBundleFileName(Entry->d_name))
            continue;
        if (!BundlePathFits(Path, DirectoryName, Entry->d_name) || Position++ != Index)
            continue;
        CopyBounded(Bundle->FileName, BUNDLE_FIELD_SIZE, Path);
        Bundle->Status = BUNDLE_FOUND;
        Bundle->Next = nullptr;
        break;
    }
    closedir(Dir);
    return Bundle->FileName[0] != '\0' ? 0 : XML_OPEN_FAILED;
}

// ---- Matching the installed distribution --------------------------------------------------------

static bool Contains(const char *Text, const char *Part)
{
    return strstr(Text, Part) != nullptr;
}

static const char *const RuleMessages[] = {
    nullptr,
    "A supported version of Red Hat Linux Advanced Server was found\n",
    "A supported version of Red Hat Enterprise Linux was found\n",
    "A supported version of Red Hat Linux Professional was found\n",
    "A supported version of UnitedLinux was found.\n",
    "A supported version of SUSE Linux Enterprise Server (SLES) was found.\n",
};

// The five matching rules, in order, for the installed name N and version V against the
// bundle entry F: the number of the rule that accepts, ENTRY_REJECTED when rule 1 rejects
// the entry, ENTRY_NOT_MATCHED when no rule applies.
int MatchOSEntry(const char *N, const char *V, const char *F)
{
    if (Contains(N, "Advanced Server") && Contains(F, "Advanced Server"))
        return Contains(F, V) ? 1 : ENTRY_REJECTED;
    if (Contains(F, N) && Contains(F, V) && Contains(F, "Red Hat Enterprise"))
        return 2;
    if (Contains(F, N) && Contains(F, V) && Contains(F, "Red Hat Linux"))
        return 3;
    if (Contains(N, "UnitedLinux") && Contains(F, V))
        return 4;
    if (Contains(N, "SuSE SLES") && Contains(F, "SUSE Linux Enterprise Server"))
        return 5;
    return ENTRY_NOT_MATCHED;
}

enum { NO_ENTRY_ACCEPTED = 0, ENTRY_ACCEPTED = 1, ENTRY_UNREADABLE = 2 };

// Looks at each operating_system entry in turn; stops at once, without a message, at an
// entry without an operating_system_xlate text.
static int AnyEntryMatches(SECTIONPTR Systems, const char *N, const char *V)
{
    for (SECTIONPTR System = FindFirstChildOf(Systems, "operating_system"); System != nullptr;
         System = GetNextSibling(System)) {
        SECTIONPTR Xlate = FindFirstChildOf(System, "operating_system_xlate");
        const char *F = Xlate != nullptr ? GetFirstToken(Xlate) : nullptr;
        if (F == nullptr)
            return ENTRY_UNREADABLE;
        DebugPrint("InstalledOSName --> %s\tVersionFound --> %s\t\tInstalledOSVersion --> %s\n", N,
                   F, V);
        VerbosePrint("Version of OS found in Bundle file is %s\n", F);
        int Rule = MatchOSEntry(N, V, F);
        if (Rule > 0) {
            VerbosePrint("%s", RuleMessages[Rule]);
            return ENTRY_ACCEPTED;
        }
    }
    return NO_ENTRY_ACCEPTED;
}

signed char IsOSSupportedByBundle(const char *BundleXMLFileName)
{
    char N[OS_NAME_MAX] = {};
    char V[OS_NAME_MAX] = {};
    if (BundleXMLFileName == nullptr)
        return DetectInstalledOS(N, V);
    // The current-file rule comes first on every call (a failed first parse goes on with the
    // empty tree, a failed switch ends the call), then the detection, then the walk over the
    // tree as it stands, so that the file is read once.
    if (UseXMLFile(BundleXMLFileName) != 0)
        return FALSE;
    if (!DetectInstalledOS(N, V))
        return FALSE;
    static const XMLSTEP Steps[] = {{"zel_bundle", "zel_bundle"},
                                    {"operating_systems", "operating_systems"}};
    int Failure = XML_WALK_OK;
    SECTIONPTR Systems = WalkTreeToSection(Steps, 2, &Failure);
    if (Systems == nullptr)
        return FALSE;
    int Outcome = AnyEntryMatches(Systems, N, V);
    if (Outcome != NO_ENTRY_ACCEPTED)
        return Outcome == ENTRY_ACCEPTED ? TRUE : FALSE;
    if (!SILENT_INSTALL)
        printf("The bundle XML file %s is not supported on this version of Linux.\n",
               BundleXMLFileName);
    return FALSE;
}

// ---- Version, name, contents --------------------------------------------------------------------

// Copies Value into the caller's buffer, refusing (with a message) a value that does not fit:
// a cut version or name would say something else.
static bool CopyBundleValue(char *Dest, size_t DestSize, const char *Value, const char *What,
                            const char *FileName)
{
    if (CopyWhole(Dest, DestSize, Value) == 0)
        return true;
    printf("The %s in the bundle XML file %s is longer than %zu characters; it is refused.\n", What,
           FileName, DestSize == 0 ? static_cast<size_t>(0) : DestSize - 1);
    return false;
}

int GetBundleVersion(const char *BundleXMLFileName, char *BundleVersion, size_t BundleVersionSize)
{
    static const XMLSTEP Steps[] = {{"zel_bundle", "zel_bundle"}, {"version", "version"}};
    int Failure = XML_WALK_OK;
    SECTIONPTR Version = WalkToSection(BundleXMLFileName, Steps, 2, &Failure);
    const char *Value = Version != nullptr ? GetAttribute(Version, "value") : nullptr;
    if (Value == nullptr || BundleVersion == nullptr)
        return RZP_PARSER_BAD_BUNDLE;
    if (!CopyBundleValue(BundleVersion, BundleVersionSize, Value, "version", BundleXMLFileName))
        return RZP_PARSER_BAD_BUNDLE;
    return 0;
}

// One package entry: selected when its install attribute, upper-cased in the tree, is "YES".
// Returns 1 when a component was appended, else 0 (with a message for an unusable entry).
static int TakePackage(SECTIONPTR Package)
{
    char *Install = GetAttribute(Package, "install");
    if (Install == nullptr) {
        printf("The XML file is corrupt.  A 'package' section has no 'install' attribute; "
               "it is skipped.\n");
        return 0;
    }
    strupr(Install);
    if (strcmp(Install, "YES") != 0)
        return 0;
    const char *FileName = GetFirstToken(Package);
    if (FileName == nullptr) {
        printf("The XML file is corrupt.  A 'package' section selected for installation has no "
               "file name; it is skipped.\n");
        return 0;
    }
    return AppendComponent(FileName) != nullptr ? 1 : 0;
}

int GetBundlePackages(const char *BundleXMLFileName)
{
    static const XMLSTEP Steps[] = {
        {"zel_bundle", "zel_bundle"}, {"contents", "contents"}, {"package", "package"}};
    int Failure = XML_WALK_OK;
    SECTIONPTR Package = WalkToSection(BundleXMLFileName, Steps, 3, &Failure);
    int Count = 0;
    for (; Package != nullptr; Package = GetNextSibling(Package))
        Count += TakePackage(Package);
    return Count > 0 ? Count : XML_NO_PACKAGES;
}

// GetBundleName's result for a walk that stopped at a missing section: -2 no root, -3 no
// zel_bundle, -4 no name (the walk has printed the message).
static int MissingNameSection(void)
{
    SECTIONPTR Root = GetRootNode();
    if (Root == nullptr)
        return -2;
    return FindFirstChildOf(Root, "zel_bundle") == nullptr ? -3 : -4;
}

int GetBundleName(const char *BundleXMLFileName, const char *LanguageName, char *BundleName,
                  size_t BundleNameSize)
{
    static const XMLSTEP Steps[] = {{"zel_bundle", "zel_bundle"}, {"name", "name"}};
    if (BundleName == nullptr) {
        UseXMLFile(BundleXMLFileName);
        return -1;
    }
    int Failure = XML_WALK_OK;
    SECTIONPTR Name = WalkToSection(BundleXMLFileName, Steps, 2, &Failure);
    if (Name == nullptr)
        return Failure == XML_WALK_SWITCH_FAILED ? -1 : MissingNameSection();
    const char *Text = SelectLanguage(Name, "name_xlate", LanguageName, 0);
    if (Text == nullptr || !CopyBundleValue(BundleName, BundleNameSize, Text, "name", BundleXMLFileName))
        return -5;
    return 0;
}

void FreeBundleInfo(BUNDLEINFOPTR Bundle)
{
    if (Bundle == nullptr)
        return;
    free(Bundle->FileName);
    free(Bundle->Version);
    free(Bundle->OSVersion);
    free(Bundle);
}

void FreeBundleList(BUNDLEINFOPTR *List)
{
    while (*List != nullptr) {
        BUNDLEINFOPTR Next = (*List)->Next;
        FreeBundleInfo(*List);
        *List = Next;
    }
}
