/* SPDX-License-Identifier: MIT */
/* main.c - the command line, and where each command begins and ends. */
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

static jmp_buf commandEnd;     /* where endCommand goes to, and a tag without memory */
static RESULT result = FAILED; /* until a command tells another */

struct TAG tags[16];
uint32 tagCount;

void complain(const char* format, ...)
{
    char message[8192];
    va_list args;
    va_start(args, format);
    eko_vsnprintf(message, sizeof message, format, args);
    va_end(args);
    progressWipe();
    eko_log_err("minidb: %s\n", message);
}

void endCommand(RESULT how)
{
    result = how;
    longjmp(commandEnd, 1);
}

EKO_MEMTAG openTag(const char* purpose, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN close, void* object)
{
    EKO_MEMTAG tag = eko_createTagEx(&commandEnd, 0, type, close, object, __FILE__, __LINE__);
    NEED(tag != EKO_TAG_INVALID && tagCount < sizeof tags / sizeof tags[0], "there is no memory tag left");
    tags[tagCount++] = (struct TAG){tag, purpose};
    return tag;
}

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

static RESULT help(const char** words)
{
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
    const uint32 count = settingsTake(words);
    size_t i = 0;
    while (i < COMMANDS && (count == 0 || strcmp(words[0], commands[i].name) != 0))
        ++i;
    if (i < COMMANDS && count > commands[i].least && count <= commands[i].most + 1) {
        if (commands[i].run != help)
            settingsRead();
        return commands[i].run(words + 1);
    }
    complain("usage: minidb %s %s; minidb help tells more", i < COMMANDS ? commands[i].name : "COMMAND",
             i < COMMANDS ? commands[i].words : "...");
    return MISUSED;
}

int main(int argc, char** argv)
{
    (void)argc;
    /* A file that got the number of a closed standard stream would receive what is printed. So they are taken. */
    for (EKO_FDESC desc = NULL; (intptr_t)desc <= 2;)
        if (eko_flOpen("/dev/null", O_RDONLY, 0, &desc) != 0)
            return FAILED;
    if (eko_init() != 0)
        return FAILED;
    eko_resetTag(&commandEnd, EKO_THREAD_TAG);
    if (setjmp(commandEnd) == 0)
        result = runCommand((const char**)argv + 1);
    eko_resetTag(NULL, EKO_THREAD_TAG);
    while (tagCount > 0)
        EKO_TAG_DESTROY(tags[--tagCount].tag);
    eko_term();
    return (int)result;
}
