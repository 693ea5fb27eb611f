// config_files.cpp - configuration values written to their output files: one line
// OUTPUTNAME=value each, replacing every line that sets the same name, otherwise appended. A file
// is written whole or not at all (a temporary file beside it, forced to the disk, renamed over
// it), keeps its owner and mode, and is made 0600 when new and holding a password (0644
// otherwise). A symbolic link is not followed. Writes no globals.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "install.h"

#define MASK "********"
#define CONFIG_FILE_MAX (16 * 1024 * 1024) // a configuration file larger is not ours to rewrite

struct ConfigFile {
    std::string Path, Text;
    bool Exists = false;
    struct stat St {};
};

static int Fail(std::string *Error, const std::string &Path, const std::string &What)
{
    *Error = Path + ": " + What;
    return -1;
}

static int ReadConfig(ConfigFile *F, std::string *Error)
{
    if (F->Path.empty() || F->Path[0] != '/')
        return Fail(Error, F->Path, "an output file must be an absolute path");
    int Fd = open(F->Path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (Fd < 0 && errno == ENOENT)
        return 0;
    if (Fd < 0)
        return Fail(Error, F->Path,
                    errno == ELOOP ? "is a symbolic link; it is not followed" : strerror(errno));
    F->Exists = fstat(Fd, &F->St) == 0 && S_ISREG(F->St.st_mode);
    char Buffer[65536];
    ssize_t N = 0;
    while (F->Exists && F->Text.size() <= CONFIG_FILE_MAX &&
           (N = read(Fd, Buffer, sizeof Buffer)) > 0)
        F->Text.append(Buffer, (size_t)N);
    close(Fd);
    if (!F->Exists)
        return Fail(Error, F->Path, "is not a regular file");
    if (N < 0 || F->Text.size() > CONFIG_FILE_MAX)
        return Fail(Error, F->Path, N < 0 ? strerror(errno) : "is larger than 16 MB");
    return 0;
}

static std::string Shown(const InValue &V, const std::string &Value)
{
    return V.Name + "=" + (V.Password ? MASK : Value);
}

// Sets one value in the file's lines; the change, if the text changed.
static void SetValue(ConfigFile *F, const InValue &V, std::vector<InChange> *Changes)
{
    std::string Prefix = V.Name + "=", Line = Prefix + V.Value, Out;
    InChange C{F->Path, V.Name, "", Shown(V, V.Value), false, V.Password};
    bool Set = false;
    for (size_t At = 0; At < F->Text.size();) {
        size_t End = F->Text.find('\n', At);
        End = End == std::string::npos ? F->Text.size() : End;
        std::string Old = F->Text.substr(At, End - At);
        bool Sets = Old.compare(0, Prefix.size(), Prefix) == 0;
        if (Sets && !C.HadBefore)
            C.Before = Shown(V, Old.substr(Prefix.size()));
        C.HadBefore = C.HadBefore || Sets;
        Set = Set || Sets;
        Out += (Sets ? Line : Old) + (End < F->Text.size() ? "\n" : "");
        At = End + 1;
    }
    if (!Set)
        Out += (Out.empty() || Out.back() == '\n' ? "" : "\n") + Line + "\n";
    if (Out != F->Text)
        Changes->push_back(C);
    F->Text = std::move(Out);
}

// The files the values go to, in the order first named, each read and its new text composed.
static int Compose(const std::vector<InValue> &Values, std::vector<ConfigFile> *Files,
                   std::vector<InChange> *Changes, std::string *Error)
{
    for (const InValue &V : Values) {
        ConfigFile *F = nullptr;
        for (ConfigFile &Known : *Files)
            F = Known.Path == V.File ? &Known : F;
        if (F == nullptr) {
            Files->emplace_back();
            F = &Files->back();
            F->Path = V.File;
            if (ReadConfig(F, Error) != 0)
                return -1;
        }
        SetValue(F, V, Changes);
    }
    return 0;
}

int InConfigChanges(const std::vector<InValue> &Values, std::vector<InChange> *Changes,
                    std::string *Error)
{
    std::vector<ConfigFile> Files;
    return Compose(Values, &Files, Changes, Error);
}

static int WriteAll(int Fd, const std::string &Text)
{
    for (size_t Done = 0; Done < Text.size();) {
        ssize_t N = write(Fd, Text.data() + Done, Text.size() - Done);
        if (N < 0 && errno == EINTR)
            continue;
        if (N <= 0)
            return -1;
        Done += (size_t)N;
    }
    return 0;
}

static int SyncParent(const std::string &Path)
{
    std::string Dir = Path.substr(0, std::max<size_t>(Path.rfind('/'), 1));
    int Fd = open(Dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int Synced = Fd >= 0 ? fsync(Fd) : -1;
    if (Fd >= 0)
        close(Fd);
    return Synced;
}

// The new text beside the file, with the old file's owner and mode, then renamed over it.
static int Replace(const ConfigFile &F, bool Password, std::string *Error)
{
    if (InMakeDirectories(F.Path.substr(0, F.Path.rfind('/')), 0755, Error) != 0)
        return -1;
    std::string Temp = F.Path + ".zelXXXXXX";
    std::vector<char> Name(Temp.begin(), Temp.end());
    Name.push_back('\0');
    int Fd = mkostemp(Name.data(), O_CLOEXEC);
    if (Fd < 0)
        return Fail(Error, F.Path, std::string("cannot be written: ") + strerror(errno));
    mode_t Mode = F.Exists ? (F.St.st_mode & 07777) : Password ? 0600 : 0644;
    bool Ok = (!F.Exists || fchown(Fd, F.St.st_uid, F.St.st_gid) == 0) && fchmod(Fd, Mode) == 0 &&
              WriteAll(Fd, F.Text) == 0 && fsync(Fd) == 0;
    int Errno = errno;
    Ok = close(Fd) == 0 && Ok && rename(Name.data(), F.Path.c_str()) == 0;
    Errno = Ok ? 0 : Errno ? Errno : errno;
    if (!Ok) {
        unlink(Name.data());
        return Fail(Error, F.Path, std::string("cannot be written: ") + strerror(Errno));
    }
    return SyncParent(F.Path) == 0 ? 0 : Fail(Error, F.Path, "its directory cannot be synced");
}

int InConfigWrite(const std::vector<InValue> &Values, std::string *Error)
{
    std::vector<ConfigFile> Files;
    std::vector<InChange> Changes;
    if (Compose(Values, &Files, &Changes, Error) != 0)
        return -1;
    for (const ConfigFile &F : Files) {
        bool Changed = false, Password = false;
        for (const InChange &C : Changes)
            Changed = Changed || C.File == F.Path;
        for (const InValue &V : Values)
            Password = Password || (V.File == F.Path && V.Password);
        if (Changed && Replace(F, Password, Error) != 0)
            return -1;
    }
    return 0;
}
