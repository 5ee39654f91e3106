/* SPDX-License-Identifier: MIT */
/* main.c - the command line, and where each command begins and ends. */
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define MAX_MESSAGE_BYTES 8192
#define MAX_TAGS 16u

static jmp_buf commandEnd; /* endCommand comes there with a result, a tag without memory with 1 */

static struct {
    EKO_MEMTAG tag;
    const char* purpose;
} tags[MAX_TAGS];
static uint32 tagCount;

void complain(const char* format, ...)
{
    char message[MAX_MESSAGE_BYTES];
    va_list args;
    va_start(args, format);
    eko_vsnprintf(message, sizeof message, format, args);
    va_end(args);
    progressWipe();
    eko_log_err("minidb: %s\n", message);
}

void endCommand(RESULT result)
{
    longjmp(commandEnd, (int)result);
}

EKO_MEMTAG openTag(const char* purpose, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN close, void* object)
{
    EKO_MEMTAG tag = eko_createTagEx(&commandEnd, 0, type, close, object, __FILE__, __LINE__);
    NEED(tag != EKO_TAG_INVALID && tagCount < MAX_TAGS, "there is no memory tag left");
    tags[tagCount].purpose = purpose;
    tags[tagCount++].tag = tag;
    return tag;
}

const char* tagFigures(uint32 number, EKO_TAG_MEM_INFO* info)
{
    return number < tagCount && eko_getTagMemInfo(tags[number].tag, info) == 0 ? tags[number].purpose : NULL;
}

/* ---- commands -------------------------------------------------------------------------------------------- */

static COMMAND help;

static const struct {
    const char* name;
    uint32 least, most; /* how many words it takes */
    COMMAND* run;
    const char *words, *does;
} commands[] = {
    {"load", 2, 2, load, "FILE DB", "adds the lines of FILE, each a key, a ';' and a value, to the data file DB"},
    {"get", 2, 1000000, get, "DB KEY...", "prints the records with these keys"},
    {"check", 2, 2, check, "DB FILE", "compares DB with FILE, of which the last line of each key counts"},
    {"stat", 1, 1, statistics, "DB", "tells how much DB holds"},
    {"query", 2, 2, query, "DB QUERY", "prints the records that the query asks for"},
    {"export", 2, 2, exportText, "DB FILE", "writes the records as lines, in the order of their keys"},
    {"import", 2, 2, importText, "FILE DB", "makes DB anew from the lines of FILE, in place of what it held"},
    {"copy", 2, 2, copyStore, "DB DB", "makes the second a copy of the first"},
    {"help", 0, 0, help, "", "prints this"},
};
#define COMMANDS (sizeof commands / sizeof commands[0])

static const char more[] =
    "A query, such as 'category = \"Sm\" and name like \"*ARROW*\" order by key desc limit 10', compares a field\n"
    "and a text, in \" or ', with = != < <= > >= and like, where * stands for any bytes and ? for one, and has\n"
    "and, or, not and parentheses. All parts may be left out.\n"
    "Ends with 0 all is well, 1 not found or different, 2 a command or a query without sense, 3 failed.\n";

static RESULT help(const SETTINGS* settings, const char** words)
{
    (void)settings;
    (void)words;
    for (size_t i = 0; i < COMMANDS; ++i)
        eko_printf("  minidb %-6s %-9s  %s\n", commands[i].name, commands[i].words, commands[i].does);
    eko_printf("Options, anywhere in between, and what holds without:\n");
    settingsHelp();
    eko_printf("%s", more);
    return DONE;
}

static RESULT runCommand(const char** words)
{
    const SETTINGS* settings = settingsRead(words);
    uint32 count = 0;
    while (words[count])
        ++count;
    size_t i = 0;
    while (i < COMMANDS && (count == 0 || strcmp(words[0], commands[i].name) != 0))
        ++i;
    if (i < COMMANDS && count > commands[i].least && count <= commands[i].most + 1)
        return commands[i].run(settings, words + 1);
    complain("usage: minidb %s %s; minidb help tells more", i < COMMANDS ? commands[i].name : "COMMAND",
             i < COMMANDS ? commands[i].words : "...");
    return MISUSED;
}

static RESULT runAndCleanUp(const char** words)
{
    volatile RESULT result = FAILED;
    eko_resetTag(&commandEnd, EKO_THREAD_TAG);
    switch (setjmp(commandEnd)) {
    case 0:
        result = runCommand(words);
        break;
    case MISUSED:
        result = MISUSED;
        break;
    }
    eko_resetTag(NULL, EKO_THREAD_TAG);
    while (tagCount > 0)
        EKO_TAG_DESTROY(tags[--tagCount].tag);
    return result;
}

int main(int argc, char** argv)
{
    (void)argc;
    /* Started with one of the descriptors 0 to 2 closed, the first file opened would get its number, and what is
     * printed would go into it. So the free ones are taken, by something that refuses to be written. */
    for (EKO_FDESC desc = NULL; (intptr_t)desc <= 2;)
        if (eko_flOpen("/dev/null", O_RDONLY, 0, &desc) != 0)
            return FAILED;
    if (eko_init() != 0)
        return FAILED;
    const RESULT result = runAndCleanUp((const char**)argv + 1);
    eko_term();
    return (int)result;
}
