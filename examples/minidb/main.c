/* SPDX-License-Identifier: MIT */
/* main.c - the command line of minidb, and the commands that only read. */
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define MAX_MESSAGE_BYTES 8192 /* two paths fit */
#define MAX_SHOWN 10u          /* differences told one by one */

bool tracing;

static const char usage[] =
    "usage: minidb [--settings FILE] [--backing disk|mapped|memory] [--log FILE] [--threads N]\n"
    "              [--trace] COMMAND\n"
    "  load FILE DB     adds the lines of FILE, each a key, a ';' and a value, to the data file DB\n"
    "  get DB KEY...    prints the records with these keys\n"
    "  check DB FILE    tells whether DB holds exactly what the lines of FILE say, the last one of each key\n"
    "  export DB FILE   writes the records as lines, in the order of their keys\n"
    "  import FILE DB   makes DB anew from the lines of FILE, in place of what it held\n"
    "  copy DB DB       makes the second a copy of the first\n"
    "  query DB QUERY   prints the records that the query asks for, such as\n"
    "                   'category = \"Sm\" and name like \"*ARROW*\" order by key desc limit 10'\n"
    "With --threads, 1 to 64, so many threads parse the lines of load and import. With --trace a debugger can\n"
    "show what was done last. Options may also stand behind the command's name.\n"
    "A query compares a field and a text, in \" or ', with = != < <= > >= and like, where * stands for any bytes\n"
    "and ? for one, and has and, or, not and parentheses; it orders by one field. All parts may be left out.\n"
    "Fields are key, value, and the pieces of the value between ';', which the settings name.\n"
    "Settings are read from minidb.ini, which is written on first use; options go before them.\n"
    "Ends with 0 when all went well, 1 when not, 2 after this text.\n";

void complain(const char* format, ...)
{
    char message[MAX_MESSAGE_BYTES];
    va_list args;
    va_start(args, format);
    const int32 length = eko_vsnprintf(message, sizeof message, format, args);
    progressWipe();
    if (length >= 0)
        eko_log_err("minidb: %s\n", message);
    va_end(args);
}

bool makeTag(EKO_MEMTAG* tag, EKO_ALLOCATOR_TYPE type)
{
    *tag = EKO_TAG_CREATE(type);
    if (*tag != EKO_TAG_INVALID)
        return true;
    complain("cannot make a memory tag");
    return false;
}

double secondsSince(uint64 startedNs)
{
    return (double)(int64)(eko_timeNanoSecs() - startedNs) / 1e9;
}

/* ---- get ---------------------------------------------------------------------------------------------------- */

bool printPair(EKO_FILE_STREAM out, const PAIR* pair)
{
    return eko_fprintf(out, "%.*s;%.*s\n", (int)pair->keyLen, pair->key, (int)pair->valueLen, pair->value) > 0;
}

bool closePrinted(EKO_FILE_STREAM out)
{
    const bool written = eko_fseek(out, 0, 1) == 0; /* writes what is pending, and tells whether that went well */
    eko_fclose(out);
    return written;
}

/* FOUND_END when there is none; FOUND_FAULT when going on makes no sense. */
static FOUND getOne(STORE* store, const char* key, EKO_FILE_STREAM out)
{
    const ENTRY* entry = indexFind(&store->index, key, (uint32)strlen(key));
    if (!entry) {
        complain("%s: no record with the key '%s'", store->name, key);
        return FOUND_END;
    }
    EKO_FILE_OFFSET at = entry->at;
    PAIR pair;
    if (storeNext(store, &at, &pair) != FOUND_ONE)
        return FOUND_FAULT;
    return printPair(out, &pair) ? FOUND_ONE : FOUND_FAULT;
}

/* Records are data, not messages: they go to standard output, but not into the log. A stream of our own over it
 * can tell at the end whether all was written. */
EKO_FILE_STREAM openStandardOutput(void)
{
    EKO_FILE_STREAM out = eko_fopen_std("stdout");
    if (!out)
        complain("no standard output");
    return out;
}

bool closeStandardOutput(EKO_FILE_STREAM out)
{
    if (closePrinted(out))
        return true;
    complain("cannot write to standard output");
    return false;
}

static bool getAll(STORE* store, int count, char** keys)
{
    EKO_FILE_STREAM out = openStandardOutput();
    FOUND found = out ? FOUND_ONE : FOUND_FAULT;
    bool all = out != NULL;
    for (int i = 0; i < count && found != FOUND_FAULT; ++i) {
        found = getOne(store, keys[i], out);
        all = all && found == FOUND_ONE;
    }
    return out && closeStandardOutput(out) && all;
}

static bool get(const SETTINGS* settings, const char* storeName, int count, char** keys)
{
    STORE store = {0};
    const bool done = storeOpen(&store, settings, storeName, STORE_READ) && getAll(&store, count, keys);
    storeClose(&store);
    return done;
}

/* ---- check -------------------------------------------------------------------------------------------------- */

static bool readText(TEXT* text, INDEX* expected)
{
    FOUND found;
    PAIR pair;
    while ((found = textNext(text, &pair)) == FOUND_ONE)
        if (!indexPut(expected, &pair, true, 0))
            return false;
    return found == FOUND_END;
}

/* Tells which pairs of an index the other one lacks, or has with another value, and returns how many. */
static uint32 compare(const INDEX* index, const INDEX* others, bool values, const char* what)
{
    uint32 count = 0;
    for (uint32 i = 0; i < index->capacity; ++i) {
        const PAIR* pair = &index->slots[i].pair;
        const ENTRY* other = pair->key ? indexFind(others, pair->key, pair->keyLen) : NULL;
        const bool same = other && other->pair.valueLen == pair->valueLen &&
                          memcmp(other->pair.value, pair->value, pair->valueLen) == 0;
        if (pair->key && (values ? other && !same : !other) && ++count <= MAX_SHOWN)
            complain("%s: '%.*s'", what, (int)pair->keyLen, pair->key);
    }
    return count;
}

static bool checkOpened(TEXT* text, STORE* store, INDEX* expected)
{
    const uint64 startedNs = eko_timeNanoSecs();
    const INDEX* index = &store->index;
    if (!readText(text, expected) || !storeReadValues(store))
        return false;
    const uint32 missing = compare(expected, index, false, "not in the data file");
    const uint32 different = compare(expected, index, true, "differs");
    const uint32 extra = compare(index, expected, false, "not in the text");
    if (missing || different || extra) {
        complain("%s and %s differ: %u missing, %u different, %u extra", store->name, text->name, missing,
                 different, extra);
        return false;
    }
    eko_log("minidb: %s and %s agree on all %u records, in %.3f s\n", store->name, text->name, index->count,
            secondsSince(startedNs));
    return true;
}

static bool check(const SETTINGS* settings, const char* storeName, const char* textName)
{
    TEXT text = {0};
    STORE store = {0};
    INDEX expected = {0};
    const bool done = textOpen(&text, textName) && indexOpen(&expected) &&
                      storeOpen(&store, settings, storeName, STORE_READ) && checkOpened(&text, &store, &expected);
    storeClose(&store);
    indexClose(&expected);
    textClose(&text);
    return done;
}

/* ---- command line ------------------------------------------------------------------------------------------- */

typedef struct COMMAND {
    const char* name;
    bool (*run)(const SETTINGS* settings, const char* first, const char* second);
    bool storeFirst, storeSecond; /* which words name data files */
} COMMAND;

/* Those of two words; "get" takes any number. */
static const COMMAND commands[] = {{"load", load, false, true},         {"check", check, true, false},
                                   {"export", exportText, true, false}, {"import", importText, false, true},
                                   {"copy", copyStore, true, true},     {"query", query, true, false}};

static bool runOne(const COMMAND* command, const SETTINGS* settings, char** words)
{
    char first[MAX_NAME_BYTES], second[MAX_NAME_BYTES];
    if ((command->storeFirst && !settingsPath(settings, words[0], first)) ||
        (command->storeSecond && !settingsPath(settings, words[1], second)))
        return false;
    return command->run(settings, command->storeFirst ? first : words[0], command->storeSecond ? second : words[1]);
}

static int usageError(void)
{
    eko_printfErr("%s", usage);
    return 2;
}

static int run(const SETTINGS* settings, int count, char** words)
{
    if (count >= 3 && strcmp(words[0], "get") == 0) {
        char path[MAX_NAME_BYTES];
        return settingsPath(settings, words[1], path) && get(settings, path, count - 2, words + 2) ? 0 : 1;
    }
    for (size_t i = 0; count == 3 && i < sizeof commands / sizeof commands[0]; ++i)
        if (strcmp(words[0], commands[i].name) == 0)
            return runOne(&commands[i], settings, words + 1) ? 0 : 1;
    return usageError();
}

static int runLogged(const SETTINGS* settings, int count, char** words)
{
    if (settings->logFile[0] == 0)
        return run(settings, count, words);
    if (eko_log_open(settings->logFile) != 0) {
        complain("%s: cannot be opened as the log", settings->logFile);
        return 1;
    }
    const int result = run(settings, count, words);
    eko_log_close();
    return result;
}

/* The first names the file with the settings, the others go before what that says. */
static const struct {
    const char* name;
    const char* setting;
} options[] = {{"--settings", NULL}, {"--backing", "backing"}, {"--log", "log_file"}, {"--threads", "threads"}};
#define OPTIONS (sizeof options / sizeof options[0])

/* Takes the words in front that are options, and returns how many; -1 when one makes no sense. */
static int takeOptions(const char* values[OPTIONS], int count, char** words)
{
    int taken = 0;
    for (; taken < count && strncmp(words[taken], "--", 2) == 0; ++taken) {
        if (strcmp(words[taken], "--trace") == 0) {
            tracing = true;
            continue;
        }
        size_t i = 0;
        while (i < OPTIONS && strcmp(words[taken], options[i].name) != 0)
            ++i;
        if (i == OPTIONS || ++taken == count)
            return -1;
        values[i] = words[taken];
    }
    return taken;
}

static bool readSettings(SETTINGS* settings, const char* const values[OPTIONS])
{
    bool read = settingsRead(settings, values[0] ? values[0] : "minidb.ini");
    for (size_t i = 1; read && i < OPTIONS; ++i)
        read = !values[i] || settingsTake(settings, options[i].setting, values[i]);
    return read;
}

/* Options stand in front of the command, or right behind it. */
static int runWithOptions(int count, char** words)
{
    const char* values[OPTIONS] = {NULL};
    const int before = takeOptions(values, count, words);
    if (before < 0 || before == count)
        return usageError();
    const int behind = takeOptions(values, count - before - 1, words + before + 1);
    if (behind < 0)
        return usageError();
    words[before + behind] = words[before]; /* the command next to its words */
    SETTINGS settings;
    if (!readSettings(&settings, values))
        return 1;
    return runLogged(&settings, count - before - behind, words + before + behind);
}

/* Started with one of the descriptors 0 to 2 closed, the first file opened would get its number, and what is
 * printed would go into the data file. So the free ones are taken, by something that refuses to be written. */
static bool fillStandardDescriptors(void)
{
    EKO_FDESC desc;
    do
        if (eko_flOpen("/dev/null", O_RDONLY, 0, &desc) != 0)
            return false;
    while ((intptr_t)desc <= 2);
    return eko_flClose(desc) == 0;
}

int main(int argc, char** argv)
{
    if (!fillStandardDescriptors())
        return 1;
    if (eko_init() != 0) {
        complain("the library does not start");
        return 1;
    }
    const int result = runWithOptions(argc - 1, argv + 1);
    eko_term();
    return result;
}
