/* SPDX-License-Identifier: MIT */
/* uuid.c - gives a database an identifier, stores it as text and reads that back, and refuses one that is none. */
#include <eko.h>
#include <string.h>

/* [uuid] */
static int32 roundTrip(void)
{
    eko_uuid_t made = {0}; /* stays so when none can be made */
    eko_uuid_t read;
    char text[EKO_UUID_TEXT];
    uuid_create(&made);
    int32 status = uuid_toString(&made, text, sizeof text, 0);
    if (status == 0)
        status = uuid_fromString(text, &read);
    if (status == 0)
        eko_printf("version %c, %u characters, %s when read back\n", text[14], (uint32)strlen(text),
                   memcmp(&made, &read, sizeof made) == 0 ? "the same" : "another one");
    return status;
}
/* [uuid] */

/* [read] */
static void show(const char* given)
{
    eko_uuid_t uuid;
    char text[EKO_UUID_TEXT_BRACES];
    int32 status = uuid_fromString(given, &uuid);
    if (status == 0)
        status = uuid_toString(&uuid, text, sizeof text, 1);
    if (status == 0)
        eko_printf("%s\n", text);
    else
        eko_printf("\"%s\" is none: status %d\n", given, status);
}
/* [read] */

int main(void)
{
    if (eko_init() != 0)
        return 1;
    const int32 status = roundTrip();
    show(" {6BA7B810-9DAD-11D1-80B4-00C04FD430C8} ");
    show("6ba7b810-9dad-11d1-80b4");
    eko_term();
    return status == 0 ? 0 : 1;
}
