/* consumer.c - a C11 program on eko, linked by the C compiler alone.
 *
 * It uses a little of most modules, through the functions and through the macros, and says which of its
 * expectations failed. Its one argument is an empty directory to work in. */
#include <eko.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(expr) \
    ((expr) ? (void)0 : (void)(++failures, fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #expr)))

static EKO_SEM started; /* event: the worker may go */

static int32 worker(void* arg)
{
    CHECK(arg == &started && eko_syncWait(started, EKO_FOREVER) == 0);
    eko_threadEnd(0);
    return 0;
}

static void useThreads(void)
{
    pthread_t id;
    started = EKO_EVENT_CREATE();
    eko_syncStart(started);
    CHECK(eko_threadBeginEx(worker, 0, &started, &id, EKO_PRIORITY_NORMAL, "worker") == 0);
    eko_syncResume(started);
    CHECK(eko_threadJoin(id) == 0);
    eko_syncDelete(started);
}

static void useMemoryAndText(void)
{
    EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    const char* zeros = (const char*)EKO_ZALLOC(100, tag);
    CHECK(zeros && zeros[99] == 0);
    const char* copy = (const char*)EKO_EXTEND(EKO_STRDUP("ABCD", tag), 5000, tag);
    CHECK(copy && strcmp(copy, "ABCD") == 0);
    const char* made = EKO_APPENDSTR(tag, EKO_MAKESTR(tag, "%d%%", 100), " of %c", 'x');
    CHECK(made && strcmp(made, "100% of x") == 0);
    EKO_TAG_DESTROY(tag);
    wchar_t wide[4];
    CHECK(eko_utf8_to_wchar(wide, "\xE2\x82\xAC", 4, EKO_UTF8_FAIL) == 1 && wide[0] == 0x20AC);
}

/* One message goes to the console and, behind a stamp of 24 characters, to the log file. */
static void useFilesAndLog(const char* dir)
{
    char path[4096], line[64] = "";
    eko_snprintf(path, sizeof path, "%s/%s", dir, "log");
    CHECK(eko_log_open(path) == 0 && eko_log("%d failures so far\n", failures) > 0);
    eko_log_close();
    EKO_FH file = eko_fileOpen(path, O_RDONLY, 0);
    CHECK(eko_fileSeekRead(file, 21, line, sizeof line) == 21 && strcmp(line, "]  0 failures so far\n") == 0);
    eko_fileClose(file);
}

int main(int argc, char** argv)
{
    if (argc != 2 || eko_init() != 0)
        return 1;
    useMemoryAndText();
    useThreads();
    useFilesAndLog(argv[1]);
    eko_term();
    return failures ? 1 : 0;
}
