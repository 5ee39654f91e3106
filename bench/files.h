// SPDX-License-Identifier: MIT
// Files as benches compare them: ours and the operating system's, on disk and in memory, under one shape.

#ifndef EKO_BENCH_FILES_H
#define EKO_BENCH_FILES_H

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "bench.h"

namespace bench {

constexpr size_t KIB = 1024;
constexpr size_t MIB = 1024 * KIB;

// A name for this process alone, on the disk of the build.
inline std::string scratch(const std::string& name)
{
    mkdir(BENCH_SCRATCH, 0777);
    return std::string(BENCH_SCRATCH) + "/" + std::to_string(getpid()) + "_" + name;
}

inline std::string onTmpfs(const std::string& name)
{
    return "/dev/shm/eko_bench_" + std::to_string(getpid()) + "_" + name;
}

// A new file, removed at the end.
class SystemFile {
public:
    explicit SystemFile(std::string path) : path_(std::move(path))
    {
        descriptor_ = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
        must(descriptor_ != -1, path_.c_str());
    }
    ~SystemFile()
    {
        close(descriptor_);
        unlink(path_.c_str());
    }
    SystemFile(const SystemFile&) = delete;
    SystemFile& operator=(const SystemFile&) = delete;

    void read(uint64_t offset, void* buffer, size_t size)
    {
        must(pread(descriptor_, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size), "pread");
    }
    void write(uint64_t offset, const void* buffer, size_t size)
    {
        must(pwrite(descriptor_, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size), "pwrite");
    }
    void empty() { must(ftruncate(descriptor_, 0) == 0, "ftruncate"); }

private:
    std::string path_;
    int descriptor_;
};

struct SystemDisk : SystemFile {
    static constexpr const char* NAME = "system";
    explicit SystemDisk(const std::string& name) : SystemFile(scratch(name)) {}
};

struct Tmpfs : SystemFile {
    static constexpr const char* NAME = "tmpfs";
    explicit Tmpfs(const std::string& name) : SystemFile(onTmpfs(name)) {}
};

class EkoFile {
public:
    EkoFile(std::string path, uint16 xflags) : path_(std::move(path)), xflags_(xflags)
    {
        handle_ = eko_fileOpen(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, xflags_);
        must(handle_ != nullptr, path_.c_str());
    }
    ~EkoFile()
    {
        eko_fileClose(handle_);
        eko_fileRemoveEx(path_.c_str(), xflags_);
    }
    EkoFile(const EkoFile&) = delete;
    EkoFile& operator=(const EkoFile&) = delete;

    void read(uint64_t offset, void* buffer, uint32 size)
    {
        must(eko_fileSeekRead(handle_, offset, buffer, size) == size, "eko_fileSeekRead");
    }
    void write(uint64_t offset, const void* buffer, uint32 size)
    {
        must(eko_fileSeekWrite(handle_, offset, buffer, size) == size, "eko_fileSeekWrite");
    }
    void empty() { must(eko_fileSetSize(handle_, 0) == 0, "eko_fileSetSize"); }

private:
    std::string path_;
    uint16 xflags_;
    EKO_FH handle_;
};

struct EkoDisk : EkoFile {
    static constexpr const char* NAME = "eko";
    explicit EkoDisk(const std::string& name) : EkoFile(scratch(name), 0) {}
};

struct EkoMemory : EkoFile {
    static constexpr const char* NAME = "eko";
    explicit EkoMemory(const std::string& name) : EkoFile("/" + name, EKO_FILE_INMEMORY) {}
};

template <class File> void fill(File& file, size_t bytes)
{
    constexpr uint32 STEP = 64 * KIB;
    const std::vector<char> some(STEP, 'x');
    for (size_t offset = 0; offset < bytes; offset += STEP)
        file.write(offset, some.data(), STEP);
}

// Offsets of blocks, all over a file, in an order that no cache foresees. The same for all.
class Blocks {
public:
    Blocks(size_t fileBytes, size_t blockBytes) : count_(fileBytes / blockBytes), bytes_(blockBytes) {}
    uint64_t next()
    {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return (state_ >> 33) % count_ * bytes_;
    }

private:
    uint64_t count_;
    uint64_t bytes_;
    uint64_t state_ = 42;
};

constexpr size_t PAGE = 4 * KIB;

// Reads pages of a file, or writes them, as long as the bench runs.
template <class File> void readPages(State& state, File& file, size_t fileBytes)
{
    Blocks blocks(fileBytes, PAGE);
    char page[PAGE];
    for (auto _ : state) {
        file.read(blocks.next(), page, PAGE);
        benchmark::DoNotOptimize(page);
    }
}

template <class File> void writePages(State& state, File& file, size_t fileBytes)
{
    Blocks blocks(fileBytes, PAGE);
    const std::vector<char> page(PAGE, 'y');
    for (auto _ : state)
        file.write(blocks.next(), page.data(), PAGE);
}

} // namespace bench

#endif // EKO_BENCH_FILES_H
