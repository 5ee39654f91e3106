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
    EKO_MEMTAG tag = EKO_THREAD_TAG;

    int32 parse() { return arith_parse(this, tag); }
};
extern "C" void arith_result(arith* a, double value)
{
    a->said += std::to_string(std::lround(value)) + "|";
}
int32 arith_lex(arith* a, int32* token, double* value)
{
    EXPECT_EQ(*value, 0);
    char* end;
    a->text += strspn(a->text, " ");
    if (*a->text == '@') { // a text within the text
        arith inner{a->text + 1};
        EXPECT_EQ(inner.parse(), 0);
        a->said += "<" + inner.said + ">";
        a->text = inner.text;
    }
    if (isdigit(*a->text)) {
        *token = ARITH_NUMBER;
        *value = strtod(a->text, &end);
        a->text = end;
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
    } cases[] = {
        {"", 0, ""},
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
        {"1; & 2;", 77, "1|"},
    };
    for (const auto& c : cases) {
        arith a{c.text};
        EXPECT_EQ(a.parse(), c.status) << c.text;
        EXPECT_EQ(a.said, c.said) << c.text;
    }
    arith stopped{"1+;2;", {}, 79};
    EXPECT_EQ(stopped.parse(), 79);
    EXPECT_EQ(eko_yyerrorText(nullptr, nullptr, 0), 0U);
}

TEST_F(Parse, RefusesWhatItCannotRun)
{
    const auto lex = [](void*, int32*, void*) { return int32{0}; };
    const auto reduce = [](void*, int32, void*, void*) { return int32{0}; };
    const auto error = [](void*, const EKO_YYERROR*) { return int32{0}; };
    EKO_YYTABLES other = arith_tables;
    EXPECT_EQ(eko_yyparse(&other, lex, reduce, error, nullptr, EKO_GLOBAL_TAG), 0);
    EXPECT_EQ(eko_yyparse(&other, lex, reduce, error, nullptr, EKO_TAG_INVALID), 1003);
    EXPECT_EQ(eko_yyparse(nullptr, lex, reduce, error, nullptr, EKO_GLOBAL_TAG), 1013);
    EXPECT_EQ(eko_yyparse(&other, nullptr, reduce, error, nullptr, EKO_GLOBAL_TAG), 1013);
    EXPECT_EQ(eko_yyparse(&other, lex, nullptr, error, nullptr, EKO_GLOBAL_TAG), 1013);
    EXPECT_EQ(eko_yyparse(&other, lex, reduce, nullptr, nullptr, EKO_GLOBAL_TAG), 1013);
    other.version = EKO_YYVERSION + 1;
    EXPECT_EQ(eko_yyparse(&other, lex, reduce, error, nullptr, EKO_GLOBAL_TAG), 1002);
}

// ---- JSON ---------------------------------------------------------------------------------------------------

struct json {
    const char* text;
    uint32 total = 0;
    EKO_MEMTAG tag = EKO_THREAD_TAG;

    int32 parse() { return json_parse(this, tag); }
};
static uint32 countOf(JSON_COUNT c)
{
    return c.bytes[0] + c.bytes[1] * 256U + c.bytes[2] * 65536U;
}
extern "C" JSON_COUNT json_sum(JSON_COUNT a, JSON_COUNT b)
{
    const uint32 sum = countOf(a) + countOf(b);
    return {{static_cast<uint8>(sum), static_cast<uint8>(sum >> 8), static_cast<uint8>(sum >> 16)}};
}
extern "C" void json_done(json* j, JSON_COUNT total)
{
    j->total = countOf(total);
}
// Length of the match that begins the text; 0 when there is none.
static size_t begins(const char* text, const char* pattern)
{
    regex_t compiled;
    regmatch_t match{0, 0};
    EXPECT_EQ(regcomp(&compiled, pattern, REG_EXTENDED), 0);
    regexec(&compiled, text, 1, &match, 0);
    regfree(&compiled);
    return static_cast<size_t>(match.rm_eo);
}
int32 json_lex(json* j, int32* token, JSON_COUNT*)
{
    static const char marks[] = "{}[],:";
    j->text += strspn(j->text, " \t\r\n");
    size_t length = 1;
    if (const char* mark = strchr(marks, *j->text))
        *token = *mark ? JSON_LBRACE + static_cast<int32>(mark - marks) : 0;
    else if ((length = begins(j->text, R"(^"([^"\\[:cntrl:]]|\\(["\\/bfnrt]|u[[:xdigit:]]{4}))*")")))
        *token = JSON_STRING;
    else if ((length = begins(j->text, R"(^-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][-+]?[0-9]+)?)")))
        *token = JSON_NUMBER;
    else if ((length = begins(j->text, "^(true|false|null)")))
        *token = JSON_WORD;
    else
        *token = JSON_UNDEF;
    j->text += *token ? length : 0;
    return 0;
}
int32 json_error(json*, const EKO_YYERROR*)
{
    return 0;
}

TEST_F(Parse, JsonTexts)
{
    const struct {
        const char* text;
        uint32 total; // values
    } right[] = {
        {R"([])", 1},
        {R"( { } )", 1},
        {R"(["a", ["\\x15"], -0.5E+07, 0, 1e1, null])", 8},
        {R"([1,[2,[3,{"a":null,"":{"b":[true,false]}}]]])", 12},
        {R"(["\"\\\/\b\f\n\r\t\u0aF9"])", 2},
        {R"({"a":1,"a":2})", 3},
    };
    for (const auto& c : right) {
        json j{c.text};
        EXPECT_EQ(j.parse(), 0) << c.text;
        EXPECT_EQ(j.total, c.total) << c.text;
    }
    const std::string wrong = R"(["unclosed array"
{unquoted: "key"}
["extra comma",]
["double extra comma",,]
[   , "missing value"]
["comma after the close"],
["extra close"]]
{"a": true,}
{"extra value": 1} "x"
{"sum": 1 + 2} # {"call": f()} # ["\x15"] # [\naked] # ["\017"] # ["\u00g0"] # ['single quote'] # ["open
{"no colon" null} # {"two colons":: null} # {"comma", null} # ["colon": 0] # {"comma for brace": true,
{"a":1]} # {1:2} # {"a"} # [1 2] # [ # {"a": # [1} # {] # [truth] # 0, # ["a	tab"]
[0e] # [0e+] # [0e+-1] # [1.] # [.1] # [-] # [013] # [0x14] #  # )";
    for (size_t at = 0, end; at < wrong.size(); at = end + 1) {
        end = std::min(wrong.find_first_of("#\n", at), wrong.size());
        const std::string text = wrong.substr(at, end - at);
        json j{text.c_str()};
        EXPECT_EQ(j.parse(), 1012) << text;
    }
}

// On every allocator, a stack tag's among them, which has to make do without giving back. Around each depth at which
// the stack grows an empty rule is reduced.
TEST_F(Parse, DepthIsLimitedByMemoryOnly)
{
    for (const EKO_ALLOCATOR_TYPE type : {LIST_ALLOCATOR, BLOCK_ALLOCATOR, STACK_ALLOCATOR}) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        for (uint32 depth = 1; depth <= 100'000; depth = depth == 270 ? 100'000 : depth + 1) {
            const std::string open(depth, '['), text = open + std::string(depth, ']');
            json j{text.c_str(), 0, tag};
            EXPECT_EQ(j.parse(), 0);
            EXPECT_EQ(j.total, depth);
            EXPECT_EQ((json{open.c_str(), 0, tag}.parse()), 1012);
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
            arith a{text.c_str(), {}, 0, tag};
            const int32 status = a.parse();
            EXPECT_TRUE(status != 0 || a.said.starts_with(ones)) << ones << ", " << a.said;
            return status;
        });
        EXPECT_TRUE(matches(statuses, "(1003 ){2,5}0 ")) << text << ": " << statuses;
    }
    eko_resetTag(&exhaustedJump, tag);
    EXPECT_EQ(exhaust(tag, [&] { return json{"[1,2]", 0, tag}.parse(); }), "jump 0 ");
    EKO_TAG_DESTROY(tag);
}

TEST_F(Parse, ThreadsShareTheTables)
{
    inThreads(4, [](uint32) {
        for (int i = 0; i < 200; ++i) {
            json j{R"([1,{"a":[2,3,{}]},4])"};
            EXPECT_TRUE(j.parse() == 0 && j.total == 8) << j.total;
        }
        eko_releaseTLSTag();
    });
}

// ---- recovery -------------------------------------------------------------------------------------------------

int32 stubborn_lex(stubborn* s, int32* token, int*)
{
    *token = *s->text;
    s->text += *s->text != '\0';
    return 0;
}
int32 stubborn_error(stubborn* s, const EKO_YYERROR*)
{
    ++s->reports;
    return 0;
}

TEST_F(Parse, RecoveryComesToAnEnd)
{
    stubborn raising{"xxb", 1, 0, 0};
    EXPECT_EQ(stubborn_parse(&raising, EKO_GLOBAL_TAG), 1012);
    EXPECT_TRUE(raising.actions == 1 && raising.reports == 1);
    stubborn content{"xxb", 0, 0, 0};
    EXPECT_EQ(stubborn_parse(&content, EKO_GLOBAL_TAG), 0);
    EXPECT_TRUE(content.actions == 3 && content.reports == 3) << content.actions << content.reports;
}

// What a parser did: its actions with their values, its reports.
struct machine {
    std::string tokens, done = {};
    size_t next = 0;
};
extern "C" uint32 machine_note(machine* m, uint32 rule, uint32 value)
{
    m->done += std::to_string(rule) + ":" + std::to_string(value) + " ";
    return value;
}
extern "C" void machine_reported(machine* m, int found, const short* expected, int count)
{
    m->done += "[" + std::to_string(found) + ":";
    for (int i = 0; i < count; ++i)
        m->done += " " + std::to_string(expected[i]);
    m->done += "] ";
}
extern "C" int ref_lex(uint32* value, machine* m)
{
    const char token = m->next < m->tokens.size() ? m->tokens[m->next] : '\0';
    *value = static_cast<uint32>(++m->next);
    return token == 'E' ? 256 : token;
}
extern "C" int ref_parse(machine* m);
int32 machine_lex(machine* m, int32* token, uint32* value)
{
    *token = ref_lex(value, m);
    return 0;
}
int32 machine_error(machine* m, const EKO_YYERROR* error)
{
    machine_reported(m, error->found, error->expected, static_cast<int>(error->expected_count));
    EXPECT_EQ(*static_cast<const uint32*>(error->value), m->next);
    return 0;
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
