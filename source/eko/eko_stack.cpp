// SPDX-License-Identifier: MIT
// Redirection stacks: where standard output, standard error and the log go, and the console calls that write there.
//
// Data    A stack's entries share an EKO_FILE_INFO when they have the same name, whatever its case, so that a file
//         pushed twice is one open stream. All records are on the stack's tag, a stack allocator: they are freed
//         with it.
// Locks   Each stack has a mutex, held for pushing, popping, printing and flushing. No two are ever held together.

#include <stdio.h>
#include <string.h>

#include "ekotext_int.h"

EKO_FILE_STACK eko_stdout_stack = {EKO_SEM_INVALID, EKO_TAG_INVALID, nullptr};
EKO_FILE_STACK eko_stderr_stack = {EKO_SEM_INVALID, EKO_TAG_INVALID, nullptr};
EKO_FILE_STACK eko_log_stack = {EKO_SEM_INVALID, EKO_TAG_INVALID, nullptr};

namespace {

constexpr int16 NOT_SHARED = 0; // the stack's mutex serialises its tag

// Whether an entry of that name (null for none) would be this one's. DELIBERATE: case does not count, although it
// does on disk; a log that two configurations spell differently is one file. Pinned by stack_names_share_a_stream.
bool sameName(const char* a, const char* b)
{
    return a && b ? strcasecmp(a, b) == 0 : a == b;
}

EKO_FILE_INFO* eko_fileStackSearch(const EKO_FILE_STACK* stack, const char* name)
{
    for (EKO_FILE_ENTRY* entry = stack->root; entry; entry = entry->next) {
        if (sameName(entry->info->name, name))
            return entry->info;
    }
    return nullptr;
}

int32 openInfo(EKO_FILE_STACK* stack, EKO_FILE_INFO* info, const char* name)
{
    info->name = tryStrdup(name, stack->tag);
    if (!info->name)
        return EKO_NO_MEMORY;
    int32 status;
    info->file = tryOpenStream(name, "w", EKO_FILE_MODE_UTF8, 0, &status);
    return status;
}

void freeInfo(EKO_FILE_STACK* stack, EKO_FILE_INFO* info)
{
    EKO_FREE(info->name, stack->tag);
    eko_fclose(info->file);
    EKO_FREE(info, stack->tag);
}

// The info of that name: the one already open, or a new one, counted by nobody yet.
int32 eko_getFileInfo(EKO_FILE_STACK* stack, const char* name, EKO_FILE_INFO** info)
{
    *info = eko_fileStackSearch(stack, name);
    if (*info)
        return EKO_OK;
    EKO_FILE_INFO* made = tryZeroed<EKO_FILE_INFO>(stack->tag);
    if (!made)
        return EKO_NO_MEMORY;
    const int32 status = name ? openInfo(stack, made, name) : EKO_OK;
    if (status != EKO_OK)
        freeInfo(stack, made);
    else
        *info = made;
    return status;
}

int32 pushEntry(EKO_FILE_STACK* stack, const char* name)
{
    EKO_FILE_ENTRY* entry = tryZeroed<EKO_FILE_ENTRY>(stack->tag);
    if (!entry)
        return EKO_NO_MEMORY;
    const int32 status = eko_getFileInfo(stack, name, &entry->info);
    if (status != EKO_OK) {
        EKO_FREE(entry, stack->tag);
        return status;
    }
    ++entry->info->count;
    entry->next = stack->root;
    stack->root = entry;
    return EKO_OK;
}

int32 printTo(EKO_FILE_STACK& stack, const char* format, va_list args)
{
    MemResult result = MemResult::done;
    int32 count = 0;
    {
        const StackGuard lock(stack);
        const EKO_FILE_STREAM file = topFile(&stack);
        if (file)
            count = tryVprintf(file, format, args, &result);
    }
    if (result == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    return count;
}

void flushTop(EKO_FILE_STACK& stack, FILE* standard)
{
    const StackGuard lock(stack);
    const EKO_FILE_STREAM file = topFile(&stack);
    if (file)
        eko_fflush(file);
    else
        fflush(standard);
}

} // namespace

// ---- stacks -----------------------------------------------------------------------------------------------

void eko_fileStackLock(EKO_FILE_STACK* stack)
{
    if (stack->sem != EKO_SEM_INVALID)
        eko_syncEnterExcl(stack->sem);
}

void eko_fileStackRelease(EKO_FILE_STACK* stack)
{
    if (stack->sem != EKO_SEM_INVALID)
        eko_syncExitExcl(stack->sem);
}

EKO_FILE_STREAM topFile(const EKO_FILE_STACK* stack)
{
    return stack->root ? stack->root->info->file : nullptr;
}

// A failed start of the library prints nothing, so nothing is reported here. Nobody else knows the stack yet, and
// the first one's file creates the file module's record: the stack's mutex is not held over that, the registry's
// comes first.
int32 eko_fileStackInit(EKO_FILE_STACK* stack, const char* initname)
{
    stack->root = nullptr;
    stack->tag = tryCreateTag(nullptr, NOT_SHARED, STACK_ALLOCATOR, nullptr, nullptr);
    stack->sem = EKO_MUTEX_CREATE();
    int32 status = stack->tag != EKO_TAG_INVALID && stack->sem != EKO_SEM_INVALID ? EKO_OK : EKO_FAILED;
    if (status == EKO_OK && initname)
        status = pushEntry(stack, initname);
    if (status != EKO_OK)
        eko_fileStackTerm(stack);
    return status;
}

void eko_fileStackTerm(EKO_FILE_STACK* stack)
{
    while (stack->root)
        eko_fileStackClose(stack);
    eko_syncDelete(stack->sem);
    stack->sem = EKO_SEM_INVALID;
    EKO_TAG_DESTROY(stack->tag);
    stack->tag = EKO_TAG_INVALID;
}

int32 eko_fileStackOpen(EKO_FILE_STACK* stack, const char* name)
{
    if (stack->tag == EKO_TAG_INVALID)
        return EKO_FAILED;
    int32 status;
    {
        const StackGuard lock(*stack);
        status = pushEntry(stack, name && *name ? name : nullptr);
    }
    if (status == EKO_NO_MEMORY)
        memReport(__FILE__, __LINE__);
    return status;
}

void eko_fileStackClose(EKO_FILE_STACK* stack)
{
    const StackGuard lock(*stack);
    EKO_FILE_ENTRY* entry = stack->root;
    if (!entry)
        return;
    stack->root = entry->next;
    if (--entry->info->count == 0)
        freeInfo(stack, entry->info);
    EKO_FREE(entry, stack->tag);
}

// ---- console ----------------------------------------------------------------------------------------------

int32 eko_printfV(const char* format, va_list args)
{
    return printTo(eko_stdout_stack, format, args);
}

int32 eko_printfErrV(const char* format, va_list args)
{
    return printTo(eko_stderr_stack, format, args);
}

int32 eko_printf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32 count = eko_printfV(format, args);
    va_end(args);
    return count;
}

int32 eko_printfErr(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32 count = eko_printfErrV(format, args);
    va_end(args);
    return count;
}

void eko_flush(void)
{
    flushTop(eko_stdout_stack, stdout);
}

void eko_flushErr(void)
{
    flushTop(eko_stderr_stack, stderr);
}
