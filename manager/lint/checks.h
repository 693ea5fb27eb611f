// checks.h - what lint's checks share (lint's own files only): the distributions lint checks
// with what the detection reads from them, the sub-service's tree, and the lines its readers
// print as findings.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "xmltokenizer.h"
#include "zellint.h"

// One row of the distribution table that lint checks bundles and components against.
struct LintDistro {
    std::string Id;            // "rh73", as --distro names it
    std::string Name, Version; // as the detection reads them from its release files
    std::string Key;           // the platform-specific section's element name
};
// The rows marked for lint, in table order (claims.cpp).
const std::vector<LintDistro> &LintDistros(void);

std::string LintQuoted(const std::string &Text); // 'Text'

// readers.cpp: the line of the tree's top element (0 when empty); each line a reader printed
// since the last take as a finding with Tag (returns how many); the readers of one component
// for the installed distribution D, in the order of the record builder, with the size of the
// record they make (true when the record would be built).
int LintTopLine(void);
int LintReportPrinted(LintReport *R, const std::string &Shown, const char *Tag,
                      const std::string &Prefix);
bool LintComponentReaders(const std::string &Package, const std::string &Xml,
                          const std::string &Shown, const LintDistro &D, LintReport *R);

// values.cpp: the lang attributes of Parent's Child elements ("" for one without).
std::set<std::string> LintLanguagesOf(SECTIONPTR Parent, const char *Child);
