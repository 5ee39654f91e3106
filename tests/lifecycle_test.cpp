// SPDX-License-Identifier: MIT
// Start and stop: what is stopped and undone when, who counts, what a failed start leaves behind.
//
// Every stop call of a module is written to a trace.
// LINK: --wrap=_Z17eko_fileStackTermP14EKO_FILE_STACK --wrap=_Z10eko_osTermv --wrap=_Z14eko_globalTermv
// LINK: --wrap=_Z16eko_syncShutdownv --wrap=_Z11eko_memTermv --wrap=_Z12eko_syncTermv
// LINK: --wrap=getrlimit --wrap=setrlimit
#include <signal.h>
#include <sys/resource.h>

#include "ekotext_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

extern char* eko_tmp;

static std::string trace;           // a stop is marked when the library says that it is terminating
static rlimit limit = {1024, 1024}; // what the system answers and is told
static int limitResult = 0;         // of reading and writing it

static void note(const char* call)
{
    trace += std::string(call) + (eko_terminating ? "! " : " ");
}

#define TRACED(name, mangled) EKO_ANSWER(void, mangled, (), (note(name), __real_##mangled()))
TRACED("os", _Z10eko_osTermv)
TRACED("global", _Z14eko_globalTermv)
TRACED("shutdown", _Z16eko_syncShutdownv)
TRACED("mem", _Z11eko_memTermv)
TRACED("sync", _Z12eko_syncTermv)

EKO_WRAP(void, _Z17eko_fileStackTermP14EKO_FILE_STACK, (EKO_FILE_STACK * stack))
{
    note(stack == &eko_stdout_stack ? "stdout" : stack == &eko_stderr_stack ? "stderr" : "log");
    __real__Z17eko_fileStackTermP14EKO_FILE_STACK(stack);
}

EKO_WRAP(int, getrlimit, (__rlimit_resource_t resource, rlimit* answer))
{
    *answer = resource == RLIMIT_NOFILE ? limit : rlimit();
    eko_sleep(5); // in which other threads come
    return limitResult;
}

EKO_WRAP(int, setrlimit, (__rlimit_resource_t, const rlimit* told))
{
    limit = *told;
    return limitResult;
}

constexpr char STOP[] = "log stdout stderr os! global! shutdown! mem! sync! ";

// Starts, works and stops as if nothing had been before.
class Lifecycle : public testing::Test {
protected:
    void SetUp() override { trace = ""; }
    void TearDown() override
    {
        trace = "";
        ASSERT_EQ(eko_init(), 0);
        EXPECT_EQ(eko_printf("held back"), 9);
        EXPECT_EQ(logged([] { eko_log("up\n"); }), "held backup\n");
        eko_term();
        EXPECT_EQ(trace, STOP);
        EXPECT_EQ(eko_inited, 0);
    }
};

// Fails to start, saying nothing, undoing what is named.
static void expectSilentFailure(const std::string& undone)
{
    trace = "";
    EXPECT_EQ(logged([] { EXPECT_EQ(eko_init(), 1002); }), "");
    EXPECT_EQ(eko_inited, 0);
    EXPECT_EQ(eko_mem_stats.in_use, 0u);
    EXPECT_EQ(trace, undone);
}

TEST_F(Lifecycle, lifecycle_failed_step_undoes_the_earlier_ones)
{
    const std::string registry = "shutdown mem sync ", consoles = "os global " + registry;
    const std::string undone[] = {registry, consoles, consoles, "stdout " + consoles, "stderr stdout " + consoles};
    for (uint32 n = 0; n < 9; ++n) { // memory has four, the first console one more than the others
        const CallFault noMutex("eko_syncCreate_check", ENOMEM, 0, n, 1);
        expectSilentFailure(n < 4 ? "sync " : undone[n - 4]);
    }
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key; pthread_key_create(&key, nullptr) == 0;)
        keys.push_back(key);
    expectSilentFailure("sync ");
    std::for_each(keys.begin(), keys.end(), pthread_key_delete);
    for (uint32 n = 0; n < 4 * keys.size(); ++n) { // none of them leaks a key
        const CallFault noMutex("eko_syncCreate_check", ENOMEM, 0, n % 2 ? 99 : n / 2 % 4, 1);
        const FailNthAlloc noHeap(n % 2, FailNthAlloc::ALL_FROM_THERE);
        expectSilentFailure("sync ");
    }
}

TEST_F(Lifecycle, lifecycle_stops_log_first)
{
    ASSERT_EQ(eko_init(), 0);
    EXPECT_EQ(eko_printf("held back"), 9);
    eko_tmp = EKO_STRDUP("/somewhere", EKO_GLOBAL_TAG);
    CapturedFd out(1);
    ASSERT_EQ(eko_init(), 0);
    eko_term();
    EXPECT_EQ(eko_inited, 1);
    EXPECT_EQ(trace + out.take(), ""); // counted, no more
    eko_term();
    EXPECT_EQ(out.take(), "held back");
    EXPECT_EQ(trace, STOP);
    EXPECT_EQ(eko_terminating, 0);
    EXPECT_EQ(eko_tmp, nullptr);
}

// A stray term and the init after it start nothing; in between and after, the library is not started.
TEST_F(Lifecycle, lifecycle_stray_term)
{
    eko_term();
    for (const int32 count : {-1, 0}) {
        EXPECT_EQ(eko_inited, count);
        EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
        EXPECT_EQ(EKO_ALLOC(8, EKO_GLOBAL_TAG), nullptr);
        EXPECT_EQ(trace, "");
        EXPECT_TRUE(count == 0 || eko_init() == 0);
    }
}

TEST_F(Lifecycle, lifecycle_threads_start_it_once)
{
    limit = {256, 4096};
    pthread_barrier_t meet;
    pthread_barrier_init(&meet, nullptr, 8);
    inThreads(8, [&meet](uint32) {
        EXPECT_EQ(eko_init(), 0);
        EXPECT_EQ(limit.rlim_cur, 4096u); // started, whoever came first
        pthread_barrier_wait(&meet);
        eko_term();
    });
    EXPECT_EQ(trace, STOP);
}

TEST_F(Lifecycle, lifecycle_of_the_operating_system_layer)
{
    const rlim_t cases[][3] = {{256, 4096, 4096},           {4096, 4096, 4096},          {256, RLIM_INFINITY, 1024},
                               {2048, RLIM_INFINITY, 2048}, {1024, RLIM_INFINITY, 1024}, {1500, 65536, 1500}};
    for (const auto& [soft, hard, raised] : cases) {
        limitResult = soft == 1500 ? -1 : 0;
        limit = {soft, hard};
        EXPECT_EQ(eko_osInit(), 0);
        EXPECT_TRUE(limit.rlim_cur == raised && limit.rlim_max == hard) << soft;
    }
    EXPECT_EQ(raise(SIGPIPE), 0); // a broken pipe is a status
}

TEST_F(Lifecycle, lifecycle_modes_version_and_assertions)
{
    EXPECT_EQ(eko_readonly + eko_diskless, 0);
    eko_rdonly();
    EXPECT_EQ(eko_diskless, 0);
    eko_nodisk();
    ASSERT_EQ(eko_init(), 0);
    eko_term();
    EXPECT_EQ(eko_readonly + eko_diskless, 2); // they outlive start and stop
    eko_readonly = eko_diskless = 0;
    int16 major = -1, minor = -1, build = -1;
    eko_version(&major, &minor, &build);
    EXPECT_TRUE(major == 12 && minor == 0 && build == 1000 && eko_isPurifyRunning() == 0);
    EXPECT_EXIT(EKO_ASSERT(1 + 1 == 3), testing::KilledBySignal(SIGABRT), "assertion failed: 1 \\+ 1 == 3\n");
}
