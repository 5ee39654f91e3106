// SPDX-License-Identifier: MIT
// ekoint.h - what every module of the library shares: status names, assertions, atomic access to plain
// variables, guards, and the numeric helpers of the formatter.
#ifndef EKO_EKOINT_H
#define EKO_EKOINT_H

#include "eko.h"

// ---- statuses ---------------------------------------------------------------------------------------------
// The interface has numbers only; inside they have names.

constexpr int32 EKO_OK = 0;
constexpr int32 EKO_TIMED_OUT = 1001;
constexpr int32 EKO_FAILED = 1002;
constexpr int32 EKO_NO_MEMORY = 1003;
constexpr int32 EKO_MALFORMED = 1012;
constexpr int32 EKO_BAD_ARGUMENT = 1013;
constexpr int32 EKO_TOO_SMALL = 1014;

// ---- assertions -------------------------------------------------------------------------------------------

// Prints the expression's text on standard error and aborts. Active in every build: the code behind an
// assertion relies on it. A claim is ours to keep; a caller's mistake gets a status instead.
#define EKO_ASSERT(expr) ((expr) ? (void)0 : eko_assertFailed(#expr, __FILE__, __LINE__))

[[noreturn]] void eko_assertFailed(const char* expr, const char* file, int line);

// ---- deliberate unlocked access ---------------------------------------------------------------------------
// Some variables are plain in the interface or in a record and read without a lock on purpose. These mark each
// such access and make it one atomic instruction.

template <class T> inline T readUnlocked(const T& v)
{
    return __atomic_load_n(&v, __ATOMIC_RELAXED);
}
template <class T> inline void writeUnlocked(T& v, T value)
{
    __atomic_store_n(&v, value, __ATOMIC_RELAXED);
}
// The same where other data is published through the variable.
template <class T> inline T readPublished(const T& v)
{
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}
template <class T> inline void publish(T& v, T value)
{
    __atomic_store_n(&v, value, __ATOMIC_RELEASE);
}

// ---- text without regard to letter case -------------------------------------------------------------------
// Names of files, sections and entries are compared so. Only ASCII letters are folded, whatever the locale: order and
// equality must not change while names are kept sorted by them.

inline char upperAscii(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Below, equal to or above 0, as strcmp, by unsigned bytes.
int32 compareNoCase(const char* a, const char* b);
inline bool equalNoCase(const char* a, const char* b)
{
    return compareNoCase(a, b) == 0;
}

// ---- guards -----------------------------------------------------------------------------------------------
// None may be alive across a call that can longjmp, end the thread or call back into the caller.

// Holds a mutex of the semaphore table, if there is one.
class SemGuard {
public:
    explicit SemGuard(EKO_SEM sem) : sem_(sem)
    {
        if (sem_ != EKO_SEM_INVALID)
            eko_syncEnterExcl(sem_);
    }
    ~SemGuard()
    {
        if (sem_ != EKO_SEM_INVALID)
            eko_syncExitExcl(sem_);
    }
    SemGuard(const SemGuard&) = delete;
    SemGuard& operator=(const SemGuard&) = delete;

private:
    EKO_SEM sem_;
};

// Holds a POSIX mutex.
class PosixGuard {
public:
    explicit PosixGuard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~PosixGuard() { pthread_mutex_unlock(&mutex_); }
    PosixGuard(const PosixGuard&) = delete;
    PosixGuard& operator=(const PosixGuard&) = delete;

private:
    pthread_mutex_t& mutex_;
};

// Keeps the thread's errno as it was.
class ErrnoGuard {
public:
    ErrnoGuard();
    ~ErrnoGuard();
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

private:
    int saved_;
};

// ---- modes ------------------------------------------------------------------------------------------------

inline bool readOnlyMode()
{
    return readUnlocked(eko_readonly) != 0;
}
inline bool disklessMode()
{
    return readUnlocked(eko_diskless) != 0;
}

// What eko_isPurifyRunning answers. Nothing sets it in this build; tests do.
[[gnu::visibility("hidden")]] extern int32 purifyRunning;
inline bool memoryCheckerRuns()
{
    return readUnlocked(purifyRunning) != 0;
}

// ---- lifecycle --------------------------------------------------------------------------------------------

int32 _eko_init();
extern uint32 startedBy; // the process that started the library; another one is a child of fork
int32 eko_osInit();
void eko_osTerm();
int32 eko_globalInit();
void eko_globalTerm();
int32 eko_syncInit();
void eko_syncShutdown();
void eko_syncTerm();

// Mutexes and events alive, for tests.
int32 syncSlotsInUse();

// Whether the thread sanitizer watches.
#if defined(__SANITIZE_THREAD__)
#define EKO_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define EKO_THREAD_SANITIZER 1
#endif
#endif
#ifndef EKO_THREAD_SANITIZER
#define EKO_THREAD_SANITIZER 0
#endif

#if EKO_THREAD_SANITIZER
// Enters a mutex that no other thread is in, or answers false.
bool syncTryEnter(EKO_SEM sem);
#endif

// The start count, read without a lock. 0 and below are "not started": a stray eko_term leaves -1.
inline int32 eko_inited_get__race_condition_ok()
{
    return readUnlocked(eko_inited);
}
inline bool libraryStarted()
{
    return eko_inited_get__race_condition_ok() > 0;
}

// ---- access to a module's globals record ------------------------------------------------------------------

// One per module that keeps state. After the first use the record is found without a lock.
struct GlobalSlot {
    const char* name;
    size_t size;
    EKO_GLOBAL_CREATE_FCN createFcn;
    EKO_GLOBAL_DELETE_FCN deleteFcn;
    void* record;     // published once the create callback succeeded; null again when the record is deleted
    GlobalSlot* next; // list of the slots that hold a record, guarded by the registry's mutex
};

// The module's record, or null when it cannot be had.
void* globalRecord(GlobalSlot& slot);

// ---- formatter (ekoint_float.h) ---------------------------------------------------------------------------

// Length modifier of a directive; shared by the narrow and the wide engine.
enum CONV {
    C_DEFAULT = 0,
    C_CHAR = 1,
    C_SHORT = 2,
    C_LONG = 3,
    C_LLONG = 4,
    C_LDOUBLE = 5,
    C_SIZE = 6,
    C_PTRDIFF = 7,
    C_INTMAX = 8
};

#endif
