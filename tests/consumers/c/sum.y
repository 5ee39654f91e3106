/* SPDX-License-Identifier: MIT */
%define api.prefix {sum_} %define api.token.prefix {SUM_}
%param {const char** text} %define api.value.type {int}
%token DIGIT "digit"
%%
text: sum { eko_log("%d\n", $1); };
sum: DIGIT | sum '+' DIGIT { $$ = $1 + $3; };
