// distros.cpp - the table of known distributions and the detection's reading of their release
// files, by the rules the sub-service's detection pipelines follow. Writes no globals.
#include "distros.h"

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

// Release files of the distributions whose detection and bundle matching differ. lint leaves
// out sles7: bundle matching does not compare SLES versions, so it claims what sles8 claims;
// the sles8-ul and ul10-sp3 rows are detected as ul10 is.
const CliDistro CliDistros[] = {
    {"rh73",
     "Red Hat Linux 7.3",
     {{"/etc/redhat-release", "Red Hat Linux release 7.3 (Valhalla)\n"}, {}},
     false,
     true},
    {"rhas21",
     "Red Hat Linux Advanced Server 2.1",
     {{"/etc/redhat-release", "Red Hat Linux Advanced Server release 2.1AS (Pensacola)\n"}, {}},
     false,
     true},
    {"rhel3",
     "Red Hat Enterprise Linux AS 3",
     {{"/etc/redhat-release", "Red Hat Enterprise Linux AS release 3 (Taroon)\n"}, {}},
     false,
     true},
    {"sles7",
     "SuSE SLES 7",
     {{"/etc/SuSE-release", "SuSE SLES-7 (i386)\nVERSION = 7\n"}, {}},
     false,
     false},
    {"sles8",
     "SuSE SLES 8 (SuSE release file only)",
     {{"/etc/SuSE-release", "SuSE SLES-8 (i386)\nVERSION = 8.1\n"}, {}},
     false,
     true},
    {"sles8-ul",
     "SuSE SLES 8 with its UnitedLinux release file (detected as UnitedLinux 1.0)",
     {{"/etc/SuSE-release", "SuSE SLES-8 (i386)\nVERSION = 8.1\n"},
      {"/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"}},
     false,
     false},
    {"ul10",
     "UnitedLinux 1.0",
     {{"/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"}, {}},
     false,
     true},
    {"ul10-sp3",
     "UnitedLinux 1.0 service pack 3 (SP3=YES)",
     {{"/etc/UnitedLinux-release", "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n"}, {}},
     true,
     false},
};
const size_t CliDistroCount = sizeof CliDistros / sizeof CliDistros[0];

// Which lines of a release file a pipeline reads.
enum { EVERY_LINE, LINES_WITH, LINES_WITH_ANY_CASE, LINES_WITHOUT };
struct LinePick {
    int Mode;
    const char *Text;
};

// One detection code: its release file, the lines and field of the version, the lines and
// leading fields of the name. The codes of one file run in order until one gives a version.
struct DetectionRule {
    const char *File;
    LinePick VersionLines;
    int VersionField;
    LinePick NameLines;
    int NameFields;
};
static const DetectionRule Rules[] = {
    {"/etc/redhat-release", {EVERY_LINE, ""}, 5, {EVERY_LINE, ""}, 3},
    {"/etc/redhat-release",
     {LINES_WITH, "Red Hat Linux Advanced Server"},
     7,
     {LINES_WITH, "Red Hat Linux Advanced Server"},
     5},
    {"/etc/redhat-release",
     {LINES_WITH, "Red Hat Enterprise Linux"},
     7,
     {LINES_WITH, "Red Hat Enterprise Linux"},
     4},
    {"/etc/UnitedLinux-release",
     {LINES_WITH_ANY_CASE, "unitedlinux"},
     2,
     {LINES_WITH_ANY_CASE, "unitedlinux"},
     1},
    {"/etc/SuSE-release", {LINES_WITHOUT, "(i386)"}, 3, {LINES_WITH, "(i386)"}, 2},
};
// The release files in the order the detection probes them.
static const char *const ProbeOrder[] = {"/etc/redhat-release", "/etc/UnitedLinux-release",
                                         "/etc/SuSE-release"};

static bool Picked(const std::string &Line, const LinePick &Pick)
{
    std::string Text = Line, Want = Pick.Text;
    if (Pick.Mode == LINES_WITH_ANY_CASE)
        for (std::string *S : {&Text, &Want})
            for (char &C : *S)
                C = static_cast<char>(tolower(static_cast<unsigned char>(C)));
    bool Has = Text.find(Want) != std::string::npos;
    return Pick.Mode == EVERY_LINE || (Pick.Mode == LINES_WITHOUT ? !Has : Has);
}

// The first picked line's fields 1..Last (blank-separated), joined by one space as awk prints
// them; "" when no line is picked.
static std::string FirstPicked(const std::string &Release, const LinePick &Pick, int First,
                               int Last)
{
    std::istringstream Lines(Release);
    for (std::string Line; std::getline(Lines, Line);) {
        if (!Picked(Line, Pick))
            continue;
        std::istringstream Words(Line);
        std::vector<std::string> Fields;
        for (std::string W; Words >> W;)
            Fields.push_back(W);
        std::string Out;
        for (int F = First; F <= Last; F++)
            Out += (F > First ? " " : "") + (F <= (int)Fields.size() ? Fields[F - 1] : "");
        return Out;
    }
    return "";
}

// The version as the detection takes it: the leading digits and punctuation, which must read
// as a number other than 0 ("2.9.5" is taken as "3").
static bool TakeVersion(const std::string &Field, std::string *Version)
{
    size_t Run = 0;
    while (Run < Field.size() && Field[Run] > 0x20 && Field[Run] < 0x7f && !isalpha(Field[Run]))
        Run++;
    std::string Digits = Field.substr(0, Run);
    if (strtod(Digits.c_str(), nullptr) == 0.0)
        return false;
    *Version = Digits == "2.9.5" ? "3" : Digits;
    return true;
}

static const std::string *ReleaseText(const CliDistro &D, const char *File)
{
    for (const CliRelease &R : D.Files)
        if (R.File == File)
            return &R.Text;
    return nullptr;
}

CliDetected CliDetect(const CliDistro &D)
{
    CliDetected Out;
    const char *File = nullptr;
    for (const char *Probe : ProbeOrder)
        if (File == nullptr && ReleaseText(D, Probe) != nullptr)
            File = Probe;
    for (const DetectionRule &Rule : Rules) {
        if (File == nullptr || strcmp(Rule.File, File) != 0)
            continue;
        const std::string &Text = *ReleaseText(D, File);
        std::string Field = FirstPicked(Text, Rule.VersionLines, Rule.VersionField,
                                        Rule.VersionField);
        if (!TakeVersion(Field, &Out.Version))
            continue;
        Out.Name = FirstPicked(Text, Rule.NameLines, 1, Rule.NameFields);
        break;
    }
    Out.Key = Out.Name + "_" + Out.Version;
    for (char &C : Out.Key)
        C = C == ' ' ? '_' : C;
    if (D.Sp3 && Out.Key == "UnitedLinux_1.0")
        Out.Key += "_SP3";
    return Out;
}
