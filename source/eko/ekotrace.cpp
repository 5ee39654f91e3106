// SPDX-License-Identifier: MIT
// Trace: lines stamped with their thread, kept in a ring in memory or written to a file.
//
// Data      The module's record holds the ring and the stream of the trace file. The ring's 1000 slots are stored
//           twice, so that from each of them 1000 lines can be read without wrapping:
//
//               trace_array   | 0 ... p  p+1 ... 999 | 1000 ... 1000+p ... 1999 |
//                                     ^ eko_trace_list
//
//           From there on: the newest line, one that is freed already, and the others from the oldest on.
// Locks     trace_sem serialises all tracing: it guards the record, is the lock of the lines' tag, and is held
//           while a file is opened, written and flushed. The mutexes of the file module and of tags come behind it,
//           the registry's comes before it.
// Failures  The line is lost. What there is to report is reported when trace_sem is left, except what the file
//           module says itself when the disk does not take the bytes: the locks of the log come behind, too.
// Unlocked  eko_trace_list, for whoever looks at a stopped process.

#include "ekoprocess_int.h"
#include "ekotext_int.h"

EKO_TRACE_LIST* eko_trace_list;

namespace {

constexpr uint32 TRACE_LINES = sizeof(EKO_TRACE_LIST) / sizeof(const char*);
constexpr int16 NOT_SHARED = 0;
constexpr char DIRSEP = '/';

enum EKO_TRACE_DEST : int32 { EKO_TRACE_MEMORY = 0, EKO_TRACE_FILE = 1 };

struct EKO_TRACE_GLOBALS {
    EKO_SEM trace_sem;    // guards the fields below
    EKO_MEMTAG trace_tag; // of the lines
    const char* trace_array[2 * TRACE_LINES];
    uint32 trace_pos;         // the slot of the next line, below TRACE_LINES
    EKO_FILE_STREAM trace_fh; // null until a trace file could be opened
};

// What is to be reported about a trace.
struct Outcome {
    MemResult memory;
    char* opened; // name of the trace file that it has begun, on the thread's tag; else null
};

// ---- the module's record ----------------------------------------------------------------------------------

void showListFrom(const char** slot)
{
    publish(eko_trace_list, static_cast<EKO_TRACE_LIST*>(static_cast<void*>(slot)));
}

int32 eko_traceInit(void* data)
{
    auto* globals = static_cast<EKO_TRACE_GLOBALS*>(data);
    *globals = {};
    globals->trace_sem = EKO_MUTEX_CREATE();
    if (globals->trace_sem == EKO_SEM_INVALID)
        return EKO_NO_MEMORY;
    globals->trace_tag = tryCreateTag(nullptr, NOT_SHARED, BLOCK_ALLOCATOR, nullptr, nullptr);
    if (globals->trace_tag == EKO_TAG_INVALID) {
        eko_syncDelete(globals->trace_sem);
        globals->trace_sem = EKO_SEM_INVALID;
        return EKO_NO_MEMORY;
    }
    showListFrom(globals->trace_array);
    return EKO_OK;
}

// The file module's record is still there: records are deleted in descending order of their names.
void eko_traceTerm(void* data)
{
    auto* globals = static_cast<EKO_TRACE_GLOBALS*>(data);
    showListFrom(nullptr);
    eko_fclose(globals->trace_fh);
    EKO_TAG_DESTROY(globals->trace_tag);
    eko_syncDelete(globals->trace_sem);
    *globals = {};
    globals->trace_sem = EKO_SEM_INVALID;
}

GlobalSlot traceSlot = {"ekotrace", sizeof(EKO_TRACE_GLOBALS), eko_traceInit, eko_traceTerm, nullptr, nullptr};

EKO_TRACE_GLOBALS* eko_traceGlobals()
{
    return static_cast<EKO_TRACE_GLOBALS*>(globalRecord(traceSlot));
}

// ---- into memory ------------------------------------------------------------------------------------------

// DELIBERATE: in a full ring the line that is freed is not the one that gives way but the next slot's, which points
// to it until the next trace overwrites it. Debugger scripts know that entry, 1 of the list, and rely on the
// others. A slot set to null instead would be taken for one not yet used when its turn comes, and nothing would be
// freed then. The first line of all is left to the tag. Pinned by trace_ring_frees_the_next_slot.
void trace_memory(EKO_TRACE_GLOBALS* globals, const char* line)
{
    const uint32 slot = globals->trace_pos;
    globals->trace_pos = (slot + 1) % TRACE_LINES;
    if (globals->trace_array[slot])
        EKO_FREE(globals->trace_array[globals->trace_pos], globals->trace_tag);
    globals->trace_array[slot] = line;
    globals->trace_array[slot + TRACE_LINES] = line;
    showListFrom(globals->trace_array + slot);
}

// ---- into the file ----------------------------------------------------------------------------------------

// The trace file's name on the thread's tag, or null without memory.
char* tryTraceName(MemResult* result)
{
    char* dir = tryFindOStmpdir(EKO_THREAD_TAG, result, result);
    if (!dir && *result == MemResult::exhausted)
        return nullptr;
    char* name = tryMakeStr(result, EKO_THREAD_TAG, "%s%ctov_trace_%u.log", dir ? dir : ".", DIRSEP, eko_get_pid());
    EKO_FREE(dir, EKO_THREAD_TAG);
    return name;
}

// Leaves trace_fh null when the file cannot be opened.
void create_trace_file(EKO_TRACE_GLOBALS* globals, Outcome* outcome)
{
    char* name = tryTraceName(&outcome->memory);
    if (!name)
        return;
    int32 status;
    globals->trace_fh = tryOpenStream(name, "w", EKO_FILE_MODE_UTF8, 0, &status);
    if (status == EKO_OK) {
        outcome->opened = name;
        return;
    }
    if (status == EKO_NO_MEMORY)
        outcome->memory = MemResult::exhausted;
    EKO_FREE(name, EKO_THREAD_TAG);
}

// The line goes out as "%s" would print it, but for the stream's buffer, which would want memory. Whether the flush
// worked is nobody's business: the next line tries to write what is pending.
void trace_file(EKO_TRACE_GLOBALS* globals, const char* line, Outcome* outcome)
{
    if (!globals->trace_fh)
        create_trace_file(globals, outcome);
    if (globals->trace_fh) {
        eko_fputs(line, globals->trace_fh);
        eko_fflush(globals->trace_fh);
    }
    EKO_FREE(line, globals->trace_tag);
}

// ---- a trace ----------------------------------------------------------------------------------------------

// The caller's format behind the thread's identifier, in which no directive can be, on the thread's tag.
char* tryStamped(const char* format, MemResult* result)
{
    void* const thread = reinterpret_cast<void*>(static_cast<uintptr_t>(eko_threadId()));
    return tryMakeStr(result, EKO_THREAD_TAG, "%p: %s", thread, format);
}

void trace_trace(EKO_TRACE_GLOBALS* globals, const char* format, va_list args, EKO_TRACE_DEST dest,
                 Outcome* outcome)
{
    const SemGuard lock(globals->trace_sem);
    const char* line = tryMakeStrV(&outcome->memory, globals->trace_tag, format, args);
    if (!line)
        return;
    if (dest == EKO_TRACE_FILE)
        trace_file(globals, line, outcome);
    else
        trace_memory(globals, line);
}

void report(const Outcome& outcome)
{
    memReportIf(outcome.memory, __FILE__, __LINE__);
    if (outcome.opened)
        eko_log("Tracing into file '%s'\n", outcome.opened);
    EKO_FREE(outcome.opened, EKO_THREAD_TAG);
}

void eko_traceV(const char* format, va_list args, EKO_TRACE_DEST dest)
{
    const ErrnoGuard keepErrno; // a trace between a failed call and the look at its errno is a likely one
    EKO_TRACE_GLOBALS* globals = eko_traceGlobals();
    if (!globals || !format || (dest == EKO_TRACE_FILE && !fileRecordExists()))
        return;
    Outcome outcome = {MemResult::done, nullptr};
    char* stamped = tryStamped(format, &outcome.memory);
    if (stamped)
        trace_trace(globals, stamped, args, dest, &outcome);
    EKO_FREE(stamped, EKO_THREAD_TAG);
    report(outcome);
}

} // namespace

void eko_trace(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    eko_traceV(format, args, EKO_TRACE_MEMORY);
    va_end(args);
}

void eko_traceFile(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    eko_traceV(format, args, EKO_TRACE_FILE);
    va_end(args);
}
