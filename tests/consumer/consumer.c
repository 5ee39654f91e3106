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

/* What the threads share. */
static struct {
    EKO_SEM mutex;
    EKO_SEM started; /* event: the worker may go */
    int total;       /* guarded by mutex */
} shared;

static int32 worker(void* arg)
{
    CHECK(arg == &shared && eko_syncWait(shared.started, EKO_FOREVER) == 0);
    eko_syncEnterExcl(shared.mutex);
    ++shared.total;
    eko_syncExitExcl(shared.mutex);
    eko_threadEnd(0);
    return 0;
}

static void useThreads(void)
{
    shared.mutex = EKO_MUTEX_CREATE();
    shared.started = EKO_EVENT_CREATE();
    eko_syncStart(shared.started);
    pthread_t id;
    CHECK(eko_threadBeginEx(worker, 0, &shared, &id, EKO_PRIORITY_NORMAL, "worker") == 0);
    eko_syncResume(shared.started);
    CHECK(eko_threadJoin(id) == 0 && shared.total == 1);
    eko_syncDelete(shared.started);
    eko_syncDelete(shared.mutex);
    uint32 counter = 41;
    CHECK(eko_atomicIncrUInt32WithVal(&counter) == 42);
    CHECK(eko_timeSecs() > 1000000000);
}

static void useMemoryAndText(void)
{
    EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    char* zeros = (char*)EKO_ZALLOC(100, tag);
    CHECK(zeros && zeros[99] == 0);
    char* copy = (char*)EKO_EXTEND(EKO_STRDUP("ABCD", tag), 5000, tag);
    CHECK(copy && strcmp(copy, "ABCD") == 0);
    EKO_FREE(zeros, tag);
    EKO_TAG_DESTROY(tag);

    char* made = EKO_MAKESTR(EKO_THREAD_TAG, "%d%%", 100);
    made = EKO_APPENDSTR(EKO_THREAD_TAG, made, " of %c", 'x');
    CHECK(made && strcmp(made, "100% of x") == 0);
    EKO_FREE(made, EKO_THREAD_TAG);
    wchar_t wide[4];
    CHECK(eko_utf8_to_wchar(wide, "\xE2\x82\xAC", 4, EKO_UTF8_FAIL) == 1 && wide[0] == 0x20AC);
}

/* One message goes to the console and, behind a stamp of 24 characters, to the log file. */
static void useFilesAndLog(const char* dir)
{
    char path[4096], line[64] = "";
    eko_snprintf(path, sizeof path, "%s/%s", dir, "data");
    EKO_FH file = eko_fileOpen(path, O_RDWR | O_CREAT | O_TRUNC, 0);
    CHECK(eko_fileSeekWrite(file, 10, "abc", 3) == 3 && eko_fileLength(file) == 13);
    eko_fileClose(file);

    eko_snprintf(path, sizeof path, "%s/%s", dir, "log");
    CHECK(eko_log_open(path) == 0 && eko_log("%d failures so far\n", failures) > 0);
    eko_log_close();
    EKO_FILE_STREAM log = eko_fopen(path, "r", EKO_FILE_MODE_UNKNOWN);
    CHECK(eko_fgets(line, (int32)sizeof line, log) && strcmp(line + 21, "]  0 failures so far\n") == 0);
    eko_fclose(log);
}

int main(int argc, char** argv)
{
    int16 major = 0, minor = -1, build = 0;
    eko_version(&major, &minor, &build);
    CHECK(major == 12 && minor == 0 && build == 1000);
    if (argc != 2 || eko_init() != 0)
        return 1;
    void* record = NULL;
    CHECK(eko_globalGet("consumer", sizeof(int), NULL, NULL, &record) == 0 && record);
    useMemoryAndText();
    useThreads();
    useFilesAndLog(argv[1]);
    eko_term();
    CHECK(eko_inited == 0);
    return failures ? 1 : 0;
}
