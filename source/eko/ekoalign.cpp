// SPDX-License-Identifier: MIT
// Alignment of the fields of stored records.

#include "ekoint.h"

namespace {

// Bytes, by ALIGN_TYPE.
// DELIBERATE: 64-bit integers and doubles are aligned to 4, also where the platform wants 8: records are stored,
// and read by 32-bit programs. Pinned by Align.align_rounds_and_follows_the_table.
constexpr uint16 alignData[] = {1, 2, 4, 4, 4, 4, 4};

} // namespace

uint16 eko_align(uint16 offset, ALIGN_TYPE type)
{
    const uint32 alignment = alignData[type];
    if (alignment == 0)
        return offset;
    return static_cast<uint16>(offset + (alignment - offset % alignment) % alignment);
}
