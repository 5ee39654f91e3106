/* SPDX-License-Identifier: MIT */
/* settings.c - what the user set: by options, or in the section [minidb] of an INI file, or not at all. */
#include <string.h>

#include "minidb.h"

/* In the order of the names in minidb.h. */
static const struct {
    const char *name, *otherwise, *does;
    uint32 least, most; /* of a number, else 0; with 0 and 1 the option stands without a value */
} all[ALL] = {
    {"settings", "minidb.ini", "the file with the settings; written on first use", 0, 0},
    {"data-directory", ".", "where DB is, if its name has no '/'", 0, 0},
    {"log-file", "", "gets all messages as well", 0, 0},
    {"fields", "key,name,category", "what queries call the pieces of a line between ';'", 0, 0},
    {"backing", "disk", "what reads and writes DB: disk, mapped or memory", 0, 0},
    {"page-size", "65536", "bytes that are read, parsed and written at once", 4096, 524288},
    {"threads", "1", "how many parse the lines of FILE", 1, 64},
    {"progress-after", "1", "seconds until a load shows how far it is", 0, 1000000},
    {"json", "0", "figures as lines of JSON, and nothing else on standard output", 0, 1},
    {"report", "0", "a load tells after each write how many records are stored", 0, 1},
    {"trace", "0", "a debugger can show what was done last", 0, 1},
};

struct SETTINGS settings = {.text[INI_FILE] = "minidb.ini"};

void settingsHelp(void)
{
    for (int i = 0; i < ALL; ++i)
        eko_printf("  --%-14s  %s (%s)\n", all[i].name, all[i].does, all[i].otherwise);
}

/* Takes the option that begins with that word, and returns the last word of it. */
static const char** takeOption(const char** word)
{
    for (int i = 0; i < ALL; ++i) {
        const bool alone = all[i].most == 1;
        if (strcmp(*word + 2, all[i].name) == 0 && (alone || word[1])) {
            settings.text[i] = alone ? "1" : word[1];
            return alone ? word : word + 1;
        }
    }
    complain("there is no option %s, or it needs a value; minidb help tells more", *word);
    endCommand(MISUSED);
}

static uint16 toBacking(const char* text)
{
    const bool mapped = strcmp(text, "mapped") == 0, memory = strcmp(text, "memory") == 0;
    NEED(mapped || memory || strcmp(text, "disk") == 0, "a backing is disk, mapped or memory, not '%s'", text);
    return mapped ? EKO_FILE_MAPPED : memory ? EKO_FILE_INMEMORY : 0;
}

/* What no option says, the file does, which is written where there is none. Not to be able to write there, in a
 * directory of somebody else's, is no fault: the default holds as well. */
static void readEntry(int i, bool there)
{
    const char* file = settings.text[INI_FILE];
    char* found = NULL;
    if (!there)
        eko_iniSet(file, "minidb", all[i].name, all[i].otherwise);
    const int32 status = eko_iniGetStr(file, "minidb", all[i].name, &found, 0, EKO_THREAD_TAG);
    NEED(!there || status == 0 || status == 2, "%s: cannot be read", file);
    const char* text = settings.text[i] ? settings.text[i] : found ? found : all[i].otherwise;
    const uint64 number = eko_atoui64(text);
    NEED(all[i].most == 0 || (!text[strspn(text, "0123456789")] && number >= all[i].least && number <= all[i].most),
         "%s is a number from %u to %u, not '%s'", all[i].name, all[i].least, all[i].most, text);
    settings.text[i] = text;
    settings.number[i] = (uint32)number;
}

uint32 settingsTake(const char** words)
{
    uint32 kept = 0;
    for (const char** word = words; *word; ++word) {
        if (strncmp(*word, "--", 2) == 0)
            word = takeOption(word);
        else
            words[kept++] = *word;
    }
    words[kept] = NULL;
    return kept;
}

void settingsRead(void)
{
    int32 directory;
    const bool there = eko_fileValidate(settings.text[INI_FILE], &directory);
    for (int i = INI_FILE + 1; i < ALL; ++i)
        readEntry(i, there);
    settings.backing = toBacking(settings.text[BACKING]);
    NEED(!*settings.text[LOG_FILE] || eko_log_open(settings.text[LOG_FILE]) == 0, "%s: cannot be opened as the log",
         settings.text[LOG_FILE]);
}

const char* dataPath(const char* name)
{
    const char* directory = settings.text[DIRECTORY];
    const bool asItIs = strchr(name, '/') || strcmp(directory, ".") == 0;
    return asItIs ? name : EKO_MAKESTR(EKO_THREAD_TAG, "%s/%s", directory, name);
}
