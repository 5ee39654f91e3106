/* SPDX-License-Identifier: MIT */
/* process.c - a command that is run, an interrupt that ends work in good order, the environment, and the system's
 * text for an error. */
#include <eko.h>
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

/* [interrupt] */
static volatile sig_atomic_t interrupted;

/* Runs as a signal handler does: it sets a flag, and calls nothing of the library. */
static void onInterrupt(void)
{
    interrupted = 1;
}

static uint32 checkpoint(uint32 pages)
{
    uint32 written = 0;
    while (written < pages && !interrupted) {
        ++written;
        if (written == 3)
            raise(SIGINT); /* the user's Ctrl-C */
    }
    return written;
}
/* [interrupt] */

/* [command] */
static int32 runCommand(void)
{
    int32 result = 0;
    eko_flush(); /* in front of what the command prints */
    const int32 status = eko_execfile("echo", &result, "backup of %d tables", 3);
    if (status == 0 && WIFEXITED(result))
        eko_printf("echo ended with %d\n", WEXITSTATUS(result));
    return status;
}
/* [command] */

int main(void)
{
    char text[64];
    if (eko_init() != 0)
        return 1;
    eko_handleInterrupt(onInterrupt);
    const uint32 written = checkpoint(10);
    eko_printf("%s after %u pages\n", interrupted ? "interrupted" : "complete", written);

    const int32 status = runCommand();
    const char* directory = eko_getenv("EKO_EXAMPLE_DIRECTORY");
    eko_printf("the directory is %s\n", directory ? directory : "not set");
    if (eko_strerr(ENOSPC, text, sizeof text) == 0)
        eko_printf("error %d: %s\n", ENOSPC, text);
    if (status != 0)
        eko_log_err("the command was not run: status %d\n", status);
    eko_term();
    return status == 0 ? 0 : 1;
}
