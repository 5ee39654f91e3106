// SPDX-License-Identifier: MIT
// Version of the library.

#include "ekoint.h"

namespace {

constexpr int16 MAJOR = 12;
constexpr int16 MINOR = 0;
constexpr int16 BUILD = 1000;

} // namespace

void eko_version(int16* major, int16* minor, int16* build)
{
    if (major)
        *major = MAJOR;
    if (minor)
        *minor = MINOR;
    if (build)
        *build = BUILD;
}
