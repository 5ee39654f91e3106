/* SPDX-License-Identifier: MIT */
/* Sums of products, each ended by ';'. Bison makes two parsers of it, with eko's skeleton and with its own, which has
 * YYBISON. */
%define api.prefix {arithmetic_}
%define api.token.prefix {ARITHMETIC_}
%code requires { struct arithmetic; }
%param {struct arithmetic* a}
%define api.value.type {long long}
%token NUMBER
%left '+' '-' %left '*' '/' %precedence SIGN
%code {
#ifdef YYBISON
int plain_lex(long long* value, struct arithmetic* a);
void plain_error(struct arithmetic* a, const char* message);
#endif
void arithmetic_result(struct arithmetic* a, long long value);
}
%%
text: %empty | text expr ';' { arithmetic_result(a, $2); };
expr: NUMBER
    | expr '+' expr { $$ = $1 + $3; } | expr '-' expr { $$ = $1 - $3; }
    | expr '*' expr { $$ = $1 * $3; } | expr '/' expr { $$ = $3 == 0 ? 0 : $1 / $3; }
    | '-' expr %prec SIGN { $$ = -$2; } | '(' expr ')' { $$ = $2; };
