// fuzz_xml.cpp - libFuzzer target: arbitrary bytes as an XML file through the current-file
// rule (ParseFile), every lookup on every section of the resulting tree, the readers' walk and
// the language selection, then DeleteTree. The run flags are the service's own (cmdline.cpp).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xmltokenizer.h"

// The input lives in a memory file, named for ParseFile by its /proc path: writing a real
// file for every run would make disk syncs the bottleneck.
static char FilePath[64];
static int FileDescriptor = -1;
static char InstalledOS[] = "Red_Hat_Linux_7.3";

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FileDescriptor = memfd_create("fuzz_xml", MFD_CLOEXEC);
    if (FileDescriptor < 0)
        abort();
    snprintf(FilePath, sizeof FilePath, "/proc/self/fd/%d", FileDescriptor);
    if (freopen("/dev/null", "w", stdout) == nullptr) // the tokenizer's messages
        abort();
    return 0;
}

// Every lookup on one section, with names and values taken from the tree itself.
static void LookAround(SECTIONPTR Section)
{
    KEYPTR Key = Section->NextKey;
    if (Key != nullptr) {
        GetAttribute(Section, Key->Attribute);
        GetFirstChild(Section, Key->Value);
        GetFirstCDATAChild(Section, Key->Value);
    }
    GetFirstToken(Section);
    GetFirstCDATA(Section);
    GetNextSibling(Section);
    // Only a section with children can hold a language variant; every leaf gives the same
    // answer (none, and its message), which the root gives too, so leaves are not asked.
    if (Section->Child == nullptr && Section->Parent != nullptr)
        return;
    if (Section->Child != nullptr)
        FindFirstChildOf(Section, Section->Child->Name);
    SelectLanguage(Section, "name_xlate", "en", 0);
    SelectLanguage(Section, "description_xlate", "en", 1);
}

// Visits the tree in document order without recursion, at most Limit sections: beyond the
// first few hundred the lookups run the same code again (a run of '<' makes a chain of 16,000
// sections, whose visit would cost ten times its parse).
static void VisitTree(long Limit)
{
    SECTIONPTR Section = GetRootNode();
    while (Section != nullptr && Limit-- > 0) {
        LookAround(Section);
        if (Section->Child != nullptr) {
            Section = Section->Child;
            continue;
        }
        while (Section != nullptr && Section->NextSibling == nullptr)
            Section = Section->Parent;
        if (Section != nullptr)
            Section = Section->NextSibling;
    }
}

// Writes the input as the file, in one write. An input "R<n><c>text" is text with a run of the
// byte c, XML_LINE_MAX - 64 + n bytes long, put before its first LF (at its end without one):
// lines and CDATA blocks just within and just beyond the line buffer are reached, at the cost
// of one long line rather than of a long file to tokenize.
static void WriteInput(const uint8_t *Data, size_t Size)
{
    static uint8_t Run[XML_LINE_MAX + 192];
    struct iovec Parts[3] = {{const_cast<uint8_t *>(Data), Size}, {Run, 0}, {nullptr, 0}};
    if (Size >= 3 && Data[0] == 'R') {
        const uint8_t *Text = Data + 3, *End = Data + Size;
        const void *Feed = memchr(Text, '\n', static_cast<size_t>(End - Text));
        const uint8_t *Split = Feed != nullptr ? static_cast<const uint8_t *>(Feed) : End;
        Parts[0] = {const_cast<uint8_t *>(Text), static_cast<size_t>(Split - Text)};
        Parts[1].iov_len = XML_LINE_MAX - 64 + Data[1];
        memset(Run, Data[2], Parts[1].iov_len);
        Parts[2] = {const_cast<uint8_t *>(Split), static_cast<size_t>(End - Split)};
    }
    size_t Total = Parts[0].iov_len + Parts[1].iov_len + Parts[2].iov_len;
    // Written over the last input, then cut to size: the file keeps its pages.
    if (pwritev(FileDescriptor, Parts, 3, 0) != static_cast<ssize_t>(Total) ||
        ftruncate(FileDescriptor, static_cast<off_t>(Total)) != 0)
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    WriteInput(Data, Size);
    DeleteTree();
    CurrentlyInstalledOS = Size % 2 ? InstalledOS : nullptr;
    static const XMLSTEP Steps[] = {{"zel_package", "zel_package"},
                                    {"platform_specific", "platform_specific"},
                                    {"LINUX", nullptr},
                                    {XML_INSTALLED_OS, "installed OS"}};
    int Failure = 0;
    WalkToSection(FilePath, Steps, 4, &Failure);
    // Same path: the tree stays. After a failed parse the call would parse the same bytes
    // again through the code path the walk has just taken, so it is left out.
    if (CurrentXMLFileParsed != nullptr)
        UseXMLFile(FilePath);
    VisitTree(512);
    DeleteTree();
    CurrentlyInstalledOS = nullptr;
    return 0;
}
