// SPDX-License-Identifier: MIT
// UUIDs: random ones, and their text.
//
// Data      The one generator, in the module's record. A child of fork has a copy of it, and would make the same
//           UUIDs as its parent. `seededHere` tells: a word that the kernel sets to 0 in a child. Where it does not,
//           `seededFor` tells, at the price of a system call for each UUID.
// Locks     The generator's own.
// Unlocked  seededHere, seededFor: published behind the seeding, so that no thread of a child draws from what it
//           inherited. Several that come first may each seed it, each with a new sequence.

#include <string.h>
#include <sys/mman.h>

#include "ekomem_int.h"

static_assert(sizeof(eko_uuid_t) == 16, "the standard binary form");

namespace {

struct EKO_UUID_GLOBALS {
    EKO_RAND uuidRand;
};

uint32 seededFor; // the process for which a generator was last seeded, also in an earlier life of the library; or 0
uint32* seededHere; // not 0: the generator was seeded in this process. Null without a page that children find empty

constexpr size_t PAGE = 4096;
constexpr int NO_ADVICE = -1;

// ---- a word that is 0 in children ---------------------------------------------------------------------------

void mapSeededHere()
{
    void* page = mmap(nullptr, PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return;
    // An emulator that takes what is no advice takes all of it, and heeds none.
    if (madvise(page, PAGE, NO_ADVICE) != 0 && madvise(page, PAGE, MADV_WIPEONFORK) == 0)
        seededHere = static_cast<uint32*>(page);
    else
        munmap(page, PAGE);
}

void unmapSeededHere()
{
    if (seededHere)
        munmap(seededHere, PAGE);
    seededHere = nullptr;
}

// Behind the seeding.
void noteSeeding(uint32 process)
{
    publish(seededFor, process);
    if (seededHere)
        publish(*seededHere, 1U);
}

bool isSeededHere()
{
    return seededHere ? readPublished(*seededHere) != 0 : readPublished(seededFor) == eko_get_pid();
}

// ---- the generator ----------------------------------------------------------------------------------------

// Of the first generator of a process.
uint32 firstSeed()
{
    const auto thread = static_cast<uint32>(eko_threadId()); // its low 32 bits
    return eko_get_pid() ^ thread ^ static_cast<uint32>(eko_seed());
}

// Of a generator after a restart, which can come within the second, and of those in children. A child has the thread's
// identifier from its parent, and its process and time differ from those of its relatives in a few low bits, which
// the XOR cancels too easily: the next process a second later often has the same. The clock's microseconds, spread
// over all bits, keep them apart.
uint32 laterSeed()
{
    constexpr uint32 SPREAD = 0x9E3779B1; // odd: different microseconds stay different
    return firstSeed() ^ (static_cast<uint32>(eko_timeNanoSecs() / 1000) * SPREAD);
}

// Called under the registry's mutex, which stands above all that the creation of a generator, or its report,
// locks.
int32 eko_uuidInit(void* data)
{
    auto* globals = static_cast<EKO_UUID_GLOBALS*>(data);
    const uint32 process = eko_get_pid();
    const bool first = readUnlocked(seededFor) == 0 && startedBy == process;
    globals->uuidRand = eko_randCreate(first ? firstSeed() : laterSeed());
    if (!globals->uuidRand)
        return EKO_NO_MEMORY;
    mapSeededHere();
    noteSeeding(process);
    return EKO_OK;
}

void eko_uuidTerm(void* data)
{
    auto* globals = static_cast<EKO_UUID_GLOBALS*>(data);
    eko_randDestroy(globals->uuidRand);
    globals->uuidRand = nullptr;
    unmapSeededHere();
}

GlobalSlot uuidSlot = {"ekouuid", sizeof(EKO_UUID_GLOBALS), eko_uuidInit, eko_uuidTerm, nullptr, nullptr};

EKO_UUID_GLOBALS* eko_uuidGlobals()
{
    return static_cast<EKO_UUID_GLOBALS*>(globalRecord(uuidSlot));
}

void seedAgainInChild(const EKO_UUID_GLOBALS& globals)
{
    if (isSeededHere())
        return;
    eko_randResetSeed(globals.uuidRand, laterSeed());
    noteSeeding(eko_get_pid());
}

// ---- writing a text ---------------------------------------------------------------------------------------

constexpr uint32 GROUPS = 5;
constexpr size_t GROUP_BYTES[GROUPS] = {4, 2, 2, 2, 6};
constexpr size_t BARE_TEXT = EKO_UUID_TEXT - 1;

// The two digits of every byte.
struct ByteTexts {
    char digits[256][2];
};
constexpr ByteTexts makeByteTexts()
{
    ByteTexts texts = {};
    for (uint32 byte = 0; byte < 256; ++byte) {
        texts.digits[byte][0] = "0123456789abcdef"[byte / 16];
        texts.digits[byte][1] = "0123456789abcdef"[byte % 16];
    }
    return texts;
}
constexpr ByteTexts BYTE_TEXTS = makeByteTexts();

// The digits of a UUID, and a "-" behind each group, the last one too. The record's bytes are in the text's order.
void writeDigits(const eko_uuid_t& uuid, char* text)
{
    uint8 bytes[sizeof(uuid)];
    memcpy(bytes, &uuid, sizeof(uuid));
    const uint8* next = bytes;
    for (const size_t count : GROUP_BYTES) {
        for (const uint8* end = next + count; next < end; ++next, text += 2)
            memcpy(text, BYTE_TEXTS.digits[*next], 2);
        *text++ = '-';
    }
}

// ---- reading a text ---------------------------------------------------------------------------------------

// A copy of a text on the thread's tag, and the list of its words.
struct TextCopy {
    char* text;
    const char** words = nullptr;
    uint32 count = 0;

    TextCopy(const char* str, MemResult* result) : text(tryStrdup(str, EKO_THREAD_TAG, result)) {}
    ~TextCopy()
    {
        EKO_FREE(words, EKO_THREAD_TAG);
        EKO_FREE(text, EKO_THREAD_TAG);
    }
    TextCopy(const TextCopy&) = delete;
    TextCopy& operator=(const TextCopy&) = delete;
};

// The text without the blanks in front of it and its braces; null when an opening one is not closed.
char* insideBraces(char* text)
{
    while (*text == ' ')
        ++text;
    if (*text != '{')
        return text;
    ++text;
    size_t length = strlen(text);
    while (length > 1 && text[length - 1] == ' ')
        --length;
    if (length == 0 || text[length - 1] != '}')
        return nullptr;
    text[length - 1] = 0;
    return text;
}

// Whether there are more "-" than stand between the groups. The tokenizer would skip an empty group and take the rest,
// and is slow when there are very many.
bool hasTooManyDashes(const char* text)
{
    uint32 dashes = 0;
    for (; *text && dashes < GROUPS; ++text)
        dashes += *text == '-';
    return dashes == GROUPS;
}

// Of every character 0 to 15, or -1 for what is no digit, whatever the locale.
struct HexValues {
    int8_t of[256];
};
constexpr HexValues makeHexValues()
{
    HexValues values = {};
    for (int8_t& value : values.of)
        value = -1;
    for (int8_t i = 0; i < 16; ++i) {
        values.of[static_cast<uint8>("0123456789abcdef"[i])] = i;
        values.of[static_cast<uint8>("0123456789ABCDEF"[i])] = i;
    }
    return values;
}
constexpr HexValues HEX_VALUES = makeHexValues();

int32 hexValue(char c)
{
    return HEX_VALUES.of[static_cast<uint8>(c)];
}

// Reads that many bytes, of two digits each. Returns what stands behind them, or null.
const char* readBytes(const char* digits, uint8* bytes, size_t count)
{
    for (; count > 0; --count, digits += 2) {
        const int32 high = hexValue(digits[0]);
        const int32 low = high < 0 ? -1 : hexValue(digits[1]); // the first may be the terminator
        if (low < 0)
            return nullptr;
        *bytes++ = static_cast<uint8>(high * 16 + low);
    }
    return digits;
}

// The form that uuid_toString writes without braces, and nothing else. All other texts, right or wrong, are left to
// readText, which would read this one alike.
bool readPlainText(const char* text, eko_uuid_t* uuid)
{
    uint8 bytes[sizeof(*uuid)];
    uint8* next = bytes;
    for (uint32 i = 0; i < GROUPS; next += GROUP_BYTES[i++]) {
        text = readBytes(text, next, GROUP_BYTES[i]);
        if (!text || *text++ != (i + 1 < GROUPS ? '-' : '\0'))
            return false;
    }
    memcpy(uuid, bytes, sizeof(*uuid));
    return true;
}

// The text's order of digits is that of the bytes in the record.
bool readGroups(const TextCopy& copy, eko_uuid_t* uuid)
{
    if (copy.count != GROUPS)
        return false;
    uint8 bytes[sizeof(*uuid)];
    uint8* next = bytes;
    for (uint32 i = 0; i < GROUPS; next += GROUP_BYTES[i++]) {
        const char* end = readBytes(copy.words[i], next, GROUP_BYTES[i]);
        if (!end || *end != '\0')
            return false;
    }
    memcpy(uuid, bytes, sizeof(*uuid));
    return true;
}

int32 readText(const char* str, eko_uuid_t* uuid, MemResult* result)
{
    TextCopy copy(str, result);
    if (!copy.text)
        return EKO_NO_MEMORY;
    char* text = insideBraces(copy.text);
    if (!text || hasTooManyDashes(text))
        return EKO_MALFORMED;
    const int32 status = tryTokenize(text, "-", &copy.words, &copy.count, true, EKO_THREAD_TAG, result);
    if (status != EKO_OK)
        return status;
    return readGroups(copy, uuid) ? EKO_OK : EKO_MALFORMED;
}

} // namespace

// ---- making -----------------------------------------------------------------------------------------------

void uuid_create(UUID_VAL* uuid)
{
    EKO_UUID_GLOBALS* globals = uuid ? eko_uuidGlobals() : nullptr;
    if (!globals)
        return;
    seedAgainInChild(*globals);
    const uint64 random[] = {eko_randGetUInt64(globals->uuidRand), eko_randGetUInt64(globals->uuidRand)};
    eko_uuid_t made;
    memcpy(&made, random, sizeof(made));
    made.clock_seq_high_and_reserved = (made.clock_seq_high_and_reserved & 0x3F) | 0x80;
    made.time_high_and_version = (made.time_high_and_version & 0x0FFF) | 0x4000;
    made.time_low = eko_swaporder32(made.time_low);
    made.time_mid = eko_swaporder16(made.time_mid);
    made.time_high_and_version = eko_swaporder16(made.time_high_and_version);
    *uuid = made;
}

// ---- text -------------------------------------------------------------------------------------------------

int32 uuid_toString(const eko_uuid_t* uuid, char* str, size_t len, int32 braces)
{
    if (!uuid || !str)
        return EKO_BAD_ARGUMENT;
    char text[EKO_UUID_TEXT_BRACES];
    char* end = text;
    if (braces)
        *end++ = '{';
    writeDigits(*uuid, end);
    end += BARE_TEXT;
    if (braces)
        *end++ = '}';
    const auto length = static_cast<size_t>(end - text);
    const size_t stored = length < len ? length : len - 1;
    if (len > 0) {
        memcpy(str, text, stored);
        str[stored] = '\0';
    }
    return length < len ? EKO_OK : EKO_TOO_SMALL;
}

int32 uuid_fromString(const char* str, eko_uuid_t* uuid)
{
    if (!str || !uuid)
        return EKO_BAD_ARGUMENT;
    if (libraryStarted() && readPlainText(str, uuid))
        return EKO_OK;
    MemResult result = MemResult::done;
    const int32 status = readText(str, uuid, &result);
    if (status != EKO_OK)
        memReportIf(result, __FILE__, __LINE__); // its own copies: no jump
    return status;
}
