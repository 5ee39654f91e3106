// SPDX-License-Identifier: MIT
// Object pools: what is kept and used again, running out of memory, a memory checker, four threads.
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

class PoolTest : public EkoTest {
protected:
    int32 create(EKO_MEMTAG tag, EKO_POOL_SIZE_INFO info = {}) { return eko_poolCreate(tag, info, "", &pool_); }
    char* get(size_t sz, int32 mode = EKO_MEM_PLAIN, const void* data = nullptr)
    {
        return static_cast<char*>(eko_poolGetMem(pool_, sz, mode, data, __FILE__, __LINE__));
    }
    int32 put(const void* item) { return eko_poolPut(pool_, item), item ? 0 : 1003; }
    EKO_POOL pool_ = nullptr;
};

TEST_F(PoolTest, items_are_used_again)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    for (const auto info : {EKO_POOL_FIXED_SIZE, EKO_POOL_VAR_SIZE}) {
        EXPECT_EQ(eko_poolCreate(tag, info, nullptr, &pool_), 0);
        char *const first = get(16, EKO_MEM_COPY, "0123456789ABCDE"), *const second = get(16);
        EXPECT_TRUE(std::string(first) == "0123456789ABCDE" && reinterpret_cast<uintptr_t>(first) % 8 == 0);
        for (const void* item : {second, first, static_cast<char*>(nullptr)})
            put(item);
        const FailNthOnTag fault(tag, 1, FailNthAlloc::ALL_FROM_THERE); // what is used again needs no memory
        EXPECT_TRUE(get(4, EKO_MEM_ZERO) == first && !strcmp(first + 4, "456789ABCDE") && !*first && !first[3]);
        put(first);
        const std::string said = logged([&] { EXPECT_EQ(get(17), info == EKO_POOL_VAR_SIZE ? nullptr : first); });
        EXPECT_TRUE(matches(said, info == EKO_POOL_VAR_SIZE ? "Out of memory.*pool_test.cpp:[0-9]+\n" : ""));
        EXPECT_EQ(get(16), second);
        EXPECT_EQ(logged([&] { EXPECT_TRUE(!get(~size_t(0)) && !get(0xFFFFFFFD) && !get(1, EKO_MEM_COPY)); }), "");
        eko_poolDestroy(pool_);
    }
    EKO_TAG_DESTROY(tag); // with the items that are still held
}

TEST_F(PoolTest, items_are_kept_while_few_exist)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    EXPECT_EQ(create(tag, EKO_POOL_VAR_SIZE), 0);
    const auto exist = [&, none = infoOf(tag).bytes.in_use] { return infoOf(tag).bytes.in_use - none; };
    const auto use = [&] { return put(get(24)); }; // something larger than what there is
    eko_poolSetMaxPooled(pool_, 2);
    for (const bool jumping : {false, true}) {
        char* const items[] = {get(17), get(17), get(17)};
        const size_t three = exist();
        put(items[0]);
        put(items[1]);
        EXPECT_EQ(exist() * 3, three);
        put(items[2]); // kept
        eko_resetTag(jumping ? &exhaustedJump : nullptr, tag);
        EXPECT_EQ(exhaust(tag, use), jumping ? "jump 0 " : "1003 0 ");
        EXPECT_EQ(exist() * 3, three);                      // what could not be had was not counted
        inThreads(1, [&](uint32) { EXPECT_EQ(use(), 0); }); // nothing is locked
    }
    const size_t before = exist();
    purifyRunning = 1; // from now on the pool is its tag
    char* const item = get(100, EKO_MEM_STRING, "1234567");
    EXPECT_STREQ(item, "1234567");
    EKO_FREE(item, tag);
    put(EKO_ALLOC(8, tag));
    EXPECT_EQ(exist(), before);
    purifyRunning = 0;
    eko_poolDestroy(pool_);
    EKO_TAG_DESTROY(tag);
}

TEST_F(PoolTest, creation_fails_whole)
{
    EXPECT_EQ(eko_poolCreate(EKO_GLOBAL_TAG, EKO_POOL_FIXED_SIZE, nullptr, nullptr), 1013);
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [&] { return create(EKO_GLOBAL_TAG); }), "1003 0 ");
    eko_poolDestroy(pool_);
    const NoMoreMemory memory;
    EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(create(EKO_TAG_INVALID), 1003); }), "ekopool.cpp"));
    eko_setMemLimit(nullptr, 0);
    const CallFault fault("eko_syncCreate_check", ENOMEM);
    EXPECT_EQ(create(EKO_TAG_INVALID), 1003);
    EXPECT_EQ(create(EKO_GLOBAL_TAG), 1003);
}

TEST_F(PoolTest, four_threads_share_a_pool)
{
    for (uint32 round = 0; round < 6; ++round) {
        const EKO_MEMTAG tag = round % 3 == 0 ? EKO_GLOBAL_TAG : EKO_TAG_INVALID;
        purifyRunning = round % 3 == 2;
        ASSERT_EQ(create(tag, round < 3 ? EKO_POOL_FIXED_SIZE : EKO_POOL_VAR_SIZE), 0);
        inThreads(4, [&](uint32 thread) {
            std::minstd_rand random(thread + 1);
            const std::string own(300, char('a' + thread));
            std::string_view held[4];
            for (uint32 step = 0; step < 8000; ++step) {
                std::string_view& item = held[random() % 4];
                const size_t size = round < 3 ? 64 : 1 + random() % 300;
                eko_poolSetMaxPooled(pool_, step / 64 % 12);
                EXPECT_TRUE(own.starts_with(item));
                put(item.data());
                item = item.data() ? std::string_view() : std::string_view(get(size, EKO_MEM_COPY, &own[0]), size);
            }
            for (const std::string_view item : held) // a tag of the pool's own frees them
                put(tag == EKO_TAG_INVALID ? nullptr : item.data());
        });
        eko_poolDestroy(pool_);
    }
    purifyRunning = 0;
}
