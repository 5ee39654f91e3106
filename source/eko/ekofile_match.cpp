// SPDX-License-Identifier: MIT
// Names against patterns with wildcards: "?" is any one character, "*" any run of them. Letter case does not count.
//
// The pattern is walked once, and only its last "*" is ever taken up again. What stands between two stars has a
// fixed length, so at its first place in the name it leaves the most for the star behind it, which skips what it
// likes: all that fits behind a later place fits behind the first one too. Only what follows the last star may need
// another place, because it must end where the name ends. So the steps are at most one name's length per character
// of the pattern, in constant memory, whatever stars a user types.

#include "ekofile_int.h"

namespace {

// What upperAscii makes of every character: one load instead of two comparisons.
struct UpperTable {
    char of[256];
    constexpr UpperTable() : of()
    {
        for (int c = 0; c < 256; ++c)
            of[c] = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    }
};
constexpr UpperTable UPPER;

inline char upper(char c)
{
    return UPPER.of[static_cast<uint8>(c)];
}

// The first place of a letter, given in upper case, in a name; null when there is none.
inline const char* findLetter(const char* name, char letter)
{
    for (; *name; ++name) {
        if (upper(*name) == letter)
            return name;
    }
    return nullptr;
}

} // namespace

// DELIBERATE: the character behind a "*" stands for itself, be it "?" or "*"; so "**" matches only names that hold
// a "*". Patterns in use look for those characters that way. Pinned by match_takes_what_follows_a_star_literally.
bool eko_match(const char* name, const char* pattern)
{
    const char* literal = nullptr; // behind the last star
    const char* next = nullptr;    // where the literal's next place is looked for
    for (;;) {
        if (*pattern == '*') {
            if (!pattern[1])
                return true;
            literal = pattern + 1;
            next = name;
        } else if (*pattern && *name && (*pattern == '?' || upper(*pattern) == upper(*name))) {
            ++pattern;
            ++name;
            continue;
        } else if (!*name) {
            return !*pattern; // a later place of the literal would leave even less of the name
        } else if (!literal) {
            return false;
        }
        const char* place = findLetter(next, upper(*literal));
        if (!place)
            return false;
        name = next = place + 1;
        pattern = literal + 1;
    }
}
