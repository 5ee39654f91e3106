/* SPDX-License-Identifier: MIT */
/* figures.c - how far a load has come, on standard error, and what a command has counted, on standard output. */
#include <string.h>
#include <unistd.h>

#include "minidb.h"

#define BAR_WIDTH 30

static uint32 percentShown; /* 0 for none */
static char* figures;

static uint64 millisecondsSince(uint64 startedNs)
{
    return (eko_timeNanoSecs() - startedNs) / 1000000;
}

/* What is quick stays quiet. Then a terminal gets a bar, drawn anew with each percent, all else a line with ten. */
void progressShow(const TEXT* text, uint64 startedNs)
{
    const bool terminal = isatty(STDERR_FILENO);
    const uint64 ms = millisecondsSince(startedNs) + 1;
    const uint32 percent = (uint32)(text->seen * 100 / text->length), step = terminal ? 1 : 10;
    if (ms <= settings.number[SHOW_AFTER] * 1000ull || percent / step == percentShown / step)
        return;
    const uint32 left = (uint32)((text->length - text->seen) * ms / text->seen / 1000);
    if (terminal)
        eko_printfErr("\r[%-*.*s] ", BAR_WIDTH, (int)percent * BAR_WIDTH / 100, "##############################");
    eko_printfErr("%3u%%, %u KB/s, %u:%02u left%s", percent, (uint32)(text->seen / ms), left / 60, left % 60,
                  terminal ? "    " : "\n");
    eko_flushErr();
    percentShown = percent;
}

void progressWipe(void)
{
    if (percentShown > 0 && isatty(STDERR_FILENO))
        eko_printfErr("\r%72s\r", "");
    eko_flushErr();
    percentShown = 0;
}

void figuresBegin(const char* command, const STORE* store)
{
    char id[EKO_UUID_TEXT];
    uuid_toString(&store->id, id, sizeof id, 0);
    const char* form =
        settings.number[JSON] ? "{\"command\":\"%s\",\"uuid\":\"%s\"" : "minidb: %s\n  uuid           %s";
    figures = EKO_MAKESTR(EKO_THREAD_TAG, form, command, id);
}

void figure(const char* name, uint64 value)
{
    const char* form = settings.number[JSON] ? ",\"%s\":%llu" : "\n  %-14s %llu";
    figures = EKO_APPENDSTR(EKO_THREAD_TAG, figures, form, name, (unsigned long long)value);
}

void figuresEnd(uint64 startedNs)
{
    const char* form = settings.number[JSON] ? ",\"memory_%s\":%zu" : "\n  memory of %-8s %zu bytes";
    EKO_TAG_MEM_INFO info;
    figure("milliseconds", millisecondsSince(startedNs));
    for (uint32 i = 0; i < tagCount; ++i)
        if (eko_getTagMemInfo(tags[i].tag, &info) == 0 && info.capacity.max_in_use > 0)
            figures = EKO_APPENDSTR(EKO_THREAD_TAG, figures, form, tags[i].purpose, info.bytes.in_use);
    figures = EKO_APPENDSTR(EKO_THREAD_TAG, figures, settings.number[JSON] ? "}" : "");
    RECORD all = {.line = {figures, (uint32)strlen(figures)}};
    textWrite(&(RECORDS){.items = &all, .count = 1}, NULL); /* eko_log would not tell of a full disk */
}
