// INI files: the rules of reading and setting, exact buffers in both forms, kills and faults, limits, threads.
//
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc --wrap=close --wrap=remove --wrap=rename
// LINK: --wrap=open64 --wrap=read --wrap=write --wrap=pread64 --wrap=pwrite64 --wrap=lseek64 --wrap=fsync
// LINK: --wrap=ftruncate64 --wrap=fstat64 --wrap=stat64 --wrap=flock --wrap=mmap64 --wrap=localtime_r
// LINK: --wrap=eko_syncCreate_check
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "ekoini_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

using namespace std::string_literals;

namespace {

// What a get says and stores, in buffers around the size it needs, the list's and 1, and in longer ones.
template <class Char, class Get> void expectStored(std::basic_string<Char> list, Get get)
{
    std::replace(list.begin(), list.end(), Char(','), Char(0));
    const size_t size = list.append(2, Char(0)).size();
    for (const size_t n : {size_t(0), size_t(1), size - 1, size, size + 1, 65536 + size, 65537 + size}) {
        std::basic_string<Char> buf(n + 1, Char('#')), after = buf;
        EXPECT_EQ(get(buf.data(), uint32(n)), n > size ? 0 : -932) << n;
        const size_t stored = n > size ? size : sizeof(Char) == 1 && n > 1 ? n - 1 : 0;
        EXPECT_TRUE(buf == after.replace(0, stored, list, 0, stored)) << n;
    }
}

class IniTest : public DiskTest {
protected:
    void SetUp() override
    {
        DiskTest::SetUp(), eko_iniCleanup(), acceptUsage(), tag_ = EKO_TAG_CREATE(LIST_ALLOCATOR);
    }
    void TearDown() override { EKO_TAG_DESTROY(tag_), eko_iniCleanup(), DiskTest::TearDown(); }
    const wchar_t* wide(const char* utf8) { return eko_convToWchar(utf8, EKO_UTF8_REPLACE, tag_); }
    // Writes it, or removes it when there is no text, and reads it.
    void file(const std::string& text)
    {
        text.empty() ? unlink(name_) : (writeFile(path_, text), 0), eko_readIniFile(name_);
    }
    // A value, or names joined; else the status.
    std::string value(const char* section, const char* entry)
    {
        char* string = nullptr;
        const int32 status = eko_iniGetStr(name_, section, entry, &string, 0, EKO_THREAD_TAG);
        const std::string got = status ? std::to_string(status) : string ? string : "(null)";
        EKO_FREE(string, EKO_THREAD_TAG);
        return got;
    }
    // That, and that the same is got as a list, in both forms.
    std::string list(const char* s, const char* e)
    {
        const std::string got = value(s, e);
        expectStored(got, [&](char* b, uint32 n) { return eko_iniGet(name_, s, e, b, n); });
        const auto getW = [&](wchar_t* b, uint32 n) { return eko_iniGetW(wide(name_), wide(s), wide(e), b, n); };
        expectStored(std::wstring(wide(got.c_str())), getW);
        return got;
    }

    const std::string path_ = dir_.file("a.ini"), temp_ = dir_.file("_temp_.ini"),
                      rest_ = std::string(1500, 'x') + "\n[z]\n";
    const std::string old_ = "[s]\nk=1\n" + rest_, new_ = "[s]\nk=2\n" + rest_;
    const char* const name_ = path_.c_str();
    int32 num_ = 77;
    EKO_MEMTAG tag_;
};

TEST_F(IniTest, ini_reading_rules)
{
    const std::string n126(126, 'n'), v127(127, 'v'), v128(128, 'w');
    file(
        "lost=1\n[sec]\npath=a;b\nname = value ; note\r\n [sec]\n  in = dented \n\v\nempty= \n=none\n =none\n"
        "no equals\nx=y=z\nSEC=first\nsec=second\ntab\t=\t v\t\n;c=1\n[Two] k=1\nk=2\n[sec]\nonly=later\n[Open ;]\n"
        "\xE2\x82\xAC=\xC3\xA9 \xF0\x9F\x98\x80 \n[]\nzero=1\0002\nff\xFF=\xFF.\nbad=\xC3(\n["s +
        n126 + "]\n" + n126 + "1=" + v127 + "\n[" + n126 + "123]\n" + n126 + "123 =" + v128 + "\n\xFF=4\nbehind=5");
    EXPECT_EQ(list(nullptr, "x"), "sec,Two,sec,Open,," + n126 + "," + n126 + "1");
    EXPECT_EQ(list("sec", nullptr), "path,name,  in,empty,x,SEC,sec,tab\t");
    EXPECT_EQ(list("", nullptr), "zero,ff,bad");
    EXPECT_EQ(list("open", "\xE2\x82\xAC"), "\xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_EQ(list("", "bad"), "\xC3("); // U+FFFD and the "(" in a wide string
    EXPECT_EQ(list("sec", "empty"), "");
    EXPECT_EQ(value("sec", "path") + value("SEC", "NAME") + value("sec", "  in") + value("sec", "x"),
              "avaluedentedy=z");
    EXPECT_EQ(value("sec", "Sec") + value("sec", "tab\t") + value("", "zero") + value("", "ff"), "first\t v1.");
    EXPECT_EQ(value(n126.c_str(), nullptr) + value(n126.c_str(), (n126 + "1").c_str()), n126 + "1" + v127);
    EXPECT_EQ(list((n126 + "199").c_str(), (n126 + "177").c_str()), v128);
    EXPECT_EQ(value("sec", "only") + value("none", nullptr) + value("Two", "in"), "222");
    file("[s]\nabc=1\ndef=2"); // of 65537 characters none serve for names of entries, of 65544 these
    std::string buf(65544, '#');
    EXPECT_EQ(eko_iniGet(name_, "s", nullptr, buf.data(), 65537) +
                  eko_iniGet(name_, "s", nullptr, buf.data(), 65544),
              2 * -932);
    EXPECT_EQ(buf.substr(0, 9), "abc\0def##"s);
    EXPECT_EQ(eko_iniGetW(wide(name_), L"s", nullptr, std::wstring(65544, 0).data(), 65544), -932);
    file("none");
    EXPECT_EQ(value(nullptr, nullptr), "(null)");
    file("[s]\na=12abc\nb=x\nc=\t-7\nd=99999999999\ne=-99999999999\nf=00000000000000012\ng=000000000000000012");
    const int32 numbers[] = {12, 0, -7, INT32_MAX, INT32_MIN, 12, 12};
    for (char entry[] = "a"; *entry <= 'g'; ++*entry) {
        EXPECT_EQ(eko_iniInt32(name_, "s", entry, &num_), *entry == 'g' ? -932 : 0);
        EXPECT_EQ(num_, numbers[*entry - 'a']);
    }
}

TEST_F(IniTest, ini_set_rules)
{
    struct {
        std::string before, after, got = "v";
        const char *value = "v", *entry = "key";
    } const cases[] = {
        {"a\n [sec]\n[sec] ;\n[SEC]x\nkey=2\n[z]", "a\n [sec]\n[sec] ;\nkey=v\n[SEC]x\nkey=2\n[z]"},
        {"[SEC]x\nb=1\nKEY=1\nkey=2\n[z]\nkey=3", "[SEC]x\nb=1\nkey=v\nkey=2\n[z]\nkey=3"},
        {"[sec]\nkey = old\n", "[sec]\nkey = old\nkey=v\n", "old"},
        {"[sec]\nkey\nkey", "[sec]\nkey\nkey=v\n"},
        {"[sec]\r\n  x\r\n\r\nb=1\r\n;\r\n \nkey=1\r\n y\r\n", "[sec]\r\n\n\nb=1\r\n;\r\n\nkey=v\n y\r\n"},
        {"[sec]\na=1\n\n ; c\n[z]\n b\n", "[sec]\na=1\nkey=v\n\n\n[z]\n b\n"},
        {"[sec]\na=1\n\n\n", "[sec]\na=1\nkey=v\n"},
        {"[sec]\na=1", "[sec]\na=1\nkey=v\n"},
        {"[sec\nkey=1\n\n", "[sec\nkey=1\n\n\n[sec]\nkey=v\n", "1"},
        {"[z]\nkey=1", "[z]\nkey=1\n[sec]\nkey=a;b\n", "a", "a;b"},
        {"", "\n[sec]\nkey=v\n"},
        {"[sec]\n\nkey=1\n\n  y\nb\nKEY=2\nkey =3\n[z]\n\nkey=4", "[sec]\nb\nkey =3\n[z]\n\nkey=4", "3", nullptr},
        {"[z]\n\n", "[z]\n\n", "2", nullptr},
        {"x\n[sec]\na\n\n;c\nkey=1\n[z]\nb\n[sec]\nkey=5\n", "x\n[z]\nb\n[sec]\nkey=5\n", "5", "v", nullptr},
        {"[sec]\nb=\0c\n[z\0]\n"s, "[sec]\nb=\nkey=v\n[z"},
        {"\xEF\xBB\xBF[sec]\n", "[sec]\nkey=v\n"},
        {"\xFF\xFE[\0s\0e\0c\0]\0\n\0\xAC\x20"s, "[sec]\n\xE2\x82\xAC\nkey=\xC3\xA9\n", "\xC3\xA9", "\xC3\xA9"}};
    for (const auto& c : cases) {
        for (const bool w : {false, true}) {
            file(c.before);
            EXPECT_EQ(w ? eko_iniSetW(wide(name_), L"sec", wide(c.entry), wide(c.value))
                        : eko_iniSet(name_, "sec", c.entry, c.value),
                      0);
            EXPECT_EQ(readFile(path_) + readFile(temp_), c.after);
            EXPECT_EQ(value("sec", "key"), c.got) << c.after;
        }
    }
}

// Any fault, and a kill in front of any system call, leaves the old file, or the new one, or only the new one under the
// temporary name; what is got is what is there, and nothing is left behind.
TEST_F(IniTest, ini_set_under_faults)
{
    void* fileTag;
    eko_globalGet("ekofile", sizeof(EKO_MEMTAG), nullptr, nullptr, &fileTag);
    const EKO_MEMTAG tags[] = {EKO_GLOBAL_TAG, EKO_THREAD_TAG, *static_cast<EKO_MEMTAG*>(fileTag)};
    const int32 statuses[] = {-904, -904, -904, -905, -919, SIGKILL};
    for (uint32 kind = 0; kind < 6; ++kind) {
        uint32 found[3] = {};
        for (int32 status = statuses[kind], n = 1; status != 0; ++n) {
            writeFile(path_, old_);
            unlink(temp_.c_str());
            eko_iniCleanup();
            const std::string said = logged([&] {
                const FailNthOnTag memory(tags[kind % 3], kind < 3 ? uint32(n) : 0);
                const CallFault call(kind == 3 ? "read" : kind == 4 ? "rename" : "none", EIO, 0, uint32(n) - 1);
                if (kind < 5)
                    status = eko_iniSetW(wide(name_), L"s", L"k", L"2");
                else if (fork() == 0)
                    dieAtCall(uint32(n)), _exit(eko_iniSet(name_, "s", "k", "2"));
                else
                    wait(&status);
            });
            const std::string now = readFile(path_), temp = readFile(temp_);
            EXPECT_TRUE(now == old_ || now == new_ || (now.empty() && temp == new_ && kind >= 4))
                << kind << " " << n;
            EXPECT_TRUE(status == statuses[kind] || (status == 0 && now == new_ && temp.empty())) << status;
            EXPECT_TRUE(kind > 2 || status == 0 || isOneReport(said, "ekoini[_a-z]*.cpp"));
            EXPECT_EQ(value("s", "k"), now == old_ ? "1" : now == new_ ? "2" : "-905");
            ++found[now == old_ ? 0 : now == new_ ? 1 : 2];
        }
        EXPECT_TRUE(found[1] > 0 && (kind == 4) == (found[0] == 0) && (kind > 3) == (found[2] == 1)) << kind;
    }
}

TEST_F(IniTest, ini_limits)
{
    for (const char* line : {"k=v\n", "[s]\n"}) {
        std::string text = *line == '[' ? "" : "[s]\n";
        for (int i = 0; i < 65535; ++i)
            text += line;
        file(text);
        EXPECT_EQ(value("s", "none"), "2");
        file(text + line);
        EXPECT_EQ(value("s", "none"), "-904");
    }
    file("[s]\nlong=" + std::string(1000000, 'v') + "\nk=1");
    EXPECT_EQ(eko_iniSet(name_, "s", "k", "2"), 0);
    EXPECT_EQ(value("s", "long"), std::string(1000000, 'v'));
    size_t bytes[2]; // a file name is compared as it was cut
    for (size_t& used : bytes) {
        EXPECT_EQ(eko_iniInt32((dir_.path() + std::string(300, '/') + "a.ini").c_str(), "s", "k", &num_), 0);
        used = currentUsage().globalBytes;
    }
    EXPECT_EQ(bytes[0], bytes[1]);
}

// Nobody looks whether writes succeed.
TEST_F(IniTest, ini_set_on_a_full_disk)
{
    file(old_);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small = {1024, limit.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_EQ(eko_iniSet(name_, "s", "k", "2"), 0);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(readFile(path_), new_.substr(0, 1024));
}

TEST_F(IniTest, ini_unreadable_files)
{
    const std::string loop = dir_.file("b.ini");
    EXPECT_EQ(symlink("b.ini", loop.c_str()), 0);
    file("[s]\nk=1\n");
    for (const std::string& name : {loop, path_ + "/a.ini", path_ + std::string(5000, 'x'), dir_.path(), temp_}) {
        EXPECT_EQ(eko_iniInt32(name.c_str(), "s", "k", &num_), -905) << name;
        EXPECT_EQ(eko_iniSet(name.c_str(), "s", "k", "4"), -905) << name;
    }
    EXPECT_EQ(unlink(loop.c_str()), 0);
    writeFile(path_, "[s]\n\xFFk=2\n");
    EXPECT_EQ(eko_iniSet(name_, "s", "k", "3"), -905);
    EXPECT_EQ(readFile(path_) + value("S", "K"), "[s]\n\xFFk=2\n1");
    writeFile(path_, "[s]\nk=2\n");
    eko_readIniFileW(wide(name_));
    unlink(name_);
    eko_readIniFileW(wide(name_)); // keeps what it cannot read
    EXPECT_EQ(eko_iniInt32W(wide(dir_.file("A.INI").c_str()), L"S", L"K", &num_), 0);
    EXPECT_EQ(num_, 2);
    eko_readIniFile(name_);
    EXPECT_EQ(value("s", "k"), "-905");
}

// Not started, and then while there is no memory for the record.
TEST_F(IniTest, ini_without_a_record_does_nothing)
{
    EKO_TAG_DESTROY(tag_);
    eko_term();
    EXPECT_EQ(eko_iniGetW(nullptr, nullptr, nullptr, nullptr, 0) + eko_iniSet(name_, "s", "k", "2"), 0);
    ASSERT_EQ(eko_init(), 0);
    const std::string said = logged([&] {
        const FailNthOnTag fault(EKO_GLOBAL_TAG, 2);
        EXPECT_EQ(eko_iniInt32(name_, "s", "k", &num_), 0);
    });
    EXPECT_TRUE(isOneReport(said, "ekoglobal.cpp") && num_ == 77);
    eko_iniCleanup();
    acceptUsage();
    tag_ = EKO_TAG_CREATE(LIST_ALLOCATOR);
    wchar_t bad[] = {0xD800, 0};
    EXPECT_EQ(eko_iniGet(name_, "s", "k", nullptr, 9) + eko_iniGetStr(name_, "s", "k", nullptr, 0, nullptr),
              2 * -924);
    EXPECT_EQ(eko_iniSetW(L"a", L"s", L"k", bad) + eko_iniGetW(L"a", L"s", L"k", bad, 0x40000000), 2 * -904);
}

// The first leaves by a jump, and so holds no lock.
TEST_F(IniTest, ini_threads)
{
    file("[s]\nk=1\n");
    jmp_buf jb;
    eko_resetTag(&jb, tag_);
    const std::string said = logged([&] {
        const FailNthOnTag fault(tag_, 1);
        char* string;
        if (setjmp(jb) == 0)
            ADD_FAILURE() << eko_iniGetStr(name_, "s", "k", &string, 0, tag_);
    });
    EXPECT_TRUE(isOneReport(said, "ekoini.cpp"));
    inThreads(4, [&](uint32 thread) {
        const char section[] = {char('a' + thread), 0};
        for (uint32 n = 0; n < 100; ++n) {
            EXPECT_EQ(eko_iniSet(name_, section, "k", std::to_string(n).c_str()), 0);
            if (n % 3 == thread % 3)
                eko_iniCleanup();
            EXPECT_EQ(value(section, "k"), std::to_string(n));
            if (n % 4 == thread)
                eko_readIniFile(name_);
        }
        eko_releaseTLSTag();
    });
}

} // namespace
