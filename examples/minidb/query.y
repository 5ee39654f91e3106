/* SPDX-License-Identifier: MIT */
/* query.y - the language of queries, such as
 *
 *      category = "Sm" and not (name like "*ARROW*" or key < "2100") order by name desc limit 10
 *
 * All of it may be left out. query.c finds the words and does what is asked for. */
%define api.prefix {query_}
%define api.token.prefix {QUERY_}
%code requires {
#include "minidb.h"

typedef struct WORD {
    const char* bytes;
    uint32 len;
} WORD;

/* What a field may be, compared with a text: any of the first three, or of the form that a pattern gives. */
enum { LESS = 1, EQUAL = 2, MORE = 4, LIKE = 8 };

/* A condition: a comparison, or two conditions that must both hold, or one of them. */
typedef struct CONDITION {
    const struct CONDITION* left; /* null for a comparison */
    const struct CONDITION* right;
    bool both;
    bool negated;
    uint32 field;
    uint32 compared;
    WORD operand;
} CONDITION;

typedef struct QUERY {
    const SETTINGS* settings;
    const char* text;
    const char* at;        /* where the next word is looked for */
    const char* word;      /* where the last one begins */
    EKO_MEMTAG tag;        /* the conditions and what was found */
    CONDITION* condition;  /* null when all records are asked for */
    uint32 order;          /* a field */
    bool ordered, descending;
    uint32 limit;
} QUERY;

#define NO_FIELD UINT32_MAX /* a word that is no field's name: to be told only where a field may stand */
int32 noSuchField(const QUERY* q);
}
%param {QUERY* q}
%union {
    CONDITION* condition;
    WORD word;
    uint32 number; /* a field's, a limit, or what a comparison allows */
}
%token END 0 "end"
%token <number> FIELD "field name" COMPARED "comparison" NUMBER "number"
%token <word> TEXT "text in quotes"
%token OPEN "'('" CLOSE "')'" NOT "'not'" AND "'and'" OR "'or'"
%token ORDER "'order'" BY "'by'" ASC "'asc'" DESC "'desc'" LIMIT "'limit'"
%left OR
%left AND
%precedence NOT
%type <condition> condition comparison
%type <number> field
%code {
/* Null without memory, of which the library has told. */
static CONDITION* make(QUERY* q, CONDITION made)
{
    return EKO_DUP(&made, sizeof made, q->tag);
}
}
%%
query: wanted order limit;
wanted: %empty | condition { q->condition = $1; };
condition: comparison
    | OPEN condition CLOSE { $$ = $2; }
    | NOT condition { $$ = $2; $$->negated = !$$->negated; }
    | condition AND condition { $$ = make(q, (CONDITION){.left = $1, .right = $3, .both = true}); if (!$$) YYNOMEM; }
    | condition OR condition { $$ = make(q, (CONDITION){.left = $1, .right = $3}); if (!$$) YYNOMEM; };
comparison: field COMPARED TEXT
    { $$ = make(q, (CONDITION){.field = $1, .compared = $2, .operand = $3}); if (!$$) YYNOMEM; };
field: FIELD { if ($1 == NO_FIELD) return noSuchField(q); $$ = $1; };
order: %empty | ORDER BY field direction { q->order = $3; q->ordered = true; };
direction: %empty | ASC | DESC { q->descending = true; };
limit: %empty | LIMIT NUMBER { q->limit = $2; };
