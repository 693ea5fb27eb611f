// runflags.cpp - the run flags and the process-wide counters that every folder of the
// sub-service reads, and the debug and verbose console lines that the flags switch on. Defines
// every run-flag global (SILENT_INSTALL ... REBOOT_IF_NEEDED), Parser_Exiting, ThreadCount and
// LocalSequenceNumber; writes only LocalSequenceNumber (NextSequenceNumber). The command line
// that sets the flags is scanned in service/cmdline.cpp.
#include <cstdarg>
#include <cstdio>

#include "runflags.h"

int SILENT_INSTALL = 0;
std::atomic<char> DEBUG_FLAG{0};
std::atomic<int> FORCE_INSTALL_FLAG{0};
int HELP_REQUESTED = 0;
std::atomic<int> NO_USER_INTERFACE{0};
int VERBOSE_MODE = 0;
int SINGLE_STEP_MODE = 0;
int OK_TO_RUN = 0;
int INPUT_FILE_FOUND = 0;
char InputFileName[ARGUMENT_BUFFER_SIZE];
int TQR_INSTALL = 0;
char *TQR_PackageName[TQR_MAX_PACKAGES];
int VIEW_ONLY = 0;
char PackageName[ARGUMENT_BUFFER_SIZE];
std::atomic<int> REBOOT_IF_NEEDED{0};
const int BADPARM = -1;
std::atomic<int> Parser_Exiting{0};
std::atomic<int> ThreadCount{0};
std::atomic<int> LocalSequenceNumber{0};

int NextSequenceNumber(void)
{
    return LocalSequenceNumber.fetch_add(1);
}

void DebugPrint(const char *Format, ...)
{
    va_list Arguments;
    va_start(Arguments, Format);
    if (Debugging())
        vprintf(Format, Arguments);
    va_end(Arguments);
}

void VerbosePrint(const char *Format, ...)
{
    va_list Arguments;
    va_start(Arguments, Format);
    if (Verbose())
        vprintf(Format, Arguments);
    va_end(Arguments);
}
