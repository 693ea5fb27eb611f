// process.h - starting a program as a child process: the argument vector, the descriptors it
// gets as its standard input, output and error, the directory it starts in and the user it
// runs as. Shared by the reference manager, the tests that run programs and the benchmarks.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The status a child exits with when it cannot enter its directory, become its user or
// start the program.
#define ZP_CHILD_FAILED 127

struct ZpChild {
    std::vector<std::string> Argv;            // the program's path, then its arguments
    int Stdin = -1, Stdout = -1, Stderr = -1; // become 0, 1 and 2 in the child (-1: inherited)
    std::string Directory;                    // entered before the program starts ("": stays)
    int User = -1; // user and group the child becomes (-1: stays; groups dropped)
    const char *DirectoryFailed = nullptr; // written to the child's stderr when it cannot enter
    const char *ExecFailed = nullptr;      // written to the child's stderr when exec fails
};

// Forks and runs the program; in the child only async-signal-safe calls are made (the argument
// vector is built before the fork). The child's pid, or -1 with errno.
pid_t ZpSpawn(const ZpChild &Child);
// Waits for the child; its exit status, or minus the signal that ended it (-1000: wait failed).
int ZpWaitStatus(pid_t Pid);
