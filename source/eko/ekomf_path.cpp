// SPDX-License-Identifier: MIT
// Paths of files in memory: normalised, then cut into components.
//
// A name is split before anything else, and only the directory in front of its last "/" is made absolute and
// normalised; that directory arrives here with a "/" at its end, of which one is dropped. Some names therefore mean
// what they would not mean on disk, and stay so, because the same name must always lead to the same file:
// DELIBERATE:
//   /f        is f in the directory "", not in the root, which holds directories only: its directory is "/", with
//             one component that is empty. The directory /a and the file /a do not meet.
//   /a//f     is f in /a/"": the doubled "/" is gone before it could be seen to be doubled.
//   /a/./f    is f in the directory "." of /a, since a final "." is kept.
//   /a/../f   is nothing: its directory comes out as the empty text, which is not absolute.
//   x\y       is a name with a "\" in it when no "/" stands before: "\" separates within the directory only.
// Pinned by memfile_names.

#include <string.h>

#include "ekomf_int.h"

namespace {

PATH_STATE afterChar(PATH_STATE state, char c)
{
    if (c == '.' && (state == PATH_BEGIN || state == PATH_DIRCHAR))
        return PATH_DOT;
    return c == '.' && state == PATH_DOT ? PATH_DOT_DOT : PATH_NAME;
}

// The parent step of a ".." that ends in front of `end`: removes it and the name before it, by moving `end`.
bool climb(const char* path, size_t* end)
{
    size_t at = *end;
    if (at <= 3) { // at the very top, where one stays
        *end = 0;
        return true;
    }
    at -= 4; // over "/.." to the end of the name
    while (at > 0 && path[at] != '/')
        --at;
    *end = at;
    return path[at] == '/';
}

// The end of a path in front of a separator, moved back over what the separator closes.
bool closeStep(PATH_STATE state, const char* path, size_t* end)
{
    if (state == PATH_DOT_DOT)
        return climb(path, end);
    if (state == PATH_DOT)
        *end -= *end < 2 ? *end : 2; // "./" at the very start has no separator before it
    return true;
}

} // namespace

// Reads ahead of where it writes: what a step removes is always what was written last.
bool mfNormalize(char* path)
{
    PATH_STATE state = PATH_BEGIN;
    size_t end = 0; // of what is written
    for (const char* in = path; *in; ++in) {
        if (*in != '/' && *in != '\\') {
            state = afterChar(state, *in);
            path[end++] = *in;
            continue;
        }
        if (state == PATH_DIRCHAR)
            continue;
        if (!closeStep(state, path, &end))
            return false;
        path[end++] = '/';
        state = PATH_DIRCHAR;
    }
    if (state == PATH_DOT_DOT && !climb(path, &end))
        return false;
    path[end] = '\0';
    return true;
}

MfPath::~MfPath()
{
    EKO_FREE(directory_, EKO_THREAD_TAG);
    EKO_FREE(last_, EKO_THREAD_TAG);
}

bool MfPath::setFile(const char* name, MemResult* result)
{
    char* dir = nullptr;
    char* file = nullptr;
    if (tryPathSplit(eko_pathStripDrive(name), &dir, &file, EKO_THREAD_TAG, result) != EKO_OK)
        return false;
    last_ = file;
    directory_ = tryFullpath(dir, EKO_THREAD_TAG, result);
    EKO_FREE(dir, EKO_THREAD_TAG);
    if (!directory_)
        return false;
    *result = MemResult::refused;
    const size_t length = strlen(directory_);
    if (length > 1 && directory_[length - 1] == '/')
        directory_[length - 1] = '\0';
    return last_ && *last_ && cut(); // a file has a name
}

bool MfPath::setDirectory(const char* path, MemResult* result)
{
    path = eko_pathStripDrive(path);
    directory_ = tryStrdup(path, EKO_THREAD_TAG, result);
    if (!directory_)
        return false;
    *result = MemResult::refused;
    return cut();
}

bool MfPath::cut()
{
    if (!mfNormalize(directory_) || directory_[0] != '/')
        return false;
    char* at = directory_ + 1;
    for (; *at; ++at) {
        if (*at == '/')
            *at = '\0';
    }
    end_ = at;
    return true;
}

const char* MfPath::next(const char* component) const
{
    const char* end = component + strlen(component);
    return end == end_ ? last_ : end + 1;
}

bool MfPath::sameDirectory(const MfPath& other) const
{
    const char* a = first();
    const char* b = other.first();
    while (a != last_ && b != other.last_ && equalNoCase(a, b)) {
        a = next(a);
        b = other.next(b);
    }
    return a == last_ && b == other.last_;
}

bool MfPath::isAbove(const MfPath& other) const
{
    const char* a = first();
    for (const char* b = other.first(); b != other.last_; b = other.next(b)) {
        if (!equalNoCase(a, b))
            return false;
        if (a == last_)
            return true;
        a = next(a);
    }
    return false;
}
