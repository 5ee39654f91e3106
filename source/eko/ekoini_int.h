// SPDX-License-Identifier: MIT
// ekoini_int.h - inside the INI module: the cache of parsed files, and what reading, rewriting and the wide
// forms share.
#ifndef EKO_EKOINI_INT_H
#define EKO_EKOINI_INT_H

#include <string.h>

#include "ekotext_int.h"

constexpr int32 INI_NOT_FOUND = 2;
constexpr int32 INI_NO_MEMORY = -904;
constexpr int32 INI_CANNOT_OPEN = -905;
constexpr int32 INI_CANNOT_RENAME = -919;
constexpr int32 INI_NULL_ARGUMENT = -924;
constexpr int32 INI_BUFFER_TOO_SMALL = -932;

// ---- names ------------------------------------------------------------------------------------------------

// Whether the first `count` characters of `text` are that name, without regard to case.
inline bool spells(const char* text, size_t count, const char* name)
{
    size_t i = 0;
    while (i < count && name[i] && upperAscii(text[i]) == upperAscii(name[i]))
        ++i;
    return i == count && !name[i];
}

// A name that is looked for, cut as the cache cuts those that it keeps.
struct CutName {
    const char* text;
    size_t count;

    CutName(const char* name, size_t bytes) : text(name), count(strnlen(name, bytes - 1)) {}

    // Mostly a name is asked for as it is spelled, which is seen at once. `kept` has room for all of `bytes`.
    bool is(const char* kept) const
    {
        return (memcmp(text, kept, count) == 0 && !kept[count]) || spells(text, count, kept);
    }
};

// Finds the first element of an array that has a name, as a walk from its first to its last one would. All zero
// bytes are one without a table. The table is made at the first search, and must be dropped before the array
// changes; where there is no memory for it, or little to be gained, the array is walked.
class NameIndex {
public:
    template <class T> T* find(T* array, uint16 count, const CutName& wanted);
    void drop();

private:
    template <class T> bool build(const T* array, uint16 count);
    template <class T> uint16* slotOf(const T* array, uint16 count, const CutName& wanted) const;

    uint16* slots_; // the place of an element, counted from 1, or 0; in a table for `count` elements
};

// ---- the cache, all of it on the global tag and guarded by iniSem -----------------------------------------
//
// Arrays grow by one element and never shrink. Elements behind the used ones keep their own arrays for the next
// reading, and own no long value and no index.

constexpr size_t INI_FILE_NAME_BYTES = 256;
constexpr size_t INI_NAME_BYTES = 128;
constexpr uint16 INI_MOST = UINT16_MAX; // files, sections of a file, entries of a section

struct PARMINFO {
    char name[INI_NAME_BYTES];
    char valuebuff[INI_NAME_BYTES]; // the value if it fits
    char* value; // a block of its own when allocated is 1; else its last place, which is wrong while arrays grow
    int16 allocated;
};

struct SECINFO {
    char name[INI_NAME_BYTES];
    uint16 nMaxParms;
    uint16 nNumParms;
    PARMINFO* ParmInfo; // in file order
    NameIndex parmIndex;
};

struct INIINFO {
    char name[INI_FILE_NAME_BYTES];
    uint16 nMaxSecs;
    uint16 nNumSecs;
    SECINFO* SecInfo; // in file order
    NameIndex secIndex;
};

struct EKO_INI_GLOBALS {
    INIINFO* iniInfo;
    uint16 iniMax;
    uint16 iniNum;
    EKO_SEM iniSem;
};

// The module's record, or null.
EKO_INI_GLOBALS* eko_iniGlobals();

// To be asked before iniSem is entered to open files under it: makes the records of the modules behind them, which
// would otherwise be made under iniSem, against the nesting order. False when there is no memory for one.
bool canOpen(uint16 xflags);

inline const char* valueOf(const PARMINFO& parm)
{
    return parm.allocated ? parm.value : parm.valuebuff;
}

// The file's place in the cache, or null.
INIINFO* findFile(const EKO_INI_GLOBALS* globals, const char* iniName);

// ---- reading (ekoini_read.cpp) ----------------------------------------------------------------------------
//
// With iniSem held. None of these reports; they set `result` where memory runs out.

// A file that is read line by line.
class IniInput {
public:
    IniInput() = default;
    ~IniInput() { close(); }
    IniInput(const IniInput&) = delete;
    IniInput& operator=(const IniInput&) = delete;

    int32 open(const char* name, EKO_FILE_MODE fmode, uint16 xflags, MemResult* result);
    char* next(MemResult* result); // with its line end, and only until the next call; null at the end
    bool failed() const;           // after the last line: what follows could not be read
    bool complete() const;         // after the last line: nothing follows; or there is no file
    void close();

private:
    const EKO_FILE_CACHE_CTX* cache() const { return static_cast<const EKO_FILE_CTX*>(stream_)->fh; }

    EKO_FILE_STREAM stream_ = nullptr;
    char* line_ = nullptr;
    uint32 size_ = 0;
};

// What a failed open of a stream comes to here.
int32 openFailure(int32 status, MemResult* result);

// Reads the file into the cache. INI_CANNOT_OPEN leaves what the cache has of it, unless the file fails later:
// then, and when memory runs out, its place is empty, so that nobody takes a part for the whole.
int32 readFile(EKO_INI_GLOBALS* globals, const char* iniName, uint16 xflags, INIINFO** file, MemResult* result);

// Reads a file anew; when it cannot be opened, what the cache has of it stays or goes.
enum class IfUnreadable { keep, drop };
int32 rereadFile(EKO_INI_GLOBALS* globals, const char* iniName, uint16 xflags, IfUnreadable then,
                 MemResult* result);

// Drops the sections of a file; its place and the arrays stay.
void emptyFile(INIINFO* file);

// Frees the whole cache.
void freeCache(EKO_INI_GLOBALS* globals);

// ---- getting (ekoini.cpp) ---------------------------------------------------------------------------------

struct IniQuery {
    const char* iniName;
    const char* section;
    const char* entry;
    uint16 xflags;
};

// Each enters iniSem itself. Gets a list into a buffer of `length` characters of either kind. Where it does not
// fit a narrow buffer holds the beginning, a wide one stays as it is.
template <class Unit>
int32 getList(EKO_INI_GLOBALS* globals, const IniQuery& query, Unit* buf, uint32 length, MemResult* result);

// As eko_readIniFileEx.
void reloadFile(EKO_INI_GLOBALS* globals, const char* iniName, uint16 xflags, IfUnreadable then, MemResult* result);

#endif
