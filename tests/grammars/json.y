/* SPDX-License-Identifier: MIT */
/* JSON. The value of a value is the number of values in it, itself included, in a size that fits nowhere. */
%define api.prefix {json_} %define api.token.prefix {JSON_} %define api.token.raw
%code requires {
struct json { const char* text; unsigned total; };
typedef struct { unsigned char bytes[3]; } JSON_COUNT;
}
%param {struct json* j}
%define api.value.type {JSON_COUNT}
%token LBRACE "{" RBRACE "}" LBRACKET "[" RBRACKET "]" COMMA "," COLON ":"
%token STRING "string" NUMBER "number" WORD "true, false or null" END 0 "the end"
%code {
#define BYTE(n, at) (unsigned char)((n) >> (at))
#define MAKE(n) (JSON_COUNT){{BYTE(n, 0), BYTE(n, 8), BYTE(n, 16)}}
#define COUNT(c) ((c).bytes[0] + (c).bytes[1] * 0x100U + (c).bytes[2] * 0x10000U)
}
%%
text: value { j->total = COUNT($1); };
value: "string" { $$ = MAKE(1); } | "number" { $$ = MAKE(1); } | "true, false or null" { $$ = MAKE(1); }
    | "[" elements "]" { $$ = MAKE(1 + COUNT($2)); } | "{" members "}" { $$ = MAKE(1 + COUNT($2)); };
list: value | list "," value { $$ = MAKE(COUNT($1) + COUNT($3)); };
elements: %empty | list;
members: %empty | pairs;
pairs: pair | pairs "," pair { $$ = MAKE(COUNT($1) + COUNT($3)); };
pair: "string" ":" value { $$ = $3; };
