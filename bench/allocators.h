// The allocators that benches compare, ours and the peers, under one shape.

#ifndef EKO_BENCH_ALLOCATORS_H
#define EKO_BENCH_ALLOCATORS_H

#include "bench.h"

#if BENCH_JEMALLOC // the library's own names start so in this program, which keeps glibc's
extern "C" {
void* jemalloc_malloc(size_t size);
void* jemalloc_realloc(void* block, size_t size);
void jemalloc_free(void* block);
}
#endif

namespace bench {

struct Glibc {
    static constexpr const char* NAME = "glibc";
    static void* take(size_t size) { return malloc(size); }
    static void* grow(void* block, size_t size) { return realloc(block, size); }
    static void give(void* block) { free(block); }
};

#if BENCH_JEMALLOC
struct Jemalloc {
    static constexpr const char* NAME = "jemalloc";
    static void* take(size_t size) { return jemalloc_malloc(size); }
    static void* grow(void* block, size_t size) { return jemalloc_realloc(block, size); }
    static void give(void* block) { jemalloc_free(block); }
};
#else
using Jemalloc = Absent;
#endif

struct EkoThreadTag {
    static constexpr const char* NAME = "eko";
    static void* take(size_t size) { return EKO_ALLOC(size, EKO_THREAD_TAG); }
    static void give(void* block) { EKO_FREE(block, EKO_THREAD_TAG); }
};

} // namespace bench

#endif // EKO_BENCH_ALLOCATORS_H
