/* SPDX-License-Identifier: MIT */
/* parse.h - a driver for LALR(1) parsers.
 *
 * A grammar is written for GNU Bison, and turned into constant tables and a reduce function by the skeleton
 * tools/bison/eko.m4, which CMake's eko_add_grammar(target file.y) runs. What the skeleton generates calls
 * eko_yyparse; there is rarely a reason to call it directly. The skeleton's head tells how grammars are written.
 *
 *   Text        never seen by the driver. It asks for tokens, one at a time, and only when it cannot go on without:
 *               after the last token of a rule that nothing can continue, it reduces first.
 *   Errors      are found before any action runs that the wrong token would call for: a reduction waits until it is
 *               sure that the token will be shifted. So the tokens that are reported as expected are exactly those
 *               that would have been taken.
 *   Recovery    is that of yacc: states are dropped from the stack until one accepts the token `error`, which then
 *               stands for what was dropped (its value is all zero bytes); tokens are dropped until one can follow.
 *               Errors are not reported again until three tokens in a row were shifted, or an action used yyerrok.
 *               Unlike some, it always comes to an end, whatever actions do: a token that recovery came to is
 *               dropped when the error at it would be recovered from at the same place again; when an action raises
 *               an error again, with no token shifted in between, it is recovered from farther down the stack.
 *   Conflicts   may let the empty beginnings of a list be reduced without end, for tokens that cannot begin it.
 *               Such tokens are errors.
 *   Values      are copied as bytes, when the stack grows too, and nothing is called for those that are dropped:
 *               keep what they point to on a tag, and free the tag.
 *   Stacks      are one block on the caller's tag, which doubles when it is full. The depth is limited by memory
 *               only, and the C stack does not grow. A stack tag keeps outgrown blocks until it is freed: as much
 *               again as the last one.
 *
 * A parse keeps no state outside the call: any number may run at once, in different threads or inside each other's
 * callbacks, over the same tables. A callback may leave by longjmp; the stacks then remain on the tag. */
#ifndef EKO_PARSE_H
#define EKO_PARSE_H

#include "../ekoplat.h"
#include "mem.h"

EKO_EXTERN_C_BEGIN

/** The layout of EKO_YYTABLES that this header describes. */
#define EKO_YYVERSION 1

/** A grammar's tables, as Bison makes them. Symbols are numbered: tokens first, of which 0 is the end of the text,
 *  1 `error` and 2 the token that the grammar does not know; then the symbols that rules make. */
typedef struct EKO_YYTABLES {
    uint32 version;           /**< EKO_YYVERSION */
    uint32 value_size;        /**< bytes of a semantic value, not 0; they need no alignment above 8 */
    int32 tokens;             /**< number of tokens */
    int32 final_state;        /**< the state in which the text is complete */
    int32 last;               /**< last index of `table` and `check` */
    int32 pact_ninf;          /**< in `pact`: the state has nothing but its default */
    int32 table_ninf;         /**< in `table`: a syntax error */
    int32 max_code;           /**< the greatest code of a token */
    const int16* translate;   /**< symbol of a token's code, or null: codes are symbols */
    const int16* pact;        /**< per state: where its row begins in `table` */
    const int16* defact;      /**< per state: the rule to reduce by default, 0 for an error */
    const int16* pgoto;       /**< per symbol of rules: where its column begins in `table` */
    const int16* defgoto;     /**< per symbol of rules: the state to go to by default */
    const int16* table;       /**< above 0 a state to shift to, below 0 the negated rule to reduce by */
    const int16* check;       /**< whose entry `table` has at that index */
    const int16* lhs;         /**< per rule: the symbol it makes */
    const int16* rhs_length;  /**< per rule: the number of symbols it takes */
    const char* const* names; /**< per symbol: how users call it */
} EKO_YYTABLES;

/** A syntax error. Symbols are indexes of tables->names. */
typedef struct EKO_YYERROR {
    const EKO_YYTABLES* tables; /**< the grammar's */
    const int16* expected;      /**< the tokens that could have come, in rising order */
    uint32 expected_count;      /**< how many these are */
    int32 found;                /**< the token that came */
    const void* value;          /**< its value, as the token callback stored it */
} EKO_YYERROR;

/** The next token.
 *  ctx    as given to eko_yyparse; so in all callbacks.
 *  token  receives the token's code; 0 or below is the end of the text. A code that the grammar does not know is a
 *         syntax error; that of `error` is one that the callback has reported itself.
 *  value  receives its value: value_size bytes, all zero before.
 *  Returns 0. Any other value ends the parse, which returns it. */
typedef int32 (*EKO_YYLEXFCN)(void* ctx, int32* token, void* value);

/** Reduces by a rule.
 *  rule    counts from 1 in the order of the grammar, which Bison's report shows (actions inside rules are rules).
 *  result  receives the value of what the rule makes. Preset to the value of the rule's first symbol, or to zero
 *          bytes when the rule has none.
 *  top     the value of the rule's last symbol; those of the others stand in front of it.
 *  Returns 0, or one of the three below. Any other value ends the parse, which returns it. */
typedef int32 (*EKO_YYREDUCEFCN)(void* ctx, int32 rule, void* result, void* top);

/** What a reduce callback may return besides 0. */
#define EKO_YYACCEPT INT32_MIN      /**< ends the parse with 0, from whatever callback */
#define EKO_YYRAISE (INT32_MIN + 1) /**< the rule is an error, which the callback has reported: recover from it */
#define EKO_YYERROK (INT32_MIN + 2) /**< goes on, and recovery is over: report the next error, however soon */

/** Told of a syntax error, outside of recovery. `error` and all in it are valid during the call. The token found is
 *  the last one that the token callback gave: where that one stands, the error is.
 *  Returns 0 to recover. Any other value ends the parse, which returns it. */
typedef int32 (*EKO_YYERRORFCN)(void* ctx, const EKO_YYERROR* error);

/** Parses a text.
 *  tag  holds the stacks, which are freed before the call returns.
 *  Returns 0 when the text follows the grammar, also after errors that were recovered from, or an action accepted
 *  it; 1012 when an error cannot be recovered from; 1002 when the library is not started or the tables are of
 *  another version; 1003 when there is no such tag, or no memory on it for the stacks, which is reported, after
 *  which the call leaves by longjmp if the tag has a jump buffer; 1013 for an argument other than ctx and tag that
 *  is null, or what a callback returned. */
EKO_API int32 eko_yyparse(const EKO_YYTABLES* tables, EKO_YYLEXFCN lex, EKO_YYREDUCEFCN reduce,
                          EKO_YYERRORFCN error, void* ctx, EKO_MEMTAG tag);

/** What is to be said of a syntax error, such as: unexpected end of text, expected and, or or order. Lists all that
 *  was expected, by the names of the tables. Stores at most `size` bytes, the terminator included; str may be null
 *  when size is 0. Returns the length of the whole text; 0 for a null error. */
EKO_API size_t eko_yyerrorText(const EKO_YYERROR* error, char* str, size_t size);

EKO_EXTERN_C_END

#endif
