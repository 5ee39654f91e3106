/* SPDX-License-Identifier: MIT */
/* Ways to get nowhere: recovery that raises the error again or says that all is well, with no token consumed; a list
 * that begins with nothing, any number of times, which only the precedences of what follows can stop. */
%define api.prefix {stubborn_}
%code top {
#define stubborn_lex machine_lex
#define stubborn_error machine_error
}
%code requires { struct machine; }
%param {struct machine* m}
%define api.value.type {unsigned}
%code { unsigned machine_note(struct machine* m, unsigned rule, unsigned value); }
%precedence 'm' %precedence NOTHING %precedence 'n' 'q'
%%
text: 'a' | calm 'b' | 'r' raising 'b' | 'l' list | 'i' item | late 'd';
calm: error { $$ = machine_note(m, 1, $1) + 5; yyerrok; };
late: 'c' error { $$ = machine_note(m, 3, 0); yyerrok; } | 'k' error;
raising: error { machine_note(m, 2, 0); YYERROR; };
list: 'n' | item | nothing list 'x';
nothing: %empty %prec NOTHING;
item: 'm' | 'q';
