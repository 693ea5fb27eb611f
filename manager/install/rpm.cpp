// rpm.cpp - what the installer asks of librpm: the SHA-256 of a component's files (the
// journal's key), the name-version-release of an RPM package file, and whether the RPM database
// has it installed (where librpm's configuration puts the database; nothing runs `rpm`).
// Writes librpm's own state once (its configuration read on first use).
#include <fcntl.h>
#include <unistd.h>

#include <rpm/header.h>
#include <rpm/rpmcrypto.h>
#include <rpm/rpmdb.h>
#include <rpm/rpmlib.h>
#include <rpm/rpmlog.h>
#include <rpm/rpmpgp.h>
#include <rpm/rpmts.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "install.h"

static bool RpmReady(void)
{
    static int Read = -2;
    if (Read == -2) {
        rpmSetVerbosity(RPMLOG_ERR);
        Read = rpmReadConfigFiles(nullptr, nullptr);
    }
    return Read == 0;
}

static int HashFile(DIGEST_CTX Ctx, const std::string &Path, std::string *Error)
{
    int Fd = open(Path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (Fd < 0) {
        *Error = Path + ": " + strerror(errno);
        return -1;
    }
    char Buffer[65536];
    ssize_t N;
    while ((N = read(Fd, Buffer, sizeof Buffer)) > 0)
        rpmDigestUpdate(Ctx, Buffer, (size_t)N);
    int Errno = errno;
    close(Fd);
    if (N < 0) {
        *Error = Path + ": " + strerror(Errno);
        return -1;
    }
    return 0;
}

std::string InDigest(const std::vector<std::string> &Files, std::string *Error)
{
    if (!RpmReady()) {
        *Error = "librpm's configuration cannot be read";
        return "";
    }
    DIGEST_CTX Ctx = rpmDigestInit(PGPHASHALGO_SHA256, RPMDIGEST_NONE);
    bool Ok = Ctx != nullptr;
    for (const std::string &F : Files)
        Ok = Ok && HashFile(Ctx, F, Error) == 0;
    char *Hex = nullptr;
    if (Ctx != nullptr)
        rpmDigestFinal(Ctx, (void **)&Hex, nullptr, 1);
    std::string Digest = Ok && Hex ? Hex : "";
    free(Hex);
    return Digest;
}

int InRpmLabel(const std::string &File, std::string *Label)
{
    if (!RpmReady())
        return -1;
    FD_t Fd = Fopen(File.c_str(), "r.ufdio");
    if (Fd == nullptr || Ferror(Fd)) {
        if (Fd)
            Fclose(Fd);
        return -1;
    }
    rpmts Ts = rpmtsCreate();
    rpmtsSetVSFlags(Ts, RPMVSF_MASK_NODIGESTS | RPMVSF_MASK_NOSIGNATURES);
    Header H = nullptr;
    rpmRC Read = rpmReadPackageFile(Ts, Fd, File.c_str(), &H);
    Fclose(Fd);
    rpmtsFree(Ts);
    bool Ok = H != nullptr && (Read == RPMRC_OK || Read == RPMRC_NOTTRUSTED || Read == RPMRC_NOKEY);
    if (Ok) {
        char *Nvr = headerGetAsString(H, RPMTAG_NVR);
        Ok = Nvr != nullptr;
        *Label = Ok ? Nvr : "";
        free(Nvr);
    }
    headerFree(H);
    return Ok ? 0 : -1;
}

int InRpmInstalled(const std::string &Label)
{
    if (!RpmReady())
        return -1;
    rpmts Ts = rpmtsCreate();
    int Found = -1;
    if (rpmtsOpenDB(Ts, O_RDONLY) == 0) {
        rpmdbMatchIterator It = rpmtsInitIterator(Ts, RPMDBI_LABEL, Label.c_str(), 0);
        Found = It != nullptr && rpmdbNextIterator(It) != nullptr ? 1 : 0;
        rpmdbFreeIterator(It);
    }
    rpmtsFree(Ts);
    return Found;
}
