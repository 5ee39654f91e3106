// Stack allocator: blocks cut one behind the other from chunks, for owners that free everything at once. A single
// free does nothing, extending is not supported.
//
// Data    chunk:  | STACK_CHUNK_HDR | used ... offset | left |
//         partial_chunks have room left, full_chunks none; a chunk moves once, from the first list to the second.
// Locks   none; the tag's mutex.

#include "ekomem_int.h"

namespace {

struct STACK_CHUNK_HDR {
    STACK_CHUNK_HDR* prev;
    STACK_CHUNK_HDR* next;
    uint32 offset; // bytes used behind this header
    uint32 left;   // bytes still free
};

struct STACK_ALLOCATOR_ENTRY {
    STACK_CHUNK_HDR* partial_chunks;
    STACK_CHUNK_HDR* full_chunks;
    size_t blocksize; // least chunk payload
    EKO_TAG_MEM_INFO mem_info;
};

constexpr size_t CHUNK_HDR = sizeof(STACK_CHUNK_HDR);
constexpr size_t BLOCKSIZE = 4096;
constexpr size_t MAX_PAYLOAD = 0xFFFFFFFF; // what a chunk's 32-bit fields can count

static_assert(CHUNK_HDR == (sizeof(void*) == 4 ? 16 : 24));

STACK_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<STACK_ALLOCATOR_ENTRY*>(alctr);
}

void pushChunk(STACK_CHUNK_HDR** list, STACK_CHUNK_HDR* chunk)
{
    chunk->prev = nullptr;
    chunk->next = *list;
    if (chunk->next)
        chunk->next->prev = chunk;
    *list = chunk;
}

void unlinkChunk(STACK_CHUNK_HDR** list, STACK_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : *list) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
}

STACK_CHUNK_HDR* create_new_chunk(STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    const size_t payload = size > alctr->blocksize ? size : alctr->blocksize;
    size_t bytes;
    if (payload > MAX_PAYLOAD || !addSize(payload, CHUNK_HDR, &bytes))
        return nullptr;
    auto* chunk = static_cast<STACK_CHUNK_HDR*>(eko_allocLargeBlock(&bytes, &alctr->mem_info.capacity));
    if (!chunk)
        return nullptr;
    chunk->offset = 0;
    chunk->left = static_cast<uint32>(payload);
    pushChunk(&alctr->partial_chunks, chunk);
    return chunk;
}

STACK_CHUNK_HDR* chunkWithRoom(STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    for (STACK_CHUNK_HDR* chunk = alctr->partial_chunks; chunk; chunk = chunk->next) {
        if (chunk->left >= size)
            return chunk;
    }
    return create_new_chunk(alctr, size);
}

void* allocate_from_this_chunk(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR* chunk, size_t size)
{
    void* block = reinterpret_cast<char*>(chunk) + CHUNK_HDR + chunk->offset;
    chunk->offset += static_cast<uint32>(size);
    chunk->left -= static_cast<uint32>(size);
    if (chunk->left == 0) {
        unlinkChunk(&alctr->partial_chunks, chunk);
        pushChunk(&alctr->full_chunks, chunk);
    }
    return block;
}

void freeChunks(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR** list)
{
    while (*list) {
        STACK_CHUNK_HDR* chunk = *list;
        *list = chunk->next;
        eko_freeLargeBlock(chunk, &alctr->mem_info.capacity);
    }
}

// ---- slots of the table -----------------------------------------------------------------------------------

void stack_allocator_destroy(ALLOCATOR alctr)
{
    eko_freeSmallBlock(alctr);
}

void* stack_allocator_alloc(size_t size, ALLOCATOR data)
{
    STACK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    if (!roundUp(size, BLOCK_ALIGNMENT, &size))
        return nullptr;
    STACK_CHUNK_HDR* chunk = chunkWithRoom(alctr, size);
    if (!chunk)
        return nullptr;
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return allocate_from_this_chunk(alctr, chunk, size);
}

void* stack_allocator_realloc(void*, size_t, ALLOCATOR)
{
    EKO_ASSERT(0);
    return nullptr;
}

void stack_allocator_free(void*, ALLOCATOR) {}

// The bytes figure stays as it is: it only grows.
void stack_allocator_free_all(ALLOCATOR data)
{
    STACK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    freeChunks(alctr, &alctr->partial_chunks);
    freeChunks(alctr, &alctr->full_chunks);
}

void stack_allocator_mem_info(ALLOCATOR alctr, EKO_TAG_MEM_INFO* info)
{
    copyMemInfo(stateOf(alctr)->mem_info, info);
}

} // namespace

#if EKO_CHECKED
static bool holds(const STACK_CHUNK_HDR* chunk, const void* ptr)
{
    while (chunk && !within(ptr, chunk, CHUNK_HDR + chunk->offset))
        chunk = chunk->next;
    return chunk != nullptr;
}

bool stack_allocator_owns(ALLOCATOR alctr, const void* ptr)
{
    return holds(stateOf(alctr)->partial_chunks, ptr) || holds(stateOf(alctr)->full_chunks, ptr);
}
#endif

ALLOCATOR stack_allocator_create(ALLOCATOR_FCNS* fcns)
{
    auto* state = static_cast<STACK_ALLOCATOR_ENTRY*>(eko_allocSmallBlock(sizeof(STACK_ALLOCATOR_ENTRY)));
    if (!state)
        return nullptr;
    state->blocksize = BLOCKSIZE;
    *fcns = {stack_allocator_destroy, stack_allocator_alloc,    stack_allocator_realloc,
             stack_allocator_free,    stack_allocator_free_all, stack_allocator_mem_info};
    return state;
}
