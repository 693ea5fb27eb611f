// failing_alloc.cpp - the link-time wrappers of malloc, calloc, realloc and strdup that fail
// the AllocFailAt-th allocation of an armed thread (failing_alloc.h). Writes AllocSeen.
#include "failing_alloc.h"

#include <execinfo.h>

#include <cstdlib>

extern "C" {
void *__real_malloc(size_t Size);
void *__real_calloc(size_t Count, size_t Size);
void *__real_realloc(void *Old, size_t Size);
char *__real_strdup(const char *Text);
}

thread_local bool AllocArmed = false;
long AllocSeen = 0;
long AllocFailAt = 0;

static bool FailThisOne(void)
{
    bool Fail = AllocArmed && ++AllocSeen == AllocFailAt;
    const char *Trace = getenv("ZEL_ALLOC_TRACE");
    if (Fail && Trace != nullptr && atol(Trace) == AllocFailAt) {
        fprintf(stderr, "trace of allocation %ld\n", AllocFailAt);
        void *Frames[12];
        backtrace_symbols_fd(Frames, backtrace(Frames, 12), 2);
    }
    return Fail;
}

extern "C" {
void *__wrap_malloc(size_t Size)
{
    return FailThisOne() ? nullptr : __real_malloc(Size);
}
void *__wrap_calloc(size_t Count, size_t Size)
{
    return FailThisOne() ? nullptr : __real_calloc(Count, Size);
}
void *__wrap_realloc(void *Old, size_t Size)
{
    return FailThisOne() ? nullptr : __real_realloc(Old, Size);
}
char *__wrap_strdup(const char *Text)
{
    return FailThisOne() ? nullptr : __real_strdup(Text);
}
}
