// SPDX-License-Identifier: MIT
// INI files: the rules of reading and setting, exact buffers in both forms, faults, kills, limits, threads.
#include <sys/resource.h>

#include "ekoini_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

using namespace std::string_literals;

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
        DiskTest::SetUp(), eko_iniCleanup(), tag_ = EKO_TAG_CREATE(BLOCK_ALLOCATOR), acceptUsage();
    }
    void TearDown() override { eko_iniCleanup(), DiskTest::TearDown(); }
    const wchar_t* wide(const char* utf8) { return eko_convToWchar(utf8, EKO_UTF8_REPLACE, tag_); }
    void file(const std::string& text) { writeFile(path_, text), eko_readIniFile(name_); }
    int32 set(const char* value) { return eko_iniSet(name_, "s", "k", value); }
    // A value, or names joined; else the status.
    std::string value(const char* section, const char* entry)
    {
        char* string = nullptr;
        const int32 status = eko_iniGetStr(name_, section, entry, &string, 0, EKO_THREAD_TAG);
        const std::string got = status ? std::to_string(status) : string ? string : "(null)";
        return EKO_FREE(string, EKO_THREAD_TAG), got;
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

    const std::string path_ = dir_.file("a.ini"), temp_ = dir_.file("_temp_.ini");
    const std::string old_ = "[s]\nk=1\n" + std::string(1500, 'x'), new_ = "[s]\nk=2\n" + old_.substr(8);
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
    EXPECT_EQ(list("open", "\xE2\x82\xAC"), "\xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_EQ(list("", "bad") + list("sec", "empty") + list("sec", "path"), "\xC3(a");
    EXPECT_EQ(value("SEC", "NAME") + value("sec", "  in") + value("sec", "Sec") + value("", "ff"),
              "valuedentedfirst.");
    EXPECT_EQ(value(n126.c_str(), nullptr) + value(n126.c_str(), (n126 + "1").c_str()), n126 + "1" + v127);
    EXPECT_EQ(list((n126 + "199").c_str(), (n126 + "177").c_str()), v128);
    EXPECT_EQ(value("sec", "tab\t") + value("", "zero") + value("sec", "x") + value("sec", "only"), "\t v1y=z2");
    file("[s]\nabc=1\ndef=2"); // of 65544 characters 7 serve for names of entries
    std::string buf(65544, '#');
    EXPECT_EQ(eko_iniGet(name_, "s", nullptr, buf.data(), 65544), -932);
    EXPECT_EQ(buf.substr(0, 9), "abc\0def##"s);
    EXPECT_EQ(eko_iniGetW(wide(name_), L"s", nullptr, std::wstring(65544, 0).data(), 65544), -932);
    file("[s]\na=12abc\nb=x\nc=\t-7\nd=99999999999\ne=-99999999999\nf=00000000000000012\ng=000000000000000012");
    const int32 numbers[] = {12, 0, -7, INT32_MAX, INT32_MIN, 12, 12};
    for (char e[] = "a"; *e <= 'g'; ++*e)
        EXPECT_TRUE(eko_iniInt32(name_, "s", e, &num_) == (*e == 'g' ? -932 : 0) && num_ == numbers[*e - 'a']) << e;
    EXPECT_EQ((file("none"), value(nullptr, nullptr)), "(null)");
}

// As many sections as entries in each; every name is there again, in other letters and behind the first. What was
// read before has the same names elsewhere, and where there is no memory for an index they are found all the same.
TEST_F(IniTest, ini_first_of_many_names)
{
    const auto named = [](const char* upperLower, int32 i, int32 count, char first) {
        return upperLower[i % 2] + std::to_string((i / 2 + first) % count);
    };
    for (const int32 count : {4, 5, 200}) {
        for (const std::string first : {"1", "2", "3"}) {
            std::string text;
            for (int32 s = 0; s < 2 * count; ++s) {
                text += "[" + named("sS", s, count, first[0]) + "]\n";
                for (int32 e = 0; e < 2 * count; ++e)
                    text += named("nN", e, count, first[0]) + "=" + (s % 2 || e % 2 ? "no" : first) + "\n";
            }
            file(text);
            const FailNthOnTag none(EKO_GLOBAL_TAG, first == "3" ? 1 : 0, FailNthAlloc::ALL_FROM_THERE);
            for (int32 i = 0; i < count; ++i) {
                const std::string section = "S" + std::to_string(i), entry = "N" + std::to_string(i);
                EXPECT_EQ(value(section.c_str(), entry.c_str()), first) << i;
                EXPECT_EQ(value(section.c_str(), (entry + "000").c_str()), "2") << i;
            }
        }
    }
}

TEST_F(IniTest, ini_set_rules)
{
    struct {
        std::string before, after, got = "v";
        const char *value = "v", *entry = "key";
    } const cases[] = {
        {"a\n [sec]\n[sec] ;\n[SEC]x\nkey=2\n[z]", "a\n [sec]\n[sec] ;\nkey=v\n[SEC]x\nkey=2\n[z]"},
        {"\xEF\xBB\xBF[SEC]x\nb=1\nKEY=1\nkey=2\n[z]\nkey=3", "[SEC]x\nb=1\nkey=v\nkey=2\n[z]\nkey=3"},
        {"[sec]\nkey = old\nkey\nkey", "[sec]\nkey = old\nkey\nkey=v\n", "old"},
        {"[sec]\r\n  x\r\n\r\nb=1\r\n;\r\n \nkey=1\r\n y\r\n", "[sec]\r\n\n\nb=1\r\n;\r\n\nkey=v\n y\r\n"},
        {"[sec]\na=\0c\n\n ; c\n[z\0]\n b\n"s, "[sec]\na=\nkey=v\n\n\n[z\n b\n"},
        {"[sec]\na=1\n\n\n", "[sec]\na=1\nkey=v\n"},
        {"[sec\nkey=1\n\n[z]\nkey=2", "[sec\nkey=1\n\n[z]\nkey=2\n[sec]\nkey=v\n", "1"},
        {"", "\n[sec]\nkey=a;b\n", "a", "a;b"},
        {"[sec]\n\nkey=1\n\n  y\nb\nKEY=2\nkey =3\n[z]\n\nkey=4", "[sec]\nb\nkey =3\n[z]\n\nkey=4", "3", nullptr},
        {"x\n[sec]\na\n\n;c\nkey=1\n[z]\nb\n[sec]\nkey=5\n", "x\n[z]\nb\n[sec]\nkey=5\n", "5", "v", nullptr},
        {"\xFF\xFE[\0s\0e\0c\0]\0\n\0\xAC\x20"s, "[sec]\n\xE2\x82\xAC\nkey=\xC3\xA9\n", "\xC3\xA9", "\xC3\xA9"}};
    for (uint32 i = 0; i < 22; ++i) {
        const auto& [before, after, got, v, e] = cases[i / 2];
        before.empty() ? unlink(name_) : (file(before), 0);
        EXPECT_EQ(i % 2 ? eko_iniSetW(wide(name_), L"sec", wide(e), wide(v)) : eko_iniSet(name_, "sec", e, v), 0);
        EXPECT_EQ(readFile(path_) + readFile(temp_) + value("sec", "key"), after + got);
    }
}

// Any fault or kill leaves the old file, the new one, or the temporary one alone, whole; a full disk does not.
TEST_F(IniTest, ini_set_under_faults)
{
    const EKO_MEMTAG tags[] = {EKO_GLOBAL_TAG, EKO_THREAD_TAG, tag_, tag_, tag_};
    const char* const calls[] = {"none", "none", "read", "rename", "none"};
    const int32 statuses[] = {-904, -904, -905, -919, SIGKILL};
    const std::string states[] = {"ON", "ON", "ON", "TN", "OTN"};
    for (uint32 i = 0; i < 5; ++i) {
        std::string seen;
        for (int32 status = 1, n = 1; status != 0; ++n) {
            writeFile(path_, old_), unlink(temp_.c_str()), eko_iniCleanup();
            const std::string said = logged([&] {
                const FailNthOnTag memory(tags[i], tags[i] == tag_ ? 0 : uint32(n));
                const CallFault call(calls[i], EIO, 0, uint32(n) - 1);
                if (i == 4 && fork() == 0)
                    dieAtCall(uint32(n)), _exit(set("2"));
                status = i == 4 ? (wait(&status), status) : eko_iniSetW(wide(name_), L"s", L"k", L"2");
            });
            const std::string now = readFile(path_), temp = readFile(temp_);
            const char state = now == old_ ? 'O' : now == new_ ? 'N' : now.empty() && temp == new_ ? 'T' : '?';
            seen += seen.ends_with(state) ? "" : std::string(1, state);
            EXPECT_TRUE(status == statuses[i] || (status == 0 && state == 'N')) << status;
            EXPECT_TRUE((temp.empty() || i == 4 || state == 'T') &&
                        (status != -904 || isOneReport(said, "ekoini.*")));
            EXPECT_EQ(value("s", "k"), state == 'O' ? "1" : state == 'N' ? "2" : "-905");
        }
        EXPECT_EQ(seen, states[i]);
    }
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit), signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {1024, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_EQ(set("2"), 0);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(readFile(path_), new_.substr(0, 1024));
}

TEST_F(IniTest, ini_large_and_unreadable_files)
{
    const std::string v(1000000, 'v');
    std::string text = "[s]\nlong=" + v + "\n";
    for (uint32 i = 1; i < 65535; ++i)
        text += "k=1\n";
    file(text);
    EXPECT_EQ(set("2"), 0);
    EXPECT_TRUE(value("s", "k") == "2" && value("s", "long") == v);
    file(text + "k=1");
    EXPECT_EQ(value("s", "k"), "-904");
    file("[s]\nk=1\n");
    EXPECT_EQ(symlink("b.ini", dir_.file("b.ini").c_str()), 0);
    for (const std::string& bad :
         {dir_.file("b.ini"), path_ + "/a.ini", path_ + v.substr(0, 5000), dir_.path(), temp_}) {
        EXPECT_EQ(eko_iniInt32(bad.c_str(), "s", "k", &num_), -905) << bad;
        EXPECT_EQ(eko_iniSet(bad.c_str(), "s", "k", "4"), -905) << bad;
    }
    EXPECT_EQ(unlink(dir_.file("b.ini").c_str()), 0);
    writeFile(path_, "[s]\n\xFFk=2\n"); // the byte ends it, in front of its end
    EXPECT_EQ(set("3"), -905);
    EXPECT_EQ(readFile(path_) + value("S", "K"), "[s]\n\xFFk=2\n1");
    file("[s]\nk=2\n"), unlink(name_);
    EXPECT_EQ(eko_readIniFileW(wide(name_)), 0); // keeps what it cannot read
    EXPECT_EQ(eko_iniInt32W(wide(dir_.file("A.INI").c_str()), L"S", L"K", &num_), 0);
    EXPECT_EQ(eko_readIniFile(name_), 0); // drops it
    EXPECT_EQ(std::to_string(num_) + value("s", "k"), "2-905");
}

// Not started, and then while there is no memory for the record.
TEST_F(IniTest, ini_without_a_record_does_nothing)
{
    wchar_t bad[] = {0xD800, 0};
    EXPECT_EQ(eko_iniGet("a", "s", "k", nullptr, 9) + eko_iniGetStr("a", "s", "k", nullptr, 0, nullptr), 2 * -924);
    EXPECT_EQ(eko_iniSetW(L"a", L"s", L"k", bad) + eko_iniGetW(L"a", L"s", L"k", bad, 0x40000000), 2 * -904);
    eko_term();
    EXPECT_EQ(eko_iniGetW(nullptr, nullptr, nullptr, nullptr, 0) + set("2"), 0);
    ASSERT_EQ(eko_init(), 0);
    const std::string said = logged([&] {
        const FailNthOnTag fault(EKO_GLOBAL_TAG, 2);
        EXPECT_EQ(eko_iniInt32(name_, "s", "k", &num_), 0);
    });
    EXPECT_TRUE(isOneReport(said, "ekoglobal.cpp") && num_ == 77);
    eko_term(), SetUp();
}

// Two set a file on disk, two one in memory.
TEST_F(IniTest, ini_threads)
{
    file("[s]\nk=1\n");
    inThreads(4, [&](uint32 thread) {
        const uint16 xflags = thread % 2 ? EKO_FILE_INMEMORY : 0;
        const std::string name = thread % 2 ? "/m.ini" : path_, section(1, char('a' + thread));
        for (int32 n = 0, got = -1; n < 100; ++n) {
            EXPECT_EQ(eko_iniSetEx(name.c_str(), section.c_str(), "k", std::to_string(n).c_str(), xflags), 0);
            n % 3 ? eko_iniCleanup() : void(eko_readIniFileEx(name.c_str(), xflags));
            EXPECT_TRUE(eko_iniInt32Ex(name.c_str(), section.c_str(), "k", &got, xflags) == 0 && got == n) << got;
        }
        eko_releaseTLSTag();
    });
    EXPECT_EQ(eko_fileRemoveEx("/m.ini", EKO_FILE_INMEMORY) + access("/m.ini", F_OK), -1);
    eko_iniCleanup(), acceptUsage(); // the directories in memory stay
}
