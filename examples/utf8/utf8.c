/* SPDX-License-Identifier: MIT */
/* utf8.c - names between UTF-8, in which they are stored, and wide characters, of which each is one code point; and
 * what becomes of bytes that are no text. */
#include <eko.h>

/* [convert] */
static int32 lengths(const char* name, EKO_MEMTAG tag)
{
    const wchar_t* wide = eko_convToWchar(name, EKO_UTF8_FAIL, tag);
    const char* back = wide ? eko_convToUTF8(wide, EKO_UTF8_FAIL, tag) : NULL;
    if (!back)
        return 1012;
    uint32 characters = 0;
    while (wide[characters])
        ++characters;
    eko_printf("%s: %u characters, the first is U+%04X\n", back, characters, (unsigned)wide[0]);
    return 0;
}
/* [convert] */

/* [broken] */
/* A name in Latin-1, which an old client has sent. */
static void broken(EKO_MEMTAG tag)
{
    static const char name[] = "Ren\xE9 B.";
    const wchar_t* refused = eko_convToWchar(name, EKO_UTF8_FAIL, tag);
    const wchar_t* replaced = eko_convToWchar(name, EKO_UTF8_REPLACE, tag);
    const wchar_t* dropped = eko_convToWchar(name, EKO_UTF8_DROP, tag);
    if (!refused && replaced && dropped)
        eko_printf("refused, or \"%s\", or \"%s\"\n", eko_convToUTF8(replaced, EKO_UTF8_FAIL, tag),
                   eko_convToUTF8(dropped, EKO_UTF8_FAIL, tag));
}
/* [broken] */

int main(void)
{
    uint8 bytes[4];
    uint32 count = 0;
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(STACK_ALLOCATOR);
    int32 status = lengths("\xC3\x85ngstr\xC3\xB6m", tag);
    if (status == 0)
        status = lengths("\xE6\x9D\xB1\xE4\xBA\xAC", tag);
    broken(tag);
    if (status == 0)
        status = eko_utf8_codes(0x20AC, bytes, &count);
    if (status == 0)
        eko_printf("the euro sign is %u bytes: %02X %02X %02X\n", count, bytes[0], bytes[1], bytes[2]);
    else
        eko_log_err("no text: status %d\n", status);
    EKO_TAG_DESTROY(tag);
    eko_term();
    return status == 0 ? 0 : 1;
}
