// zellint.h - `zelrzp-manager lint`: reads a bundle directory with the sub-service's own
// tokenizer and readers, in this process, beside a standard XML parser, and reports every
// place where the bundle will be refused or read other than its author meant.
//
// The checks use the sub-service's process-wide tree, ComponentList and CurrentlyInstalledOS,
// and change the working directory while they run: one lint at a time per process.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

enum { LINT_INFO = 0, LINT_WARNING = 1, LINT_ERROR = 2 };

// One finding: FILE:LINE: SEVERITY: TAG: message. Line 0 when no line applies.
struct LintFinding {
    std::string File;
    int Line = 0;
    int Severity = LINT_INFO;
    std::string Tag;
    std::string Message;
};

// The table of every tag lint can report (docs/lint.md lists each of them).
struct LintTagInfo {
    const char *Tag;
    int Severity;
    const char *Summary; // what it means
    const char *Fix;     // how to fix it
};
extern const LintTagInfo LintTags[];
extern const size_t LintTagCount;
const LintTagInfo *FindLintTag(const std::string &Tag);
const char *LintSeverityName(int Severity);
// What --explain prints for a tag: its name, severity, what it means and how to fix it.
std::string LintExplanation(const LintTagInfo &T);

// The findings of one run, without duplicates (same file, line, tag and message).
struct LintReport {
    std::vector<LintFinding> Findings;
    std::set<std::string> Seen;
};
// Adds a finding with the tag's severity. File is the path as shown to the user.
void AddFinding(LintReport *R, const std::string &File, int Line, const char *Tag,
                const std::string &Message);

// Orders the findings by file, then line (the order every output shows).
void LintSortFindings(LintReport *R);

// Lints a bundle directory: every bundle file, every component it lists, every file in it.
// Returns 0, or -1 when the directory cannot be read (a finding says why).
int LintBundleDirectory(const std::string &Directory, LintReport *R);
// Lints one XML file on its own: well-formedness, the differential reading and the values
// that need no bundle around them.
void LintXmlFile(const std::string &Path, LintReport *R);

// Differential reading of one file (differential.cpp). Parses Path with ParseFile, so that the
// sub-service's tree holds it afterwards (CurrentXMLFileParsed == Path) when it could be read;
// Shown is the name used in findings. Returns 0 when the tree holds the file, -1 when the
// tokenizer could not read it.
int LintDifferential(const std::string &Path, const std::string &Shown, LintReport *R);

// Value checks over the current tree (values.cpp). Languages: the bundle's name
// languages, empty when the file is linted alone.
void LintComponentValues(const std::string &Shown, const std::set<std::string> &Languages,
                         LintReport *R);

// Standard output of the sub-service's readers, captured while a lint runs: Begin sends
// stdout to a temporary file, Take returns what was printed since the last Take, End
// restores stdout.
int LintCaptureBegin(void);
std::string LintCaptureTake(void);
void LintCaptureEnd(void);

// The findings as one SARIF 2.1.0 log, files relative to Target's directory (lint_sarif.cpp).
void LintPrintSarif(const std::string &Target, const LintReport &R);

// The entry of `zelrzp-manager lint` (argv[0] is "lint"). Exit status: 0 no error, 1 errors
// (with --strict, warnings too), 2 usage.
int LintMain(int argc, char **argv);
