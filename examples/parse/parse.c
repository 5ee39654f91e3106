/* SPDX-License-Identifier: MIT */
/* parse.c - computes expressions over the columns of a row, as a query's select list has them. The grammar is
 * expression.y, which CMake's eko_add_grammar turns into a parser. */
#include <string.h>

#include "expression.tab.h"

static const COLUMN row[] = {{"price", 12}, {"stock", 30}, {NULL, 0}};

/* [lex] */
/* The next token of the text. */
int32 expression_lex(EXPRESSION* e, int32* token, EXPRESSION_STYPE* value)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyz_";
    e->at += strspn(e->at, " ");
    const size_t digits = strspn(e->at, "0123456789");
    const size_t length = strspn(e->at, letters);
    if (digits > 0) {
        *token = EXPRESSION_NUMBER;
        value->EXPRESSION_NUMBER = (double)eko_atoi64(e->at);
        e->at += digits;
        return 0;
    }
    if (length == 0) {
        *token = (uint8)*e->at; /* a sign stands for itself, and the terminator for the end */
        e->at += *e->at != 0;
        return 0;
    }
    for (const COLUMN* column = row; column->name; ++column) {
        if (strlen(column->name) == length && memcmp(column->name, e->at, length) == 0) {
            *token = EXPRESSION_COLUMN;
            value->EXPRESSION_COLUMN = column;
        }
    }
    if (*token != EXPRESSION_COLUMN) {
        eko_printf("%s <- no such column\n", e->at);
        return NO_COLUMN; /* ends the parse, which returns it */
    }
    e->at += length;
    return 0;
}
/* [lex] */

/* [error] */
int32 expression_error(EXPRESSION* e, const EKO_YYERROR* error)
{
    char message[128];
    eko_yyerrorText(error, message, sizeof message);
    eko_printf("%.*s <- %s\n", (int)(e->at - e->text), e->text, message);
    return 1012;
}
/* [error] */

int main(void)
{
    static const char* const texts[] = {"price * (stock + 1)", "2 + 3 * 4 - price", "price * + 2",
                                        "stock * weight"};
    if (eko_init() != 0)
        return 1;
    for (size_t i = 0; i < sizeof texts / sizeof texts[0]; ++i) {
        EXPRESSION e = {.text = texts[i], .at = texts[i]};
        const int32 status = expression_parse(&e, EKO_THREAD_TAG);
        if (status == 0)
            eko_printf("%s = %g\n", texts[i], e.result);
        else
            eko_printf("%s: status %d\n", texts[i], status);
    }
    eko_term();
    return 0;
}
