// SPDX-License-Identifier: MIT
// Tags, the calls that allocate on them, the limit, and what happens when memory runs out.
#include "ekomem_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

constexpr EKO_ALLOCATOR_TYPE TYPES[] = {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR, LEGACY_ALLOCATOR};
constexpr size_t WORD = sizeof(void*);

static size_t usage()
{
    size_t now, max;
    eko_getMemUsage(&now, &max);
    EXPECT_GE(max, now);
    return now;
}

TEST_F(EkoTest, getMem_modes)
{
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        memset(EKO_ALLOC(200, tag), 0xAA, 200); // what is free is not zero already
        EKO_TAG_EMPTY(tag);
        EXPECT_EQ(std::string(static_cast<char*>(EKO_ZALLOC(200, tag)), 200), std::string(200, '\0'));
        for (const auto& [given, mode, data, size] :
             {std::tuple<size_t, int32, const void*, size_t>(4, 5, "a\0b", 4),
              {4, 7, "\0\0\0", 4}, // zeroing wins over copying
              {0, 9, nullptr, 0},  // odd ones, which take the size as it is
              {0, 17, nullptr, 0},
              {0, 29, "abc", 0},
              {99, 13, "abcdefg", 8},
              {99, 13, "", 1},
              {99, 21, L"\u20ac2", 12}}) {
            const size_t before = infoOf(tag).bytes.in_use;
            const void* block = eko_getMem(given, tag, mode, mode == 7 ? "abc" : data, "", 0);
            ASSERT_NE(block, nullptr) << mode;
            EXPECT_TRUE(size == 0 || memcmp(block, data, size) == 0) << mode;
            EXPECT_TRUE(type != LIST_ALLOCATOR || infoOf(tag).bytes.in_use - before == (size + 7) / 8 * 8) << mode;
        }
        EKO_TAG_DESTROY(tag);
    }
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
        for (const auto& [size, on] : {std::pair(size_t{0xFFFFFFFE}, tag), {SIZE_MAX, tag}, {8, EKO_TAG_INVALID}}) {
            EXPECT_EQ(EKO_ALLOC(size, on), nullptr);
            EXPECT_EQ(EKO_EXTEND(block, size, on), nullptr);
        }
        EKO_FREE(nullptr, tag);
        for (const EKO_MEMTAG none : {EKO_GLOBAL_TAG, EKO_THREAD_TAG, EKO_TAG_INVALID})
            EKO_TAG_DESTROY(none);
    });
    EXPECT_EQ(said, "");
    EXPECT_STREQ(block, "kept");
    EKO_TAG_DESTROY(tag);
    EXPECT_EQ(eko_getTagMemInfo(EKO_TAG_INVALID, nullptr), 1013);
    volatile int32 type = 4;
    EXPECT_DEATH(EKO_TAG_CREATE(static_cast<EKO_ALLOCATOR_TYPE>(type)), "chosen < ALLOCATOR_TYPES");
}

TEST_F(EkoTest, extendMem_clears_the_end_frees_and_allocates)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    char* const block = static_cast<char*>(EKO_ALLOC(100, tag));
    for (const auto& [incsize, cleared] :
         {std::pair<size_t, size_t>(40, 40), {0, 0}, {100, 100}, {108, 100}, {SIZE_MAX, 100}}) {
        memset(block, 'x', 128);
        EXPECT_EQ(EKO_ZEXTEND(block, 100, tag, incsize), block);
        EXPECT_EQ(std::string(block, 128),
                  std::string(100 - cleared, 'x') + std::string(cleared, '\0') + std::string(28, 'x'));
    }
    EXPECT_EQ(EKO_EXTEND(block, 0, tag), nullptr);
    EXPECT_EQ(infoOf(tag).bytes.in_use, 0u);
    EXPECT_EQ(std::string(static_cast<char*>(EKO_ZEXTEND(nullptr, 128, tag, 0)), 128), std::string(128, '\0'));
    EKO_TAG_DESTROY(tag);
}

#if EKO_CHECKED
TEST_F(EkoTest, block_given_to_the_wrong_tag_stays_where_it_is)
{
    const EKO_MEMTAG others[] = {EKO_TAG_CREATE(BLOCK_ALLOCATOR), EKO_TAG_CREATE(LIST_ALLOCATOR)};
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
        for (const size_t size : {40u, 40000u, 100u}) {
            CapturedFd err(2);
            void* block = EKO_ALLOC(size, tag);
            for (const EKO_MEMTAG other : others) {
                EKO_ALLOC(40, other);
                EKO_FREE(block, other);
                EXPECT_EQ(EKO_EXTEND(block, 80, other), nullptr);
                EXPECT_TRUE(matches(err.take(), "(Block [^\n]* is not of the tag it is given to\n){2}"));
            }
            EKO_FREE(block, tag);
            EXPECT_EQ(err.take(), "");
        }
        EKO_TAG_DESTROY(tag);
    }
    EKO_TAG_DESTROY(others[0]);
    EKO_TAG_DESTROY(others[1]);
}
#endif

static EKO_MEMTAG owners[4];
static void* globalBlock;
static std::string events; // what callbacks saw

static void recordDestroy(void* ctx)
{
    EKO_MEMTAG* owner = static_cast<EKO_MEMTAG*>(ctx);
    EXPECT_NE(EKO_ALLOC(10000, *owner), nullptr); // not freed yet
    const bool running = EKO_ALLOC(10, EKO_GLOBAL_TAG) != nullptr;
    events += std::to_string(owner - owners) + (running ? " running, " : " stopping, ");
    if (!running) {
        EXPECT_EQ(EKO_ALLOC(10, EKO_THREAD_TAG), nullptr);
        EXPECT_EQ(EKO_TAG_CREATE(BLOCK_ALLOCATOR), EKO_TAG_INVALID);
        EKO_FREE(globalBlock, EKO_GLOBAL_TAG);
    }
}

TEST(MemStop, calls_back_before_freeing_in_order_of_creation_and_then_nothing_works)
{
    for (int i = 0; i < 2; ++i) {
        EKO_TAG_MEM_INFO info;
        EXPECT_EQ(EKO_ALLOC(8, EKO_GLOBAL_TAG), nullptr);
        EXPECT_EQ(EKO_ALLOC(8, owners[0]), nullptr); // of the last start
        EXPECT_EQ(EKO_EXTEND(&info, 8, EKO_THREAD_TAG), nullptr);
        EXPECT_EQ(logged([] { EXPECT_EQ(EKO_TAG_CREATE(BLOCK_ALLOCATOR), EKO_TAG_INVALID); }), "");
        EXPECT_EQ(eko_getTagMemInfo(EKO_GLOBAL_TAG, &info), 1002);
        EKO_FREE(&info, EKO_GLOBAL_TAG);
        EKO_TAG_DESTROY(EKO_GLOBAL_TAG);
        eko_resetTag(nullptr, EKO_GLOBAL_TAG);
        eko_releaseTLSTag();
        ASSERT_EQ(eko_init(), 0);
        events.clear();
        for (int16 t = 0; t < 4; ++t)
            owners[t] = eko_createTagEx(nullptr, t % 2, TYPES[t], recordDestroy, &owners[t], "", 0);
        EKO_TAG_EMPTY(owners[0]);
        EKO_TAG_DESTROY(owners[1]);
        globalBlock = EKO_ALLOC(10, EKO_GLOBAL_TAG);
        EKO_ALLOC(10, EKO_THREAD_TAG);
        eko_term();
        EXPECT_EQ(events, "1 running, 0 stopping, 2 stopping, 3 stopping, ");
        EXPECT_EQ(usage(), 0u);
    }
}

TEST(MemStop, thread_that_outlives_it_gets_another_tag)
{
    ASSERT_EQ(eko_init(), 0);
    std::barrier restart(2);
    std::thread other([&] {
        EKO_ALLOC(10, EKO_THREAD_TAG);
        restart.arrive_and_wait();
        restart.arrive_and_wait();
        const int32 alive = memTagsAlive();
        for (int i = 0; i < 2; ++i) {
            EXPECT_NE(EKO_ALLOC(10, EKO_THREAD_TAG), nullptr);
            EXPECT_EQ(memTagsAlive(), alive + 1);
            eko_releaseTLSTag();
            EXPECT_EQ(memTagsAlive(), alive);
        }
    });
    restart.arrive_and_wait();
    eko_term();
    ASSERT_EQ(eko_init(), 0);
    restart.arrive_and_wait();
    other.join();
    eko_term();
}

TEST_F(EkoTest, tag_creation_fails_cleanly_at_every_step)
{
    eko_releaseTLSTag();
    const size_t before = usage();
    for (int i = 0; i < 400; ++i) { // enough to see a record that is lost
        const CallFault noMutex("eko_syncCreate_check", ENOMEM);
        EXPECT_EQ(logged([=] { EXPECT_EQ(EKO_TAG_CREATE_SHARED(TYPES[i % 4]), EKO_TAG_INVALID); }), "");
    }
    EXPECT_EQ(usage(), before);
    const FailNthAlloc noHeap(1, FailNthAlloc::ALL_FROM_THERE);
    std::vector<EKO_MEMTAG> tags = {EKO_TAG_CREATE(LIST_ALLOCATOR)};
    std::vector<void*> small;
    const auto create = [](EKO_ALLOCATOR_TYPE type) {
        return eko_createTagEx(nullptr, 0, type, nullptr, nullptr, "here.c", 7);
    };
    const std::string said = logged([&] {
        while (tags.back() != EKO_TAG_INVALID)
            tags.push_back(create(LIST_ALLOCATOR));
        while (void* block = eko_allocSmallBlock(1))
            small.push_back(block);
        EXPECT_EQ(EKO_ALLOC(8, EKO_THREAD_TAG), nullptr); // wants a tag first
        for (size_t i = 0; i < 100; ++i) {                // room for a record, but not for a larger state
            EKO_TAG_DESTROY(tags[i]);
            EXPECT_EQ(create(BLOCK_ALLOCATOR), EKO_TAG_INVALID);
            tags[i] = create(LIST_ALLOCATOR);
            EXPECT_NE(tags[i], EKO_TAG_INVALID);
        }
    });
    const std::string report = "Out of memory\\. Called from ";
    EXPECT_TRUE(matches(said, report + "here.c:7\n(" + report + "[^\n]*\n){101}"));
    for (const EKO_MEMTAG tag : tags)
        EKO_TAG_DESTROY(tag);
    for (void* block : small)
        eko_freeSmallBlock(block);
    EXPECT_EQ(usage(), before);
}

TEST_F(EkoTest, shared_tags_take_threads_at_once_and_each_thread_has_its_own)
{
    const EKO_MEMTAG list = EKO_TAG_CREATE_SHARED(LIST_ALLOCATOR);
    const EKO_MEMTAG tags[] = {list, EKO_GLOBAL_TAG, list, EKO_GLOBAL_TAG, EKO_THREAD_TAG};
    const TAG_ENTRY *global = memResolve(EKO_GLOBAL_TAG), *own = memResolve(EKO_THREAD_TAG);
    const int32 alive = memTagsAlive();
    inThreads(6, [&](uint32 thread) {
        EXPECT_EQ(memResolve(EKO_GLOBAL_TAG), global);
        EXPECT_NE(memResolve(EKO_THREAD_TAG), own);
        for (int i = 0; thread == 5 && i < 200; ++i) { // what may be called meanwhile
            eko_setMemLimit(nullptr, i % 2 ? 0 : size_t{1} << 30);
            usage();
            infoOf(list);
            EKO_TAG_DESTROY(EKO_TAG_CREATE_SHARED(BLOCK_ALLOCATOR));
        }
        char* blocks[16] = {};
        for (uint32 i = 0; thread < 5 && i < 4016; ++i) {
            char*& block = blocks[i * 7 % 16];
            const size_t size = i < 4000 ? 1 + i * 37 % 700 + (i % 97 == 0 ? 100000 : 0) : 0; // in the end it goes
            const char old = block ? *block : 0;
            block = static_cast<char*>(EKO_EXTEND(block, size, tags[thread]));
            EXPECT_TRUE(size == 0 || !old || *block == old);
            size ? memset(block, 'a' + static_cast<int>(i % 26), size) : nullptr;
        }
        if (thread != 4) // whose tag goes when the library stops
            eko_releaseTLSTag();
    });
    EXPECT_EQ(memTagsAlive(), alive + 1);
    EXPECT_EQ(memResolve(EKO_THREAD_TAG), own);
    eko_setMemLimit(nullptr, 0);
    EXPECT_EQ(infoOf(list).capacity.in_use, 0u);
    EKO_TAG_DESTROY(list);
    acceptUsage();
}

// Every request of these fails in turn, and each time they leave by the jump.
TEST_F(EkoTest, jump_leaves_no_block_and_no_lock_behind)
{
    const TempDir dir;
    const std::string file = dir.file("file");
    writeFile(file, std::string(250, 'l') + "\n");
    const EKO_FILE_STREAM stream = eko_fopen(file.c_str(), "r", EKO_FILE_MODE_UTF8);
    const EKO_MEMTAG tags[] = {EKO_TAG_CREATE_SHARED(LIST_ALLOCATOR), EKO_GLOBAL_TAG, EKO_THREAD_TAG};
    for (const EKO_MEMTAG tag : tags) {
        char* line = nullptr;
        const auto readLine = [&] {
            uint32 length = 10;
            EKO_FREE(std::exchange(line, nullptr), tag); // still valid, whatever became of the last call
            line = static_cast<char*>(EKO_ALLOC(length, tag));
            return eko_fGetLine(stream, &line, &length, tag), 0;
        };
        eko_resetTag(&exhaustedJump, tag);
        eko_fseek(stream, 0, SEEK_SET);
        EXPECT_EQ(exhaust(tag, readLine), "jump jump jump 0 ");
        EKO_FREE(line, tag);
        eko_resetTag(nullptr, tag);
        inThreads(1, [&](uint32) { EKO_FREE(EKO_ALLOC(10, tag), tag), eko_releaseTLSTag(); });
    }
    EXPECT_EQ(infoOf(tags[0]).capacity.in_use, 0u);
    EKO_TAG_DESTROY(tags[0]);
    eko_fclose(stream);
}

TEST_F(EkoTest, limit_refuses_what_would_pass_it)
{
    alignas(16) static char buffer[8];
    for (const auto& [ptr, limit, result] : {std::tuple<void*, size_t, int32>(nullptr, 4195327, 1002),
                                             {nullptr, 1, 1002},
                                             {buffer, 8000000, 1002}, // too late for a buffer
                                             {nullptr, 4195328, 0}}) {
        EXPECT_EQ(eko_setMemLimit(ptr, limit), result) << limit;
        EXPECT_EQ(eko_memlimit, result ? 0 : limit);
    }
    eko_term();
    ASSERT_EQ(eko_init(), 0); // the least lets it start
    void* held = EKO_ALLOC(500000, EKO_GLOBAL_TAG);
    for (const size_t size : {5000000u, 4000000u}) // too much by itself, and with what is held
        logged([=] { EXPECT_EQ(EKO_ALLOC(size, EKO_GLOBAL_TAG), nullptr); });
    EKO_FREE(held, EKO_GLOBAL_TAG);
    eko_setMemLimit(nullptr, 0);
}

TEST(MemLimit, callers_buffer_is_all_the_memory_there_is)
{
    constexpr size_t SIZE = 4195328 + 5; // of the last bytes no block can be made
    alignas(16) static char buffer[SIZE + 100];
    for (const auto& [ptr, limit] : {std::pair(buffer, size_t{0}), {buffer, 4195327}, {buffer + 4, SIZE}})
        EXPECT_EQ(eko_setMemLimit(ptr, limit), 1002);
    ASSERT_EQ(eko_setMemLimit(buffer, SIZE), 0);
    memset(buffer, 'b', sizeof(buffer));
    const auto inside = [](const void* p) { return p >= buffer && p < buffer + SIZE; };
    const std::string name(980, 'f'); // names are cut
    const std::string report = "Out of memory\\. Called from ";
    for (int i = 0; i < 2; ++i) { // the buffer can be used again
        const FailNthAlloc noHeap(1, FailNthAlloc::ALL_FROM_THERE);
        ASSERT_EQ(eko_init(), 0);
        EXPECT_EQ(eko_setMemLimit(nullptr, 0), 1002);
        const EKO_MEMTAG tag = EKO_TAG_CREATE_SHARED(LIST_ALLOCATOR);
        char* block = static_cast<char*>(EKO_ALLOC(1000003, tag));
        EXPECT_TRUE(inside(tag) && inside(tag->t_sem) && inside(block) && inside(block + 1000002));
        EXPECT_TRUE(inside(EKO_ALLOC(10000, EKO_THREAD_TAG)));
        void* holes[60]; // more than are walked through when there is memory beside the buffer
        std::generate(std::begin(holes), std::end(holes), [=] { return EKO_ALLOC(8, tag); });
        for (size_t hole = 0; hole < 60; hole += 2)
            EKO_FREE(holes[hole], tag);
        EKO_FREE(EKO_ALLOC(100, tag), tag);
        const std::string said = logged([&] {
            EXPECT_EQ(eko_getMem(4194304, tag, 1, nullptr, (name + "cut").c_str(), 4294967295u), nullptr);
            for (const EKO_MEMTAG each : {tag, EKO_THREAD_TAG}) {
                const char* const kept = EKO_STRDUP("untouched", each);
                EXPECT_EQ(eko_extendMem(kept, 1 << 24, each, 1, 1 << 24, "a.c", 1), nullptr);
                EXPECT_STREQ(kept, "untouched");
            }
            while (void* more = eko_getMem(100000, tag, 1, nullptr, "a.c", 2))
                memset(more, 'x', 100000);
        });
        EXPECT_TRUE(matches(said, report + name + ":4294967295\n(" + report + "a.c:1\n){2}" + report + "a.c:2\n"));
        eko_term();
        EXPECT_FALSE(noHeap.fired());
    }
    EXPECT_EQ(std::string(buffer + SIZE - 5, 105), std::string(105, 'b'));
    EXPECT_EQ(eko_setMemLimit(nullptr, 0), 0);
}

TEST(MemLimit, callers_buffer_is_used_to_its_end)
{
    // Address space only; where a word can count them, more than 4 GiB of it.
    constexpr size_t SIZE = WORD == 8 ? size_t{0x280000000 & SIZE_MAX} : size_t{0x10000000};
    constexpr size_t BLOCK = SIZE / 10 * 3; // in 64 bits 3 GiB, so that the second one begins above 4 GiB
    void* buffer = mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_EQ(eko_setMemLimit(buffer, SIZE), 0);
    ASSERT_EQ(eko_init(), 0);
    char* end = static_cast<char*>(buffer) + SIZE;
    EKO_MEMTAG tags[3];
    for (const EKO_ALLOCATOR_TYPE type : {LIST_ALLOCATOR, BLOCK_ALLOCATOR, STACK_ALLOCATOR}) {
        const EKO_MEMTAG tag = tags[type] = EKO_TAG_CREATE(type);
        char* block = static_cast<char*>(EKO_ALLOC(BLOCK, tag));
        ASSERT_TRUE(block >= buffer && block + BLOCK <= end);
        block[0] = block[BLOCK - 1] = 'x';
        end = block;
    }
    EKO_TAG_EMPTY(tags[BLOCK_ALLOCATOR]); // between the others: four tenths are free, but not in one piece
    logged([&] { EXPECT_EQ(EKO_ALLOC(BLOCK / 6 * 7, tags[BLOCK_ALLOCATOR]), nullptr); });
    eko_term();
    munmap(buffer, SIZE);
}
