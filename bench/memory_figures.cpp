// SPDX-License-Identifier: MIT
#include "memory_figures.h"

#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "allocators.h"

namespace bench {

namespace {

// Of this process. Asks the kernel without memory of its own.
long residentBytes()
{
    char text[128] = {};
    const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    must(file >= 0 && read(file, text, sizeof(text) - 1) > 0, "reading /proc/self/statm");
    close(file);
    const char* behindTotal = strchr(text, ' ');
    must(behindTotal != nullptr, "reading /proc/self/statm");
    return strtol(behindTotal, nullptr, 10) * sysconf(_SC_PAGESIZE);
}

// ---- live blocks ----------------------------------------------------------------------------------------------

template <class Allocator> double addedByBlock(size_t size)
{
    constexpr int BLOCKS = 1000000;
    Allocator allocator;
    const long before = residentBytes();
    for (int i = 0; i < BLOCKS; ++i) {
        void* block = allocator.take(size);
        must(block != nullptr, "taking a block");
        memset(block, 1, size);
    }
    return static_cast<double>(residentBytes() - before) / BLOCKS; // the blocks end with the process
}

struct Candidate {
    const char* name;
    double (*added)(size_t size);
};

constexpr Candidate CANDIDATES[] = {
    {"block", addedByBlock<EkoBlockTag>}, {"list", addedByBlock<EkoListTag>},
    {"stack", addedByBlock<EkoStackTag>}, {"legacy", addedByBlock<EkoLegacyTag>},
    {"glibc", addedByBlock<Glibc>},
#if BENCH_JEMALLOC
    {"jemalloc", addedByBlock<Jemalloc>},
#endif
};

// ---- start and stop -------------------------------------------------------------------------------------------

struct Moment {
    double microseconds;
    long bytes;
};

Moment now()
{
    timespec t;
    must(clock_gettime(CLOCK_MONOTONIC, &t) == 0, "clock_gettime");
    return {static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3, residentBytes()};
}

// What `work` costs. The clock is read next to it, the memory before and after.
template <class Work> Moment costOf(Work work)
{
    const long before = residentBytes();
    const double begun = now().microseconds;
    work();
    const Moment after = now();
    return {after.microseconds - begun, after.bytes - before};
}

} // namespace

int resident(int argc, char** argv)
{
    for (const Candidate& candidate : CANDIDATES) {
        if (argc == 0)
            puts(candidate.name);
        if (argc != 2 || strcmp(candidate.name, argv[0]) != 0)
            continue;
        must(eko_init() == 0, "eko_init");
        printf("%.2f\n", candidate.added(static_cast<size_t>(strtoul(argv[1], nullptr, 10))));
        fflush(stdout);
        _exit(0);
    }
    return argc == 0 ? 0 : 2;
}

int startup()
{
    now(); // its own first costs
    const Moment start = costOf([] { must(eko_init() == 0, "eko_init"); });
    const Moment stop = costOf([] { eko_term(); });
    printf("start_us %.1f\nstart_bytes %ld\n", start.microseconds, start.bytes);
    printf("stop_us %.1f\nstop_bytes %ld\n", stop.microseconds, stop.bytes);
    return 0;
}

} // namespace bench
