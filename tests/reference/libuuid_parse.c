/* SPDX-License-Identifier: MIT */
/* Reads texts, one a line, and writes for each "+" and the 16 bytes that libuuid reads in it, or "-" and 16 "~". */
#include <stdio.h>
#include <string.h>
#include <uuid/uuid.h>

int main(void)
{
    char line[1000];
    while (fgets(line, sizeof(line), stdin)) {
        uuid_t uuid;
        line[strcspn(line, "\n")] = 0;
        if (uuid_parse(line, uuid) == 0) {
            putchar('+');
        } else {
            putchar('-');
            memset(uuid, '~', sizeof(uuid));
        }
        fwrite(uuid, sizeof(uuid), 1, stdout);
    }
    return 0;
}
