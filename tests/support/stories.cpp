// SPDX-License-Identifier: MIT
#include "support/stories.h"

#include <stdlib.h>

#include <memory>
#include <sstream>

#include "ekofile_int.h"
#include "support/syscalls.h"

namespace {

std::unique_ptr<CallFault> otherDisk; // while renames fail

struct Name { // for either form of a call
    const char* narrow;
    const wchar_t* wide;
    uint16 flags;
    operator const char*() const { return narrow; }
    operator const wchar_t*() const { return wide; }
};

int32 setMode(char mode)
{
    otherDisk = nullptr;
    if (mode == 'x')
        otherDisk = std::make_unique<CallFault>("rename", EXDEV);
    eko_readonly = mode == 'r';
    eko_diskless = mode == 'd';
    return 0;
}

int32 count(EKO_DIR walk, bool isWide)
{
    int32 found = walk ? 0 : -1, isdir = 0;
    while (isWide ? eko_pathNextW(walk, &isdir) != nullptr : eko_pathNext(walk, &isdir) != nullptr)
        found += 1 + 10 * isdir;
    eko_pathClose(walk);
    return found;
}

#define TWO(call) (form % 2 ? call##W(a) : call(a))
#define FOUR(call, ex, plain) \
    (form < 2 || a.flags || b.flags ? form % 2 ? call##ExW ex : call##Ex ex : form % 2 ? call##W plain : call plain)
#define PAIR(call) FOUR(call, (a, a.flags, b, b.flags), (a, b))

int32 valid(Name a, Name b, int form)
{
    int32 isdir = 7;
    const int32 usable = FOUR(eko_fileValidate, (a, a.flags, &isdir), (a, &isdir));
    return usable + 10 * isdir;
}

int32 act(const std::string& call, Name a, Name b, int form)
{
    return call == "copy"      ? PAIR(eko_fileCopy)
           : call == "cmp"     ? PAIR(eko_fileCmp)
           : call == "move"    ? PAIR(eko_fileMove)
           : call == "rename"  ? PAIR(eko_fileRename)
           : call == "movedir" ? PAIR(eko_dirMove)
           : call == "remove"  ? FOUR(eko_fileRemove, (a, a.flags), (a))
           : call == "mkdir"   ? TWO(eko_dirCreate)
           : call == "mkall"   ? TWO(eko_dirCreateAll)
           : call == "rmdir"   ? TWO(eko_dirRemove)
           : call == "valid"   ? valid(a, b, form)
           : call == "walk"    ? count(FOUR(eko_pathOpen, (a, a.flags, b), (a, b)), form % 2)
           : call == "put"     ? put(a.narrow, b.narrow)
           : call == "is"      ? get(a.narrow) != b.narrow
           : call == "link"    ? link(a, b)
           : call == "symlink" ? symlink(a, b)
           : call == "mode"    ? setMode(*b.narrow)
                               : INT32_MIN;
}

Name nameOf(const std::string& text, wchar_t (&wide)[5100], int form)
{
    static const wchar_t invalid[] = {0xD800, 0};
    if (text == "bad")
        return {nullptr, form == 1 ? invalid : nullptr, 0};
    EXPECT_NE(eko_utf8_to_wchar(wide, text.c_str(), 5100, EKO_UTF8_FAIL), EKO_UTF8_FAILED);
    return {text.c_str(), wide, flagsOf(text)};
}

} // namespace

void tell(std::string story)
{
    for (size_t at; (at = story.find_first_of("@#")) != std::string::npos;)
        story.replace(at, 1, story[at] == '@' ? "\u00E9" : std::string(5000, 'n'));
    std::string step, call, a, b;
    static wchar_t wideA[5100], wideB[5100];
    for (int form = 0; form < 4; ++form, forget())
        for (std::istringstream steps(story); std::getline(steps, step, ';');) {
            int32 status = 0, wideStatus;
            std::istringstream words(step);
            words >> call >> a >> b >> status;
            if (words >> wideStatus && form % 2)
                status = wideStatus;
            EXPECT_EQ(act(call, nameOf(a, wideA, form), nameOf(b, wideB, form), form), status) << step << form;
        }
}

void forget()
{
    setMode('-');
    EXPECT_EQ(system("rm -rf ./*"), 0);
    for (const char* name : {"/m/x", "/m/x", "/m/y", "/m/d"}) // of two with one name, both
        eko_fileRemoveEx(name, EKO_FILE_INMEMORY);
}

int32 put(const std::string& name, const std::string& text)
{
    writeFile(flagsOf(name) ? "~" : name, text);
    return flagsOf(name) ? eko_fileCopyEx("~", 0, name.c_str(), flagsOf(name)) : 0;
}

std::string get(const std::string& name)
{
    int32 isdir = 0;
    if (flagsOf(name) && eko_fileCopyEx(name.c_str(), flagsOf(name), "~", 0) == 0)
        return readFile("~");
    if (flagsOf(name) || !getFileType(name.c_str(), &isdir))
        return "(none)";
    return isdir ? "(dir)" : readFile(name);
}

uint16 flagsOf(const std::string& name)
{
    return name.substr(0, 2) == "/m" ? EKO_FILE_INMEMORY : 0;
}
