// harness.h - what the fuzz targets share: the process's exit turned into a return to the
// target (the sub-service's packet dump ends the process on an unknown item type, which must
// not end a fuzzing run), and stdout sent to /dev/null. A target links with -Wl,--wrap=exit
// and runs its input inside ZEL_FUZZ_GUARD.
#pragma once

#include <setjmp.h>

#include <cstdio>
#include <cstdlib>

extern "C" void __real_exit(int Status);

static jmp_buf *HarnessExitJump = nullptr;

// Every call of exit from the linked objects lands here: inside an input it returns to the
// target's guard; elsewhere it exits.
extern "C" void __wrap_exit(int Status)
{
    if (HarnessExitJump != nullptr)
        longjmp(*HarnessExitJump, 1);
    __real_exit(Status);
}

static void HarnessSilence(void)
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
}

// Runs Body; an exit inside it ends Body early and the input counts as handled.
template <typename BodyFn> static void HarnessGuard(BodyFn Body)
{
    jmp_buf Back;
    if (setjmp(Back) == 0) {
        HarnessExitJump = &Back;
        Body();
    }
    HarnessExitJump = nullptr;
}
