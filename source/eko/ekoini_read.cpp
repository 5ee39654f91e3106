// SPDX-License-Identifier: MIT
// INI files: reading one into the cache.

#include <ctype.h>

#include "ekoini_int.h"

namespace {

constexpr char LINE_ENDS_AND_COMMENT[] = "\n\r;";

// ---- the cache's memory -----------------------------------------------------------------------------------

// Elements that the block of an array has room for when the array counts as having `max`. An array grows by one
// element at a time; were its block to do so too, each step might copy all of a large file.
constexpr size_t reservedFor(uint32 max)
{
    if (max < 32)
        return max;
    size_t step = 8; // an eighth to a quarter of what there is
    while (step * 8 <= max)
        step *= 2;
    return (max + step - 1) & ~(step - 1);
}

// Makes room for one element more, zeroed. At INI_MOST there is none, since the counters end there.
template <class T> bool growByOne(T** array, uint16* max, MemResult* result)
{
    if (*max == INI_MOST)
        return false;
    const size_t reserved = reservedFor(*max + 1u);
    if (reserved > reservedFor(*max)) {
        const size_t bytes = reserved * sizeof(T);
        void* grown = *array ? tryExtendMem(*array, bytes, EKO_GLOBAL_TAG, result)
                             : tryGetMem(bytes, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, result);
        if (!grown)
            return false;
        *array = static_cast<T*>(grown);
    }
    memset(*array + *max, 0, sizeof(T));
    ++*max;
    return true;
}

// The next unused element, or null.
template <class T> T* nextElement(T** array, uint16* max, uint16 used, MemResult* result)
{
    return used < *max || growByOne(array, max, result) ? *array + used : nullptr;
}

void freeLongValue(PARMINFO* parm)
{
    if (parm->allocated)
        EKO_FREE(parm->value, EKO_GLOBAL_TAG);
    parm->allocated = 0;
}

template <size_t SIZE> void copyCut(char (&dest)[SIZE], const char* text)
{
    if (!memccpy(dest, text, 0, SIZE - 1))
        dest[SIZE - 1] = 0;
}

// ---- lines ------------------------------------------------------------------------------------------------

// What is left of a text of `count` characters when those at its end are taken off for which `isTrailing` holds.
template <class Is> size_t trimmed(const char* text, size_t count, Is isTrailing)
{
    while (count > 0 && isTrailing(static_cast<unsigned char>(text[count - 1])))
        --count;
    return count;
}

// The length of a line without its comment, its end and trailing white space.
size_t strippedLength(const char* line)
{
    return trimmed(line, strcspn(line, LINE_ENDS_AND_COMMENT), isspace);
}

bool addSection(INIINFO* file, char* name, MemResult* result)
{
    SECINFO* sec = nextElement(&file->SecInfo, &file->nMaxSecs, file->nNumSecs, result);
    if (!sec)
        return false;
    name[strcspn(name, "]")] = 0;
    copyCut(sec->name, name);
    ++file->nNumSecs;
    return true;
}

bool setValue(PARMINFO* parm, const char* value, MemResult* result)
{
    freeLongValue(parm);
    if (memccpy(parm->valuebuff, value, 0, sizeof(parm->valuebuff)))
        return true;
    parm->value = tryStrdup(value, EKO_GLOBAL_TAG, result);
    parm->allocated = parm->value ? 1 : 0;
    return parm->value != nullptr;
}

// Only the space character is taken off around the "=".
bool addEntry(SECINFO* sec, char* line, size_t count, MemResult* result)
{
    const auto* equals = static_cast<const char*>(memchr(line, '=', count));
    if (!equals)
        return true;
    const auto isBlank = [](unsigned char c) { return c == ' '; };
    const size_t length = trimmed(line, static_cast<size_t>(equals - line), isBlank);
    if (length == 0)
        return true;
    line[length] = 0;
    const char* value = equals + 1;
    while (*value == ' ')
        ++value;
    PARMINFO* parm = nextElement(&sec->ParmInfo, &sec->nMaxParms, sec->nNumParms, result);
    if (!parm || !setValue(parm, value, result))
        return false;
    copyCut(parm->name, line);
    ++sec->nNumParms;
    return true;
}

bool addLine(INIINFO* file, char* line, MemResult* result)
{
    const size_t count = strippedLength(line);
    line[count] = 0;
    if (*line == '[')
        return addSection(file, line + 1, result);
    return file->nNumSecs == 0 || addEntry(&file->SecInfo[file->nNumSecs - 1], line, count, result);
}

int32 addLines(INIINFO* file, IniInput& input, MemResult* result)
{
    while (char* line = input.next(result)) {
        if (!addLine(file, line, result))
            return INI_NO_MEMORY;
    }
    if (*result == MemResult::exhausted)
        return INI_NO_MEMORY;
    return input.failed() ? INI_CANNOT_OPEN : EKO_OK;
}

// Entries have moved while their array grew.
void pointAtValues(INIINFO* file)
{
    for (SECINFO* sec = file->SecInfo; sec < file->SecInfo + file->nNumSecs; ++sec) {
        for (PARMINFO* parm = sec->ParmInfo; parm < sec->ParmInfo + sec->nNumParms; ++parm) {
            if (!parm->allocated)
                parm->value = parm->valuebuff;
        }
    }
}

// The file's place in the cache, emptied or new; null without memory.
INIINFO* emptyPlace(EKO_INI_GLOBALS* globals, const char* iniName, MemResult* result)
{
    if (INIINFO* file = findFile(globals, iniName)) {
        emptyFile(file);
        return file;
    }
    INIINFO* file = nextElement(&globals->iniInfo, &globals->iniMax, globals->iniNum, result);
    if (!file)
        return nullptr;
    copyCut(file->name, iniName);
    ++globals->iniNum;
    return file;
}

} // namespace

// ---- input ------------------------------------------------------------------------------------------------

int32 openFailure(int32 status, MemResult* result)
{
    if (status != EKO_NO_MEMORY)
        return INI_CANNOT_OPEN;
    *result = MemResult::exhausted;
    return INI_NO_MEMORY;
}

int32 IniInput::open(const char* name, EKO_FILE_MODE fmode, uint16 xflags, MemResult* result)
{
    int32 status;
    stream_ = tryOpenStream(name, "r", fmode, xflags, &status);
    return stream_ ? EKO_OK : openFailure(status, result);
}

char* IniInput::next(MemResult* result)
{
    MemResult got;
    char* line = tryGetLine(stream_, &line_, &size_, EKO_THREAD_TAG, &got);
    if (got == MemResult::exhausted)
        *result = got;
    return line;
}

// A refill that brought nothing, although the file went on: the system failed, or somebody has cut the file.
bool IniInput::failed() const
{
    return cache()->bytes == 0 && cache()->off < cache()->size;
}

// What follows may also be behind a line that begins with the byte FF: a file ends there for who reads characters.
bool IniInput::complete() const
{
    return !stream_ || cache()->off >= cache()->size;
}

void IniInput::close()
{
    EKO_FREE(line_, EKO_THREAD_TAG);
    eko_fclose(stream_);
    line_ = nullptr;
    stream_ = nullptr;
}

// ---- files in the cache -----------------------------------------------------------------------------------

int32 readFile(EKO_INI_GLOBALS* globals, const char* iniName, uint16 xflags, INIINFO** file, MemResult* result)
{
    IniInput input;
    int32 status = input.open(iniName, EKO_FILE_MODE_UNKNOWN, xflags, result);
    if (status != EKO_OK)
        return status;
    *file = emptyPlace(globals, iniName, result);
    if (!*file)
        return INI_NO_MEMORY;
    status = addLines(*file, input, result);
    if (status == EKO_OK)
        pointAtValues(*file);
    else
        emptyFile(*file);
    return status;
}

int32 rereadFile(EKO_INI_GLOBALS* globals, const char* iniName, uint16 xflags, IfUnreadable then, MemResult* result)
{
    INIINFO* file;
    const int32 status = readFile(globals, iniName, xflags, &file, result);
    if (status == EKO_OK || then == IfUnreadable::keep)
        return status;
    file = findFile(globals, iniName);
    if (file)
        emptyFile(file);
    return status;
}

void emptyFile(INIINFO* file)
{
    for (SECINFO* sec = file->SecInfo; sec < file->SecInfo + file->nNumSecs; ++sec) {
        for (PARMINFO* parm = sec->ParmInfo; parm < sec->ParmInfo + sec->nNumParms; ++parm)
            freeLongValue(parm);
        sec->parmIndex.drop();
        sec->nNumParms = 0;
    }
    file->secIndex.drop();
    file->nNumSecs = 0;
}

void freeCache(EKO_INI_GLOBALS* globals)
{
    for (INIINFO* file = globals->iniInfo; file < globals->iniInfo + globals->iniNum; ++file) {
        emptyFile(file);
        for (SECINFO* sec = file->SecInfo; sec < file->SecInfo + file->nMaxSecs; ++sec)
            EKO_FREE(sec->ParmInfo, EKO_GLOBAL_TAG);
        EKO_FREE(file->SecInfo, EKO_GLOBAL_TAG);
    }
    EKO_FREE(globals->iniInfo, EKO_GLOBAL_TAG);
    globals->iniInfo = nullptr;
    globals->iniMax = 0;
    globals->iniNum = 0;
}
