// UUIDs: each another one, also in a child; their text, against libuuid.
// LINK: --wrap=eko_seed --defsym=__wrap_eko_seed=eko_get_pid
#include <unistd.h>

#include <set>

#include "support/faults.h"
#include "support/fixture.h"

static thread_local char text[40], expected[40];
const auto made = [](eko_uuid_t id = {}) { return uuid_create(&id), uuid_toString(&id, text, 37, 0), text; };

// The library takes its process for the time too, and so both are gone from a seed: that of a child is no other.
TEST_F(EkoTest, uuid_is_four_draws_and_another_one_in_a_child_or_after_a_restart)
{
    const char* const good = "{6ba7b810-9dad-11d1-80b4-00c04fd430c8}";
    eko_uuid_t id;
    const auto parse = [&] { return uuid_fromString(good, &id); };
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto tell = [&](uint32) { EXPECT_EQ(write(ends[1], made(), 36), 36); };
    const auto tellInChild = [&] { fork() == 0 ? tell(0), inThreads(4, tell), _exit(0) : void(); };
    tellInChild();
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [] { return made()[14] == '4' ? 0 : 1003; }), "1003 1003 1003 0 ");
    std::set<std::string> seen{text};
    eko_resetTag(&exhaustedJump, EKO_THREAD_TAG);
    EXPECT_EQ(exhaust(EKO_THREAD_TAG, parse), "1003 1003 1003 1003 1003 1003 0 ");
    EXPECT_EQ(exhaust(EKO_THREAD_TAG, [&] { return uuid_fromString("0-0-0-0-0-0-0", &id); }), "1003 1012 ");
    EXPECT_EQ(uuid_toString(&id, text, 38, 1) + uuid_toString(&id, text, 36, 0) + uuid_fromString({}, &id), 3041);
    EXPECT_STREQ(uuid_toString(&id, text, 39, 1) == 0 ? text : "", good);
    std::mt19937 model{uint32(pthread_self())};
    model.discard(4);
    for (uint32 w[4]; std::generate_n(w, 4, std::ref(model)), seen.size() < 1000; seen.insert(text)) {
        const uint32 c = eko_swaporder32(w[2]), d = eko_swaporder32(w[3]);
        snprintf(expected, 40, "%08x-%04x-4%03x-%04x-%04x%08x", w[1], w[0] & 0xFFFF, w[0] >> 16 & 0xFFF,
                 (d >> 16 & 0x3FFF) | 0x8000, d & 0xFFFF, c);
        ASSERT_STREQ(made(), expected);
    }
    tellInChild();
    inThreads(4, tell);
    EXPECT_TRUE((eko_term(), parse() == 1003) && made()[14] == '0' && eko_init() == 0); // not started: left alone
    tell(0);
    acceptUsage();
    close(ends[1]);
    while (read(ends[0], text, 36) == 36)
        seen.insert(text);
    EXPECT_EQ(seen.size(), 1015u);
}

TEST_F(DiskTest, uuid_texts_are_read_as_libuuid_reads_them)
{
    const char* in[][2]{{"", ""}, {" \t", " "}, {"  { ", "}  "}, {"", "}"}, {"{", "}x"}, {"{", "x"}, {"\t{", "}"}};
    std::mt19937 random(3); // of the pairs above the first three are permitted
    std::string texts, read;
    made(), acceptUsage();
    for (uint32 i = 0; i < 30000; ++i) {
        std::string bare = i % 74 ? i % 5 ? made() : strupr(made()) : "", dressed = in[i % 7][0], id(16, '~');
        for (auto n = random() % 3; n > 0; --n) // a character is put in, removed or replaced
            bare.replace(random() % (bare.size() + 1), random() % 2, random() % 2, "-0aFgG@`/:\xFF"[random() % 11]);
        for (const char c : bare + in[i % 7][1])
            dressed += c == '-' && random() % 8 == 0 ? " -\t" : std::string(1, c);
        const int32 status = uuid_fromString(dressed.c_str(), reinterpret_cast<eko_uuid_t*>(id.data()));
        read += (status == 0 ? '+' : status == 1012 ? '-' : '?') + id, texts += (i % 7 < 3 ? bare : dressed) + '\n';
    }
    writeFile(dir_.file("texts"), texts);
    if (!*EKO_LIBUUID_PARSE)
        GTEST_SKIP() << "not compared with libuuid, which was not there when this was built";
    const std::string command = EKO_LIBUUID_PARSE " <" + dir_.file("texts") + " >" + dir_.file("read");
    EXPECT_TRUE(system(command.c_str()) == 0 && readFile(dir_.file("read")) == read);
}
