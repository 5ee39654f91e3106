// SPDX-License-Identifier: MIT
// Services of the process by the operating system: interrupts, environment, locale, errors; services as such, which
// this platform does not have.
//
// Unlocked  the interrupt function and whether it runs, read by the signal handler; environment and locale, which
//           are the caller's to guard.

#include <errno.h>
#include <locale.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ekoprocess_int.h"

uint32 eko_get_pid(void)
{
    return static_cast<uint32>(getpid());
}

int32 eko_errno(void)
{
    return errno;
}

void eko_errPrint(const char* msg)
{
    if (msg)
        puts(msg);
}

// ---- interrupts -------------------------------------------------------------------------------------------

namespace {

INTERRUPT_FCN* interrupt_fcn;
bool interruptRunning; // from the handler's first step on: an interrupt in front of "ignore" is dropped too

void installInterruptHandler(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    // SA_NODEFER: a signal that is blocked while its handler runs is kept and delivered afterwards, although it is
    // ignored in between.
    action.sa_flags = SA_NODEFER | SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
}

// Keeps errno by hand: no guard may be alive across the caller's function.
void onInterrupt(int)
{
    if (__atomic_exchange_n(&interruptRunning, true, __ATOMIC_ACQ_REL))
        return;
    const int keptErrno = errno;
    installInterruptHandler(SIG_IGN);
    INTERRUPT_FCN* fcn = readPublished(interrupt_fcn);
    if (fcn)
        fcn();
    installInterruptHandler(SIG_IGN); // again: drops one that waits, should something have blocked it
    installInterruptHandler(onInterrupt);
    publish(interruptRunning, false);
    errno = keptErrno;
}

} // namespace

int32 eko_handleInterrupt(INTERRUPT_FCN* fcn)
{
    publish(interrupt_fcn, fcn);
    publish(interruptRunning, false); // should an earlier function not have returned
    installInterruptHandler(fcn ? onInterrupt : SIG_IGN);
    return EKO_OK;
}

// ---- environment, locale ----------------------------------------------------------------------------------

namespace {

// The wide form of a call that takes a string and gives one. `narrowCall` gets null for null.
template <class Call> wchar_t* callWide(const wchar_t* argument, Call narrowCall)
{
    MemResult result = MemResult::done;
    char* narrow = argument ? tryConvToUTF8(argument, EKO_UTF8_FAIL, EKO_THREAD_TAG, &result) : nullptr;
    if (argument && !narrow) {
        memReportIf(result, __FILE__, __LINE__);
        return nullptr;
    }
    const char* value = narrowCall(narrow);
    wchar_t* wide = value ? tryConvToWchar(value, EKO_UTF8_FAIL, EKO_THREAD_TAG, &result) : nullptr;
    EKO_FREE(narrow, EKO_THREAD_TAG);
    if (!wide)
        memFail(result, EKO_THREAD_TAG, __FILE__, __LINE__);
    return wide;
}

} // namespace

const char* eko_getenv(const char* var)
{
    return var ? getenv(var) : nullptr;
}

wchar_t* eko_getenvW(const wchar_t* var)
{
    return callWide(var, eko_getenv);
}

const char* eko_setlocale(int category, const char* locale)
{
    return setlocale(category, locale);
}

wchar_t* eko_setlocaleW(int category, const wchar_t* locale)
{
    return callWide(locale, [category](const char* narrow) { return eko_setlocale(category, narrow); });
}

// ---- error texts ------------------------------------------------------------------------------------------

namespace {

// The C library has two calls of that name, and chooses by its macros. This is the one that returns the text, which
// need not be in the buffer; with the other one this does not compile.
char* (*const systemText)(int err, char* buff, size_t len) = strerror_r;

} // namespace

// DELIBERATE: what the system has put into the buffer is not measured, and the answer is 0. Pinned by
// strutil_words_and_error_texts.
int32 eko_strerr(int32 err, char* buff, size_t len)
{
    if (!buff)
        return EKO_FAILED;
    if (len < 2)
        return EKO_TOO_SMALL;
    const char* text = systemText(err, buff, len);
    if (text == buff)
        return EKO_OK;
    const size_t length = strlen(text);
    eko_strncpyZ(buff, text, len);
    return length < len ? EKO_OK : EKO_TOO_SMALL;
}

// ---- services ---------------------------------------------------------------------------------------------

int32 eko_serviceStart(const char* /*name*/, uint16* /*done*/, int32 argc, const char** argv,
                       int32 (*fcn)(int32 argc, const char** argv))
{
    return fcn ? fcn(argc, argv) : EKO_BAD_ARGUMENT;
}

void eko_serviceStarted(void) {}

void eko_serviceDone(void) {}

// DELIBERATE: no success that installs nothing. Pinned by process_commands_interrupts_environment.
int32 eko_serviceInstall(const char* /*name*/, const char* /*exename*/, const char* /*title*/, const char* /*desc*/,
                         const char* /*path*/, const char* /*opts*/, const char* /*userAccount*/,
                         const char* /*userPassword*/)
{
    return EKO_FAILED;
}

int32 eko_serviceUninstall(const char* /*name*/, const char* /*exename*/)
{
    return EKO_FAILED;
}
