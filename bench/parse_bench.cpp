// SPDX-License-Identifier: MIT
// A text of one megabyte through one grammar, run by our driver and by the parser that bison writes. Both call the same
// scanner.

#include <string>

#if BENCH_BISON
#include "arithmetic.tab.h"
#endif
#include "bench.h"

#if BENCH_BISON

struct arithmetic {
    const char* next;
    unsigned long long total;
};

namespace {

int scan(arithmetic* a, long long* value)
{
    while (*a->next == ' ' || *a->next == '\n')
        ++a->next;
    if (*a->next >= '0' && *a->next <= '9') {
        *value = 0;
        do
            *value = *value * 10 + (*a->next++ - '0');
        while (*a->next >= '0' && *a->next <= '9');
        return ARITHMETIC_NUMBER;
    }
    return *a->next == '\0' ? 0 : *a->next++;
}

} // namespace

extern "C" {

void arithmetic_result(arithmetic* a, long long value)
{
    a->total += static_cast<unsigned long long>(value);
}

int32 arithmetic_lex(arithmetic* a, int32* token, long long* value)
{
    *token = scan(a, value);
    return 0;
}
int32 arithmetic_error(arithmetic*, const EKO_YYERROR*)
{
    return 1;
}

int plain_lex(long long* value, arithmetic* a)
{
    return scan(a, value);
}
void plain_error(arithmetic*, const char*) {}
int plain_parse(arithmetic* a); // the header has the same tokens again

} // extern "C"

namespace {

using namespace bench;

struct EkoParser {
    static constexpr const char* NAME = "eko";
    static bool parse(arithmetic* a) { return arithmetic_parse(a, EKO_THREAD_TAG) == 0; }
};

struct PlainParser {
    static constexpr const char* NAME = "bison";
    static bool parse(arithmetic* a) { return plain_parse(a) == 0; }
};

constexpr size_t TEXT_BYTES = 1'000'000;
const char STATEMENT[] = "(12 + 34) * -5 - 678 / (9 + 10 * 11) + 12 * (345 - 6) * 78;\n";
constexpr unsigned long long RESULT = 317'069; // -230 - 5 + 317304

std::string text()
{
    std::string text;
    while (text.size() < TEXT_BYTES)
        text += STATEMENT;
    return text;
}

const bool registered = item<EkoParser, PlainParser>("parse.arithmetic", []<class Parser>(State& state) {
    const std::string source = text();
    for (auto _ : state) {
        arithmetic a = {source.c_str(), 0};
        must(Parser::parse(&a), "parsing");
        must(a.total == source.size() / (sizeof(STATEMENT) - 1) * RESULT, "the result of parsing");
    }
});

} // namespace

#endif
