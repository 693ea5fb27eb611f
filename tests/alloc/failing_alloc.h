// failing_alloc.h - what the allocation-failure suites share: malloc, calloc, realloc and
// strdup wrapped at link time (-Wl,--wrap=..., failing_alloc.cpp), counted on the test's thread
// while armed, and the loop that fails the n-th of them for n = 1, 2, ... ZEL_ALLOC_TRACE=n
// prints the stack of the n-th allocation of each run when it is failed. Writes the wrappers'
// counters.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>

extern thread_local bool AllocArmed; // counting on this thread
extern long AllocSeen;               // allocations seen since armed
extern long AllocFailAt;             // the one to fail (1-based)

// Runs Body with the n-th allocation failing, for n = 1, 2, ... until Body runs to its end
// without reaching n; Check(Completed, Result, N) judges each run. The code under test prints
// to /dev/null meanwhile. Returns the runs made.
template <typename BodyFn, typename CheckFn> long FailEachAllocation(BodyFn Body, CheckFn Check)
{
    for (long N = 1; N < 100000; N++) {
        AllocSeen = 0;
        AllocFailAt = N;
        fflush(stdout);
        int Saved = dup(1), Null = open("/dev/null", O_WRONLY);
        dup2(Null, 1);
        AllocArmed = true;
        long Result = Body();
        AllocArmed = false;
        fflush(stdout);
        dup2(Saved, 1);
        close(Saved);
        close(Null);
        bool Completed = AllocSeen < N;
        Check(Completed, Result, N);
        if (Completed)
            return N;
    }
    ADD_FAILURE() << "no run completed";
    return 0;
}
