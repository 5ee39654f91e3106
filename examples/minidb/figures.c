/* SPDX-License-Identifier: MIT */
/* figures.c - how far a load has come, on standard error, and what a command has counted, on standard output.
 *
 * There is one of each in a process, so both are kept here. */
#include <unistd.h>

#include "minidb.h"

#define BAR_WIDTH 30
#define LINE_WIDTH 72 /* so that all of it fits in a terminal's line */

static uint32 percentShown; /* in the bar on the terminal, 0 for none */
static bool json;
static char* figures;

static uint64 millisecondsSince(uint64 startedNs)
{
    return (eko_timeNanoSecs() - startedNs) / 1000000;
}

/* What is quick stays quiet. Then the bar is drawn anew in its place with each percent. */
void progressShow(const TEXT* text, uint64 startedNs, const SETTINGS* settings)
{
    const uint64 ms = millisecondsSince(startedNs) + 1;
    const uint32 percent = (uint32)(text->seen * 100 / text->length);
    if (ms <= settings->number[SHOW_AFTER] * 1000ull || percent == percentShown || !isatty(STDERR_FILENO))
        return;
    const uint32 left = (uint32)((text->length - text->seen) * ms / text->seen / 1000);
    eko_printfErr("\r[%-*.*s] %3u%%, %u KB/s, %u:%02u left    ", BAR_WIDTH, (int)percent * BAR_WIDTH / 100,
                  "##############################", percent, (uint32)(text->seen / ms), left / 60, left % 60);
    eko_flushErr();
    percentShown = percent;
}

void progressWipe(void)
{
    if (percentShown > 0)
        eko_printfErr("\r%*s\r", LINE_WIDTH, "");
    eko_flushErr();
    percentShown = 0;
}

void figuresBegin(const SETTINGS* settings, const char* command, const STORE* store)
{
    char id[EKO_UUID_TEXT];
    uuid_toString(&store->id, id, sizeof id, 0);
    json = settings->number[JSON];
    figures =
        EKO_MAKESTR(EKO_THREAD_TAG,
                    json ? "{\"command\":\"%s\",\"uuid\":\"%s\"" : "minidb: %s\n  uuid           %s", command, id);
}

void figure(const char* name, uint64 value)
{
    figures = EKO_APPENDSTR(EKO_THREAD_TAG, figures, json ? ",\"%s\":%llu" : "\n  %-14s %llu", name,
                            (unsigned long long)value);
}

void figuresEnd(uint64 startedNs)
{
    EKO_TAG_MEM_INFO info;
    const char* purpose;
    figure("milliseconds", millisecondsSince(startedNs));
    for (uint32 i = 0; (purpose = tagFigures(i, &info)) != NULL; ++i)
        if (info.capacity.max_in_use > 0)
            figures =
                EKO_APPENDSTR(EKO_THREAD_TAG, figures, json ? ",\"memory_%s\":%zu" : "\n  memory of %-8s %zu bytes",
                              purpose, info.bytes.in_use);
    NEED(eko_log("%s%s\n", figures, json ? "}" : "") > 0, "standard output cannot be written");
}
