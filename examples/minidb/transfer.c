/* SPDX-License-Identifier: MIT */
/* transfer.c - data files as a whole: export, import, copy.
 *
 * What is made is made under a temporary name first, and takes its place when it is complete: who looks meanwhile,
 * and who comes after a failure, finds what was there before. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include "minidb.h"

/* ---- temporary files -------------------------------------------------------------------------------------- */

/* A new, empty file of our own, whose name is on the global tag. The names are easy to guess, so only one that the
 * system finds free will do. */
static char* makeTemporary(void)
{
    static uint32 counter;
    for (int tries = 0; tries < 1000; ++tries) {
        char* name = eko_fileCreateTmpName(&counter, "minidb", "tmp", 0, EKO_GLOBAL_TAG);
        if (!name)
            break;
        EKO_FH fh = eko_fileOpen(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
        const bool taken = !fh && errno == EEXIST;
        eko_fileClose(fh);
        if (fh)
            return name;
        EKO_FREE(name, EKO_GLOBAL_TAG);
        if (!taken)
            break;
    }
    complain("no temporary file can be made");
    return NULL;
}

/* Renaming replaces the file of that name in one step. Onto another disk it has to be moved, in several. */
static bool putInPlace(const char* temporary, const char* name)
{
    if (eko_fileRename(temporary, name) == 0 || eko_fileMove(temporary, name) == 0)
        return true;
    complain("%s: cannot be put in place: %s", name, strerror(errno));
    return false;
}

/* Frees the name; the file too, when it was not put in place. */
static void endTemporary(char* name, bool placed)
{
    if (name && !placed)
        eko_fileRemove(name);
    EKO_FREE(name, EKO_GLOBAL_TAG);
}

/* ---- the lock of a file ------------------------------------------------------------------------------------ */

/* Keeps loads away from a data file; one that does not exist needs no lock. */
static bool lockStore(const char* name, EKO_FH* fh)
{
    *fh = eko_fileOpen(name, O_RDWR | O_CLOEXEC, 0);
    if (!*fh && errno == ENOENT)
        return true;
    if (!*fh) {
        complain("%s: cannot be opened: %s", name, strerror(errno));
        return false;
    }
    if (eko_fileLock(*fh) == 0)
        return true;
    complain("%s: is in use by another process", name);
    eko_fileClose(*fh);
    *fh = NULL;
    return false;
}

static void unlockStore(EKO_FH fh)
{
    if (fh)
        eko_fileUnlock(fh);
    eko_fileClose(fh);
}

/* ---- export ------------------------------------------------------------------------------------------------ */

static int byKey(const void* a, const void* b)
{
    const PAIR *left = &(*(const ENTRY*const*)a)->pair, *right = &(*(const ENTRY*const*)b)->pair;
    const uint32 shorter = left->keyLen < right->keyLen ? left->keyLen : right->keyLen;
    const int order = memcmp(left->key, right->key, shorter);
    return order ? order : (left->keyLen > right->keyLen) - (left->keyLen < right->keyLen);
}

/* The entries in the order of their keys, on the tag of the table. */
static const ENTRY** sortedEntries(const INDEX* index)
{
    const ENTRY** entries = EKO_ALLOC((index->count + 1) * sizeof(ENTRY*), index->tableTag);
    uint32 count = 0;
    for (uint32 i = 0; entries && i < index->capacity; ++i)
        if (index->slots[i].pair.key)
            entries[count++] = &index->slots[i];
    if (entries)
        qsort(entries, count, sizeof(ENTRY*), byKey);
    return entries;
}

static bool printSorted(const INDEX* index, EKO_FILE_STREAM out)
{
    const ENTRY** entries = sortedEntries(index);
    bool done = entries != NULL;
    for (uint32 i = 0; done && i < index->count; ++i)
        done = printPair(out, &entries[i]->pair);
    return done;
}

static bool exportTo(const INDEX* index, const char* textName)
{
    char* temporary = makeTemporary();
    EKO_FILE_STREAM out = temporary ? eko_fopen(temporary, "w", EKO_FILE_MODE_UTF8) : NULL;
    bool done = out && printSorted(index, out);
    if (out && !closePrinted(out)) {
        complain("%s: cannot be written", temporary);
        done = false;
    }
    done = done && putInPlace(temporary, textName);
    endTemporary(temporary, done);
    if (done)
        eko_log("minidb: exported %u records to %s\n", index->count, textName);
    return done;
}

bool exportText(const SETTINGS* settings, const char* storeName, const char* textName)
{
    STORE store = {0};
    const bool done = storeOpen(&store, settings, storeName, STORE_READ) && storeReadValues(&store) &&
                      exportTo(&store.index, textName);
    storeClose(&store);
    return done;
}

/* ---- import, copy ------------------------------------------------------------------------------------------ */

bool importText(const SETTINGS* settings, const char* textName, const char* storeName)
{
    EKO_FH locked;
    if (!lockStore(storeName, &locked))
        return false;
    char* temporary = makeTemporary();
    const bool done = temporary && load(settings, textName, temporary) && putInPlace(temporary, storeName);
    endTemporary(temporary, done);
    unlockStore(locked);
    return done;
}

static bool copyLocked(const char* from, const char* to)
{
    char* temporary = makeTemporary();
    const bool copied = temporary && eko_fileCopy(from, temporary) == 0 && eko_fileCmp(from, temporary) == 0;
    if (temporary && !copied)
        complain("%s: cannot be copied: %s", from, strerror(errno));
    const bool done = copied && putInPlace(temporary, to);
    endTemporary(temporary, done);
    if (done)
        eko_log("minidb: copied %s to %s\n", from, to);
    return done;
}

bool copyStore(const SETTINGS* settings, const char* from, const char* to)
{
    (void)settings;
    EKO_FH source, target;
    if (!lockStore(from, &source))
        return false;
    const bool locked = lockStore(to, &target);
    const bool done = locked && copyLocked(from, to);
    if (locked)
        unlockStore(target);
    unlockStore(source);
    return done;
}
