// findings.cpp - ties the sub-service's messages of one run to the files and components they
// concern. The sub-service names the file in few of its messages; the order of the messages
// names the rest: in the open phase each bundle check starts with the verbose line "Now
// checking bundle X", and in the parse phase each component ends with a screen message that
// names it ("Parsing of XML file for C package", "Installation of Component C FAILED. ...").
// Writes only the ZfAnalysis it is given.
#include "zelfindings.h"

#include <cctype>
#include <cstring>

namespace
{

struct Walk {
    ZfAnalysis *Out;
    std::string BundleFile;
    bool KeepTrace = false;
    ZfBundleVerdict *Checking = nullptr; // open phase: the bundle being checked
    bool ProgressSeen = false;           // parse phase: the progress line has been sent
    std::vector<size_t> Pending;         // parse phase: findings waiting for their component
    std::string LastComponent;
};

bool StartsWith(const std::string &Text, const char *Prefix)
{
    return Text.compare(0, strlen(Prefix), Prefix) == 0;
}

bool Contains(const std::string &Text, const char *Part) { return Text.find(Part) != std::string::npos; }

// The text between Prefix and Suffix when Text starts with Prefix, else "".
std::string Between(const std::string &Text, const char *Prefix, const char *Suffix)
{
    if (!StartsWith(Text, Prefix))
        return "";
    size_t Start = strlen(Prefix);
    size_t End = Text.find(Suffix, Start);
    return End == std::string::npos ? "" : Text.substr(Start, End - Start);
}

const char *SourceName(int Source)
{
    return Source == ZM_SCREEN ? "screen" : Source == ZM_LOG ? "log" : "console";
}

// A log copy of the screen message just before it joins that finding.
bool JoinsPrevious(const ZfAnalysis *Out, int Source, const std::string &Text)
{
    if (Source != ZM_LOG || Out->Findings.empty())
        return false;
    const ZfFinding &Last = Out->Findings.back();
    return Last.Text == Text && Last.Sources.size() == 1 && Last.Sources[0] == "screen";
}

size_t AddFinding(Walk *W, int Source, const std::string &Text, const std::string &File,
                  const std::string &Component)
{
    if (JoinsPrevious(W->Out, Source, Text)) {
        W->Out->Findings.back().Sources.push_back("log");
        return W->Out->Findings.size() - 1;
    }
    ZfFinding F;
    F.Sources.push_back(SourceName(Source));
    F.Text = Text;
    F.File = File;
    F.Component = Component;
    F.Problem = ZfIsProblem(Text);
    W->Out->Findings.push_back(F);
    return W->Out->Findings.size() - 1;
}

// Open phase: the verbose trace of each bundle check gives its verdict.
void OpenLine(Walk *W, const std::string &Text)
{
    std::string Name = Between(Text, "Now checking bundle ", " for support of this version");
    if (!Name.empty()) {
        W->Out->Bundles.push_back({Name, "unreadable", {}, "", {}});
        W->Checking = &W->Out->Bundles.back();
        return;
    }
    if (StartsWith(Text, "Installed OS Version is ")) {
        std::string Installed = Text.substr(strlen("Installed OS Version is "));
        while (!Installed.empty() && Installed.back() == ' ')
            Installed.pop_back();
        W->Out->InstalledOS = Installed;
    }
    if (StartsWith(Text, "No supported Bundle XML files were found.") ||
        StartsWith(Text, "More than one supported Bundle XML file found."))
        W->Checking = nullptr; // the decision, after the last check
    ZfBundleVerdict *B = W->Checking;
    if (B == nullptr)
        return;
    if (StartsWith(Text, "Version of OS found in Bundle file is "))
        B->Claims.push_back(Text.substr(strlen("Version of OS found in Bundle file is ")));
    else if (StartsWith(Text, "A supported version of ")) {
        B->Verdict = "supported";
        B->Matched = B->Claims.empty() ? "" : B->Claims.back();
    } else if (Contains(Text, " is not supported on this version of Linux."))
        B->Verdict = B->Verdict == "corrupt" ? B->Verdict : "not supported";
    else if (!ZfIsTrace(Text)) {
        B->Messages.push_back(Text);
        if (Contains(Text, "corrupt"))
            B->Verdict = "corrupt";
    }
}

// Parse phase: a screen message that names a component closes the findings waiting for it.
void ComponentMarker(Walk *W, const std::string &Text)
{
    std::string Component = Between(Text, "Parsing of XML file for ", " package");
    std::string Failed = Between(Text, "Installation of Component ", " FAILED.");
    if (!Failed.empty()) {
        Component = Failed;
        size_t At = Text.find("FAILED.");
        std::string Reason = Text.substr(At + strlen("FAILED."));
        while (!Reason.empty() && (Reason[0] == ' '))
            Reason.erase(0, 1);
        while (!Reason.empty() && Reason.back() == '\n')
            Reason.pop_back();
        bool Known = false;
        for (const ZfRefused &R : W->Out->Refused)
            Known = Known || R.Component == Component;
        if (!Known)
            W->Out->Refused.push_back({Component, Reason});
    }
    if (StartsWith(Text, "However, this component DOES NOT SUPPORT") && !W->LastComponent.empty())
        W->Out->Refused.push_back(
            {W->LastComponent, "It does not support the running errata kernel (the manager said so)."});
    if (Component.empty())
        return;
    W->LastComponent = Component;
    if (W->Out->Components.empty() || W->Out->Components.back() != Component)
        W->Out->Components.push_back(Component);
    for (size_t Index : W->Pending) {
        W->Out->Findings[Index].Component = Component;
        W->Out->Findings[Index].File = ZfXmlFileOf(Component);
    }
    W->Pending.clear();
}

bool NamesBundleSection(const std::string &Text)
{
    return Contains(Text, "'contents'") || Contains(Text, "'package'") ||
           Contains(Text, "bundle XML file") || Contains(Text, "'zel_bundle'");
}

void ParseMessage(Walk *W, int Source, const std::string &Text)
{
    if (Source != ZM_CONSOLE) {
        if (Contains(Text, "installation is now in progress"))
            W->ProgressSeen = true;
        ComponentMarker(W, Text);
        std::string Component = W->LastComponent;
        bool Names = Contains(Text, "Component ") || Contains(Text, "component") ||
                     Contains(Text, " package");
        AddFinding(W, Source, Text, Names ? Component : W->BundleFile, Names ? Component : "");
        return;
    }
    if (!W->ProgressSeen || NamesBundleSection(Text)) {
        AddFinding(W, Source, Text, W->BundleFile, "");
        return;
    }
    W->Pending.push_back(AddFinding(W, Source, Text, "", ""));
}

} // namespace

std::string ZfStripColour(const std::string &Text)
{
    std::string Out;
    for (size_t i = 0; i < Text.size(); i++) {
        if (Text[i] == '\x1b' && i + 1 < Text.size() && Text[i + 1] == '[') {
            size_t End = i + 2;
            while (End < Text.size() && (isdigit((unsigned char)Text[End]) || Text[End] == ';'))
                End++;
            if (End < Text.size() && Text[End] == 'm') {
                i = End;
                continue;
            }
        }
        Out += Text[i];
    }
    return Out;
}

bool ZfIsTrace(const std::string &Line)
{
    static const char *const Prefixes[] = {
        "Now checking bundle ", "Version of OS found in Bundle file is ", "A supported version of ",
        "Installed OS Version is ", "Completed parsing of component XML files.",
        "Component does ", "The number of ", "Parser sub-service is unloading"};
    for (const char *P : Prefixes)
        if (StartsWith(Line, P))
            return true;
    return false;
}

bool ZfIsProblem(const std::string &Text)
{
    if (Contains(Text, " is not supported on this version of Linux."))
        return false; // a verdict on another distribution's bundle, not a fault
    static const char *const Words[] = {"FAILED", "corrupt", "missing", "Error", "error",
                                        "Unable", "refused", "skipped", "longer than",
                                        "No supported", "More than one", "DOES NOT SUPPORT",
                                        "will not be attempted", "cannot"};
    for (const char *Word : Words)
        if (Contains(Text, Word))
            return true;
    return false;
}

std::string ZfXmlFileOf(const std::string &ComponentFile)
{
    size_t Dot = ComponentFile.rfind('.');
    return Dot == std::string::npos ? "" : ComponentFile.substr(0, Dot) + ".xml";
}

bool ZfHasSection(const std::string &XmlText, const std::string &Key)
{
    std::string Open = "<" + Key;
    for (size_t At = XmlText.find(Open); At != std::string::npos; At = XmlText.find(Open, At + 1)) {
        char Next = At + Open.size() < XmlText.size() ? XmlText[At + Open.size()] : '\0';
        if (Next == '>' || Next == '/' || Next == ' ' || Next == '\t' || Next == '\r' || Next == '\n')
            return true;
    }
    return false;
}

void ZfAnalyse(const std::vector<ZmMessage> &Messages, size_t OpenEnd,
               const std::string &BundleFile, bool KeepTrace, ZfAnalysis *Out)
{
    *Out = ZfAnalysis();
    Out->Bundles.reserve(Messages.size()); // Checking points into it
    Walk W;
    W.Out = Out;
    W.BundleFile = BundleFile;
    W.KeepTrace = KeepTrace;
    for (size_t i = 0; i < Messages.size(); i++) {
        std::string Text = ZfStripColour(Messages[i].Text);
        while (!Text.empty() && (Text.back() == '\n' || Text.back() == '\r'))
            Text.pop_back();
        Text.erase(0, Text.find_first_not_of('\n') == std::string::npos ? Text.size()
                                                                          : Text.find_first_not_of('\n'));
        if (Text.empty() || Text.find_first_not_of('*') == std::string::npos)
            continue; // the empty progress line of a TQR install, the log's banners
        int Source = Messages[i].Source;
        bool Trace = Source == ZM_CONSOLE && ZfIsTrace(Text);
        if (i < OpenEnd) {
            if (Source == ZM_CONSOLE)
                OpenLine(&W, Text);
            if (!Trace || KeepTrace)
                AddFinding(&W, Source, Text, W.Checking ? W.Checking->File : "", "");
        } else if (!Trace || KeepTrace) {
            ParseMessage(&W, Source, Text);
        }
    }
}
