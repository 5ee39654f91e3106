/* SPDX-License-Identifier: MIT */
/* progress.c - how far a load has come, on standard error.
 *
 * At first nothing is shown, so what is quick stays quiet. Then a terminal has a bar, drawn anew in its place up to
 * ten times a second and wiped before anything else is said; elsewhere a line tells of each tenth but the last.
 * There is one standard error and one load in a process, so what is shown is kept here. */
#include <unistd.h>

#include "minidb.h"

#define REDRAW_SECONDS 0.1
#define BAR_WIDTH 30
#define RATE_WIDTH 34 /* each bar covers the one before, and all of it fits in a terminal's line */

static struct {
    double seconds; /* at which the last bar was drawn */
    uint32 tenths;  /* told so far */
    bool bar;
} shown;

static void drawBar(int percent, const char* rate)
{
    static const char full[] = "##############################", rest[] = "..............................";
    const int filled = percent * BAR_WIDTH / 100;
    eko_printfErr("\r[%.*s%.*s] %3d%%  %-*s", filled, full, BAR_WIDTH - filled, rest, percent, RATE_WIDTH, rate);
    eko_flushErr();
    shown.bar = true;
}

void progressShow(const TEXT* text, uint64 startedNs, const SETTINGS* settings)
{
    const double seconds = secondsSince(startedNs), part = (double)text->seen / (double)text->length;
    if (seconds <= settings->progressAfter || part <= 0)
        return;
    char rate[RATE_WIDTH + 1];
    const uint32 left = (uint32)(seconds / part - seconds), tenths = (uint32)(part * 10);
    eko_snprintf(rate, sizeof rate, "%.1f MB/s, %u:%02u left", (double)text->seen / seconds / 1e6, left / 60,
                 left % 60);
    if (isatty(STDERR_FILENO)) {
        if (!shown.bar || seconds >= shown.seconds + REDRAW_SECONDS) {
            shown.seconds = seconds;
            drawBar((int)(part * 100), rate);
        }
    } else if (tenths > shown.tenths && tenths < 10) {
        shown.tenths = tenths;
        eko_printfErr("minidb: %s: %u0%%, %s\n", text->name, tenths, rate);
        eko_flushErr();
    }
}

void progressWipe(void)
{
    if (!shown.bar)
        return;
    shown.bar = false;
    eko_printfErr("\r%*s\r", BAR_WIDTH + RATE_WIDTH + 9, "");
    eko_flushErr();
}
