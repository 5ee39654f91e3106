/* JSON. The value of a value is the number of values in it, itself included. */
%define api.prefix {json_}
%define api.token.prefix {JSON_}
%define api.token.raw
%code requires {
struct json;
typedef struct { unsigned char bytes[3]; } JSON_COUNT; /* a size that fits nowhere */
}
%param {struct json* j}
%define api.value.type {JSON_COUNT}
%token LBRACE "{" RBRACE "}" LBRACKET "[" RBRACKET "]" COMMA "," COLON ":"
%token STRING "string" NUMBER "number" WORD "true, false or null" END 0 "the end"
%code {
JSON_COUNT json_sum(JSON_COUNT a, JSON_COUNT b);
void json_done(struct json* j, JSON_COUNT total);
static const JSON_COUNT one = {{1, 0, 0}};
}
%%
text: value { json_done(j, $1); };
value: "string" { $$ = one; } | "number" { $$ = one; } | "true, false or null" { $$ = one; }
    | "[" elements "]" { $$ = json_sum(one, $2); }
    | "{" members "}" { $$ = json_sum(one, $2); };
elements: %empty | list;
list: value | list "," value { $$ = json_sum($1, $3); };
members: %empty | pairs;
pairs: pair | pairs "," pair { $$ = json_sum($1, $3); };
pair: "string" ":" value { $$ = $3; };
