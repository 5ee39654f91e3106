// SPDX-License-Identifier: MIT
// fixture.h - what the tests share: a started library that must end as it began, captured console output, faults.
#ifndef EKO_TESTS_FIXTURE_H
#define EKO_TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "eko.h"

// Bytes in use on the library's own tags, mutexes and events alive, tags alive: equal before and after what leaves
// nothing behind.
using Usage = std::map<std::string, size_t>;
Usage currentUsage();
EKO_TAG_MEM_INFO infoOf(EKO_MEMTAG tag);
EKO_MEMTAG fileTag(); // the file module's own

// Starts the library, and fails a test that leaves anything in use.
class EkoTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // For a test of something that is lost on purpose: what is in use now counts as the start.
    void acceptUsage();

private:
    Usage before_;
};

// A directory of the test's own, removed with all its files at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    std::string file(const char* name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// An EkoTest with a directory of its own, that must also end with as many open descriptors. The modes that a test has
// set are off again when the library stops.
class DiskTest : public EkoTest {
protected:
    void SetUp() override;
    void TearDown() override;

    TempDir dir_;

private:
    uint32 descriptors_ = 0;
};

// Descriptors that the process has open.
uint32 openDescriptors();

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

// What arrives at a descriptor of the process (1 or 2), until taken.
class CapturedFd {
public:
    explicit CapturedFd(int fd);
    ~CapturedFd();
    std::string take(); // what has come so far, and nothing that was taken before

private:
    int fd_;
    int saved_;
    int file_;
    long long taken_ = 0;
};

// What the library logs to standard output while `action` runs, flushed.
template <class Action> std::string logged(Action action)
{
    CapturedFd out(1);
    action();
    eko_flush();
    return out.take();
}

// Whether the whole text matches, as an extended regular expression.
::testing::AssertionResult matches(const std::string& text, const std::string& pattern);

// Whether that is one report of exhausted memory, and nothing else, made by the library's source file of that name.
::testing::AssertionResult isOneReport(const std::string& said, const std::string& file);

// Runs `action` with 0, 1, ... in that many threads, which begin together, and waits for them.
template <class Action> void inThreads(uint32 count, Action action)
{
    std::barrier start(static_cast<std::ptrdiff_t>(count));
    std::vector<std::jthread> threads;
    for (uint32 i = 0; i < count; ++i)
        threads.emplace_back([&start, &action, i] {
            start.arrive_and_wait();
            action(i);
        });
}

// Returns once it is so.
template <class Condition> void until(Condition condition)
{
    while (!condition())
        eko_sleep(1);
}

// In a test's file, in front of the body of what replaces the function of that name, which stays as __real_NAME.
#define EKO_WRAP(result, name, params) \
    extern "C" result __real_##name params; \
    extern "C" result __wrap_##name params; \
    result __wrap_##name params

// The same, for a replacement that just has an answer.
#define EKO_ANSWER(result, name, params, answer) \
    EKO_WRAP(result, name, params) \
    { \
        return answer; \
    }

#endif
