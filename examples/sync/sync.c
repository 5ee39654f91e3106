/* SPDX-License-Identifier: MIT */
/* sync.c - two clerks move money between two accounts, under a mutex, and all begin when the office opens: at an
 * event. */
#include <eko.h>

#define CLERKS 2
#define MOVES 20000

typedef struct BANK {
    EKO_SEM lock; /* guards the balances */
    EKO_SEM open; /* an event */
    int64 left;
    int64 right;
} BANK;

/* [mutex] */
static void move(BANK* bank, int64 amount)
{
    eko_syncEnterExcl(bank->lock);
    bank->left -= amount;
    bank->right += amount;
    eko_syncExitExcl(bank->lock);
}
/* [mutex] */

/* [event] */
static int32 clerk(void* arg)
{
    BANK* bank = arg;
    if (eko_syncWait(bank->open, EKO_FOREVER) == 0) {
        for (int i = 0; i < MOVES; ++i)
            move(bank, 1);
    }
    eko_threadEnd(0);
}

static int32 work(BANK* bank)
{
    pthread_t clerks[CLERKS];
    uint32 hired = 0;
    int32 status = 0;
    eko_syncStart(bank->open); /* a new event is signalled: without this nobody would wait */
    eko_printf("before opening: status %d\n", eko_syncWait(bank->open, 10));
    while (status == 0 && hired < CLERKS) {
        status = eko_threadBeginEx(clerk, 0, bank, &clerks[hired], EKO_PRIORITY_NORMAL, NULL);
        hired += status == 0;
    }
    eko_syncResume(bank->open); /* also after a failure: those who wait are to come home */
    while (hired > 0)
        eko_threadJoin(clerks[--hired]);
    return status;
}
/* [event] */

int main(void)
{
    if (eko_init() != 0)
        return 1;
    BANK bank = {EKO_MUTEX_CREATE(), EKO_EVENT_CREATE(), 100000, 0};
    const int made = bank.lock != EKO_SEM_INVALID && bank.open != EKO_SEM_INVALID;
    const int32 status = made ? work(&bank) : 1003;
    if (status == 0)
        eko_printf("left %lld, right %lld\n", (long long)bank.left, (long long)bank.right);
    else
        eko_log_err("failed with status %d\n", status);
    eko_syncDelete(bank.open);
    eko_syncDelete(bank.lock);
    eko_term();
    return status == 0 ? 0 : 1;
}
