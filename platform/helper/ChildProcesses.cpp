#include "platform/helper/ChildProcesses.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/helper/StopCleanup.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle::helper {

namespace {

constexpr int kCannotStart = 127;

void writeErrorNumber(int reportFd, int error) {
    writeAll(reportFd, std::string_view(reinterpret_cast<const char*>(&error), sizeof error));
}

// Makes fd the descriptor number target of the program to come.
bool placeDescriptor(int fd, int target) {
    if (fd < 0) return true;
    if (fd == target) return ::fcntl(fd, F_SETFD, 0) == 0;
    return ::dup2(fd, target) == target;
}

// In the new process, between fork and exec: system calls only.
[[noreturn]] void becomeChild(char* const* argv, const ChildStreams& streams, pid_t helper, int reportFd) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != helper) ::_exit(kCannotStart);  // the helper died meanwhile
    int input = streams.input >= 0 ? streams.input : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (!placeDescriptor(input, STDIN_FILENO) || !placeDescriptor(streams.output, STDOUT_FILENO) ||
        !placeDescriptor(streams.errors, STDERR_FILENO)) {
        writeErrorNumber(reportFd, errno);
        ::_exit(kCannotStart);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execv(argv[0], argv);
    writeErrorNumber(reportFd, errno);
    ::_exit(kCannotStart);
}

// The error number the new process sent before its program could run; 0 once the
// program runs (the report pipe closes on exec).
int startupError(int reportFd) {
    int error = 0;
    ssize_t got;
    while ((got = ::read(reportFd, &error, sizeof error)) < 0 && errno == EINTR) {
    }
    return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

int reap(pid_t child) {
    int raw = 0;
    while (::waitpid(child, &raw, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return raw;
}

}  // namespace

pid_t startChild(const std::vector<std::string>& argv, const ChildStreams& streams) {
    if (argv.empty()) {
        errno = EINVAL;
        return -1;
    }
    std::vector<char*> arguments;
    for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) return -1;
    pid_t helper = ::getpid();
    pid_t child = -1;
    int forkError = 0;
    {
        StopSignalsBlocked blocked;  // no stop between starting the child and registering it
        child = ::fork();
        if (child == 0) becomeChild(arguments.data(), streams, helper, report[1]);
        forkError = errno;
        if (child > 0) {
            ::setpgid(child, child);  // also here, so that the group exists whoever runs first
            killOnStop(child);
        }
    }
    ::close(report[1]);
    int error = child > 0 ? startupError(report[0]) : forkError;
    ::close(report[0]);
    if (child > 0 && error != 0) {
        reap(child);
        forgetOnStop(child);
        child = -1;
    }
    if (child < 0) errno = error;
    return child;
}

int waitForChild(pid_t child) {
    int raw = reap(child);
    forgetOnStop(child);
    return raw < 0 ? 128 + SIGKILL : statusOf(raw);
}

void killChild(pid_t child) {
    ::kill(-child, SIGKILL);
    ::kill(child, SIGKILL);
    waitForChild(child);
}

}  // namespace whittle::helper
