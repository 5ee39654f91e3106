/* SPDX-License-Identifier: MIT */
/* log.c - reports that go to the console and to a log file, one of them put together in pieces. Then it shows what
 * the log file holds, without the times. */
#include <eko.h>
#include <string.h>

/* [log] */
static int32 work(const char* name)
{
    static const char* const tables[] = {"stock", "orders", "people"};
    const int32 status = eko_log_open(name);
    if (status != 0)
        return status;
    eko_log("checkpoint of %d tables\n", 3);

    EKO_LOG_CHUNK line = eko_log_chunk_init();
    for (int i = 0; i < 3; ++i)
        eko_log_chunk(line, " %s", tables[i]);
    eko_log_chunk_end(line, "\n"); /* written as one: no other thread's report comes between */

    const int32 silenced = eko_stdout_open(NULL);
    eko_log("%u dirty pages written\n", 17U); /* to the log alone */
    if (silenced == 0)
        eko_stdout_close(); /* a close too many would silence the console for good */
    eko_log_close();
    return 0;
}
/* [log] */

static int32 show(const char* name)
{
    char line[128];
    EKO_FILE_STREAM log = eko_fopen(name, "r", EKO_FILE_MODE_UTF8);
    if (!log)
        return 1002;
    while (eko_fgets(line, sizeof line, log)) {
        const char* stamp = strstr(line, "]  ");
        eko_printf("in the log: %s", stamp ? stamp + 3 : line);
    }
    eko_fclose(log);
    return 0;
}

int main(void)
{
    uint32 counter = 0;
    if (eko_init() != 0)
        return 1;
    const char* name = eko_fileCreateTmpName(&counter, "engine", "log", 0, EKO_THREAD_TAG);
    int32 status = name ? work(name) : 1003;
    if (status == 0)
        status = show(name);
    if (status != 0)
        eko_log_err("no log: status %d\n", status);
    eko_fileRemove(name);
    eko_term();
    return status == 0 ? 0 : 1;
}
