// SPDX-License-Identifier: MIT
// Process services: temporary directory, commands, interrupts, environment, daemons in real processes.
// LINK: --wrap=open64 --wrap=fork
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include "support/faults.h"
#include "support/fixture.h"

extern char* eko_tmp;
static const char* refused; // the beginning of the names that cannot be opened
static enum { FORKS, FAILS, CHILD_FIRST } forking;
static jmp_buf jumpBuffer;
static int interrupts;
enum { COMPLETE = -2, SILENT = -1, EXIT_3 = 0 }; // what a daemon does; above 0 it raises that signal

EKO_WRAP(int, open64, (const char* path, int flags, mode_t mode))
{
    usleep(500); // in which a second thread would begin to search too
    return strncmp(path, refused, strlen(refused)) ? __real_open64(path, flags, mode) : (errno = EACCES, -1);
}

EKO_WRAP(pid_t, fork, ())
{
    const pid_t pid = forking == FAILS ? -1 : __real_fork();
    if (forking == CHILD_FIRST && pid > 0)
        waitid(P_PID, id_t(pid), nullptr, WEXITED | WSTOPPED | WNOWAIT);
    return pid;
}

static const char* searchAnew()
{
    EKO_FREE(std::exchange(eko_tmp, nullptr), EKO_GLOBAL_TAG);
    return eko_tmpdir(EKO_THREAD_TAG);
}

struct ProcessTest : DiskTest { // in a process as it should be, whoever started it and whatever ran before
    ProcessTest()
    {
        const rlimit seconds = {60, 60};
        setrlimit(RLIMIT_CPU, &seconds); // against a signal handler without end, which may block every other signal
        signal(SIGCHLD, SIG_DFL);        // ignored, it would leave no child to wait for
        refused = "?", forking = FORKS, interrupts = 0;
        EXPECT_EQ(chdir(dir_.path().c_str()) + unsetenv("TOV_TMPDIR") + unsetenv("TMPDIR") + unsetenv("TEMPDIR"),
                  0);
    }
};

TEST_F(ProcessTest, process_temporary_directory)
{
    EXPECT_STREQ(searchAnew(), "/tmp");
    refused = "/tmp/tov";
    EXPECT_STREQ(searchAnew(), dir_.path().c_str());
    const char* const steps[][3] = {
        {"TEMPDIR", ".", "."}, {"TMPDIR", "/no", "."}, {"TMPDIR", "./", "./"}, {"TOV_TMPDIR", "/no", "/no"}};
    for (const auto& [variable, value, found] : steps)
        EXPECT_STREQ((setenv(variable, value, 1), searchAnew()), found) << variable;
    EXPECT_STREQ((setenv("TOV_TMPDIR", "", 1), searchAnew()), "");
    EXPECT_STREQ((unsetenv("TOV_TMPDIR"), eko_rdonly(), searchAnew()), nullptr);
    eko_readonly = 0; // that there was none is not remembered
    inThreads(8, [](uint32) { EKO_FREE(eko_tmpdir(EKO_GLOBAL_TAG), EKO_GLOBAL_TAG); });
    EXPECT_STREQ((setenv("TMPDIR", ".", 1), eko_tmpdir(EKO_THREAD_TAG)), "./"); // that there was one is
    eko_resetTag(&jumpBuffer, EKO_THREAD_TAG); // to which only the caller's own memory may jump
    for (EKO_MEMTAG tag : {EKO_THREAD_TAG, EKO_GLOBAL_TAG, fileTag()}) {
        FailNthOnTag fault(tag, 1);
        const auto run = [tag] { EXPECT_EQ(setjmp(jumpBuffer) != 0 || searchAnew(), tag == EKO_THREAD_TAG); };
        EXPECT_TRUE(isOneReport(logged(run), "eko_tmpdir.cpp"));
    }
    const std::string kept = dir_.path() + std::string(507 - dir_.path().size(), '/') + "kept"; // a probe, cut
    writeFile(kept, "");
    EXPECT_EQ(eko_dirWritable((kept + "more").c_str()), 0);
    EXPECT_EQ(unlink(kept.c_str()) + rmdir(dir_.path().c_str()), 0); // it is still there, and no probe is left
    eko_releaseTLSTag();
}

TEST_F(ProcessTest, process_commands_interrupts_environment)
{
    EXPECT_EQ(eko_serviceInstall("", "", "", "", "", "", "", ""), 1002);
    EXPECT_EQ(eko_serviceUninstall("", ""), 1002);
    const char* none = nullptr;
    int32 result = 0, status = -7;
    const auto run = [&] { result = eko_execfile("echo a;", &status, "echo '%d  %s'; kill -9 $$", 7, "x"); };
    EXPECT_EQ(eko_execfile(none, &status, "%d", 3), 1013);
    EXPECT_EQ(logged(run), "a\n7  x\n");
    EXPECT_EQ(result, 0);
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(eko_execfile("true", &status, none, 0), 1002);
    EXPECT_TRUE(isOneReport(logged([&] { FailNthOnTag(EKO_THREAD_TAG, 1), run(); }), "eko_tmpdir.cpp"));
    EXPECT_EQ(result, 1003);
    EXPECT_EQ(status, 9); // of the one that was run
    // Interrupted itself: that one is dropped. The bound is for when it is not, or this would never end.
    eko_handleInterrupt([] { errno = ++interrupts < 9 ? raise(SIGINT) + EIO : EIO; });
    for (int handled : {1, 2, 2}) {
        EXPECT_EQ((errno = 0, raise(SIGINT), errno), 0);
        EXPECT_EQ(interrupts, handled);
        EXPECT_EQ(handled == 2 ? eko_handleInterrupt(nullptr) : 0, 0);
    }
    EXPECT_EQ(setenv("\xC3\xA9", "\xE2\x82\xAC", 1) + setenv("BAD", "\xFF", 1), 0);
    EXPECT_EQ(eko_getenvW(L"BAD"), nullptr);
    EXPECT_EQ(eko_getenvW(nullptr), nullptr);
    EXPECT_EQ(eko_setlocaleW(LC_CTYPE, L"nowhere"), nullptr);
    EXPECT_EQ(infoOf(EKO_THREAD_TAG).bytes.in_use, 0u);
    EXPECT_STREQ(eko_getenvW(L"\u00E9"), L"\u20AC");
    EXPECT_STREQ((eko_setlocale(LC_CTYPE, "C.UTF-8"), eko_setlocaleW(LC_CTYPE, nullptr)), L"C.UTF-8");
    eko_releaseTLSTag();
}

static std::string signals() // blocked, ignored, caught
{
    return readFile("/proc/self/status").erase(0, readFile("/proc/self/status").find("SigBlk")).substr(0, 75);
}

// In a process with another child, no standard input, and output held back: a daemon starts and tells what it has.
[[noreturn]] static void start(int act)
{
    const int report = dup2(2, 100), descriptors = (close(0), int(openDescriptors()));
    signal(SIGCHLD, forking == CHILD_FIRST ? SIG_IGN : SIG_DFL);
    if (fork() == 0)
        _exit(5);
    eko_printf("once ");
    const std::string before = signals();
    EKO_DAEMON_CTX ctx;
    if (eko_daemonStart("svc", &ctx) != 0 || act == EXIT_3)
        _exit(3);
    prctl(PR_SET_PDEATHSIG, SIGKILL), alarm(60);
    raise(act > 0 ? act : SIGCONT);
    eko_daemonComplete(nullptr); // is none: descriptor 0 stays
    dprintf(report, "reads %zd writes %zd %zd, ", read(0, &act, 1), write(1, "never", 5), write(2, "seen", 4));
    dprintf(report, "opened %d, umask %o, ", int(openDescriptors()) - descriptors, umask(7));
    dprintf(report, "leader %d quiet %d signals %d, ", getsid(0) == getpid(), eko_background, signals() == before);
    act == COMPLETE ? eko_daemonComplete(ctx) : void(close(int(reinterpret_cast<intptr_t>(ctx))));
    _exit(pause());
}

// What was said on standard output and error when the launching process has ended, and its status.
static std::string launch(int act)
{
    CapturedFd out(1), err(2);
    const pid_t launcher = fork();
    if (launcher == 0)
        start(act);
    int status = -1;
    EXPECT_EQ(waitpid(launcher, &status, 0), launcher);
    const std::string code = std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return out.take() + err.take() + "status " + code;
}

TEST_F(ProcessTest, process_daemon)
{
    for (int act : {COMPLETE, SILENT}) {
        const uint64 before = eko_timeMilliSecs();
        EXPECT_EQ(launch(act), "once svc started successfully.\nreads 0 writes 5 4, opened 2, umask 0, "
                               "leader 1 quiet 1 signals 1, status 0");
        EXPECT_EQ(eko_timeMilliSecs() - before >= 1999, act == SILENT);
    }
    for (auto how : {FORKS, CHILD_FIRST}) { // ended before the launching process looks, and SIGCHLD was ignored
        forking = how;
        EXPECT_EQ(launch(EXIT_3), "once svc startup aborted with a status of 3.\r\nstatus 3");
        EXPECT_EQ(launch(SIGSTOP), "once Unexpected status signal from svc child process.\r\nstatus 99");
        EXPECT_EQ(launch(SIGKILL), "once svc terminated by internal error or external signal (9).\r\nstatus 247");
    }
    const std::string untouched = signals();
    EKO_DAEMON_CTX ctx;
    EXPECT_EQ((forking = FAILS, eko_daemonStart("svc", &ctx)), 1002);
    EXPECT_EQ(signals(), untouched);
}
