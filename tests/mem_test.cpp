// Tags, the calls that allocate on them, the limit, and what happens when memory runs out.
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc --wrap=eko_syncCreate_check
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>

#include <functional>
#include <string>
#include <vector>

#include "ekomem_int.h"
#include "support/faults.h"
#include "support/fixture.h"

namespace {

uint32 mutexToFail; // counts down to the creation that is to fail; 0 for none

constexpr EKO_ALLOCATOR_TYPE TYPES[] = {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR, LEGACY_ALLOCATOR};
constexpr bool WIDE = sizeof(void*) == 8;

EKO_TAG_MEM_INFO infoOf(EKO_MEMTAG tag)
{
    EKO_TAG_MEM_INFO info = {};
    EXPECT_EQ(eko_getTagMemInfo(tag, &info), 0);
    return info;
}
size_t handedOut(EKO_MEMTAG tag)
{
    return infoOf(tag).bytes.in_use;
}
size_t usage()
{
    size_t now;
    eko_getMemUsage(&now, nullptr);
    return now;
}

int reports(const std::string& text)
{
    int count = 0;
    for (size_t at = 0; (at = text.find("Out of memory. Called from ", at)) != std::string::npos; ++at)
        ++count;
    return count;
}

// While alive, no memory is to be had: not from the heap, and nothing free is left in any allocator of the library.
class NothingLeft {
public:
    NothingLeft()
    {
        for (const EKO_MEMTAG tag : {EKO_GLOBAL_TAG, EKO_THREAD_TAG})
            for (size_t size = 8192; size >= 32; size /= 2)
                takeAll([=] { return tryGetMem(size, tag, EKO_MEM_PLAIN, nullptr); },
                        [=](void* p) { EKO_FREE(p, tag); });
        takeAll([] { return eko_allocSmallBlock(1); }, eko_freeSmallBlock);
    }
    ~NothingLeft()
    {
        while (!taken_.empty())
            giveBack();
        for (void* block : large_)
            eko_freeLargeBlock(block, &info_);
    }
    NothingLeft(const NothingLeft&) = delete;
    NothingLeft& operator=(const NothingLeft&) = delete;
    void giveBack() // the last one taken: first the smallest blocks of the static tag, one beside the other
    {
        taken_.back().giveBack(taken_.back().block);
        taken_.pop_back();
    }

private:
    struct Taken {
        void* block;
        std::function<void(void*)> giveBack;
    };
    void takeAll(const std::function<void*()>& take, const std::function<void(void*)>& giveBack)
    {
        if (large_.empty()) {
            for (size_t size = 1 << 22; size > 0; size /= 2)
                while (void* block = eko_allocLargeBlock(&size, &info_))
                    large_.push_back(block);
        }
        while (void* block = take())
            taken_.push_back({block, giveBack});
    }

    FailNthAlloc heap_{1, FailNthAlloc::ALL_FROM_THERE};
    EKO_MEM_INFO info_ = {};
    std::vector<void*> large_;
    std::vector<Taken> taken_;
};

} // namespace

extern "C" EKO_SEM __real_eko_syncCreate_check(int16 type, const char* file, int32 line);
extern "C" EKO_SEM __wrap_eko_syncCreate_check(int16 type, const char* file, int32 line);
extern "C" EKO_SEM __wrap_eko_syncCreate_check(int16 type, const char* file, int32 line)
{
    if (mutexToFail && --mutexToFail == 0)
        return EKO_SEM_INVALID;
    return __real_eko_syncCreate_check(type, file, line);
}

// ---- requests ---------------------------------------------------------------------------------------------

TEST_F(EkoTest, getMem_modes)
{
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        memset(EKO_ALLOC(200, tag), 0xAA, 200); // what is free is not zero already
        EKO_TAG_EMPTY(tag);
        const char* zero = static_cast<char*>(EKO_ZALLOC(200, tag));
        EXPECT_EQ(std::string(zero, 200), std::string(200, '\0'));
        EXPECT_STREQ(static_cast<char*>(EKO_DUP("a\0b", 4, tag)), "a");
        EXPECT_EQ(memcmp(EKO_DUP("a\0b", 4, tag), "a\0b", 4), 0);
        EXPECT_STREQ(EKO_STRDUP("abc", tag), "abc");
        EXPECT_STREQ(EKO_WCSDUP(L"\u20ac2", tag), L"\u20ac2");
        EXPECT_EQ(memcmp(eko_getMem(4, tag, 7, "abc", "", 0), "\0\0\0", 4), 0); // zeroing wins over copying
        EXPECT_NE(eko_getMem(0, tag, 9, nullptr, "", 0), nullptr); // these modes take the size as it is
        EXPECT_NE(eko_getMem(0, tag, 17, nullptr, "", 0), nullptr);
        EXPECT_NE(eko_getMem(0, tag, 29, "abc", "", 0), nullptr);
        EKO_TAG_DESTROY(tag);
    }
    const EKO_MEMTAG list = EKO_TAG_CREATE(LIST_ALLOCATOR);
    size_t before = handedOut(list);
    for (const auto& [mode, data, rounded] : {std::tuple<int32, const void*, size_t>(13, "abcdefg", 8),
                                              {13, "abcdefgh", 16},
                                              {21, L"ab", 16}, // 12 bytes
                                              {21, L"abc", 16},
                                              {13, "", 8}}) {
        eko_getMem(12345, list, mode, data, "", 0);
        EXPECT_EQ(handedOut(list) - before, rounded) << mode;
        before = handedOut(list);
    }
    EKO_TAG_DESTROY(list);
}

TEST_F(EkoTest, refused_requests_are_silent_and_do_not_jump)
{
    jmp_buf jb;
    const EKO_MEMTAG tag = eko_createTagEx(&jb, 0, LIST_ALLOCATOR, nullptr, nullptr, "", 0);
    char* block = EKO_STRDUP("kept", tag);
    if (setjmp(jb))
        FAIL();
    const std::string said = logged([&] {
        for (const int32 mode : {1, 3, 5})
            EXPECT_EQ(eko_getMem(0, tag, mode, "data", "", 0), nullptr);
        for (const int32 mode : {5, 7, 13, 21})
            EXPECT_EQ(eko_getMem(8, tag, mode, nullptr, "", 0), nullptr);
        for (const size_t size : {size_t{0xFFFFFFFE}, SIZE_MAX}) {
            EXPECT_EQ(EKO_ALLOC(size, tag), nullptr);
            EXPECT_EQ(EKO_EXTEND(block, size, tag), nullptr);
        }
        EXPECT_EQ(EKO_ALLOC(8, EKO_TAG_INVALID), nullptr);
        EXPECT_EQ(EKO_EXTEND(block, 8, EKO_TAG_INVALID), nullptr);
        EKO_FREE(nullptr, tag);
        EKO_FREE(block, EKO_TAG_INVALID);
        for (const EKO_MEMTAG none : {EKO_GLOBAL_TAG, EKO_THREAD_TAG, EKO_TAG_INVALID})
            EKO_TAG_DESTROY(none);
    });
    EXPECT_EQ(said, "");
    EXPECT_STREQ(block, "kept");
    EXPECT_EQ(eko_getTagMemInfo(EKO_TAG_INVALID, nullptr), 1013);
    EKO_TAG_MEM_INFO info;
    EXPECT_EQ(eko_getTagMemInfo(EKO_TAG_INVALID, &info), 1002);
    EKO_TAG_DESTROY(tag);
}

TEST_F(EkoTest, extendMem_clears_the_end_frees_and_allocates)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    char* block = static_cast<char*>(EKO_ALLOC(100, tag));
    const auto cleared = [&](size_t incsize) {
        memset(block, 'x', 128);
        block = static_cast<char*>(EKO_ZEXTEND(block, 100, tag, incsize));
        return std::string(block, 128);
    };
    EXPECT_EQ(cleared(40), std::string(60, 'x') + std::string(40, '\0') + std::string(28, 'x'));
    EXPECT_EQ(cleared(0), std::string(128, 'x'));
    const std::string all = std::string(100, '\0') + std::string(28, 'x');
    EXPECT_EQ(cleared(100), all);
    const char* const before = block;
    EXPECT_EQ(cleared(108), all); // no more than there is: the block's size in front of it stays as it is,
    EXPECT_EQ(cleared(SIZE_MAX), all);
    EXPECT_EQ(block, before); // so that the block did not have to move
    EXPECT_EQ(EKO_EXTEND(block, 0, tag), nullptr);
    EXPECT_EQ(handedOut(tag), 0u);
    EKO_FREE(memset(EKO_ALLOC(10, tag), 'x', 10), tag);
    EXPECT_EQ(std::string(static_cast<char*>(EKO_ZEXTEND(nullptr, 10, tag, 0)), 10), std::string(10, '\0'));
    EKO_TAG_DESTROY(tag);
}

#if EKO_CHECKED
TEST_F(EkoTest, block_given_to_the_wrong_tag_stays_where_it_is)
{
    const EKO_MEMTAG others[] = {EKO_TAG_CREATE(BLOCK_ALLOCATOR), EKO_TAG_CREATE(LIST_ALLOCATOR), EKO_GLOBAL_TAG};
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        for (const EKO_MEMTAG other : others) {
            EKO_ALLOC(40, other);
            for (const size_t size : {size_t{40}, size_t{40000}}) {
                char* block = static_cast<char*>(EKO_ALLOC(size, tag));
                memset(block, 'x', size);
                CapturedFd err(2);
                EKO_FREE(block, other);
                EXPECT_NE(err.take().find(" is not of the tag it is given to\n"), std::string::npos);
                EXPECT_EQ(EKO_EXTEND(block, 80, other), nullptr);
                EXPECT_NE(err.take(), "");
                EXPECT_EQ(std::string(block, size), std::string(size, 'x'));
                EKO_FREE(block, tag);
                EXPECT_EQ(err.take(), "");
            }
        }
        EKO_TAG_DESTROY(tag);
    }
    EKO_TAG_DESTROY(others[0]);
    EKO_TAG_DESTROY(others[1]);
    acceptUsage(); // what was taken on the global tag
}
#endif

// ---- tags -------------------------------------------------------------------------------------------------

TEST(MemStopped, calls_do_nothing)
{
    for (int i = 0; i < 2; ++i) { // never started, and one stop too many
        CapturedFd out(1);
        EKO_TAG_MEM_INFO info;
        EXPECT_EQ(EKO_ALLOC(8, EKO_GLOBAL_TAG), nullptr);
        EXPECT_EQ(EKO_EXTEND(&info, 8, EKO_THREAD_TAG), nullptr);
        EXPECT_EQ(EKO_EXTEND(nullptr, 8, EKO_THREAD_TAG), nullptr);
        EXPECT_EQ(EKO_TAG_CREATE(BLOCK_ALLOCATOR), EKO_TAG_INVALID);
        EXPECT_EQ(eko_getTagMemInfo(EKO_GLOBAL_TAG, &info), 1002);
        EKO_FREE(&info, EKO_GLOBAL_TAG);
        EKO_TAG_DESTROY(EKO_GLOBAL_TAG);
        eko_resetTag(nullptr, EKO_GLOBAL_TAG);
        eko_releaseTLSTag();
        alignas(16) static char buffer[16];
        EXPECT_EQ(eko_setMemLimit(buffer, 4195328), 0); // only a stopped library takes one
        EXPECT_EQ(eko_setMemLimit(nullptr, 0), 0);
        EXPECT_EQ(out.take(), "");
        eko_term();
    }
    eko_init();
    eko_init();
}

TEST_F(EkoTest, tag_type_out_of_range_asserts)
{
    volatile int32 type = 4;
    EXPECT_DEATH(EKO_TAG_CREATE(static_cast<EKO_ALLOCATOR_TYPE>(type)),
                 "assertion failed: chosen < ALLOCATOR_TYPES");
}

namespace {

std::string events; // what callbacks saw

void recordDestroy(void* ctx)
{
    events += static_cast<const char*>(ctx);
}

} // namespace

TEST_F(EkoTest, destroying_calls_back_before_freeing_and_emptying_does_not)
{
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        events.clear();
        jmp_buf* const none = nullptr;
        char letters[] = "??";
        EKO_MEMTAG tag = eko_createTagEx(none, 0, type, recordDestroy, letters, "", 0);
        EKO_STRDUP("gone when emptied", tag);
        EKO_TAG_EMPTY(tag);
        EXPECT_EQ(events, "");
        const std::string big(20000, 'z');
        EXPECT_EQ(EKO_STRDUP(big.c_str(), tag), big);
        EKO_TAG_DESTROY(tag);
        EXPECT_EQ(events, "??");
        tag = EKO_TAG_CREATE(type);
        EKO_TAG_DESTROY(tag);
    }
    EKO_MEMTAG tag = EKO_TAG_INVALID;
    static char* text;
    tag = eko_createTagEx(
        nullptr, 1, LIST_ALLOCATOR, [](void* ctx) { events = *static_cast<char**>(ctx); }, &text, "", 0);
    text = EKO_STRDUP("the callback reads it", tag);
    EKO_TAG_DESTROY(tag);
    EXPECT_EQ(events, "the callback reads it");
}

namespace {

EKO_MEMTAG ownTag;
void* globalBlock;

void useMemoryAtStop(void* ctx)
{
    recordDestroy(ctx);
    EXPECT_NE(EKO_ALLOC(10000, ownTag), nullptr);
    EXPECT_EQ(EKO_ALLOC(10, EKO_GLOBAL_TAG), nullptr);
    EXPECT_EQ(EKO_ALLOC(10, EKO_THREAD_TAG), nullptr);
    EXPECT_EQ(EKO_TAG_CREATE(BLOCK_ALLOCATOR), EKO_TAG_INVALID);
    EKO_FREE(globalBlock, EKO_GLOBAL_TAG);
}

} // namespace

TEST(MemStop, destroys_what_is_left_in_order_of_creation)
{
    for (int i = 0; i < 2; ++i) {
        events.clear();
        ASSERT_EQ(eko_init(), 0);
        char first[] = "first ", second[] = "second ", third[] = "third";
        eko_createTagEx(nullptr, 1, BLOCK_ALLOCATOR, recordDestroy, first, "", 0);
        const EKO_MEMTAG between = eko_createTagEx(nullptr, 1, LEGACY_ALLOCATOR, nullptr, nullptr, "", 0);
        ownTag = eko_createTagEx(nullptr, 1, LIST_ALLOCATOR, useMemoryAtStop, second, "", 0);
        EKO_STRDUP("freed at stop", eko_createTagEx(nullptr, 0, STACK_ALLOCATOR, recordDestroy, third, "", 0));
        EKO_TAG_DESTROY(between);
        globalBlock = EKO_ALLOC(10, EKO_GLOBAL_TAG);
        EKO_ALLOC(10, EKO_THREAD_TAG);
        eko_term();
        EXPECT_EQ(events, "first second third");
        EXPECT_EQ(usage(), 0u);
    }
}

TEST_F(EkoTest, tag_creation_fails_cleanly_at_every_step)
{
    // Room for the record and the allocator's state grows by a smallest block of the static tag at a time.
    constexpr size_t SMALLEST = WIDE ? 24 : 16;
    for (const EKO_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR}) {
        const int32 tags = memTagsAlive();
        NothingLeft nothing;
        EKO_MEMTAG tag = EKO_TAG_INVALID;
        size_t givenBack = 0;
        for (; tag == EKO_TAG_INVALID && givenBack < 100; ++givenBack) {
            const std::string said =
                logged([&] { tag = eko_createTagEx(nullptr, 0, type, nullptr, nullptr, "here.c", 7); });
            EXPECT_EQ(said, tag == EKO_TAG_INVALID ? "Out of memory. Called from here.c:7\n" : "");
            EXPECT_EQ(memTagsAlive(), tags + (tag == EKO_TAG_INVALID ? 0 : 1));
            nothing.giveBack();
        }
        EXPECT_GT(givenBack * SMALLEST, sizeof(TAG_ENTRY) + (WIDE ? 48 : 24));
        EKO_TAG_DESTROY(tag);
        std::vector<void*> blocks; // all that was given back is there again
        while (void* block = eko_allocSmallBlock(1))
            blocks.push_back(block);
        EXPECT_GE(blocks.size(), givenBack);
        for (void* block : blocks)
            eko_freeSmallBlock(block);
    }
}

TEST_F(EkoTest, tag_to_be_shared_needs_its_mutex)
{
    const size_t before = usage();
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        for (int i = 0; i < 200; ++i) { // enough to see a record that is lost
            mutexToFail = 1;
            EXPECT_EQ(logged([=] { EXPECT_EQ(EKO_TAG_CREATE_SHARED(type), EKO_TAG_INVALID); }), "");
        }
        mutexToFail = 1;
        const EKO_MEMTAG alone = EKO_TAG_CREATE(type); // asks for none
        EXPECT_EQ(mutexToFail, 1u);
        mutexToFail = 0;
        EKO_TAG_DESTROY(alone);
    }
    EXPECT_EQ(usage(), before);
}

TEST(MemStart, fails_cleanly_at_every_step)
{
    for (uint32 n = 1; n <= 4; ++n) {   // the four mutexes of this module
        for (int i = 0; i < 300; ++i) { // 1200 in all: more than there are keys of thread-local storage
            mutexToFail = n;
            EXPECT_EQ(eko_init(), 1002);
            EXPECT_EQ(mutexToFail, 0u);
            EXPECT_EQ(usage(), 0u);
        }
    }
    {
        const FailNthAlloc fault(1, FailNthAlloc::ALL_FROM_THERE);
        EXPECT_EQ(eko_init(), 1002);
        EXPECT_TRUE(fault.fired());
    }
    ASSERT_EQ(eko_init(), 0);
    EXPECT_STREQ(EKO_STRDUP("works", EKO_GLOBAL_TAG), "works");
    eko_term();
}

// ---- threads ----------------------------------------------------------------------------------------------

namespace {

struct Seen {
    TAG_ENTRY* global;
    TAG_ENTRY* thread;
    bool leaves; // by eko_threadEnd
};

int32 lookAtTags(void* arg)
{
    auto* seen = static_cast<Seen*>(arg);
    EKO_ALLOC(100, EKO_THREAD_TAG);
    seen->global = memResolve(EKO_GLOBAL_TAG);
    seen->thread = memResolve(EKO_THREAD_TAG);
    if (seen->leaves)
        eko_threadEnd(0);
    return 0;
}

Seen seenByThread(bool leaves)
{
    Seen seen = {nullptr, nullptr, leaves};
    pthread_t thread;
    EXPECT_EQ(eko_threadBeginEx(lookAtTags, 0, &seen, &thread, 0, nullptr), 0);
    eko_threadJoin(thread);
    return seen;
}

} // namespace

TEST_F(EkoTest, thread_tag_is_each_threads_own)
{
    const int32 tags = memTagsAlive();
    const Seen ended = seenByThread(true);
    EXPECT_EQ(ended.global, memResolve(EKO_GLOBAL_TAG));
    EXPECT_NE(ended.thread, memResolve(EKO_THREAD_TAG));
    EXPECT_EQ(memTagsAlive(), tags);
    seenByThread(false);
    EXPECT_EQ(memTagsAlive(), tags + 1); // goes when the library stops
    const TAG_ENTRY* own = memResolve(EKO_THREAD_TAG);
    EXPECT_EQ(memResolve(EKO_THREAD_TAG), own);
    eko_releaseTLSTag();
    eko_releaseTLSTag();
    EXPECT_EQ(memTagsAlive(), tags);
    EXPECT_NE(EKO_ALLOC(8, EKO_THREAD_TAG), nullptr);
    EXPECT_EQ(memTagsAlive(), tags + 1);
    acceptUsage();
}

namespace {

int32 hammer(void* arg)
{
    const auto tag = static_cast<EKO_MEMTAG>(arg);
    char* blocks[16] = {};
    for (uint32 i = 0; i < 4000; ++i) {
        char*& block = blocks[i * 7 % 16];
        const size_t size = 1 + i * 37 % 700 + (i % 97 == 0 ? 100000 : 0);
        const char old = block ? *block : 0;
        block = static_cast<char*>(EKO_EXTEND(block, size, tag));
        EXPECT_EQ(*block, old ? old : *block);
        memset(block, 'a' + static_cast<int>(i % 26), size);
        if (i % 3 == 0) {
            EKO_FREE(block, tag);
            block = nullptr;
        }
    }
    for (char* block : blocks)
        EKO_FREE(block, tag);
    eko_threadEnd(0);
    return 0;
}

} // namespace

TEST_F(EkoTest, shared_tags_take_threads_at_once)
{
    const EKO_MEMTAG list = EKO_TAG_CREATE_SHARED(LIST_ALLOCATOR);
    const EKO_MEMTAG tags[] = {list, EKO_GLOBAL_TAG, list, EKO_GLOBAL_TAG, EKO_THREAD_TAG};
    pthread_t threads[5];
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(eko_threadBeginEx(hammer, 0, tags[i], &threads[i], 0, nullptr), 0);
    for (int i = 0; i < 200; ++i) { // what may be called meanwhile
        eko_setMemLimit(nullptr, i % 2 ? 0 : size_t{1} << 30);
        usage();
        infoOf(list);
        EKO_TAG_DESTROY(EKO_TAG_CREATE_SHARED(BLOCK_ALLOCATOR));
    }
    for (const pthread_t thread : threads)
        eko_threadJoin(thread);
    eko_setMemLimit(nullptr, 0);
    EXPECT_EQ(infoOf(list).capacity.in_use, 0u);
    EKO_TAG_DESTROY(list);
}

// ---- running out of memory --------------------------------------------------------------------------------

TEST_F(EkoTest, out_of_memory_is_reported_once_for_each_request)
{
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        char* block = EKO_STRDUP("untouched", tag);
        for (const size_t size : {size_t{1} << 16, size_t{1} << 24, size_t{0xFFFFFFFD}}) {
            const NothingLeft nothing;
            const std::string said = logged([&] {
                EXPECT_EQ(eko_getMem(size, tag, 1, nullptr, "db/page.c", 4294967295u), nullptr);
                EXPECT_EQ(eko_extendMem(nullptr, size, tag, 1, 0, "db/page.c", 7), nullptr);
                if (type != STACK_ALLOCATOR) {
                    EXPECT_EQ(eko_extendMem(block, size, tag, 1, size, "db/page.c", 0), nullptr);
                }
            });
            EXPECT_EQ(said, std::string("Out of memory. Called from db/page.c:4294967295\n"
                                        "Out of memory. Called from db/page.c:7\n") +
                                (type == STACK_ALLOCATOR ? "" : "Out of memory. Called from db/page.c:0\n"));
        }
        EXPECT_STREQ(block, "untouched");
        EKO_TAG_DESTROY(tag);
    }
}

TEST_F(EkoTest, out_of_memory_reports_the_librarys_own_requests_once)
{
    const std::string text(5000, 'x');
    const NothingLeft nothing;
    eko_releaseTLSTag(); // so that a tag is wanted first; it gives back less than it takes to make one
    const std::function<void()> calls[] = {[] { EKO_ALLOC(9000, EKO_GLOBAL_TAG); },
                                           [&] { eko_log("%s", text.c_str()); },
                                           [&] { eko_log_err("%s", text.c_str()); },
                                           [&] { eko_printf("%s", text.c_str()); },
                                           [&] { eko_printfErr("%s", text.c_str()); },
                                           [] { eko_log_chunk_init(); },
                                           [] { eko_fopen("nowhere", "r", EKO_FILE_MODE_UTF8); },
                                           [] { eko_stdout_open("nowhere"); }};
    for (const auto& call : calls)
        EXPECT_EQ(reports(logged(call)), 1) << &call - calls;
    EXPECT_EQ(logged([] { eko_log("still %s\n", "here"); }), "still here\n");
}

TEST_F(EkoTest, out_of_memory_report_fits_a_long_position)
{
    const NothingLeft nothing;
    const auto said = [](const std::string& file) {
        return logged([&] { eko_getMem(9000, EKO_GLOBAL_TAG, 1, nullptr, file.c_str(), 4294967295u); });
    };
    const std::string longest(980, 'f');
    EXPECT_EQ(said(longest), "Out of memory. Called from " + longest + ":4294967295\n");
    EXPECT_EQ(said(longest + "cut"), "Out of memory. Called from " + longest + ":4294967295\n");
}

// ---- jumps ------------------------------------------------------------------------------------------------

namespace {

jmp_buf jumpBuffer;

// What an action on a tag with a jump buffer came back with: 0, or the value of the jump.
template <class Action> int jumpOf(EKO_MEMTAG tag, const Action& action)
{
    eko_resetTag(&jumpBuffer, tag);
    switch (setjmp(jumpBuffer)) {
    case 0:
        action();
        return 0;
    case 1:
        return 1;
    default:
        return -1;
    }
}

int32 allocateOn(void* tag)
{
    eko_extendMem(EKO_ALLOC(10, static_cast<EKO_MEMTAG>(tag)), 0, static_cast<EKO_MEMTAG>(tag), 0, 0, "", 0);
    eko_threadEnd(0);
    return 0;
}

// Hangs when a lock was left behind.
void allocateOnAnotherThread(EKO_MEMTAG tag)
{
    pthread_t thread;
    ASSERT_EQ(eko_threadBeginEx(allocateOn, 0, tag, &thread, 0, nullptr), 0);
    eko_threadJoin(thread);
}

} // namespace

TEST_F(EkoTest, jump_follows_the_report_and_leaves_nothing_locked)
{
    const EKO_MEMTAG shared = EKO_TAG_CREATE_SHARED(LIST_ALLOCATOR);
    for (const EKO_MEMTAG tag : {shared, EKO_GLOBAL_TAG, EKO_THREAD_TAG}) {
        void* block = EKO_ALLOC(10, tag);
        for (const bool extend : {false, true}) {
            int jumped = 0;
            {
                const FailNthOnTag fault(tag, 1);
                const std::string said = logged([&] {
                    jumped = jumpOf(tag, [&] { extend ? EKO_EXTEND(block, 9000, tag) : EKO_ALLOC(10, tag); });
                });
                EXPECT_EQ(reports(said), 1);
            }
            EXPECT_EQ(jumped, 1);
            allocateOnAnotherThread(tag);
        }
        eko_resetTag(nullptr, tag);
        {
            const FailNthOnTag fault(tag, 1);
            logged([&] { EXPECT_EQ(EKO_ALLOC(10, tag), nullptr); });
        }
        EKO_FREE(block, tag);
    }
    EKO_TAG_DESTROY(shared);
}

TEST_F(EkoTest, jump_is_not_for_what_the_library_wants_for_itself)
{
    const TempDir dir;
    const std::string file = dir.file("file"), log = dir.file("log"), text(5000, 'x');
    const std::function<void()> calls[] = {
        [&] { eko_fclose(eko_fopen(file.c_str(), "w", EKO_FILE_MODE_UTF8)); },
        [&] { eko_fileClose(eko_fileOpen(file.c_str(), O_RDONLY, 0)); },
        [&] { eko_log("%s", text.c_str()); },
        [&] { eko_printf("%s", text.c_str()); },
        [&] { eko_log_open(log.c_str()) == 0 ? eko_log_close() : void(); },
        [&] { eko_stdout_open(file.c_str()) == 0 ? eko_stdout_close() : void(); },
        [&] { eko_log_create(dir.path().c_str(), "/x") == 0 ? eko_log_close() : void(); },
        [&] {
            const EKO_LOG_CHUNK chunk = eko_log_chunk_init();
            eko_log_chunk(chunk, "%s", text.c_str());
            eko_log_chunk_end(chunk, "%s", text.c_str());
        },
        [&] { EKO_TAG_DESTROY(EKO_TAG_CREATE_SHARED(STACK_ALLOCATOR)); },
        [&] {
            void* record;
            eko_globalGet("mem_test", 100, nullptr, nullptr, &record);
        }};
    calls[8](); // a tag to be shared brings the first row of semaphores along
    acceptUsage();
    uint32 failed = 0;
    for (const EKO_MEMTAG tag : {EKO_GLOBAL_TAG, EKO_THREAD_TAG}) {
        for (const auto& call : calls) {
            for (uint32 n = 1;; ++n) {
                const Usage before = currentUsage();
                const FailNthOnTag fault(tag, n);
                int jumped = 0;
                const std::string said = logged([&] { jumped = jumpOf(tag, call); });
                EXPECT_EQ(jumped, 0);
                eko_resetTag(nullptr, tag);
                if (!fault.fired())
                    break;
                ++failed;
                EXPECT_EQ(reports(said), 1) << &call - calls << ": " << said;
                EXPECT_EQ(currentUsage(), before) << &call - calls;
            }
            logged(call);
        }
    }
    EXPECT_GE(failed, 12u);
    allocateOnAnotherThread(EKO_GLOBAL_TAG);
    acceptUsage(); // the record stays
}

TEST_F(EkoTest, jump_from_calls_on_the_callers_tag_leaks_nothing)
{
    const TempDir dir;
    writeFile(dir.file("line"), std::string(250, 'l') + "\n");
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    static char* line;
    static EKO_FILE_STREAM stream;
    const std::string file = dir.file("line");
    const wchar_t* wide[] = {L"eins", L"zwei"};
    const std::function<void()> calls[] = {
        [&] { EKO_FREE(eko_makeStrVA("", 0, tag, "%s", "text"), tag); },
        [&] { EKO_FREE(eko_appendStrVA("", 0, tag, nullptr, "%s", "text"), tag); },
        [&] { EKO_FREE(eko_convToUTF8(L"wide", EKO_UTF8_FAIL, tag), tag); },
        [&] { EKO_FREE(eko_convToWchar("narrow", EKO_UTF8_FAIL, tag), tag); },
        [&] { EKO_FREE(eko_convArgvToUTF8(2, wide, EKO_UTF8_FAIL, tag), tag); },
        [&] {
            uint32 length = 0;
            line = nullptr;
            stream = eko_fopen(file.c_str(), "r", EKO_FILE_MODE_UTF8);
            eko_fGetLine(stream, &line, &length, tag);
        }};
    for (const auto& call : calls) {
        uint32 n = 1;
        for (bool fired = true; fired; ++n) {
            const FailNthOnTag fault(tag, n);
            int jumped = 0;
            const std::string said = logged([&] { jumped = jumpOf(tag, call); });
            fired = fault.fired();
            EXPECT_EQ(jumped, fired ? 1 : 0);
            EXPECT_EQ(reports(said), fired ? 1 : 0);
            eko_fclose(stream);
            EKO_FREE(line, tag); // still valid, whatever became of the call
            stream = nullptr;
            line = nullptr;
            EXPECT_EQ(infoOf(tag).capacity.in_use, 0u);
        }
        EXPECT_GT(n, 2u);
    }
    EKO_TAG_DESTROY(tag);
}

// ---- limit ------------------------------------------------------------------------------------------------

TEST_F(EkoTest, limit_refuses_what_would_pass_it)
{
    EXPECT_EQ(eko_setMemLimit(nullptr, 4195327), 1002);
    EXPECT_EQ(eko_setMemLimit(nullptr, 1), 1002);
    EXPECT_EQ(eko_memlimit, 0u);
    EXPECT_EQ(eko_setMemLimit(nullptr, 4195328), 0);
    EXPECT_EQ(eko_memlimit, 4195328u);
    static char buffer[8];
    EXPECT_EQ(eko_setMemLimit(buffer, 8000000), 1002); // too late for a buffer
    // A block that needs a chunk of the system: it counts with its header, that behind which large blocks lie, and
    // the chunk's.
    constexpr size_t SIZE = 6000000;
    constexpr size_t ASKED = SIZE + (WIDE ? 16 + 16 + 32 : 8 + 8 + 16);
    EKO_MEM_INFO info = {};
    size_t size = SIZE;
    EXPECT_EQ(eko_setMemLimit(nullptr, usage() + ASKED - 1), 0);
    EXPECT_EQ(eko_allocLargeBlock(&size, &info), nullptr);
    EXPECT_EQ(eko_setMemLimit(nullptr, usage() + ASKED), 0);
    void* block = eko_allocLargeBlock(&size, &info);
    ASSERT_NE(block, nullptr);
    const size_t now = usage();
    size_t max;
    eko_getMemUsage(nullptr, &max);
    EXPECT_GE(max, now);
    eko_freeLargeBlock(block, &info);
    EXPECT_EQ(usage(), now - SIZE - (WIDE ? 16 : 8));
    eko_setMemLimit(nullptr, 0);
}

TEST(MemLimit, least_limit_lets_the_library_start)
{
    ASSERT_EQ(eko_setMemLimit(nullptr, 4195328), 0);
    ASSERT_EQ(eko_init(), 0);
    logged([] { EXPECT_EQ(EKO_ALLOC(5000000, EKO_GLOBAL_TAG), nullptr); });
    EXPECT_NE(EKO_ALLOC(500000, EKO_GLOBAL_TAG), nullptr);
    eko_term();
}

TEST(MemLimit, callers_buffer_is_all_the_memory_there_is)
{
    constexpr size_t SIZE = 4195328 + 5; // of the last bytes no block can be made
    alignas(16) static char buffer[SIZE + 100];
    EXPECT_EQ(eko_setMemLimit(buffer, 0), 1002);
    EXPECT_EQ(eko_setMemLimit(buffer, 4195327), 1002);
    EXPECT_EQ(eko_setMemLimit(buffer + 4, SIZE), 1002);
    ASSERT_EQ(eko_setMemLimit(buffer, SIZE), 0);
    memset(buffer, 'b', sizeof(buffer));
    const auto inside = [](const void* p) { return p >= buffer && p < buffer + SIZE; };
    for (int i = 0; i < 2; ++i) { // the buffer can be used again
        const FailNthAlloc noHeap(1, FailNthAlloc::ALL_FROM_THERE);
        ASSERT_EQ(eko_init(), 0);
        EXPECT_EQ(eko_setMemLimit(nullptr, 0), 1002);
        const EKO_MEMTAG tag = EKO_TAG_CREATE_SHARED(LIST_ALLOCATOR);
        char* block = static_cast<char*>(EKO_ALLOC(1000003, tag));
        EXPECT_TRUE(inside(tag) && inside(tag->t_sem) && inside(block) && inside(block + 1000002));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 8, 0u);
        memset(block, 'x', 1000003);
        EXPECT_TRUE(inside(EKO_ALLOC(10000, EKO_THREAD_TAG)));
        const std::string said = logged([&] {
            EXPECT_EQ(eko_getMem(4194304, tag, 1, nullptr, "a.c", 1), nullptr); // a second chunk
            while (eko_getMem(100000, tag, 1, nullptr, "a.c", 2))
                ;
        });
        EXPECT_EQ(said, "Out of memory. Called from a.c:1\nOut of memory. Called from a.c:2\n");
        // Not even when the figures, which can drift, say that there is room.
        const size_t now = std::exchange(eko_mem_stats.in_use, 0);
        EKO_MEM_INFO info = {};
        size_t second = 4100000;
        EXPECT_EQ(eko_allocLargeBlock(&second, &info), nullptr);
        eko_mem_stats.in_use = now;
        eko_term();
        EXPECT_FALSE(noHeap.fired());
    }
    EXPECT_EQ(std::string(buffer + SIZE - 5, 105), std::string(105, 'b'));
    // Figures that have drifted below 0 let a request through that the buffer cannot hold.
    eko_mem_stats.in_use = static_cast<size_t>(-8000000);
    size_t size = 10000000;
    EKO_MEM_INFO info = {};
    EXPECT_EQ(eko_allocLargeBlock(&size, &info), nullptr);
    eko_mem_stats.in_use = 0;
    EXPECT_EQ(eko_setMemLimit(nullptr, 0), 0);
}

TEST(MemLimit, callers_buffer_is_used_to_its_end)
{
    // Address space only; where a word can count them, more than 4 GiB of it.
    constexpr size_t SIZE = WIDE ? size_t{0x280000000 & SIZE_MAX} : size_t{0x10000000};
    constexpr size_t BLOCK = SIZE / 10 * 3; // in 64 bits 3 GiB, so that the second one begins above 4 GiB
    void* buffer = mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(buffer, MAP_FAILED);
    ASSERT_EQ(eko_setMemLimit(buffer, SIZE), 0);
    ASSERT_EQ(eko_init(), 0);
    std::vector<char*> blocks;
    logged([&] {
        // The fields of a stack's chunk cannot count what this is rounded up to.
        EXPECT_EQ(EKO_ALLOC(0xFFFFFFFD, EKO_TAG_CREATE(STACK_ALLOCATOR)), nullptr);
        for (const EKO_ALLOCATOR_TYPE type : {LIST_ALLOCATOR, BLOCK_ALLOCATOR, STACK_ALLOCATOR, LIST_ALLOCATOR})
            blocks.push_back(static_cast<char*>(EKO_ALLOC(BLOCK, EKO_TAG_CREATE(type))));
    });
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_NE(blocks[i], nullptr);
        EXPECT_GE(blocks[i], buffer);
        EXPECT_LE(blocks[i] + BLOCK, i ? blocks[i - 1] : static_cast<char*>(buffer) + SIZE);
        blocks[i][0] = blocks[i][BLOCK - 1] = 'x';
    }
    EXPECT_EQ(blocks[3], nullptr);
    eko_term();
    munmap(buffer, SIZE);
}
