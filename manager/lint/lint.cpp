// lint.cpp - the `zelrzp-manager lint` command: options, the table of tags, the
// capture of the readers' standard output, and the findings as GNU-style lines or JSON (SARIF in
// lint/lint_sarif.cpp). Owns the file-static capture state of one run.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include <nlohmann/json.hpp>

#include "zellint.h"

const LintTagInfo LintTags[] = {
    {"not-well-formed", LINT_ERROR,
     "A standard XML parser refuses the file; the sub-service reads it in its own way, which is "
     "then almost certainly not what was meant (an unquoted attribute value loses its slashes, "
     "an unescaped '&' or '<' changes the tree).",
     "Make the file well-formed XML: quote every attribute value, escape or avoid '&' and '<' in "
     "text (put such text in a CDATA block), balance the tags."},
    {"xml-unreadable", LINT_ERROR,
     "The sub-service's tokenizer cannot read the file at all (empty, unterminated CDATA block, a "
     "line longer than 16383 characters); every reader of it fails.",
     "Fix what the quoted message says: close the CDATA block with ]]>, shorten the line."},
    {"dialect-element", LINT_ERROR,
     "The sub-service's tree has an element missing, extra or in another place than a standard "
     "XML reading: a '\"' in text that swallows the end tag, two constructs on one line, a "
     "comment, a CDATA block on its element's line, a tab between a tag's name and its "
     "attributes. Elements after that point move or vanish without a message.",
     "Write one construct per line (docs/xml-dialect.md): one tag per line or "
     "<tag>text</tag>, no comments, CDATA blocks on lines of their own, no '\"' in text."},
    {"dialect-text", LINT_ERROR,
     "The sub-service reads an element's text differently from a standard XML reading: text "
     "that does not start with a letter or digit loses its spaces, text alone on a line is "
     "dropped, entities are kept as written, text is split into pieces.",
     "Start the text with a letter or digit and keep it on the line of its tags, or put it in a "
     "CDATA block; write characters instead of entities."},
    {"dialect-attribute", LINT_ERROR,
     "An attribute reads differently: a value with '=' is cut there, text with '=' becomes an "
     "attribute, an attribute on a later line than its tag is lost.",
     "Keep a tag with all its attributes on one line, separated by single spaces; no '=' in "
     "values or text."},
    {"dialect-cdata", LINT_ERROR,
     "A CDATA block reads differently: two CDATA lines in a row, a '>' followed by spaces inside "
     "the block, a block on the line of its tags.",
     "Put each CDATA block on lines of its own, with an end tag or other element between two "
     "blocks."},
    {"bundle-unreadable", LINT_ERROR,
     "A bundle reader prints this message: the version, the English name or the contents of the "
     "bundle cannot be read, and opening or parsing the bundle fails or skips packages.",
     "Add the element or attribute that the message names."},
    {"component-unreadable", LINT_ERROR,
     "A reader of the component's version, name, description, reboot value or install command "
     "fails: the sub-service builds no install record for the component.",
     "Add the element, the English translation or the attribute that the message names."},
    {"reader-message", LINT_WARNING,
     "A reader of the component's flags, requisites, devices or configuration prints this "
     "message while the record is built: the flag is taken as off, or the list ends there and "
     "the entries after it are dropped.",
     "Add the element or attribute that the message names, or a value that fits."},
    {"record-too-long", LINT_ERROR,
     "The component's install record (name, description, install command, devices, "
     "requisites, configuration variables, encoded) would be longer than 16384 bytes: the "
     "sub-service refuses the component.",
     "Shorten the description or prompts, or split the component's requisites."},
    {"no-device-list", LINT_INFO,
     "The component has no prerequisites/supported_devices list; the device reader says so each "
     "time its record is built, and the component has no supported PCI devices.",
     "Add an empty <prerequisites><supported_devices></supported_devices></prerequisites> to "
     "silence the message."},
    {"package-file-missing", LINT_ERROR,
     "A package selected for installation has no package file in the directory; the parse "
     "reports the component file as missing and installs nothing for it.",
     "Put the package file into the bundle directory, or fix its name in the bundle file."},
    {"package-file-empty", LINT_ERROR, "A selected package's file is empty; it counts as missing.",
     "Put the real package file into the bundle directory."},
    {"package-xml-missing", LINT_ERROR,
     "A selected package has no component XML file (its name with the extension replaced by "
     ".xml, always lower-case); the component is reported missing.",
     "Add the component XML file beside the package, named as the message says."},
    {"not-a-regular-file", LINT_ERROR,
     "A bundle file, a selected package's file or its component XML file is a FIFO, a device, a "
     "directory or a socket, or a link to one; the sub-service refuses it (a bundle file is "
     "skipped, a component is reported missing).",
     "Put a regular file under that name."},
    {"package-xml-empty", LINT_ERROR, "A selected package's component XML file is empty.",
     "Write the component XML file."},
    {"package-listed-twice", LINT_WARNING,
     "The bundle lists the same package twice; it would be installed twice.",
     "Remove one of the two package entries."},
    {"package-path-escapes", LINT_ERROR,
     "A package path is absolute or climbs out of the bundle directory with '..'; the bundle "
     "then depends on files outside it.",
     "Put the package into the bundle directory and name it relative to it."},
    {"unlisted-file", LINT_WARNING,
     "A component file or component XML file in the directory that no bundle file lists; it is "
     "shipped but never installed.",
     "List it in a bundle file (install=\"no\" to keep it unselected) or remove it."},
    {"distribution-claimed-twice", LINT_ERROR,
     "Two bundle files of the directory support the same known distribution; opening the bundle "
     "there fails with -505 because more than one bundle is left.",
     "Let each distribution be supported by one bundle file only."},
    {"os-entry-unreadable", LINT_ERROR,
     "An operating_system entry has no operating_system_xlate text; the sub-service stops at it "
     "and takes the bundle as unsupported, also for entries after it.",
     "Give every operating_system an operating_system_xlate with the distribution's text."},
    {"unknown-os", LINT_WARNING,
     "An operating_system entry matches none of the known distributions (rh73, rhas21, rhel3, "
     "sles8, ul10) by the matching rules of the sub-service; it supports nothing.",
     "Write the distribution's name and version as the release file has them, e.g. "
     "\"Red Hat Linux 7.3\" or \"Red Hat Enterprise Linux AS 3\"."},
    {"no-platform-section", LINT_WARNING,
     "The component has no platform_specific/LINUX element for a distribution its bundle "
     "supports: there all its flags are off and its prerequisites, postrequisites and "
     "configuration are dropped, without a message.",
     "Add the element named by the distribution's key (e.g. Red_Hat_Enterprise_Linux_3)."},
    {"pci-id", LINT_ERROR,
     "A supported PCI device id part is not 1 to 4 hexadecimal digits, or a "
     "supported_device_data name is none of ven, dev, subven, subdev (the device and all after "
     "it are dropped).",
     "Write each part as 1 to 4 hexadecimal digits with name ven, dev, subven or subdev."},
    {"subtype-range", LINT_ERROR,
     "A prerequisite or postrequisite has a SubType outside 1 to 11: the manager knows no such "
     "condition.",
     "Use a SubType from 1 (library file present) to 11 (program running)."},
    {"length-range", LINT_WARNING,
     "A configuration variable's minimumlength is above its maximumlength: no answer fits.",
     "Swap or fix the two lengths."},
    {"prompt-language", LINT_INFO,
     "A configuration variable has no prompt in a language that the bundle's name has.",
     "Add a prompt_xlate in that language."},
    {"translation-incomplete", LINT_INFO,
     "A component's name or description is translated into some of the bundle's languages and "
     "not into others.",
     "Add the missing translations, or drop the language from the bundle's name."},
    {"no-bundle-file", LINT_ERROR,
     "The directory cannot be read or holds no bundle file; opening it fails.",
     "Add a bundle file whose name contains .xml and bp0 in any case, e.g. bp000101.xml."},
};
const size_t LintTagCount = sizeof(LintTags) / sizeof(LintTags[0]);

const LintTagInfo *FindLintTag(const std::string &Tag)
{
    for (const LintTagInfo &T : LintTags)
        if (Tag == T.Tag)
            return &T;
    return nullptr;
}

const char *LintSeverityName(int Severity)
{
    return Severity == LINT_ERROR ? "error" : Severity == LINT_WARNING ? "warning" : "info";
}

void AddFinding(LintReport *R, const std::string &File, int Line, const char *Tag,
                const std::string &Message)
{
    const LintTagInfo *Info = FindLintTag(Tag);
    std::string Key = File + '\0' + std::to_string(Line) + '\0' + Tag + '\0' + Message;
    if (!R->Seen.insert(Key).second)
        return;
    LintFinding F;
    F.File = File;
    F.Line = Line;
    F.Severity = Info != nullptr ? Info->Severity : LINT_ERROR;
    F.Tag = Tag;
    F.Message = Message;
    R->Findings.push_back(F);
}

void LintSortFindings(LintReport *R)
{
    std::stable_sort(R->Findings.begin(), R->Findings.end(),
                     [](const LintFinding &A, const LintFinding &B) {
                         return A.File != B.File ? A.File < B.File : A.Line < B.Line;
                     });
}

// ---- Capture of standard output ----------------------------------------------------------------

static FILE *CaptureFile = nullptr;
static int SavedStdout = -1;
static long CaptureOffset = 0;

int LintCaptureBegin(void)
{
    fflush(stdout);
    CaptureFile = tmpfile();
    SavedStdout = dup(STDOUT_FILENO);
    if (CaptureFile == nullptr || SavedStdout < 0 ||
        dup2(fileno(CaptureFile), STDOUT_FILENO) < 0) {
        if (CaptureFile != nullptr)
            fclose(CaptureFile);
        if (SavedStdout >= 0)
            close(SavedStdout);
        CaptureFile = nullptr;
        SavedStdout = -1;
        fprintf(stderr, "zelrzp-manager lint: cannot capture the readers' output\n");
        return -1;
    }
    CaptureOffset = 0;
    return 0;
}

std::string LintCaptureTake(void)
{
    if (CaptureFile == nullptr)
        return "";
    fflush(stdout);
    std::string Text;
    char Chunk[4096];
    for (;;) {
        ssize_t Got = pread(fileno(CaptureFile), Chunk, sizeof(Chunk), CaptureOffset);
        if (Got <= 0)
            break;
        Text.append(Chunk, static_cast<size_t>(Got));
        CaptureOffset += Got;
    }
    return Text;
}

void LintCaptureEnd(void)
{
    if (CaptureFile == nullptr)
        return;
    fflush(stdout);
    dup2(SavedStdout, STDOUT_FILENO);
    close(SavedStdout);
    fclose(CaptureFile);
    CaptureFile = nullptr;
    SavedStdout = -1;
}

// ---- The command --------------------------------------------------------------------------------

enum { LINT_OK = 0, LINT_FOUND = 1, LINT_USAGE = 2 };

static const char LintUsage[] =
    "usage: zelrzp-manager lint [--json | --format=FORMAT] [--strict] DIR|FILE.xml\n"
    "       zelrzp-manager lint --explain TAG\n"
    "Reads a bundle directory (or one XML file) with the sub-service's own tokenizer and\n"
    "readers and with a standard XML parser, and reports every place where the bundle will\n"
    "be refused or read otherwise than written, as FILE:LINE: SEVERITY: TAG: message.\n"
    "\n"
    "  --json          print the findings as JSON\n"
    "  --format=FORMAT gnu (these lines), json (as --json) or sarif (SARIF 2.1.0)\n"
    "  --strict        exit 1 on warnings too\n"
    "  --explain TAG   what TAG means and how to fix it\n"
    "  --list-tags     every tag with its severity\n"
    "  -h, --help      this text\n"
    "Exit status: 0 no error, 1 errors (with --strict, warnings too), 2 usage.\n";

struct LintOptions {
    bool Json = false, Strict = false, Help = false, ListTags = false, Sarif = false;
    std::string Explain, Target;
};

static int TakeFormat(const char *Format, LintOptions *O)
{
    O->Json = strcmp(Format, "json") == 0;
    O->Sarif = strcmp(Format, "sarif") == 0;
    return O->Json || O->Sarif || strcmp(Format, "gnu") == 0 ? 0 : -1;
}

static int ParseLintArguments(int argc, char **argv, LintOptions *O)
{
    static const struct option Long[] = {{"json", no_argument, nullptr, 'j'},
                                         {"strict", no_argument, nullptr, 's'},
                                         {"explain", required_argument, nullptr, 'e'},
                                         {"list-tags", no_argument, nullptr, 'l'},
                                         {"format", required_argument, nullptr, 'f'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    optind = 1;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "h", Long, nullptr)) != -1) {
        switch (c) {
        case 'j': O->Json = true; break;
        case 's': O->Strict = true; break;
        case 'e': O->Explain = optarg; break;
        case 'l': O->ListTags = true; break;
        case 'h': O->Help = true; break;
        case 'f':
            if (TakeFormat(optarg, O) == 0)
                break;
            fprintf(stderr, "zelrzp-manager lint: --format wants gnu, json or sarif\n");
            return -1;
        default:
            fprintf(stderr, "zelrzp-manager lint: unknown or incomplete option %s\n", argv[optind - 1]);
            return -1;
        }
    }
    if (O->Help || O->ListTags || !O->Explain.empty())
        return optind == argc ? 0 : -1;
    if (optind != argc - 1) {
        fprintf(stderr, "zelrzp-manager lint: name one bundle directory or XML file\n");
        return -1;
    }
    O->Target = argv[optind];
    return 0;
}

std::string LintExplanation(const LintTagInfo &T)
{
    return std::string(T.Tag) + " (" + LintSeverityName(T.Severity) + ")\n\n" + T.Summary +
           "\n\nFix: " + T.Fix;
}

static int Explain(const std::string &Tag)
{
    const LintTagInfo *T = FindLintTag(Tag);
    if (T == nullptr) {
        fprintf(stderr, "zelrzp-manager lint: no tag %s (see --list-tags)\n", Tag.c_str());
        return LINT_USAGE;
    }
    printf("%s\n", LintExplanation(*T).c_str());
    return LINT_OK;
}

static void PrintText(const LintReport &R)
{
    for (const LintFinding &F : R.Findings) {
        if (F.Line > 0)
            printf("%s:%d: %s: %s: %s\n", F.File.c_str(), F.Line, LintSeverityName(F.Severity),
                   F.Tag.c_str(), F.Message.c_str());
        else
            printf("%s: %s: %s: %s\n", F.File.c_str(), LintSeverityName(F.Severity), F.Tag.c_str(),
                   F.Message.c_str());
    }
}

static void PrintJson(const std::string &Target, const LintReport &R)
{
    nlohmann::json Out;
    Out["target"] = Target;
    Out["findings"] = nlohmann::json::array();
    int Counts[3] = {0, 0, 0};
    for (const LintFinding &F : R.Findings) {
        Counts[F.Severity]++;
        Out["findings"].push_back({{"file", F.File},
                                   {"line", F.Line},
                                   {"severity", LintSeverityName(F.Severity)},
                                   {"tag", F.Tag},
                                   {"message", F.Message}});
    }
    Out["counts"] = {{"error", Counts[LINT_ERROR]}, {"warning", Counts[LINT_WARNING]}, {"info", Counts[LINT_INFO]}};
    printf("%s\n", Out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

int LintMain(int argc, char **argv)
{
    LintOptions O;
    if (ParseLintArguments(argc, argv, &O) != 0) {
        fputs(LintUsage, stderr);
        return LINT_USAGE;
    }
    if (O.Help) {
        fputs(LintUsage, stdout);
        return LINT_OK;
    }
    if (O.ListTags) {
        for (const LintTagInfo &T : LintTags)
            printf("%s %s\n", T.Tag, LintSeverityName(T.Severity));
        return LINT_OK;
    }
    if (!O.Explain.empty())
        return Explain(O.Explain);
    struct stat St;
    if (stat(O.Target.c_str(), &St) != 0) {
        fprintf(stderr, "zelrzp-manager lint: %s: %s\n", O.Target.c_str(), strerror(errno));
        return LINT_USAGE;
    }
    LintReport R;
    if (S_ISDIR(St.st_mode))
        LintBundleDirectory(O.Target, &R);
    else
        LintXmlFile(O.Target, &R);
    LintSortFindings(&R);
    if (O.Sarif)
        LintPrintSarif(O.Target, R);
    else if (O.Json)
        PrintJson(O.Target, R);
    else
        PrintText(R);
    fflush(stdout);
    for (const LintFinding &F : R.Findings)
        if (F.Severity == LINT_ERROR || (O.Strict && F.Severity == LINT_WARNING))
            return LINT_FOUND;
    return LINT_OK;
}
