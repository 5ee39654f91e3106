// SPDX-License-Identifier: MIT
// UUIDs: making random ones, writing and reading their text.

#include <string.h>

#if BENCH_LIBUUID
#include <uuid/uuid.h>
#endif
#if BENCH_APRUTIL
#include <apr_uuid.h>
#endif

#include "bench.h"
#include "locked_twister.h"

namespace {

using namespace bench;

const char TEXT[] = "6ba7b810-9dad-41d1-80b4-00c04fd430c8";

struct EkoUuid {
    static constexpr const char* NAME = "eko";
    using Uuid = eko_uuid_t;
    void make(Uuid* uuid) { uuid_create(uuid); }
    static bool read(const char* text, Uuid* uuid) { return uuid_fromString(text, uuid) == 0; }
    static void write(const Uuid* uuid, char* text) { uuid_toString(uuid, text, EKO_UUID_TEXT, 0); }
};

// The numbers alone.
struct FourDraws {
    static constexpr const char* NAME = "std";
    using Uuid = uint32_t[4];
    LockedTwister twister;
    void make(Uuid* uuid)
    {
        for (uint32_t& part : *uuid)
            part = twister.draw();
    }
};

#if BENCH_LIBUUID
struct LibUuid {
    static constexpr const char* NAME = "libuuid";
    using Uuid = uuid_t;
    static bool read(const char* text, Uuid* uuid) { return uuid_parse(text, *uuid) == 0; }
    static void write(const Uuid* uuid, char* text) { uuid_unparse_lower(*uuid, text); }
};
#else
using LibUuid = Absent;
#endif

#if BENCH_APRUTIL
struct AprUuid {
    static constexpr const char* NAME = "apr";
    using Uuid = apr_uuid_t;
    static bool read(const char* text, Uuid* uuid) { return apr_uuid_parse(uuid, text) == APR_SUCCESS; }
};
#else
using AprUuid = Absent;
#endif

constexpr auto make = []<class Library>(State& state) {
    Library library;
    typename Library::Uuid uuid;
    for (auto _ : state) {
        library.make(&uuid);
        benchmark::DoNotOptimize(uuid);
    }
};

constexpr auto toText = []<class Library>(State& state) {
    typename Library::Uuid uuid;
    char text[sizeof(TEXT)];
    must(Library::read(TEXT, &uuid), "reading a UUID");
    for (auto _ : state) {
        benchmark::DoNotOptimize(uuid);
        Library::write(&uuid, text);
        benchmark::DoNotOptimize(text);
    }
    must(strcmp(text, TEXT) == 0, "writing a UUID");
};

constexpr auto fromText = []<class Library>(State& state) {
    typename Library::Uuid uuid;
    const char* text = TEXT;
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(Library::read(text, &uuid));
        benchmark::DoNotOptimize(uuid);
    }
};

const bool registered = item<EkoUuid, FourDraws>("uuid.create", make) &&
                        item<EkoUuid, LibUuid>("uuid.to_text", toText) &&
                        item<EkoUuid, AprUuid>("uuid.from_text", fromText);

} // namespace
