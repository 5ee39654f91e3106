// SPDX-License-Identifier: MIT
// The LALR(1) driver: walks a grammar's tables, finds errors before it acts on them, and recovers as yacc does.

#include <string.h>

#include "ekomem_int.h"

namespace {

// Symbols with a meaning to the driver, in every grammar.
constexpr int32 SYMBOL_END = 0;
constexpr int32 SYMBOL_ERROR = 1;
constexpr int32 SYMBOL_UNKNOWN = 2;

constexpr int32 NO_TOKEN = -1;         // the lookahead token has not been asked for
constexpr int32 SHIFTS_TO_RECOVER = 3; // tokens in a row
constexpr size_t FIRST_ROOM = 64;      // states
constexpr size_t ANY_DEPTH = SIZE_MAX; // nothing was recovered from since a token was consumed

// Watches reductions with no token consumed in between: once one makes a state on top of a state as another did, and
// nothing below that has been taken since, they go on for ever. The other is renewed ever more seldom, so that it
// comes to be one of those that repeat. Only grammars with conflicts have such reductions.
struct LOOP_WATCH {
    size_t height = SIZE_MAX; // states below the one made
    int32 under = 0;
    int32 made = 0;
    uint32 count = 0;

    bool loops(size_t newHeight, int32 newUnder, int32 newMade)
    {
        if (newHeight >= height && newUnder == under && newMade == made)
            return true;
        ++count;
        if (newHeight < height || (count & (count - 1)) == 0) {
            height = newHeight;
            under = newUnder;
            made = newMade;
        }
        return false;
    }
};

// One parse. The stack is one block: the value of the lookahead token, the values of the states, then the states.
// The first state has no symbol; its value is where a rule's result is made.
struct PARSER {
    const EKO_YYTABLES* tables;
    EKO_YYLEXFCN lex;
    EKO_YYREDUCEFCN reduce;
    EKO_YYERRORFCN error;
    void* ctx;
    EKO_MEMTAG tag;

    char* block;
    int16* states;
    size_t depth; // states on the stack
    size_t room;  // states that the block can hold

    int32 lookahead;    // symbol, or NO_TOKEN
    bool certain;       // the lookahead token will be shifted, whatever reductions come before
    int32 recovering;   // tokens to shift until errors are reported again
    size_t recoveredAt; // depth at which `error` was shifted with no token consumed since, or ANY_DEPTH
    MemResult memory;
};

// ---- tables -----------------------------------------------------------------------------------------------

// The entry of `table` at row + column, or null when what is there is not of that row or column.
inline const int16* entry(const EKO_YYTABLES& t, int32 index, int32 owner)
{
    return index >= 0 && index <= t.last && t.check[index] == owner ? &t.table[index] : nullptr;
}

inline bool hasOnlyDefault(const EKO_YYTABLES& t, int32 state)
{
    return t.pact[state] == t.pact_ninf;
}

// What to do in a state when a token follows: above 0 shift to that state, below 0 reduce by that rule, 0 an error.
inline int32 actionFor(const EKO_YYTABLES& t, int32 state, int32 token)
{
    const int16* own = hasOnlyDefault(t, state) ? nullptr : entry(t, t.pact[state] + token, token);
    if (!own)
        return -t.defact[state]; // which may look like an error entry, and is none
    return *own == t.table_ninf ? 0 : *own;
}

// The state to shift `error` to, or 0.
int32 errorShift(const EKO_YYTABLES& t, int32 state)
{
    const int16* own = hasOnlyDefault(t, state) ? nullptr : entry(t, t.pact[state] + SYMBOL_ERROR, SYMBOL_ERROR);
    return own && *own > 0 ? *own : 0;
}

// The state after a rule has been reduced on top of `state`.
inline int32 stateAfter(const EKO_YYTABLES& t, int32 state, int32 rule)
{
    const int32 made = t.lhs[rule] - t.tokens;
    const int16* own = entry(t, t.pgoto[made] + state, state);
    return own ? *own : t.defgoto[made];
}

int32 symbolOf(const EKO_YYTABLES& t, int32 code)
{
    if (code <= 0)
        return SYMBOL_END;
    if (code > t.max_code)
        return SYMBOL_UNKNOWN;
    return t.translate ? t.translate[code] : code;
}

// ---- stack ------------------------------------------------------------------------------------------------

// Bytes of a value. The loop is compiled for the commonest widths, and once more for any.
constexpr size_t ANY = 0;
template <size_t SIZE> size_t sizeOfValue(const PARSER& p)
{
    return SIZE != ANY ? SIZE : p.tables->value_size;
}

template <size_t SIZE> void* valueAt(PARSER& p, size_t index)
{
    return p.block + (index + 1) * sizeOfValue<SIZE>(p);
}
void* lookaheadValue(PARSER& p)
{
    return p.block;
}
template <size_t SIZE> void* resultValue(PARSER& p)
{
    return valueAt<SIZE>(p, 0);
}
int32 stateOnTop(const PARSER& p)
{
    return p.states[p.depth - 1];
}

// Bytes of a block for that many states and where the states begin in it; false when there can be no such block.
bool blockLayout(const EKO_YYTABLES& t, size_t room, size_t* statesAt, size_t* size)
{
    size_t values;
    size_t states;
    return addSize(room, 1, &values) && !__builtin_mul_overflow(values, t.value_size, &values) &&
           roundUp(values, alignof(int16), statesAt) && !__builtin_mul_overflow(room, sizeof(int16), &states) &&
           addSize(*statesAt, states, size);
}

// Moves the stack, and what `leadsToShift` has above it, to a block for that many states.
bool moveTo(PARSER& p, size_t room)
{
    size_t statesAt;
    size_t size;
    if (!blockLayout(*p.tables, room, &statesAt, &size))
        return false;
    char* block = static_cast<char*>(tryGetMem(size, p.tag, EKO_MEM_PLAIN, nullptr, &p.memory));
    if (!block)
        return false;
    int16* states = reinterpret_cast<int16*>(block + statesAt);
    if (p.block) {
        memcpy(block, p.block, (p.room + 1) * p.tables->value_size);
        memcpy(states, p.states, p.room * sizeof(int16));
        EKO_FREE(p.block, p.tag);
    }
    p.block = block;
    p.states = states;
    p.room = room;
    return true;
}

// Makes sure that the block can hold that many states.
inline bool makeRoom(PARSER& p, size_t states)
{
    return states <= p.room || moveTo(p, p.room ? 2 * p.room : FIRST_ROOM);
}

// There must be room for it.
template <size_t SIZE> void push(PARSER& p, size_t depth, int32 state, const void* value)
{
    memcpy(valueAt<SIZE>(p, depth), value, sizeOfValue<SIZE>(p));
    p.states[depth] = static_cast<int16>(state);
    p.depth = depth + 1;
}

// ---- looking ahead ----------------------------------------------------------------------------------------

// Whether a token would be shifted in the end, after reductions that are only imagined: 0 yes, EKO_MALFORMED no,
// EKO_NO_MEMORY. The states that these make are kept above the stack, which stays as it is.
int32 leadsToShift(PARSER& p, int32 token)
{
    const EKO_YYTABLES& t = *p.tables;
    size_t below = p.depth; // states of the stack that are still there
    size_t above = 0;       // imagined states on top of them
    int32 state = stateOnTop(p);
    LOOP_WATCH watch;
    for (;;) {
        const int32 action = actionFor(t, state, token);
        if (action >= 0)
            return action > 0 ? EKO_OK : EKO_MALFORMED;
        const size_t length = static_cast<size_t>(t.rhs_length[-action]);
        const size_t fromAbove = length < above ? length : above;
        above -= fromAbove;
        below -= length - fromAbove;
        const int32 under = above > 0 ? p.states[p.depth + above - 1] : p.states[below - 1];
        state = stateAfter(t, under, -action);
        if (watch.loops(below + above, under, state))
            return EKO_MALFORMED;
        if (!makeRoom(p, p.depth + above + 1))
            return EKO_NO_MEMORY;
        p.states[p.depth + above] = static_cast<int16>(state);
        ++above;
    }
}

// Stores the tokens that could come now; their number in `count`.
int32 findExpected(PARSER& p, int16* expected, uint32* count)
{
    *count = 0;
    for (int32 token = 0; token < p.tables->tokens; ++token) {
        if (token == SYMBOL_ERROR || token == SYMBOL_UNKNOWN)
            continue;
        const int32 status = leadsToShift(p, token);
        if (status == EKO_NO_MEMORY)
            return status;
        if (status == EKO_OK)
            expected[(*count)++] = static_cast<int16>(token);
    }
    return EKO_OK;
}

// ---- errors -----------------------------------------------------------------------------------------------

int32 report(PARSER& p)
{
    const size_t size = static_cast<size_t>(p.tables->tokens) * sizeof(int16);
    int16* expected = static_cast<int16*>(tryGetMem(size, p.tag, EKO_MEM_PLAIN, nullptr, &p.memory));
    if (!expected)
        return EKO_NO_MEMORY;
    EKO_YYERROR error{p.tables, expected, 0, p.lookahead, nullptr};
    int32 status = findExpected(p, expected, &error.expected_count);
    error.value = lookaheadValue(p); // after the block has found its place
    if (status == EKO_OK)
        status = p.error(p.ctx, &error);
    EKO_FREE(expected, p.tag);
    return status;
}

// Number of states up to the highest that takes `error`, of the lowest `limit` ones; 0 when none does.
size_t depthForError(const PARSER& p, size_t limit)
{
    size_t depth = p.depth < limit ? p.depth : limit;
    while (depth > 0 && errorShift(*p.tables, p.states[depth - 1]) == 0)
        --depth;
    return depth;
}

// Shifts `error` in that state.
int32 recover(PARSER& p, size_t limit)
{
    p.recovering = SHIFTS_TO_RECOVER;
    p.certain = false;
    p.depth = depthForError(p, limit);
    if (p.depth == 0)
        return EKO_MALFORMED;
    if (!makeRoom(p, p.depth + 1))
        return EKO_NO_MEMORY;
    p.recoveredAt = p.depth;
    memset(resultValue<ANY>(p), 0, sizeOfValue<ANY>(p));
    push<ANY>(p, p.depth, errorShift(*p.tables, stateOnTop(p)), resultValue<ANY>(p));
    return EKO_OK;
}

// The lookahead token cannot be shifted. When recovery came to it, and is not over or would only begin anew at the
// same depth, it is dropped.
int32 syntaxError(PARSER& p)
{
    const bool reported = p.recovering == 0;
    if (reported) {
        const int32 status = report(p);
        if (status != EKO_OK)
            return status;
    }
    if (p.recoveredAt != ANY_DEPTH && (!reported || depthForError(p, ANY_DEPTH) >= p.recoveredAt)) {
        if (p.lookahead == SYMBOL_END)
            return EKO_MALFORMED;
        p.lookahead = NO_TOKEN;
    }
    return recover(p, ANY_DEPTH);
}

// An action has found an error. When one does so again with no token consumed in between, recovering at the same
// depth would bring it about for ever.
int32 raised(PARSER& p)
{
    return recover(p, p.recoveredAt == ANY_DEPTH ? ANY_DEPTH : p.recoveredAt - 1);
}

// ---- steps ------------------------------------------------------------------------------------------------

// Where the loop is: the parser's depth, and the state on top. Kept beside the parser, where the compiler need not
// read them again after each callback.
struct TOP {
    size_t depth;
    int32 state;
};

// After a step that others made.
int32 lookAgain(const PARSER& p, TOP& top, int32 status)
{
    if (status == EKO_OK)
        top = {p.depth, stateOnTop(p)};
    return status;
}

template <size_t SIZE> void pushOn(PARSER& p, TOP& top, int32 state, const void* value)
{
    push<SIZE>(p, top.depth, state, value);
    ++top.depth;
    top.state = state;
}

template <size_t SIZE> int32 readToken(PARSER& p, TOP& top)
{
    int32 code = 0;
    memset(lookaheadValue(p), 0, sizeOfValue<SIZE>(p));
    const int32 status = p.lex(p.ctx, &code, lookaheadValue(p));
    if (status != EKO_OK)
        return status;
    p.lookahead = symbolOf(*p.tables, code);
    if (p.lookahead != SYMBOL_ERROR)
        return EKO_OK;
    p.lookahead = SYMBOL_UNKNOWN; // the callback has reported it
    return lookAgain(p, top, recover(p, ANY_DEPTH));
}

template <size_t SIZE> int32 shift(PARSER& p, TOP& top, int32 state)
{
    if (!makeRoom(p, top.depth + 1))
        return EKO_NO_MEMORY;
    pushOn<SIZE>(p, top, state, lookaheadValue(p));
    p.lookahead = NO_TOKEN;
    p.certain = false;
    p.recoveredAt = ANY_DEPTH;
    if (p.recovering > 0)
        --p.recovering;
    return EKO_OK;
}

template <size_t SIZE> int32 reduceBy(PARSER& p, TOP& top, int32 rule)
{
    const size_t length = static_cast<size_t>(p.tables->rhs_length[rule]);
    if (!makeRoom(p, top.depth + 1)) // here, so that nothing has to move between the action and the push
        return EKO_NO_MEMORY;
    void* result = resultValue<SIZE>(p);
    if (length > 0)
        memcpy(result, valueAt<SIZE>(p, top.depth - length), sizeOfValue<SIZE>(p));
    else
        memset(result, 0, sizeOfValue<SIZE>(p));
    const int32 status = p.reduce(p.ctx, rule, result, valueAt<SIZE>(p, top.depth - 1));
    if (status == EKO_YYERROK)
        p.recovering = 0;
    else if (status != EKO_OK && status != EKO_YYRAISE)
        return status;
    top.depth -= length;
    if (status == EKO_YYRAISE) {
        p.depth = top.depth;
        return lookAgain(p, top, raised(p));
    }
    pushOn<SIZE>(p, top, stateAfter(*p.tables, p.states[top.depth - 1], rule), result);
    return EKO_OK;
}

// A shift, a reduction, or the first step out of an error.
template <size_t SIZE> int32 step(PARSER& p, TOP& top)
{
    const EKO_YYTABLES& t = *p.tables;
    int32 rule = hasOnlyDefault(t, top.state) ? t.defact[top.state] : 0;
    if (rule == 0) {
        if (p.lookahead == NO_TOKEN)
            return readToken<SIZE>(p, top);
        const int32 action = actionFor(t, top.state, p.lookahead);
        if (action > 0)
            return shift<SIZE>(p, top, action);
        const int32 status = action == 0 ? EKO_MALFORMED : p.certain ? EKO_OK : leadsToShift(p, p.lookahead);
        if (status == EKO_MALFORMED)
            return lookAgain(p, top, syntaxError(p));
        if (status != EKO_OK)
            return status;
        p.certain = true;
        rule = -action;
    }
    return reduceBy<SIZE>(p, top, rule);
}

template <size_t SIZE> int32 runFor(PARSER& p)
{
    TOP top = {p.depth, stateOnTop(p)};
    int32 status = EKO_OK;
    while (status == EKO_OK && top.state != p.tables->final_state)
        status = step<SIZE>(p, top);
    return status == EKO_YYACCEPT ? EKO_OK : status;
}

int32 run(PARSER& p)
{
    if (!makeRoom(p, 1))
        return EKO_NO_MEMORY;
    memset(resultValue<ANY>(p), 0, sizeOfValue<ANY>(p));
    push<ANY>(p, 0, 0, resultValue<ANY>(p));
    switch (p.tables->value_size) {
    case 4:
        return runFor<4>(p);
    case 8:
        return runFor<8>(p);
    case 16:
        return runFor<16>(p);
    default:
        return runFor<ANY>(p);
    }
}

// ---- text -------------------------------------------------------------------------------------------------

// Appends to a text of which no more than `size` bytes are stored.
struct TEXT {
    char* str;
    size_t size;
    size_t length;

    void add(const char* part)
    {
        for (; *part; ++part, ++length)
            if (length < size)
                str[length] = *part;
    }
    void end()
    {
        if (size > 0)
            str[length < size ? length : size - 1] = '\0';
    }
};

} // namespace

int32 eko_yyparse(const EKO_YYTABLES* tables, EKO_YYLEXFCN lex, EKO_YYREDUCEFCN reduce, EKO_YYERRORFCN error,
                  void* ctx, EKO_MEMTAG tag)
{
    if (!tables || !lex || !reduce || !error)
        return EKO_BAD_ARGUMENT;
    if (!libraryStarted() || tables->version != EKO_YYVERSION)
        return EKO_FAILED;
    PARSER p{};
    p.tables = tables;
    p.lex = lex;
    p.reduce = reduce;
    p.error = error;
    p.ctx = ctx;
    p.tag = tag;
    p.lookahead = NO_TOKEN;
    p.recoveredAt = ANY_DEPTH;
    const int32 status = run(p);
    if (p.block)
        EKO_FREE(p.block, tag);
    memFail(p.memory, tag, __FILE__, __LINE__);
    return status;
}

size_t eko_yyerrorText(const EKO_YYERROR* error, char* str, size_t size)
{
    if (!error)
        return 0;
    const char* const* names = error->tables->names;
    TEXT text{str, str ? size : 0, 0};
    text.add("unexpected ");
    text.add(names[error->found]);
    for (uint32 i = 0; i < error->expected_count; ++i) {
        text.add(i == 0 ? ", expected " : i + 1 < error->expected_count ? ", " : " or ");
        text.add(names[error->expected[i]]);
    }
    text.end();
    return text.length;
}
