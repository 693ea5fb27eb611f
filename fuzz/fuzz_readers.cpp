// fuzz_readers.cpp - libFuzzer target: arbitrary bytes as a bundle file and as a component
// XML file, through every bundle reader (version, name, packages), the component file checks
// and the record builder, which runs every component reader (information, reboot value,
// install command, the six flags, requisites, configuration records, PCI devices) and asks
// the errata question. The question goes out over a real connection that the target drains
// after each input; Parser_Exiting is 1, so no answer is waited for (it reads as supported).
// Input: byte 0 picks the installed distribution, debug mode, the language and whether the
// readers after the first read a file that failed to parse; the rest is the file. Writes the
// tree, ComponentList, InstallPacketList, CurrentlyInstalledOS, DEBUG_FLAG, Parser_Exiting and
// ParserQueue.
//
// The files live in a directory on the memory file system /dev/shm (/tmp where it is missing):
// the readers open them by name as they open any file, but no input waits for a disk. The
// component is named after the bundle file (bp000001.rpm, whose XML file is bp000001.xml), so
// the component readers find the bundle readers' tree already holding their file: a well-formed
// input is parsed once, and an input that fails to parse is parsed again by every reader, as
// the current-file rule says. The bundle file stays open here: an input is one write and one
// truncate.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "harness.h"
#include "packages.h"
#include "protocol.h"
#include "records.h"
#include "runflags.h"
#include "service.h"
#include "support.h"
#include "xmltokenizer.h"

static char Directory[64];
static std::string BundlePath, ComponentFile;
static int InputFile = -1; // the bundle file, which is the component XML file too
static const char *const Distributions[] = {"Red_Hat_Linux_7.3", "UnitedLinux_1.0",
                                            "SuSE_SLES_8", nullptr};
static const char *const Languages[] = {"en", "de"};

static void RemoveDirectory(void)
{
    for (const std::string *Path : {&BundlePath, &ComponentFile})
        unlink(Path->c_str());
    for (const char *Leaf : {"/read", "/read.lock", "/write", "/write.lock"})
        unlink((std::string(Directory) + Leaf).c_str());
    rmdir(Directory);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    HarnessSilence();
    struct stat Shm;
    bool InMemory = stat("/dev/shm", &Shm) == 0 && S_ISDIR(Shm.st_mode);
    snprintf(Directory, sizeof Directory, "%s/zelfuzz-readers-XXXXXX",
             InMemory ? "/dev/shm" : "/tmp");
    if (mkdtemp(Directory) == nullptr || BindTransportLibrary() != 0)
        abort();
    atexit(RemoveDirectory);
    BundlePath = std::string(Directory) + "/bp000001.xml";
    ComponentFile = std::string(Directory) + "/bp000001.rpm";
    FILE *Rpm = fopen(ComponentFile.c_str(), "w");
    if (Rpm == nullptr || fputs("rpm", Rpm) < 0 || fclose(Rpm) != 0)
        abort();
    InputFile = open(BundlePath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (InputFile < 0)
        abort();
    ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
    if (ParserQueue == nullptr)
        abort();
    ParserQueue->ReadConnectionHandle = OpenTransport((std::string(Directory) + "/read").c_str());
    ParserQueue->WriteConnectionHandle = OpenTransport((std::string(Directory) + "/write").c_str());
    if (ParserQueue->ReadConnectionHandle < 0 || ParserQueue->WriteConnectionHandle < 0)
        abort();
    return 0;
}

static void WriteInput(const uint8_t *Data, size_t Size)
{
    // Written over the last input, then cut to size: the file keeps its pages.
    if (pwrite(InputFile, Data, Size, 0) != static_cast<ssize_t>(Size) ||
        ftruncate(InputFile, static_cast<off_t>(Size)) != 0)
        abort();
}

// Empties the write connection of what the builder sent. The handle is the connection's
// non-blocking FIFO, read here whole rather than a frame at a time: the frames are not under
// test in this target (fuzz_frame reads them), and a frame at a time was a tenth of each input.
static void DrainSent(void)
{
    static unsigned char Area[1 << 16];
    while (read(ParserQueue->WriteConnectionHandle, Area, sizeof Area) > 0) {
    }
}

// A file that fails to parse is parsed again by every reader that follows (the current-file
// rule), each time into the same partial tree: two more in the bundle readers, a dozen in the
// builder. The readers after the first read such a file only when Thorough (bit 4 of byte 0),
// so that this is not paid for every broken input.
static void ReadBundle(const char *Language, bool Thorough)
{
    char Version[BUNDLE_FIELD_SIZE], Name[BUNDLE_FIELD_SIZE];
    DeleteTree();
    GetBundleVersion(BundlePath.c_str(), Version, sizeof Version);
    if (CurrentXMLFileParsed == nullptr && !Thorough)
        return;
    GetBundleName(BundlePath.c_str(), Language, Name, sizeof Name);
    GetBundlePackages(BundlePath.c_str());
    FreeComponentList();
}

static void ReadComponent(const char *Language, bool RunBuilder)
{
    COMPONENTINFOPTR Component = AppendComponent(ComponentFile.c_str());
    if (Component == nullptr)
        abort();
    DoesComponentFileExist(Component->FileName);
    if (FindComponentXmlFile(Component->FileName, Component->xmlfilename) == 0 && RunBuilder) {
        // In debug mode the service ends at the dump of an errata question whose record holds
        // an unknown item type (a requisite SubType outside 1-11); that exit would leave the
        // builder's buffers behind, so the builder runs with debug output off.
        char Debug = DEBUG_FLAG.load();
        DEBUG_FLAG = 0;
        BuildRZPInstallStructures(Component->xmlfilename, Component, Language);
        DEBUG_FLAG = Debug; // the builder has read all six flags
    }
    FreeComponentList();
    FreeInstallPacketList();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    if (Size < 1)
        return 0;
    unsigned char Choice = Data[0];
    WriteInput(Data + 1, Size - 1);
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = DuplicateString(Distributions[Choice & 3]);
    DEBUG_FLAG = (Choice & 4) ? 1 : 0;
    const char *Language = Languages[(Choice >> 3) & 1];
    Parser_Exiting = 1;
    HarnessGuard([&] {
        bool Thorough = (Choice & 16) != 0;
        ReadBundle(Language, Thorough);
        ReadComponent(Language, CurrentXMLFileParsed != nullptr || Thorough);
    });
    DrainSent();
    DeleteTree();
    return 0;
}
