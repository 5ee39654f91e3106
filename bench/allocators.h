// SPDX-License-Identifier: MIT
// The allocators that benches compare, ours and the peers, under one shape: an object that takes, grows and gives
// back blocks, and an arena whose blocks all go with it.

#ifndef EKO_BENCH_ALLOCATORS_H
#define EKO_BENCH_ALLOCATORS_H

#include "bench.h"

#if BENCH_APR
#include <apr_general.h>
#include <apr_pools.h>
#endif
#if BENCH_TALLOC
#include <talloc.h>
#endif
#if BENCH_JEMALLOC // the library's own names start so in this program, which keeps glibc's
extern "C" {
void* jemalloc_malloc(size_t size);
void* jemalloc_realloc(void* block, size_t size);
void jemalloc_free(void* block);
}
#endif

namespace bench {

// ---- ours -----------------------------------------------------------------------------------------------------

// A tag of its own, without a mutex.
template <EKO_ALLOCATOR_TYPE TYPE> class EkoTag {
public:
    static constexpr const char* NAME = "eko";
    EkoTag() { must(tag_ != EKO_TAG_INVALID, "eko_createTagEx"); }
    ~EkoTag() { EKO_TAG_DESTROY(tag_); }
    EkoTag(const EkoTag&) = delete;
    EkoTag& operator=(const EkoTag&) = delete;

    void* take(size_t size) { return EKO_ALLOC(size, tag_); }
    void* grow(void* block, size_t size) { return EKO_EXTEND(block, size, tag_); }
    void give(void* block) { EKO_FREE(block, tag_); }

private:
    EKO_MEMTAG tag_ = EKO_TAG_CREATE(TYPE);
};

using EkoBlockTag = EkoTag<BLOCK_ALLOCATOR>;
using EkoListTag = EkoTag<LIST_ALLOCATOR>;
using EkoStackTag = EkoTag<STACK_ALLOCATOR>;
using EkoLegacyTag = EkoTag<LEGACY_ALLOCATOR>;

struct EkoThreadTag {
    static constexpr const char* NAME = "eko";
    void* take(size_t size) { return EKO_ALLOC(size, EKO_THREAD_TAG); }
    void* grow(void* block, size_t size) { return EKO_EXTEND(block, size, EKO_THREAD_TAG); }
    void give(void* block) { EKO_FREE(block, EKO_THREAD_TAG); }
};

struct EkoGlobalTag {
    static constexpr const char* NAME = "eko";
    void* take(size_t size) { return EKO_ALLOC(size, EKO_GLOBAL_TAG); }
    void give(void* block) { EKO_FREE(block, EKO_GLOBAL_TAG); }
};

// ---- peers ----------------------------------------------------------------------------------------------------

struct Glibc {
    static constexpr const char* NAME = "glibc";
    void* take(size_t size) { return malloc(size); }
    void* grow(void* block, size_t size) { return realloc(block, size); }
    void give(void* block) { free(block); }
};

#if BENCH_JEMALLOC
struct Jemalloc {
    static constexpr const char* NAME = "jemalloc";
    void* take(size_t size) { return jemalloc_malloc(size); }
    void* grow(void* block, size_t size) { return jemalloc_realloc(block, size); }
    void give(void* block) { jemalloc_free(block); }
};
#else
using Jemalloc = Absent;
#endif

class Mimalloc {
public:
    static constexpr const char* NAME = "mimalloc";
    static bool there() { return symbolOf(LIBRARY, "mi_malloc") != nullptr; }
    void* take(size_t size) { return malloc_(size); }
    void* grow(void* block, size_t size) { return realloc_(block, size); }
    void give(void* block) { free_(block); }

private:
    static constexpr const char* LIBRARY = "libmimalloc.so.2";

    template <class Function> static Function* loaded(const char* name)
    {
        void* symbol = symbolOf(LIBRARY, name);
        must(symbol != nullptr, name);
        return reinterpret_cast<Function*>(symbol);
    }

    void* (*malloc_)(size_t) = loaded<void*(size_t)>("mi_malloc");
    void* (*realloc_)(void*, size_t) = loaded<void*(void*, size_t)>("mi_realloc");
    void (*free_)(void*) = loaded<void(void*)>("mi_free");
};

#if BENCH_APR
// A pool below one that lives as long as the program. That keeps the memory of those that have gone for the next
// one, as pools usually do, where a tag gives its chunks back. A pool with an allocator of its own would give back,
// too; that is as legitimate, and not what is measured here.
class AprArena {
public:
    static constexpr const char* NAME = "apr";
    AprArena() { must(apr_pool_create(&pool_, root()) == APR_SUCCESS, "apr_pool_create"); }
    ~AprArena() { apr_pool_destroy(pool_); }
    AprArena(const AprArena&) = delete;
    AprArena& operator=(const AprArena&) = delete;

    void* take(size_t size) { return apr_palloc(pool_, size); }

private:
    static apr_pool_t* root()
    {
        static apr_pool_t* const pool = [] {
            apr_pool_t* made = nullptr;
            must(apr_initialize() == APR_SUCCESS && apr_pool_create(&made, nullptr) == APR_SUCCESS, "APR");
            return made;
        }();
        return pool;
    }

    apr_pool_t* pool_ = nullptr;
};
#else
using AprArena = Absent;
#endif

#if BENCH_TALLOC
class Talloc {
public:
    static constexpr const char* NAME = "talloc";
    Talloc() { must(context_ != nullptr, "talloc_new"); }
    ~Talloc() { talloc_free(context_); }
    Talloc(const Talloc&) = delete;
    Talloc& operator=(const Talloc&) = delete;

    void* take(size_t size) { return talloc_size(context_, size); }

private:
    void* context_ = talloc_new(nullptr);
};
#else
using Talloc = Absent;
#endif

} // namespace bench

#endif // EKO_BENCH_ALLOCATORS_H
