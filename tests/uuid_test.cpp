// SPDX-License-Identifier: MIT
// UUIDs: each another one, also in a child; their text, against libuuid.
// LINK: --wrap=eko_seed --defsym=__wrap_eko_seed=eko_get_pid --wrap=madvise
//
// The process stands for the time here, and so both are gone from a seed: the first one is the thread's identifier,
// and that of a child would be the same.
#include <sys/mman.h>
#include <unistd.h>

#include <set>

#include "support/faults.h"
#include "support/fixture.h"

static bool kernelIsOld; // and has no pages that children find empty

EKO_WRAP(int, madvise, (void* page, size_t size, int advice))
{
    return kernelIsOld ? -1 : __real_madvise(page, size, advice);
}

static std::string textOf(const eko_uuid_t& uuid)
{
    char text[EKO_UUID_TEXT];
    EXPECT_EQ(uuid_toString(&uuid, text, sizeof(text), 0), 0);
    return text;
}
static std::string newText()
{
    eko_uuid_t uuid{};
    uuid_create(&uuid);
    return textOf(uuid);
}

// What the next UUID of that generator is.
static std::string modelText(std::mt19937& model)
{
    uint32 high[2], low[2];
    for (int i = 0; i < 2; ++i) {
        high[i] = static_cast<uint32>(model());
        low[i] = static_cast<uint32>(model());
    }
    const uint32 sequence = eko_swaporder32(low[1]), node = eko_swaporder32(high[1]);
    char text[EKO_UUID_TEXT];
    snprintf(text, sizeof(text), "%08x-%04x-4%03x-%04x-%04x%08x", low[0], high[0] & 0xFFFF, high[0] >> 16 & 0xFFF,
             (sequence >> 16 & 0x3FFF) | 0x8000, sequence & 0xFFFF, node);
    return text;
}

class UuidTest : public EkoTest {
protected:
    void SetUp() override
    {
        EkoTest::SetUp();
        ASSERT_EQ(pipe(ends_), 0);
    }
    // UUIDs that come through the pipe: of this thread, or of four threads of a child.
    void tell()
    {
        const std::string text = newText();
        EXPECT_EQ(write(ends_[1], text.data(), text.size()), 36);
    }
    void tellInChild()
    {
        if (fork() != 0)
            return;
        inThreads(4, [this](uint32) { tell(); });
        _exit(0);
    }
    std::multiset<std::string> told()
    {
        std::multiset<std::string> texts;
        char text[36];
        close(ends_[1]);
        while (read(ends_[0], text, sizeof(text)) == sizeof(text))
            texts.emplace(text, sizeof(text));
        close(ends_[0]);
        return texts;
    }

    int ends_[2];
};

TEST_F(UuidTest, uuid_is_four_draws)
{
    std::mt19937 model(static_cast<uint32>(pthread_self()));
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(newText(), modelText(model));
    acceptUsage();
}

TEST_F(UuidTest, uuid_is_another_one_in_children_and_after_a_restart)
{
    tellInChild(); // of a process that has made none
    tell();
    tellInChild();
    inThreads(4, [this](uint32) { tell(); });
    for (const bool old : {false, true}) {
        kernelIsOld = old;
        eko_term();
        ASSERT_EQ(eko_init(), 0);
        tell();
        tellInChild();
        tell();
    }
    acceptUsage();
    const auto texts = told();
    EXPECT_EQ(texts.size(), 25U);
    EXPECT_EQ(std::set(texts.begin(), texts.end()).size(), texts.size());
}

TEST_F(EkoTest, uuid_without_memory_or_library)
{
    const char* const text = "{6ba7b810-9dad-11d1-80b4-00c04fd430c8}";
    eko_uuid_t uuid;
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [] { return newText()[14] == '4' ? 0 : 1003; }), "1003 1003 1003 0 ");
    eko_resetTag(&exhaustedJump, EKO_THREAD_TAG); // which is never used
    EXPECT_EQ(exhaust(EKO_THREAD_TAG, [&] { return uuid_fromString(text, &uuid); }),
              "1003 1003 1003 1003 1003 1003 0 ");
    EXPECT_EQ(exhaust(EKO_THREAD_TAG, [&] { return uuid_fromString("0-0-0-0-0-0-0", &uuid); }), "1003 1012 ");
    eko_term();
    EXPECT_EQ(uuid_fromString(text, &uuid), 1003);
    EXPECT_EQ(uuid_fromString(std::string(text + 1, 36).c_str(), &uuid), 1003);
    EXPECT_EQ(newText(), "00000000-0000-0000-0000-000000000000"); // left alone
    ASSERT_EQ(eko_init(), 0);
}

TEST_F(EkoTest, uuid_text_fits_or_is_cut)
{
    const char* const text = "{6ba7b810-9dad-11d1-80b4-00c04fd430c8}";
    eko_uuid_t uuid;
    char found[EKO_UUID_TEXT_BRACES];
    ASSERT_EQ(uuid_fromString(text, &uuid), 0);
    EXPECT_EQ(uuid_toString(&uuid, found, 39, 1), 0);
    EXPECT_STREQ(found, text);
    EXPECT_EQ(uuid_toString(&uuid, found, 38, 1), 1014);
    EXPECT_EQ(found, std::string(text, 37));
    EXPECT_EQ(uuid_toString(&uuid, found, 37, 0), 0);
    EXPECT_EQ(uuid_toString(&uuid, found, 36, 0), 1014);
    EXPECT_EQ(uuid_toString(&uuid, found, 0, 0), 1014);
    EXPECT_EQ(found, std::string(text + 1, 35));
    EXPECT_EQ(uuid_fromString(nullptr, &uuid), 1013);
    acceptUsage();
}

TEST_F(DiskTest, uuid_texts_are_read_as_libuuid_reads_them)
{
    const struct {
        const char *front, *behind;
        bool permitted; // so that what is between them decides
    } dresses[] = {{"", "", true},     {" \t", " ", true}, {"  { ", "}  ", true}, {"", "}", false},
                   {"{", "}x", false}, {"{", "x", false},  {"\t{", "}", false}};
    std::mt19937 random(3);
    std::string texts, read;
    for (uint32 i = 0; i < 30000; ++i) {
        std::string bare = i % 74 ? newText() : "";
        if (i % 5 == 0)
            strupr(bare.data());
        for (auto n = random() % 3; n > 0; --n) // a character is put in, removed or replaced
            bare.replace(random() % (bare.size() + 1), random() % 2, random() % 2, "-0aFgG@`/:\xFF"[random() % 11]);
        const auto& dress = dresses[i % std::size(dresses)];
        std::string dressed = dress.front;
        for (const char c : bare + dress.behind)
            dressed += c == '-' && random() % 8 == 0 ? " -\t" : std::string(1, c);
        std::string id(16, '~');
        const int32 status = uuid_fromString(dressed.c_str(), reinterpret_cast<eko_uuid_t*>(id.data()));
        read += (status == 0 ? '+' : status == 1012 ? '-' : '?') + id;
        texts += (dress.permitted ? bare : dressed) + '\n';
    }
    acceptUsage();
    writeFile(dir_.file("texts"), texts);
    const std::string command = EKO_LIBUUID_PARSE " <" + dir_.file("texts") + " >" + dir_.file("read");
    EXPECT_EQ(system(command.c_str()), 0);
    EXPECT_TRUE(readFile(dir_.file("read")) == read);
}
