/* SPDX-License-Identifier: MIT */
/* A language without a meaning that has all that a driver must get right: lists, empty rules, actions inside rules,
 * precedence, operators that do not associate, `error` at two levels, errors that actions raise. Bison makes two
 * parsers of it, with eko's skeleton and with its own, which has YYBISON. Both note each action and each error. The
 * rules' order matters: the default of a state, the empty `closing`, has the number that marks errors in the table. */
%define api.prefix {machine_}
%code requires { struct machine; }
%param {struct machine* m}
%define api.value.type {unsigned}
%left '=' %left '+' %left '*' %nonassoc '<'
%code {
#ifdef YYBISON
int ref_lex(unsigned* value, struct machine* m);
#define ref_error(m, message) (void)(m)
#endif
unsigned machine_note(struct machine* m, unsigned rule, unsigned value);
void machine_reported(struct machine* m, int found, const int* expected, int count);
#define NOTE(rule, value) machine_note(m, rule, value)
}
%%
text: items { $$ = NOTE(1, $1); };
closing: %empty { $$ = NOTE(21, 6); } | ']';
items: %empty { $$ = NOTE(2, 0); } | items item { $$ = NOTE(3, 31 * $1 + $2); };
item: expr ';'
    | '{' { $$ = NOTE(4, 7); } items '}' { $$ = NOTE(5, $2 + $3); }
    | error ';' { yyerrok; $$ = NOTE(6, 1); }
    | 'x' expr ';' { $$ = NOTE(7, $2); if ($2 % 2 == 0) YYERROR; }
    | '[' expr ']' ';' | '[' error closing ';' { $$ = NOTE(20, 2); }
    | 'y' choice 'z' { $$ = NOTE(8, $2); };
choice: %empty { $$ = NOTE(9, 5); } | 'c' | 'c' 'c' { $$ = NOTE(10, $1 - $2); };
expr: 'n' | '(' expr ')' { $$ = NOTE(11, $2); if ($$ % 8 == 3) YYERROR; } | '(' error ')' { $$ = NOTE(12, 3); }
    | expr '=' expr { $$ = NOTE(13, $1 ^ $3); } | expr '+' expr { $$ = NOTE(14, $1 + $3); if ($$ % 4 == 0) YYERROR; }
    | expr '*' expr { $$ = NOTE(15, $1 * $3); } | expr '<' expr { $$ = NOTE(16, $1 < $3); }
    | 'f' '(' arguments ')' { $$ = NOTE(17, $3); };
arguments: %empty { $$ = NOTE(18, 0); } | list;
list: expr | list ',' expr { $$ = NOTE(19, 17 * $1 + $3); };
%%
#ifdef YYBISON
static int yyreport_syntax_error(const yypcontext_t* context, struct machine* m)
{
    yysymbol_kind_t expected[YYNTOKENS];
    const int count = yypcontext_expected_tokens(context, expected, YYNTOKENS);
    machine_reported(m, yypcontext_token(context), (const int*)expected, count);
    return 0;
}
#endif
