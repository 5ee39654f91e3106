// SPDX-License-Identifier: MIT
// The parser driver: results, reports, recovery, and bison's own parser as the measure of each step.
// GRAMMAR: grammars/arith.y
// GRAMMAR: grammars/json.y
// GRAMMAR: grammars/machine.y
// GRAMMAR: grammars/stubborn.y
// REFERENCE: grammars/machine.y

#include <regex.h>

#include <cmath>
#include <random>

#include "arith.tab.h"
#include "json.tab.h"
#include "machine.tab.h"
#include "stubborn.tab.h"
#include "support/faults.h"
#include "support/fixture.h"

namespace {
std::string textOf(const EKO_YYERROR* error)
{
    std::string text(eko_yyerrorText(error, nullptr, 0), ' ');
    EXPECT_EQ(eko_yyerrorText(error, text.data(), text.size() + 1), text.size());
    char part[9];
    EXPECT_EQ(eko_yyerrorText(error, part, sizeof(part)), text.size());
    EXPECT_EQ(part, text.substr(0, 8));
    return text;
}
} // namespace

// ---- sums ---------------------------------------------------------------------------------------------------

struct arith {
    const char* text;
    std::string said = {};
    int32 answer = 0; // of the error callback
};
extern "C" void arith_result(arith* a, double value)
{
    a->said += std::to_string(std::lround(value)) + "|";
}
int32 arith_lex(arith* a, int32* token, double* value)
{
    EXPECT_EQ(*value, 0);
    a->text += strspn(a->text, " ");
    if (*a->text == '@') { // a text within the text
        arith inner{a->text + 1};
        EXPECT_EQ(arith_parse(&inner, EKO_THREAD_TAG), 0);
        a->said += "<" + inner.said + ">";
        a->text = inner.text;
    }
    if (isdigit(*a->text)) {
        *token = ARITH_NUMBER;
        *value = strtod(a->text, const_cast<char**>(&a->text));
        return 0;
    }
    *token = *a->text == 'E' ? int32{ARITH_error} : *a->text == '~' ? 9999 : *a->text;
    a->text += *a->text != '\0';
    return *token == '&' ? 77 : 0;
}
int32 arith_error(arith* a, const EKO_YYERROR* error)
{
    a->said += textOf(error) + "|";
    return a->answer;
}

class Parse : public EkoTest {};

TEST_F(Parse, SumsErrorsAndStatuses)
{
    const std::string begin = "number, '-' or '('", go = "'+', '-', '*', '/' or ";
    const struct {
        const char* text;
        int32 status;
        std::string said;
    } cases[] = {{"", 0, ""},
                 {"1+2*3; -4-5-6; (1+2)*-3;", 0, "7|-15|-9|"},
                 {"@1;!2+@3;!4;", 0, "<1|><3|>6|"},
                 {"1; 2", 1012, "1|unexpected end of file, expected " + go + "';'|"},
                 {"1+;2;", 0, "unexpected ';', expected " + begin + "|2|"},
                 {"(1;2;", 0, "unexpected ';', expected " + go + "')'|2|"},
                 {"(1 2 3 + +; 4 5; 6;", 0,
                  "unexpected number, expected " + go + "')'|unexpected number, expected " + go + "';'|6|"},
                 {"1~; E; 2;", 0, "unexpected invalid token, expected " + go + "';'|2|"},
                 {"1/0; 5;", 0, "5|"}, // the action found that error
                 {"1; !;", 0, "1|"},
                 {"1; ?;", 1012, "1|"},
                 {"1; #;", 1003, "1|"},
                 {"1; $;", 78, "1|"},
                 {"1; & 2;", 77, "1|"}};
    for (const auto& c : cases) {
        arith a{c.text};
        EXPECT_EQ(arith_parse(&a, EKO_THREAD_TAG), c.status) << c.text;
        EXPECT_EQ(a.said, c.said) << c.text;
    }
    arith stopped{"1+;2;", {}, 79};
    EXPECT_EQ(arith_parse(&stopped, EKO_THREAD_TAG), 79);
    EXPECT_EQ(eko_yyerrorText(nullptr, nullptr, 0), 0U);
}

TEST_F(Parse, RefusesWhatItCannotRun)
{
    EKO_YYTABLES other = arith_tables;
    const auto parse = [&](int missing, EKO_MEMTAG tag) {
        const EKO_YYLEXFCN lex = [](void*, int32*, void*) { return int32{0}; };
        const EKO_YYREDUCEFCN reduce = [](void*, int32, void*, void*) { return int32{0}; };
        const EKO_YYERRORFCN error = [](void*, const EKO_YYERROR*) { return int32{0}; };
        return eko_yyparse(missing == 1 ? nullptr : &other, missing == 2 ? nullptr : lex,
                           missing == 3 ? nullptr : reduce, missing == 4 ? nullptr : error, nullptr, tag);
    };
    for (const int missing : {0, 1, 2, 3, 4})
        EXPECT_EQ(parse(missing, EKO_GLOBAL_TAG), missing ? 1013 : 0);
    EXPECT_EQ(parse(0, EKO_TAG_INVALID), 1003);
    other.version = EKO_YYVERSION + 1;
    EXPECT_EQ(parse(0, EKO_GLOBAL_TAG), 1002);
}

// ---- JSON ---------------------------------------------------------------------------------------------------

int32 json_lex(json* j, int32* token, JSON_COUNT*)
{
    static const char marks[] = "{}[],:";
    static const char* const words[] = {R"(^"([^"\\[:cntrl:]]|\\(["\\/bfnrt]|u[[:xdigit:]]{4}))*")",
                                        R"(^-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][-+]?[0-9]+)?)", "^(true|false|null)"};
    while (*j->text != 0 && strchr(" \t\r\n", *j->text)) // strspn may look at all that follows
        ++j->text;
    if (const char* mark = strchr(marks, *j->text)) {
        *token = *mark ? JSON_LBRACE + static_cast<int32>(mark - marks) : 0;
        j->text += *mark != '\0';
        return 0;
    }
    regex_t compiled;
    regmatch_t match;
    bool differs = true;
    for (*token = JSON_STRING; differs && *token <= JSON_WORD; *token += differs) {
        EXPECT_EQ(regcomp(&compiled, words[*token - JSON_STRING], REG_EXTENDED), 0);
        differs = regexec(&compiled, j->text, 1, &match, 0) != 0;
        regfree(&compiled);
    }
    j->text += differs ? 0 : match.rm_eo;
    return 0; // when all differ, a token that there is not
}
int32 json_error(json*, const EKO_YYERROR* error)
{
    EXPECT_LT(error->found, error->tables->tokens);
    return 0;
}

// Each text is behind the number of its values, or behind 0 when it is none. Threads share the tables.
TEST_F(Parse, JsonTexts)
{
    const std::string texts = R"(1 []#3 [1,[]]#8 ["a", ["\\x15"], -0.5E+07, 0, 1e1, null]#3 {"a":1,"a":2}
12 [1,[2,[3,{"a":null,"":{"b":[true,false]}}]]]#2 ["\"\\\/\b\f\n\r\t\u0aF9"]#0 [   , "missing value"]
0 ["unclosed array"#0 {unquoted: "key"}#0 ["extra comma",]#0 ["double extra comma",,]#0 ["comma after the close"],
0 ["extra close"]]#0 {"a": true,}#0 {"extra value": 1} "x"#0 {"sum": 1 + 2}#0 {"call": f()}#0 ["\x15"]#0 [\naked]
0 ["\017"]#0 ["\u00g0"]#0 ['single quote']#0 ["open#0 {"no colon" null}#0 {"two colons":: null}#0 {"comma", null}
0 ["colon": 0]#0 {"comma for brace": true,#0 {"a":1]}#0 {1:2}#0 {"a"}#0 [1 2]#0 [#0 {"a":#0 [1}#0 {]#0 [truth]
0 0,#0 ["a	tab"]#0 [0e]#0 [0e+]#0 [0e+-1]#0 [1.]#0 [.1]#0 [-]#0 [013]#0 [0x14]#0 )";
    inThreads(4, [&](uint32) {
        for (size_t at = 0, end; at < texts.size(); at = end + 1) {
            end = std::min(texts.find_first_of("#\n", at), texts.size());
            const std::string text = texts.substr(at, end - at);
            char* begin;
            const unsigned long total = strtoul(text.c_str(), &begin, 10);
            json j{begin, 0};
            EXPECT_EQ(json_parse(&j, EKO_THREAD_TAG), total ? 0 : 1012) << text;
            EXPECT_EQ(total ? j.total : 0, total) << text;
        }
        eko_releaseTLSTag();
    });
}

// On every allocator, a stack tag's among them, which has to make do without giving back. Around each depth at which
// the stack grows an empty rule is reduced.
TEST_F(Parse, DepthIsLimitedByMemoryOnly)
{
    for (const EKO_ALLOCATOR_TYPE type : {LIST_ALLOCATOR, BLOCK_ALLOCATOR, STACK_ALLOCATOR}) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        for (uint32 depth = 1; depth <= 100'000; depth = depth == 270 ? 100'000 : depth + 1) {
            const std::string open(depth, '['), text = open + std::string(depth, ']');
            json whole{text.c_str(), 0}, part{open.c_str(), 0};
            EXPECT_EQ(json_parse(&whole, tag), 0);
            EXPECT_EQ(whole.total, depth);
            EXPECT_EQ(json_parse(&part, tag), 1012);
        }
        EKO_TAG_DESTROY(tag);
    }
}

// Also while the tokens are found that could come, which takes states above a stack that may have no more room.
TEST_F(Parse, MemoryRunsOutAtEveryPush)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    std::mt19937 random(1);
    for (uint32 depth = 0; depth < 80; ++depth) {
        std::string text = "1", end = ";) 1;";
        for (uint32 i = 0; i < depth; ++i)
            text = (random() % 2 ? "1+" : (end.insert(0, ")"), "(")) + text;
        const std::string ones = std::to_string(std::count(text.begin(), text.end(), '1')) + "|unexpected";
        text += end;
        const std::string statuses = exhaust(tag, [&] {
            arith a{text.c_str()};
            const int32 status = arith_parse(&a, tag);
            EXPECT_TRUE(status != 0 || a.said.starts_with(ones)) << ones << ", " << a.said;
            return status;
        });
        EXPECT_TRUE(matches(statuses, "(1003 ){2,5}0 ")) << text << ": " << statuses;
    }
    eko_resetTag(&exhaustedJump, tag);
    const auto leave = [&] {
        json j{"[1,2]", 0};
        return json_parse(&j, tag);
    };
    EXPECT_EQ(exhaust(tag, leave), "jump 0 ");
    EKO_TAG_DESTROY(tag);
}

// ---- recovery -------------------------------------------------------------------------------------------------

// What a parser did: its actions with their values, its reports.
struct machine {
    std::string tokens, done = {};
    size_t next = 0;
};
extern "C" unsigned machine_note(machine* m, unsigned rule, unsigned value)
{
    m->done += std::to_string(rule) + ":" + std::to_string(value) + " ";
    return value;
}
extern "C" void machine_reported(machine* m, int found, const int* expected, int count)
{
    m->done += "[" + std::to_string(found) + ":";
    for (int i = 0; i < count; ++i)
        m->done += " " + std::to_string(expected[i]);
    m->done += "] ";
}
extern "C" int ref_lex(unsigned* value, machine* m)
{
    const char token = m->next < m->tokens.size() ? m->tokens[m->next] : '\0';
    *value = static_cast<unsigned>(++m->next);
    return token == 'E' ? 256 : token;
}
extern "C" int ref_parse(machine* m);
int32 machine_lex(machine* m, int32* token, unsigned* value)
{
    *token = ref_lex(value, m);
    return 0;
}
int32 machine_error(machine* m, const EKO_YYERROR* error)
{
    const std::vector<int> expected(error->expected, error->expected + error->expected_count);
    machine_reported(m, error->found, expected.data(), static_cast<int>(expected.size()));
    EXPECT_EQ(*static_cast<const unsigned*>(error->value), m->next);
    return 0;
}

TEST_F(Parse, ComesToAnEnd)
{
    const struct {
        const char *text, *done;
        int32 status;
    } cases[] = {{"xxb", "[15: 7 9 10 11 13 14] 1:0 [15: 8] 1:0 [15: 8] 1:0 ", 0},
                 {"rxb", "[15:] 2:0 1:0 [15: 8] 1:0 ", 0},
                 {"cb", "[8:] 3:0 [8: 12] 1:0 ", 0},
                 {"r", "[0:] 2:0 1:0 [0: 8] ", 1012},
                 {"lmb", "[3: 5 6] 1:0 [3: 8] 1:0 ", 0},
                 {"kb", "[8:] 1:0 [0: 8] ", 1012}};
    for (const auto& c : cases) {
        machine m{c.text};
        EXPECT_EQ(stubborn_parse(&m, EKO_THREAD_TAG), c.status) << c.text;
        EXPECT_EQ(m.done, c.done) << c.text;
    }
}

TEST_F(Parse, DoesWhatBisonsOwnParserDoes)
{
    const char* const pieces[] = {"n",     "n+n*n", "(", ")",     ";",   "n;", "{", "}",      "x",    "xn;",
                                  "xn+n;", "f(",    ",", "n=n=n", "n<n", "<n", "[", "]",      "[n+n", "yz;",
                                  "ycz;",  "yccz",  "=", "+",     "E",   "?",  "*", "n;n;n;", "f()",  "(n)"};
    std::mt19937 random(1);
    uint32 ended[2] = {};
    for (int i = 0; i < 20'000; ++i) {
        machine ours;
        for (size_t left = random() % 12; left > 0; --left)
            ours.tokens += pieces[random() % std::size(pieces)];
        if (random() % 2)
            ours.tokens += ";";
        machine theirs{ours.tokens};
        const int32 status = machine_parse(&ours, EKO_THREAD_TAG);
        ++ended[status != 0];
        ASSERT_EQ(status, ref_parse(&theirs) == 0 ? 0 : 1012) << ours.tokens;
        ASSERT_EQ(ours.done, theirs.done) << ours.tokens;
        ASSERT_EQ(ours.next, theirs.next) << ours.tokens;
    }
    EXPECT_TRUE(ended[0] > 5000 && ended[1] > 1000) << ended[0] << " " << ended[1];
}
