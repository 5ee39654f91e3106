/* SPDX-License-Identifier: MIT */
#include <eko.h>

#include "sum.tab.h"

int32 sum_lex(const char** text, int32* token, SUM_STYPE* value)
{
    *value = **text - '0';
    *token = *value >= 0 && *value <= 9 ? SUM_DIGIT : **text;
    *text += **text != 0;
    return 0;
}

int32 sum_error(const char** text, const EKO_YYERROR* error)
{
    (void)text;
    (void)error;
    return 0;
}

int main(void)
{
    const char* text = "8+9+3";
    eko_init();
    EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    int32 status = sum_parse(&text, tag);
    EKO_TAG_DESTROY(tag);
    eko_term();
    return status;
}
