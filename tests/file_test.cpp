// SPDX-License-Identifier: MIT
// Descriptors, mappings and file handles: results, faults of every system call, modes, large files, locks.
#include "ekofile_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

using namespace std::string_literals;

constexpr bool NARROW = sizeof(void*) == 4;
constexpr uint64 GIB = 1024 * 1024 * 1024;
constexpr uint32 FAILED = 0xFFFFFFFF;

static int fdOf(EKO_FDESC desc)
{
    return int(reinterpret_cast<intptr_t>(desc));
}

class FileTest : public DiskTest {
protected:
    EKO_FH handle(const std::string& bytes)
    {
        writeFile(path_, bytes);
        return eko_fileOpen(name_, O_RDWR, 0);
    }
    std::string content() { return readFile(path_); }

    const std::string path_ = dir_.file("data");
    const char* const name_ = path_.c_str();
};

TEST_F(FileTest, file_descriptors)
{
    EKO_FDESC desc = nullptr;
    EXPECT_EQ(eko_flOpenStd(&desc, EKO_STD_HANDLE(3)), 1002);
    EXPECT_EQ(eko_flOpen(name_, O_RDONLY, 0, &desc), ENOENT);
    EXPECT_EQ(desc, EKO_FDESC_NONE);
    const mode_t before = umask(027);
    ASSERT_EQ(eko_flOpen(name_, O_RDWR | O_CREAT, 0xFFFF, &desc), 0);
    umask(before);
    struct stat st;
    fstat(fdOf(desc), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(fcntl(fdOf(desc), F_GETFD), 0); // no close-on-exec unless asked for
    EXPECT_EQ(eko_flClose(desc), 0);
}

TEST_F(FileTest, file_names)
{
    const std::wstring dir(dir_.path().begin(), dir_.path().end());
    EXPECT_EQ(eko_fileOpenW((dir + wchar_t(0xD800)).c_str(), O_CREAT, 0), nullptr);
    eko_fileClose(eko_fileOpenW((dir + L"/\u20AC").c_str(), O_CREAT, 0));
    EXPECT_EQ(eko_flRename(dir_.file("\xE2\x82\xAC").c_str(), name_), 0);
    const timespec times[2] = {{1000000000, 0}, {1234567890, 0}};
    utimensat(AT_FDCWD, name_, times, 0);
    EXPECT_EQ(eko_fileModTimeStat(name_, 0), 1234567890);
    EXPECT_EQ(eko_fileLengthStat(name_, 0), 0u);
    EXPECT_EQ(eko_fileModTimeStat(name_, EKO_FILE_INMEMORY), 0); // another file, and there is none
    EXPECT_EQ(eko_fileLengthStat(name_, EKO_FILE_INMEMORY), 0u);
    acceptUsage();
}

TEST_F(FileTest, file_opens)
{
    EKO_FH fh = eko_fileOpen(name_, O_WRONLY | O_TRUNC | O_APPEND, 0); // truncating creates
    ASSERT_NE(fh, nullptr);
    EXPECT_EQ(fh->f_flags, uint32(O_WRONLY | O_APPEND)); // but nothing later does either
    eko_fileClose(fh);
    fh = eko_fileOpen(name_, O_RDWR, EKO_FILE_MAPPED); // has no current position
    EXPECT_EQ(eko_fileRead(fh, &fh, 1) + eko_fileWrite(fh, "x", 1), 0u);
    EXPECT_EQ(eko_fileSeek(fh, 0, SEEK_SET), 1002);
    eko_fileClose(fh);
    for (std::string name : {"stdin", "stdout"}) {
        fh = eko_fileOpen(name.c_str(), O_RDWR, EKO_FILE_MAPPED); // and never over a standard stream
        ASSERT_NE(fh, nullptr);
        fh->f_desc = EKO_FDESC_NONE;
        EXPECT_EQ(logged([&] { eko_fileClose(fh); }), name == "stdin" ? "Inconsistent file state stdin\n" : "");
    }
    acceptUsage(); // mutexes of mapped files are kept
}

// Every system call failing, with the status, what is reported, and no second try.
TEST_F(FileTest, file_faults)
{
    EKO_FH fh = handle("0123456789");
    char b[10] = {};
    struct {
        const char* call;
        std::function<uint64()> run;
        uint64 result;
        const char* said = nullptr;
    } const cases[] = {
        {"write", [&] { return eko_fileWrite(fh, b, 4); }, FAILED, "Write failed"},
        {"read", [&] { return eko_fileRead(fh, b, 4); }, FAILED, "Read failed"},
        {"pwrite64", [&] { return eko_fileSeekWrite(fh, 1, b, 4); }, FAILED, "Failed to seek and write"},
        {"pread64", [&] { return eko_fileSeekRead(fh, 1, b, 4); }, FAILED, "Failed to seek and read"},
        {"lseek64", [&] { return eko_fileSeek(fh, 1, 0); }, 1002},
        {"fsync", [&] { return eko_fileSync(fh); }, 1002},
        {"ftruncate64", [&] { return eko_fileSetSize(fh, 1); }, uint64(-1)},
        {"fstat64", [&] { return eko_fileLength(fh); }, 0},
        {"stat64", [&] { return eko_fileLengthStat(name_, 0); }, uint64(-1)},
        {"stat64", [&] { return eko_fileModTimeStat(name_, 0); }, uint64(-1)},
        {"flock", [&] { return eko_fileLock(fh); }, 1002},
        {"open64", [&] { return eko_fileOpen(name_, O_TRUNC, 0) != nullptr; }, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.call);
        {
            CapturedFd said(&c == cases ? 2 : 1); // the log may be what cannot be written
            CallFault fault(c.call, EINTR);
            EXPECT_EQ(c.run(), c.result);
            EXPECT_EQ(errno, EINTR);
            EXPECT_EQ(fault.calls(), 1u);
            EXPECT_EQ(said.take(), c.said ? c.said + ", errno = 4\n"s : "");
        }
        if (c.result == FAILED) { // short counts are handed on
            CallFault fault(c.call, 0, 3);
            EXPECT_EQ(c.run(), 3u);
            EXPECT_EQ(fault.calls(), 1u);
        }
    }
    inThreads(1, [fh](uint32) { // the failed locks left the mutex
        EXPECT_EQ(eko_fileLock(fh), 0);
        eko_fileUnlock(fh);
    });
    CallFault fault("fsync", EIO);
    fh->f_xflags = EKO_FILE_NOSYNC;
    EXPECT_EQ(eko_fileSync(fh), 0);
    eko_fileClose(fh);
}

TEST_F(FileTest, file_read_only_mode)
{
    EKO_FH fh = handle("kept");
    eko_rdonly();
    for (int flags : {O_WRONLY, O_RDWR, O_CREAT, O_TRUNC})
        EXPECT_EQ(eko_fileOpen(name_, uint32(flags), 0), nullptr) << flags;
    CallFault noSync("fsync", EIO);
    EXPECT_EQ(eko_fileWrite(fh, "x", 1), 0u);
    EXPECT_EQ(eko_fileSeekWrite(fh, 0, "x", 1), 0u);
    EXPECT_EQ(eko_fileSetSize(fh, 0), -1);
    EXPECT_EQ(eko_fileSync(fh), 0);
    eko_fileClose(fh);
    fh = eko_fileOpen(name_, O_RDONLY, 0);
    EXPECT_NE(fh, nullptr);
    eko_fileClose(fh);
    EXPECT_EQ(content(), "kept");

    eko_nodisk();
    EXPECT_EQ(eko_fileOpen(name_, O_RDONLY, 0), nullptr);
    EXPECT_EQ(eko_fileModTimeStat(name_, 0), -1);
    EXPECT_EQ(eko_fileLengthStat(name_, 0), 4u);
    const char* const names[] = {"stdin", "stdout", "stderr"};
    for (int fd : {0, 1, 2}) { // there in every mode
        fh = eko_fileOpen(names[fd], O_RDWR | O_CREAT | O_TRUNC, 0);
        EXPECT_EQ(fdOf(fh->f_desc), fd);
        eko_fileClose(fh);
        EXPECT_NE(fcntl(fd, F_GETFD), -1);
    }
}

TEST_F(FileTest, file_of_5_gib_and_views)
{
    EKO_FH fh = handle("A");
    for (uint64 size : {2 * GIB - 1, 2 * GIB, 5 * GIB}) {
        const bool seen = !NARROW || size < 2 * GIB;
        ASSERT_EQ(eko_fileSetSize(fh, size), 0);
        EXPECT_EQ(eko_fileLength(fh), size);
        EXPECT_EQ(eko_fileLengthStat(name_, 0), seen ? size : EKO_FILE_NO_OFFSET);
        EXPECT_EQ(getFileType(name_, nullptr), seen ? 1 : 0);
        EXPECT_EQ(eko_flValidate(name_, nullptr), 1);
        EXPECT_GT(eko_fileModTimeStat(name_, 0), 1600000000);
    }
    char c = 0;
    EXPECT_EQ(eko_fileSeekWrite(fh, 4 * GIB, "Bc", 2), 2u);
    EXPECT_EQ(eko_fileSeek(fh, 4 * GIB + 1, SEEK_SET), 0);
    EXPECT_EQ(eko_fileRead(fh, &c, 1), 1u);
    EXPECT_EQ(c, 'c');

    EKO_OSMAP map = nullptr;
    int32 needsClose = 7;
    void* view = nullptr;
    ASSERT_EQ(eko_mpCreateMap(fh->f_desc, 5 * GIB, 1, &needsClose, &map), 0);
    EXPECT_EQ(needsClose, 0);
    ASSERT_EQ(eko_mpMapView(map, 4 * GIB, 4096, &view), 0);
    EXPECT_EQ(*static_cast<char*>(view), NARROW ? 'A' : 'B'); // wraps in 32 bits
    *static_cast<char*>(view) = '!';
    eko_mpUnmapView(view, 4096);
    EXPECT_EQ(eko_fileSeekRead(fh, NARROW ? 0 : 4 * GIB, &c, 1), 1u);
    EXPECT_EQ(c, '!');
    const std::string said = logged([&] { EXPECT_EQ(eko_mpMapView(map, 3 * GIB + 1, 4096, &view), 1003); });
    EXPECT_TRUE(matches(said, "mmap\\(NULL, 4096, 3, [0-9]+, 3221225473\\) failed with error 22\n"));
    EXPECT_NE(view, nullptr); // as it was
    eko_mpCloseMap(map);
    FailNthOnTag noMemory(EKO_GLOBAL_TAG, 1);
    EXPECT_EQ(eko_mpCreateMap(fh->f_desc, 5 * GIB, 0, &needsClose, &map), 1003);
    eko_fileClose(fh);
}

TEST_F(FileTest, file_locks)
{
    EKO_FH fh = handle(""), other = handle("");
    EXPECT_EQ(eko_fileLock(fh), 0);
    EXPECT_EQ(eko_fileLock(fh), 0);
    {
        CallFault fault("eko_syncCreate_check", ENOMEM); // no mutex to be had: the system's lock alone
        EXPECT_EQ(eko_fileLock(other), 1002);            // at once
        eko_fileUnlock(fh);
        EXPECT_EQ(eko_fileLock(other), 0); // the system's lock does not count
        eko_fileUnlock(other);
    }
    CallFault slowCreation("eko_syncCreate_check", 0); // so that the first locks race for the mutex
    int32 inside = 0;
    inThreads(4, [&](uint32) {
        for (int32 k = 0; k < 100; ++k) {
            EXPECT_EQ(eko_fileLock(other), 0);
            EXPECT_EQ(inside++, 0);
            std::this_thread::yield();
            --inside;
            eko_fileUnlock(other);
        }
    });
    eko_fileUnlock(fh);
    eko_fileClose(fh);
    eko_fileClose(other);
}
