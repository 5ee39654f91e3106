/* SPDX-License-Identifier: MIT */
/* query.y - the language of queries, such as
 *
 *      category = "Sm" and not (name like "*ARROW*" or key < "2100") order by name desc limit 10
 *
 * All of it may be left out. A condition is the set of the records that it holds for. query.c finds the words,
 * which are the names of the tokens here, and does the rest. */
%define api.prefix {query_}
%define api.token.prefix {QUERY_}
%define api.token.raw
%code requires {
#include "minidb.h"

/* What a field may be, compared with a text: any of the first three, or of the form that a pattern gives. */
enum { LESS = 1, EQUAL = 2, MORE = 4, LIKE = 8 };

typedef struct QUERY {
    const RECORDS* records;
    EKO_MEMTAG tag;
    const char *text, *word, *next; /* all, the last word, and what is behind it */
    bool* wanted;                   /* of each record, whether it is; null for all */
    uint32 order, limit;            /* order: a field; 0 is the key */
    bool descending;
} QUERY;

/* Of each record, whether its field is, compared with the text, one of those. */
bool* queryCompare(const QUERY* q, uint32 field, uint32 allowed, PIECE text);
}
%param {QUERY* q}
%union {
    bool* set; /* of each record, whether it is in */
    PIECE text;
    uint32 number; /* of a field, a limit, or what a comparison allows */
}
%token END 0 "end"
%token AND "and" OR "or" NOT "not" ORDER "order" BY "by" ASC "asc" DESC "desc" LIMIT "limit" OPEN "(" CLOSE ")"
%token IS "=" ISNT "!=" BELOW "<" UPTO "<=" ABOVE ">" FROM ">=" FITS "like"
%token UNKNOWN "unknown word" <number> FIELD "field" <number> NUMBER "number" <text> TEXT "text in quotes"
%left OR
%left AND
%precedence NOT
%type <set> condition
%type <number> compared
%code {
#define EACH(i) for (uint32 i = 0; i < q->records->count; ++i)
}
%%
query: wanted order limit;
wanted: %empty | condition { q->wanted = $1; };
condition: FIELD compared TEXT { $$ = queryCompare(q, $1, $2, $3); }
    | OPEN condition CLOSE { $$ = $2; }
    | NOT condition { $$ = $2; EACH(i) $$[i] = !$2[i]; }
    | condition AND condition { EACH(i) $$[i] = $1[i] && $3[i]; }
    | condition OR condition { EACH(i) $$[i] = $1[i] || $3[i]; };
compared: IS { $$ = EQUAL; } | ISNT { $$ = LESS | MORE; } | BELOW { $$ = LESS; } | UPTO { $$ = LESS | EQUAL; }
    | ABOVE { $$ = MORE; } | FROM { $$ = MORE | EQUAL; } | FITS { $$ = LIKE; };
order: %empty | ORDER BY FIELD direction { q->order = $3; };
direction: %empty | ASC | DESC { q->descending = true; };
limit: %empty | LIMIT NUMBER { q->limit = $2; };
