// SPDX-License-Identifier: MIT
// The four allocators behind a tag, and the large blocks behind the allocators: layout, which block serves a request,
// figures, and a long random life.
#include <numeric>
#include <optional>

#include "ekomem_int.h"
#include "support/faults.h"
#include "support/fixture.h"

constexpr EKO_ALLOCATOR_TYPE TYPES[] = {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR, LEGACY_ALLOCATOR};
constexpr size_t WORD = sizeof(void*);
constexpr size_t HDR = 2 * WORD; // of a large block, and of a block of the list allocator

using Figures = std::pair<size_t, size_t>; // bytes handed out, bytes held

struct OwnTag {
    explicit OwnTag(EKO_ALLOCATOR_TYPE type) : tag(EKO_TAG_CREATE(type)) { EXPECT_NE(tag, EKO_TAG_INVALID); }
    ~OwnTag() { EKO_TAG_DESTROY(tag); }
    OwnTag(const OwnTag&) = delete;
    char* take(size_t size) const { return static_cast<char*>(EKO_ALLOC(size, tag)); }
    char* extend(void* p, size_t size) const { return static_cast<char*>(EKO_EXTEND(p, size, tag)); }
    void free(void* p) const { EKO_FREE(p, tag); }
    Figures figures() const { return {infoOf(tag).bytes.in_use, infoOf(tag).capacity.in_use}; }

    const EKO_MEMTAG tag;
};

TEST_F(EkoTest, list_free_subtracts_the_blocks_own_size)
{
    const OwnTag tag(LIST_ALLOCATOR);
    tag.take(8);
    char* block = tag.take(16 + HDR);
    tag.take(8);
    const size_t held = tag.figures().second;
    tag.free(block);
    EXPECT_EQ(tag.take(16), block); // whole: what is left would be no block
    EXPECT_EQ(tag.figures(), Figures(32, held));
    tag.free(block);
    EXPECT_EQ(tag.figures(), Figures(16 - HDR, held));
    EXPECT_EQ(tag.take(16 + HDR), block);
    EXPECT_EQ(tag.extend(block, 16), block); // nor is this surplus one
    EXPECT_EQ(tag.figures(), Figures(32 - HDR, held));
    tag.free(block);
    EKO_TAG_EMPTY(tag.tag);
    EXPECT_EQ(tag.figures(), Figures(16 - 2 * HDR, 0)); // emptying leaves the figure alone
    char* above = tag.take(64);
    block = tag.take(64);
    tag.free(above);
    EXPECT_EQ(tag.extend(block, 65), block);
    // The figure takes what the block had become with its neighbour for its old size, so it falls.
    EXPECT_EQ(tag.figures().first, 16 - 2 * HDR + 64 + 72 - (128 + HDR));
    EXPECT_EQ(tag.take(64 - 8), block + 72 + HDR); // the surplus is a block again
}

// A literal model of chunks, the newest in front, each with its free blocks, the one that was freed last in front.
class ListModel {
public:
    // Where a block of that size is to come from, null when from another chunk; its whole size.
    std::pair<char*, size_t> take(size_t size)
    {
        std::vector<Block>* from = nullptr;
        size_t best = 0;
        for (Chunk& chunk : chunks_) {
            for (size_t i = 0; i < chunk.free.size(); ++i) {
                const size_t has = chunk.free[i].second;
                if (has >= size && (!from || has < (*from)[best].second)) {
                    from = &chunk.free;
                    best = i;
                }
            }
        }
        if (!from)
            return {nullptr, 0};
        const Block whole = (*from)[best];
        if (whole.second <= size + HDR) {
            from->erase(from->begin() + static_cast<ptrdiff_t>(best));
            return whole;
        }
        (*from)[best].second -= size + HDR;
        return {whole.first + whole.second - size, size};
    }

    // The chunk whose last block is this one.
    void add(const char* block, size_t size)
    {
        const size_t whole = std::max<size_t>(size + HDR, 4096) - HDR;
        char* start = const_cast<char*>(block) + size - whole;
        chunks_.insert(chunks_.begin(), {start, whole, {{start, whole}}});
    }

    void give(char* block, size_t size)
    {
        const auto chunk = chunkOf(block);
        size += takeAbove(*chunk, block + size);
        const auto endsHere = [=](const Block& each) { return each.first + each.second + HDR == block; };
        const auto below = std::find_if(chunk->free.begin(), chunk->free.end(), endsHere);
        if (below != chunk->free.end())
            below->second += size + HDR;
        else
            chunk->free.insert(chunk->free.begin(), {block, size});
        if (chunk->free.size() == 1 && chunk->free.front().second == chunk->whole)
            chunks_.erase(chunk);
    }

    // The whole size then of a block that is made no larger.
    size_t shrink(char* block, size_t has, size_t size)
    {
        const auto chunk = chunkOf(block);
        has += takeAbove(*chunk, block + has);
        if (has <= size + HDR)
            return has;
        chunk->free.insert(chunk->free.begin(), {block + size + HDR, has - size - HDR});
        return size;
    }

    size_t held() const // with all headers
    {
        const auto add = [](size_t sum, const Chunk& chunk) { return sum + chunk.whole + HDR + HDR * 2 + HDR; };
        return std::accumulate(chunks_.begin(), chunks_.end(), size_t{0}, add);
    }

private:
    using Block = std::pair<char*, size_t>;
    struct Chunk {
        char* start;
        size_t whole;
        std::vector<Block> free;
    };

    std::vector<Chunk>::iterator chunkOf(const char* block)
    {
        const auto holds = [=](const Chunk& each) {
            return block >= each.start && block <= each.start + each.whole;
        };
        return std::find_if(chunks_.begin(), chunks_.end(), holds);
    }

    static size_t takeAbove(Chunk& chunk, const char* end)
    {
        const auto startsHere = [=](const Block& each) { return each.first == end + HDR; };
        const auto above = std::find_if(chunk.free.begin(), chunk.free.end(), startsHere);
        if (above == chunk.free.end())
            return 0;
        const size_t size = above->second + HDR;
        chunk.free.erase(above);
        return size;
    }

    std::vector<Chunk> chunks_;
};

// Many and few free blocks in turn, with memory for an index of them, with none, and with some that does not last.
TEST_F(EkoTest, list_takes_and_joins_as_a_walk_through_its_free_blocks_would)
{
    for (const auto& [unit, largest] : {std::pair<size_t, size_t>(8, 2), {8, 20}, {8, 160}, {4000, 8}}) {
        const OwnTag tag(LIST_ALLOCATOR);
        ListModel model;
        std::vector<std::pair<char*, size_t>> alive;
        std::mt19937 random(20240229);
        std::optional<FailNthAlloc> noIndex;
        bool indexed = false;
        for (uint32 i = 0; i < 24000; ++i) {
            if (i % 1000 == 0)
                noIndex.emplace(1 + i / 1000 % 4, FailNthAlloc::ALL_FROM_THERE);
            if (i % 1000 == 500) {
                noIndex.reset();
                indexed |= FailNthAlloc::fired(); // nothing else asks the heap
            }
            if (i == 13000) {
                EKO_TAG_EMPTY(tag.tag);
                model = {};
                alive.clear();
            }
            const size_t target = i / 4000 % 2 ? 20 : (unit == 8 ? 1000 : 60);
            const uint32 dice = random() % 64;
            if (dice < (alive.size() > target ? 40 : 24) && !alive.empty()) {
                std::swap(alive[random() % alive.size()], alive.back());
                const auto [block, size] = alive.back();
                if (dice % 4) {
                    tag.free(block);
                    model.give(block, size);
                    alive.pop_back();
                } else if (size >= unit) {
                    const size_t newSize = (random() % (size / unit) + 1) * unit;
                    ASSERT_EQ(tag.extend(block, newSize), block) << i;
                    alive.back().second = model.shrink(block, size, newSize);
                }
                continue;
            }
            const size_t size = random() % (largest + 1) * unit; // of none, too
            auto want = model.take(size);
            char* block = static_cast<char*>(eko_getMem(size, tag.tag, 9, nullptr, "", 0));
            if (!want.first) {
                model.add(block, size);
                want = model.take(size);
            }
            ASSERT_EQ(block, want.first) << i;
            memset(block, 0xFF, want.second);
            alive.push_back(want);
        }
        EXPECT_TRUE(indexed);
        EXPECT_EQ(tag.figures().second, model.held());
        noIndex.emplace(5); // a chunk that comes and goes leaves nothing behind
        for (uint32 i = 0; i < 500; ++i)
            tag.free(tag.take(50000));
        EXPECT_FALSE(FailNthAlloc::fired());
        noIndex.reset();
        for (const auto& [block, size] : alive)
            tag.free(block);
        EXPECT_EQ(tag.figures().second, 0u);
    }
}

TEST_F(EkoTest, large_block_realloc_reverses_the_figures)
{
    const size_t before = eko_mem_stats.in_use;
    EKO_MEM_INFO info = {};
    size_t size = 100000;
    void* block = eko_allocLargeBlock(&size, &info);
    for (const auto& [newSize, figure] :
         {std::pair<size_t, size_t>(100000, 100000), {130000, 70000}, {90000, 110000}}) {
        block = eko_reallocLargeBlock(block, newSize, &info);
        EXPECT_EQ(info.in_use, figure + HDR);
        EXPECT_EQ(eko_mem_stats.in_use - before, info.in_use);
    }
    EXPECT_EQ(info.max_in_use, 110000 + HDR);
    size = SIZE_MAX - HDR + 1; // with a header, 0
    EXPECT_EQ(eko_allocLargeBlock(&size, &info), nullptr);
    EXPECT_EQ(eko_reallocLargeBlock(block, size, &info), nullptr);
    eko_freeLargeBlock(block, &info);
    EXPECT_EQ(info.in_use, 20000u);
}

TEST_F(EkoTest, large_blocks_are_taken_in_the_order_of_their_free_list)
{
    EKO_MEM_INFO info = {};
    const auto take = [&](size_t size) { return eko_allocLargeBlock(&size, &info); };
    const auto sizeOf = [](size_t i) { return 5000 + i % 3 * 1000; };
    for (const bool again : {false, true}) {
        std::vector<void*> blocks;
        for (size_t i = 0; i < 60; ++i) {
            blocks.push_back(take(sizeOf(i)));
            blocks.push_back(take(100)); // keeps it from the next
        }
        for (size_t i = 0; i < 120; i += 2)
            eko_freeLargeBlock(blocks[i], &info);
        std::optional<FailNthAlloc> noIndex;
        if (again)
            noIndex.emplace(1);
        eko_freeLargeBlock(take(10000), &info);       // met all of them
        EXPECT_TRUE(!again || FailNthAlloc::fired()); // the index of the first time has gone with the free blocks
        noIndex.reset();
        for (size_t i = 60; i-- > 0;)
            EXPECT_EQ(take(sizeOf(i)), blocks[2 * i]) << i;
        for (void* block : blocks)
            eko_freeLargeBlock(block, &info);
        EXPECT_EQ(info.in_use, 0u);
    }
}

TEST_F(EkoTest, sizes_whose_headers_do_not_fit_are_refused)
{
    for (const EKO_ALLOCATOR_TYPE type : TYPES) {
        const OwnTag tag(type);
        const TAG_ENTRY* entry = memResolve(tag.tag);
        for (char* block : {tag.take(100), tag.take(20000)}) {
            for (size_t size = SIZE_MAX; size > SIZE_MAX - 100; --size) {
                EXPECT_EQ(entry->t_fcns.alloc_fcn(size, entry->t_allocator), nullptr) << type;
                const auto realloc = type == STACK_ALLOCATOR ? nullptr : entry->t_fcns.realloc_fcn;
                EXPECT_EQ(realloc ? realloc(block, size, entry->t_allocator) : nullptr, nullptr) << type;
            }
        }
    }
}

TEST_F(EkoTest, block_smallest_class_is_32)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    char* first = tag.take(1);
    EXPECT_EQ(tag.take(16), first - 40); // used from the chunk's end backwards
    EXPECT_EQ(tag.take(32), first - 80);
    EXPECT_EQ(tag.figures(), Figures(3 * 32, 4000 + 4 * WORD));
    tag.free(first);
    EXPECT_EQ(tag.take(17), first); // the list of 32, too
}

TEST_F(EkoTest, block_classes_are_powers_of_two_in_chunks_of_a_hundred)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    Figures want;
    for (size_t size = 32; size <= 8192; size *= 2) {
        char* before = nullptr;
        for (size_t i = 0; i <= 100; ++i) {
            char* block = tag.take(i % 2 ? size / 2 + 1 : size);
            EXPECT_TRUE(block + size + 8 == before || i % 100 == 0); // from the chunk's end backwards
            before = block;
            tag.free(block);
            EXPECT_EQ(tag.take(size), block);
            memset(block, 'x', size);
            want.first += size;
            want.second += i % 100 == 0 ? 100 * (size + 8) + 4 * WORD : 0;
            EXPECT_EQ(tag.figures(), want);
        }
    }
    memset(tag.take(8193), 'x', 8224); // a chunk of its own
    EXPECT_EQ(tag.figures(), Figures(want.first + 8224, want.second + 8224 + 8 + 4 * WORD));
    EKO_TAG_EMPTY(tag.tag);
    EXPECT_EQ(tag.figures(), Figures(0, 0));
    for (size_t size = 32; size <= 8192; size *= 2)
        memset(tag.take(size), 'x', size); // nothing of the chunks that are gone is on the lists
    EXPECT_EQ(tag.figures(), Figures(16352, 100 * 16352 + 9 * (800 + 4 * WORD)));
}

TEST_F(EkoTest, stack_cuts_one_block_behind_the_other)
{
    const OwnTag tag(STACK_ALLOCATOR);
    const auto chunks = [](size_t n) { return 5000 + n * 4096 + (n + 1) * (8 + 4 * WORD); };
    memset(tag.take(5000), 'a', 5000);
    EXPECT_EQ(tag.figures(), Figures(5000, chunks(0))); // exactly that much, so it is full at once
    char* first = tag.take(10);
    EXPECT_EQ(tag.take(0), nullptr);
    EXPECT_EQ(tag.take(20), first + 16);
    tag.free(first);
    EXPECT_EQ(tag.take(4096 - 48), first + 40);
    char* second = tag.take(16);         // 8 are left: a new chunk
    EXPECT_EQ(tag.take(1), second + 16); // the newest chunk is asked first
    EXPECT_EQ(tag.take(4096 - 24), second + 24);
    EXPECT_EQ(tag.take(8), first + 4088); // and the 8 serve one that fits
    EXPECT_EQ(tag.figures(), Figures(5000 + 2 * 4096, chunks(2)));
    const void* none = eko_getMem(0, tag.tag, 9, nullptr, "", 0); // an odd mode: no size, but no full chunk either
    EXPECT_EQ(tag.take(8), none);
    EXPECT_EQ(tag.figures(), Figures(5008 + 2 * 4096, chunks(3)));
    EKO_TAG_EMPTY(tag.tag);
    EXPECT_EQ(tag.figures(), Figures(5008 + 2 * 4096, 0)); // the bytes only grow
    EXPECT_DEATH(tag.extend(tag.take(8), 16), "assertion failed: 0\n");
}

// Requests that leave ends of all lengths behind; each goes to the newest chunk with room.
TEST_F(EkoTest, stack_asks_the_newest_chunk_first)
{
    const OwnTag tag(STACK_ALLOCATOR);
    std::vector<std::pair<char*, size_t>> chunks; // what is left of each
    std::mt19937 random(20240229);
    for (uint32 i = 0; i < 20000; ++i) {
        const size_t size = (random() % (i % 50 ? 40 : 500)) * 8 + 8;
        const auto hasRoom = [=](const auto& chunk) { return chunk.second >= size; };
        const auto chunk = std::find_if(chunks.rbegin(), chunks.rend(), hasRoom);
        char* block = tag.take(size - random() % 8);
        if (chunk == chunks.rend()) {
            chunks.push_back({block + size, 4096 - size});
        } else {
            ASSERT_EQ(block, chunk->first) << i;
            *chunk = {block + size, chunk->second - size};
        }
    }
}

TEST_F(EkoTest, legacy_second_free_is_reported_once)
{
    const OwnTag tag(LEGACY_ALLOCATOR);
    CapturedFd out(1);
    std::vector<char*> blocks;
    for (size_t i = 0; i < 1500; ++i)
        blocks.push_back(tag.take(i % 61 + 1));
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(20240229));
    for (size_t i = 0; i < 1500; ++i) {
        if (i == 1000)
            EKO_TAG_EMPTY(tag.tag);
        else if (i < 1000)
            tag.free(i % 2 ? blocks[i] : blocks[i] = tag.extend(blocks[i], 2000));
        EXPECT_EQ(out.take(), "");
        tag.free(blocks[i]);
        EXPECT_EQ(out.take(), "Attempting to free previously freed memory\n");
    }
}

TEST_F(EkoTest, legacy_failed_requests_change_nothing_and_none_counts)
{
    const OwnTag tag(LEGACY_ALLOCATOR);
    char* block = nullptr;
    uint32 n = 0;
    while (!block) { // the first block needs its own memory and that of the set
        const FailNthAlloc fault(++n);
        logged([&] { block = tag.take(16 << 20); });
    }
    EXPECT_EQ(n, 3u);
    strcpy(block, "untouched");
    const FailNthAlloc fault(1);
    logged([&] { EXPECT_EQ(tag.extend(block, 32 << 20), nullptr); });
    EXPECT_STREQ(block, "untouched");
    EXPECT_EQ(tag.figures(), Figures(0, 0));
    EXPECT_EQ(logged([&] { tag.free(block); }), ""); // it is still known
}

// Four long lives at once: blocks lie apart, each filled with its own letter, and stay so until they are freed.
TEST_F(EkoTest, allocators_keep_their_blocks_apart)
{
    const OwnTag tags[] = {OwnTag(TYPES[0]), OwnTag(TYPES[1]), OwnTag(TYPES[2]), OwnTag(TYPES[3])};
    std::vector<std::pair<char*, size_t>> alive[4];
    std::mt19937 random(20240229);
    const auto below = [&](size_t n) { return static_cast<uint32>(random() % n); };
    const auto letter = [](size_t size) { return static_cast<char>('!' + size % 90); };
    CapturedFd out(1);
    for (uint32 i = 0; i < 50000; ++i) {
        const OwnTag& tag = tags[i % 4];
        auto& blocks = alive[i % 4];
        const uint32 what = i < 32000 ? below(100) : 99; // in the end all are freed
        char* old = nullptr;
        size_t size = 0;
        if (what >= 45 && !blocks.empty()) {
            std::swap(blocks[below(blocks.size())], blocks.back());
            std::tie(old, size) = blocks.back();
            blocks.pop_back();
            ASSERT_EQ(std::string(old, size), std::string(size, letter(size))) << TYPES[i % 4];
        }
        if (what >= 65 || (what >= 45 && TYPES[i % 4] == STACK_ALLOCATOR)) {
            tag.free(old);
            continue;
        }
        const uint32 power = 1u << below(18); // a size near a power of two, or anything up to one
        const size_t newSize = below(2) ? std::max(power + below(3), 2u) - 1 : 1 + below(power);
        char* block = tag.extend(old, newSize); // of null: takes one
        ASSERT_TRUE(block && reinterpret_cast<uintptr_t>(block) % 8 == 0);
        const size_t kept = std::min(size, newSize);
        ASSERT_EQ(std::string(block, kept), std::string(kept, letter(size))) << TYPES[i % 4];
        ASSERT_TRUE(block == old || newSize > size || TYPES[i % 4] != BLOCK_ALLOCATOR); // these never shrink
        memset(block, letter(newSize), newSize);
        blocks.push_back({block, newSize});
    }
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(tags[0].figures().first, 0u);
    EXPECT_EQ(tags[1].figures().second, 0u);
}
