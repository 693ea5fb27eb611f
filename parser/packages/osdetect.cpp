// osdetect.cpp - detection of the installed distribution from its release file under /etc,
// through shell pipelines that leave their result in /tmp/release.out.
// Writes CurrentlyInstalledOS (defined with the tree's globals) and /tmp/release.out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "packages.h"
#include "runflags.h"
#include "support.h"
#include "xmltokenizer.h"

#define COMMAND_BUFFER_SIZE 1024
// Only the first line of a pipeline's output is used, and it must fit OS_NAME_MAX: a longer
// file is read only as far as needed to see that.
#define RELEASE_OUT_READ_MAX 1024

typedef struct OSPIPELINES {
    int OSMfg;
    const char *VersionCommand;
    const char *NameCommand;
} OSPIPELINES;

static const OSPIPELINES Pipelines[] = {
    {OS_RED_HAT, "cat /etc/redhat-release | awk '{print $5}' > /tmp/release.out",
     "cat /etc/redhat-release 3>/dev/null | awk '{print $1\" \"$2\" \"$3}' > /tmp/release.out"},
    {OS_UNITED_LINUX,
     "grep -i unitedlinux /etc/UnitedLinux-release | awk '{print $2}' > /tmp/release.out",
     "grep -i unitedlinux /etc/UnitedLinux-release 3>/dev/null | awk '{print $1}' > "
     "/tmp/release.out"},
    {OS_SUSE, "cat /etc/SuSE-release | grep -v \"(i386)\" | awk '{print $3}' > /tmp/release.out",
     "cat /etc/SuSE-release 3>/dev/null | grep \"(i386)\" | awk '{print $1\" \"$2}' > "
     "/tmp/release.out"},
    {OS_RED_HAT_AS,
     "cat /etc/redhat-release | grep \"Red Hat Linux Advanced Server\" | awk '{print $7}' > "
     "/tmp/release.out",
     "cat /etc/redhat-release 3>/dev/null | grep \"Red Hat Linux Advanced Server\" | awk "
     "'{print $1\" \"$2\" \"$3\" \"$4\" \"$5}' > /tmp/release.out"},
    {OS_RED_HAT_EL,
     "cat /etc/redhat-release | grep \"Red Hat Enterprise Linux\" | awk '{print $7}' > "
     "/tmp/release.out",
     "cat /etc/redhat-release 3>/dev/null | grep \"Red Hat Enterprise Linux\" | awk '{print "
     "$1\" \"$2\" \"$3\" \"$4}' > /tmp/release.out"},
};

static const OSPIPELINES *FindPipelines(int OSMfg)
{
    for (const OSPIPELINES &Entry : Pipelines)
        if (Entry.OSMfg == OSMfg)
            return &Entry;
    return nullptr;
}

// Runs one pipeline and reads the start of what it left in /tmp/release.out into Data (NUL
// terminated). The file is removed before the pipeline runs and after it is read, and it is
// opened without following a link and only when it is a regular file, so nothing planted at
// the fixed path is read instead. Returns the number of bytes read, or -1 with the message.
static long RunReleasePipeline(const char *Pipeline, char *Data, size_t DataSize)
{
    char Command[COMMAND_BUFFER_SIZE] = {};
    CopyBounded(Command, sizeof(Command), Pipeline);
    unlink(RELEASE_OUT_FILE);
    (void)system(Command);

    int Fd = open(RELEASE_OUT_FILE, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (Fd < 0) {
        printf("Error opening release.out file.  Error returned is %s\n", strerror(errno));
        unlink(RELEASE_OUT_FILE);
        return -1;
    }
    struct stat Info;
    long Length = -1;
    if (fstat(Fd, &Info) != 0 || !S_ISREG(Info.st_mode)) {
        printf("Error opening release.out file.  Error returned is %s\n", "not a regular file");
    } else {
        size_t Wanted = static_cast<size_t>(Info.st_size) < DataSize - 1
                            ? static_cast<size_t>(Info.st_size)
                            : DataSize - 1;
        ssize_t Got = read(Fd, Data, Wanted);
        if (Got < 0)
            printf("Error reading release.out file.  Error returned is %s\n", strerror(errno));
        else
            Length = Got;
    }
    close(Fd);
    unlink(RELEASE_OUT_FILE);
    Data[Length < 0 ? 0 : Length] = '\0';
    return Length;
}

// Printable ASCII that is neither a letter nor a space: the digits and the punctuation.
static bool IsDigitOrPunctuation(unsigned char c)
{
    bool Letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return c > 0x20 && c < 0x7f && !Letter;
}

// A value that does not fit its 256-byte buffer is refused rather than cut: it names the
// distribution and is matched against the bundles, so a cut one would mean something else.
static bool FitsOSBuffer(size_t Length, const char *What)
{
    if (Length < OS_NAME_MAX)
        return true;
    printf("The installed OS %s in release.out is longer than %d characters; it is ignored.\n",
           What, OS_NAME_MAX - 1);
    return false;
}

static signed char VersionPass(const char *Pipeline, char *InstalledOSName,
                               char *InstalledOSVersion)
{
    char Data[RELEASE_OUT_READ_MAX];
    if (RunReleasePipeline(Pipeline, Data, sizeof(Data)) < 0) {
        InstalledOSName[0] = InstalledOSVersion[0] = '\0';
        return FALSE;
    }
    size_t Run = 0;
    while (IsDigitOrPunctuation(static_cast<unsigned char>(Data[Run])))
        Run++;
    Data[Run] = '\0';
    if (!FitsOSBuffer(Run, "version") || strtod(Data, nullptr) == 0.0)
        return FALSE;
    CopyBounded(InstalledOSVersion, OS_NAME_MAX, strcmp(Data, "2.9.5") == 0 ? "3" : Data);
    return TRUE;
}

static signed char NamePass(const char *Pipeline, char *InstalledOSName, char *InstalledOSVersion)
{
    char Data[RELEASE_OUT_READ_MAX];
    if (RunReleasePipeline(Pipeline, Data, sizeof(Data)) < 0) {
        InstalledOSName[0] = InstalledOSVersion[0] = '\0';
        return FALSE;
    }
    size_t Line = strcspn(Data, "\n");
    Data[Line] = '\0';
    if (Line == 0 || !FitsOSBuffer(Line, "name"))
        return FALSE;
    CopyBounded(InstalledOSName, OS_NAME_MAX, Data);
    return TRUE;
}

signed char GetInstalledOSVersion(int OSMfg, char *InstalledOSName, char *InstalledOSVersion)
{
    const OSPIPELINES *Entry = FindPipelines(OSMfg);
    if (Entry == nullptr || InstalledOSName == nullptr || InstalledOSVersion == nullptr)
        return FALSE;
    if (!VersionPass(Entry->VersionCommand, InstalledOSName, InstalledOSVersion))
        return FALSE;
    return NamePass(Entry->NameCommand, InstalledOSName, InstalledOSVersion);
}

// CurrentlyInstalledOS = "<name> <version>" with every space turned into '_'.
static void SetCurrentlyInstalledOS(const char *Name, const char *Version)
{
    size_t Size = strlen(Name) + strlen(Version) + 2;
    char *Key = static_cast<char *>(calloc(Size, 1));
    if (Key == nullptr)
        return;
    snprintf(Key, Size, "%s %s", Name, Version);
    for (char *p = Key; *p; p++)
        if (*p == ' ')
            *p = '_';
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = Key;
}

static bool ReleaseFileExists(const char *Path)
{
    struct stat Info;
    return stat(Path, &Info) == 0;
}

signed char DetectInstalledOS(char *InstalledOSName, char *InstalledOSVersion)
{
    if (ReleaseFileExists("/etc/redhat-release")) {
        if (!GetInstalledOSVersion(OS_RED_HAT, InstalledOSName, InstalledOSVersion) &&
            !GetInstalledOSVersion(OS_RED_HAT_AS, InstalledOSName, InstalledOSVersion))
            GetInstalledOSVersion(OS_RED_HAT_EL, InstalledOSName, InstalledOSVersion);
    } else if (ReleaseFileExists("/etc/UnitedLinux-release")) {
        GetInstalledOSVersion(OS_UNITED_LINUX, InstalledOSName, InstalledOSVersion);
    } else if (ReleaseFileExists("/etc/SuSE-release")) {
        GetInstalledOSVersion(OS_SUSE, InstalledOSName, InstalledOSVersion);
    } else {
        printf("An attempt was made to install the Rezapak on an unsupported operating system.  "
               "Installation FAILED.\n");
        return FALSE;
    }
    VerbosePrint("Installed OS Version is %s %s \n", InstalledOSName, InstalledOSVersion);
    SetCurrentlyInstalledOS(InstalledOSName, InstalledOSVersion);
    return TRUE;
}

void CheckForULSP3(void)
{
    if (CurrentlyInstalledOS == nullptr || strcmp(CurrentlyInstalledOS, "UnitedLinux_1.0") != 0)
        return;
    const char *SP3 = getenv("SP3");
    DebugPrint("XMLTOKENIZER--In CFULSP3, SP3 = %s\n", SP3 != nullptr ? SP3 : "(null)");
    if (SP3 == nullptr || strcmp(SP3, "YES") != 0)
        return;
    size_t Size = strlen(CurrentlyInstalledOS) + sizeof("_SP3");
    char *Extended = static_cast<char *>(calloc(Size, 1));
    if (Extended == nullptr)
        return;
    snprintf(Extended, Size, "%s_SP3", CurrentlyInstalledOS);
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = Extended;
    DebugPrint("CurrentlyInstalledOS = %s\n", CurrentlyInstalledOS);
}
