// SPDX-License-Identifier: MIT
// Named globals: one record a name, made on first use, deleted in descending order of names.
#include <map>

#include "support/faults.h"
#include "support/fixture.h"

static std::string deleted; // names, as their delete callbacks run
static int created = 0;

static void noteDeletion(void* data)
{
    deleted += static_cast<char*>(data);
}

static int32 noteCreation(void* data)
{
    EXPECT_EQ(*static_cast<char*>(data), 0);
    ++created;
    return 0;
}

// The record of that name, which it bears from then on; null when the status is 1003.
static char* fetch(const std::string& name, EKO_GLOBAL_CREATE_FCN create = nullptr,
                   EKO_GLOBAL_DELETE_FCN remove = noteDeletion)
{
    void* record = &created; // untouched on failure
    const int32 status = eko_globalGet(name.c_str(), 16, create, remove, &record);
    if (status != 0) {
        EXPECT_EQ(status, 1003);
        EXPECT_EQ(record, &created);
        return nullptr;
    }
    return strcpy(static_cast<char*>(record), name.c_str());
}

class Global : public EkoTest {
protected:
    // Stops the library, which deletes these.
    void expectDeleted(const std::string& names)
    {
        deleted.clear();
        eko_term();
        EXPECT_EQ(deleted, names);
        EXPECT_EQ(fetch("a"), nullptr); // nothing is made now
        ASSERT_EQ(eko_init(), 0);
    }
};

TEST_F(Global, global_first_caller_decides)
{
    char name[] = "a";
    void* first = &created;
    EXPECT_EQ(eko_globalGet(nullptr, 8, noteCreation, nullptr, &first), 1013);
    EXPECT_EQ(eko_globalGet(name, 0, noteCreation, nullptr, &first), 1013);
    EXPECT_EQ(eko_globalGet(name, 8, noteCreation, nullptr, nullptr), 1013);
    EXPECT_TRUE(first == &created && created == 0);
    ASSERT_EQ(eko_globalGet(name, 4000, noteCreation, nullptr, &first), 0);
    EXPECT_EQ(std::string(static_cast<char*>(first), 4000), std::string(4000, '\0'));
    name[0] = 'b'; // the registry has its own copy
    EXPECT_EQ(fetch("a", noteCreation), first);
    EXPECT_EQ(created, 1);
    expectDeleted(""); // without its callback
}

// The list grows by five, the library's own record "ekofile" counting. Each of the two blocks that a name takes
// fails; what becomes of the list that cannot grow is another test's.
TEST_F(Global, global_sorted_whatever_the_order_and_the_memory)
{
    eko_resetTag(&exhaustedJump, EKO_GLOBAL_TAG); // memory for the library's own tables is only reported
    std::map<std::string, char*, std::greater<>> records;
    for (uint32 i = 0; i < 60; ++i) {
        const std::string name = std::string(i % 4, 'e') + std::to_string(i * 37 % 60);
        const auto make = [&] { return fetch(name, noteCreation) ? 0 : 1003; };
        EXPECT_EQ((i + 1) % 5 ? exhaust(EKO_GLOBAL_TAG, make) : "1003 1003 0 ", "1003 1003 0 ") << name;
        records[name] = fetch(name, noteCreation);
    }
    EXPECT_EQ(created, 60);
    std::string names;
    for (const auto& [name, record] : records) {
        EXPECT_STREQ(record, name.c_str());
        EXPECT_EQ(fetch(name), record);
        names += name;
    }
    expectDeleted(names);
}

TEST_F(Global, global_create_callback_fetches_others)
{
    const auto fetchAround = [](void*) -> int32 { // moves the entry that is being made, and the whole list
        for (const char* name : {"a", "z", "b", "y", "c", "x"})
            EXPECT_NE(fetch(name), nullptr);
        return 0;
    };
    const auto refuse = [](void* data) -> int32 {
        noteCreation(data);
        strcpy(static_cast<char*>(data), "x"); // which nobody sees again
        return fetch("d") ? 5 : 0;
    };
    EXPECT_NE(fetch("m", fetchAround), nullptr);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(fetch("n", refuse), nullptr);
    expectDeleted("zyxmdcba");
}

static int32 slotStatus = 1;
static int32 slotCreate(void* data);
static GlobalSlot slot = {"ekotest", 16, slotCreate, noteDeletion, nullptr, nullptr};

static int32 slotCreate(void* data)
{
    EXPECT_EQ(globalRecord(slot), data); // its own record
    EXPECT_EQ(slot.record, nullptr);     // which the other threads do not see yet
    eko_sleep(slotStatus ? 0 : 5);       // in which they come
    strcpy(static_cast<char*>(data), "slot");
    ++created;
    return slotStatus;
}

TEST_F(Global, global_is_made_once_and_found_while_it_lives)
{
    EXPECT_EQ(globalRecord(slot), nullptr);
    EXPECT_EQ(slot.record, nullptr);
    slotStatus = 0;
    inThreads(8, [](uint32) { EXPECT_STREQ(static_cast<char*>(globalRecord(slot)), "slot"); });
    EXPECT_EQ(created, 2);
    EXPECT_NE(slot.record, nullptr);
    fetch("d");
    fetch("f", nullptr, [](void*) {
        EXPECT_NE(globalRecord(slot), nullptr);
        EXPECT_STREQ(fetch("d"), "d");
        EXPECT_EQ(fetch("new", noteCreation), nullptr);
    });
    fetch("a", nullptr, [](void*) { EXPECT_EQ(globalRecord(slot), nullptr); });
    expectDeleted("slotd");
    EXPECT_EQ(slot.record, nullptr);
    EXPECT_EQ(created, 2);
}

// The sixth name, whose list cannot be had, alone and inside the fifth one's create callback.
TEST_F(Global, global_failed_growth_needs_a_restart)
{
    const EKO_GLOBAL_CREATE_FCN failGrowth = [](void*) -> int32 {
        const FailNthOnTag fault(EKO_GLOBAL_TAG, 1);
        EXPECT_EQ(fetch("e"), nullptr);
        EXPECT_TRUE(fault.fired());
        return 0;
    };
    for (const bool inside : {false, true}) {
        for (const char* name : {"a", "b", "c"})
            EXPECT_NE(fetch(name), nullptr);
        const std::string said = logged([&] {
            EXPECT_EQ(fetch("d", inside ? failGrowth : nullptr) == nullptr, inside);
            if (!inside)
                failGrowth(nullptr);
        });
        EXPECT_TRUE(isOneReport(said, "ekoglobal.cpp"));
        for (const char* name : {"a", "e", "ekofile"})
            EXPECT_EQ(fetch(name), nullptr) << name;
        expectDeleted(""); // they were lost
    }
    EXPECT_NE(fetch("a"), nullptr);
    expectDeleted("a");
}
