// SPDX-License-Identifier: MIT
// INI files: the module's record, the cache of parsed files, and getting from it.
//
// Data      Files, their sections, their entries: three levels of arrays (ekoini_int.h), all on the global tag.
//           A file is read when it is first asked for, and again only when eko_readIniFile or eko_iniSet says
//           so.
// Locks     iniSem guards all of the cache and is held for the whole of a call, a set's rewriting of the file
//           included. Files are opened under it, so the mutexes of the file modules, of tags, and of the log's
//           stacks come behind it; the registry's comes before it.
// Failures  This module reports nothing under iniSem; what ran out is said when it is left. The file module says
//           at once what it could not read or write, memory for a file in memory included.

#include <stdlib.h>

#include "ekoini_int.h"
#include "ekomf_int.h"

namespace {

constexpr uint32 NUMBER_BYTES = 20;
constexpr uint32 ENTRY_NAMES_ROOM = 65536;

// ---- the module's record ----------------------------------------------------------------------------------

int32 eko_iniInit(void* data)
{
    auto* globals = static_cast<EKO_INI_GLOBALS*>(data);
    globals->iniSem = EKO_SEM_INVALID;
    if (!fileRecordExists())
        return EKO_FAILED;
    globals->iniSem = EKO_MUTEX_CREATE();
    return globals->iniSem != EKO_SEM_INVALID ? EKO_OK : EKO_FAILED;
}

void eko_iniTerm(void* data)
{
    auto* globals = static_cast<EKO_INI_GLOBALS*>(data);
    freeCache(globals);
    eko_syncDelete(globals->iniSem);
    globals->iniSem = EKO_SEM_INVALID;
}

GlobalSlot iniSlot = {"ekoini", sizeof(EKO_INI_GLOBALS), eko_iniInit, eko_iniTerm, nullptr, nullptr};

// ---- looking up -------------------------------------------------------------------------------------------

// The file's parsed form, read now if need be. One without sections is always read again.
int32 parsedFile(EKO_INI_GLOBALS* globals, const IniQuery& query, INIINFO** file, MemResult* result)
{
    *file = findFile(globals, query.iniName);
    if (*file && (*file)->nNumSecs > 0)
        return EKO_OK;
    return readFile(globals, query.iniName, query.xflags, file, result);
}

SECINFO* findSection(INIINFO* file, const char* section)
{
    return file->secIndex.find(file->SecInfo, file->nNumSecs, CutName(section, INI_NAME_BYTES));
}

const PARMINFO* findEntry(SECINFO* sec, const char* entry)
{
    return sec->parmIndex.find(sec->ParmInfo, sec->nNumParms, CutName(entry, INI_NAME_BYTES));
}

// ---- what a query finds -----------------------------------------------------------------------------------

// A list of strings: the value of an entry, else the entries of a section, else the sections of a file.
struct Found {
    const INIINFO* file;
    const SECINFO* sec;
    const PARMINFO* parm;

    bool entryNames() const { return sec && !parm; }
    uint32 count() const { return parm ? 1 : sec ? sec->nNumParms : file->nNumSecs; }
    const char* operator[](uint32 i) const
    {
        return parm ? valueOf(*parm) : sec ? sec->ParmInfo[i].name : file->SecInfo[i].name;
    }
};

int32 find(EKO_INI_GLOBALS* globals, const IniQuery& query, Found* found, MemResult* result)
{
    INIINFO* file;
    const int32 status = parsedFile(globals, query, &file, result);
    if (status != EKO_OK)
        return status;
    *found = {file, nullptr, nullptr};
    if (!query.section)
        return EKO_OK;
    SECINFO* sec = findSection(file, query.section);
    if (!sec)
        return INI_NOT_FOUND;
    found->sec = sec;
    if (!query.entry)
        return EKO_OK;
    found->parm = findEntry(sec, query.entry);
    return found->parm ? EKO_OK : INI_NOT_FOUND;
}

// ---- as a list --------------------------------------------------------------------------------------------

// What a byte string comes to in characters of either kind. In a wide string what is not UTF-8 is replaced.
size_t unitsOf(const char* item, const char*)
{
    return strlen(item);
}
size_t unitsOf(const char* item, const wchar_t*)
{
    return wideLength(item, EKO_UTF8_REPLACE);
}

void store(char* dest, const char* item, uint32 units)
{
    memcpy(dest, item, units);
}
void store(wchar_t* dest, const char* item, uint32 units)
{
    eko_utf8_to_wchar(dest, item, units, EKO_UTF8_REPLACE);
}

// Stores the list, or without a buffer only looks whether it fits: with the terminator that closes it, into one
// character less than the buffer has.
//
// DELIBERATE: for entry names the room left is taken modulo 65536, so that of a longer buffer only (length - 1)
// % 65536 characters serve. The engine's tools hand in one large work area and rely on names staying within 64
// KiB of it. A name that is cut always gives INI_BUFFER_TOO_SMALL. Pinned by ini_reading_rules.
template <class Unit> int32 storeList(const Found& found, Unit* buf, uint32 length)
{
    if (length < 2)
        return INI_BUFFER_TOO_SMALL;
    uint32 left = length - 1;
    uint32 at = 0;
    for (uint32 i = 0; i < found.count(); ++i) {
        const uint32 room = found.entryNames() ? left % ENTRY_NAMES_ROOM : left;
        const size_t units = unitsOf(found[i], buf) + 1;
        const uint32 taken = units < room ? static_cast<uint32>(units) : room;
        if (buf)
            store(buf + at, found[i], taken);
        if (units > room)
            return INI_BUFFER_TOO_SMALL;
        at += taken;
        left -= taken;
    }
    if (left == 0)
        return INI_BUFFER_TOO_SMALL;
    if (buf)
        buf[at] = 0;
    return EKO_OK;
}

int32 storeFound(const Found& found, char* buf, uint32 length)
{
    return storeList(found, buf, length);
}
int32 storeFound(const Found& found, wchar_t* buf, uint32 length)
{
    const int32 status = storeList<wchar_t>(found, nullptr, length);
    return status == EKO_OK ? storeList(found, buf, length) : status;
}

// ---- as a string ------------------------------------------------------------------------------------------

// The items joined with ",", or null for none: measured first, so that a long list is copied once.
char* tryJoin(const Found& found, EKO_MEMTAG tag, MemResult* result)
{
    const uint32 count = found.count();
    size_t bytes = 0;
    for (uint32 i = 0; i < count; ++i)
        bytes += strlen(found[i]) + 1;
    char* joined = count ? static_cast<char*>(tryGetMem(bytes, tag, EKO_MEM_PLAIN, nullptr, result)) : nullptr;
    if (!joined)
        return nullptr;
    char* at = joined;
    for (uint32 i = 0; i < count; ++i) {
        at = stpcpy(at, found[i]);
        *at++ = ',';
    }
    at[-1] = 0;
    return joined;
}

// `onTag` is exhausted where the caller's tag is, `result` where the library's own memory is.
int32 getString(EKO_INI_GLOBALS* globals, const IniQuery& query, char** string, EKO_MEMTAG tag, MemResult* onTag,
                MemResult* result)
{
    if (!canOpen(query.xflags))
        return INI_NO_MEMORY;
    const SemGuard lock(globals->iniSem);
    Found found;
    const int32 status = find(globals, query, &found, result);
    if (status != EKO_OK)
        return status;
    *string = tryJoin(found, tag, onTag);
    return *string || found.count() == 0 ? EKO_OK : INI_NO_MEMORY;
}

// As atol, but the same in builds whose long is wider.
int32 numberIn(const char* text)
{
    const long long number = strtoll(text, nullptr, 10);
    return static_cast<int32>(number < INT32_MIN ? INT32_MIN : number > INT32_MAX ? INT32_MAX : number);
}

} // namespace

// ---- for the rest of the module ---------------------------------------------------------------------------

EKO_INI_GLOBALS* eko_iniGlobals()
{
    return static_cast<EKO_INI_GLOBALS*>(globalRecord(iniSlot));
}

// The record of disk files exists since this module's own was made.
bool canOpen(uint16 xflags)
{
    return !(xflags & EKO_FILE_INMEMORY) || mfGlobals();
}

INIINFO* findFile(const EKO_INI_GLOBALS* globals, const char* iniName)
{
    const CutName wanted(iniName, INI_FILE_NAME_BYTES);
    for (INIINFO* file = globals->iniInfo; file < globals->iniInfo + globals->iniNum; ++file) {
        if (wanted.is(file->name))
            return file;
    }
    return nullptr;
}

template <class Unit>
int32 getList(EKO_INI_GLOBALS* globals, const IniQuery& query, Unit* buf, uint32 length, MemResult* result)
{
    if (!canOpen(query.xflags))
        return INI_NO_MEMORY;
    const SemGuard lock(globals->iniSem);
    Found found;
    const int32 status = find(globals, query, &found, result);
    return status == EKO_OK ? storeFound(found, buf, length) : status;
}
template int32 getList(EKO_INI_GLOBALS*, const IniQuery&, char*, uint32, MemResult*);
template int32 getList(EKO_INI_GLOBALS*, const IniQuery&, wchar_t*, uint32, MemResult*);

void reloadFile(EKO_INI_GLOBALS* globals, const char* iniName, uint16 xflags, IfUnreadable then, MemResult* result)
{
    if (!canOpen(xflags))
        return;
    const SemGuard lock(globals->iniSem);
    rereadFile(globals, iniName, xflags, then, result);
}

// ---- exported ---------------------------------------------------------------------------------------------

// DELIBERATE: here and in every other call, no record (the library is not started, or has no memory for it)
// gives 0, with nothing done. The engine's tools read optional settings before they start the library, and go on
// with what they have. Pinned by ini_without_a_record_does_nothing.
int32 eko_readIniFileEx(const char* iniName, uint16 xflags)
{
    EKO_INI_GLOBALS* globals = eko_iniGlobals();
    if (!globals || !iniName)
        return EKO_OK;
    MemResult result = MemResult::done;
    reloadFile(globals, iniName, xflags, IfUnreadable::drop, &result);
    memReportIf(result, __FILE__, __LINE__);
    return EKO_OK;
}

int32 eko_readIniFile(const char* iniName)
{
    return eko_readIniFileEx(iniName, 0);
}

int32 eko_iniGetEx(const char* iniName, const char* section, const char* entry, char* buf, uint32 length,
                   uint16 xflags)
{
    EKO_INI_GLOBALS* globals = eko_iniGlobals();
    if (!globals)
        return EKO_OK;
    if (!iniName || !buf)
        return INI_NULL_ARGUMENT;
    MemResult result = MemResult::done;
    const int32 status = getList(globals, {iniName, section, entry, xflags}, buf, length, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_iniGet(const char* iniName, const char* section, const char* entry, char* buf, uint32 length)
{
    return eko_iniGetEx(iniName, section, entry, buf, length, 0);
}

int32 eko_iniStringEx(const char* iniName, const char* section, const char* entry, char* buf, uint32 length,
                      uint16 xflags)
{
    return eko_iniGetEx(iniName, section, entry, buf, length, xflags);
}

int32 eko_iniString(const char* iniName, const char* section, const char* entry, char* buf, uint32 length)
{
    return eko_iniGetEx(iniName, section, entry, buf, length, 0);
}

int32 eko_iniGetStr(const char* iniName, const char* section, const char* entry, char** result, uint16 xflags,
                    EKO_MEMTAG tag)
{
    EKO_INI_GLOBALS* globals = eko_iniGlobals();
    if (!globals)
        return EKO_OK;
    if (!iniName || !result)
        return INI_NULL_ARGUMENT;
    MemResult onTag = MemResult::done;
    MemResult own = MemResult::done;
    char* string = nullptr;
    const int32 status = getString(globals, {iniName, section, entry, xflags}, &string, tag, &onTag, &own);
    if (status == EKO_OK)
        *result = string;
    memReportIf(own, __FILE__, __LINE__);
    memFail(onTag, tag, __FILE__, __LINE__);
    return status;
}

int32 eko_iniInt32Ex(const char* iniName, const char* section, const char* tag, int32* num, uint16 xflags)
{
    if (!eko_iniGlobals())
        return EKO_OK;
    if (!num)
        return INI_NULL_ARGUMENT;
    char text[NUMBER_BYTES] = "";
    const int32 status = eko_iniGetEx(iniName, section, tag, text, sizeof(text), xflags);
    if (status == EKO_OK)
        *num = numberIn(text);
    return status;
}

int32 eko_iniInt32(const char* iniName, const char* section, const char* tag, int32* num)
{
    return eko_iniInt32Ex(iniName, section, tag, num, 0);
}

void eko_iniCleanup(void)
{
    EKO_INI_GLOBALS* globals = eko_iniGlobals();
    if (!globals)
        return;
    const SemGuard lock(globals->iniSem);
    freeCache(globals);
}
