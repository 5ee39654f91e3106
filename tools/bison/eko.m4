# SPDX-License-Identifier: MIT
# eko.m4 - makes GNU Bison write parsers that run on eko_yyparse. CMake's eko_add_grammar(target file.y) uses it:
#
#   bison --skeleton=.../tools/bison/eko.m4 --header --output=query.tab.c query.y
#
# What a grammar file looks like:
#
#   %define api.prefix {query_}         names begin with it: query_parse; types and tokens as Bison has it: QUERY_STYPE
#   %define api.token.prefix {QUERY_}   tokens are QUERY_NUMBER, and QUERY_error, QUERY_UNDEF, QUERY_EOF
#   %code requires { struct query; }    goes into query.tab.h, in front of the declarations
#   %param {struct query* q}            one, a pointer: what the actions, query_lex and query_error get
#   %define api.value.type union        or {type}, or %union
#   %token EOF 0 "end of text"          texts are what error messages call a token
#   %token <int> NUMBER "number"        its value is value->QUERY_NUMBER; with %union, the member in <>
#   %nterm <int> sum
#   %%
#   sum: NUMBER | sum '+' NUMBER { $$ = $1 + $3; } | error { $$ = 0; yyerrok; };
#
# query.tab.h declares, in C and for C++:
#
#   int32 query_parse(struct query* q, EKO_MEMTAG tag);                       runs eko_yyparse; its statuses
#   int32 query_lex(struct query* q, int32* token, QUERY_STYPE* value);       to be written: EKO_YYLEXFCN
#   int32 query_error(struct query* q, const EKO_YYERROR* error);             to be written: EKO_YYERRORFCN
#   int32 query_reduce(struct query* q, int32 rule, QUERY_STYPE* yyval, QUERY_STYPE* yyvsp);
#   extern const EKO_YYTABLES query_tables;
#
# In query_lex '+' is the code of '+'. A code that the grammar does not know is called "invalid token" in messages;
# to say more, say it there and give the token QUERY_error.
#
# In actions: YYACCEPT, YYERROR, yyerrok as in yacc; YYABORT ends the parse with 1012, YYNOMEM with 1003, and
# `return status;` with any status. An action that may be left by longjmp: parse.h.
#
# Names of tokens in _() are stored as they are, in N_() where the grammar defines that.
#
# There are no locations (put them into the values), no %destructor and %printer (values live on a tag), no
# %initial-action, no yyclearin, yychar, yynerrs and YYRECOVERING, no GLR and no push parsers.

m4_include(b4_skeletonsdir/[c.m4])

# The names of the tokens that every grammar has begin once with the prefix, not twice, when tokens have one.
m4_ifval(m4_quote(b4_percent_define_get([[api.token.prefix]])),
[m4_define([b4_symbol(-2, id)], [[EMPTY]])
m4_if(_b4_symbol(0, id), [YYEOF], [m4_define([b4_symbol(0, id)], [[EOF]])])
m4_define([b4_symbol(1, id)], [[error]])
m4_define([b4_symbol(2, id)], [[UNDEF]])])

# ---- what cannot be had ---------------------------------------------------------------------------------------

b4_percent_define_default([[api.push-pull]], [[pull]])
b4_percent_define_use([[parse.error]]) dnl whatever it says, names are without quotes and all is reported
b4_percent_define_use([[parse.lac]]) dnl which the driver always does

# eko_refuse(CONDITION, WHAT)
m4_define([eko_refuse], [m4_if([$1], [1], [b4_fatal([[eko.m4 knows no %s]], [$2])])])

eko_refuse(b4_glr_flag, [[GLR parsers]])
eko_refuse(b4_nondeterministic_flag, [[GLR parsers]])
eko_refuse(b4_locations_if([1], [0]), [[locations]])
eko_refuse(m4_ifdef([b4_initial_action], [1], [0]), [[%initial-action]])
eko_refuse(m4_if(b4_percent_define_get([[api.push-pull]]), [pull], [0], [1]), [[push parsers]])

# eko_refuse_of_symbol(NUMBER)
m4_define([eko_refuse_of_symbol],
[eko_refuse(b4_symbol_if([$1], [has_destructor], [1], [0]), [[%destructor]])dnl
eko_refuse(b4_symbol_if([$1], [has_printer], [1], [0]), [[%printer]])])
b4_divert_kill([b4_symbol_foreach([eko_refuse_of_symbol])])

# eko_count(LIST)
m4_define([eko_count], [$#])
m4_if(m4_quote(b4_parse_param), [], [b4_fatal([[eko.m4 needs one %param]])],
      m4_eval(eko_count(b4_parse_param) != 1), [1], [b4_fatal([[eko.m4 knows one %param only]])])

# The tables are int16. Of those not named here none can be out of range when these are not.
m4_if(m4_eval(b4_last > 32767 || b4_states_number > 32767 || b4_rules_number > 32767 || b4_code_max > 32767 ||
              b4_last_symbol > 32767),
      [1], [b4_fatal([[the grammar is too large for eko.m4]])])

# ---- pieces of the output ---------------------------------------------------------------------------------------

m4_define([eko_value], [b4_api_PREFIX[]STYPE])
m4_define([eko_decl], [b4_formals(b4_parse_param)])
m4_define([eko_arg], [b4_args(b4_parse_param)])

# What $$ and $1 stand for.
m4_define([b4_lhs_value], [b4_symbol_value([(*yyval)], [$1], [$2])])
m4_define([b4_rhs_value], [b4_symbol_value([yyvsp@{b4_subtract([$2], [$1])@}], [$3], [$4])])

# eko_table(NAME, VALUES)
m4_define([eko_table], [[static const int16 ]$1[@{@} = {
]$2[
};
]])

# ---- the header ---------------------------------------------------------------------------------------------

b4_output_begin([b4_spec_header_file])[
/* Made by GNU Bison ]b4_version_string[ from a grammar. */
]b4_cpp_guard_open([b4_spec_mapped_header_file])[

#include "eko.h"

]b4_percent_code_get([[requires]])[
]b4_token_enums[
]b4_value_type_define[
EKO_EXTERN_C_BEGIN

extern const EKO_YYTABLES ]b4_prefix[tables;
int32 ]b4_prefix[parse(]eko_decl[, EKO_MEMTAG tag);
int32 ]b4_prefix[lex(]eko_decl[, int32* token, ]eko_value[* value);
int32 ]b4_prefix[error(]eko_decl[, const EKO_YYERROR* error);
int32 ]b4_prefix[reduce(]eko_decl[, int32 rule, ]eko_value[* yyval, ]eko_value[* yyvsp);

EKO_EXTERN_C_END

]b4_percent_code_get([[provides]])[
]b4_cpp_guard_close([b4_spec_mapped_header_file])[
]b4_output_end

# ---- the parser ---------------------------------------------------------------------------------------------

b4_output_begin([b4_parser_file_name])[
/* Made by GNU Bison ]b4_version_string[ from a grammar. */
]b4_percent_code_get([[top]])[
#include "@basename(]b4_spec_header_file[@)"

]b4_user_pre_prologue[
]b4_user_post_prologue[
]b4_percent_code_get[
/* A value has to fit into the driver's stack. */
_Static_assert(_Alignof(]eko_value[) <= 8, "the values of a grammar are aligned to 8 bytes at most");

]b4_api_token_raw_if([], [eko_table([yytranslate], [b4_translate])])[
]eko_table([yypact], [b4_pact])[
]eko_table([yydefact], [b4_defact])[
]eko_table([yypgoto], [b4_pgoto])[
]eko_table([yydefgoto], [b4_defgoto])[
]eko_table([yytable], [b4_table])[
]eko_table([yycheck], [b4_check])[
]eko_table([yylhs], [b4_r1])[
]eko_table([yylength], [b4_r2])[
#define YY_NULLPTR NULL /* Bison's end of a list */
]b4_has_translations_if([[#ifndef N_
#define N_(name) name
#endif
]])[static const char* const yynames[] = {
]b4_symbol_names[
};

const EKO_YYTABLES ]b4_prefix[tables = {
    .version = EKO_YYVERSION,
    .value_size = sizeof(]eko_value[),
    .tokens = ]b4_tokens_number[,
    .final_state = ]b4_final_state_number[,
    .last = ]b4_last[,
    .pact_ninf = ]b4_pact_ninf[,
    .table_ninf = ]b4_table_ninf[,
    .max_code = ]b4_api_token_raw_if([m4_eval(b4_tokens_number - 1)], [b4_code_max])[,
    .translate = ]b4_api_token_raw_if([[NULL]], [[yytranslate]])[,
    .pact = yypact,
    .defact = yydefact,
    .pgoto = yypgoto,
    .defgoto = yydefgoto,
    .table = yytable,
    .check = yycheck,
    .lhs = yylhs,
    .rhs_length = yylength,
    .names = yynames,
};

#define YYACCEPT return EKO_YYACCEPT
#define YYERROR return EKO_YYRAISE
#define YYABORT return 1012
#define YYNOMEM return 1003
#define yyerrok (yystatus = EKO_YYERROK)

int32 ]b4_prefix[reduce(]eko_decl[, int32 rule, ]eko_value[* yyval, ]eko_value[* yyvsp)
{
    int32 yystatus = 0;
    (void)]eko_arg[;
    (void)yyval;
    (void)yyvsp;
    switch (rule) {
]b4_user_actions[
    default:
        break;
    }
    return yystatus;
}

/* The driver's callbacks, whose pointers have no types. */

static int32 yylexCallback(void* ctx, int32* token, void* value)
{
    return ]b4_prefix[lex(ctx, token, value);
}

static int32 yyreduceCallback(void* ctx, int32 rule, void* result, void* top)
{
    return ]b4_prefix[reduce(ctx, rule, result, top);
}

static int32 yyerrorCallback(void* ctx, const EKO_YYERROR* error)
{
    return ]b4_prefix[error(ctx, error);
}

int32 ]b4_prefix[parse(]eko_decl[, EKO_MEMTAG tag)
{
    return eko_yyparse(&]b4_prefix[tables, yylexCallback, yyreduceCallback, yyerrorCallback, ]eko_arg[, tag);
}
]b4_percent_code_get([[epilogue]])[]b4_epilogue[]dnl
b4_output_end
