// SPDX-License-Identifier: MIT
#include "support/fixture.h"

#include <fcntl.h>
#include <regex.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ekomem_int.h"

EKO_TAG_MEM_INFO infoOf(EKO_MEMTAG tag)
{
    EKO_TAG_MEM_INFO info = {};
    EXPECT_EQ(eko_getTagMemInfo(tag, &info), 0);
    return info;
}

EKO_MEMTAG fileTag()
{
    void* record = nullptr; // it holds nothing but the tag
    EXPECT_EQ(eko_globalGet("ekofile", sizeof(EKO_MEMTAG), nullptr, nullptr, &record), 0);
    return *static_cast<EKO_MEMTAG*>(record);
}

Usage currentUsage()
{
    const size_t ofThread = infoOf(EKO_THREAD_TAG).bytes.in_use; // first: it may create the tag
    return {{"bytes on the global tag", infoOf(EKO_GLOBAL_TAG).bytes.in_use},
            {"bytes on the thread's tag", ofThread},
            {"bytes on the file tag", infoOf(fileTag()).bytes.in_use},
            {"semaphores", size_t(syncSlotsInUse())},
            {"tags", size_t(memTagsAlive())}};
}

void EkoTest::SetUp()
{
    ASSERT_EQ(eko_init(), 0);
    before_ = currentUsage();
}

void EkoTest::TearDown()
{
    EXPECT_EQ(currentUsage(), before_);
    eko_term();
}

void EkoTest::acceptUsage()
{
    before_ = currentUsage();
}

void DiskTest::SetUp()
{
    EkoTest::SetUp();
    descriptors_ = openDescriptors();
}

void DiskTest::TearDown()
{
    EXPECT_EQ(openDescriptors(), descriptors_);
    eko_readonly = 0;
    eko_diskless = 0;
    eko_background = 0;
    EkoTest::TearDown();
}

uint32 openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd"); // has one itself
    return uint32(std::distance(begin(all), end(all))) - 1;
}

TempDir::TempDir()
{
    char name[] = "/tmp/eko-test-XXXXXX";
    EXPECT_NE(mkdtemp(name), nullptr);
    path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

CapturedFd::CapturedFd(int fd) : fd_(fd), saved_(dup(fd))
{
    fflush(stdout);
    file_ = memfd_create("captured", 0);
    EXPECT_GE(file_, 0);
    fcntl(file_, F_SETFL, O_APPEND);
    dup2(file_, fd_);
}

CapturedFd::~CapturedFd()
{
    fflush(stdout);
    dup2(saved_, fd_);
    close(saved_);
    close(file_);
}

std::string CapturedFd::take()
{
    fflush(stdout);
    fflush(stderr);
    struct stat st;
    fstat(file_, &st);
    std::string text(static_cast<size_t>(st.st_size - taken_), '\0');
    const ssize_t count = pread(file_, text.data(), text.size(), static_cast<off_t>(taken_));
    EXPECT_EQ(count, static_cast<ssize_t>(text.size()));
    taken_ = st.st_size;
    return text;
}

::testing::AssertionResult matches(const std::string& text, const std::string& pattern)
{
    regex_t regex;
    EXPECT_EQ(regcomp(&regex, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB), 0);
    const bool found = regexec(&regex, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return found ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "the text is: " << text;
}

::testing::AssertionResult isOneReport(const std::string& said, const std::string& file)
{
    return matches(said, "Out of memory\\. Called from source/eko/" + file + ":[0-9]+\n");
}
