// runflags.h - the run flags that the command line sets (and the manager's packets 4, 5 and 9
// change later), the command-line scan, and the process-wide counters that every thread
// reads: Parser_Exiting, ThreadCount, LocalSequenceNumber. The flags, counters and console
// lines are defined in parser/runflags.cpp, the scan in parser/service/cmdline.cpp. The XML and
// package code needs nothing else of the service.
#pragma once

#include <atomic>

// Flags set only on the main thread before any other thread starts are plain integers;
// those that the listener changes later are atomic.
extern int SILENT_INSTALL;
extern std::atomic<char> DEBUG_FLAG;
extern std::atomic<int> FORCE_INSTALL_FLAG;
extern int HELP_REQUESTED;
extern std::atomic<int> NO_USER_INTERFACE;
extern int VERBOSE_MODE;
extern int SINGLE_STEP_MODE;
extern int OK_TO_RUN;
extern int INPUT_FILE_FOUND;
extern char InputFileName[1024];
extern int TQR_INSTALL;
#define TQR_MAX_PACKAGES 100 /* -C slots: more than a bundle of components ever holds */
#define TQR_NAME_SIZE 256    /* one -C slot: a file name of the bundle directory, with its NUL */
extern char *TQR_PackageName[TQR_MAX_PACKAGES];
extern int VIEW_ONLY;
extern char PackageName[1024];
extern std::atomic<int> REBOOT_IF_NEEDED;
extern const int BADPARM; // -1
extern std::atomic<int> Parser_Exiting;
extern std::atomic<int> ThreadCount;
extern std::atomic<int> LocalSequenceNumber;

#define ARGUMENT_BUFFER_SIZE 1024 /* an option's work copy and a path value; longer is refused */

int CheckCommandLineParameters(int argc, char **argv);
// Releases the TQR package slots (used by tests and at process end).
void FreeCommandLineState(void);
// The debug and verbose console lines: printf to standard output when DEBUG_FLAG (for
// DebugPrint) or VERBOSE_MODE (for VerbosePrint) is 1, nothing otherwise.
inline bool Debugging(void)
{
    return DEBUG_FLAG.load() == 1;
}
inline bool Verbose(void)
{
    return VERBOSE_MODE == 1;
}
void DebugPrint(const char *Format, ...) __attribute__((format(printf, 1, 2)));
void VerbosePrint(const char *Format, ...) __attribute__((format(printf, 1, 2)));

// Takes the next sequence number (read and advance as one atomic step).
int NextSequenceNumber(void);
