// claims.cpp - lint of a bundle directory: the distributions each bundle file claims, the
// packages it lists and their files, each listed component read for every distribution
// claimed, and the checks across files (a distribution claimed twice, files no bundle lists).
// Writes the sub-service's tree, ComponentList and CurrentlyInstalledOS while it runs
// (restoring the last two), and the working directory (restored).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "checks.h"
#include "distros.h"
#include "packages.h"
#include "support.h"

const std::vector<LintDistro> &LintDistros(void)
{
    static const std::vector<LintDistro> Distros = [] {
        std::vector<LintDistro> Out;
        for (size_t i = 0; i < CliDistroCount; i++)
            if (CliDistros[i].Linted) {
                CliDetected Seen = CliDetect(CliDistros[i]);
                Out.push_back({CliDistros[i].Name, Seen.Name, Seen.Version, Seen.Key});
            }
        return Out;
    }();
    return Distros;
}

namespace {

std::string Describe(const LintDistro &D)
{
    return D.Name + " " + D.Version + " (" + D.Id + ")";
}

// "rh73, rhas21, ...": the distributions lint knows.
std::string DistroIds(void)
{
    std::string Out;
    for (const LintDistro &D : LintDistros())
        Out += (Out.empty() ? "" : ", ") + D.Id;
    return Out;
}

// ---- A bundle -----------------------------------------------------------------------------------

struct Package {
    std::string FileName;
    int Line = 0;
    bool Selected = false;
};

struct Bundle {
    std::string Path, Shown; // "./bp000101.xml" as the sub-service names it; shown name
    bool Readable = false;
    std::vector<Package> Packages;
    std::set<std::string> Languages;
    std::vector<int> Claims;       // indexes into LintDistros(), in order
    std::map<int, int> ClaimLines; // distribution -> line of the entry that claims it
};

std::string ShownName(const std::string &Directory, const std::string &Name)
{
    return Directory == "." ? Name : Directory + (Directory.back() == '/' ? "" : "/") + Name;
}

// The operating_system entries in one walk, matched as IsOSSupportedByBundle matches them:
// each distribution is claimed by the first entry that accepts it. The sub-service stops at an
// entry without a text, and no distribution reads past the entry that claims the last one.
void ReadClaims(Bundle *B, LintReport *R)
{
    const std::vector<LintDistro> &Distros = LintDistros();
    SECTIONPTR Systems = FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_bundle"),
                                          "operating_systems");
    for (SECTIONPTR S = FindFirstChildOf(Systems, "operating_system");
         S != nullptr && B->ClaimLines.size() < Distros.size(); S = GetNextSibling(S)) {
        SECTIONPTR X = FindFirstChildOf(S, "operating_system_xlate");
        const char *F = X != nullptr ? GetFirstToken(X) : nullptr;
        if (F == nullptr) {
            AddFinding(R, B->Shown, S->Line, "os-entry-unreadable",
                       "operating_system entry without an operating_system_xlate text: the "
                       "sub-service stops here and takes the bundle as unsupported on every "
                       "distribution that no entry before it matches");
            break;
        }
        bool Any = false;
        for (int d = 0; d < static_cast<int>(Distros.size()); d++) {
            bool Accepts = MatchOSEntry(Distros[d].Name.c_str(), Distros[d].Version.c_str(), F) > 0;
            Any |= Accepts;
            if (Accepts && B->ClaimLines.count(d) == 0)
                B->ClaimLines[d] = S->Line;
        }
        if (!Any)
            AddFinding(R, B->Shown, X->Line, "unknown-os",
                       "operating_system " + LintQuoted(F) +
                           " matches none of the known distributions (" + DistroIds() + ")");
    }
    for (const auto &Claim : B->ClaimLines)
        B->Claims.push_back(Claim.first);
}

bool PathLeavesBundle(const std::string &Name)
{
    if (!Name.empty() && Name[0] == '/')
        return true;
    int Depth = 0;
    size_t Start = 0;
    while (Start <= Name.size()) {
        size_t End = Name.find('/', Start);
        if (End == std::string::npos)
            End = Name.size();
        std::string Part = Name.substr(Start, End - Start);
        Depth += Part == ".." ? -1 : (Part.empty() || Part == "." ? 0 : 1);
        if (Depth < 0)
            return true;
        Start = End + 1;
    }
    return false;
}

void ReadPackages(Bundle *B, LintReport *R)
{
    SECTIONPTR Contents = FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_bundle"),
                                           "contents");
    std::map<std::string, int> FirstLine;
    for (SECTIONPTR S = FindFirstChildOf(Contents, "package"); S != nullptr;
         S = GetNextSibling(S)) {
        const char *Text = GetFirstToken(S);
        const char *Install = GetAttribute(S, "install");
        if (Text == nullptr)
            continue;
        Package P;
        P.FileName = Text;
        P.Line = S->Line;
        std::string Upper = Install != nullptr ? Install : "";
        strupr(&Upper[0]);
        P.Selected = Upper == "YES";
        if (FirstLine.count(P.FileName) != 0)
            AddFinding(R, B->Shown, P.Line, "package-listed-twice",
                       "package " + LintQuoted(P.FileName) + " is listed again (first on line " +
                           std::to_string(FirstLine[P.FileName]) + ")");
        else
            FirstLine[P.FileName] = P.Line;
        if (PathLeavesBundle(P.FileName))
            AddFinding(R, B->Shown, P.Line, "package-path-escapes",
                       "package path " + LintQuoted(P.FileName) + " leaves the bundle directory");
        B->Packages.push_back(P);
    }
    B->Languages = LintLanguagesOf(
        FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_bundle"), "name"), "name_xlate");
}

// The bundle readers of the open and parse operations, then what lint reads itself.
void ReadBundle(Bundle *B, LintReport *R)
{
    B->Readable = LintDifferential(B->Path, B->Shown, R) == 0;
    if (!B->Readable)
        return;
    char Text[1024] = {};
    GetBundleName(B->Path.c_str(), "en", Text, sizeof(Text));
    GetBundleVersion(B->Path.c_str(), Text, sizeof(Text));
    FreeComponentList();
    GetBundlePackages(B->Path.c_str());
    FreeComponentList();
    LintReportPrinted(R, B->Shown, "bundle-unreadable", "");
    ReadClaims(B, R);
    ReadPackages(B, R);
}

// A component file listed by several bundles is read once, and by the readers once for each
// distribution that any of them claims.
struct ComponentState {
    bool Read = false, Readable = false;
    std::set<int> Distros;
};

void LintComponentFile(const std::string &Package, const std::string &Xml, const std::string &Shown,
                       const Bundle &B, ComponentState *State, LintReport *R)
{
    if (!State->Read) {
        State->Read = true;
        State->Readable = LintDifferential(Xml, Shown, R) == 0;
    } else if (State->Readable) {
        UseXMLFile(Xml.c_str());
        LintCaptureTake();
    }
    if (!State->Readable)
        return;
    LintComponentValues(Shown, B.Languages, R);
    SECTIONPTR Linux = FindFirstChildOf(
        FindFirstChildOf(FindFirstChildOf(GetRootNode(), "zel_package"), "platform_specific"),
        "LINUX");
    for (int d : B.Claims) {
        if (!State->Distros.insert(d).second)
            continue;
        const LintDistro &D = LintDistros()[d];
        if (FindFirstChildOf(Linux, D.Key.c_str()) == nullptr)
            AddFinding(R, Shown, Linux != nullptr ? Linux->Line : LintTopLine(),
                       "no-platform-section",
                       "no <" + D.Key + "> section for " + Describe(D) + ", which " + B.Shown +
                           " supports: there every flag is off, and its "
                           "prerequisites and configuration are dropped");
        LintComponentReaders(Package, Xml, Shown, D, R);
    }
}

// What a name that is there but not a regular file leads to (links followed): "a FIFO", "a
// link to a character device", ...; "" for a regular file, a dangling link or nothing.
std::string OddFileKind(const std::string &Path)
{
    struct stat Named, Target;
    if (lstat(Path.c_str(), &Named) != 0 || stat(Path.c_str(), &Target) != 0 ||
        S_ISREG(Target.st_mode))
        return "";
    const char *Kind = S_ISFIFO(Target.st_mode)  ? "a FIFO"
                       : S_ISCHR(Target.st_mode) ? "a character device"
                       : S_ISBLK(Target.st_mode) ? "a block device"
                       : S_ISDIR(Target.st_mode) ? "a directory"
                                                 : "a socket";
    return S_ISLNK(Named.st_mode) ? std::string("a link to ") + Kind : std::string(Kind);
}

// A file of a package that the sub-service refuses because it is not a regular file.
void ReportOddFile(const Bundle &B, const Package &P, const std::string &What,
                   const std::string &Kind, LintReport *R)
{
    AddFinding(
        R, B.Shown, P.Line, "not-a-regular-file",
        What + " is " + Kind +
            ", not a regular file: the sub-service refuses it and reports the component missing");
}

// The package file's findings; true when the sub-service goes on to its XML file.
bool CheckPackageFile(const Bundle &B, const Package &P, LintReport *R)
{
    int File = DoesComponentFileExist(P.FileName.c_str());
    std::string Kind = File == -1 ? OddFileKind(P.FileName) : "";
    if (!Kind.empty())
        ReportOddFile(B, P, "the package file " + LintQuoted(P.FileName), Kind, R);
    else if (File == -1)
        AddFinding(R, B.Shown, P.Line, "package-file-missing",
                   "the package file " + LintQuoted(P.FileName) +
                       " is missing: \"The component file to install is missing.\"");
    else if (File != 0)
        AddFinding(R, B.Shown, P.Line, "package-file-empty",
                   "the package file " + LintQuoted(P.FileName) + " is empty");
    return File == 0; // otherwise the sub-service reports the component missing and stops there
}

void LintPackage(const std::string &Directory, const Bundle &B, const Package &P,
                 std::map<std::string, ComponentState> *Components, LintReport *R)
{
    if (!P.Selected || PathLeavesBundle(P.FileName) || !CheckPackageFile(B, P, R))
        return;
    char Xml[COMPONENT_FIELD_SIZE] = {};
    int Found = FindComponentXmlFile(P.FileName.c_str(), Xml);
    LintCaptureTake();
    std::string Kind = Found == -1 && Xml[0] != '\0' ? OddFileKind(Xml) : "";
    if (!Kind.empty()) {
        ReportOddFile(B, P, "the XML file of " + LintQuoted(P.FileName) + " (" + Xml + ")", Kind,
                      R);
        return;
    }
    if (Found != 0) {
        std::string Why = Found == -502 ? "empty" : "missing";
        AddFinding(R, B.Shown, P.Line, Found == -502 ? "package-xml-empty" : "package-xml-missing",
                   "the XML file of " + LintQuoted(P.FileName) + " is " + Why +
                       (Xml[0] != '\0' ? " (" + std::string(Xml) + ")" : ""));
        return;
    }
    ComponentState &State = (*Components)[Xml];
    LintComponentFile(P.FileName, Xml, ShownName(Directory, Xml), B, &State, R);
}

bool IsBundleName(const std::string &Name)
{
    std::string Upper = Name;
    strupr(&Upper[0]);
    return Upper.find(".XML") != std::string::npos && Upper.find("BP0") != std::string::npos;
}

std::vector<std::string> DirectoryEntries(void)
{
    std::vector<std::string> Names;
    DIR *Dir = opendir(".");
    if (Dir == nullptr)
        return Names;
    for (struct dirent *E = readdir(Dir); E != nullptr; E = readdir(Dir)) {
        struct stat St;
        if (E->d_name[0] != '.' &&
            (IsBundleName(E->d_name) || (stat(E->d_name, &St) == 0 && S_ISREG(St.st_mode))))
            Names.push_back(E->d_name);
    }
    closedir(Dir);
    std::sort(Names.begin(), Names.end());
    return Names;
}

void CheckAcrossBundles(const std::vector<Bundle> &Bundles, LintReport *R)
{
    const std::vector<LintDistro> &Distros = LintDistros();
    for (int d = 0; d < static_cast<int>(Distros.size()); d++) {
        const Bundle *First = nullptr;
        for (const Bundle &B : Bundles) {
            if (B.ClaimLines.count(d) == 0)
                continue;
            if (First == nullptr) {
                First = &B;
                continue;
            }
            AddFinding(R, B.Shown, B.ClaimLines.at(d), "distribution-claimed-twice",
                       Describe(Distros[d]) + " is supported by " + First->Shown +
                           " too: opening "
                           "the bundle there fails (-505)");
        }
    }
}

void CheckUnlisted(const std::string &Directory, const std::vector<std::string> &Names,
                   const std::vector<Bundle> &Bundles, LintReport *R)
{
    std::set<std::string> Listed;
    for (const Bundle &B : Bundles)
        for (const Package &P : B.Packages) {
            Listed.insert(P.FileName);
            char Xml[COMPONENT_FIELD_SIZE] = {};
            if (FindCorrespondingXMLFileName(P.FileName.c_str(), Xml) == 0)
                Listed.insert(Xml);
        }
    LintCaptureTake();
    for (const std::string &Name : Names)
        if (!IsBundleName(Name) && Listed.count(Name) == 0)
            AddFinding(R, ShownName(Directory, Name), 0, "unlisted-file",
                       "no bundle file lists this file");
}

// Every bundle file of the directory; one that is not a regular file is refused as the
// sub-service refuses it.
std::vector<Bundle> ReadBundles(const std::string &Directory, const std::vector<std::string> &Names,
                                LintReport *R)
{
    std::vector<Bundle> Bundles;
    bool Refused = false;
    for (const std::string &Name : Names) {
        std::string Kind = IsBundleName(Name) ? OddFileKind(Name) : "";
        if (!Kind.empty())
            AddFinding(R, ShownName(Directory, Name), 0, "not-a-regular-file",
                       "this bundle file is " + Kind +
                           ", not a regular file: the sub-service refuses it (\"Unable to open XML file ./" +
                           Name + "\")");
        Refused |= !Kind.empty();
        if (!IsBundleName(Name) || !Kind.empty())
            continue;
        Bundle B;
        B.Path = "./" + Name;
        B.Shown = ShownName(Directory, Name);
        ReadBundle(&B, R);
        Bundles.push_back(B);
    }
    if (Bundles.empty() && !Refused)
        AddFinding(R, Directory, 0, "no-bundle-file",
                   "no bundle file (a name with .XML and BP0 in any case) in the directory");
    return Bundles;
}
} // namespace

int LintBundleDirectory(const std::string &Directory, LintReport *R)
{
    int Home = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (Home < 0 || chdir(Directory.c_str()) != 0) {
        AddFinding(R, Directory, 0, "no-bundle-file",
                   "the directory cannot be read: " + std::string(strerror(errno)));
        if (Home >= 0)
            close(Home);
        return -1;
    }
    if (LintCaptureBegin() != 0) {
        (void)!fchdir(Home);
        close(Home);
        return -1;
    }
    char *SavedOS = CurrentlyInstalledOS;
    CurrentlyInstalledOS = nullptr;
    std::vector<std::string> Names = DirectoryEntries();
    std::vector<Bundle> Bundles = ReadBundles(Directory, Names, R);
    std::map<std::string, ComponentState> Components;
    for (const Bundle &B : Bundles)
        for (const Package &P : B.Packages)
            LintPackage(Directory, B, P, &Components, R);
    CheckAcrossBundles(Bundles, R);
    CheckUnlisted(Directory, Names, Bundles, R);
    DeleteTree();
    FreeComponentList();
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = SavedOS;
    LintCaptureEnd();
    (void)!fchdir(Home);
    close(Home);
    return 0;
}
