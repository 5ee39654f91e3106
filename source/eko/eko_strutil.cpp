// SPDX-License-Identifier: MIT
// Helpers for strings. No state.

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <wctype.h>

#include "ekomem_int.h"

// ---- letter case ------------------------------------------------------------------------------------------

char* strupr(char* str)
{
    for (char* c = str; c && *c; ++c) {
        const auto byte = static_cast<unsigned char>(*c); // a negative char is no argument for these calls
        if (islower(byte))
            *c = static_cast<char>(toupper(byte));
    }
    return str;
}

char* strlwr(char* str)
{
    for (char* c = str; c && *c; ++c) {
        const auto byte = static_cast<unsigned char>(*c);
        if (isupper(byte))
            *c = static_cast<char>(tolower(byte));
    }
    return str;
}

wchar_t* wcsupr(wchar_t* str)
{
    for (wchar_t* c = str; c && *c; ++c) {
        const auto code = static_cast<wint_t>(*c);
        if (iswlower(code))
            *c = static_cast<wchar_t>(towupper(code));
    }
    return str;
}

wchar_t* wcslwr(wchar_t* str)
{
    for (wchar_t* c = str; c && *c; ++c) {
        const auto code = static_cast<wint_t>(*c);
        if (iswupper(code))
            *c = static_cast<wchar_t>(towlower(code));
    }
    return str;
}

// ---- numbers ----------------------------------------------------------------------------------------------

int64 eko_atoi64(const char* s)
{
    return s ? strtoll(s, nullptr, 10) : 0;
}

uint64 eko_atoui64(const char* s)
{
    return s ? strtoull(s, nullptr, 10) : 0;
}

// ---- bounded copies ---------------------------------------------------------------------------------------

char* eko_strncpyZ(char* dest, const char* src, size_t len)
{
    if (!dest || len == 0)
        return dest;
    strncpy(dest, src ? src : "", len - 1);
    dest[len - 1] = 0;
    return dest;
}

wchar_t* eko_wcsncpyZ(wchar_t* dest, const wchar_t* src, size_t len)
{
    if (!dest || len == 0)
        return dest;
    wcsncpy(dest, src ? src : L"", len - 1);
    dest[len - 1] = 0;
    return dest;
}

// ---- words ------------------------------------------------------------------------------------------------

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// The word without blanks and tabs around it, cut off in place.
char* trimmed(char* word)
{
    while (isBlank(*word))
        ++word;
    char* end = word + strlen(word);
    while (end > word && isBlank(end[-1]))
        --end;
    *end = 0;
    return word;
}

// The words found so far.
struct WORD_LIST {
    const char** words;
    uint32 count;
    EKO_MEMTAG tag;

    bool add(const char* word, MemResult* result)
    {
        const size_t size = (static_cast<size_t>(count) + 1) * sizeof(*words);
        void* grown =
            words ? tryExtendMem(words, size, tag, result) : tryGetMem(size, tag, EKO_MEM_PLAIN, nullptr, result);
        if (!grown)
            return false;
        words = static_cast<const char**>(grown);
        words[count++] = word;
        return true;
    }
};

bool splitInto(WORD_LIST* list, char* input, const char* separators, bool trim, MemResult* result)
{
    char* rest = nullptr;
    for (char* word = eko_strtok(input, separators, &rest); word; word = eko_strtok(nullptr, separators, &rest)) {
        if (trim)
            word = trimmed(word);
        if (*word && !list->add(word, result))
            return false;
    }
    return true;
}

} // namespace

char* eko_strtok(char* s, const char* delim, char** save_ptr)
{
    if (!delim || !save_ptr || (!s && !*save_ptr))
        return nullptr;
    return strtok_r(s, delim, save_ptr);
}

int32 tryTokenize(char* input, const char* tokens, const char*** words, uint32* numwords, bool trim, EKO_MEMTAG tag,
                  MemResult* result)
{
    WORD_LIST list = {nullptr, 0, tag};
    if (!splitInto(&list, input, tokens, trim, result)) {
        EKO_FREE(list.words, tag);
        return EKO_NO_MEMORY;
    }
    *words = list.words;
    *numwords = list.count;
    return EKO_OK;
}

int32 eko_tokenize(char* input, const char* tokens, const char*** words, uint32* numwords, int32 trim_spaces,
                   EKO_MEMTAG tag)
{
    if (!input || !tokens || !words || !numwords)
        return EKO_BAD_ARGUMENT;
    MemResult result = MemResult::done;
    const int32 status = tryTokenize(input, tokens, words, numwords, trim_spaces != 0, tag, &result);
    if (status != EKO_OK)
        memFail(result, tag, __FILE__, __LINE__);
    return status;
}

// ---- errors -----------------------------------------------------------------------------------------------

char* eko_strerr_alloc(int32 err, EKO_MEMTAG tag)
{
    MemResult result;
    for (size_t size = 256;; size *= 2) {
        char* text = static_cast<char*>(tryGetMem(size, tag, EKO_MEM_PLAIN, nullptr, &result));
        if (!text)
            break;
        const int32 status = eko_strerr(err, text, size);
        if (status == EKO_OK)
            return text;
        EKO_FREE(text, tag); // taken anew, not extended: a stack tag cannot
        if (status != EKO_TOO_SMALL)
            return nullptr;
    }
    memFail(result, tag, __FILE__, __LINE__);
    return nullptr;
}
