/* SPDX-License-Identifier: MIT */
/* ekoplat.h - what differs between platforms: export marks, handles of the operating system, wide types.
 *
 * The platform is Linux with POSIX threads, on 32-bit and 64-bit x86. */
#ifndef EKO_PLAT_H
#define EKO_PLAT_H

#include <pthread.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>
#include <wchar.h>

#include "base.h"

/** Around declarations that C and C++ share. */
#ifdef __cplusplus
#define EKO_EXTERN_C_BEGIN extern "C" {
#define EKO_EXTERN_C_END }
#else
#define EKO_EXTERN_C_BEGIN
#define EKO_EXTERN_C_END
#endif

#if defined(__GNUC__)
/** Marks what the library exports; everything else is hidden. */
#define EKO_API __attribute__((visibility("default")))
/** Marks what does not return. */
#define EKO_NORETURN __attribute__((noreturn))
#else
#define EKO_API
#define EKO_NORETURN
#endif

/** Lets the compiler check a printf-style call over chars: `fmt` is the position of the format, `args` of the first
 *  argument after it (0 for a va_list). The checks are those of the C library's printf; where format.h departs from
 *  that, as with %ls and %Ld, they refuse what is right or let pass what is not. A program that uses such
 *  directives defines EKO_NO_FORMAT_CHECKS before it includes this. */
#if defined(__GNUC__) && !defined(EKO_NO_FORMAT_CHECKS)
#define EKO_PRINTF_CHECK(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define EKO_PRINTF_CHECK(fmt, args)
#endif

/** Seconds since 1970-01-01 00:00 UTC, signed, 64 bits on every platform. */
typedef int64 time64_t;

/** A descriptor of the operating system, carried in a pointer. Descriptor 0 is valid and looks like a null
 *  pointer: compare with EKO_FDESC_NONE, never with null. */
typedef const void* EKO_FDESC;
#define EKO_FDESC_NONE ((EKO_FDESC)(intptr_t)-1)

/** A running walk over a directory, from eko_pathOpen and its like; null is none. */
typedef const void* EKO_DIR;

#endif
