// sandbox.cpp - the private mount namespace that tests and demos run the sub-service in:
// fresh tmpfs on /dev and /tmp, an overlay on /etc for simulated release files. A caller who
// is not root first enters a new user namespace in which it is root, so the same sandbox
// needs no privilege where the kernel allows unprivileged user namespaces.
// Owns the file-static SandboxIsActive; writes nothing outside the namespaces it creates.
#include "sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

static int SandboxIsActive = 0;

static int WriteAll(int Fd, const char *Text, size_t Length);

// The staging area is a tmpfs mounted on /tmp before /tmp itself is replaced: it holds the
// new /dev until that is moved into place, and the overlay's upper and work directories,
// which stay alive (hidden under the fresh /tmp) as long as the overlay uses them.
#define STAGE_DIR "/tmp"
#define STAGE_DEV STAGE_DIR "/dev"
#define STAGE_UPPER STAGE_DIR "/etc-upper"
#define STAGE_WORK STAGE_DIR "/etc-work"

static const char *const DeviceNames[] = {"null", "zero", "random", "urandom", nullptr};
// What survives a reset of /dev: the device nodes and the links made at entry.
static const char *const DevKeep[] = {"null", "zero",  "random", "urandom", "fd",
                                      "stdin", "stdout", "stderr", nullptr};
static const char *const DevLinks[][2] = {{"fd", "/proc/self/fd"},
                                          {"stdin", "/proc/self/fd/0"},
                                          {"stdout", "/proc/self/fd/1"},
                                          {"stderr", "/proc/self/fd/2"}};
static const char *const ReleaseFiles[] = {"/etc/redhat-release", "/etc/UnitedLinux-release",
                                           "/etc/SuSE-release"};

// Directories directly under the host's /tmp in which the caller itself lives (a checkout or
// build tree under /tmp): they are bound back into the fresh /tmp, so that the programs and
// data the caller names stay reachable, and a reset never empties them.
static std::vector<std::string> TmpKeepNames;
static std::vector<const char *> TmpKeep; // TmpKeepNames as a NULL-terminated list

static int Fail(const char *What, const char *Path)
{
    fprintf(stderr, "sandbox: %s %s failed: %s\n", What, Path, strerror(errno));
    return -1;
}

static int MountTmpfs(const char *Path, const char *Options)
{
    if (mount("zelsandbox", Path, "tmpfs", MS_NOSUID, Options) != 0)
        return Fail("mounting tmpfs on", Path);
    return 0;
}

static int MakeDirectory(const char *Path)
{
    if (mkdir(Path, 0755) != 0 && errno != EEXIST)
        return Fail("mkdir", Path);
    return 0;
}

static bool IsKept(const char *Name, const char *const *Keep)
{
    for (; Keep != nullptr && *Keep != nullptr; Keep++)
        if (strcmp(Name, *Keep) == 0)
            return true;
    return false;
}

// Removes every entry of the open directory DirFd except the names in Keep (NULL: none),
// descending into directories without following links. Returns 0 or -1.
static int EmptyDirectory(int DirFd, const char *const *Keep)
{
    int ListFd = dup(DirFd);
    DIR *Dir = ListFd < 0 ? nullptr : fdopendir(ListFd);
    if (Dir == nullptr) {
        if (ListFd >= 0)
            close(ListFd);
        return Fail("listing", "a sandbox directory");
    }
    std::vector<std::string> Names;
    for (struct dirent *Entry = readdir(Dir); Entry != nullptr; Entry = readdir(Dir))
        if (strcmp(Entry->d_name, ".") != 0 && strcmp(Entry->d_name, "..") != 0)
            Names.push_back(Entry->d_name);
    closedir(Dir);

    int Result = 0;
    for (const std::string &Name : Names) {
        if (IsKept(Name.c_str(), Keep))
            continue;
        struct stat Info;
        if (fstatat(DirFd, Name.c_str(), &Info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        int Flags = 0;
        if (S_ISDIR(Info.st_mode)) {
            int SubFd =
                openat(DirFd, Name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (SubFd < 0 || EmptyDirectory(SubFd, nullptr) != 0)
                Result = -1;
            if (SubFd >= 0)
                close(SubFd);
            Flags = AT_REMOVEDIR;
        }
        if (unlinkat(DirFd, Name.c_str(), Flags) != 0)
            Result = Fail("removing", Name.c_str());
    }
    return Result;
}

static int EmptyPath(const char *Path, const char *const *Keep)
{
    int DirFd = open(Path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (DirFd < 0)
        return Fail("opening", Path);
    int Result = EmptyDirectory(DirFd, Keep);
    close(DirFd);
    return Result;
}

// Builds the new /dev in the staging area: host device nodes bound onto empty files, links.
static int BuildDevices(void)
{
    if (MakeDirectory(STAGE_DEV) != 0 || MountTmpfs(STAGE_DEV, "mode=0755") != 0)
        return -1;
    for (const char *const *Name = DeviceNames; *Name != nullptr; Name++) {
        std::string Host = std::string("/dev/") + *Name;
        std::string Staged = std::string(STAGE_DEV "/") + *Name;
        int Fd = open(Staged.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (Fd < 0)
            return Fail("creating", Staged.c_str());
        close(Fd);
        if (mount(Host.c_str(), Staged.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return Fail("binding", Host.c_str());
    }
    for (const auto &Link : DevLinks) {
        std::string Staged = std::string(STAGE_DEV "/") + Link[0];
        if (symlink(Link[1], Staged.c_str()) != 0)
            return Fail("linking", Staged.c_str());
    }
    return 0;
}

static void KeepHostTmpDirectoryOf(const char *Path)
{
    char Resolved[PATH_MAX];
    if (Path == nullptr || realpath(Path, Resolved) == nullptr || strncmp(Resolved, "/tmp/", 5) != 0)
        return;
    std::string Name(Resolved + 5);
    Name = Name.substr(0, Name.find('/'));
    for (const std::string &Kept : TmpKeepNames)
        if (Kept == Name)
            return;
    if (!Name.empty())
        TmpKeepNames.push_back(Name);
}

// Opens the kept host directories (inside the new namespace, before /tmp is covered): their
// descriptors still reach them afterwards.
static int OpenHostTmpKeeps(std::vector<int> *Fds)
{
    char Directory[PATH_MAX];
    KeepHostTmpDirectoryOf("/proc/self/exe");
    KeepHostTmpDirectoryOf(getcwd(Directory, sizeof Directory));
    for (const std::string &Name : TmpKeepNames) {
        int Fd = open(("/tmp/" + Name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (Fd < 0)
            return Fail("opening", ("/tmp/" + Name).c_str());
        Fds->push_back(Fd);
        TmpKeep.push_back(Name.c_str());
    }
    TmpKeep.push_back(nullptr);
    return 0;
}

// Binds the kept host directories into the fresh /tmp under their own names.
static int BindHostTmpKeeps(const std::vector<int> &Fds)
{
    int Result = 0;
    for (size_t i = 0; i < Fds.size(); i++) {
        std::string Target = "/tmp/" + TmpKeepNames[i];
        std::string Source = "/proc/self/fd/" + std::to_string(Fds[i]);
        if (MakeDirectory(Target.c_str()) != 0 ||
            mount(Source.c_str(), Target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            Result = Fail("binding the host directory", Target.c_str());
        close(Fds[i]);
    }
    return Result;
}

// Writes Text to a file of /proc/self (the identity maps of a new user namespace).
static int WriteProcFile(const char *Path, const std::string &Text)
{
    int Fd = open(Path, O_WRONLY | O_CLOEXEC);
    if (Fd < 0)
        return Fail("opening", Path);
    int Result = WriteAll(Fd, Text.data(), Text.size());
    close(Fd);
    return Result == 0 ? 0 : Fail("writing", Path);
}

// A caller who is not root becomes root of a new user namespace (its own user and group
// mapped to 0), which lets it make the mount namespace and the mounts below. Device nodes
// cannot be made there; BuildDevices binds the host's instead.
static int EnterUserNamespace(void)
{
    uid_t Uid = geteuid();
    gid_t Gid = getegid();
    if (unshare(CLONE_NEWUSER) != 0) {
        fprintf(stderr,
                "sandbox: this kernel does not let an unprivileged user create a user namespace "
                "(%s); run as root, or allow it with: sysctl -w kernel.unprivileged_userns_clone=1 "
                "user.max_user_namespaces=15000 (and kernel.apparmor_restrict_unprivileged_userns=0 "
                "where AppArmor restricts them)\n",
                strerror(errno));
        return -1;
    }
    if (WriteProcFile("/proc/self/setgroups", "deny") != 0 ||
        WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(Uid) + " 1\n") != 0 ||
        WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(Gid) + " 1\n") != 0)
        return -1;
    return 0;
}

static int FirstEntry(void)
{
    std::vector<int> KeptFds;
    if (geteuid() != 0 && EnterUserNamespace() != 0)
        return -1;
    if (unshare(CLONE_NEWNS) != 0)
        return Fail("unshare of the mount namespace", "");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return Fail("making private", "/");
    if (OpenHostTmpKeeps(&KeptFds) != 0)
        return -1;
    if (MountTmpfs(STAGE_DIR, "mode=0700") != 0 || BuildDevices() != 0)
        return -1;
    if (mount(STAGE_DEV, "/dev", nullptr, MS_MOVE, nullptr) != 0)
        return Fail("moving the new /dev over", "/dev");
    if (MakeDirectory(STAGE_UPPER) != 0 || MakeDirectory(STAGE_WORK) != 0)
        return -1;
    if (mount("zelsandbox", "/etc", "overlay", 0,
              "lowerdir=/etc,upperdir=" STAGE_UPPER ",workdir=" STAGE_WORK) != 0)
        return Fail("mounting the overlay on", "/etc");
    if (MountTmpfs("/tmp", "mode=1777") != 0)
        return -1;
    return BindHostTmpKeeps(KeptFds);
}

int SandboxEnter(void)
{
    if (SandboxIsActive) {
        int Result = EmptyPath("/tmp", TmpKeep.data());
        if (EmptyPath("/dev", DevKeep) != 0)
            Result = -1;
        return Result;
    }
    if (FirstEntry() != 0)
        return -1;
    SandboxIsActive = 1;
    return 0;
}

int SandboxActive(void)
{
    return SandboxIsActive;
}

// A path under /etc, given either in full ("/etc/redhat-release") or as a name below it.
static bool ResolveEtcPath(const char *Path, std::string *Full)
{
    if (Path == nullptr || *Path == '\0' || strstr(Path, "..") != nullptr)
        return false;
    *Full = Path[0] == '/' ? std::string(Path) : std::string("/etc/") + Path;
    return Full->compare(0, 5, "/etc/") == 0 && Full->size() > 5;
}

static int WriteAll(int Fd, const char *Text, size_t Length)
{
    while (Length > 0) {
        ssize_t Written = write(Fd, Text, Length);
        if (Written < 0 && errno == EINTR)
            continue;
        if (Written <= 0)
            return -1;
        Text += Written;
        Length -= static_cast<size_t>(Written);
    }
    return 0;
}

int SandboxSetFile(const char *Path, const char *Text)
{
    std::string Full;
    if (!SandboxIsActive) {
        fprintf(stderr, "sandbox: refusing to change %s outside the sandbox\n", Path ? Path : "");
        return -1;
    }
    if (!ResolveEtcPath(Path, &Full)) {
        fprintf(stderr, "sandbox: %s is not a file under /etc\n", Path ? Path : "(null)");
        return -1;
    }
    if (Text == nullptr) {
        if (unlink(Full.c_str()) != 0 && errno != ENOENT)
            return Fail("removing", Full.c_str());
        return 0;
    }
    int Fd = open(Full.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (Fd < 0)
        return Fail("creating", Full.c_str());
    int Result = WriteAll(Fd, Text, strlen(Text));
    if (close(Fd) != 0 || Result != 0)
        return Fail("writing", Full.c_str());
    return 0;
}

int SandboxClearReleaseFiles(void)
{
    int Result = 0;
    for (const char *File : ReleaseFiles)
        if (SandboxSetFile(File, nullptr) != 0)
            Result = -1;
    return Result;
}
