// SPDX-License-Identifier: MIT
// Start as a daemon: the caller goes on in a child, while the process that was launched waits for its report and
// shows by message and exit status what became of the start.
//
//      launching process                                   daemon
//      ----------------------------------------------------------------------------------------------
//      pipe, null device, SIGCHLD held back, fork
//      SIGCHLD let through; reads one byte                 new session, null device on 0, 1, 2
//      a byte: "started", exit 0                     <---- eko_daemonComplete writes it
//      end of file: two seconds more, "started", exit 0    closed the pipe, or died
//      SIGCHLD: message, exit with the daemon's status     died, or was stopped
//
// What runs in the signal handler formats into a buffer of its own and calls write, waitpid and _exit, no more: it
// may interrupt a print. Nothing here is locked; there are no threads yet.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ekoprocess_int.h"

namespace {

constexpr int FIRST_OWN_DESCRIPTOR = STDERR_FILENO + 1;
constexpr int32 STOPPED_STATUS = 99;
constexpr uint32 GRACE_MS = 2000;
constexpr char STARTED = '1'; // the byte that reports; any would do

const char* server_name = "unknown";
pid_t daemonPid; // 0 until forked

// ---- descriptors ------------------------------------------------------------------------------------------

class OwnedFd {
public:
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd() { reset(); }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// Moves a descriptor away from 0 to 2, where it lands in a process that was started without them: these numbers get
// the null device. -1 when it cannot be moved.
int aboveStandard(int fd)
{
    OwnedFd low(fd);
    return fd < 0 || fd >= FIRST_OWN_DESCRIPTOR ? low.release() : fcntl(fd, F_DUPFD_CLOEXEC, FIRST_OWN_DESCRIPTOR);
}

// What both processes need, had before there are two: what fails here fails in front of the caller.
struct StartPipe {
    OwnedFd readEnd{-1};
    OwnedFd writeEnd{-1};
    OwnedFd nullDevice{-1};

    bool open()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return false;
        readEnd.reset(aboveStandard(ends[0]));
        writeEnd.reset(aboveStandard(ends[1]));
        nullDevice.reset(aboveStandard(open64("/dev/null", O_RDWR | O_CLOEXEC)));
        return readEnd.valid() && writeEnd.valid() && nullDevice.valid();
    }
};

// ---- the daemon's end, seen by the launching process ------------------------------------------------------

// Text put together in a signal handler. What does not fit is left out.
class SignalText {
public:
    SignalText& add(const char* s)
    {
        for (; *s && length_ < sizeof(text_); ++s)
            text_[length_++] = *s;
        return *this;
    }
    SignalText& add(int32 number) // at least 0
    {
        char digits[12];
        char* first = digits + sizeof(digits) - 1;
        *first = 0;
        do {
            *--first = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number > 0);
        return add(first);
    }
    void writeTo(int fd) const
    {
        for (size_t done = 0; done < length_;) {
            const ssize_t count = write(fd, text_ + done, length_ - done);
            if (count == 0 || (count < 0 && errno != EINTR))
                return;
            done += count > 0 ? static_cast<size_t>(count) : 0;
        }
    }

private:
    char text_[1023];
    size_t length_ = 0;
};

// DELIBERATE: the messages end with "\r\n", and so read well on a terminal that is in raw mode. Pinned by
// process_daemon.
[[noreturn]] void endLikeDaemon(int waitStatus)
{
    SignalText text;
    int exitStatus;
    if (WIFEXITED(waitStatus)) {
        exitStatus = WEXITSTATUS(waitStatus);
        text.add(server_name).add(" startup aborted with a status of ").add(exitStatus).add(".\r\n");
    } else if (WIFSTOPPED(waitStatus)) {
        exitStatus = STOPPED_STATUS;
        text.add("Unexpected status signal from ").add(server_name).add(" child process.\r\n");
    } else {
        exitStatus = -WTERMSIG(waitStatus);
        text.add(server_name).add(" terminated by internal error or external signal (");
        text.add(WTERMSIG(waitStatus)).add(").\r\n");
    }
    text.writeTo(STDERR_FILENO);
    _exit(exitStatus);
}

// Other children of the caller end too: only the daemon is waited for.
void onChildExit(int)
{
    const int keptErrno = errno;
    int waitStatus;
    pid_t pid = 0;
    do {
        if (daemonPid > 0)
            pid = waitpid(daemonPid, &waitStatus, WNOHANG | WUNTRACED);
    } while (pid < 0 && errno == EINTR);
    if (pid > 0)
        endLikeDaemon(waitStatus);
    errno = keptErrno;
}

// From before the fork on SIGCHLD has the handler above, but is held back: a daemon that dies at once is not
// missed, neither because nobody listens yet, nor because an ignored SIGCHLD lets it vanish. All is put back then.
class ChildExits {
public:
    ChildExits()
    {
        sigemptyset(&set_);
        sigaddset(&set_, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &set_, &oldMask_);
        struct sigaction action = {};
        action.sa_handler = onChildExit;
        sigaction(SIGCHLD, &action, &oldAction_);
    }
    ~ChildExits()
    {
        sigaction(SIGCHLD, &oldAction_, nullptr);
        pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
    }
    ChildExits(const ChildExits&) = delete;
    ChildExits& operator=(const ChildExits&) = delete;

    void letThrough() const { pthread_sigmask(SIG_UNBLOCK, &set_, nullptr); }
    void holdBack() const { pthread_sigmask(SIG_BLOCK, &set_, nullptr); }

private:
    sigset_t set_;
    sigset_t oldMask_;
    struct sigaction oldAction_;
};

// ---- the two processes ------------------------------------------------------------------------------------

// Whether the daemon has reported; false when the pipe was closed without.
bool awaitReport(int readEnd)
{
    char byte;
    ssize_t count;
    do {
        count = read(readEnd, &byte, 1);
    } while (count < 0 && errno == EINTR);
    return count == 1;
}

[[noreturn]] void waitForDaemon(StartPipe& pipe, const ChildExits& exits)
{
    pipe.writeEnd.reset(); // else its end would not be seen
    exits.letThrough();
    if (!awaitReport(pipe.readEnd.get()))
        eko_sleep(GRACE_MS); // in which the handler tells of a daemon that died
    exits.holdBack();        // one verdict only
    eko_log("%s started successfully.\n", server_name);
    eko_log_flush(); // nobody stops the library in this process
    pipe.readEnd.reset();
    exit(EXIT_SUCCESS);
}

// DELIBERATE: the umask is 0. A server sets the mode of its files itself, whoever launched it. Pinned by
// process_daemon.
int32 goOnAsDaemon(StartPipe& pipe, EKO_DAEMON_CTX* ctx)
{
    umask(0);
    if (setsid() < 0)
        _exit(-1);
    writeUnlocked(eko_background, 1);
    // Not closed: the next files opened would get these numbers, and what prints would write into them.
    for (int fd = 0; fd < FIRST_OWN_DESCRIPTOR; ++fd)
        dup2(pipe.nullDevice.get(), fd);
    *ctx = reinterpret_cast<EKO_DAEMON_CTX>(static_cast<intptr_t>(pipe.writeEnd.release()));
    return EKO_OK;
}

// What is still in a buffer at the fork is printed by both.
void flushBuffers()
{
    eko_log_flush();
    fflush(nullptr);
}

} // namespace

int32 eko_daemonStart(const char* name, EKO_DAEMON_CTX* ctx)
{
    if (!name || !ctx)
        return EKO_BAD_ARGUMENT;
    StartPipe pipe;
    if (!pipe.open())
        return EKO_FAILED;
    server_name = name;
    flushBuffers();
    const ChildExits exits;
    daemonPid = fork();
    if (daemonPid < 0)
        return EKO_FAILED;
    if (daemonPid > 0)
        waitForDaemon(pipe, exits);
    return goOnAsDaemon(pipe, ctx);
}

void eko_daemonComplete(EKO_DAEMON_CTX ctx)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(ctx));
    if (fd < FIRST_OWN_DESCRIPTOR) // null and -1: no pipe of a daemon has such a number
        return;
    while (write(fd, &STARTED, 1) < 0 && errno == EINTR)
        ;
    close(fd);
}
