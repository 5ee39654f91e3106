/* SPDX-License-Identifier: MIT */
/* align.h - rounding a number, aligning an offset in a record. The calls keep no state: they may come from any
 * thread, a signal handler included, and need no eko_init. */
#ifndef EKO_ALIGN_H
#define EKO_ALIGN_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** Rounds to an integer, halves away from zero: 2.5 to 3, -2.5 to -3.
 *  Numbers that come to 0 from below give a negative zero; infinities and NaN stay what they are.
 *  Surprises: a half is added, and the sum is rounded to a double before its fraction is cut off. So
 *  0.49999999999999994, the last number below a half, gives 1, and odd numbers between 2^52 and 2^53, integers
 *  already, move by one, away from zero. */
EKO_API double eko_round(double lfVal);

/** Types of a stored record's fields. */
typedef enum ALIGN_TYPE {
    ALN_CHAR = 0,  /**< to 1 byte */
    ALN_INT16 = 1, /**< to 2 */
    ALN_WCHAR = 2, /**< to 4, as all that follow: on every platform, for records are stored */
    ALN_INT32 = 3, /**< to 4 */
    ALN_FLOAT = 4, /**< to 4 */
    ALN_INT64 = 5, /**< to 4 */
    ALN_DOUBLE = 6 /**< to 4 */
} ALIGN_TYPE;

/** The first offset from `offset` on, in bytes, at which a field of that type may lie. Surprise: types of 8 bytes
 *  lie at multiples of 4, where C on x86-64 wants 8; copy them in and out. An offset above 65532 can come to 65536,
 *  which is returned as 0. The type is not checked: it must be one of the above. */
EKO_API uint16 eko_align(uint16 offset, ALIGN_TYPE type);

EKO_EXTERN_C_END

#endif
