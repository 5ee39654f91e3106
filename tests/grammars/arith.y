/* SPDX-License-Identifier: MIT */
/* Sums and products, one to a line's end ';'. */
%define api.prefix {arith_} %define api.token.prefix {ARITH_}
%code requires { struct arith; }
%param {struct arith* a} %define api.value.type {double}
%token NUMBER _("number")
%left '+' '-' %left '*' '/' %precedence SIGN
%code { void arith_result(struct arith* a, double value); }
%%
text: %empty | text line;
line: expr ';' { arith_result(a, $1); } | error ';' { yyerrok; }
    | '!' { YYACCEPT; } | '?' { YYABORT; } | '#' { YYNOMEM; } | '$' { return 78; };
expr: NUMBER
    | expr '+' expr { $$ = $1 + $3; } | expr '-' expr { $$ = $1 - $3; }
    | expr '*' expr { $$ = $1 * $3; }
    | expr '/' expr { if ($3 == 0) YYERROR; $$ = $1 / $3; }
    | '-' expr %prec SIGN { $$ = -$2; } | '(' expr ')' { $$ = $2; };
