/* SPDX-License-Identifier: MIT */
/* random.c - a load for measurements: accounts in random order, some of them used much more often. The seed is
 * given, so that the same load can be had again; one from the clock is eko_seed(). */
#include <eko.h>

#define ACCOUNTS 8
#define TRANSFERS 100000

/* [shuffle] */
/* Each order is as likely as any other. */
static void shuffle(uint32* items, uint32 count, EKO_RAND rand)
{
    for (uint32 i = count; i > 1; --i) {
        const uint32 other = (uint32)(eko_randGetDouble(rand) * i); /* below i */
        const uint32 item = items[other];
        items[other] = items[i - 1];
        items[i - 1] = item;
    }
}
/* [shuffle] */

/* The square of a share is small more often than large. */
static void transfer(uint32* used, EKO_RAND rand)
{
    for (uint32 i = 0; i < TRANSFERS; ++i) {
        const double share = eko_randGetDouble(rand);
        ++used[(uint32)(share * share * ACCOUNTS)];
    }
}

int main(void)
{
    uint32 accounts[ACCOUNTS];
    uint32 used[ACCOUNTS] = {0};
    if (eko_init() != 0)
        return 1;
    EKO_RAND rand = eko_randCreate(5489);
    if (!rand) {
        eko_term();
        return 1;
    }
    eko_printf("first output %u\n", eko_randGetUInt32(rand));
    for (uint32 i = 0; i < ACCOUNTS; ++i)
        accounts[i] = 100 + i;
    shuffle(accounts, ACCOUNTS, rand);
    transfer(used, rand);
    for (uint32 i = 0; i < ACCOUNTS; ++i)
        eko_printf("account %u: %5.1f %%\n", accounts[i], 100.0 * used[i] / TRANSFERS);
    eko_randDestroy(rand);
    eko_term();
    return 0;
}
