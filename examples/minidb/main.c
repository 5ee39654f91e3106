/* main.c - the command line of minidb, and its first commands. */
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define MAX_MESSAGE_BYTES 8192 /* two paths fit */
#define MAX_SHOWN 10u          /* differences told one by one */

static const char usage[] =
    "usage: minidb [--settings FILE] [--backing disk|mapped|memory] [--log FILE] COMMAND\n"
    "  load FILE DB     adds the lines of FILE, each a key, a ';' and a value, to the data file DB\n"
    "  get DB KEY...    prints the records with these keys\n"
    "  check DB FILE    tells whether DB holds exactly what the lines of FILE say, the last one of each key\n"
    "  export DB FILE   writes the records as lines, in the order of their keys\n"
    "  import FILE DB   makes DB anew from the lines of FILE, in place of what it held\n"
    "  copy DB DB       makes the second a copy of the first\n"
    "Settings are read from minidb.ini, which is written on first use; options go before them.\n"
    "Ends with 0 when all went well, 1 when not, 2 after this text.\n";

void complain(const char* format, ...)
{
    char message[MAX_MESSAGE_BYTES];
    va_list args;
    va_start(args, format);
    if (eko_vsnprintf(message, sizeof message, format, args) >= 0)
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

/* ---- load --------------------------------------------------------------------------------------------------- */

typedef struct FIGURES {
    uint32 records, replaced;
    uint64 startedNs;
    EKO_FILE_OFFSET startedAt; /* end of the data file then */
} FIGURES;

static void sayTag(const char* purpose, EKO_MEMTAG tag)
{
    EKO_TAG_MEM_INFO info;
    if (eko_getTagMemInfo(tag, &info) == 0)
        eko_log("minidb:   %-8s %9zu bytes used, at most %9zu; %9zu held\n", purpose, info.bytes.in_use,
                info.bytes.max_in_use, info.capacity.in_use);
    else
        complain("no figures of the tag '%s'", purpose);
}

static double secondsSince(uint64 startedNs)
{
    return (double)(int64)(eko_timeNanoSecs() - startedNs) / 1e9;
}

static void sayFigures(const FIGURES* figures, const TEXT* text, const STORE* store, const INDEX* index)
{
    const double seconds = secondsSince(figures->startedNs);
    eko_log("minidb: loaded %u records, %llu bytes of text, %llu bytes of data, in %.3f s\n", figures->records,
            (unsigned long long)text->length, (unsigned long long)(store->end - figures->startedAt), seconds);
    eko_log("minidb: %u of them replace earlier ones; %u keys in all\n", figures->replaced, index->count);
    eko_log("minidb: memory by tag\n");
    sayTag("index", index->tableTag);
    sayTag("keys", index->bytesTag);
    sayTag("lines", text->tag);
    sayTag("buffers", store->tag);
}

static bool loadLines(TEXT* text, STORE* store, INDEX* index, FIGURES* figures)
{
    FOUND found;
    PAIR pair;
    while ((found = textNext(text, &pair)) == FOUND_ONE) {
        bool replaced;
        if (!indexPut(index, &pair, false, store->end, &replaced) || !storeAppend(store, &pair))
            return false;
        figures->records += 1;
        figures->replaced += replaced;
    }
    return found == FOUND_END && storeCommit(store);
}

/* All lines or none: after a fault the data file is as it was. */
static bool loadOpened(TEXT* text, STORE* store, INDEX* index)
{
    FIGURES figures = {0, 0, eko_timeNanoSecs(), store->end};
    if (loadLines(text, store, index, &figures)) {
        sayFigures(&figures, text, store, index);
        return true;
    }
    storeCutBack(store, figures.startedAt);
    return false;
}

bool load(const SETTINGS* settings, const char* textName, const char* storeName)
{
    TEXT text = {0};
    STORE store = {0};
    INDEX index = {0};
    const bool done = textOpen(&text, textName) && indexOpen(&index) &&
                      storeOpen(&store, settings, storeName, STORE_LOAD, &index) &&
                      loadOpened(&text, &store, &index);
    storeClose(&store);
    indexClose(&index);
    textClose(&text);
    return done;
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
static FOUND getOne(STORE* store, const INDEX* index, const char* key, EKO_FILE_STREAM out)
{
    const ENTRY* entry = indexFind(index, key, (uint32)strlen(key));
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
static bool getAll(STORE* store, const INDEX* index, int count, char** keys)
{
    EKO_FILE_STREAM out = eko_fopen_std("stdout");
    if (!out) {
        complain("no standard output");
        return false;
    }
    FOUND found = FOUND_ONE;
    bool all = true;
    for (int i = 0; i < count && found != FOUND_FAULT; ++i) {
        found = getOne(store, index, keys[i], out);
        all = all && found == FOUND_ONE;
    }
    if (!closePrinted(out)) {
        complain("cannot write to standard output");
        all = false;
    }
    return all;
}

static bool get(const SETTINGS* settings, const char* storeName, int count, char** keys)
{
    STORE store = {0};
    INDEX index = {0};
    const bool done = indexOpen(&index) && storeOpen(&store, settings, storeName, STORE_READ, &index) &&
                      getAll(&store, &index, count, keys);
    storeClose(&store);
    indexClose(&index);
    return done;
}

/* ---- check -------------------------------------------------------------------------------------------------- */

typedef struct DIFFERENCES {
    uint32 missing, different, extra;
} DIFFERENCES;

static void differ(uint32* count, const char* what, const PAIR* pair)
{
    if (++*count <= MAX_SHOWN)
        complain("%s: '%.*s'", what, (int)pair->keyLen, pair->key);
}

static bool readText(TEXT* text, INDEX* expected)
{
    FOUND found;
    PAIR pair;
    bool replaced;
    while ((found = textNext(text, &pair)) == FOUND_ONE)
        if (!indexPut(expected, &pair, true, 0, &replaced))
            return false;
    return found == FOUND_END;
}

static void compare(const PAIR* pair, const INDEX* expected, DIFFERENCES* differences)
{
    const ENTRY* line = indexFind(expected, pair->key, pair->keyLen);
    if (!line)
        differ(&differences->extra, "not in the text", pair);
    else if (line->pair.valueLen != pair->valueLen || memcmp(line->pair.value, pair->value, pair->valueLen) != 0)
        differ(&differences->different, "differs", pair);
}

/* In the order of the file, so that it is read once; of each key only the record that counts. */
static bool compareRecords(STORE* store, const INDEX* index, const INDEX* expected, DIFFERENCES* differences)
{
    EKO_FILE_OFFSET next = STORE_FIRST;
    FOUND found = FOUND_ONE;
    while (found == FOUND_ONE) {
        const EKO_FILE_OFFSET at = next;
        PAIR pair;
        found = storeNext(store, &next, &pair);
        if (found == FOUND_ONE && indexFind(index, pair.key, pair.keyLen)->at == at)
            compare(&pair, expected, differences);
    }
    return found == FOUND_END;
}

static void findMissing(const INDEX* index, const INDEX* expected, DIFFERENCES* differences)
{
    for (uint32 i = 0; i < expected->capacity; ++i) {
        const PAIR* pair = &expected->slots[i].pair;
        if (pair->key && !indexFind(index, pair->key, pair->keyLen))
            differ(&differences->missing, "not in the data file", pair);
    }
}

static bool checkOpened(TEXT* text, STORE* store, const INDEX* index, INDEX* expected)
{
    DIFFERENCES differences = {0, 0, 0};
    const uint64 startedNs = eko_timeNanoSecs();
    if (!readText(text, expected) || !compareRecords(store, index, expected, &differences))
        return false;
    findMissing(index, expected, &differences);
    if (differences.missing || differences.different || differences.extra) {
        complain("%s and %s differ: %u missing, %u different, %u extra", store->name, text->name,
                 differences.missing, differences.different, differences.extra);
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
    INDEX index = {0}, expected = {0};
    const bool done = textOpen(&text, textName) && indexOpen(&index) && indexOpen(&expected) &&
                      storeOpen(&store, settings, storeName, STORE_READ, &index) &&
                      checkOpened(&text, &store, &index, &expected);
    storeClose(&store);
    indexClose(&index);
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
static const COMMAND commands[] = {{"load", load, false, true},
                                   {"check", check, true, false},
                                   {"export", exportText, true, false},
                                   {"import", importText, false, true},
                                   {"copy", copyStore, true, true}};

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

/* What the options say goes before what the settings say. */
static int runWithOptions(int count, char** words)
{
    const char *file = "minidb.ini", *backing = NULL, *logFile = NULL;
    for (; count >= 2 && strncmp(words[0], "--", 2) == 0; count -= 2, words += 2) {
        if (strcmp(words[0], "--settings") == 0)
            file = words[1];
        else if (strcmp(words[0], "--backing") == 0)
            backing = words[1];
        else if (strcmp(words[0], "--log") == 0)
            logFile = words[1];
        else
            return usageError();
    }
    if (count == 0)
        return usageError();
    SETTINGS settings;
    if (!settingsRead(&settings, file) || (backing && !settingsTakeBacking(&settings, backing)))
        return 1;
    if (logFile)
        eko_strncpyZ(settings.logFile, logFile, sizeof settings.logFile);
    return runLogged(&settings, count, words);
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
