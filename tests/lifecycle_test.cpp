// Start and stop: which module is started, stopped and undone when, who counts, what a failed start leaves behind.
//
// Every start and stop call of a module is wrapped: it is written to a trace and can be made to fail.
// LINK: --wrap=_Z12eko_syncInitv --wrap=_Z11eko_memInitv --wrap=_Z14eko_globalInitv --wrap=_Z10eko_osInitv
// LINK: --wrap=_Z17eko_fileStackInitP14EKO_FILE_STACKPKc --wrap=_Z17eko_fileStackTermP14EKO_FILE_STACK
// LINK: --wrap=_Z10eko_osTermv --wrap=_Z14eko_globalTermv --wrap=_Z16eko_syncShutdownv --wrap=_Z11eko_memTermv
// LINK: --wrap=_Z12eko_syncTermv --wrap=eko_syncCreate_check --wrap=getrlimit --wrap=setrlimit
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
#include <errno.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ekotext_int.h"
#include "support/faults.h"
#include "support/fixture.h"

extern char* eko_tmp;

namespace {

std::string trace;      // of the calls below; they run inside the critical section
std::string failing;    // the one that fails
uint32 createsLeft = 0; // semaphores that can still be created before one fails; 0: all can

rlimit limit = {1024, 1024}; // what the system answers and is told
int limitErrors = 0;         // bit 0: reading fails, bit 1: writing fails
int limitWrites = 0;

// Notes a call; a stop is marked when it runs while the library says that it is terminating.
bool noted(const std::string& call)
{
    trace += call + (eko_terminating ? "! " : " ");
    return call != failing;
}

const char* stackName(const EKO_FILE_STACK* stack)
{
    return stack == &eko_stdout_stack ? "stdout" : stack == &eko_stderr_stack ? "stderr" : "log";
}

} // namespace

#define TRACED_START(name, mangled) \
    EKO_WRAP(int32, mangled, ()) \
    { \
        return noted(name) ? __real_##mangled() : 1002; \
    }
#define TRACED_STOP(name, mangled) \
    EKO_WRAP(void, mangled, ()) \
    { \
        noted(name), __real_##mangled(); \
    }
TRACED_START("sync", _Z12eko_syncInitv)
TRACED_START("mem", _Z11eko_memInitv)
TRACED_START("global", _Z14eko_globalInitv)
TRACED_START("os", _Z10eko_osInitv)
TRACED_STOP("osTerm", _Z10eko_osTermv)
TRACED_STOP("globalTerm", _Z14eko_globalTermv)
TRACED_STOP("syncShutdown", _Z16eko_syncShutdownv)
TRACED_STOP("memTerm", _Z11eko_memTermv)
TRACED_STOP("syncTerm", _Z12eko_syncTermv)

EKO_WRAP(int32, _Z17eko_fileStackInitP14EKO_FILE_STACKPKc, (EKO_FILE_STACK * stack, const char* name))
{
    EXPECT_STREQ(name, stack == &eko_log_stack ? nullptr : stackName(stack));
    return noted(stackName(stack)) ? __real__Z17eko_fileStackInitP14EKO_FILE_STACKPKc(stack, name) : 1003;
}

EKO_WRAP(void, _Z17eko_fileStackTermP14EKO_FILE_STACK, (EKO_FILE_STACK * stack))
{
    noted(stackName(stack) + std::string("Term"));
    __real__Z17eko_fileStackTermP14EKO_FILE_STACK(stack);
}

EKO_WRAP(EKO_SEM, eko_syncCreate_check, (int16 type, const char* file, int32 line))
{
    const bool fails = createsLeft && --createsLeft == 0;
    return fails ? EKO_SEM_INVALID : __real_eko_syncCreate_check(type, file, line);
}

EKO_WRAP(int, getrlimit, (__rlimit_resource_t resource, rlimit* answer))
{
    EXPECT_EQ(resource, RLIMIT_NOFILE);
    *answer = limit;
    return limitErrors & 1 ? -1 : 0;
}

EKO_WRAP(int, setrlimit, (__rlimit_resource_t, const rlimit* told))
{
    ++limitWrites;
    limit = *told;
    return limitErrors & 2 ? -1 : 0;
}

namespace {

constexpr char START[] = "sync mem global os stdout stderr log ";
constexpr char STOP[] = "logTerm stdoutTerm stderrTerm osTerm! globalTerm! syncShutdown! memTerm! syncTerm! ";

// Fails to start, saying nothing and leaving the count as it was.
void expectSilentFailure(const std::string& calls)
{
    CapturedFd out(1), err(2);
    trace = "";
    EXPECT_EQ(eko_init(), 1002) << calls;
    EXPECT_EQ(eko_inited, 0) << calls;
    EXPECT_EQ(out.take() + err.take(), "") << calls;
    EXPECT_EQ(trace.substr(0, calls.size()), calls);
}

// Starts, works and stops as if nothing had been before.
class Lifecycle : public testing::Test {
protected:
    void TearDown() override
    {
        failing = trace = "";
        ASSERT_EQ(eko_init(), 0);
        EXPECT_EQ(eko_printf("held back"), 9);
        EXPECT_EQ(logged([] { eko_log("up\n"); }), "held backup\n");
        eko_term();
        EXPECT_EQ(trace, std::string(START) + STOP);
        EXPECT_EQ(eko_inited, 0);
    }
};

TEST_F(Lifecycle, lifecycle_failed_step_undoes_the_earlier_ones)
{
    const std::string starts[] = {"sync ", "mem ", "global ", "os ", "stdout ", "stderr ", "log "};
    const std::string undone = "stderrTerm stdoutTerm osTerm globalTerm syncShutdown memTerm syncTerm ";
    const char* undoneFrom[] = {"", "syncT", "syncS", "glo", "os", "stdout", "stderr"};
    std::string calls;
    for (int i = 0; i < 7; ++i) {
        calls += starts[i];
        failing = starts[i].substr(0, starts[i].size() - 1);
        expectSilentFailure(calls + (i ? undone.substr(undone.find(undoneFrom[i])) : ""));
    }
}

TEST_F(Lifecycle, lifecycle_start_without_semaphores_memory_or_keys)
{
    for (uint32 n = 1; n <= 8; ++n) { // four of memory, the registry's, one of each stack
        createsLeft = n;
        expectSilentFailure("sync mem ");
    }
    for (int n = 0; n < 1100; ++n) { // more often than there are keys for the threads' tags
        const FailNthAlloc fault(1, FailNthAlloc::ALL_FROM_THERE);
        ASSERT_EQ(eko_init(), 1002) << n;
    }
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key; pthread_key_create(&key, nullptr) == 0;)
        keys.push_back(key);
    expectSilentFailure("sync mem syncTerm ");
    for (const pthread_key_t key : keys)
        pthread_key_delete(key);
}

TEST_F(Lifecycle, lifecycle_stops_log_first)
{
    ASSERT_EQ(eko_init(), 0);
    trace = "";
    ASSERT_EQ(eko_init(), 0);
    eko_term();
    EXPECT_EQ(eko_inited, 1);
    EXPECT_EQ(trace, ""); // counted, no more
    EXPECT_EQ(eko_printf("held back"), 9);
    eko_tmp = EKO_STRDUP("/somewhere", EKO_GLOBAL_TAG);
    CapturedFd out(1);
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
        void* record;
        EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
        EXPECT_EQ(eko_globalGet("x", 1, nullptr, nullptr, &record), 1003);
        EXPECT_EQ(EKO_ALLOC(8, EKO_GLOBAL_TAG), nullptr);
        EXPECT_EQ(trace, "");
        EXPECT_TRUE(count == 0 || eko_init() == 0);
    }
}

TEST_F(Lifecycle, lifecycle_threads_start_it_once)
{
    pthread_barrier_t meet;
    pthread_barrier_init(&meet, nullptr, 8);
    inThreads(8, [&meet](uint32) {
        EXPECT_EQ(eko_init(), 0);
        const EKO_SEM sem = EKO_MUTEX_CREATE(); // started, whoever came first
        EXPECT_NE(sem, EKO_SEM_INVALID);
        eko_syncDelete(sem);
        pthread_barrier_wait(&meet);
        eko_term();
    });
    EXPECT_EQ(trace, std::string(START) + STOP);
}

TEST_F(Lifecycle, lifecycle_of_the_operating_system_layer)
{
    const struct {
        rlim_t soft, hard, raised;
    } cases[] = {{256, 4096, 4096},           {4096, 4096, 4096},          {256, RLIM_INFINITY, 1024},
                 {2048, RLIM_INFINITY, 2048}, {1024, RLIM_INFINITY, 1024}, {1500, 65536, 65536}};
    for (const auto& c : cases) {
        limit = {c.soft, c.hard};
        EXPECT_EQ(eko_osInit(), 0);
        EXPECT_EQ(limit.rlim_cur, c.raised);
        EXPECT_EQ(limit.rlim_max, c.hard);
    }
    EXPECT_EQ(limitWrites, 6);
    for (limitErrors = 1; limitErrors <= 2; ++limitErrors)
        EXPECT_EQ(eko_osInit(), 0);
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
    eko_version(nullptr, nullptr, &build);
    eko_version(&major, &minor, nullptr);
    EXPECT_TRUE(major == 12 && minor == 0 && build == 1000);
    EXPECT_EQ(eko_isPurifyRunning(), 0);
    EKO_ASSERT(1 + 1 == 2);
    EXPECT_EXIT(EKO_ASSERT(1 + 1 == 3), testing::KilledBySignal(SIGABRT), "assertion failed: 1 \\+ 1 == 3\n");
}

} // namespace
