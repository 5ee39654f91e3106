/* main.c - the commands of minidb. */
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define MAX_MESSAGE_BYTES 8192 /* two paths fit */
#define MAX_SHOWN 10u          /* differences told one by one */

static const char usage[] =
    "usage: minidb [--log FILE] COMMAND\n"
    "  load FILE DB     adds the lines of FILE, each a key, a ';' and a value, to the data file DB\n"
    "  get DB KEY...    prints the records with these keys\n"
    "  check DB FILE    tells whether DB holds exactly what the lines of FILE say, the last one of each key\n"
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

static void sayFigures(const FIGURES* figures, const TEXT* text, const STORE* store, const INDEX* index)
{
    const double seconds = (double)(int64)(eko_timeNanoSecs() - figures->startedNs) / 1e9;
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

static bool load(const char* textName, const char* storeName)
{
    TEXT text = {0};
    STORE store = {0};
    INDEX index = {0};
    const bool done = textOpen(&text, textName) && indexOpen(&index) &&
                      storeOpen(&store, storeName, STORE_LOAD, &index) && loadOpened(&text, &store, &index);
    storeClose(&store);
    indexClose(&index);
    textClose(&text);
    return done;
}

/* ---- get ---------------------------------------------------------------------------------------------------- */

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
    const int32 printed =
        eko_fprintf(out, "%.*s;%.*s\n", (int)pair.keyLen, pair.key, (int)pair.valueLen, pair.value);
    return printed > 0 ? FOUND_ONE : FOUND_FAULT;
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
    if (eko_fseek(out, 0, 1) != 0) {
        complain("cannot write to standard output");
        all = false;
    }
    eko_fclose(out);
    return all;
}

static bool get(const char* storeName, int count, char** keys)
{
    STORE store = {0};
    INDEX index = {0};
    const bool done = indexOpen(&index) && storeOpen(&store, storeName, STORE_READ, &index) &&
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
    if (!readText(text, expected) || !compareRecords(store, index, expected, &differences))
        return false;
    findMissing(index, expected, &differences);
    if (differences.missing || differences.different || differences.extra) {
        complain("%s and %s differ: %u missing, %u different, %u extra", store->name, text->name,
                 differences.missing, differences.different, differences.extra);
        return false;
    }
    eko_log("minidb: %s and %s agree on all %u records\n", store->name, text->name, index->count);
    return true;
}

static bool check(const char* storeName, const char* textName)
{
    TEXT text = {0};
    STORE store = {0};
    INDEX index = {0}, expected = {0};
    const bool done = textOpen(&text, textName) && indexOpen(&index) && indexOpen(&expected) &&
                      storeOpen(&store, storeName, STORE_READ, &index) &&
                      checkOpened(&text, &store, &index, &expected);
    storeClose(&store);
    indexClose(&index);
    indexClose(&expected);
    textClose(&text);
    return done;
}

/* ---- command line ------------------------------------------------------------------------------------------- */

static int run(int count, char** words)
{
    bool done;
    if (count == 3 && strcmp(words[0], "load") == 0)
        done = load(words[1], words[2]);
    else if (count >= 3 && strcmp(words[0], "get") == 0)
        done = get(words[1], count - 2, words + 2);
    else if (count == 3 && strcmp(words[0], "check") == 0)
        done = check(words[1], words[2]);
    else {
        eko_printfErr("%s", usage);
        return 2;
    }
    return done ? 0 : 1;
}

static int runLogged(const char* logName, int count, char** words)
{
    if (eko_log_open(logName) != 0) {
        complain("%s: cannot be opened as the log", logName);
        return 1;
    }
    const int result = run(count, words);
    eko_log_close();
    return result;
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
    const bool logged = argc >= 3 && strcmp(argv[1], "--log") == 0;
    const int result = logged ? runLogged(argv[2], argc - 3, argv + 3) : run(argc - 1, argv + 1);
    eko_term();
    return result;
}
