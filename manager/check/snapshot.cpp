// snapshot.cpp - zelrzp-manager snapshot: this machine recorded, without root, in a new
// directory laid out as the check reads it (docs/snapshot.md): the release files, the running
// kernel, the PCI devices' identity files, every process's name, and with --for the presence
// (never the contents) of each path, library and program a bundle's requisites name and the
// values of only the environment variables they name, beside SP3 and RZPELMCONFIGURED, which
// are recorded whenever they are set. Writes getopt's optind and opterr.
#include <dirent.h>
#include <getopt.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <pugixml.hpp>
#include <set>
#include <string>
#include <vector>

#include "check.h"

namespace {

struct Snap {
    std::string Dir;
    CkFacts Host;
    std::set<std::string> Variables, LibraryDirs;
    std::vector<std::string> Problems;
};

bool HasDotDot(const std::string &Path)
{
    return ("/" + Path + "/").find("/../") != std::string::npos;
}

// Makes every directory of Path below the snapshot (Path absolute, without "..").
bool MakeDirs(const Snap &S, const std::string &Path)
{
    std::string Built = S.Dir;
    size_t Start = 1;
    while (Start < Path.size()) {
        size_t End = Path.find('/', Start);
        Built += "/" + Path.substr(Start, End == std::string::npos ? End : End - Start);
        if (mkdir(Built.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
        if (End == std::string::npos)
            break;
        Start = End + 1;
    }
    return true;
}

bool WriteFile(Snap *S, const std::string &Path, const std::string &Text, mode_t Mode = 0644)
{
    std::string Parent = Path.substr(0, Path.rfind('/'));
    std::ofstream Out;
    if (MakeDirs(*S, Parent))
        Out.open(S->Dir + Path, std::ios::binary);
    Out << Text;
    Out.close();
    if (!Out || chmod((S->Dir + Path).c_str(), Mode) != 0) {
        S->Problems.push_back("cannot write " + S->Dir + Path);
        return false;
    }
    return true;
}

void RecordFixed(Snap *S)
{
    for (const CliRelease &R : S->Host.Releases)
        WriteFile(S, R.File, R.Text);
    struct utsname U;
    if (uname(&U) == 0)
        WriteFile(S, "/proc/sys/kernel/osrelease", std::string(U.release) + "\n");
    char Id[16];
    for (const CkDevice &D : S->Host.Devices) {
        std::string Dir = "/sys/bus/pci/devices/" + D.Address + "/";
        const unsigned Values[] = {D.Vendor, D.Device, D.SubVendor, D.SubDevice};
        const char *Names[] = {"vendor", "device", "subsystem_vendor", "subsystem_device"};
        for (int i = 0; i < 4; i++) {
            snprintf(Id, sizeof Id, "0x%04x\n", Values[i]);
            WriteFile(S, Dir + Names[i], Id);
        }
    }
    std::vector<std::string> Pids;
    std::string Why, Comm;
    CkList(S->Host, "/proc", &Pids, &Why);
    for (const std::string &Pid : Pids)
        if (Pid.find_first_not_of("0123456789") == std::string::npos &&
            CkReadFile(S->Host, "/proc/" + Pid + "/comm", 64, &Comm, &Why) == 0)
            WriteFile(S, "/proc/" + Pid + "/comm", Comm);
}

// The presence of a path: an empty file with the same execute bits, or a directory.
void RecordPath(Snap *S, const std::string &Path, bool Directory)
{
    struct stat St;
    std::string Why;
    if (Path.empty() || Path[0] != '/' || HasDotDot(Path)) {
        S->Problems.push_back("not recorded (not an absolute path without ..): " + Path);
        return;
    }
    if (CkStat(S->Host, Path, &St, &Why) != 0)
        return;
    if (S_ISDIR(St.st_mode) && Directory)
        MakeDirs(*S, Path);
    else if (S_ISREG(St.st_mode) && !Directory)
        WriteFile(S, Path, "", 0644 | (St.st_mode & 0111));
}

void RecordLibrary(Snap *S, const std::string &Name)
{
    if (Name.find('/') != std::string::npos) {
        S->Problems.push_back("not recorded (a library name, not a path): " + Name);
        return;
    }
    struct stat St;
    std::string Why;
    for (const std::string &Dir : S->Host.LibraryDirs)
        if (CkStat(S->Host, Dir + "/" + Name, &St, &Why) == 0 && S_ISREG(St.st_mode)) {
            RecordPath(S, Dir + "/" + Name, false);
            S->LibraryDirs.insert(Dir);
        }
}

void RecordProgram(Snap *S, const std::string &Program)
{
    if (Program.find('/') != std::string::npos) {
        RecordPath(S, Program, false);
        return;
    }
    S->Variables.insert("PATH");
    auto Path = S->Host.Environ.find("PATH");
    std::string Dirs = Path == S->Host.Environ.end() ? "/usr/sbin:/usr/bin:/sbin:/bin"
                                                     : Path->second;
    for (size_t Start = 0; Start < Dirs.size();) {
        size_t End = Dirs.find(':', Start);
        std::string Dir = Dirs.substr(Start, End == std::string::npos ? End : End - Start);
        if (!Dir.empty() && Dir[0] == '/')
            RecordPath(S, Dir + "/" + Program, false);
        Start = End == std::string::npos ? Dirs.size() : End + 1;
    }
}

void RecordRequisite(Snap *S, const CkNamed &Q)
{
    switch (Q.SubType) {
    case SUBTYPE_LIBRARY_FILE_PRESENCE: RecordLibrary(S, Q.Value); break;
    case SUBTYPE_EXECUTE_COMMAND: RecordProgram(S, CkFirstWord(Q.Value)); break;
    case SUBTYPE_FILE_PRESENCE: RecordPath(S, Q.Value, false); break;
    case SUBTYPE_RUN_SCRIPT_FILE: RecordPath(S, CkFirstWord(Q.Value), false); break;
    case SUBTYPE_DIRECTORY_PRESENCE: RecordPath(S, Q.Value, true); break;
    case SUBTYPE_ENVIRONMENT_VARIABLE: S->Variables.insert(Q.Value); break;
    default: break; // kernel, devices, distribution, processes: recorded by RecordFixed
    }
}

// The library directories where a named library was found.
void RecordLibraryDirs(Snap *S)
{
    std::string Conf;
    for (const std::string &Dir : S->LibraryDirs)
        Conf += Dir + "\n";
    if (!Conf.empty())
        WriteFile(S, "/etc/ld.so.conf", Conf);
}

// The named variables' values, and SP3 and RZPELMCONFIGURED (the plan depends on them); with
// no bundle named, the file is written only when one of those two is set.
void RecordEnviron(Snap *S, bool ForBundle)
{
    std::string Environ;
    S->Variables.insert({"SP3", "RZPELMCONFIGURED"});
    for (const std::string &Name : S->Variables) {
        auto Found = S->Host.Environ.find(Name);
        if (Found != S->Host.Environ.end() && Found->second.find('\n') == std::string::npos)
            Environ += Name + "=" + Found->second + "\n";
    }
    if (ForBundle || !Environ.empty())
        WriteFile(S, "/environ", Environ);
}

bool EmptyOrAbsent(const std::string &Dir, bool *Absent)
{
    DIR *D = opendir(Dir.c_str());
    *Absent = D == nullptr && errno == ENOENT;
    if (D == nullptr)
        return *Absent;
    int Entries = 0;
    while (struct dirent *E = readdir(D))
        Entries += strcmp(E->d_name, ".") != 0 && strcmp(E->d_name, "..") != 0;
    closedir(D);
    return Entries == 0;
}

const char SnapshotUsage[] =
    "usage: zelrzp-manager snapshot [--for=BUNDLE_DIR] DIR\n"
    "Records this machine in DIR (new, or empty) for zelrzp-manager check --snapshot=DIR: the\n"
    "release files, the running kernel, the PCI devices and the names of the running programs;\n"
    "with --for, also whether each file, directory, library and program that the bundle's\n"
    "requisites name exists (an empty file stands for a file; contents are never copied) and\n"
    "the values of the environment variables they name. SP3 and RZPELMCONFIGURED are always\n"
    "recorded when set (the plan depends on them); no other variable. No root needed.\n"
    "Exit status: 0 recorded; 1 DIR exists and is not empty, or something could not be\n"
    "written; 2 a wrong command line.\n";

} // namespace

std::vector<CkNamed> CkBundleRequisites(const std::string &BundleDir)
{
    std::vector<CkNamed> Out;
    DIR *D = opendir(BundleDir.c_str());
    while (struct dirent *E = D ? readdir(D) : nullptr) {
        std::string Name = E->d_name;
        if (Name.size() < 4 || Name.compare(Name.size() - 4, 4, ".xml") != 0)
            continue;
        pugi::xml_document Doc;
        if (!Doc.load_file((BundleDir + "/" + Name).c_str()))
            continue;
        for (pugi::xpath_node X : Doc.select_nodes("//prerequisite_data | //postrequisite_data"))
            Out.push_back(
                {X.node().attribute("SubType").as_uint(), X.node().attribute("value").value()});
    }
    if (D)
        closedir(D);
    return Out;
}

int CkSnapshotMain(int Argc, char **Argv)
{
    static const struct option Options[] = {{"for", required_argument, nullptr, 'f'},
                                            {"help", no_argument, nullptr, 'h'},
                                            {nullptr, 0, nullptr, 0}};
    std::string For;
    opterr = 0;
    optind = 1;
    for (int Code; (Code = getopt_long(Argc, Argv, ":h", Options, nullptr)) != -1;) {
        if (Code == 'h') {
            fputs(SnapshotUsage, stdout);
            return CLI_CLEAN;
        }
        if (Code != 'f') {
            fprintf(stderr, "zelrzp-manager snapshot: %s %s\n%s", Argv[optind - 1],
                    Code == ':' ? "needs a value" : "is not an option", SnapshotUsage);
            return CLI_USAGE;
        }
        For = optarg;
    }
    if (optind + 1 != Argc) {
        fprintf(stderr, "zelrzp-manager snapshot: one directory, please\n%s", SnapshotUsage);
        return CLI_USAGE;
    }
    Snap S;
    S.Dir = Argv[optind];
    bool Absent = false;
    std::string Error;
    if (!EmptyOrAbsent(S.Dir, &Absent) || (Absent && mkdir(S.Dir.c_str(), 0755) != 0)) {
        fprintf(stderr, "zelrzp-manager snapshot: %s: %s\n", S.Dir.c_str(),
                Absent ? strerror(errno) : "exists and is not an empty directory; not touched");
        return CLI_FINDINGS;
    }
    if (CkLoadFacts("/", true, &S.Host, &Error) != 0) {
        fprintf(stderr, "zelrzp-manager snapshot: %s\n", Error.c_str());
        return CLI_FINDINGS;
    }
    RecordFixed(&S);
    for (const CkNamed &Q : For.empty() ? std::vector<CkNamed>() : CkBundleRequisites(For))
        RecordRequisite(&S, Q);
    RecordLibraryDirs(&S);
    RecordEnviron(&S, !For.empty());
    CkCloseFacts(&S.Host);
    for (const std::string &P : S.Problems)
        fprintf(stderr, "zelrzp-manager snapshot: %s\n", P.c_str());
    bool Failed = false;
    for (const std::string &P : S.Problems)
        Failed = Failed || P.rfind("cannot", 0) == 0;
    return Failed ? CLI_FINDINGS : CLI_CLEAN;
}
