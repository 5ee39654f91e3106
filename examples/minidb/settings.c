/* SPDX-License-Identifier: MIT */
/* settings.c - what the user set, in an INI file or by options.
 *
 * The section is [minidb]. An entry that is missing has its default; one that makes no sense is a fault, as it
 * is on the command line. */
#include <string.h>

#include "minidb.h"

#define SECTION "minidb"
#define MIN_PAGE 4096u
#define MAX_PAGE \
    524288u /* half of what a mapped view holds: a page beyond the file's end never ends with the view */
#define MAX_THREADS 64u

const char* const backingNames[3] = {"disk", "mapped", "memory"};

/* In the order in which they are written. */
static const char* const defaults[][2] = {
    {"page_size", "65536"}, {"data_directory", "."}, {"log_file", ""},           {"backing", "disk"},
    {"threads", "1"},       {"progress_after", "1"}, {"fields", "name,category"}};
#define ENTRIES (sizeof defaults / sizeof defaults[0])

static bool takeNumber(uint32* number, const char* name, const char* text, uint32 least, uint32 most, uint32 step)
{
    const uint64 value = eko_atoui64(text);
    if (text[strspn(text, "0123456789")] || value < least || value > most || value % step != 0) {
        complain("%s is from %u to %u, in steps of %u, not '%s'", name, least, most, step, text);
        return false;
    }
    *number = (uint32)value;
    return true;
}

static bool takeBacking(SETTINGS* settings, const char* text)
{
    for (uint32 i = 0; i < sizeof backingNames / sizeof backingNames[0]; ++i) {
        if (strcmp(text, backingNames[i]) == 0) {
            settings->backing = (BACKING)i;
            return true;
        }
    }
    complain("a backing is disk, mapped or memory, not '%s'", text);
    return false;
}

bool settingsTake(SETTINGS* settings, const char* name, const char* text)
{
    if (strcmp(name, "page_size") == 0)
        return takeNumber(&settings->pageSize, name, text, MIN_PAGE, MAX_PAGE, MIN_PAGE);
    if (strcmp(name, "threads") == 0)
        return takeNumber(&settings->threads, name, text, 1, MAX_THREADS, 1);
    if (strcmp(name, "progress_after") == 0)
        return takeNumber(&settings->progressAfter, name, text, 0, UINT32_MAX, 1);
    if (strcmp(name, "backing") == 0)
        return takeBacking(settings, text);
    char* const into = strcmp(name, "log_file") == 0 ? settings->logFile
                       : strcmp(name, "fields") == 0 ? settings->fields
                                                     : settings->dataDirectory;
    eko_strncpyZ(into, text, MAX_NAME_BYTES);
    return true;
}

/* Not to be able to write them, in a directory of somebody else's, is no fault: the defaults hold as well. */
static void writeDefaults(const char* file)
{
    bool written = true;
    for (size_t i = 0; written && i < ENTRIES; ++i)
        written = eko_iniSet(file, SECTION, defaults[i][0], defaults[i][1]) == 0;
    if (written)
        eko_log("minidb: wrote the settings %s\n", file);
}

bool settingsRead(SETTINGS* settings, const char* file)
{
    const bool exists = eko_fileValidate(file, NULL);
    if (!exists)
        writeDefaults(file);
    for (size_t i = 0; i < ENTRIES; ++i) {
        char list[MAX_NAME_BYTES + 2] = ""; /* a value comes as a list of one, with two terminators, one to spare */
        const int32 status = exists ? eko_iniGet(file, SECTION, defaults[i][0], list, sizeof list) : 2;
        if (status != 0 && status != 2) {
            complain("%s: '%s' is too long, or cannot be read", file, defaults[i][0]);
            return false;
        }
        if (!settingsTake(settings, defaults[i][0], status == 0 ? list : defaults[i][1]))
            return false;
    }
    return true;
}

bool settingsPath(const SETTINGS* settings, const char* name, char path[MAX_NAME_BYTES])
{
    const bool asItIs = strchr(name, '/') || strcmp(settings->dataDirectory, ".") == 0;
    const int length = asItIs ? eko_snprintf(path, MAX_NAME_BYTES, "%s", name)
                              : eko_snprintf(path, MAX_NAME_BYTES, "%s/%s", settings->dataDirectory, name);
    if (length < MAX_NAME_BYTES)
        return true;
    complain("%.50s...: a name too long", name);
    return false;
}
