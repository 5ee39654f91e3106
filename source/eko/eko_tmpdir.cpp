// SPDX-License-Identifier: MIT
// The temporary directory, and commands given to the shell.
//
// Data      eko_tmp, the name of the system's temporary directory once it was found, on the global tag until the
//           library stops.
// Locks     The critical section, while one thread searches. All that the search calls is quiet: a report takes
//           locks that come after it, but a callback of the caller could come back to it.
// Unlocked  eko_tmp, published when it is complete.

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include "ekofile_int.h"
#include "ekoprocess_int.h"

extern char* eko_tmp;

namespace {

constexpr size_t PROBE_NAME_BYTES = 512;
constexpr uint32 PROBE_FLAGS = OPEN_READ_WRITE | OPEN_CREATE;
constexpr char DIRSEP = '/';

class CritSecGuard {
public:
    CritSecGuard() { eko_enterCritSec(); }
    ~CritSecGuard() { eko_exitCritSec(); }
    CritSecGuard(const CritSecGuard&) = delete;
    CritSecGuard& operator=(const CritSecGuard&) = delete;
};

// ---- is a directory writable? -----------------------------------------------------------------------------

struct Probe {
    char name[PROBE_NAME_BYTES];
    bool cut; // the name did not fit

    explicit Probe(const char* dir)
    {
        const int length = eko_snprintf(name, sizeof(name), "%s%ctov_dirtest_tmp%08X%p", dir, DIRSEP, eko_get_pid(),
                                        reinterpret_cast<void*>(static_cast<uintptr_t>(eko_threadId())));
        cut = length < 0 || static_cast<size_t>(length) >= sizeof(name);
    }

    // A name that was cut is no longer the thread's own: a file that has it is somebody's, and not to be removed.
    uint32 flags() const { return cut ? PROBE_FLAGS | O_EXCL : PROBE_FLAGS; }
};

bool tryDirWritable(const char* dir, MemResult* result)
{
    const Probe probe(dir);
    int32 status;
    EKO_FH fh = tryOpenFile(probe.name, probe.flags(), 0, &status);
    *result = status == EKO_NO_MEMORY ? MemResult::exhausted : MemResult::done;
    if (!fh)
        return false;
    eko_fileClose(fh);
    MemResult ignored;
    tryRemove(probe.name, 0, &ignored);
    return true;
}

// ---- the system's temporary directory ---------------------------------------------------------------------

// The current directory, if it is writable.
char* tryWritableCurrdir(EKO_MEMTAG tag, MemResult* probing, MemResult* result)
{
    char* dir = tryCurrdir(tag, result);
    if (!dir || tryDirWritable(dir, probing))
        return dir;
    EKO_FREE(dir, tag);
    return nullptr;
}

} // namespace

// Memory that runs out ends the search: going on, it would choose a directory that the user did not ask for.
char* tryFindOStmpdir(EKO_MEMTAG tag, MemResult* probing, MemResult* result)
{
    *result = MemResult::done;
    const char* const candidates[] = {getenv("TMPDIR"), getenv("TEMPDIR"), "/tmp"};
    for (const char* dir : candidates) {
        if (!dir)
            continue;
        if (tryDirWritable(dir, probing))
            return tryStrdup(dir, tag, result);
        if (*probing == MemResult::exhausted)
            return nullptr;
    }
    return tryWritableCurrdir(tag, probing, result);
}

namespace {

// The cached name. A failure is not remembered: the next call searches again.
const char* eko_osTmpdir(EKO_MEMTAG tag, MemResult* result)
{
    *result = MemResult::refused;
    if (!libraryStarted())
        return nullptr;
    const char* known = readPublished(eko_tmp);
    if (known)
        return known;
    const CritSecGuard lock;
    if (!eko_tmp)
        publish(eko_tmp, tryFindOStmpdir(tag, result, result)); // all of it is the library's: one says enough
    return eko_tmp;
}

// The name to be copied. The cache outlives every caller's tag, so it is on the global one.
// DELIBERATE: TOV_TMPDIR is not tried. Who sets it wants an error that names it, not files somewhere else. Pinned
// by process_temporary_directory.
const char* tmpdirName(MemResult* result)
{
    const char* wanted = getenv("TOV_TMPDIR");
    return wanted ? wanted : eko_osTmpdir(EKO_GLOBAL_TAG, result);
}

} // namespace

char* tryTmpdir(EKO_MEMTAG tag, MemResult* result)
{
    const char* name = tmpdirName(result);
    return name ? tryStrdup(name, tag, result) : nullptr;
}

const char* eko_tmpdir(EKO_MEMTAG tag)
{
    MemResult result;
    const char* name = tmpdirName(&result);
    if (!name) {
        memReportIf(result, __FILE__, __LINE__);
        return nullptr;
    }
    char* copy = tryStrdup(name, tag, &result);
    if (!copy)
        memFail(result, tag, __FILE__, __LINE__);
    return copy;
}

const char* eko_findOStmpdir(EKO_MEMTAG tag)
{
    MemResult probing = MemResult::done;
    MemResult result;
    char* dir = tryFindOStmpdir(tag, &probing, &result);
    memReportIf(probing, __FILE__, __LINE__);
    if (!dir)
        memFail(result, tag, __FILE__, __LINE__);
    return dir;
}

int32 eko_dirWritable(const char* dir)
{
    if (!dir)
        return 0;
    MemResult result;
    const bool writable = tryDirWritable(dir, &result);
    memReportIf(result, __FILE__, __LINE__);
    return writable ? 1 : 0;
}

// ---- commands ---------------------------------------------------------------------------------------------

namespace {

// The path, a blank, and the formatted arguments.
char* tryCommand(const char* filepath, const char* fmt, va_list args, MemResult* result)
{
    va_list firstPass;
    va_copy(firstPass, args);
    const int32 length = eko_vsnprintf(nullptr, 0, fmt, firstPass);
    va_end(firstPass);
    const size_t pathLength = strlen(filepath);
    size_t size;
    *result = MemResult::refused;
    if (length < 0 || !addSize(pathLength + 1, static_cast<size_t>(length) + 1, &size))
        return nullptr;
    char* command = static_cast<char*>(tryGetMem(size, EKO_THREAD_TAG, EKO_MEM_PLAIN, nullptr, result));
    if (!command)
        return nullptr;
    memcpy(command, filepath, pathLength);
    command[pathLength] = ' ';
    eko_vsnprintf(command + pathLength + 1, size - pathLength - 1, fmt, args);
    return command;
}

} // namespace

int32 eko_execfile(const char* filepath, int32* fcnretp, const char* fmt, ...)
{
    if (!filepath)
        return EKO_BAD_ARGUMENT;
    MemResult result;
    va_list args;
    va_start(args, fmt);
    char* command = tryCommand(filepath, fmt ? fmt : "", args, &result);
    va_end(args);
    if (!command) {
        memReportIf(result, __FILE__, __LINE__);
        return EKO_NO_MEMORY;
    }
    const int32 status = eko_system(command);
    EKO_FREE(command, EKO_THREAD_TAG);
    if (status == -1)
        return EKO_FAILED;
    if (fcnretp)
        *fcnretp = status;
    return EKO_OK;
}

int32 eko_system(const char* command)
{
    return system(command); // NOLINT(cert-env33-c): running the shell is what it is for
}
