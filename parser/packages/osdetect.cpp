// osdetect.cpp - detection of the installed distribution from its release file under /etc,
// through shell pipelines that leave their result in /tmp/release.out.
// Owns and writes CurrentlyInstalledOS, and writes /tmp/release.out (created by this file,
// root's own, before each pipeline).
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

char *CurrentlyInstalledOS = nullptr;

#define COMMAND_BUFFER_SIZE 1024 /* each pipeline is built in this; the longest needs ~130 */
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

// ---- /tmp/release.out ----------------------------------------------------------------------
// The pipelines are root shells that write "> /tmp/release.out" (open with O_TRUNC, following
// links, blocking on a FIFO). Before each one the sub-service creates the file itself, new,
// regular, owned by root and mode 0600, and renames it onto the path, in a sticky /tmp: no
// other user can then remove or rename it, so the shell writes into that file and nowhere else. After the pipeline the same
// file is read through the descriptor kept open, once the name is seen to still lead to it.

// How many times an empty directory planted at the path is removed before the creation gives up.
#define RELEASE_OUT_ATTEMPTS 100

enum { RELEASE_OUT_FAILED = -1, RELEASE_OUT_UNSAFE = -2 };

// The detection cannot trust /tmp/release.out: says so, naming the path and the reason.
static int ReleaseOutUnsafe(const char *Reason)
{
    printf("The installed OS cannot be detected: " RELEASE_OUT_FILE
           " cannot be used safely (%s).\n",
           Reason);
    return RELEASE_OUT_UNSAFE;
}

// /tmp must let only a file's owner remove or rename it: a directory owned by root that no
// one else may write, or a sticky one.
static bool TmpKeepsOwnersFiles(void)
{
    struct stat Info;
    if (stat("/tmp", &Info) != 0 || !S_ISDIR(Info.st_mode) || Info.st_uid != 0)
        return false;
    return (Info.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (Info.st_mode & S_ISVTX) != 0;
}

// Removes whatever is at the path (an empty directory included). 0, or the errno of a removal
// that failed (a non-empty directory of another user: ENOTEMPTY).
static int RemovePlanted(void)
{
    struct stat Info;
    if (lstat(RELEASE_OUT_FILE, &Info) != 0)
        return 0;
    int Result = S_ISDIR(Info.st_mode) ? rmdir(RELEASE_OUT_FILE) : unlink(RELEASE_OUT_FILE);
    return Result == 0 || errno == ENOENT ? 0 : errno;
}

// Moves a freshly created file onto the path: rename replaces a link, a FIFO or a file that
// another user planted there in one step, so no one can slip anything in between. A directory
// is not replaced by rename: an empty one is removed and the move tried again, a bounded
// number of times; one that cannot be removed ends the attempt. 0, or -1 with errno.
static int MoveOntoReleaseOut(const char *Temporary)
{
    for (int Attempt = 0; Attempt < RELEASE_OUT_ATTEMPTS; Attempt++) {
        if (rename(Temporary, RELEASE_OUT_FILE) == 0)
            return 0;
        if (errno != EISDIR && errno != ENOTEMPTY && errno != EEXIST)
            return -1;
        int Removal = RemovePlanted();
        if (Removal != 0) {
            errno = Removal;
            return -1;
        }
    }
    errno = EEXIST;
    return -1;
}

// Creates the file afresh for one pipeline, new, regular, root's own and mode 0600, under a
// name no one can guess, and moves it onto the path: its descriptor (read and write), or -1
// with errno.
static int CreateReleaseOut(struct stat *Created)
{
    char Temporary[] = RELEASE_OUT_FILE ".XXXXXX";
    int Fd = mkostemp(Temporary, O_CLOEXEC);
    if (Fd < 0)
        return -1;
    if (fstat(Fd, Created) == 0 && MoveOntoReleaseOut(Temporary) == 0)
        return Fd;
    int Failure = errno;
    unlink(Temporary);
    close(Fd);
    errno = Failure;
    return -1;
}

// The path still names the file created for the pipeline, and nothing else links to it.
static bool StillOurs(int Fd, const struct stat *Created)
{
    struct stat AtPath, Opened;
    if (lstat(RELEASE_OUT_FILE, &AtPath) != 0 || fstat(Fd, &Opened) != 0)
        return false;
    return AtPath.st_dev == Created->st_dev && AtPath.st_ino == Created->st_ino &&
           Opened.st_ino == Created->st_ino && S_ISREG(AtPath.st_mode) &&
           AtPath.st_uid == geteuid() && AtPath.st_nlink == 1;
}

// Reads the start of the file (at most DataSize - 1 bytes) into Data, NUL terminated.
static long ReadReleaseOut(int Fd, char *Data, size_t DataSize)
{
    struct stat Info;
    if (fstat(Fd, &Info) != 0) {
        printf("Error reading release.out file.  Error returned is %s\n", strerror(errno));
        return RELEASE_OUT_FAILED;
    }
    size_t Size = static_cast<size_t>(Info.st_size);
    ssize_t Got = pread(Fd, Data, Size < DataSize - 1 ? Size : DataSize - 1, 0);
    if (Got < 0) {
        printf("Error reading release.out file.  Error returned is %s\n", strerror(errno));
        return RELEASE_OUT_FAILED;
    }
    Data[Got] = '\0';
    return Got;
}

// Runs one pipeline into a fresh /tmp/release.out and reads what it left there into Data.
// Returns the number of bytes read, RELEASE_OUT_FAILED (read error, with its message) or
// RELEASE_OUT_UNSAFE (the path cannot be trusted, with its message). The file is removed.
static long RunReleasePipeline(const char *Pipeline, char *Data, size_t DataSize)
{
    Data[0] = '\0';
    if (!TmpKeepsOwnersFiles())
        return ReleaseOutUnsafe("/tmp is not a sticky directory owned by root");
    struct stat Created;
    int Fd = CreateReleaseOut(&Created);
    if (Fd < 0)
        return ReleaseOutUnsafe(strerror(errno));
    char Command[COMMAND_BUFFER_SIZE] = {};
    CopyBounded(Command, sizeof(Command), Pipeline);
    (void)system(Command);
    long Length = RELEASE_OUT_UNSAFE;
    if (StillOurs(Fd, &Created)) {
        Length = ReadReleaseOut(Fd, Data, DataSize);
        unlink(RELEASE_OUT_FILE);
    } else {
        ReleaseOutUnsafe("it was replaced while a pipeline ran");
    }
    close(Fd);
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

// The outcome of one pass or one code: TRUE, FALSE, or OS_CODE_UNSAFE when /tmp/release.out
// could not be trusted (the detection then fails as a whole).
#define OS_CODE_UNSAFE (-1)

// A pipeline that gave nothing usable empties both buffers; an unsafe path says so.
static signed char PipelineFailed(long Length, char *InstalledOSName, char *InstalledOSVersion)
{
    InstalledOSName[0] = InstalledOSVersion[0] = '\0';
    return Length == RELEASE_OUT_UNSAFE ? OS_CODE_UNSAFE : FALSE;
}

static signed char VersionPass(const char *Pipeline, char *InstalledOSName,
                               char *InstalledOSVersion)
{
    char Data[RELEASE_OUT_READ_MAX];
    long Length = RunReleasePipeline(Pipeline, Data, sizeof(Data));
    if (Length < 0)
        return PipelineFailed(Length, InstalledOSName, InstalledOSVersion);
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
    long Length = RunReleasePipeline(Pipeline, Data, sizeof(Data));
    if (Length < 0)
        return PipelineFailed(Length, InstalledOSName, InstalledOSVersion);
    size_t Line = strcspn(Data, "\n");
    Data[Line] = '\0';
    if (Line == 0 || !FitsOSBuffer(Line, "name"))
        return FALSE;
    CopyBounded(InstalledOSName, OS_NAME_MAX, Data);
    return TRUE;
}

// One code's two passes: TRUE, FALSE or OS_CODE_UNSAFE.
static signed char RunOSCode(int OSMfg, char *InstalledOSName, char *InstalledOSVersion)
{
    const OSPIPELINES *Entry = FindPipelines(OSMfg);
    if (Entry == nullptr || InstalledOSName == nullptr || InstalledOSVersion == nullptr)
        return FALSE;
    signed char Result = VersionPass(Entry->VersionCommand, InstalledOSName, InstalledOSVersion);
    if (Result != TRUE)
        return Result;
    return NamePass(Entry->NameCommand, InstalledOSName, InstalledOSVersion);
}

signed char GetInstalledOSVersion(int OSMfg, char *InstalledOSName, char *InstalledOSVersion)
{
    return RunOSCode(OSMfg, InstalledOSName, InstalledOSVersion) == TRUE ? TRUE : FALSE;
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

// The codes of one release file, in order: each runs only while the ones before it gave FALSE.
// TRUE when the last one run gave TRUE, FALSE when none did, OS_CODE_UNSAFE as soon as one was.
static signed char RunOSCodes(const int *Codes, int Count, char *InstalledOSName,
                              char *InstalledOSVersion)
{
    signed char Result = FALSE;
    for (int Index = 0; Index < Count && Result == FALSE; Index++)
        Result = RunOSCode(Codes[Index], InstalledOSName, InstalledOSVersion);
    return Result;
}

signed char DetectInstalledOS(char *InstalledOSName, char *InstalledOSVersion)
{
    static const int RedHatCodes[] = {OS_RED_HAT, OS_RED_HAT_AS, OS_RED_HAT_EL};
    static const int UnitedLinuxCodes[] = {OS_UNITED_LINUX};
    static const int SuSECodes[] = {OS_SUSE};
    signed char Result;
    if (ReleaseFileExists("/etc/redhat-release")) {
        Result = RunOSCodes(RedHatCodes, 3, InstalledOSName, InstalledOSVersion);
    } else if (ReleaseFileExists("/etc/UnitedLinux-release")) {
        Result = RunOSCodes(UnitedLinuxCodes, 1, InstalledOSName, InstalledOSVersion);
    } else if (ReleaseFileExists("/etc/SuSE-release")) {
        Result = RunOSCodes(SuSECodes, 1, InstalledOSName, InstalledOSVersion);
    } else {
        printf("An attempt was made to install the Rezapak on an unsupported operating system.  "
               "Installation FAILED.\n");
        return FALSE;
    }
    // What the pipelines gave is taken whatever it is, unless /tmp/release.out could not be
    // trusted: then nothing was detected, and the call fails rather than match on nothing.
    if (Result == OS_CODE_UNSAFE)
        return FALSE;
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
