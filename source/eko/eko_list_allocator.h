// SPDX-License-Identifier: MIT
// eko_list_allocator.h - inside the memory modules: a list allocator's state and operations, at both its levels.
#ifndef EKO_EKO_LIST_ALLOCATOR_H
#define EKO_EKO_LIST_ALLOCATOR_H

#include "ekomem_int.h"

struct LIST_CHUNK_HDR;

using ChunkAlloc = void* (*)(size_t* size, EKO_MEM_INFO* mem_info); // may give more, and then says so in *size
using ChunkFree = void (*)(void* ptr, EKO_MEM_INFO* mem_info);

struct LIST_ALLOCATOR_ENTRY {
    LIST_CHUNK_HDR* chunks;
    uint32 blocksize; // least chunk payload to ask for
    ChunkAlloc alloc_fcn;
    ChunkFree free_fcn;
    EKO_TAG_MEM_INFO mem_info;
};

void* internal_alloc(size_t size, LIST_ALLOCATOR_ENTRY* alctr); // null without memory
void* internal_realloc(void* ptr, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr);
void internal_free(void* ptr, LIST_ALLOCATOR_ENTRY* alctr);

#endif
