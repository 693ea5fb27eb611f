// zelfindings.h - what zelrzp-manager makes of the messages of one run of the sub-service:
// every screen, log and console message tied to the bundle file or component it concerns,
// the components that were refused and why, and each bundle file's verdict on the simulated
// distribution (why it was chosen or not). Pure functions over a session's ordered messages.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "zelrzpmanager.h"

struct ZfFinding {
    std::vector<std::string> Sources; // "screen", "log", "console", "manager"
    std::string Text;                 // colour sequences removed
    std::string File;                 // the bundle or component XML file it concerns, or ""
    std::string Component;            // the component file it concerns, or ""
    bool Problem = false;             // reports a fault (corrupt, missing, refused, failed)
};

struct ZfRefused {
    std::string Component;            // component file name as the bundle lists it
    std::string Reason;
};

struct ZfBundleVerdict {
    std::string File;                 // as the sub-service names it ("./bp000101.xml")
    std::string Verdict;              // "supported", "not supported", "corrupt", "unreadable"
    std::vector<std::string> Claims;  // the distributions its entries name, as far as read
    std::string Matched;              // the entry that matched, for "supported"
    std::vector<std::string> Messages; // the sub-service's messages about it
};

struct ZfAnalysis {
    std::vector<ZfFinding> Findings;
    std::vector<ZfRefused> Refused;
    std::vector<ZfBundleVerdict> Bundles;
    std::vector<std::string> Components; // every component the parse looked at, in order
    std::string InstalledOS;             // "Red Hat Linux 7.3", from the detection's trace
};

// Messages: a session's Messages; OpenEnd: how many of them came before the answer to open
// input file (the rest belong to the parse). BundleFile: the chosen bundle ("" if none).
// KeepTrace: keep the progress lines of the sub-service's verbose mode as findings too.
void ZfAnalyse(const std::vector<ZmMessage> &Messages, size_t OpenEnd,
               const std::string &BundleFile, bool KeepTrace, ZfAnalysis *Out);
// Removes ANSI colour sequences ("\e[1;31m" ...).
std::string ZfStripColour(const std::string &Text);
// True for a progress line of the sub-service's verbose mode.
bool ZfIsTrace(const std::string &ConsoleLine);
// True for a message that reports a fault.
bool ZfIsProblem(const std::string &Text);
// The component XML file of a component file: everything before the last "." and ".xml".
std::string ZfXmlFileOf(const std::string &ComponentFile);
// True when the component XML text has an element named Key (a platform-specific section).
bool ZfHasSection(const std::string &XmlText, const std::string &Key);
