// Descriptors, mappings and file handles: results, faults of every system call, modes, large files, locks.
//
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
// LINK: --wrap=open64 --wrap=read --wrap=write --wrap=pread64 --wrap=pwrite64 --wrap=lseek64 --wrap=fsync
// LINK: --wrap=ftruncate64 --wrap=fstat64 --wrap=stat64 --wrap=flock --wrap=mmap64 --wrap=localtime_r
// LINK: --wrap=eko_syncCreate_check
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "ekofile_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

namespace {

constexpr bool NARROW = sizeof(void*) == 4;
constexpr uint64 GIB = 1024 * 1024 * 1024;

int fdOf(EKO_FDESC desc)
{
    return int(reinterpret_cast<intptr_t>(desc));
}

class FileTest : public DiskTest {
protected:
    std::string file(const char* name, const std::string& bytes)
    {
        writeFile(dir_.file(name), bytes);
        return dir_.file(name);
    }
    // A handle on a file with that content.
    EKO_FH handle(const std::string& bytes, uint32 flags = O_RDWR)
    {
        return eko_fileOpen(file("data", bytes).c_str(), flags, 0);
    }
    std::string content() { return readFile(dir_.file("data")); }
};

// Whether another process gets the lock.
bool childCanLock(const std::string& path)
{
    const pid_t child = fork();
    if (child == 0) {
        const int fd = open(path.c_str(), O_RDWR);
        _exit(fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status == 0;
}

// ---- descriptors ------------------------------------------------------------------------------------------

TEST_F(FileTest, file_descriptor_opens)
{
    EKO_FDESC desc = nullptr;
    EXPECT_EQ(eko_flOpen(dir_.file("none").c_str(), O_RDONLY, 0, &desc), ENOENT);
    EXPECT_EQ(desc, EKO_FDESC_NONE);
    EXPECT_EQ(eko_flOpen(dir_.path().c_str(), O_RDWR, 0, &desc), EISDIR);
    const mode_t before = umask(027);
    ASSERT_EQ(eko_flOpen(dir_.file("new").c_str(), O_RDWR | O_CREAT, 0xFFFF, &desc), 0);
    umask(before);
    struct stat st;
    fstat(fdOf(desc), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(fcntl(fdOf(desc), F_GETFD), 0); // no close-on-exec unless asked for
    EXPECT_EQ(eko_flClose(desc), 0);
    EXPECT_EQ(eko_flClose(desc), -1);
    EXPECT_EQ(eko_flSize(desc), 0u);

    for (int32 i : {3, -1, 77}) {
        desc = &st;
        EXPECT_EQ(eko_flOpenStd(&desc, EKO_STD_HANDLE(i)), 1002);
        EXPECT_EQ(desc, &st);
    }
    for (int32 i : {0, 1, 2}) {
        EXPECT_EQ(eko_flOpenStd(&desc, EKO_STD_HANDLE(i)), 0);
        EXPECT_EQ(fdOf(desc), i);
    }
}

TEST_F(FileTest, file_positional_transfers_leave_the_position)
{
    EKO_FDESC desc;
    char buf[8] = {};
    ASSERT_EQ(eko_flOpen(file("data", "0123456789").c_str(), O_RDWR, 0, &desc), 0);
    EXPECT_EQ(eko_flSeek(desc, 4, SEEK_SET), 0);
    EXPECT_EQ(eko_flSeekRead(desc, 8, buf, 8), 2u);
    EXPECT_EQ(eko_flSeekWrite(desc, 0, "ab", 2), 2u);
    EXPECT_EQ(eko_flRead(desc, buf, 2), 2u);
    EXPECT_EQ(std::string(buf, 2), "45");
    EXPECT_EQ(eko_flSeekRead(desc, EKO_FILE_NO_OFFSET, buf, 2), 2u);
    EXPECT_EQ(std::string(buf, 2), "67");
    EXPECT_EQ(eko_flSeekWrite(desc, EKO_FILE_NO_OFFSET, "XYZ", 3), 3u);
    EXPECT_EQ(content(), "ab234567XYZ");
    EXPECT_EQ(eko_flSeek(desc, EKO_FILE_OFFSET(-5), SEEK_SET), 1002);
    EXPECT_EQ(eko_flSeek(desc, EKO_FILE_OFFSET(-3), SEEK_END), 0);
    EXPECT_EQ(eko_flRead(desc, buf, 8), 3u);
    EXPECT_EQ(eko_flSetSize(desc, 3), 0);
    EXPECT_EQ(eko_flSync(desc), 0);
    EXPECT_EQ(content(), "ab2");
    eko_flClose(desc);
    EXPECT_EQ(eko_flRead(desc, buf, 1), 0xFFFFFFFF);
    EXPECT_EQ(eko_flSetSize(desc, 3), -1);
}

TEST_F(FileTest, file_names)
{
    const std::string data = file("data", "x"), moved = dir_.file("moved");
    int32 isdir = 7;
    EXPECT_EQ(getFileType(dir_.path().c_str(), &isdir), 1);
    EXPECT_EQ(isdir, 1);
    EXPECT_EQ(eko_flValidate(data.c_str(), &isdir), 1);
    EXPECT_EQ(isdir, 0);
    isdir = 7;
    EXPECT_EQ(eko_flValidate(moved.c_str(), &isdir), 0);
    EXPECT_EQ(isdir, 0);
    EXPECT_EQ(eko_flValidate(data.c_str(), nullptr), 1);
    EXPECT_EQ(eko_flValidate(dir_.path().c_str(), nullptr), 1); // this system opens directories for reading
    EXPECT_EQ(eko_flValidate(moved.c_str(), nullptr), 0);

    const timespec times[2] = {{1000000000, 0}, {1234567890, 0}};
    utimensat(AT_FDCWD, data.c_str(), times, 0);
    EXPECT_EQ(eko_flRename(data.c_str(), moved.c_str()), 0);
    EXPECT_EQ(eko_flRename(data.c_str(), moved.c_str()), -1);
    EXPECT_EQ(eko_flModTime(moved.c_str()), 1234567890);
    EXPECT_EQ(eko_fileModTimeStat(moved.c_str(), 0), 1234567890);
    EXPECT_EQ(eko_fileModTimeStat(moved.c_str(), EKO_FILE_INMEMORY), -1);
    EXPECT_EQ(eko_flModTime(data.c_str()), -1);
    EXPECT_EQ(eko_fileLengthStat(moved.c_str(), 0), 1u);
    EXPECT_EQ(eko_fileLengthStat(data.c_str(), 0), EKO_FILE_NO_OFFSET);

    mkdir(data.c_str(), 0777);
    EXPECT_EQ(eko_flRemove(dir_.path().c_str()), -1);
    EXPECT_EQ(eko_flRemove(data.c_str()), 0);
    EXPECT_EQ(eko_flRemove(moved.c_str()), 0);
    EXPECT_EQ(eko_flRemove(moved.c_str()), -1);
}

TEST_F(FileTest, file_descriptor_0_is_a_descriptor)
{
    const int saved = dup(0);
    close(0);
    EKO_FH fh = handle("zero");
    ASSERT_NE(fh, nullptr);
    EXPECT_EQ(fdOf(fh->f_desc), 0);
    char buf[4];
    EXPECT_EQ(eko_fileSeekRead(fh, 0, buf, 4), 4u);
    EXPECT_EQ(eko_fileSeekWrite(fh, 0, "Z", 1), 1u);
    eko_fileClose(fh);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    EXPECT_EQ(content(), "Zero");
    dup2(saved, 0);
    close(saved);
}

// ---- mappings ---------------------------------------------------------------------------------------------

TEST_F(FileTest, file_views)
{
    EKO_FH fh = handle(std::string(8192, '-'));
    EKO_OSMAP map = nullptr;
    int32 needsClose = 7;
    ASSERT_EQ(eko_mpCreateMap(fh->f_desc, 8192, 1, &needsClose, &map), 0);
    EXPECT_EQ(needsClose, 0);
    EXPECT_EQ(eko_mpResizeMap(map, 5), 0);
    void* view = nullptr;
    ASSERT_EQ(eko_mpMapView(map, 4096, 4096, &view), 0);
    memcpy(view, "view", 4);
    eko_mpFlushView(view, 4096);
    eko_mpFlushMap(map);
    EXPECT_EQ(content().substr(4096, 5), "view-");
    EXPECT_EQ(eko_fileSeekWrite(fh, 4097, "I", 1), 1u);
    EXPECT_EQ(std::string(static_cast<char*>(view), 4), "vIew");
    eko_mpUnmapView(view, 4096);

    CapturedFd out(1);
    void* untouched = view;
    {
        CallFault fault("mmap64", ENOMEM);
        EXPECT_EQ(eko_mpMapView(map, 3 * GIB + 4096, 4096, &view), 1003);
    }
    char expected[80];
    snprintf(expected, sizeof(expected), "mmap(NULL, 4096, 3, %d, 3221229568) failed with error 12\n",
             fdOf(fh->f_desc));
    EXPECT_EQ(out.take(), expected);
    EXPECT_EQ(eko_mpMapView(map, 1, 4096, &view), 1003); // the system's own refusal: not a page's border
    EXPECT_NE(out.take().find(" 1) failed with error 22\n"), std::string::npos);
    EXPECT_EQ(view, untouched);
    eko_mpCloseMap(map);

    FailNthOnTag noMemory(EKO_GLOBAL_TAG, 1);
    EXPECT_EQ(eko_mpCreateMap(fh->f_desc, 8192, 0, &needsClose, &map), 1003);
    eko_fileClose(fh);
}

TEST_F(FileTest, file_views_beyond_4_gib_wrap_in_32_bits)
{
    EKO_FH fh = handle("A");
    ASSERT_EQ(eko_fileSeekWrite(fh, 4 * GIB, "B", 1), 1u);
    EKO_OSMAP map;
    int32 needsClose;
    void* view = nullptr;
    ASSERT_EQ(eko_mpCreateMap(fh->f_desc, 0, 0, &needsClose, &map), 0);
    EXPECT_EQ(map->access, PROT_READ);
    ASSERT_EQ(eko_mpMapView(map, 4 * GIB, 4096, &view), 0);
    EXPECT_EQ(*static_cast<char*>(view), NARROW ? 'A' : 'B');
    eko_mpUnmapView(view, 4096);
    eko_mpCloseMap(map);
    eko_fileClose(fh);
}

// ---- handles ----------------------------------------------------------------------------------------------

TEST_F(FileTest, file_opens)
{
    EXPECT_EQ(eko_fileOpen(nullptr, 0, 0), nullptr);
    EXPECT_EQ(eko_fileOpen(dir_.file("none").c_str(), 0, 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EKO_FH fh = eko_fileOpen(file("old", "content").c_str(), O_WRONLY | O_TRUNC | O_APPEND, 0x8481);
    ASSERT_NE(fh, nullptr);
    EXPECT_EQ(fh->f_flags, uint32(O_WRONLY | O_APPEND)); // nothing later creates or truncates
    EXPECT_EQ(fh->f_xflags, 0x8481);
    EXPECT_EQ(eko_fileLength(fh), 0u);
    eko_fileClose(fh);
    fh = eko_fileOpen(dir_.file("made").c_str(), O_WRONLY | O_TRUNC, 0); // truncating creates
    EXPECT_NE(fh, nullptr);
    eko_fileClose(fh);
    eko_fileClose(nullptr);

    EXPECT_EQ(eko_fileOpen(dir_.file("old").c_str(), O_RDWR, EKO_FILE_MAPPED), nullptr); // not built yet
    EXPECT_EQ(eko_fileOpen("stdout", O_RDWR, EKO_FILE_INMEMORY), nullptr);
    fh = eko_fileOpen("stdout", O_RDWR, EKO_FILE_MAPPED);
    EXPECT_NE(fh, nullptr); // and never over a standard stream
    eko_fileClose(fh);

    fh = eko_fileOpenW((std::wstring(dir_.path().begin(), dir_.path().end()) + L"/\u20AC").c_str(),
                       O_WRONLY | O_CREAT, 0);
    EXPECT_NE(fh, nullptr);
    eko_fileClose(fh);
    EXPECT_EQ(eko_fileLengthStat(dir_.file("\xE2\x82\xAC").c_str(), 0), 0u);
    const wchar_t invalid[] = {L'a', wchar_t(0xD800), 0};
    EXPECT_EQ(eko_fileOpenW(invalid, O_CREAT, 0), nullptr);
    EXPECT_EQ(eko_fileOpenW(nullptr, 0, 0), nullptr);
}

// Every system call failing, with the status, what is reported, and no second try.
TEST_F(FileTest, file_faults)
{
    EKO_FH fh = handle("0123456789");
    char buf[10] = {};
    struct Case {
        const char* call;
        uint32 (*operation)(EKO_FH, char*);
        uint32 result;
        int fd; // where what is said arrives
        const char* said;
    };
    const Case cases[] = {
        {"write", [](EKO_FH f, char* b) { return eko_fileWrite(f, b, 4); }, 0xFFFFFFFF, 2,
         "Write failed, errno = "},
        {"read", [](EKO_FH f, char* b) { return eko_fileRead(f, b, 4); }, 0xFFFFFFFF, 1, "Read failed, errno = "},
        {"pwrite64", [](EKO_FH f, char* b) { return eko_fileSeekWrite(f, 1, b, 4); }, 0xFFFFFFFF, 1,
         "Failed to seek and write, errno = "},
        {"pread64", [](EKO_FH f, char* b) { return eko_fileSeekRead(f, 1, b, 4); }, 0xFFFFFFFF, 1,
         "Failed to seek and read, errno = "},
        {"write", [](EKO_FH f, char* b) { return eko_fileSeekWrite(f, EKO_FILE_NO_OFFSET, b, 4); }, 0xFFFFFFFF, 1,
         "Failed to seek and write, errno = "},
        {"lseek64", [](EKO_FH f, char*) { return uint32(eko_fileSeek(f, 1, 0)); }, 1002, 1, nullptr},
        {"fsync", [](EKO_FH f, char*) { return uint32(eko_fileSync(f)); }, 1002, 1, nullptr},
        {"ftruncate64", [](EKO_FH f, char*) { return uint32(eko_fileSetSize(f, 1)); }, uint32(-1), 1, nullptr},
        {"fstat64", [](EKO_FH f, char*) { return uint32(eko_fileLength(f)); }, 0, 1, nullptr},
        {"stat64", [](EKO_FH f, char*) { return uint32(eko_fileLengthStat(f->f_name, 0)); }, uint32(-1), 1,
         nullptr},
        {"stat64", [](EKO_FH f, char*) { return uint32(eko_fileModTimeStat(f->f_name, 0)); }, uint32(-1), 1,
         nullptr},
        {"flock", [](EKO_FH f, char*) { return uint32(eko_fileLock(f)); }, 1002, 1, nullptr},
        {"open64", [](EKO_FH f, char*) { return uint32(eko_fileOpen(f->f_name, O_RDWR | O_TRUNC, 0) ? 1 : 0); }, 0,
         1, nullptr},
    };
    for (const Case& c : cases) {
        for (int error : {EINTR, EIO, ENOSPC}) {
            SCOPED_TRACE(testing::Message() << c.call << " " << error);
            CapturedFd said(c.fd);
            {
                CallFault fault(c.call, error);
                errno = 0;
                EXPECT_EQ(c.operation(fh, buf), c.result);
                EXPECT_EQ(errno, error);
                // The console's own write of a report comes through the same call.
                EXPECT_EQ(fault.calls(), c.said && c.fd == 1 && strcmp(c.call, "write") == 0 ? 2u : 1u);
            }
            eko_flush();
            EXPECT_EQ(said.take(), c.said ? c.said + std::to_string(error) + "\n" : "");
        }
    }
    std::thread([fh] { // the failed locks left the mutex
        EXPECT_EQ(eko_fileLock(fh), 0);
        eko_fileUnlock(fh);
    })
        .join();
    EXPECT_EQ(content(), "0123456789");

    struct {
        const char* call;
        uint32 (*operation)(EKO_FH, char*);
    } const shortOnes[] = {{"write", cases[0].operation},
                           {"read", cases[1].operation},
                           {"pwrite64", cases[2].operation},
                           {"pread64", cases[3].operation}};
    for (const auto& c : shortOnes) {
        CallFault fault(c.call, 0, 3);
        EXPECT_EQ(c.operation(fh, buf), 3u) << c.call;
        EXPECT_EQ(fault.calls(), 1u) << c.call;
    }
    EXPECT_EQ(eko_fileWrite(fh, nullptr, 0), 0u);
    EXPECT_EQ(eko_fileSeekWrite(fh, 0, nullptr, 0), 0u);
    eko_fileClose(fh);
}

TEST_F(FileTest, file_out_of_memory)
{
    const std::string name = file("data", "");
    EKO_MEMTAG* fileTag = nullptr;
    ASSERT_EQ(eko_globalGet("ekofile", sizeof(EKO_MEMTAG), nullptr, nullptr, reinterpret_cast<void**>(&fileTag)),
              0);
    uint32 failed = 0;
    for (uint32 n = 1;; ++n) {
        CapturedFd out(1);
        FailNthOnTag fault(*fileTag, n);
        EKO_FH fh = eko_fileOpen(name.c_str(), O_RDWR, 0);
        if (!fault.fired()) {
            EXPECT_NE(fh, nullptr);
            eko_fileClose(fh);
            break;
        }
        ++failed;
        EXPECT_EQ(fh, nullptr);
        EXPECT_TRUE(isOneReport(out.take(), "ekofile.cpp"));
    }
    EXPECT_EQ(failed, 2u); // the record and the name
    FailNthOnTag fault(EKO_THREAD_TAG, 1);
    EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(eko_fileOpenW(L"/", 0, 0), nullptr); }), "ekofile.cpp"));
}

TEST_F(FileTest, file_close_reports_a_handle_without_a_descriptor)
{
    const std::string name = file("data", "");
    const auto closeWithout = [](const char* path) {
        EKO_FH fh = eko_fileOpen(path, O_RDWR, 0);
        const EKO_FDESC desc = fh->f_desc;
        fh->f_desc = EKO_FDESC_NONE;
        char c = 0;
        EXPECT_NE(logged([&] { EXPECT_EQ(eko_fileSeekRead(fh, 0, &c, 1), 0xFFFFFFFF); }), "");
        EXPECT_NE(logged([&] { EXPECT_EQ(eko_fileSeekWrite(fh, 0, &c, 1), 0xFFFFFFFF); }), "");
        const std::string said = logged([&] { eko_fileClose(fh); });
        if (fdOf(desc) > 2)
            eko_flClose(desc);
        return said;
    };
    EXPECT_EQ(closeWithout(name.c_str()), "Inconsistent file state " + name + "\n");
    EXPECT_EQ(closeWithout("stderr"), "Inconsistent file state stderr\n");
    EXPECT_EQ(closeWithout("stdout"), "");
}

TEST_F(FileTest, file_pipes)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EKO_FH fh = eko_fileOpen(("/dev/fd/" + std::to_string(ends[0])).c_str(), O_RDONLY, 0);
    ASSERT_NE(fh, nullptr);
    char buf[8];
    ASSERT_EQ(write(ends[1], "abc", 3), 3);
    EXPECT_EQ(eko_fileRead(fh, buf, 8), 3u); // what there is, without waiting for more
    EXPECT_EQ(eko_fileSeek(fh, 0, SEEK_SET), 1002);
    EXPECT_EQ(eko_fileSync(fh), 1002);
    EXPECT_EQ(eko_fileLength(fh), 0u);
    EXPECT_EQ(eko_fileSetSize(fh, 0), -1);
    EXPECT_EQ(logged([&] { EXPECT_EQ(eko_fileSeekRead(fh, 0, buf, 8), 0xFFFFFFFF); }),
              "Failed to seek and read, errno = 29\n");
    close(ends[1]);
    EXPECT_EQ(eko_fileRead(fh, buf, 8), 0u);
    eko_fileClose(fh);
    close(ends[0]);
}

// ---- modes ------------------------------------------------------------------------------------------------

TEST_F(FileTest, file_read_only_mode)
{
    EKO_FH writable = handle("kept");
    eko_rdonly();
    EKO_FH fh = handle("kept", O_RDONLY);
    ASSERT_NE(fh, nullptr);
    for (int flags : {O_WRONLY, O_RDWR, O_CREAT, O_TRUNC, O_RDONLY | O_TRUNC | O_CREAT})
        EXPECT_EQ(eko_fileOpen(dir_.file("data").c_str(), uint32(flags), 0), nullptr) << flags;
    for (EKO_FH f : {fh, writable}) {
        CallFault noSync("fsync", EIO);
        EXPECT_EQ(eko_fileWrite(f, "x", 1), 0u);
        EXPECT_EQ(eko_fileSeekWrite(f, 0, "x", 1), 0u);
        EXPECT_EQ(eko_fileSetSize(f, 0), -1);
        EXPECT_EQ(eko_fileSync(f), 0);
        EXPECT_EQ(noSync.calls(), 0u);
        char c = 0;
        EXPECT_EQ(eko_fileRead(f, &c, 1), 1u);
        EXPECT_EQ(eko_fileSeekRead(f, 3, &c, 1), 1u);
        EXPECT_EQ(c, 't');
        eko_fileClose(f);
    }
    EXPECT_EQ(content(), "kept");
    EXPECT_EQ(logged([] { EXPECT_EQ(eko_log("lost\n"), 5); }), ""); // the console writes through a handle too
}

TEST_F(FileTest, file_standard_names_in_every_mode)
{
    eko_rdonly();
    eko_nodisk();
    const char* const names[] = {"stdin", "stdout", "stderr"};
    for (int fd : {0, 1, 2}) {
        EKO_FH fh = eko_fileOpen(names[fd], O_RDWR | O_CREAT | O_TRUNC, 0);
        ASSERT_NE(fh, nullptr);
        EXPECT_EQ(fdOf(fh->f_desc), fd);
        eko_fileClose(fh);
        EXPECT_NE(fcntl(fd, F_GETFD), -1);
    }
    for (const char* name : {"STDOUT", "stdout ", "std"})
        EXPECT_EQ(eko_fileOpen(name, O_RDONLY, 0), nullptr);
}

TEST_F(FileTest, file_diskless_mode)
{
    const std::string name = file("data", "x");
    eko_nodisk();
    EXPECT_EQ(eko_fileOpen(name.c_str(), O_RDONLY, 0), nullptr);
    EXPECT_EQ(eko_fileModTimeStat(name.c_str(), 0), -1);
    EXPECT_EQ(eko_fileLengthStat(name.c_str(), 0), 1u);
}

TEST_F(FileTest, file_nosync)
{
    const std::string name = file("data", "x");
    EKO_FH fh = eko_fileOpen(name.c_str(), O_RDWR, EKO_FILE_NOSYNC);
    CallFault fault("fsync", EIO);
    EXPECT_EQ(eko_fileSync(fh), 0);
    EXPECT_EQ(fault.calls(), 0u);
    eko_fileClose(fh);
}

TEST_F(FileTest, file_handles_open_at_the_stop_lose_their_memory_only)
{
    EKO_FH fh = handle("x");
    const EKO_FDESC desc = fh->f_desc;
    eko_term();
    eko_fileClose(fh); // the library is stopped: not looked at
    EXPECT_EQ(eko_fileOpen("stdout", 0, 0), nullptr);
    EXPECT_EQ(eko_flClose(desc), 0);
    ASSERT_EQ(eko_init(), 0);
}

// ---- large files ------------------------------------------------------------------------------------------

TEST_F(FileTest, file_of_3_gib)
{
    EKO_FH fh = handle("");
    const std::string name = dir_.file("data");
    char c = 0;
    for (uint64 size : {2 * GIB - 1, 2 * GIB, 2 * GIB + 1, 3 * GIB, 5 * GIB}) {
        const bool seen = !NARROW || size < 2 * GIB;
        int32 isdir = 7;
        ASSERT_EQ(eko_fileSetSize(fh, size), 0);
        EXPECT_EQ(eko_fileLength(fh), size);
        EXPECT_EQ(eko_fileLengthStat(name.c_str(), 0), seen ? size : EKO_FILE_NO_OFFSET);
        EXPECT_EQ(getFileType(name.c_str(), &isdir), seen ? 1 : 0);
        EXPECT_EQ(isdir, 0);
        EXPECT_EQ(eko_flValidate(name.c_str(), &isdir), seen ? 1 : 0);
        EXPECT_EQ(eko_flValidate(name.c_str(), nullptr), 1);
        EXPECT_GT(eko_fileModTimeStat(name.c_str(), 0), 1600000000);
    }
    EXPECT_EQ(eko_fileSeekWrite(fh, 4 * GIB + 7, "far", 3), 3u);
    EXPECT_EQ(eko_fileSeekRead(fh, 4 * GIB + 8, &c, 1), 1u);
    EXPECT_EQ(c, 'a');
    EXPECT_EQ(eko_fileSeekRead(fh, 8, &c, 1), 1u);
    EXPECT_EQ(c, 0);
    EXPECT_EQ(eko_fileSeek(fh, 4 * GIB + 9, SEEK_SET), 0);
    EXPECT_EQ(eko_fileRead(fh, &c, 1), 1u);
    EXPECT_EQ(c, 'r');
    eko_fileClose(fh);
}

// ---- locks ------------------------------------------------------------------------------------------------

TEST_F(FileTest, file_locks_between_handles_and_processes)
{
    EKO_FH fh = handle("x"), other = handle("x");
    const std::string name = dir_.file("data");
    EXPECT_TRUE(childCanLock(name));
    EXPECT_EQ(eko_fileLock(fh), 0);
    EXPECT_FALSE(childCanLock(name));
    EXPECT_EQ(eko_fileLock(other), 1002); // at once
    eko_fileUnlock(fh);
    EXPECT_EQ(eko_fileLock(other), 0);
    eko_fileUnlock(other);

    EXPECT_EQ(eko_fileLock(fh), 0);
    EXPECT_EQ(eko_fileLock(fh), 0);
    eko_fileUnlock(fh);
    EXPECT_TRUE(childCanLock(name)); // the system's lock does not count
    eko_fileUnlock(fh);

    EKO_FH third = handle("x"); // no mutex to be had: the system's lock alone
    CallFault fault("eko_syncCreate_check", ENOMEM);
    EXPECT_EQ(eko_fileLock(third), 0);
    EXPECT_EQ(fault.calls(), 1u);
    EXPECT_FALSE(childCanLock(name));
    eko_fileUnlock(third);
    EXPECT_TRUE(childCanLock(name));
    for (EKO_FH f : {fh, other, third})
        eko_fileClose(f);
}

TEST_F(FileTest, file_threads_wait_for_each_other)
{
    EKO_FH fh = handle("x");
    CallFault slowCreation("eko_syncCreate_check", 0); // so that the first locks race for the mutex
    std::atomic<int32> inside = 0;
    int32 counter = 0; // guarded by the lock of the file
    std::vector<std::thread> threads;
    for (int32 i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int32 k = 0; k < 100; ++k) {
                EXPECT_EQ(eko_fileLock(fh), 0);
                EXPECT_EQ(inside.exchange(1), 0);
                std::this_thread::yield();
                ++counter;
                inside = 0;
                eko_fileUnlock(fh);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 400);
    eko_fileClose(fh);
}

} // namespace
