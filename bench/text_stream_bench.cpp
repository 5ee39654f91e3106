// SPDX-License-Identifier: MIT
// Text files, read and written by lines and characters: on tmpfs, where the file system has the least part in it.

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "bench.h"

namespace {

using namespace bench;

constexpr size_t FILE_BYTES = 10 * 1000 * 1000;
constexpr uint32_t LINES = 100000;   // a tenth of a million, for an iteration not to take too long
constexpr size_t SHORTEST_LINE = 10; // its end included, as everywhere here
constexpr size_t LONGEST_LINE = 70;

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

// ---- the lines ------------------------------------------------------------------------------------------

size_t randomLength(std::mt19937& random)
{
    return SHORTEST_LINE + random() % (LONGEST_LINE - SHORTEST_LINE + 1);
}

std::string randomWord(std::mt19937& random, size_t letters)
{
    std::string word(letters, 'a');
    for (char& letter : word)
        letter = static_cast<char>('a' + random() % 26);
    return word;
}

// What is written again and again: lines of all lengths, or words that make printed lines as long as those. No more
// than stay in the nearest cache, where a program has the line that it has just made.
constexpr size_t TEXTS = 256;
constexpr size_t PRINTED_BESIDE = 17; // characters of a printed line that are not its word's

std::vector<std::string> linesToPut()
{
    std::mt19937 random(2);
    std::vector<std::string> lines;
    while (lines.size() < TEXTS)
        lines.push_back(randomWord(random, randomLength(random) - 1) + '\n');
    return lines;
}

std::vector<std::string> wordsToPrint()
{
    std::mt19937 random(3);
    std::vector<std::string> words;
    while (words.size() < TEXTS) {
        const size_t length = randomLength(random);
        words.push_back(randomWord(random, length > PRINTED_BESIDE ? length - PRINTED_BESIDE : 1));
    }
    return words;
}

// ---- reading --------------------------------------------------------------------------------------------

std::string scratch(const char* name)
{
    return "/dev/shm/eko_bench." + std::to_string(getpid()) + "." + name;
}

std::string textFile()
{
    const std::string path = scratch("read");
    FILE* file = fopen(path.c_str(), "w");
    must(file != nullptr, "creating a text");
    std::mt19937 random(1);
    for (size_t done = 0; done < FILE_BYTES;) {
        const size_t length = std::min(randomLength(random), FILE_BYTES - done);
        const std::string line = randomWord(random, length - 1) + '\n';
        must(fputs(line.c_str(), file) >= 0, "writing a text");
        done += line.size();
    }
    must(fclose(file) == 0, "closing a text");
    return path;
}

constexpr auto readLines = []<class Stream>(State& state) {
    const std::string path = textFile();
    char line[LONGEST_LINE + 1];
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
    const std::vector<std::string> lines = linesToPut();
    for (auto _ : state) {
        Stream stream(path.c_str(), "w");
        bool done = true;
        for (size_t i = 0; i < LINES; ++i)
            done &= stream.put(lines[i % TEXTS].c_str());
        must(done, "writing lines");
    }
    remove(path.c_str());
};

constexpr auto printLines = []<class Stream>(State& state) {
    const std::string path = scratch("print");
    const std::vector<std::string> words = wordsToPrint();
    for (auto _ : state) {
        Stream stream(path.c_str(), "w");
        bool done = true;
        for (uint32_t i = 0; i < LINES; ++i)
            done &= stream.print("%s %d: %08x\n", words[i % TEXTS].c_str(), static_cast<int>(i), i * 2654435761U);
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
