/* SPDX-License-Identifier: MIT */
/* strutil.c - takes a command of a user apart: its words, a number among them, and a name for a field of fixed
 * size. */
#include <eko.h>
#include <string.h>

typedef struct TRANSFER {
    int64 amount;
    char account[8]; /* as stored: filled with zeros, terminated also when it is cut */
} TRANSFER;

/* [words] */
/* The words lie in `line`, which is cut up; their array is on the tag. */
static int32 parse(char* line, TRANSFER* transfer, EKO_MEMTAG tag)
{
    const char** words = NULL;
    uint32 count = 0;
    const int32 status = eko_tokenize(line, " ,", &words, &count, 1, tag);
    if (status != 0)
        return status;
    if (count != 4 || strcmp(words[0], "send") != 0 || strcmp(words[2], "to") != 0)
        return 1012;
    transfer->amount = eko_atoi64(words[1]);
    eko_strncpyZ(transfer->account, words[3], sizeof transfer->account);
    strupr(transfer->account);
    return 0;
}
/* [words] */

int main(void)
{
    char lines[][40] = {"send 9000000000 to  anna", "send 12, to bartholomew", "send 12"};
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    for (int i = 0; i < 3; ++i) {
        TRANSFER transfer;
        const int32 status = parse(lines[i], &transfer, tag);
        if (status == 0)
            eko_printf("%lld to %s\n", (long long)transfer.amount, transfer.account);
        else
            eko_printf("not understood: status %d\n", status);
    }
    EKO_TAG_DESTROY(tag);
    eko_term();
    return 0;
}
