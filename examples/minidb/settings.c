/* settings.c - what the user set, in an INI file.
 *
 * The section is [minidb]. An entry that is missing has its default; one that makes no sense is a fault, as it
 * would be on the command line. */
#include <string.h>

#include "minidb.h"

#define SECTION "minidb"
#define MIN_PAGE 4096u
#define MAX_PAGE \
    524288u /* half of what a mapped view holds: a page beyond the file's end never ends with the view */

const char* const backingNames[3] = {"disk", "mapped", "memory"};

/* The entry's text, or its default. */
static bool take(const char* file, const char* entry, const char* preset, char text[MAX_NAME_BYTES])
{
    char list[MAX_NAME_BYTES + 2] = ""; /* a value comes as a list of one, with two terminators and one to spare */
    const int32 status = eko_iniGet(file, SECTION, entry, list, sizeof list);
    if (status == 0 || status == 2) {
        eko_strncpyZ(text, status == 0 ? list : preset, MAX_NAME_BYTES);
        return true;
    }
    complain("%s: '%s' is too long, or cannot be read", file, entry);
    return false;
}

static bool takePageSize(SETTINGS* settings, const char* file)
{
    char text[MAX_NAME_BYTES];
    if (!take(file, "page_size", "65536", text))
        return false;
    const uint64 size = eko_atoui64(text);
    if (size < MIN_PAGE || size > MAX_PAGE || size % MIN_PAGE != 0) {
        complain("%s: page_size is a multiple of %u, at most %u, not '%s'", file, MIN_PAGE, MAX_PAGE, text);
        return false;
    }
    settings->pageSize = (uint32)size;
    return true;
}

bool settingsTakeBacking(SETTINGS* settings, const char* name)
{
    for (uint32 i = 0; i < sizeof backingNames / sizeof backingNames[0]; ++i) {
        if (strcmp(name, backingNames[i]) == 0) {
            settings->backing = (BACKING)i;
            return true;
        }
    }
    complain("a backing is disk, mapped or memory, not '%s'", name);
    return false;
}

/* Not to be able to write it, in a directory of somebody else's, is no fault: the defaults hold as well. */
static bool writeDefaults(SETTINGS* settings, const char* file)
{
    static const char* const defaults[][2] = {
        {"page_size", "65536"}, {"data_directory", "."}, {"log_file", ""}, {"backing", "disk"}};
    bool written = true;
    for (size_t i = 0; written && i < sizeof defaults / sizeof defaults[0]; ++i)
        written = eko_iniSet(file, SECTION, defaults[i][0], defaults[i][1]) == 0;
    if (written)
        eko_log("minidb: wrote the settings %s\n", file);
    *settings = (SETTINGS){.backing = BACKING_DISK, .pageSize = 65536, .dataDirectory = "."};
    return true;
}

bool settingsRead(SETTINGS* settings, const char* name)
{
    if (!eko_fileValidate(name, NULL))
        return writeDefaults(settings, name);
    char backing[MAX_NAME_BYTES];
    return take(name, "data_directory", ".", settings->dataDirectory) &&
           take(name, "log_file", "", settings->logFile) && take(name, "backing", "disk", backing) &&
           takePageSize(settings, name) && settingsTakeBacking(settings, backing);
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
