// SPDX-License-Identifier: MIT
// INI files: the calls that take wide strings. Arguments are converted on the thread's tag. A list is converted
// item by item straight from the cache, so that its inner terminators stay.

#include "ekoini_int.h"

namespace {

constexpr uint32 BYTES_PER_CHARACTER = 4; // of UTF-8, at most

// The arguments of a call in UTF-8; null stays null.
template <size_t COUNT> class NarrowArguments {
public:
    NarrowArguments(const wchar_t* const (&wide)[COUNT], MemResult* result)
    {
        for (size_t i = 0; i < COUNT && complete_; ++i) {
            if (wide[i])
                narrow_[i] = tryConvToUTF8(wide[i], EKO_UTF8_FAIL, EKO_THREAD_TAG, result);
            complete_ = narrow_[i] || !wide[i];
        }
    }
    ~NarrowArguments()
    {
        for (const char* string : narrow_)
            EKO_FREE(string, EKO_THREAD_TAG);
    }
    NarrowArguments(const NarrowArguments&) = delete;
    NarrowArguments& operator=(const NarrowArguments&) = delete;

    bool complete() const { return complete_; }
    const char* operator[](size_t i) const { return narrow_[i]; }

private:
    char* narrow_[COUNT] = {};
    bool complete_ = true;
};

// The status of `call`, which gets the arguments in UTF-8 and says where memory ran out.
template <size_t COUNT, class Call> int32 callNarrow(const wchar_t* const (&wide)[COUNT], Call call)
{
    EKO_INI_GLOBALS* globals = eko_iniGlobals();
    if (!globals)
        return EKO_OK;
    MemResult result = MemResult::done;
    int32 status = INI_NO_MEMORY;
    {
        const NarrowArguments<COUNT> narrow(wide, &result);
        if (narrow.complete()) {
            result = MemResult::done;
            status = call(globals, narrow, &result);
        }
    }
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

} // namespace

// DELIBERATE: other than in the narrow form, a file that cannot be opened leaves its cached copy as it is. Programs
// that refresh their settings through this one go on with the old ones then.
// Pinned by ini_large_and_unreadable_files.
int32 eko_readIniFileExW(const wchar_t* iniName, uint16 xflags)
{
    if (!iniName)
        return EKO_OK;
    return callNarrow({iniName}, [=](EKO_INI_GLOBALS* globals, const auto& narrow, MemResult* result) {
        reloadFile(globals, narrow[0], xflags, IfUnreadable::keep, result);
        return EKO_OK;
    });
}

int32 eko_readIniFileW(const wchar_t* iniName)
{
    return eko_readIniFileExW(iniName, 0);
}

int32 eko_iniGetExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                    uint32 length, uint16 xflags)
{
    if (!eko_iniGlobals())
        return EKO_OK;
    if (!iniName || !buf)
        return INI_NULL_ARGUMENT;
    if (length > UINT32_MAX / BYTES_PER_CHARACTER)
        return INI_NO_MEMORY; // no list of that many bytes could be held
    return callNarrow({iniName, section, entry},
                      [=](EKO_INI_GLOBALS* globals, const auto& narrow, MemResult* result) {
                          return getList(globals, {narrow[0], narrow[1], narrow[2], xflags}, buf, length, result);
                      });
}

int32 eko_iniGetW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf, uint32 length)
{
    return eko_iniGetExW(iniName, section, entry, buf, length, 0);
}

int32 eko_iniStringExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                       uint32 length, uint16 xflags)
{
    return eko_iniGetExW(iniName, section, entry, buf, length, xflags);
}

int32 eko_iniStringW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                     uint32 length)
{
    return eko_iniGetExW(iniName, section, entry, buf, length, 0);
}

int32 eko_iniInt32ExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* tag, int32* num, uint16 xflags)
{
    return callNarrow({iniName, section, tag}, [=](EKO_INI_GLOBALS*, const auto& narrow, MemResult*) {
        return eko_iniInt32Ex(narrow[0], narrow[1], narrow[2], num, xflags);
    });
}

int32 eko_iniInt32W(const wchar_t* iniName, const wchar_t* section, const wchar_t* tag, int32* num)
{
    return eko_iniInt32ExW(iniName, section, tag, num, 0);
}

int32 eko_iniSetExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, const wchar_t* value,
                    uint16 xflags)
{
    return callNarrow({iniName, section, entry, value}, [=](EKO_INI_GLOBALS*, const auto& narrow, MemResult*) {
        return eko_iniSetEx(narrow[0], narrow[1], narrow[2], narrow[3], xflags);
    });
}

int32 eko_iniSetW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, const wchar_t* value)
{
    return eko_iniSetExW(iniName, section, entry, value, 0);
}
