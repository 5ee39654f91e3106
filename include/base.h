/* SPDX-License-Identifier: MIT */
/* base.h - the engine's integer names.
 *
 * One name per width, used throughout the library's interface. They are plain aliases of the types of
 * <stdint.h>, so a caller may use either. */
#ifndef EKO_BASE_H
#define EKO_BASE_H

#include <stddef.h>
#include <stdint.h>

/** An integer of so many bits, signed. */
typedef int8_t int8;
typedef int16_t int16;
typedef int32_t int32;
typedef int64_t int64;

/** An integer of so many bits, unsigned. */
typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef uint64_t uint64;

#endif
