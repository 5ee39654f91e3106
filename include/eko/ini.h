/* SPDX-License-Identifier: MIT */
/* ini.h - configuration files made of sections and "name=value" lines.
 *
 * Gets are served from a cache: a file is read and parsed when it is first asked for, and again only by
 * eko_readIniFile, by a set, or while it has no section. What others write into it meanwhile is not seen.
 *
 *      ; a comment
 *      [section]
 *      name=value        ; to the end of the line
 *
 * How a file is read
 *   - A line ends at its first ";", carriage return or line feed, even inside a value, and loses the white space
 *     at its end. White space at its start counts.
 *   - "[" as the very first character starts a section, named by the text up to the first "]", which may be
 *     missing.
 *   - A line with "=" in a section is an entry. Spaces (no tabs) on both sides of the first "=" go; a value may
 *     be empty, a name may not. All other lines, and those in front of the first section, are ignored.
 *   - Of sections or entries of the same name the first one is found.
 *   - Names of files, sections and entries are found without regard to the case of ASCII letters. Of section and
 *     entry names the first 127 bytes count, of file names the first 255: files that differ only behind that, or
 *     in case, share one place in the cache. A name is the text that the caller gives, not a path that is
 *     resolved: what is set as "a.ini" is not seen as "./a.ini".
 *   - A file on disk and one in memory of the same name share one place too: what was read or set last answers for
 *     both. Give them different names.
 *   - The rules of text streams apply (stream.h): UTF-16 is read as UTF-8; what follows a byte 0 in a line is
 *     lost; a byte FF at the start of a line ends the file, elsewhere it is left out.
 *   - At most 65535 files, sections in a file and entries in a section: one more is -904.
 *
 * How a file is set
 *   The whole file is copied, line by line, to "_temp_.ini" in its directory, with the change made on the way;
 *   then it is removed, and the other renamed to its name. So it is a new file: mode, owner and links are not
 *   kept.
 *   - The section is the first whose line begins with "[name]". The entry is a line that begins with "name=":
 *     "name = value" is NOT taken for "name". Setting that adds a second line, and gets go on finding the first;
 *     deleting it answers 0 and leaves it. A line that is replaced loses its comment.
 *   - A new entry goes to the end of its section, in front of the empty lines there, or instead of them at the
 *     end of the file. A new section goes to the end of the file, behind an empty line.
 *   - Setting empties the lines of the section, up to the entry, that begin with white space; deleting an entry
 *     removes all such lines of the section. Deleting a section takes its comments too.
 *   - Names and values are written as they are. With a line feed, ";", "=" or "]" in the wrong place, or with
 *     spaces at their ends, they are not read back as they were.
 *   - A byte-order mark is lost, UTF-16 becomes UTF-8, and bytes that reading does not see are gone.
 *   - Nobody waits for the disk, and a full one goes unnoticed: the new file is cut short, after "Write failed,
 *     errno = %d" on standard error. So is one in memory for which there is no memory, after that is reported.
 *   - A process that is killed leaves the old file, or no file and "_temp_.ini" whole, or the new file. In the
 *     second case rename it before the next set in that directory, which overwrites it. Two processes that set
 *     files of one directory at the same time destroy each other's work.
 *
 * Rules of all calls
 *   Any thread may call; one mutex is held for the whole of a call. Only eko_iniGetStr may leave by longjmp.
 *   xflags are EKO_FILE_... (file.h), 0 in the plain forms. With EKO_FILE_MAPPED no file can be read, and what is
 *   set is lost. A W form takes wide strings, and null where the narrow form does; a string that is not valid
 *   gives -904.
 *   Returns 0, or
 *        2  no such section or entry
 *     -904  out of memory, which is reported, or too many of something
 *     -905  the file cannot be opened or read, or the temporary file not be opened
 *     -919  the temporary file could not be renamed: it has the new content, and the file is gone
 *     -924  null for a pointer that must be given
 *     -932  the caller's buffer is too small
 *   Surprise: while the library is not started, or when there is no memory for the module itself (which is
 *   reported), every call returns 0 and does nothing: outputs stay as they are. */
#ifndef EKO_INI_H
#define EKO_INI_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/** Reads a file into the cache, again if it is there. If it cannot be opened, what is cached of it is dropped; the
 *  W forms keep that. If memory runs out or reading fails, it is dropped too.
 *  Returns 0 always; the W forms -904 for a name that is not valid, and without memory. Null is ignored. */
EKO_API int32 eko_readIniFile(const char* iniName);
EKO_API int32 eko_readIniFileEx(const char* iniName, uint16 xflags);
EKO_API int32 eko_readIniFileW(const wchar_t* iniName);
EKO_API int32 eko_readIniFileExW(const wchar_t* iniName, uint16 xflags);

/** Gets a value, or names, as a list: strings one behind the other, each with its terminator, and one terminator
 *  more.
 *  section  null lists the names of all sections, whatever `entry` is.
 *  entry    the entry whose value is the list's only string; null lists the names of the section's entries.
 *  length   size of `buf` in characters (W: wide ones). The list with its closing terminator must fit in one
 *           less: a value of 5 characters needs 8.
 *  Returns 0; 2, -904, -905; -924 for a null iniName or buf; -932, with the beginning of the list in `buf`, not
 *  terminated, or from the W forms nothing. With a length of 0 or 1 nothing is stored.
 *  Surprise: of a buffer longer than 65536 characters only (length - 1) modulo 65536 serve for names of entries;
 *  one of 65537 holds none.
 *  W forms: what is no UTF-8 in the file comes as U+FFFD; -904 too when 4 * length does not fit 32 bits.
 *  eko_iniString and its like are other names of the same. */
EKO_API int32 eko_iniGet(const char* iniName, const char* section, const char* entry, char* buf, uint32 length);
EKO_API int32 eko_iniGetEx(const char* iniName, const char* section, const char* entry, char* buf, uint32 length,
                           uint16 xflags);
EKO_API int32 eko_iniString(const char* iniName, const char* section, const char* entry, char* buf, uint32 length);
EKO_API int32 eko_iniStringEx(const char* iniName, const char* section, const char* entry, char* buf, uint32 length,
                              uint16 xflags);
EKO_API int32 eko_iniGetW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                          uint32 length);
EKO_API int32 eko_iniGetExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                            uint32 length, uint16 xflags);
EKO_API int32 eko_iniStringW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                             uint32 length);
EKO_API int32 eko_iniStringExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry, wchar_t* buf,
                               uint32 length, uint16 xflags);

/** Gets a value, or names joined with ",", as a new string on `tag`, to be freed there.
 *  result  receives the string on 0 only; null when there are no names.
 *  Returns 0; 2, -904, -905; -924 for a null iniName or result. May leave by longjmp when `tag` is exhausted; no
 *  string has been made then, and nothing is held. */
EKO_API int32 eko_iniGetStr(const char* iniName, const char* section, const char* entry, char** result,
                            uint16 xflags, EKO_MEMTAG tag);

/** Gets a value as a number: leading white space, a sign and decimal digits; what follows is ignored, and text that
 *  is no number is 0. A number that does not fit becomes the nearest that does.
 *  num  receives it on 0 only.
 *  Returns 0; 2, -904, -905; -924 for a null iniName or num; -932 for a value of more than 17 bytes. */
EKO_API int32 eko_iniInt32(const char* iniName, const char* section, const char* tag, int32* num);
EKO_API int32 eko_iniInt32Ex(const char* iniName, const char* section, const char* tag, int32* num, uint16 xflags);
EKO_API int32 eko_iniInt32W(const wchar_t* iniName, const wchar_t* section, const wchar_t* tag, int32* num);
EKO_API int32 eko_iniInt32ExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* tag, int32* num,
                              uint16 xflags);

/** Sets an entry, making file and section if need be; with a null `value` deletes the entry, with a null `entry`
 *  the section. What is to be deleted need not exist: the file is written all the same.
 *  Returns 0; -904; -905; -919; -924 for a null iniName or section. The file is as it was after -904 or -905,
 *  unless the new one could not be read into the cache: then the next get tries that again. A file that is there
 *  but cannot be read to its end is not replaced (-905), nor is one named "_temp_.ini".
 *  Surprise: a line with spaces in front of its "=" is neither replaced nor deleted, and one that begins with them
 *  may be lost; both are told under "How a file is set". */
EKO_API int32 eko_iniSet(const char* iniName, const char* section, const char* entry, const char* value);
EKO_API int32 eko_iniSetEx(const char* iniName, const char* section, const char* entry, const char* value,
                           uint16 xflags);
EKO_API int32 eko_iniSetW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry,
                          const wchar_t* value);
EKO_API int32 eko_iniSetExW(const wchar_t* iniName, const wchar_t* section, const wchar_t* entry,
                            const wchar_t* value, uint16 xflags);

/** Frees the cache: every file is read again when it is next asked for. */
EKO_API void eko_iniCleanup(void);

EKO_EXTERN_C_END

#endif
