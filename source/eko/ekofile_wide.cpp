// SPDX-License-Identifier: MIT
// The calls on names, for wide strings: each name is converted to UTF-8 on the global tag, the narrow call made,
// and the copies freed, with errno as the narrow call left it. No state, no locks.

#include "ekofile_int.h"

namespace {

class NarrowName {
public:
    explicit NarrowName(const wchar_t* wide) : text_(tryConvToUTF8(wide, EKO_UTF8_FAIL, EKO_GLOBAL_TAG, &result_))
    {
    }
    ~NarrowName()
    {
        const ErrnoGuard keepErrno;
        EKO_FREE(text_, EKO_GLOBAL_TAG);
    }
    NarrowName(const NarrowName&) = delete;
    NarrowName& operator=(const NarrowName&) = delete;

    const char* text() const { return text_; } // null when it cannot be converted
    MemResult result() const { return result_; }

private:
    MemResult result_ = MemResult::refused; // in front of text_, whose making sets it
    char* text_;
};

// What `call` returns for the converted names; `failed` when one cannot be converted, after a report if that was
// for want of memory.
template <class Result, class Call> Result callNarrow(const wchar_t* wide, Result failed, Call call)
{
    MemResult result;
    {
        const NarrowName name(wide);
        if (name.text())
            return call(name.text());
        result = name.result();
    }
    memReportIf(result, __FILE__, __LINE__);
    return failed;
}

template <class Result, class Call>
Result callNarrow(const wchar_t* first, const wchar_t* second, Result failed, Call call)
{
    MemResult result;
    {
        const NarrowName one(first);
        const NarrowName two(one.text() ? second : nullptr);
        if (two.text())
            return call(one.text(), two.text());
        result = one.text() ? two.result() : one.result();
    }
    memReportIf(result, __FILE__, __LINE__);
    return failed;
}

using PairCall = int32 (*)(const char*, uint16, const char*, uint16);

int32 callPair(PairCall narrowCall, const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags,
               int32 failed = EKO_FAILED)
{
    return callNarrow(src, dest, failed, [=](const char* from, const char* to) {
        return narrowCall(from, src_xflags, to, dest_xflags);
    });
}

} // namespace

// ---- directories ------------------------------------------------------------------------------------------

int32 eko_dirCreateW(const wchar_t* directory)
{
    return callNarrow(directory, EKO_FAILED, eko_dirCreate);
}

int32 eko_dirRemoveW(const wchar_t* directory)
{
    return callNarrow(directory, EKO_FAILED, eko_dirRemove);
}

int32 eko_dirCreateAllW(const wchar_t* directory)
{
    return callNarrow(directory, EKO_FAILED, eko_dirCreateAll);
}

int32 eko_dirMoveExW(const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags)
{
    return callPair(eko_dirMoveEx, src, src_xflags, dest, dest_xflags);
}

int32 eko_dirMoveW(const wchar_t* src, const wchar_t* dest)
{
    return eko_dirMoveExW(src, 0, dest, 0);
}

// ---- files ------------------------------------------------------------------------------------------------

int32 eko_fileCopyExW(const wchar_t* src_name, uint16 src_xflags, const wchar_t* dest_name, uint16 dest_xflags)
{
    return callPair(eko_fileCopyEx, src_name, src_xflags, dest_name, dest_xflags);
}

int32 eko_fileCopyW(const wchar_t* src_name, const wchar_t* dest_name)
{
    return eko_fileCopyExW(src_name, 0, dest_name, 0);
}

int32 eko_fileCmpExW(const wchar_t* src_name, uint16 src_xflags, const wchar_t* dest_name, uint16 dest_xflags)
{
    return callPair(eko_fileCmpEx, src_name, src_xflags, dest_name, dest_xflags);
}

int32 eko_fileCmpW(const wchar_t* src_name, const wchar_t* dest_name)
{
    return eko_fileCmpExW(src_name, 0, dest_name, 0);
}

int32 eko_fileMoveExW(const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags)
{
    return callPair(eko_fileMoveEx, src, src_xflags, dest, dest_xflags);
}

int32 eko_fileMoveW(const wchar_t* src, const wchar_t* dest)
{
    return eko_fileMoveExW(src, 0, dest, 0);
}

// DELIBERATE: the flags are ignored: whoever removes by a wide name means the disk, and a file in memory of that
// name stays. Pinned by path_stories.
int32 eko_fileRemoveExW(const wchar_t* name, uint16 /*xflags*/)
{
    return callNarrow(name, EKO_NO_MEMORY, eko_fileRemove);
}

int32 eko_fileRemoveW(const wchar_t* name)
{
    return eko_fileRemoveExW(name, 0);
}

int32 eko_fileRenameExW(const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags)
{
    return callPair(eko_fileRenameEx, src, src_xflags, dest, dest_xflags, EKO_NO_MEMORY);
}

int32 eko_fileRenameW(const wchar_t* src, const wchar_t* dest)
{
    return eko_fileRenameExW(src, 0, dest, 0);
}

int32 eko_fileValidateExW(const wchar_t* name, uint16 xflags, int32* isdir)
{
    if (isdir)
        *isdir = 0;
    return callNarrow(name, 0, [=](const char* narrow) { return eko_fileValidateEx(narrow, xflags, isdir); });
}

int32 eko_fileValidateW(const wchar_t* name, int32* isdir)
{
    return eko_fileValidateExW(name, 0, isdir);
}

// ---- iteration --------------------------------------------------------------------------------------------

EKO_DIR eko_pathOpenExW(const wchar_t* path, uint16 xflags, const wchar_t* pattern)
{
    return callNarrow(path, pattern, static_cast<EKO_DIR>(nullptr),
                      [=](const char* dir, const char* names) { return eko_pathOpenEx(dir, xflags, names); });
}

EKO_DIR eko_pathOpenW(const wchar_t* path, const wchar_t* pattern)
{
    return eko_pathOpenExW(path, 0, pattern);
}
