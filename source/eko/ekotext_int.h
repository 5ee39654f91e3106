// SPDX-License-Identifier: MIT
// ekotext_int.h - inside the text modules: the stream record, and the stacks that redirect the console and the log.
#ifndef EKO_EKOTEXT_INT_H
#define EKO_EKOTEXT_INT_H

#include "ekofile_int.h"

// ---- streams (eko_stream.cpp) -----------------------------------------------------------------------------

constexpr uint32 CACHE_BYTES = 1024;
constexpr uint32 PUSHBACK_VALUES = 20;

struct EKO_FILE_CACHE_CTX {
    EKO_FILE_OFFSET buff_off; // file offset of the first byte in buff
    EKO_FILE_OFFSET off;      // the stream's logical position
    EKO_FILE_OFFSET size;     // length of the file at open, 0 for standard streams; raised by writes past it
    EKO_FH fh;
    uint32 bytes;    // valid bytes in buff when reading
    uint32 modified; // buff holds bytes not yet written: those from buff_off to off
    uint8 buff[CACHE_BYTES];
    uint32 plain; // so many bytes at the start of buff are known not to be 0xFF
};

// The bytes of a character from a UTF-16 file that are still to be read, last one first.
struct DecodedBytes {
    int32 values[3];
    uint32 count;
};

struct EKO_FILE_CTX {
    EKO_FILE_CACHE_CTX* fh;
    EKO_FILE_MODE fmode;
    uint8 swap;     // units of a UTF-16 file are byte-swapped; no open sets it
    uint32 bom_off; // length of the byte-order mark
    int32 pbstack[PUSHBACK_VALUES];
    uint32 pboff;
    DecodedBytes decoded; // read after what was pushed back
    char* buf;            // for formatting, on first use
    size_t bufsize;
    uint32 val; // writing UTF-16: the code point so far, and the UTF-8 bytes it still wants
    uint8 bytesleft;
};

// As the exported calls, without a report when memory runs out: `status` and `result` say so.
EKO_FILE_STREAM tryOpenStream(const char* name, const char* mode, EKO_FILE_MODE fmode, uint16 xflags,
                              int32* status);
char* tryGetLine(EKO_FILE_STREAM fh, char** buf, uint32* len, EKO_MEMTAG tag, MemResult* result);
int32 tryVprintf(EKO_FILE_STREAM stream, const char* format, va_list args, MemResult* result);

// ---- redirection stacks (eko_stack.cpp) -------------------------------------------------------------------

struct EKO_FILE_INFO {
    char* name;           // own copy; null for an entry without a file
    EKO_FILE_STREAM file; // null when name is
    uint32 count;         // entries of the stack that share it
};

struct EKO_FILE_ENTRY {
    EKO_FILE_INFO* info;
    EKO_FILE_ENTRY* next;
};

// Before start and after stop a stack has no root and no mutex: whoever writes to it skips it silently.
struct EKO_FILE_STACK {
    EKO_SEM sem;
    EKO_MEMTAG tag;
    EKO_FILE_ENTRY* root; // top
};

extern EKO_FILE_STACK eko_stdout_stack;
extern EKO_FILE_STACK eko_stderr_stack;
extern EKO_FILE_STACK eko_log_stack;

int32 eko_fileStackInit(EKO_FILE_STACK* stack, const char* initname);
void eko_fileStackTerm(EKO_FILE_STACK* stack);
int32 eko_fileStackOpen(EKO_FILE_STACK* stack, const char* name); // push
void eko_fileStackClose(EKO_FILE_STACK* stack);                   // pop
void eko_fileStackLock(EKO_FILE_STACK* stack);
void eko_fileStackRelease(EKO_FILE_STACK* stack);

// The file on top, or null. With the stack's mutex held.
EKO_FILE_STREAM topFile(const EKO_FILE_STACK* stack);

// Holds a stack's mutex, if it has one.
class StackGuard {
public:
    explicit StackGuard(EKO_FILE_STACK& stack) : stack_(stack) { eko_fileStackLock(&stack_); }
    ~StackGuard() { eko_fileStackRelease(&stack_); }
    StackGuard(const StackGuard&) = delete;
    StackGuard& operator=(const StackGuard&) = delete;

private:
    EKO_FILE_STACK& stack_;
};

#endif
