// SPDX-License-Identifier: MIT
// INI files: rewriting one, line by line, through a temporary file beside it.

#include <ctype.h>
#include <errno.h>

#include "ekoini_int.h"
#include "ekomf_int.h"

namespace {

// One per directory, for all of its INI files.
constexpr char TEMP_NAME[] = "_temp_.ini";

// ---- strings for the time of a call -----------------------------------------------------------------------

class OwnString {
public:
    explicit OwnString(char* text) : text_(text) {}
    ~OwnString() { EKO_FREE(text_, EKO_THREAD_TAG); }
    OwnString(const OwnString&) = delete;
    OwnString& operator=(const OwnString&) = delete;
    const char* get() const { return text_; }

private:
    char* text_;
};

// The temporary file's name: in the directory that the INI file's name says, as it says it.
char* tempNameFor(const char* iniName, MemResult* result)
{
    const char* slash = strrchr(iniName, '/');
    const int32 dirLength = slash ? static_cast<int32>(slash - iniName) + 1 : 0;
    return tryMakeStr(result, EKO_THREAD_TAG, "%.*s%s", dirLength, iniName, TEMP_NAME);
}

// ---- the rules --------------------------------------------------------------------------------------------

// What is to be done: set an entry (`line` is given), delete one, or without an entry delete a section.
struct Edit {
    const char* header; // "[section]"
    const char* entry;
    const char* line; // "entry=value\n"
};

// A header's text goes through its first "]"; without one it is none.
bool isHeader(const char* line, const char* header)
{
    const char* end = *line == '[' ? strchr(line, ']') : nullptr;
    return end && spells(line, static_cast<size_t>(end - line) + 1, header);
}

// DELIBERATE: the name is everything in front of the first "=", or the whole line with its end, untrimmed. So
// what is found as "name = value" is not found here: setting "name" adds a line that reading, which takes the
// first, does not see. Editors of users' files rely on lines laid out by hand being left alone. Pinned by
// ini_set_rules.
bool isEntry(const char* line, const char* entry)
{
    return spells(line, strcspn(line, "="), entry);
}

bool beginsBlank(const char* line)
{
    return isspace(static_cast<unsigned char>(*line));
}

// Copies a file's lines and does the edit on the way. Writes are not checked.
class Rewrite {
public:
    Rewrite(const Edit& edit, EKO_FILE_STREAM out) : edit_(edit), out_(out) {}

    void take(const char* line)
    {
        switch (where_) {
        case BEFORE:
            takeBefore(line);
            break;
        case INSIDE:
            takeInside(line);
            break;
        case BEHIND:
            put(line);
            break;
        }
    }

    // At the file's end. Lines held back are lost then.
    void finish()
    {
        if (!edit_.line || where_ == BEHIND)
            return;
        if (where_ == BEFORE) {
            write("\n"); // also ends a last line that has no end
            put(edit_.header);
            write("\n");
        }
        put(edit_.line);
    }

private:
    enum Where { BEFORE, INSIDE, BEHIND }; // the section; behind the place where the work is done

    bool deletesSection() const { return !edit_.entry; }

    void takeBefore(const char* line)
    {
        if (isHeader(line, edit_.header)) {
            where_ = INSIDE;
            if (deletesSection())
                return;
        }
        put(line);
    }

    // DELIBERATE: the text of lines that begin with white space is lost: setting keeps them as empty lines,
    // deleting an entry not even so. The engine's own files have none but empty ones, and stay compact by it.
    // Pinned by ini_set_rules.
    void takeInside(const char* line)
    {
        if (*line == '[')
            leaveSection(line);
        else if (deletesSection())
            return;
        else if (beginsBlank(line))
            heldBack_ += edit_.line ? 1 : 0;
        else
            takeEntry(line);
    }

    void leaveSection(const char* header)
    {
        where_ = BEHIND;
        if (edit_.line)
            put(edit_.line);
        releaseHeldBack();
        put(header);
    }

    void takeEntry(const char* line)
    {
        releaseHeldBack();
        if (!isEntry(line, edit_.entry)) {
            put(line);
        } else if (edit_.line) {
            put(edit_.line);
            where_ = BEHIND;
        }
    }

    void releaseHeldBack()
    {
        for (; heldBack_ > 0; --heldBack_)
            put("\n");
    }

    // Ends the line in front, if that has lost its end to a byte 0, or was the file's last and never had one.
    void put(const char* line)
    {
        if (!ended_)
            write("\n");
        write(line);
    }

    void write(const char* text)
    {
        eko_fputs(text, out_);
        const size_t length = strlen(text);
        ended_ = length == 0 ? ended_ : text[length - 1] == '\n';
    }

    const Edit& edit_;
    EKO_FILE_STREAM out_;
    Where where_ = BEFORE;
    uint64 heldBack_ = 0;
    bool ended_ = true;
};

// ---- files ------------------------------------------------------------------------------------------------

// Whether a file that did not open, with that errno, is one that is not there. In memory the name may be a
// directory's, and removing that would take all that is in it.
bool isMissing(const char* iniName, uint16 xflags, int error, MemResult* result)
{
    if (xflags & EKO_FILE_INMEMORY)
        return !eko_mfValidate(iniName, nullptr, result) && *result != MemResult::exhausted;
    return error == 0 || error == ENOENT;
}

// An INI file that is not there is taken for an empty one, one that is there must open: it is about to be replaced.
int32 openOld(IniInput& input, const char* iniName, uint16 xflags, MemResult* result)
{
    errno = 0;
    const int32 status = input.open(iniName, EKO_FILE_MODE_UTF8, xflags, result);
    const int error = errno;
    if (status == INI_CANNOT_OPEN && isMissing(iniName, xflags, error, result))
        return EKO_OK;
    return *result == MemResult::exhausted ? INI_NO_MEMORY : status;
}

// A file in memory is not emptied by being opened: what a failed rename has left there would show in the new one.
EKO_FILE_STREAM openTemp(const char* tempName, uint16 xflags, int32* status)
{
    const EKO_FILE_STREAM out = tryOpenStream(tempName, "w", EKO_FILE_MODE_UTF8, xflags, status);
    if (out && (xflags & EKO_FILE_INMEMORY))
        eko_fileSetSize(static_cast<const EKO_FILE_CTX*>(out)->fh->fh, 0);
    return out;
}

void rewriteLines(const Edit& edit, IniInput& input, EKO_FILE_STREAM out, MemResult* result)
{
    Rewrite rewrite(edit, out);
    while (const char* line = input.next(result))
        rewrite.take(line);
    rewrite.finish();
}

// Writes the new file under the temporary name, whole and closed. Nothing is to be replaced by what was read of a
// file that did not come to its end; what was written then is of no use.
int32 writeTemp(const Edit& edit, const char* iniName, const char* tempName, uint16 xflags, MemResult* result)
{
    IniInput input;
    int32 status = openOld(input, iniName, xflags, result);
    if (status != EKO_OK)
        return status;
    const EKO_FILE_STREAM out = openTemp(tempName, xflags, &status);
    if (!out)
        return openFailure(status, result);
    rewriteLines(edit, input, out, result);
    eko_fclose(out);
    if (*result != MemResult::exhausted && input.complete())
        return EKO_OK;
    MemResult ignored;
    tryRemove(tempName, xflags, &ignored);
    return *result == MemResult::exhausted ? INI_NO_MEMORY : INI_CANNOT_OPEN;
}

// DELIBERATE: the old file is removed first, so that for a moment there is none, and a failed rename leaves the
// new one under the temporary name: a file in memory would not be replaced by a rename. Nor does anybody wait
// for the disk, or look whether it was full. Who kills the process finds the old file, the temporary one or the
// new one whole. Pinned by ini_set_under_faults.
int32 replaceFile(const char* iniName, const char* tempName, uint16 xflags, MemResult* result)
{
    tryRemove(iniName, xflags, result);
    if (*result == MemResult::exhausted)
        return INI_NO_MEMORY; // it may be there still
    return tryRename(tempName, xflags, iniName, xflags, result) == EKO_OK ? EKO_OK : INI_CANNOT_RENAME;
}

int32 rewriteFile(const Edit& edit, const char* iniName, const char* tempName, uint16 xflags, MemResult* result)
{
    if (equalNoCase(iniName, tempName))
        return INI_CANNOT_OPEN; // opening the other would empty it
    const int32 status = writeTemp(edit, iniName, tempName, xflags, result);
    return status == EKO_OK ? replaceFile(iniName, tempName, xflags, result) : status;
}

int32 rewriteLocked(EKO_INI_GLOBALS* globals, const Edit& edit, const char* iniName, const char* tempName,
                    uint16 xflags, MemResult* result)
{
    if (!canOpen(xflags))
        return INI_NO_MEMORY;
    const SemGuard lock(globals->iniSem);
    const int32 status = rewriteFile(edit, iniName, tempName, xflags, result);
    return status == EKO_OK ? rereadFile(globals, iniName, xflags, IfUnreadable::drop, result) : status;
}

// All that is written is formatted before a file is touched.
int32 setEntry(EKO_INI_GLOBALS* globals, const char* iniName, const char* section, const char* entry,
               const char* value, uint16 xflags, MemResult* result)
{
    const bool adding = entry && value;
    const OwnString tempName(tempNameFor(iniName, result));
    if (!tempName.get())
        return INI_NO_MEMORY;
    const OwnString header(tryMakeStr(result, EKO_THREAD_TAG, "[%s]", section));
    if (!header.get())
        return INI_NO_MEMORY;
    const OwnString line(adding ? tryMakeStr(result, EKO_THREAD_TAG, "%s=%s\n", entry, value) : nullptr);
    if (adding && !line.get())
        return INI_NO_MEMORY;
    *result = MemResult::done;
    return rewriteLocked(globals, {header.get(), entry, line.get()}, iniName, tempName.get(), xflags, result);
}

} // namespace

int32 eko_iniSetEx(const char* iniName, const char* section, const char* entry, const char* value, uint16 xflags)
{
    EKO_INI_GLOBALS* globals = eko_iniGlobals();
    if (!globals)
        return EKO_OK;
    if (!iniName || !section)
        return INI_NULL_ARGUMENT;
    MemResult result = MemResult::done;
    const int32 status = setEntry(globals, iniName, section, entry, value, xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_iniSet(const char* iniName, const char* section, const char* entry, const char* value)
{
    return eko_iniSetEx(iniName, section, entry, value, 0);
}
