/* SPDX-License-Identifier: MIT */
/* strutil.h - small helpers for strings. The calls keep no state and may come from any thread; those that change
 * letter case read the locale: nobody may call setlocale meanwhile. */
#ifndef EKO_STRUTIL_H
#define EKO_STRUTIL_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/* ---- letter case ------------------------------------------------------------------------------------------ */

/** Change the letters of a string to upper or to lower case, in place and in the current locale; byte by byte, so
 *  that in UTF-8 only the letters of ASCII change. Return the string; null for null. Names without a prefix. */
EKO_API char* strupr(char* str);
EKO_API char* strlwr(char* str);
EKO_API wchar_t* wcsupr(wchar_t* str);
EKO_API wchar_t* wcslwr(wchar_t* str);

/* ---- numbers ---------------------------------------------------------------------------------------------- */

/** The decimal number that a string begins with, after blanks: 0 when there is none, and for null; the nearest of
 *  the type when it does not fit, with errno ERANGE. Surprise: eko_atoui64 takes a minus, and -1 is
 *  18446744073709551615. */
EKO_API int64 eko_atoi64(const char* s);
EKO_API uint64 eko_atoui64(const char* s);

/* ---- bounded copies --------------------------------------------------------------------------------------- */

/** Copies at most len - 1 characters of `src`, null counting as "", and fills the rest of the `len` with zeros: the
 *  copy is terminated, cut or not. The strings must not overlap. With a len of 0 nothing is stored.
 *  Returns `dest`; a null dest is left alone. */
EKO_API char* eko_strncpyZ(char* dest, const char* src, size_t len);
EKO_API wchar_t* eko_wcsncpyZ(wchar_t* dest, const wchar_t* src, size_t len);

/* ---- words ------------------------------------------------------------------------------------------------ */

/** The system's strtok_r: the next word of `s`, or null; null for `s` goes on with the same string. Null delim or
 *  save_ptr, and going on before a start with *save_ptr null, give null. */
EKO_API char* eko_strtok(char* s, const char* delim, char** save_ptr);

/** Cuts a string into its words, in place.
 *  input        is changed: terminators are written into it, and the words lie in it.
 *  tokens       the characters that separate words; several in a row are as one.
 *  words        receives an array of pointers into `input`, or null when there is no word. The caller frees it on
 *               `tag`, and nothing else.
 *  numwords     receives their number.
 *  trim_spaces  not 0 cuts blanks and tabs off both ends of each word, and drops a word that was nothing else.
 *  tag          not a stack tag: the array is extended word by word.
 *  Returns 0; 1003 when the array cannot grow; 1013 when a pointer is null. On failure nothing is stored in the
 *  results, but `input` is changed. May leave by longjmp. */
EKO_API int32 eko_tokenize(char* input, const char* tokens, const char*** words, uint32* numwords,
                           int32 trim_spaces, EKO_MEMTAG tag);

/* ---- errors ----------------------------------------------------------------------------------------------- */

/** The system's text for an error number, as eko_strerr stores it, in a new string on `tag`. Returns null
 *  when memory runs out or the library is not started. May leave by longjmp. */
EKO_API char* eko_strerr_alloc(int32 err, EKO_MEMTAG tag);

EKO_EXTERN_C_END

#endif
