// SPDX-License-Identifier: MIT
// INI files: finding a name among many.
//
// A table of places with open addressing: a power of two of slots, at least two for each element, and a name is in
// the first free one at or behind the one that its hash says. Names that are equal without regard to case have
// equal hashes, whatever the locale: only ASCII letters have a case, for the hash as for the comparison. Of
// elements with equal names only the first is in the table, and a name that is found there was compared in full,
// so the answer is that of a walk.

#include "ekoini_int.h"

namespace {

constexpr uint16 FEW = 8; // elements that are walked as fast

uint32 slotCount(uint16 elements)
{
    uint32 count = 2 * FEW;
    while (count < 2u * elements)
        count *= 2;
    return count;
}

uint32 foldedHash(const CutName& name)
{
    uint32 hash = 2166136261u;
    for (size_t i = 0; i < name.count; ++i)
        hash = (hash ^ static_cast<uint8>(upperAscii(name.text[i]))) * 16777619u;
    return hash ^ hash >> 15; // the low bits are used
}

template <class T> T* walk(T* array, uint16 count, const CutName& wanted)
{
    for (T* element = array; element < array + count; ++element) {
        if (wanted.is(element->name))
            return element;
    }
    return nullptr;
}

} // namespace

// The slot of a name, or the empty one where it belongs.
template <class T> uint16* NameIndex::slotOf(const T* array, uint16 count, const CutName& wanted) const
{
    const uint32 last = slotCount(count) - 1;
    uint32 i = foldedHash(wanted) & last;
    while (slots_[i] && !wanted.is(array[slots_[i] - 1].name))
        i = (i + 1) & last;
    return slots_ + i;
}

template <class T> bool NameIndex::build(const T* array, uint16 count)
{
    slots_ = static_cast<uint16*>(
        tryGetMem(slotCount(count) * sizeof(uint16), EKO_GLOBAL_TAG, EKO_MEM_ZERO, nullptr, nullptr));
    if (!slots_)
        return false;
    for (uint16 i = 0; i < count; ++i) {
        uint16* slot = slotOf(array, count, CutName(array[i].name, INI_NAME_BYTES));
        if (!*slot)
            *slot = static_cast<uint16>(i + 1);
    }
    return true;
}

template <class T> T* NameIndex::find(T* array, uint16 count, const CutName& wanted)
{
    if (count <= FEW || (!slots_ && !build(array, count)))
        return walk(array, count, wanted);
    const uint16* slot = slotOf(array, count, wanted);
    return *slot ? array + *slot - 1 : nullptr;
}

void NameIndex::drop()
{
    EKO_FREE(slots_, EKO_GLOBAL_TAG);
    slots_ = nullptr;
}

template SECINFO* NameIndex::find(SECINFO*, uint16, const CutName&);
template PARMINFO* NameIndex::find(PARMINFO*, uint16, const CutName&);
