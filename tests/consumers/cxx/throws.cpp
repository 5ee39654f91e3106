// SPDX-License-Identifier: MIT
// An exception is thrown between two calls of the library and caught, and what a tag owns goes on the way.
#include <eko.h>

#include <concepts>
#include <memory>
#include <stdexcept>

namespace {

struct Destroy {
    void operator()(EKO_MEMTAG tag) const { EKO_TAG_DESTROY(tag); }
};

template <std::integral T> T* numbers(EKO_MEMTAG tag, uint32 count)
{
    void* block = EKO_ALLOC(count * sizeof(T), tag);
    return block ? static_cast<T*>(block) : throw std::bad_alloc();
}

void fail()
{
    std::unique_ptr<std::remove_pointer_t<EKO_MEMTAG>, Destroy> tag(EKO_TAG_CREATE(LIST_ALLOCATOR));
    numbers<int64>(tag.get(), 1000)[999] = 12;
    throw std::runtime_error("thrown");
}

} // namespace

int main()
{
    eko_init();
    try {
        fail();
    } catch (const std::runtime_error& error) {
        eko_log("%s and caught\n", error.what());
    }
    eko_term();
}
