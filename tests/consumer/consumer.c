/* consumer.c - a C11 program on eko, linked by the C compiler alone.
 *
 * It uses a little of every module, through the functions and through the macros, and says which of its
 * expectations failed. Its one argument is an empty directory to work in. */
#include <eko.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(expr) \
    ((expr) ? (void)0 : (void)(++failures, fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #expr)))

enum { ROUNDS = 1000 };

/* What the threads share. */
typedef struct {
    EKO_SEM mutex;
    EKO_SEM started; /* event: the workers may go */
    int total;       /* guarded by mutex */
} SHARED;

static int32 worker(void* arg)
{
    SHARED* shared = (SHARED*)arg;
    if (eko_syncWait(shared->started, EKO_FOREVER) == 0) {
        for (int i = 0; i < ROUNDS; ++i) {
            eko_syncEnterExcl(shared->mutex);
            ++shared->total;
            eko_syncExitExcl(shared->mutex);
        }
    }
    eko_threadEnd(0);
    return 0;
}

static void useThreads(void)
{
    SHARED shared = {EKO_MUTEX_CREATE(), EKO_EVENT_CREATE(), 0};
    CHECK(shared.mutex != EKO_SEM_INVALID && shared.started != EKO_SEM_INVALID);
    eko_syncStart(shared.started);
    CHECK(eko_syncWait(shared.started, 0) == 1001);

    pthread_t ids[2];
    for (int i = 0; i < 2; ++i)
        CHECK(eko_threadBeginEx(worker, 0, &shared, &ids[i], EKO_PRIORITY_NORMAL, "worker") == 0);
    eko_syncResume(shared.started);
    for (int i = 0; i < 2; ++i)
        CHECK(eko_threadJoin(ids[i]) == 0);
    CHECK(shared.total == 2 * ROUNDS);
    eko_syncDelete(shared.started);
    eko_syncDelete(shared.mutex);

    uint32 counter = 41;
    CHECK(eko_atomicIncrUInt32WithVal(&counter) == 42);
    CHECK(eko_timeSecs() > 1000000000);
}

static void useMemory(void)
{
    EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    CHECK(tag != EKO_TAG_INVALID);
    char* zeros = (char*)EKO_ZALLOC(100, tag);
    CHECK(zeros && zeros[0] == 0 && zeros[99] == 0);
    char* copy = EKO_STRDUP("ABCD", tag);
    CHECK(copy && strcmp(copy, "ABCD") == 0);
    copy = (char*)EKO_EXTEND(copy, 5000, tag);
    CHECK(copy && strcmp(copy, "ABCD") == 0);

    EKO_TAG_MEM_INFO info = {{0, 0}, {0, 0}};
    CHECK(eko_getTagMemInfo(tag, &info) == 0 && info.bytes.in_use >= 5100);
    EKO_FREE(zeros, tag);
    EKO_TAG_DESTROY(tag);
}

static void useText(void)
{
    char text[32];
    CHECK(eko_snprintf(text, sizeof text, "%s %05d|%x", "n", 42, 255u) == 10);
    CHECK(strcmp(text, "n 00042|ff") == 0);

    char* made = EKO_MAKESTR(EKO_THREAD_TAG, "%d%%", 100);
    CHECK(made && strcmp(made, "100%") == 0);
    made = EKO_APPENDSTR(EKO_THREAD_TAG, made, " of %c", 'x');
    CHECK(made && strcmp(made, "100% of x") == 0);
    EKO_FREE(made, EKO_THREAD_TAG);

    wchar_t wide[4];
    CHECK(eko_utf8_to_wchar(wide, "\xE2\x82\xAC", 4, EKO_UTF8_FAIL) == 1 && wide[0] == 0x20AC);
}

/* "DIR/NAME", to be used before the next call. */
static const char* pathIn(const char* dir, const char* name)
{
    static char path[4096];
    eko_snprintf(path, sizeof path, "%s/%s", dir, name);
    return path;
}

static void useFiles(const char* dir)
{
    EKO_FH file = eko_fileOpen(pathIn(dir, "data"), O_RDWR | O_CREAT | O_TRUNC, 0);
    CHECK(file != NULL);
    char back[4] = "";
    CHECK(eko_fileSeekWrite(file, 10, "abc", 3) == 3);
    CHECK(eko_fileSeekRead(file, 11, back, 2) == 2 && strcmp(back, "bc") == 0);
    CHECK(eko_fileLength(file) == 13);
    eko_fileClose(file);
    CHECK(eko_fileLengthStat(pathIn(dir, "none"), 0) == EKO_FILE_NO_OFFSET);

    EKO_FILE_STREAM stream = eko_fopen(pathIn(dir, "text"), "w", EKO_FILE_MODE_UTF8);
    CHECK(stream != NULL);
    CHECK(eko_fprintf(stream, "line %d\nlast", 1) == 11);
    eko_fclose(stream);
    stream = eko_fopen(pathIn(dir, "text"), "r", EKO_FILE_MODE_UNKNOWN);
    char line[16];
    CHECK(eko_fgets(line, (int32)sizeof line, stream) && strcmp(line, "line 1\n") == 0);
    CHECK(eko_fgets(line, (int32)sizeof line, stream) && strcmp(line, "last") == 0);
    CHECK(eko_fgets(line, (int32)sizeof line, stream) == NULL);
    eko_fclose(stream);
}

/* One message goes to the console and, behind a stamp of 24 characters, to the log file. */
static void useLog(const char* dir)
{
    CHECK(eko_log_open(pathIn(dir, "log")) == 0);
    CHECK(eko_log("%d failures so far\n", failures) > 0);
    eko_log_close();

    char line[64] = "";
    EKO_FILE_STREAM log = eko_fopen(pathIn(dir, "log"), "r", EKO_FILE_MODE_UNKNOWN);
    CHECK(eko_fgets(line, (int32)sizeof line, log) != NULL);
    CHECK(line[0] == '[' && strcmp(line + 21, "]  0 failures so far\n") == 0);
    eko_fclose(log);
}

static int32 fillRecord(void* data)
{
    *(int*)data = 7;
    return 0;
}

static void useGlobals(void)
{
    void* first = NULL;
    void* second = NULL;
    CHECK(eko_globalGet("consumer", sizeof(int), fillRecord, NULL, &first) == 0);
    CHECK(eko_globalGet("consumer", sizeof(int), fillRecord, NULL, &second) == 0);
    CHECK(first && first == second && *(int*)first == 7);
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: consumer EMPTY_DIRECTORY\n");
        return 2;
    }
    int16 major = 0, minor = -1, build = 0;
    eko_version(&major, &minor, &build);
    CHECK(major == 12 && minor == 0 && build == 1000);

    CHECK(eko_inited == 0);
    if (eko_init() != 0) {
        fprintf(stderr, "eko_init failed\n");
        return 1;
    }
    CHECK(eko_inited == 1);
    useGlobals();
    useMemory();
    useText();
    useThreads();
    useFiles(argv[1]);
    useLog(argv[1]);
    eko_term();
    CHECK(eko_inited == 0);
    return failures ? 1 : 0;
}
