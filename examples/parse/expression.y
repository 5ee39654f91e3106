/* SPDX-License-Identifier: MIT */
/* expression.y - sums and products of numbers and columns. tools/bison/eko.m4 tells how grammars are written. */
%define api.prefix {expression_}
%define api.token.prefix {EXPRESSION_}
%code requires {
typedef struct COLUMN {
    const char* name;
    double value;
} COLUMN;

typedef struct EXPRESSION {
    const char* text;
    const char* at; /* where the next token is looked for */
    double result;
} EXPRESSION;

#define NO_COLUMN 2 /* a status of our own */
}
%param {EXPRESSION* e}
%define api.value.type union
%token END 0 "end of text"
%token <double> NUMBER "number"
%token <const COLUMN*> COLUMN "column"
%nterm <double> sum
%left '+' '-'
%left '*'
%%
expression: sum { e->result = $1; };
sum: NUMBER
    | COLUMN { $$ = $1->value; }
    | sum '+' sum { $$ = $1 + $3; }
    | sum '-' sum { $$ = $1 - $3; }
    | sum '*' sum { $$ = $1 * $3; }
    | '(' sum ')' { $$ = $2; };
