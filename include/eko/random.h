/* SPDX-License-Identifier: MIT */
/* random.h - random numbers: the Mersenne Twister MT19937.
 *
 * A generator gives the sequence of 32-bit outputs that every MT19937 gives for its seed. They are evenly spread
 * and come again only after 2^19937 - 1, but are no secret: who has seen 624 in a row knows all that follow, and
 * who knows when a seed was taken from the clock has few to try. Nothing that protects anything is to be made of
 * them.
 *
 *      EKO_RAND rand = eko_randCreate((uint32)eko_seed());
 *      double share = eko_randGetDouble(rand);
 *      uint32 die = 1 + (uint32)(eko_randGetDouble(rand) * 6);
 *      eko_randDestroy(rand);
 *
 * Generators made within a second get the same seed from the clock: one per thread is seeded with an output of one
 * that they share.
 *
 * Threads  One generator may serve all threads: each output goes to one of them. A call that takes two may get two
 *          that do not follow each other. No call but eko_seed from a signal handler. After a fork the child goes
 *          on in the sequence where its parent does: seed it again. A thread of the parent that was drawing at
 *          that moment leaves the child's generator locked.
 * Handles  are valid until eko_randDestroy or the last eko_term. They are not checked, and must not be null, but
 *          where it says so. No call leaves by longjmp. */
#ifndef EKO_RANDOM_H
#define EKO_RANDOM_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** A generator; null is none. */
typedef const void* EKO_RAND;

/** Creates a generator, on the library's memory.
 *  seed  chooses the sequence; 0 stands for 0x8DF1337C.
 *  Returns null when memory or its mutex cannot be had, or the library is not started. */
EKO_API EKO_RAND eko_randCreate(uint32 seed);

/** Destroys a generator, which no thread may be using. Null is ignored, and any once the library has stopped. */
EKO_API void eko_randDestroy(EKO_RAND rand);

/** Begins the sequence of a seed at its first output, for all threads. Surprise: here 0 is a seed as any other. */
EKO_API void eko_randResetSeed(EKO_RAND rand, uint32 seed);

/** The next output without its top bit: 0 to 2147483647. */
EKO_API int32 eko_randGet(EKO_RAND rand);
/** The next output: 0 to 4294967295. */
EKO_API uint32 eko_randGetUInt32(EKO_RAND rand);
/** The next two outputs, the first in the upper half. */
EKO_API uint64 eko_randGetUInt64(EKO_RAND rand);
/** The next output divided by 2^32: 0 or more, and below 1. Only the first 32 bits of the fraction are random. */
EKO_API double eko_randGetDouble(EKO_RAND rand);

/** The present time in seconds, its low 32 bits, for a seed that is another one each time; the same one within a
 *  second. Usable before eko_init. */
EKO_API int32 eko_seed(void);

EKO_EXTERN_C_END

#endif
