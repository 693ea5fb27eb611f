// fuzz_xml.cpp - libFuzzer target: arbitrary bytes as an XML file through the current-file
// rule (ParseFile), every lookup on every section of the resulting tree, the readers' walk and
// the language selection, then DeleteTree. The run flags are the service's own (cmdline.cpp).
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

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
    if (Section->Child != nullptr)
        FindFirstChildOf(Section, Section->Child->Name);
    SelectLanguage(Section, "name_xlate", "en", 0);
    SelectLanguage(Section, "description_xlate", "en", 1);
}

// Visits the tree in document order without recursion, at most Limit sections.
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

// Writes the input as the file. An input starting with 'R' is written as the rest repeated
// to beyond 32 KB, so that lines and CDATA blocks longer than the line buffer are reached.
static void WriteInput(const uint8_t *Data, size_t Size)
{
    size_t Times = 1;
    if (Size > 1 && Data[0] == 'R') {
        Data++;
        Size--;
        Times = 32768 / Size + 1;
    }
    if (ftruncate(FileDescriptor, 0) != 0)
        abort();
    for (size_t Copy = 0; Copy < Times; Copy++)
        if (pwrite(FileDescriptor, Data, Size, Copy * Size) != static_cast<ssize_t>(Size))
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
    UseXMLFile(FilePath); // same path: the tree stays
    VisitTree(100000);
    DeleteTree();
    CurrentlyInstalledOS = nullptr;
    return 0;
}
