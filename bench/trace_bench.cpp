// SPDX-License-Identifier: MIT
// A line traced into memory, beside the same text printed to nowhere.

#include <pthread.h>
#include <stdio.h>

#include "bench.h"

namespace {

using namespace bench;

class EkoTrace {
public:
    static constexpr const char* NAME = "eko";
    void line(int request, const char* table) { eko_trace("request %d: %s opened in %d us\n", request, table, 17); }
};

class Stdio {
public:
    static constexpr const char* NAME = "stdio";
    Stdio() : file_(fopen("/dev/null", "w")) { must(file_ != nullptr, "/dev/null"); }
    ~Stdio() { fclose(file_); }
    Stdio(const Stdio&) = delete;
    Stdio& operator=(const Stdio&) = delete;
    void line(int request, const char* table)
    {
        void* const thread = reinterpret_cast<void*>(pthread_self());
        fprintf(file_, "%p: request %d: %s opened in %d us\n", thread, request, table, 17);
    }

private:
    FILE* file_;
};

const bool registered = item<EkoTrace, Stdio>("trace.line", []<class Trace>(State& state) {
    Trace trace;
    int request = 0;
    for (auto _ : state)
        trace.line(++request, "customers");
});

} // namespace
