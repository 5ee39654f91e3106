// The four allocators behind a tag, and the large blocks behind the allocators: layout, which block serves a request,
// figures, and a long random life against a model.
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
#include <string.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <vector>

#include "ekomem_int.h"
#include "support/faults.h"
#include "support/fixture.h"

namespace {

constexpr bool WIDE = sizeof(void*) == 8;
constexpr size_t byWidth(size_t narrow, size_t wide)
{
    return WIDE ? wide : narrow;
}
constexpr size_t HDR = byWidth(8, 16); // of a block of the list allocator, large blocks included

char* bytes(void* p)
{
    return static_cast<char*>(p);
}
ptrdiff_t distance(void* from, void* to)
{
    return bytes(to) - bytes(from);
}

// A tag of the test's own.
class OwnTag {
public:
    explicit OwnTag(EKO_ALLOCATOR_TYPE type) : tag_(EKO_TAG_CREATE(type)) { EXPECT_NE(tag_, EKO_TAG_INVALID); }
    ~OwnTag() { EKO_TAG_DESTROY(tag_); }
    OwnTag(const OwnTag&) = delete;
    OwnTag& operator=(const OwnTag&) = delete;
    char* take(size_t size) const { return static_cast<char*>(EKO_ALLOC(size, tag_)); }
    char* extend(void* p, size_t size) const { return static_cast<char*>(EKO_EXTEND(p, size, tag_)); }
    void free(void* p) const { EKO_FREE(p, tag_); }
    void empty() const { EKO_TAG_EMPTY(tag_); }
    EKO_TAG_MEM_INFO info() const
    {
        EKO_TAG_MEM_INFO info;
        EXPECT_EQ(eko_getTagMemInfo(tag_, &info), 0);
        return info;
    }
    size_t held() const { return info().capacity.in_use; }
    size_t handedOut() const { return info().bytes.in_use; }
    EKO_MEMTAG tag() const { return tag_; }

private:
    EKO_MEMTAG tag_;
};

size_t usage()
{
    size_t now;
    eko_getMemUsage(&now, nullptr);
    return now;
}

// A block of `size` bytes that is free between two that are not.
char* freeBlock(const OwnTag& tag, size_t size)
{
    tag.take(8);
    char* block = tag.take(size);
    tag.take(8);
    tag.free(block);
    return block;
}

void* largeBlock(size_t size, EKO_MEM_INFO* info)
{
    return eko_allocLargeBlock(&size, info);
}

} // namespace

// ---- list -------------------------------------------------------------------------------------------------

TEST_F(EkoTest, list_sizes_and_addresses)
{
    const OwnTag tag(LIST_ALLOCATOR);
    const size_t before = usage();
    char* big = tag.take(4097);
    EXPECT_EQ(tag.handedOut(), 4104u);
    EXPECT_EQ(tag.held(), byWidth(4136, 4168));
    EXPECT_EQ(usage() - before, byWidth(4136, 4168));
    char* one = tag.take(1); // a second chunk, of the least size
    EXPECT_EQ(tag.held(), byWidth(4136 + 4096 + 16 + 8, 4168 + 4096 + 32 + 16));
    EXPECT_EQ(tag.handedOut(), 4104u + 8u);
    char* nine = tag.take(9);
    EXPECT_EQ(distance(nine, one), static_cast<ptrdiff_t>(16 + HDR)); // cut from the end: the later the lower
    tag.free(big);
    tag.free(one);
    EXPECT_EQ(tag.held(), byWidth(4096 + 16 + 8, 4096 + 32 + 16));
    tag.free(nine);
    EXPECT_EQ(tag.info().capacity.in_use, 0u);
    EXPECT_EQ(tag.info().bytes.in_use, 0u);
    EXPECT_EQ(tag.info().bytes.max_in_use, 4104u + 8u + 16u);
    EXPECT_EQ(usage(), before);
}

TEST_F(EkoTest, list_splits_a_block_only_when_a_block_remains)
{
    for (const size_t request : {8u, 16u, 64u}) {
        const OwnTag tag(LIST_ALLOCATOR);
        for (const size_t free : {request, request + HDR - 8, request + HDR}) {
            char* const block = freeBlock(tag, free);
            EXPECT_EQ(tag.take(request), block) << free; // whole
        }
    }
    const OwnTag tag(LIST_ALLOCATOR);
    char* block = freeBlock(tag, 16 + HDR + 8);
    char* upper = tag.take(16);
    EXPECT_EQ(distance(block, upper), static_cast<ptrdiff_t>(HDR + 8));
    EXPECT_EQ(tag.take(8), block); // what remained
}

TEST_F(EkoTest, list_free_subtracts_the_blocks_own_size)
{
    const OwnTag tag(LIST_ALLOCATOR);
    freeBlock(tag, 16 + HDR);
    const size_t before = tag.handedOut();
    char* whole = tag.take(16);
    EXPECT_EQ(tag.handedOut(), before + 16);
    tag.free(whole);
    EXPECT_EQ(tag.handedOut(), before - HDR);
    EXPECT_EQ(tag.take(16 + HDR), whole);
    EXPECT_EQ(tag.extend(whole, 16), whole); // too little surplus to be a block
    EXPECT_EQ(tag.handedOut(), before + 16 - HDR);
    tag.free(whole);
    EXPECT_EQ(tag.handedOut(), before - 2 * HDR);
    tag.empty();
    EXPECT_EQ(tag.handedOut(), before - 2 * HDR); // emptying leaves the figure alone
    EXPECT_EQ(tag.held(), 0u);
    EXPECT_NE(tag.take(100), nullptr);
}

TEST_F(EkoTest, list_takes_the_exact_block_then_the_smallest_then_the_first)
{
    const OwnTag tag(LIST_ALLOCATOR);
    char* blocks[4];
    const size_t sizes[] = {400, 200, 304, 304};
    for (int i = 0; i < 4; ++i) {
        blocks[i] = tag.take(sizes[i]);
        tag.take(8);
    }
    const auto [large, exact, older, newer] = blocks;
    for (char* block : {exact, older, newer, large}) // the last is met first
        tag.free(block);
    EXPECT_EQ(tag.take(200), exact);
    EXPECT_EQ(tag.take(304 - HDR), newer); // met before the older; a whole block
    EXPECT_EQ(tag.take(304 - HDR), older);
    EXPECT_EQ(tag.take(304 - HDR), large + 400 - (304 - HDR));
}

TEST_F(EkoTest, list_joins_neighbours_in_any_order)
{
    std::array<int, 3> order = {0, 1, 2};
    do {
        const OwnTag tag(LIST_ALLOCATOR);
        char* guardAbove = tag.take(8);
        char* blocks[] = {tag.take(40), tag.take(80), tag.take(120)};
        char* guardBelow = tag.take(8);
        for (const int i : order)
            tag.free(blocks[i]);
        char* joined = tag.take(40 + 80 + 120 + 2 * HDR);
        EXPECT_EQ(joined, blocks[2]); // the lowest
        tag.free(guardAbove);
        tag.free(guardBelow);
        EXPECT_NE(tag.held(), 0u);
        tag.free(joined);
        EXPECT_EQ(tag.held(), 0u); // the chunk went back
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(EkoTest, list_extends_in_place_into_a_free_neighbour)
{
    const OwnTag tag(LIST_ALLOCATOR);
    tag.take(8);
    char* above = tag.take(64);
    char* block = tag.take(64);
    memset(block, 'b', 64);
    tag.free(above);
    EXPECT_EQ(tag.handedOut(), 8u + 64u);
    EXPECT_EQ(tag.extend(block, 65), block);
    // The figure takes what the block had become with its neighbour for its old size, so it falls.
    EXPECT_EQ(tag.handedOut(), 8 + 64 + 72 - (128 + HDR));
    EXPECT_EQ(tag.take(64 - 8), block + 72 + HDR); // the surplus is a block again
    EXPECT_EQ(std::string(block, 64), std::string(64, 'b'));
}

TEST_F(EkoTest, list_extends_elsewhere_and_shrinks_in_place)
{
    const OwnTag tag(LIST_ALLOCATOR);
    char* block = tag.take(256);
    for (int i = 0; i < 256; ++i)
        block[i] = static_cast<char>(i);
    const std::string content(block, 256);
    char* moved = tag.extend(block, 264);
    EXPECT_NE(moved, block);
    EXPECT_EQ(std::string(moved, 256), content);
    EXPECT_EQ(tag.handedOut(), 264u);
    EXPECT_EQ(tag.take(256), block); // nothing free is left behind the moved one
    EXPECT_EQ(tag.extend(moved, 16), moved);
    EXPECT_EQ(tag.take(264 - 16 - HDR), moved + 16 + HDR);
    EXPECT_EQ(std::string(moved, 16), content.substr(0, 16));
}

// ---- large blocks -----------------------------------------------------------------------------------------

TEST_F(EkoTest, large_block_realloc_reverses_the_figures)
{
    constexpr size_t LARGE_HDR = byWidth(8, 16);
    const size_t before = usage();
    EKO_MEM_INFO info = {};
    void* block = largeBlock(100000, &info);
    EXPECT_EQ(info.in_use, 100000 + LARGE_HDR);
    EXPECT_EQ(usage() - before, 100000 + LARGE_HDR);
    memset(block, 'x', 100000);
    block = eko_reallocLargeBlock(block, 130000, &info); // 30000 more: the figures fall by that
    EXPECT_EQ(info.in_use, 70000 + LARGE_HDR);
    EXPECT_EQ(usage() - before, 70000 + LARGE_HDR);
    EXPECT_EQ(std::string(bytes(block), 100000), std::string(100000, 'x'));
    block = eko_reallocLargeBlock(block, 90000, &info);
    EXPECT_EQ(info.in_use, 110000 + LARGE_HDR);
    EXPECT_EQ(info.max_in_use, 110000 + LARGE_HDR);
    eko_freeLargeBlock(block, &info);
    EXPECT_EQ(info.in_use, 20000u);
    EXPECT_EQ(usage() - before, 20000u);
}

TEST_F(EkoTest, sizes_whose_headers_do_not_fit_are_refused)
{
    EKO_MEM_INFO info = {};
    void* block = largeBlock(100, &info);
    for (const EKO_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR, LEGACY_ALLOCATOR}) {
        const OwnTag tag(type);
        const TAG_ENTRY* entry = memResolve(tag.tag());
        char* small = tag.take(100);
        char* large = tag.take(20000);
        for (size_t less = 0; less < 100; ++less) {
            EXPECT_EQ(entry->t_fcns.alloc_fcn(SIZE_MAX - less, entry->t_allocator), nullptr) << type << " " << less;
            if (type == STACK_ALLOCATOR)
                continue;
            EXPECT_EQ(entry->t_fcns.realloc_fcn(small, SIZE_MAX - less, entry->t_allocator), nullptr);
            EXPECT_EQ(entry->t_fcns.realloc_fcn(large, SIZE_MAX - less, entry->t_allocator), nullptr);
        }
    }
    for (size_t less = 0; less < 100; ++less) {
        EXPECT_EQ(largeBlock(SIZE_MAX - less, &info), nullptr);
        EXPECT_EQ(eko_reallocLargeBlock(block, SIZE_MAX - less, &info), nullptr);
    }
    eko_freeLargeBlock(block, &info);
    EXPECT_EQ(info.in_use, 0u);
}

// ---- block ------------------------------------------------------------------------------------------------

TEST_F(EkoTest, block_smallest_class_is_32)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    char* above = tag.take(1);
    EXPECT_EQ(tag.held(), byWidth(4000 + 8 + 8, 4000 + 16 + 16));
    for (const size_t size : {16u, 17u, 32u}) {
        char* block = tag.take(size);
        EXPECT_EQ(distance(block, above), 40); // used from the chunk's end backwards
        above = block;
    }
    EXPECT_EQ(tag.handedOut(), 4 * 32u);
    tag.free(above);
    EXPECT_EQ(tag.handedOut(), 3 * 32u);
    EXPECT_EQ(tag.take(1), above); // the list of 32, too
}

TEST_F(EkoTest, block_classes_begin_behind_powers_of_two)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    for (size_t size = 32; size <= 8192; size *= 2) {
        const size_t before = tag.handedOut();
        tag.take(size);
        EXPECT_EQ(tag.handedOut() - before, size);
        tag.take(size + 1);
        EXPECT_EQ(tag.handedOut() - before - size, size < 8192 ? size * 2 : 8224) << size;
    }
}

TEST_F(EkoTest, block_chunk_holds_a_hundred)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    char* const first = tag.take(64);
    EXPECT_EQ(tag.held(), byWidth(7200 + 16, 7200 + 32));
    for (int i = 1; i < 100; ++i)
        EXPECT_EQ(distance(tag.take(64), first), i * 72);
    EXPECT_EQ(tag.held(), byWidth(7200 + 16, 7200 + 32));
    tag.take(64);
    EXPECT_EQ(tag.held(), 2 * byWidth(7200 + 16, 7200 + 32));
    tag.empty();
    EXPECT_EQ(tag.info().bytes.in_use, 0u);
    EXPECT_EQ(tag.info().capacity.in_use, 0u);
    EXPECT_EQ(tag.info().bytes.max_in_use, 101 * 64u);
    EXPECT_EQ(tag.info().capacity.max_in_use, 2 * byWidth(7200 + 16, 7200 + 32));
    memset(tag.take(64), 'x', 64); // nothing of the chunks that are gone is on the lists
    EXPECT_EQ(tag.held(), byWidth(7200 + 16, 7200 + 32));
}

TEST_F(EkoTest, block_never_shrinks_and_moves_between_classes)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    char* block = tag.take(64);
    memset(block, 'a', 64);
    EXPECT_EQ(tag.extend(block, 50), block);
    EXPECT_EQ(tag.extend(block, 64), block);
    char* moved = tag.extend(block, 65);
    EXPECT_NE(moved, block);
    EXPECT_EQ(tag.handedOut(), 128u);
    EXPECT_EQ(std::string(moved, 64), std::string(64, 'a'));
    EXPECT_EQ(tag.take(64), block); // it went back to its class
    char* large = tag.extend(moved, 8193);
    EXPECT_EQ(std::string(large, 64), std::string(64, 'a'));
    EXPECT_EQ(tag.handedOut(), 64u + 8224u);
    EXPECT_EQ(tag.extend(large, 8224), large);
    EXPECT_EQ(tag.extend(large, 1), large);
    EXPECT_EQ(tag.handedOut(), 64u + 8224u);
}

TEST_F(EkoTest, block_large_ones_have_a_chunk_each)
{
    const OwnTag tag(BLOCK_ALLOCATOR);
    const size_t before = usage();
    char* blocks[] = {tag.take(8193), tag.take(8224), tag.take(8200)};
    EXPECT_EQ(tag.held(), 3 * byWidth(8224 + 8 + 8 + 8, 8224 + 8 + 16 + 16));
    EXPECT_EQ(distance(blocks[1], blocks[0]), static_cast<ptrdiff_t>(byWidth(8224 + 32, 8224 + 56)));
    for (char* block : blocks)
        memset(block, 'l', 8193);
    // Each neighbour of a chunk that moves is to find it again.
    for (char*& block : blocks) {
        char* moved = tag.extend(block, 20000);
        EXPECT_EQ(moved == block, &block == &blocks[2]); // behind the last, the others' places are free
        EXPECT_EQ(std::string(moved, 8193), std::string(8193, 'l'));
        memset(moved, 'l', 20000);
        block = moved;
    }
    EXPECT_EQ(tag.handedOut(), 3 * 20000u);
    for (const int i : {1, 0, 2})
        tag.free(blocks[i]);
    EXPECT_EQ(tag.handedOut(), 0u);
    EXPECT_EQ(tag.held(), static_cast<size_t>(-2 * 3 * (20000 - 8224))); // down when extended, and when freed
    EXPECT_EQ(usage() - before, static_cast<size_t>(-2 * 3 * (20000 - 8224)));
    tag.empty();
    EXPECT_EQ(tag.held(), 0u);
}

// ---- stack ------------------------------------------------------------------------------------------------

TEST_F(EkoTest, stack_cuts_one_block_behind_the_other)
{
    const OwnTag tag(STACK_ALLOCATOR);
    EKO_MEM_INFO info = {};
    constexpr size_t CHUNK = byWidth(4096 + 16, 4096 + 24);
    void* chunk = largeBlock(CHUNK, &info); // where the tag's first chunk will be
    eko_freeLargeBlock(chunk, &info);
    char* first = tag.take(10);
    EXPECT_EQ(distance(chunk, first), static_cast<ptrdiff_t>(byWidth(16, 24)));
    EXPECT_EQ(distance(chunk, tag.take(20)), static_cast<ptrdiff_t>(byWidth(32, 40)));
    EXPECT_EQ(distance(chunk, tag.take(3)), static_cast<ptrdiff_t>(byWidth(56, 64)));
    EXPECT_EQ(tag.held(), CHUNK + byWidth(8, 16));
    tag.free(first);
    EXPECT_EQ(tag.handedOut(), 48u);
    EXPECT_EQ(distance(chunk, tag.take(8)), static_cast<ptrdiff_t>(byWidth(64, 72)));
    tag.empty();
    EXPECT_EQ(tag.held(), 0u);
    EXPECT_EQ(tag.handedOut(), 56u); // only grows
    EXPECT_EQ(tag.take(1), first);
}

TEST_F(EkoTest, stack_fills_its_chunks)
{
    const OwnTag tag(STACK_ALLOCATOR);
    char* alone = tag.take(5000);
    EXPECT_EQ(tag.held(), byWidth(5000 + 16 + 8, 5000 + 24 + 16)); // exactly that much, so it is full at once
    memset(alone, 'a', 5000);
    eko_getMem(0, tag.tag(), 9, nullptr, "", 0); // an odd mode: no size, but not from a full chunk
    EXPECT_EQ(tag.held(), byWidth(5024 + 4120, 5040 + 4136));
    char* first = tag.take(4088);
    char* second = tag.take(16); // 8 are left: a new chunk
    EXPECT_EQ(tag.held(), byWidth(5024 + 2 * 4120, 5040 + 2 * 4136));
    EXPECT_EQ(tag.take(1), second + 16); // the newest chunk is asked first
    EXPECT_EQ(tag.take(4096 - 24), second + 24);
    EXPECT_EQ(tag.take(8), first + 4088); // and the 8 serve one that fits
    char* third = tag.take(1);
    EXPECT_EQ(tag.held(), byWidth(5024 + 3 * 4120, 5040 + 3 * 4136));
    EXPECT_EQ(eko_getMem(0, tag.tag(), 9, nullptr, "", 0), third + 8); // of no size, at
    EXPECT_EQ(tag.take(1), third + 8);                                 // the address of the next
}

TEST_F(EkoTest, stack_cannot_extend)
{
    const OwnTag tag(STACK_ALLOCATOR);
    char* block = tag.take(8);
    EXPECT_DEATH(tag.extend(block, 16), "assertion failed: 0\n");
}

// ---- legacy -----------------------------------------------------------------------------------------------

TEST_F(EkoTest, legacy_second_free_is_reported_once)
{
    const OwnTag tag(LEGACY_ALLOCATOR);
    char* blocks[] = {tag.take(10), tag.take(10), tag.take(10)};
    for (const int i : {1, 0, 2}) { // the last one freed was the only one, with no neighbour
        CapturedFd out(1);
        tag.free(blocks[i]);
        EXPECT_EQ(out.take(), "");
        tag.free(blocks[i]);
        EXPECT_EQ(out.take(), "Attempting to free previously freed memory\n");
    }
    EXPECT_EQ(tag.handedOut(), 0u);
}

TEST_F(EkoTest, legacy_thousands_freed_in_any_order)
{
    const OwnTag tag(LEGACY_ALLOCATOR);
    std::mt19937 random(20240229);
    std::vector<char*> blocks;
    for (size_t i = 0; i < 5000; ++i)
        blocks.push_back(tag.take(i % 61 + 1));
    std::shuffle(blocks.begin(), blocks.end(), random);
    for (size_t i = 0; i < 1000; ++i) {
        blocks[i] = tag.extend(blocks[i], 2000);
        ASSERT_NE(blocks[i], nullptr);
        memset(blocks[i], 'g', 2000);
    }
    CapturedFd out(1);
    std::shuffle(blocks.begin(), blocks.end(), random);
    for (size_t i = 0; i < 4000; ++i)
        tag.free(blocks[i]);
    EXPECT_EQ(out.take(), "");
    for (size_t i = 0; i < 4000; ++i)
        tag.free(blocks[i]);
    EXPECT_EQ(out.take().size(), 4000 * strlen("Attempting to free previously freed memory\n"));
    out.take();
    tag.empty(); // the thousand that are left
    tag.free(blocks.back());
    EXPECT_EQ(out.take(), "Attempting to free previously freed memory\n");
    EXPECT_NE(tag.take(10), nullptr);
}

TEST_F(EkoTest, legacy_has_no_figures_and_no_limit)
{
    const OwnTag tag(LEGACY_ALLOCATOR);
    const size_t before = usage();
    ASSERT_EQ(eko_setMemLimit(nullptr, 4195328), 0);
    EXPECT_NE(tag.take(16 << 20), nullptr);
    EXPECT_EQ(usage(), before);
    EKO_TAG_MEM_INFO info = tag.info();
    EXPECT_EQ(info.bytes.in_use + info.bytes.max_in_use + info.capacity.in_use + info.capacity.max_in_use, 0u);
    eko_setMemLimit(nullptr, 0);
}

TEST_F(EkoTest, legacy_failed_requests_change_nothing)
{
    const OwnTag tag(LEGACY_ALLOCATOR);
    uint32 failed = 0;
    for (uint32 n = 1;; ++n) { // the first block needs its own memory and that of the set
        const FailNthAlloc fault(n);
        char* block;
        logged([&] { block = tag.take(10); });
        if (!fault.fired()) {
            tag.free(block);
            break;
        }
        EXPECT_EQ(block, nullptr);
        ++failed;
    }
    EXPECT_EQ(failed, 2u);
    char* block = tag.take(10);
    strcpy(block, "untouched");
    {
        const FailNthAlloc fault(1);
        logged([&] { EXPECT_EQ(tag.extend(block, 1000000), nullptr); });
    }
    EXPECT_STREQ(block, "untouched");
    EXPECT_EQ(logged([&] { tag.free(block); }), ""); // it is still known
}

// ---- all of them ------------------------------------------------------------------------------------------

namespace {

// What a tag should hold: blocks that do not overlap, each filled with its own letter.
class Model {
public:
    Model(EKO_ALLOCATOR_TYPE type, uint32 seed) : tag_(type), type_(type), random_(seed) {}

    void step()
    {
        const uint32 what = below(100);
        if (blocks_.empty() || what < 45)
            takeOne();
        else if (what < 65 && type_ != STACK_ALLOCATOR)
            extendOne();
        else
            freeOne();
    }
    void freeOne()
    {
        const Block block = removeSome();
        check(block, block.size);
        tag_.free(block.start);
    }
    bool empty() const { return blocks_.empty(); }
    const OwnTag& tag() const { return tag_; }

private:
    struct Block {
        char* start;
        size_t size;
        char letter;
    };

    uint32 below(uint32 n) { return static_cast<uint32>(random_() % n); }
    size_t someSize() // near a power of two, or anything up to one
    {
        const uint32 power = 1u << below(18);
        return below(2) ? std::max(power + below(3), 2u) - 1 : 1 + below(power);
    }
    Block removeSome()
    {
        std::swap(blocks_[below(static_cast<uint32>(blocks_.size()))], blocks_.back());
        const Block block = blocks_.back();
        blocks_.pop_back();
        ends_.erase(block.start);
        return block;
    }
    void takeOne()
    {
        const size_t size = someSize();
        add(tag_.take(size), size);
    }
    void extendOne()
    {
        Block block = removeSome();
        const size_t size = someSize();
        block.start = tag_.extend(block.start, size);
        ASSERT_NE(block.start, nullptr);
        check(block, std::min(size, block.size));
        add(block.start, size);
    }
    void add(char* start, size_t size)
    {
        ASSERT_NE(start, nullptr);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(start) % 8, 0u);
        const auto above = ends_.lower_bound(start);
        ASSERT_TRUE(above == ends_.end() || start + size <= above->first);
        ASSERT_TRUE(above == ends_.begin() || std::prev(above)->second <= start);
        const Block block = {start, size, static_cast<char>('!' + below(90))};
        memset(start, block.letter, size);
        blocks_.push_back(block);
        ends_[start] = start + size;
    }
    static void check(const Block& block, size_t size)
    {
        const char* end = block.start + size;
        ASSERT_EQ(std::find_if(block.start, block.start + size, [&](char c) { return c != block.letter; }), end);
    }

    OwnTag tag_;
    EKO_ALLOCATOR_TYPE type_;
    std::mt19937 random_;
    std::vector<Block> blocks_;
    std::map<char*, char*> ends_; // by start
};

} // namespace

TEST_F(EkoTest, allocators_keep_their_blocks_apart)
{
    Model models[] = {{BLOCK_ALLOCATOR, 1}, {LIST_ALLOCATOR, 2}, {STACK_ALLOCATOR, 3}, {LEGACY_ALLOCATOR, 4}};
    for (int i = 0; i < 8000 && !HasFatalFailure(); ++i) {
        for (Model& model : models)
            model.step();
    }
    CapturedFd out(1);
    for (Model& model : models) {
        while (!model.empty() && !HasFatalFailure())
            model.freeOne();
    }
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(models[0].tag().handedOut(), 0u);
}
