// pci.cpp - a machine's PCI devices for the check, read through libpci. A snapshot's
// sys/bus/pci is someone else's data: its four identity files per device are read below the
// snapshot's root (links resolved inside it), checked, and written to a private mirror that
// libpci's sysfs path then points at, so libpci never follows anything of the snapshot.
// Device names come from the PCI ID database through one shared libpci handle.
// Writes NameAccess (created once, guarded by NameLock) and, per thread, ScanFailed and the
// names it has looked up.
extern "C" {
#include <pci/pci.h>
}
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "check.h"

static thread_local jmp_buf ScanFailed;
static thread_local char ScanError[256];

// libpci's handler of a fatal error must not return: the scan is abandoned.
__attribute__((noreturn)) static void PciFatal(char *Format, ...)
{
    va_list Args;
    va_start(Args, Format);
    vsnprintf(ScanError, sizeof ScanError, Format, Args);
    va_end(Args);
    longjmp(ScanFailed, 1);
}

static void PciQuiet(char *, ...) {}

static bool ParseId(const std::string &Text, unsigned *Value)
{
    char *End = nullptr;
    unsigned long V = strtoul(Text.c_str(), &End, 16);
    if (Text.compare(0, 2, "0x") != 0 || End == Text.c_str() + 2 || (*End != '\n' && *End) ||
        V > 0xffff)
        return false;
    *Value = (unsigned)V;
    return true;
}

// A device directory's name as the kernel writes it: 0000:00:03.0.
static bool IsAddress(const std::string &Name)
{
    static const char Shape[] = "hhhh:hh:hh.h";
    if (Name.size() != sizeof Shape - 1)
        return false;
    for (size_t i = 0; i < Name.size(); i++)
        if (Shape[i] == 'h' ? !isxdigit((unsigned char)Name[i]) : Name[i] != Shape[i])
            return false;
    return true;
}

// Reads one identity file of a device into the mirror. Optional files that are absent stay
// absent (libpci reads them as 0). 0, or -1 with *Why.
static int MirrorFile(const CkFacts &F, const std::string &Device, const std::string &Dir,
                      const char *File, bool Optional, std::string *Why)
{
    std::string Text, Path = "/sys/bus/pci/devices/" + Device + "/" + File;
    unsigned Value;
    if (CkReadFile(F, Path, 64, &Text, Why) != 0)
        return Optional ? 0 : -1;
    if (!ParseId(Text, &Value)) {
        *Why = Path + ": not a 16-bit hexadecimal number like 0x8086";
        return -1;
    }
    FILE *Out = fopen((Dir + "/" + File).c_str(), "w");
    if (Out == nullptr || fprintf(Out, "0x%04x\n", Value) < 0 || fclose(Out) != 0) {
        *Why = "cannot write the mirror of " + Path;
        return -1;
    }
    return 0;
}

static int MirrorDevice(const CkFacts &F, const std::string &Device, const std::string &Mirror,
                        std::string *Why)
{
    std::string Dir = Mirror + "/devices/" + Device;
    if (mkdir(Dir.c_str(), 0700) != 0) {
        *Why = "cannot make the mirror of device " + Device;
        return -1;
    }
    for (const char *File : {"vendor", "device"})
        if (MirrorFile(F, Device, Dir, File, false, Why) != 0)
            return -1;
    for (const char *File : {"subsystem_vendor", "subsystem_device"})
        if (MirrorFile(F, Device, Dir, File, true, Why) != 0)
            return -1;
    return 0;
}

// libpci over the mirror. Only plain locals: a fatal error of libpci jumps back here.
static int ScanMirror(const std::string &Mirror, std::vector<CkDevice> *Devices, std::string *Why)
{
    struct pci_access *Access = pci_alloc();
    Access->method = PCI_ACCESS_SYS_BUS_PCI;
    Access->error = PciFatal;
    Access->warning = PciQuiet;
    Access->debug = PciQuiet;
    if (setjmp(ScanFailed) != 0) {
        *Why = std::string("libpci: ") + ScanError;
        return -1; // the handle is left: libpci's state is not trusted after its fatal error
    }
    char Param[] = "sysfs.path";
    pci_set_param(Access, Param, const_cast<char *>(Mirror.c_str()));
    pci_init(Access);
    pci_scan_bus(Access);
    for (struct pci_dev *D = Access->devices; D != nullptr; D = D->next) {
        pci_fill_info(D, PCI_FILL_IDENT | PCI_FILL_SUBSYS);
        char Address[32];
        snprintf(Address, sizeof Address, "%04x:%02x:%02x.%d", D->domain, D->bus, D->dev, D->func);
        Devices->push_back(
            {Address, D->vendor_id, D->device_id, D->subsys_vendor_id, D->subsys_id});
    }
    pci_cleanup(Access);
    return 0;
}

// The mirror holds only what MirrorDevice writes.
static void RemoveMirror(const std::string &Mirror, const std::vector<std::string> &Names)
{
    for (const std::string &Name : Names) {
        std::string Dir = Mirror + "/devices/" + Name;
        for (const char *File : {"vendor", "device", "subsystem_vendor", "subsystem_device"})
            unlink((Dir + "/" + File).c_str());
        rmdir(Dir.c_str());
    }
    rmdir((Mirror + "/devices").c_str());
    rmdir(Mirror.c_str());
}

int CkReadDevices(const CkFacts &F, std::vector<CkDevice> *Devices, std::string *Why)
{
    std::vector<std::string> Names;
    if (CkList(F, "/sys/bus/pci/devices", &Names, Why) != 0)
        return -1;
    const char *Tmp = getenv("TMPDIR");
    std::string Mirror = std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/zelcheck-pci.XXXXXX";
    if (mkdtemp(&Mirror[0]) == nullptr || mkdir((Mirror + "/devices").c_str(), 0700) != 0) {
        *Why = "cannot make a private directory for the PCI devices";
        return -1;
    }
    int Result = 0;
    for (const std::string &Name : Names)
        if (!IsAddress(Name) || MirrorDevice(F, Name, Mirror, Why) != 0) {
            if (Why->empty())
                *Why = "sys/bus/pci/devices/" + Name + ": not a PCI address";
            Result = -1;
            break;
        }
    if (Result == 0)
        Result = ScanMirror(Mirror, Devices, Why);
    RemoveMirror(Mirror, Names);
    return Result;
}

static std::mutex NameLock;
static struct pci_access *NameAccess;

// The handle is never initialised for access (only the names are wanted), so every callback
// it may call is set here: libpci leaves them null until pci_init.
static struct pci_access *NameHandle(void)
{
    if (NameAccess == nullptr) {
        NameAccess = pci_alloc();
        NameAccess->error = PciFatal;
        NameAccess->warning = PciQuiet;
        NameAccess->debug = PciQuiet;
    }
    return NameAccess;
}

// Without the database, or for an ID it does not know, libpci gives the numbers instead.
static std::string LookUpName(unsigned Vendor, unsigned Device)
{
    std::lock_guard<std::mutex> Guard(NameLock);
    struct pci_access *Access = NameHandle();
    char Name[256];
    if (setjmp(ScanFailed) != 0)
        return "";
    const char *Found = pci_lookup_name(Access, Name, sizeof Name,
                                        PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE, Vendor, Device);
    return Found ? Found : "";
}

// Each thread keeps the names it has looked up: a fleet asks for the same few devices often.
std::string CkDeviceName(unsigned Vendor, unsigned Device)
{
    thread_local std::map<unsigned, std::string> Known;
    unsigned Key = Vendor << 16 | Device;
    auto Found = Known.find(Key);
    if (Found == Known.end())
        Found = Known.emplace(Key, LookUpName(Vendor, Device)).first;
    return Found->second;
}
