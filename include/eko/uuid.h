/* SPDX-License-Identifier: MIT */
/* uuid.h - UUIDs: making random ones (version 4), and their text.
 *
 * All calls may come from any thread, but not from a signal handler. None leaves by longjmp. */
#ifndef EKO_UUID_H
#define EKO_UUID_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** A UUID in its standard binary form: these 16 bytes, in this order and without gaps, are what RFC 4122
 *  describes, on every platform. Compare, hash and store them as bytes. */
typedef struct UUID_VAL {
    uint32 time_low;                   /**< big-endian, as the next two: swap it to get the number */
    uint16 time_mid;                   /**< big-endian */
    uint16 time_high_and_version;      /**< big-endian; the version in its top 4 bits */
    uint8 clock_seq_high_and_reserved; /**< the variant in its top bits */
    uint8 clock_seq_low;               /**< random, as the rest */
    uint8 node[6];                     /**< random in what uuid_create makes */
} UUID_VAL;
/** Another name of it. */
typedef UUID_VAL eko_uuid_t;

/** Bytes for a text with its terminator, without and with braces. */
#define EKO_UUID_TEXT 37
#define EKO_UUID_TEXT_BRACES 39

/** Makes a new random UUID: 122 bits of a generator that the threads of the process share.
 *  uuid  is left alone when the generator cannot be made, as without memory or before eko_init: set it to
 *        something recognisable first where that matters. Null does nothing.
 *  The generator begins with a seed of 32 bits, taken at the first call from the identifiers of process and thread
 *  and the time in seconds. For another one, after a restart of the library, or in a child forked after eko_init,
 *  microseconds count too. Two processes with the same seed make the same UUIDs. A thread's identifier is an
 *  address: where addresses are random, some thousands of 64-bit programs will hardly have a seed in common; of
 *  32-bit programs, where few bits of an address are random, some hundreds can; and so can a few that were forked
 *  from one another and each called eko_init only then. Let one process make the UUIDs of all where that matters.
 *  They are no secrets: who knows one can work out the others. random.h says what holds for a fork while other
 *  threads run. */
EKO_API void uuid_create(UUID_VAL* uuid);

/** Writes a UUID as text, with small letters: "6ba7b810-9dad-11d1-80b4-00c04fd430c8".
 *  braces  not 0 puts the text in "{" and "}".
 *  len     bytes of str. 37 are enough, 39 with braces.
 *  Returns 0; 1014 when len is too small: the text is then cut to len - 1 bytes and terminated, and with a len of
 *  0 nothing is stored; 1013 for a null uuid or str. Works without eko_init. */
EKO_API int32 uuid_toString(const eko_uuid_t* uuid, char* str, size_t len, int32 braces);

/** Reads the text of a UUID: 8, 4, 4, 4 and 12 hexadecimal digits, small or capital, with "-" between the groups.
 *  The whole may be in braces, with spaces around them; within, or without braces, spaces and tabs may stand around
 *  each group. No line end, and nothing else. Any digits are taken, whatever version and variant they say.
 *  uuid  stored on 0 only.
 *  Returns 0; 1012 when it is no such text; 1003 when memory for a copy of it runs out or the library is not
 *  started; 1013 for a null str or uuid. */
EKO_API int32 uuid_fromString(const char* str, eko_uuid_t* uuid);

EKO_EXTERN_C_END

#endif
