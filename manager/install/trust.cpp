// trust.cpp - what the installer trusts before it runs a bundle's commands as root: files and
// directories that belong to root and that no one else can write, up to "/" (a sticky directory
// that root owns, such as /tmp, may be writable by all: no one else can rename what is in it),
// and an answers file with a password that no one else can read. Writes no globals.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "install.h"

static int Untrusted(std::string *Why, const std::string &Path, const std::string &What)
{
    *Why = Path + " " + What;
    return -1;
}

static std::string Mode(const struct stat &St)
{
    char Text[8];
    snprintf(Text, sizeof Text, "%04o", (unsigned)(St.st_mode & 07777));
    return Text;
}

// lstat: a link is judged itself, and what it names is judged by the caller's realpath.
static int Judge(const std::string &Path, bool SkipWritableSticky, std::string *Why)
{
    struct stat St;
    if (lstat(Path.c_str(), &St) != 0)
        return Untrusted(Why, Path, std::string("cannot be examined: ") + strerror(errno));
    if (St.st_uid != 0)
        return Untrusted(Why, Path,
                         "belongs to user " + std::to_string(St.st_uid) +
                             ", not root: its commands would run as root");
    bool Sticky = S_ISDIR(St.st_mode) && (St.st_mode & S_ISVTX);
    if ((St.st_mode & (S_IWGRP | S_IWOTH)) && !(SkipWritableSticky && Sticky))
        return Untrusted(Why, Path,
                         "can be written by its group or by others (mode " + Mode(St) +
                             "): its commands would run as root");
    return 0;
}

int InTrustPath(const std::string &Path, std::string *Why)
{
    return Judge(Path, false, Why);
}

int InTrustDirectory(const std::string &Dir, std::string *Why)
{
    if (Judge(Dir, false, Why) != 0)
        return -1;
    for (std::string Up = Dir; Up.size() > 1;) {
        size_t Slash = Up.rfind('/');
        Up = Slash == 0 || Slash == std::string::npos ? "/" : Up.substr(0, Slash);
        if (Judge(Up, true, Why) != 0)
            return -1;
    }
    return 0;
}

int InTrustSecretFile(const std::string &Path, std::string *Why)
{
    struct stat St;
    if (stat(Path.c_str(), &St) != 0)
        return Untrusted(Why, Path, std::string("cannot be examined: ") + strerror(errno));
    if (St.st_mode & (S_IROTH | S_IWOTH))
        return Untrusted(Why, Path,
                         "holds a password and others can read or write it (mode " + Mode(St) +
                             "); chmod o-rw it");
    if ((St.st_mode & (S_IRGRP | S_IWGRP)) && St.st_gid != 0)
        return Untrusted(Why, Path,
                         "holds a password and its group " + std::to_string(St.st_gid) +
                             " can read it (mode " + Mode(St) + "); chmod g-rw it");
    return 0;
}
