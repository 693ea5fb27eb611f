// facts.cpp - a machine's facts for the check: this machine ("/") or a snapshot directory,
// every path opened with openat2 and RESOLVE_IN_ROOT, so that a link in a snapshot is resolved
// inside it as if it were "/" and nothing outside it is ever read. Release files, the running
// kernel, the environment, the running programs and the PCI devices; a fact that cannot be
// read is kept as unknown with its reason; what the plan is made from (release files, SP3 and
// RZPELMCONFIGURED). Writes only the CkFacts record it is given.
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fnmatch.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>

#include "check.h"

static const char *const ReleasePaths[] = {"/etc/redhat-release", "/etc/SuSE-release",
                                           "/etc/UnitedLinux-release"};

// A path of the machine opened below its root; -1 with errno on failure.
static int OpenIn(const CkFacts &F, const std::string &Path, int Flags)
{
    struct open_how How;
    memset(&How, 0, sizeof How);
    How.flags = (unsigned long long)(Flags | O_CLOEXEC);
    How.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    std::string Relative = Path.empty() ? "." : Path;
    return (int)syscall(SYS_openat2, F.RootFd, Relative.c_str(), &How, sizeof How);
}

static std::string Reason(const std::string &Path, int Errno)
{
    return Path + ": " + strerror(Errno);
}

int CkReadFile(const CkFacts &F, const std::string &Path, size_t Limit, std::string *Text,
               std::string *Why)
{
    int Fd = OpenIn(F, Path, O_RDONLY | O_NONBLOCK);
    struct stat St;
    if (Fd < 0 || fstat(Fd, &St) != 0 || !S_ISREG(St.st_mode)) {
        *Why = Fd < 0 ? Reason(Path, errno) : Path + ": not a regular file";
        if (Fd >= 0)
            close(Fd);
        return -1;
    }
    Text->clear();
    char Buffer[8192];
    ssize_t N = 0;
    while (Text->size() < Limit && (N = read(Fd, Buffer, sizeof Buffer)) > 0)
        Text->append(Buffer, (size_t)N);
    int Errno = errno;
    close(Fd);
    if (N < 0) {
        *Why = Reason(Path, Errno);
        return -1;
    }
    if (Text->size() > Limit)
        Text->resize(Limit);
    return 0;
}

int CkStat(const CkFacts &F, const std::string &Path, struct stat *St, std::string *Why)
{
    int Fd = OpenIn(F, Path, O_PATH);
    if (Fd < 0) {
        *Why = Reason(Path, errno);
        return errno == ENOENT || errno == ENOTDIR ? -1 : -2;
    }
    int Result = fstat(Fd, St) == 0 ? 0 : -2;
    if (Result != 0)
        *Why = Reason(Path, errno);
    close(Fd);
    return Result;
}

int CkList(const CkFacts &F, const std::string &Path, std::vector<std::string> *Names,
           std::string *Why)
{
    int Fd = OpenIn(F, Path, O_RDONLY | O_DIRECTORY);
    DIR *D = Fd < 0 ? nullptr : fdopendir(Fd);
    if (D == nullptr) {
        *Why = Reason(Path, errno);
        if (Fd >= 0)
            close(Fd);
        return -1;
    }
    while (struct dirent *E = readdir(D))
        if (strcmp(E->d_name, ".") != 0 && strcmp(E->d_name, "..") != 0)
            Names->push_back(E->d_name);
    closedir(D);
    return 0;
}

static void LoadReleases(CkFacts *F)
{
    for (const char *Path : ReleasePaths) {
        std::string Text, Why;
        if (CkReadFile(*F, Path, 4096, &Text, &Why) == 0)
            F->Releases.push_back({Path, Text});
    }
}

static void LoadKernel(CkFacts *F)
{
    std::string Text;
    if (CkReadFile(*F, "/proc/sys/kernel/osrelease", 256, &Text, &F->KernelFact.Why) != 0)
        return;
    Text = Text.substr(0, Text.find('\n'));
    if (Text.empty()) {
        F->KernelFact.Why = "/proc/sys/kernel/osrelease is empty";
        return;
    }
    F->Kernel = Text;
    F->KernelFact.Known = true;
}

// The environment: this process's own on this machine, else the snapshot's environ file.
static void LoadEnviron(CkFacts *F)
{
    std::string Text;
    if (F->Live) {
        for (char **E = environ; *E != nullptr; E++)
            Text += std::string(*E) + "\n";
    } else if (CkReadFile(*F, "/environ", 1 << 20, &Text, &F->EnvironFact.Why) != 0) {
        return;
    }
    size_t Start = 0;
    while (Start < Text.size()) {
        size_t End = Text.find('\n', Start);
        std::string Line = Text.substr(Start, End == std::string::npos ? End : End - Start);
        size_t Eq = Line.find('=');
        if (Eq != std::string::npos && Eq > 0)
            F->Environ[Line.substr(0, Eq)] = Line.substr(Eq + 1);
        Start = End == std::string::npos ? Text.size() : End + 1;
    }
    F->EnvironFact.Known = true;
}

static bool AllDigits(const std::string &S)
{
    return !S.empty() && S.find_first_not_of("0123456789") == std::string::npos;
}

static void LoadProcesses(CkFacts *F)
{
    std::vector<std::string> Names;
    if (CkList(*F, "/proc", &Names, &F->ProcessFact.Why) != 0)
        return;
    for (const std::string &Pid : Names) {
        std::string Comm, Why;
        if (AllDigits(Pid) && CkReadFile(*F, "/proc/" + Pid + "/comm", 64, &Comm, &Why) == 0)
            F->Programs.insert(Comm.substr(0, Comm.find('\n')));
    }
    F->ProcessFact.Known = true;
}

// ld.so.conf and its includes: the directories it names, includes followed to a few levels.
static void ReadLdConf(CkFacts *F, const std::string &Path, int Depth);

static void IncludeLdConf(CkFacts *F, const std::string &Pattern, int Depth)
{
    std::string Full = Pattern[0] == '/' ? Pattern : "/etc/" + Pattern;
    size_t Slash = Full.rfind('/');
    std::string Dir = Full.substr(0, Slash), Glob = Full.substr(Slash + 1), Why;
    std::vector<std::string> Names;
    if (CkList(*F, Dir.empty() ? "/" : Dir, &Names, &Why) != 0)
        return;
    std::sort(Names.begin(), Names.end());
    for (const std::string &N : Names)
        if (fnmatch(Glob.c_str(), N.c_str(), 0) == 0)
            ReadLdConf(F, Dir + "/" + N, Depth + 1);
}

static void ReadLdConf(CkFacts *F, const std::string &Path, int Depth)
{
    std::string Text, Why;
    if (Depth > 4 || CkReadFile(*F, Path, 1 << 16, &Text, &Why) != 0)
        return;
    std::istringstream Lines(Text);
    std::string Line;
    while (std::getline(Lines, Line)) {
        Line = Line.substr(0, Line.find('#'));
        std::istringstream Words(Line);
        std::string Word;
        if (!(Words >> Word))
            continue;
        if (Word == "include") {
            while (Words >> Word)
                IncludeLdConf(F, Word, Depth);
            continue;
        }
        do {
            if (Word[0] == '/')
                F->LibraryDirs.push_back(Word);
        } while (Words >> Word);
    }
}

int CkOpenFacts(const std::string &Root, bool Live, CkFacts *F, std::string *Error)
{
    F->Root = Root;
    F->Live = Live;
    F->Name = Live ? "this machine" : Root;
    F->RootFd = open(Root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (F->RootFd < 0) {
        *Error = Reason(Root, errno);
        return -1;
    }
    LoadReleases(F);
    LoadEnviron(F);
    return 0;
}

void CkReadFacts(CkFacts *F)
{
    if (F->RootFd < 0)
        return;
    LoadKernel(F);
    LoadProcesses(F);
    F->LibraryDirs = {"/lib", "/usr/lib", "/lib64", "/usr/lib64"};
    ReadLdConf(F, "/etc/ld.so.conf", 0);
    F->DeviceFact.Known = CkReadDevices(*F, &F->Devices, &F->DeviceFact.Why) == 0;
}

int CkLoadFacts(const std::string &Root, bool Live, CkFacts *F, std::string *Error)
{
    if (CkOpenFacts(Root, Live, F, Error) != 0)
        return -1;
    CkReadFacts(F);
    return 0;
}

static bool IsYes(const CkFacts &F, const char *Name)
{
    auto Found = F.Environ.find(Name);
    return Found != F.Environ.end() && Found->second == "YES";
}

CkPlanInput CkPlanInputOf(const CkFacts &F)
{
    CkPlanInput In;
    In.Releases = F.Releases;
    In.Sp3 = IsYes(F, "SP3");
    In.Configured = IsYes(F, "RZPELMCONFIGURED");
    return In;
}

void CkCloseFacts(CkFacts *F)
{
    if (F->RootFd >= 0)
        close(F->RootFd);
    F->RootFd = -1;
}
