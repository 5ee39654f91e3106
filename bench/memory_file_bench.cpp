// SPDX-License-Identifier: MIT
// Files in memory, beside files of a tmpfs, which are in memory too, but behind system calls.

#include "files.h"

namespace {

using namespace bench;

constexpr size_t BLOCK = 8 * KIB;

constexpr auto read = []<class File>(State& state) {
    File file("read");
    fill(file, 8 * MIB);
    readPages(state, file, 8 * MIB);
};

constexpr auto write = []<class File>(State& state) {
    File file("write");
    fill(file, 8 * MIB);
    writePages(state, file, 8 * MIB);
};

// Blocks behind the file's end. When the file is full it is emptied, and that counts as a part of each append.
template <class File> void appendUpTo(State& state, size_t fileBytes)
{
    File file("append");
    const std::vector<char> block(BLOCK, 'z');
    size_t offset = 0;
    for (auto _ : state) {
        if (offset == fileBytes) {
            file.empty();
            offset = 0;
        }
        file.write(offset, block.data(), BLOCK);
        offset += BLOCK;
    }
}

constexpr auto append = []<class File>(State& state) { appendUpTo<File>(state, 32 * MIB); };

// ---- scaling ----------------------------------------------------------------------------------------------

constexpr auto readOfSize = []<class File>(State& state) {
    const auto bytes = static_cast<size_t>(state.range(0));
    File file("read");
    fill(file, bytes);
    readPages(state, file, bytes);
};

constexpr auto appendOfSize = []<class File>(State& state) {
    appendUpTo<File>(state, static_cast<size_t>(state.range(0)));
};

constexpr auto readEachItsOwn = []<class File>(State& state) {
    File file("read" + std::to_string(state.thread_index()));
    fill(file, MIB);
    readPages(state, file, MIB);
};

// The loops of all threads begin together, and end so.
constexpr auto readShared = []<class File>(State& state) {
    static std::unique_ptr<File> file;
    if (state.thread_index() == 0) {
        file = std::make_unique<File>("read");
        fill(*file, MIB);
    }
    Blocks blocks(MIB, PAGE);
    char page[PAGE];
    for (auto _ : state) {
        file->read(blocks.next(), page, PAGE);
        benchmark::DoNotOptimize(page);
    }
    if (state.thread_index() == 0)
        file.reset();
};

bool scales()
{
    item<EkoMemory, Tmpfs>("scale.memfile_read.bytes", {.sizes = {64 * KIB, MIB, 16 * MIB, 256 * MIB}}, readOfSize);
    item<EkoMemory, Tmpfs>("scale.memfile_append.bytes", {.sizes = {64 * KIB, MIB, 16 * MIB, 256 * MIB}},
                           appendOfSize);
    for (int threads : {1, 2, 4}) {
        item<EkoMemory, Tmpfs>("scale.memfile_own.threads", {.threads = threads, .wall = true}, readEachItsOwn);
        item<EkoMemory, Tmpfs>("scale.memfile_shared.threads", {.threads = threads, .wall = true}, readShared);
    }
    return true;
}

const bool registered = item<EkoMemory, Tmpfs>("file.memory.read", read) &&
                        item<EkoMemory, Tmpfs>("file.memory.write", write) &&
                        item<EkoMemory, Tmpfs>("file.memory.append", append) && scales();

} // namespace
