// Named globals: one record a name, made on first use, deleted in descending order of names.
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
#include <string.h>

#include <string>
#include <vector>

#include "support/faults.h"
#include "support/fixture.h"

namespace {

// What the records of these tests are: who made them.
struct Record {
    char name[16];
};

std::string deleted; // names, as their delete callbacks run
int created = 0;

void noteDeletion(void* data)
{
    deleted += static_cast<Record*>(data)->name;
}

int32 noteCreation(void*)
{
    ++created;
    return 0;
}

// The record of that name, which it bears from then on; null when the status is 1003.
Record* fetch(const char* name, EKO_GLOBAL_CREATE_FCN create = nullptr, EKO_GLOBAL_DELETE_FCN remove = noteDeletion)
{
    void* record = &created; // untouched on failure
    const int32 status = eko_globalGet(name, sizeof(Record), create, remove, &record);
    if (status != 0) {
        EXPECT_EQ(status, 1003);
        EXPECT_EQ(record, &created);
        return nullptr;
    }
    snprintf(static_cast<Record*>(record)->name, sizeof(Record::name), "%s", name);
    return static_cast<Record*>(record);
}

// Starts the library, and stops it in the middle of a test that looks at what stopping does.
class Global : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(eko_init(), 0); }
    void TearDown() override { eko_term(); }
    void restart()
    {
        eko_term();
        ASSERT_EQ(eko_init(), 0);
    }
};

TEST_F(Global, global_same_name_is_the_same_record)
{
    char name[] = "a";
    void* first = nullptr;
    ASSERT_EQ(eko_globalGet(name, 4000, noteCreation, nullptr, &first), 0);
    for (int i = 0; i < 4000; ++i)
        ASSERT_EQ(static_cast<char*>(first)[i], 0);
    name[0] = 'b'; // the registry has its own copy
    EXPECT_EQ(fetch("a", noteCreation), first);
    EXPECT_EQ(created, 1);
    EXPECT_NE(fetch("A", noteCreation), first);
    EXPECT_NE(fetch("aa", noteCreation), first);
    EXPECT_EQ(created, 3);
    restart();
    EXPECT_EQ(deleted, "aaA"); // the first caller's callbacks hold: "a" has none
    EXPECT_STREQ(fetch("a", noteCreation)->name, "a");
    EXPECT_EQ(created, 4);
}

TEST_F(Global, global_bad_arguments_create_nothing)
{
    const Usage before = currentUsage();
    void* record = &created;
    EXPECT_EQ(eko_globalGet(nullptr, 8, noteCreation, nullptr, &record), 1013);
    EXPECT_EQ(eko_globalGet("a", 0, noteCreation, nullptr, &record), 1013);
    EXPECT_EQ(eko_globalGet("a", 8, noteCreation, nullptr, nullptr), 1013);
    EXPECT_EQ(record, &created);
    EXPECT_EQ(created, 0);
    EXPECT_EQ(currentUsage(), before);
}

TEST(GlobalStopped, global_nothing_before_start_or_after_stop)
{
    EXPECT_EQ(fetch("a"), nullptr);
    ASSERT_EQ(eko_init(), 0);
    EXPECT_NE(fetch("a"), nullptr);
    eko_term();
    EXPECT_EQ(fetch("a"), nullptr);
    EXPECT_EQ(deleted, "a");
}

// The library's own record, "ekofile", is one of the first five. Without a growth a creation takes two blocks, with
// one it takes three: so a third request exists only at the 6th and the 11th name.
TEST_F(Global, global_sorted_and_grown_by_five)
{
    const char* names[] = {"b", "a", "c", "zz", "ekofilf", "ekofild", "B", "z", "f", "ba", "", "m"};
    std::vector<Record*> records;
    int count = 1;
    for (const char* name : names) {
        ++count;
        bool third;
        {
            const FailNthOnTag fault(EKO_GLOBAL_TAG, 3);
            CapturedFd out(1);
            third = !fetch(name);
            EXPECT_EQ(fault.fired(), third);
        }
        EXPECT_EQ(third, count == 6 || count == 11) << name;
        records.push_back(fetch(name));
    }
    for (size_t i = 0; i < records.size(); ++i)
        EXPECT_EQ(fetch(names[i]), records[i]) << names[i];
    restart();
    EXPECT_EQ(deleted, "zzzmfekofilfekofildcbabaB");
}

TEST_F(Global, global_failed_create_callback_is_tried_again)
{
    const Usage before = currentUsage();
    const auto refuse = [](void* data) -> int32 {
        EXPECT_EQ(static_cast<Record*>(data)->name[0], 0);
        static_cast<Record*>(data)->name[0] = 'x';
        return ++created < 3 ? 5 : 0;
    };
    EXPECT_EQ(fetch("a", refuse), nullptr);
    EXPECT_EQ(fetch("a", refuse), nullptr);
    EXPECT_EQ(currentUsage(), before);
    EXPECT_EQ(deleted, ""); // nor is it deleted
    EXPECT_NE(fetch("a", refuse), nullptr);
    restart();
    EXPECT_EQ(deleted, "a");
}

// Moves the entry that is being made, and the whole list.
void fetchAround()
{
    for (const char* name : {"a", "z", "b", "y", "c", "x"})
        EXPECT_NE(fetch(name), nullptr);
}

TEST_F(Global, global_create_callback_fetches_others)
{
    EXPECT_NE(fetch("m",
                    [](void*) -> int32 {
                        fetchAround();
                        return 0;
                    }),
              nullptr);
    EXPECT_EQ(fetch("n",
                    [](void*) -> int32 {
                        EXPECT_NE(fetch("d"), nullptr);
                        EXPECT_NE(fetch("o"), nullptr);
                        return 1;
                    }),
              nullptr);
    restart();
    EXPECT_EQ(deleted, "zyxomdcba");
}

TEST_F(Global, global_delete_callback_fetches_others)
{
    static Record* a;
    a = fetch("a");
    fetch("c", nullptr, [](void*) {
        EXPECT_EQ(fetch("a"), a);
        EXPECT_EQ(fetch("new", noteCreation), nullptr);
        EXPECT_EQ(fetch("d"), nullptr); // deleted already
        deleted += 'c';
    });
    fetch("d");
    restart();
    EXPECT_EQ(deleted, "dca");
    EXPECT_EQ(created, 0);
}

int32 slotStatus = 0;
int32 slotCreate(void* data);
GlobalSlot slot = {"ekotest", sizeof(Record), slotCreate, noteDeletion, nullptr, nullptr};

int32 slotCreate(void* data)
{
    EXPECT_EQ(globalRecord(slot), data); // its own record
    EXPECT_EQ(slot.record, nullptr);     // which the other threads do not see yet
    snprintf(static_cast<Record*>(data)->name, sizeof(Record::name), "slot");
    return slotStatus;
}

TEST_F(Global, global_slot_is_found_while_its_record_lives)
{
    slotStatus = 1;
    EXPECT_EQ(globalRecord(slot), nullptr);
    EXPECT_EQ(slot.record, nullptr);
    slotStatus = 0;
    inThreads(4, [](uint32) { EXPECT_STREQ(static_cast<Record*>(globalRecord(slot))->name, "slot"); });
    EXPECT_NE(slot.record, nullptr);
    fetch("ekotest2", nullptr, [](void*) { EXPECT_NE(globalRecord(slot), nullptr); });
    fetch("a", nullptr, [](void*) { EXPECT_EQ(globalRecord(slot), nullptr); });
    restart();
    EXPECT_EQ(deleted, "slot");
    EXPECT_EQ(slot.record, nullptr);
}

TEST_F(Global, global_threads_share_the_first_record)
{
    static Record* shared;
    shared = nullptr;
    inThreads(8, [](uint32) {
        void* record = nullptr;
        const auto slowly = [](void* data) -> int32 {
            eko_sleep(5); // in which the others come
            shared = static_cast<Record*>(data);
            return noteCreation(data);
        };
        EXPECT_EQ(eko_globalGet("a", 8, slowly, nullptr, &record), 0);
        EXPECT_TRUE(record && record == shared); // complete
    });
    EXPECT_EQ(created, 1);
}

TEST_F(Global, global_out_of_memory_at_every_request)
{
    int failures = 0;
    for (uint32 n = 1;; ++n) {
        const Usage before = currentUsage();
        Record* record = nullptr;
        bool fired;
        const std::string said = logged([&] {
            const FailNthOnTag fault(EKO_GLOBAL_TAG, n);
            record = fetch("a", noteCreation);
            fired = fault.fired();
        });
        EXPECT_EQ(record == nullptr, fired);
        if (!fired)
            break;
        ++failures;
        EXPECT_TRUE(isOneReport(said, "ekoglobal.cpp"));
        EXPECT_EQ(currentUsage(), before);
        EXPECT_EQ(created, 0);
    }
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(created, 1);
}

// The sixth name, whose list cannot be had.
bool failGrowth()
{
    const FailNthOnTag fault(EKO_GLOBAL_TAG, 1);
    return !fetch("e") && fault.fired();
}

TEST_F(Global, global_failed_growth_needs_a_restart)
{
    for (const char* name : {"a", "b", "c", "d"})
        EXPECT_NE(fetch(name), nullptr);
    const std::string said = logged([] { EXPECT_TRUE(failGrowth()); });
    EXPECT_TRUE(isOneReport(said, "ekoglobal.cpp"));
    for (const char* name : {"a", "e", "ekofile"})
        EXPECT_EQ(fetch(name), nullptr) << name;
    restart();
    EXPECT_EQ(deleted, ""); // they were lost
    EXPECT_NE(fetch("a"), nullptr);
    restart();
    EXPECT_EQ(deleted, "a");
}

// The fifth name, whose create callback asks for the sixth.
TEST_F(Global, global_growth_fails_inside_a_create_callback)
{
    for (const char* name : {"a", "b", "c"})
        EXPECT_NE(fetch(name), nullptr);
    const auto growInside = [](void*) -> int32 {
        EXPECT_TRUE(failGrowth());
        return 0;
    };
    eko_background = 1; // the report stays off the console
    EXPECT_EQ(fetch("d", growInside), nullptr);
    eko_background = 0;
    EXPECT_EQ(fetch("a"), nullptr);
    restart();
    EXPECT_EQ(deleted, "");
    EXPECT_NE(fetch("d"), nullptr);
}

} // namespace
