// Process services: temporary directory, commands, interrupts, environment, daemons in real processes.
//
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc --wrap=open64 --wrap=fork
#include <sys/prctl.h>

#include "support/faults.h"
#include "support/fixture.h"

extern char* eko_tmp;
static const char* refused = "?"; // the beginning of the names that cannot be opened
static enum { FORKS, FAILS, CHILD_FIRST } forking = FORKS;
enum { COMPLETE = -2, SILENT = -1, EXIT_3 = 0 }; // what a daemon does; above 0 it raises that signal
static jmp_buf jumpBuffer;
static int interrupts = 0;

EKO_WRAP(int, open64, (const char* path, int flags, mode_t mode))
{
    return strncmp(path, refused, strlen(refused)) ? __real_open64(path, flags, mode) : (errno = EACCES, -1);
}

EKO_WRAP(pid_t, fork, ())
{
    const pid_t pid = forking == FAILS ? -1 : __real_fork();
    if (forking == CHILD_FIRST && pid > 0)
        waitid(P_PID, id_t(pid), nullptr, WEXITED | WSTOPPED | WNOWAIT);
    return pid;
}

static const char* anew()
{
    EKO_FREE(std::exchange(eko_tmp, nullptr), EKO_GLOBAL_TAG);
    return eko_tmpdir(EKO_THREAD_TAG);
}

TEST_F(DiskTest, process_temporary_directory)
{
    const std::string& mine = dir_.path();
    EXPECT_EQ(chdir(mine.c_str()) + unsetenv("TOV_TMPDIR") + unsetenv("TMPDIR") + unsetenv("TEMPDIR"), 0);
    EXPECT_STREQ(anew(), "/tmp");
    refused = "/tmp/tov";
    EXPECT_STREQ(anew(), mine.c_str());
    const char* const steps[] = {"TEMPDIR", ".",          ".", "TMPDIR", "/no",        ".",   "TMPDIR", "./",
                                 "./",      "TOV_TMPDIR", "",  "",       "TOV_TMPDIR", "/no", "/no"};
    for (auto step = steps; step != std::end(steps); step += 3) // a variable, its value, and what is found then
        EXPECT_STREQ((setenv(step[0], step[1], 1), anew()), step[2]);
    EXPECT_EQ((eko_rdonly(), unsetenv("TOV_TMPDIR")), 0);
    EXPECT_EQ(anew(), nullptr);
    eko_readonly = 0; // that there was none is not remembered
    inThreads(8, [](uint32) { EKO_FREE(eko_tmpdir(EKO_GLOBAL_TAG), EKO_GLOBAL_TAG); });
    EXPECT_STREQ((setenv("TMPDIR", ".", 1), eko_tmpdir(EKO_THREAD_TAG)), "./");   // that there was one is
    const std::string kept = mine + std::string(507 - mine.size(), '/') + "kept"; // what a probe's name is cut to
    writeFile(kept, "");
    EXPECT_EQ(eko_dirWritable((kept + "more").c_str()) - unlink(kept.c_str()), 0);
    void* files = nullptr; // a record that is a tag
    eko_globalGet("ekofile", sizeof(EKO_MEMTAG), nullptr, nullptr, &files);
    for (EKO_MEMTAG tag : {EKO_GLOBAL_TAG, *static_cast<EKO_MEMTAG*>(files), EKO_THREAD_TAG}) {
        eko_resetTag(&jumpBuffer, EKO_THREAD_TAG); // of use for the last
        FailNthOnTag fault(tag, 1);
        const auto run = [=] { EXPECT_EQ(setjmp(jumpBuffer) == 0 && !anew(), tag != EKO_THREAD_TAG); };
        EXPECT_TRUE(isOneReport(logged(run), "eko_tmpdir.cpp"));
    }
    EXPECT_EQ(rmdir(mine.c_str()), 0); // no probe is left
    EKO_FREE(std::exchange(eko_tmp, nullptr), EKO_GLOBAL_TAG);
    eko_releaseTLSTag();
}

TEST_F(DiskTest, process_commands_interrupts_environment)
{
    const char* none = nullptr;
    int32 status = -7;
    EXPECT_EQ(eko_serviceInstall("", "", "", "", "", "", "", "") + eko_serviceUninstall("", ""), 2004);
    EXPECT_EQ(eko_execfile(none, &status, "%d", 3), 1013);
    EXPECT_EQ(logged([&] { eko_execfile("echo a;", &status, "echo '%d  %s'; kill -9 $$", 7, "x"); }), "a\n7  x\n");
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(eko_execfile("true", &status, none) + status, 1002 + 9);
    eko_handleInterrupt([] { ++interrupts, errno = raise(SIGINT) + EIO; }); // that one is dropped, not kept
    for (int n : {1, 2, 2})
        EXPECT_TRUE(raise(SIGINT) == 0 && interrupts == n && errno != EIO &&
                    (n == 1 || !eko_handleInterrupt(nullptr)));
    EXPECT_EQ(setenv("\xC3\xA9", "\xE2\x82\xAC", 1) + setenv("BAD", "\xFF", 1), 0);
    EXPECT_TRUE(!eko_getenvW(L"BAD") && !eko_getenvW(nullptr) && !eko_setlocaleW(LC_CTYPE, L"nowhere"));
    EXPECT_EQ(currentUsage().threadBytes, 0u);
    EXPECT_STREQ(eko_getenvW(L"\u00E9"), L"\u20AC");
    EXPECT_STREQ(eko_setlocaleW(LC_CTYPE, L"C.UTF-8"), L"C.UTF-8");
    EXPECT_STREQ(eko_setlocale(LC_CTYPE, nullptr), "C.UTF-8");
    eko_releaseTLSTag();
}

static std::string signals() // blocked, ignored, caught
{
    return readFile("/proc/self/status").erase(0, readFile("/proc/self/status").find("SigBlk")).substr(0, 75);
}

// Starts a daemon from a process that has another child, no standard input, and output held back. When this one has
// ended: what was said on standard output and error, and its status.
static std::string launch(int act)
{
    CapturedFd out(1), err(2);
    const pid_t launcher = fork();
    if (launcher == 0) {
        const int report = dup(2) + close(0), descriptors = int(openDescriptors());
        signal(SIGCHLD, forking == CHILD_FIRST ? SIG_IGN : SIG_DFL);
        if (fork() == 0)
            _exit(5);
        eko_printf("once ");
        const std::string before = signals();
        EKO_DAEMON_CTX ctx;
        if (eko_daemonStart("svc", &ctx) != 0 || act == EXIT_3)
            _exit(3);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        raise(act > 0 ? act : SIGCONT);
        eko_daemonComplete(nullptr); // is none: descriptor 0 stays
        dprintf(report, "%zd%zd%zd ", read(0, &act, 1), write(1, "never", 5), write(2, "seen", 4));
        dprintf(report, "%d %o %d %d %d ", int(openDescriptors()) - descriptors, umask(7), getsid(0) == getpid(),
                eko_background, signals() == before);
        act == COMPLETE ? eko_daemonComplete(ctx) : void(close(int(reinterpret_cast<intptr_t>(ctx))));
        pause();
    }
    int status;
    waitpid(launcher, &status, 0);
    return out.take() + err.take() + std::to_string(WEXITSTATUS(status));
}

TEST_F(DiskTest, process_daemon)
{
    const uint64 start = eko_timeMilliSecs();
    for (int act : {COMPLETE, SILENT})
        EXPECT_EQ(launch(act), "once svc started successfully.\n054 2 0 1 1 1 0");
    EXPECT_GE(eko_timeMilliSecs() - start, 1999u);
    for (auto how : {FORKS, CHILD_FIRST}) { // ended before the launching process looks, and SIGCHLD was ignored
        forking = how;
        EXPECT_EQ(launch(EXIT_3), "once svc startup aborted with a status of 3.\r\n3");
        EXPECT_EQ(launch(SIGSTOP), "once Unexpected status signal from svc child process.\r\n99");
        EXPECT_EQ(launch(SIGKILL), "once svc terminated by internal error or external signal (9).\r\n247");
    }
    forking = FAILS;
    const std::string before = signals();
    EKO_DAEMON_CTX ctx;
    EXPECT_EQ(eko_daemonStart("svc", &ctx), 1002);
    EXPECT_EQ(signals(), before);
}
