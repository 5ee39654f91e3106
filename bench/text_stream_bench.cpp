// Text files, read and written by lines and characters: on tmpfs, where the file system has the least part in it.

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <string>

#include "bench.h"

namespace {

using namespace bench;

constexpr size_t FILE_BYTES = 10 * 1000 * 1000;
constexpr int LINES = 100000; // a tenth of a million, for an iteration not to take too long
constexpr size_t LONGEST_LINE = 120;

// ---- the implementations --------------------------------------------------------------------------------

class Eko {
public:
    static constexpr const char* NAME = "eko";
    Eko(const char* path, const char* mode) : stream_(eko_fopen(path, mode, EKO_FILE_MODE_UTF8))
    {
        must(stream_ != nullptr, "eko_fopen");
    }
    Eko(const Eko&) = delete;
    Eko& operator=(const Eko&) = delete;
    ~Eko() { eko_fclose(stream_); }

    bool getLine(char* line, int size) { return eko_fgets(line, size, stream_) != nullptr; }
    int getChar() { return eko_fgetc(stream_); }
    bool put(const char* line) { return eko_fputs(line, stream_) >= 0; }
    template <class... Args> bool print(const char* format, Args... args)
    {
        return eko_fprintf(stream_, format, args...) >= 0;
    }

private:
    EKO_FILE_STREAM stream_;
};

// With the C library's own buffer, or one of as many bytes as ours has.
template <size_t BUFFER> class Stdio {
public:
    static constexpr const char* NAME = BUFFER ? "glibc-1k" : "glibc";
    Stdio(const char* path, const char* mode) : file_(fopen(path, mode))
    {
        must(file_ != nullptr, "fopen");
        if (BUFFER)
            setvbuf(file_, buffer_, _IOFBF, BUFFER);
    }
    Stdio(const Stdio&) = delete;
    Stdio& operator=(const Stdio&) = delete;
    ~Stdio() { fclose(file_); }

    bool getLine(char* line, int size) { return fgets(line, size, file_) != nullptr; }
    int getChar() { return getc(file_); }
    bool put(const char* line) { return fputs(line, file_) >= 0; }
    template <class... Args> bool print(const char* format, Args... args)
    {
        return fprintf(file_, format, args...) >= 0;
    }

private:
    FILE* file_;
    char buffer_[BUFFER + 1];
};

// ---- reading --------------------------------------------------------------------------------------------

std::string scratch(const char* name)
{
    return "/dev/shm/eko_bench." + std::to_string(getpid()) + "." + name;
}

// Lines of 20 to 99 letters.
std::string textFile()
{
    const std::string path = scratch("read");
    FILE* file = fopen(path.c_str(), "w");
    must(file != nullptr, "creating a text");
    std::mt19937 random(1);
    for (size_t done = 0; done < FILE_BYTES;) {
        const size_t letters = std::min<size_t>(20 + random() % 80, FILE_BYTES - 1 - done);
        std::string line(letters, 'a');
        for (char& letter : line)
            letter = static_cast<char>('a' + random() % 26);
        line += '\n';
        must(fputs(line.c_str(), file) >= 0, "writing a text");
        done += line.size();
    }
    must(fclose(file) == 0, "closing a text");
    return path;
}

constexpr auto readLines = []<class Stream>(State& state) {
    const std::string path = textFile();
    char line[LONGEST_LINE];
    for (auto _ : state) {
        Stream stream(path.c_str(), "r");
        size_t bytes = 0;
        while (stream.getLine(line, sizeof(line)))
            bytes += strlen(line);
        must(bytes == FILE_BYTES, "reading lines");
    }
    remove(path.c_str());
};

constexpr auto readChars = []<class Stream>(State& state) {
    const std::string path = textFile();
    for (auto _ : state) {
        Stream stream(path.c_str(), "r");
        size_t bytes = 0;
        while (stream.getChar() != -1)
            ++bytes;
        must(bytes == FILE_BYTES, "reading characters");
    }
    remove(path.c_str());
};

// ---- writing --------------------------------------------------------------------------------------------

constexpr auto putLines = []<class Stream>(State& state) {
    const std::string path = scratch("put");
    const char* line = "accounts: 1024 rows kept\n";
    benchmark::DoNotOptimize(line);
    for (auto _ : state) {
        Stream stream(path.c_str(), "w");
        bool done = true;
        for (int i = 0; i < LINES; ++i)
            done &= stream.put(line);
        must(done, "writing lines");
    }
    remove(path.c_str());
};

constexpr auto printLines = []<class Stream>(State& state) {
    const std::string path = scratch("print");
    for (auto _ : state) {
        Stream stream(path.c_str(), "w");
        bool done = true;
        for (int i = 0; i < LINES; ++i)
            done &= stream.print("%s %d: %08x\n", "accounts", i, static_cast<unsigned>(i) * 2654435761U);
        must(done, "printing lines");
    }
    remove(path.c_str());
};

const bool registered[] = {
    item<Eko, Stdio<1024>, Stdio<0>>("text.read.lines", readLines),
    item<Eko, Stdio<0>>("text.read.chars", readChars),
    item<Eko, Stdio<1024>, Stdio<0>>("text.write.puts", putLines),
    item<Eko, Stdio<1024>, Stdio<0>>("text.write.print", printLines),
};

} // namespace
