/* SPDX-License-Identifier: MIT */
/* format.c - formatted text: into a buffer, into new strings, and through a function of one's own. */
#include <eko.h>

/* [append] */
/* A statement that grows piece by piece. Returns null without memory: then a failed append has left its string
 * alone, and the tag's owner frees it with the tag. */
static char* insertStatement(EKO_MEMTAG tag, const char* table, const int* values, uint32 count)
{
    char* text = EKO_MAKESTR(tag, "insert into %s values (", table);
    for (uint32 i = 0; text && i < count; ++i)
        text = EKO_APPENDSTR(tag, text, "%s%d", i > 0 ? ", " : "", values[i]);
    return text ? EKO_APPENDSTR(tag, text, ")") : NULL;
}
/* [append] */

/* [wrapper] */
/* A call of one's own with formats that the compiler checks. */
static char* message(EKO_MEMTAG tag, const char* fmt, ...) EKO_PRINTF_CHECK(2, 3);
static char* message(EKO_MEMTAG tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* text = eko_makeStrV(__FILE__, __LINE__, tag, fmt, args);
    va_end(args);
    return text;
}
/* [wrapper] */

/* [buffer] */
static void intoBuffers(void)
{
    char small[12];
    const int length = eko_snprintf(small, sizeof small, "table %s", "transactions");
    eko_printf("\"%s\" is cut: of %d characters %u fit\n", small, length, (unsigned)(sizeof small - 1));

    wchar_t wide[32];
    const int characters = eko_snwprintf(wide, 32, L"%hs|%5.1f", "na\xC3\xAFve", 2.25); /* UTF-8 into wide text */
    eko_printf("%d wide characters, the third is U+%04X\n", characters, (unsigned)wide[2]);
}
/* [buffer] */

int main(void)
{
    static const int values[] = {7, 12, -3};
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    const char* statement = insertStatement(tag, "stock", values, 3);
    const char* refusal = message(tag, "%-8s|%08.3f|%#x", "page", 3.14159, 0xBEEFu);
    if (statement && refusal)
        eko_printf("%s\n%s\n", statement, refusal);
    intoBuffers();
    EKO_TAG_DESTROY(tag);
    eko_term();
    return statement && refusal ? 0 : 1;
}
