// SPDX-License-Identifier: MIT
// Files on disk: pages read and written by offset, pages of mapped files, copies.

#include <sys/mman.h>

#include <algorithm>

#include "files.h"

namespace {

using namespace bench;

// ---- by offset --------------------------------------------------------------------------------------------

constexpr size_t DISK_FILE = 8 * MIB;

constexpr auto readDisk = []<class File>(State& state) {
    File file("read");
    fill(file, DISK_FILE);
    readPages(state, file, DISK_FILE);
};

constexpr auto writeDisk = []<class File>(State& state) {
    File file("write");
    fill(file, DISK_FILE);
    writePages(state, file, DISK_FILE);
};

// ---- mapped -----------------------------------------------------------------------------------------------

struct EkoMapped {
    static constexpr const char* NAME = "eko";

    explicit EkoMapped(const std::string& path) : handle(eko_fileOpen(path.c_str(), O_RDONLY, EKO_FILE_MAPPED))
    {
        must(handle != nullptr, "opening a mapped file");
    }
    ~EkoMapped() { eko_fileClose(handle); }

    void read(uint64_t offset, void* buffer, uint32 size)
    {
        must(eko_fileSeekRead(handle, offset, buffer, size) == size, "eko_fileSeekRead");
    }

    EKO_FH handle;
};

// The same by hand: at most ten windows of 1 MiB, the one used last in front, the last one making room.
class Windows {
public:
    static constexpr const char* NAME = "windows";

    explicit Windows(const std::string& path) : descriptor_(open(path.c_str(), O_RDONLY))
    {
        must(descriptor_ != -1, "opening a file to be mapped");
    }
    ~Windows()
    {
        for (const Window& window : windows_)
            munmap(window.memory, MIB);
        close(descriptor_);
    }

    void read(uint64_t offset, void* buffer, size_t size)
    {
        char* to = static_cast<char*>(buffer);
        while (size > 0) {
            const size_t within = offset % MIB;
            const size_t piece = std::min(size, MIB - within);
            memcpy(to, find(offset - within) + within, piece);
            to += piece;
            offset += piece;
            size -= piece;
        }
    }

private:
    struct Window {
        uint64_t offset;
        char* memory;
    };

    const char* find(uint64_t offset)
    {
        const auto there = std::find_if(windows_.begin(), windows_.end(),
                                        [offset](const Window& window) { return window.offset == offset; });
        if (there == windows_.end())
            map(offset);
        else
            std::rotate(windows_.begin(), there, there + 1);
        return windows_.front().memory;
    }

    void map(uint64_t offset)
    {
        if (windows_.size() == 10) {
            munmap(windows_.back().memory, MIB);
            windows_.pop_back();
        }
        void* memory = mmap(nullptr, MIB, PROT_READ, MAP_SHARED, descriptor_, static_cast<off_t>(offset));
        must(memory != MAP_FAILED, "mmap");
        windows_.insert(windows_.begin(), {offset, static_cast<char*>(memory)});
    }

    int descriptor_;
    std::vector<Window> windows_;
};

// One file for all: where the system has put its pages makes as much of a difference as who reads them.
constexpr size_t MAPPED_FILE = 32 * MIB;

const char* mappedFile()
{
    static SystemDisk contents("mapped");
    static const std::string path = [] {
        fill(contents, MAPPED_FILE);
        return scratch("mapped");
    }();
    return path.c_str();
}

template <size_t BYTES> struct MappedRead {
    template <class Mapped> void operator()(State& state) const
    {
        Mapped mapped(mappedFile());
        readPages(state, mapped, BYTES);
    }
};

// ---- copies -----------------------------------------------------------------------------------------------

constexpr size_t COPIED = 64 * MIB;

struct EkoCopy {
    static constexpr const char* NAME = "eko";
    static void copy(const std::string& from, const std::string& to)
    {
        must(eko_fileCopy(from.c_str(), to.c_str()) == 0, "eko_fileCopy");
    }
    static void copyOntoEqual(const std::string& from, const std::string& to) { copy(from, to); }
};

class OpenFile {
public:
    OpenFile(const std::string& path, int flags) : descriptor_(open(path.c_str(), flags, 0666))
    {
        must(descriptor_ != -1, path.c_str());
    }
    ~OpenFile() { close(descriptor_); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    int descriptor() const { return descriptor_; }

    size_t read(std::vector<char>& buffer)
    {
        const ssize_t count = ::read(descriptor_, buffer.data(), buffer.size());
        must(count >= 0, "read");
        return static_cast<size_t>(count);
    }

private:
    int descriptor_;
};

struct SystemCopy {
    static constexpr const char* NAME = "system";

    static void copy(const std::string& from, const std::string& to)
    {
        OpenFile source(from, O_RDONLY);
        OpenFile target(to, O_WRONLY | O_CREAT | O_TRUNC);
        std::vector<char> buffer(128 * KIB);
        while (const size_t count = source.read(buffer))
            must(write(target.descriptor(), buffer.data(), count) == static_cast<ssize_t>(count), "write");
    }

    static void copyOntoEqual(const std::string& from, const std::string& to)
    {
        OpenFile source(from, O_RDONLY);
        OpenFile target(to, O_RDONLY);
        std::vector<char> ours(64 * KIB);
        std::vector<char> theirs(64 * KIB);
        while (const size_t count = source.read(ours)) {
            must(target.read(theirs) == count, "reading the other file");
            must(memcmp(ours.data(), theirs.data(), count) == 0, "comparing");
        }
    }
};

constexpr auto copyToNew = []<class Copy>(State& state) {
    SystemDisk source("source");
    fill(source, COPIED);
    for (auto _ : state) {
        Copy::copy(scratch("source"), scratch("copy"));
        state.PauseTiming();
        must(unlink(scratch("copy").c_str()) == 0, "unlink");
        state.ResumeTiming();
    }
};

constexpr auto copyOntoEqual = []<class Copy>(State& state) {
    SystemDisk source("source");
    SystemDisk equal("equal");
    fill(source, COPIED);
    fill(equal, COPIED);
    for (auto _ : state)
        Copy::copyOntoEqual(scratch("source"), scratch("equal"));
};

const bool registered = item<EkoDisk, SystemDisk>("file.disk.read", readDisk) &&
                        item<EkoDisk, SystemDisk>("file.disk.write", writeDisk) &&
                        item<EkoMapped, Windows>("file.mapped.near", MappedRead<8 * MIB>{}) &&
                        item<EkoMapped, Windows>("file.mapped.random", MappedRead<MAPPED_FILE>{}) &&
                        item<EkoCopy, SystemCopy>("file.copy.new", copyToNew) &&
                        item<EkoCopy, SystemCopy>("file.copy.equal", copyOntoEqual);

} // namespace
