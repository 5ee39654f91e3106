/* buffstream.h - the byte order of values. */
#ifndef EKO_BUFFSTREAM_H
#define EKO_BUFFSTREAM_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/* ---- byte order ------------------------------------------------------------------------------------------ */

/** Each returns its argument with its 2, 4 or 8 bytes in reverse order. Usable at any time, from any thread. */
EKO_API uint16 eko_swaporder16(uint16 value);
EKO_API uint32 eko_swaporder32(uint32 value);
EKO_API uint64 eko_swaporder64(uint64 value);

/** The same for the bytes of an IEEE 754 number. The result is a pattern of bytes, not a number to calculate with.
 *  Surprise: on 32-bit x86 it comes back through a register that alters patterns which look like a signalling NaN,
 *  by one bit, so that swapping twice does not give the argument again; the caller's own handling of the value can
 *  do the same. Where every pattern counts, swap an integer that holds the bytes. On x86-64 they are exact. */
EKO_API float eko_swaporderf32(float value);
EKO_API double eko_swaporderf64(double value);

EKO_EXTERN_C_END

#endif
