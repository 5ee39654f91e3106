// Of the calls of syscalls.h those that few tests wrap. Apart, so that others may replace them in their own way.
#include <stdio.h>

#include "support/fixture.h"
#include "support/syscalls.h"

// Where only some of them are wrapped, the others have no __real_NAME, and nobody calls their __wrap_NAME.
#define WRAP(name, params, args) \
    extern "C" __attribute__((weak)) int __real_##name params; \
    EKO_WRAP(int, name, params) \
    { \
        return callFails(#name) ? -1 : __real_##name args; \
    }

WRAP(close, (int fd), (fd))
WRAP(remove, (const char* path), (path))
WRAP(rename, (const char* from, const char* to), (from, to))
