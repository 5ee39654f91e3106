// SPDX-License-Identifier: MIT
// stories.h - what is done to files by name, told as text, in every form that the calls have. For tests that
// include syscalls.h too.
#ifndef EKO_TESTS_STORIES_H
#define EKO_TESTS_STORIES_H

#include "support/fixture.h"

// Tells a story four times, each from an empty start: with extra flags, with them by wide names, without, and
// without by wide names. It consists of steps "call a b status;" with "-" for a name that is not wanted, no status
// for 0, and a second one where that of wide names differs.
//      copy, cmp, move, rename, movedir    from a to b
//      remove, mkdir, mkall, rmdir         of a
//      valid       whether a is; 10 is added for a directory
//      walk        through a, for the pattern b: the names found, and 10 for each directory; -1 for no walk
//      put, is     a file with the text b is made, or expected; "(none)" and "(dir)" are expected too
//      link, symlink
//      mode        b: r for read-only, d for diskless, x for renames that fail as if to another disk
// A name is relative to the current directory, which is emptied, or in memory if it begins with "/m". "@" stands
// for a letter outside ASCII, "#" for 5000 letters, and "bad" for no name, or one that cannot be converted.
void tell(std::string story);

// Removes the files of the current directory and those of stories in memory, and ends their modes.
void forget();

// One file, as "put" and "is" know it.
int32 put(const std::string& name, const std::string& text);
std::string get(const std::string& name);
uint16 flagsOf(const std::string& name);

#endif
