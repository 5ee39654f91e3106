/* SPDX-License-Identifier: MIT */
/* utf8.h - conversion between wide strings and UTF-8.
 *
 * A wide character is a wchar_t of 4 bytes holding one code point. UTF-8 is as in RFC 3629: overlong forms,
 * surrogates (D800..DFFF), values above 10FFFF and sequences cut short are invalid, in both directions.
 * What happens to invalid input is the caller's choice, `errorBehavior`:
 *   EKO_UTF8_FAIL     the call fails;
 *   EKO_UTF8_REPLACE  each maximal ill-formed subpart, or each invalid wide character, becomes U+FFFD;
 *   EKO_UTF8_DROP     it is left out.
 * Any other value acts as EKO_UTF8_FAIL. All calls may come from any thread; those that allocate may leave by
 * longjmp when the tag has a jump buffer. */
#ifndef EKO_UTF8_H
#define EKO_UTF8_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/** What happens to invalid input: see above. */
#define EKO_UTF8_FAIL 0
#define EKO_UTF8_REPLACE 1
#define EKO_UTF8_DROP 2

/** Result codes of eko_utf8_codes. */
typedef enum EKO_UTF8_RESULT {
    UTF8_OKAY = 0,          /**< converted */
    UTF8_OUTOFSPACE = 1,    /**< the result does not fit; the calls below say so by EKO_UTF8_FAILED */
    UTF8_INVALID = 2,       /**< not a code point, or not UTF-8 */
    UTF8_NEED_SURROGATE = 3 /**< half of a surrogate pair, which alone is no character */
} EKO_UTF8_RESULT;

/** Returned by the calls into a buffer when they fail. */
#define EKO_UTF8_FAILED 0xFFFFFFFFu

/** A new UTF-8 copy of a wide string, or a new wide copy of a UTF-8 string, on `tag`, terminated.
 *  Returns null for a null string, for invalid input under EKO_UTF8_FAIL, and when memory runs out. */
EKO_API char* eko_convToUTF8(const wchar_t* wstr, int32 errorBehavior, EKO_MEMTAG tag);
EKO_API wchar_t* eko_convToWchar(const char* str, int32 errorBehavior, EKO_MEMTAG tag);

/** Converts into the caller's buffer.
 *  destlen  units that fit: bytes, or wide characters, terminator included.
 *  Returns the units stored without the terminator; EKO_UTF8_FAILED for null arguments, for a result that
 *  does not fit, or for invalid input under EKO_UTF8_FAIL. On failure the buffer holds what was converted up
 *  to there, whole characters only. It is terminated whenever destlen is not 0, and nothing is ever stored
 *  past it. */
EKO_API uint32 eko_wchar_to_utf8(char* dest, const wchar_t* src, uint32 destlen, int32 errorBehavior);
EKO_API uint32 eko_utf8_to_wchar(wchar_t* dest, const char* src, uint32 destlen, int32 errorBehavior);

/** Encodes one code point.
 *  bytes    receives 1 to 4 bytes, not terminated; room for 4.
 *  nobytes  receives their count.
 *  Returns UTF8_OKAY; UTF8_NEED_SURROGATE for D800..DFFF; UTF8_INVALID above 10FFFF or for null arguments.
 *  Nothing is stored on failure. */
EKO_API int32 eko_utf8_codes(uint32 val, uint8* bytes, uint32* nobytes);

/** Converts the arguments of a program.
 *  Returns `argc` strings and a null pointer behind them, in one block on `tag`, to be freed with one
 *  eko_freeMem; null when argv or one of its first argc strings is null or argc is below 0, for invalid input
 *  under EKO_UTF8_FAIL, and when memory runs out. */
EKO_API char** eko_convArgvToUTF8(int32 argc, const wchar_t* const* argv, int32 errorBehavior, EKO_MEMTAG tag);

EKO_EXTERN_C_END

#endif
