// SPDX-License-Identifier: MIT
// What several modules share: text compared without regard to case.

#include "ekoint.h"

// Said here and not by the C library's call, whose order changes with the locale.
int32 compareNoCase(const char* a, const char* b)
{
    while (*a && upperAscii(*a) == upperAscii(*b)) {
        ++a;
        ++b;
    }
    return static_cast<uint8>(upperAscii(*a)) - static_cast<uint8>(upperAscii(*b));
}
