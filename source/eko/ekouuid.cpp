// UUIDs: random ones, and their text.
//
// Data      The one generator, in the module's record. A child of fork has a copy of it, and would make the same
//           UUIDs as its parent: `seededFor` tells.
// Locks     The generator's own.
// Unlocked  seededFor: published behind the seeding, so that no thread of a child draws from what it inherited.
//           Several that come first may each seed it, each with a new sequence.

#include <string.h>

#include "ekomem_int.h"

static_assert(sizeof(eko_uuid_t) == 16, "the standard binary form");

namespace {

struct EKO_UUID_GLOBALS {
    EKO_RAND uuidRand;
};

uint32 seededFor; // the process for which a generator was last seeded, also in an earlier life of the library; or 0

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
    publish(seededFor, process);
    return EKO_OK;
}

void eko_uuidTerm(void* data)
{
    auto* globals = static_cast<EKO_UUID_GLOBALS*>(data);
    eko_randDestroy(globals->uuidRand);
    globals->uuidRand = nullptr;
}

GlobalSlot uuidSlot = {"ekouuid", sizeof(EKO_UUID_GLOBALS), eko_uuidInit, eko_uuidTerm, nullptr, nullptr};

EKO_UUID_GLOBALS* eko_uuidGlobals()
{
    return static_cast<EKO_UUID_GLOBALS*>(globalRecord(uuidSlot));
}

void seedAgainInChild(const EKO_UUID_GLOBALS& globals)
{
    const uint32 process = eko_get_pid();
    if (readPublished(seededFor) == process)
        return;
    eko_randResetSeed(globals.uuidRand, laterSeed());
    publish(seededFor, process);
}

// ---- reading a text ---------------------------------------------------------------------------------------

constexpr uint32 GROUPS = 5;
constexpr size_t GROUP_BYTES[GROUPS] = {4, 2, 2, 2, 6};

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

// 0 to 15, or -1 for what is no digit, whatever the locale.
int32 hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char letter = upperAscii(c);
    return letter >= 'A' && letter <= 'F' ? letter - 'A' + 10 : -1;
}

// Exactly `count` bytes, of two digits each.
bool readBytes(const char* digits, uint8* bytes, size_t count)
{
    for (; count > 0; --count, digits += 2) {
        const int32 high = hexValue(digits[0]);
        const int32 low = high < 0 ? -1 : hexValue(digits[1]); // the first may be the terminator
        if (low < 0)
            return false;
        *bytes++ = static_cast<uint8>(high * 16 + low);
    }
    return *digits == 0;
}

// The text's order of digits is that of the bytes in the record.
bool readGroups(const TextCopy& copy, eko_uuid_t* uuid)
{
    if (copy.count != GROUPS)
        return false;
    uint8 bytes[sizeof(*uuid)];
    uint8* next = bytes;
    for (uint32 i = 0; i < GROUPS; next += GROUP_BYTES[i++]) {
        if (!readBytes(copy.words[i], next, GROUP_BYTES[i]))
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
    const int req =
        eko_snprintf(str, len, "%s%8.8x-%4.4x-%4.4x-%2.2x%2.2x-%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x%s", braces ? "{" : "",
                     eko_swaporder32(uuid->time_low), eko_swaporder16(uuid->time_mid),
                     eko_swaporder16(uuid->time_high_and_version), uuid->clock_seq_high_and_reserved,
                     uuid->clock_seq_low, uuid->node[0], uuid->node[1], uuid->node[2], uuid->node[3], uuid->node[4],
                     uuid->node[5], braces ? "}" : "");
    EKO_ASSERT(req != -1);
    return static_cast<size_t>(req) + 1 > len ? EKO_TOO_SMALL : EKO_OK;
}

int32 uuid_fromString(const char* str, eko_uuid_t* uuid)
{
    if (!str || !uuid)
        return EKO_BAD_ARGUMENT;
    MemResult result = MemResult::done;
    const int32 status = readText(str, uuid, &result);
    if (status != EKO_OK)
        memReportIf(result, __FILE__, __LINE__); // its own copies: no jump
    return status;
}
