#include "tools/TaskHelper.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

extern char** environ;

namespace whittle {

namespace {

constexpr int kSliceMilliseconds = 100;

void closeIfOpen(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

int exitStatusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus)) return WTERMSIG(waitStatus);
    return 1;
}

}  // namespace

TaskHelper::TaskHelper(ChildTask task) : task_(std::move(task)) {}

int TaskHelper::run() {
    setThreadDone(false);
    std::thread worker([this] { taskThread(); });
    {
        std::unique_lock lock(doneMutex_);
        while (!threadDone()) doneSignal_.wait_for(lock, std::chrono::milliseconds(kSliceMilliseconds));
    }
    worker.join();
    return result_;
}

void TaskHelper::setThreadDone(bool done) {
    {
        std::lock_guard lock(doneMutex_);
        threadDone_ = done;
    }
    if (done) doneSignal_.notify_all();
}

namespace {

std::atomic<pid_t> runningChild{0};
std::atomic<bool> toolsStopped{false};

// In the child, between fork and exec: only async-signal-safe calls.
[[noreturn]] void becomeTool(const ChildTask& task, char* const* argv, int stdoutFd, int stderrFd, int errorFd,
                             pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);  // the parent is already gone
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // A tool must be stoppable even when this process was started with them ignored.
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) ::signal(signalNumber, SIG_DFL);
    int input = ::open("/dev/null", O_RDONLY);
    bool ready = input >= 0 && ::dup2(input, STDIN_FILENO) >= 0 && ::dup2(stdoutFd, STDOUT_FILENO) >= 0 &&
                 ::dup2(stderrFd, STDERR_FILENO) >= 0 &&
                 (!task.workingDirectory || ::chdir(task.workingDirectory->c_str()) == 0);
    if (ready) ::execve(task.launchPath.c_str(), argv, environ);
    int error = errno;
    [[maybe_unused]] ssize_t ignored = ::write(errorFd, &error, sizeof error);
    ::_exit(127);
}

}  // namespace

void stopRunningTools() {
    toolsStopped = true;
    pid_t child = runningChild.load();
    if (child > 0) ::kill(child, SIGTERM);
}

void allowTools() { toolsStopped = false; }

bool TaskHelper::launch(int stdoutPipe[2], int stderrPipe[2]) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(task_.launchPath.c_str()));
    for (const auto& argument : task_.arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    int errorPipe[2];
    if (::pipe2(errorPipe, O_CLOEXEC) != 0) {
        launchError_ = errno;
        return false;
    }
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0) becomeTool(task_, argv.data(), stdoutPipe[1], stderrPipe[1], errorPipe[1], parent);
    ::close(errorPipe[1]);
    if (pid < 0) {
        launchError_ = errno;
        ::close(errorPipe[0]);
        return false;
    }
    runningChild = pid;
    if (toolsStopped) ::kill(pid, SIGTERM);
    int childError = 0;
    ssize_t got;
    do {
        got = ::read(errorPipe[0], &childError, sizeof childError);
    } while (got < 0 && errno == EINTR);
    ::close(errorPipe[0]);
    if (got == static_cast<ssize_t>(sizeof childError)) {
        ::waitpid(pid, nullptr, 0);
        runningChild = 0;
        launchError_ = childError;
        return false;
    }
    childPid_ = pid;
    return true;
}

void TaskHelper::taskThread() {
    int stdoutPipe[2] = {-1, -1};
    int stderrPipe[2] = {-1, -1};
    bool piped = ::pipe2(stdoutPipe, O_CLOEXEC) == 0 && ::pipe2(stderrPipe, O_CLOEXEC) == 0;
    if (!piped) launchError_ = errno;
    if (!piped || !launch(stdoutPipe, stderrPipe)) {
        std::fprintf(stderr, "ERROR: threw an exception launching %s", task_.launchPath.c_str());
        std::fflush(stderr);
        result_ = 1;
    }
    closeIfOpen(stdoutPipe[1]);
    closeIfOpen(stderrPipe[1]);
    stdoutRead_ = stdoutPipe[0];
    stderrRead_ = stderrPipe[0];

    if (result_ == 0) {
        ::fcntl(stdoutRead_, F_SETFL, O_NONBLOCK);
        ::fcntl(stderrRead_, F_SETFL, O_NONBLOCK);
        int waitStatus = 0;
        // Both pipes are serviced in slices while the child runs, so a child that
        // fills one of them never waits on us.
        while (::waitpid(childPid_, &waitStatus, WNOHANG) == 0) {
            pollfd pipes[2] = {{stdoutRead_, POLLIN, 0}, {stderrRead_, POLLIN, 0}};
            ::poll(pipes, 2, kSliceMilliseconds);
            if (pipes[0].revents) stdoutDataAvail();
            if (pipes[1].revents) stderrDataAvail();
        }
        runningChild = 0;
        taskDied();
        result_ = exitStatusOf(waitStatus);
        stdoutDataAvail();
        stderrDataAvail();
    }
    closeIfOpen(stdoutRead_);
    closeIfOpen(stderrRead_);
    setThreadDone(true);
}

void TaskHelper::readAvailable(int fd, std::string& sink, bool toStandardOutput) {
    char buffer[65536];
    for (;;) {
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return;
        // Chunks are kept as raw bytes: a character split across two reads is whole
        // again once the chunks are joined.
        sink.append(buffer, static_cast<std::size_t>(got));
        if (verbose_) {
            FILE* echo = toStandardOutput ? stdout : stderr;
            std::fwrite(buffer, 1, static_cast<std::size_t>(got), echo);
            std::fflush(echo);
        }
    }
}

void TaskHelper::stdoutDataAvail() { readAvailable(stdoutRead_, stdoutOutput_, true); }
void TaskHelper::stderrDataAvail() { readAvailable(stderrRead_, stderrOutput_, false); }

int runTool(const char* launchPath, const std::vector<std::string>* arguments, const char* workingDirectory,
            std::string* stdoutText, std::string* stderrText, bool verbose, int* launchError) {
    ChildTask task;
    TaskHelper helper(task);
    int result = 1;
    if (!launchPath) {
        std::fputs("ERROR: no task path specified.\n", stderr);
        std::fflush(stderr);
    } else {
        task.launchPath = launchPath;
        if (arguments) task.arguments = *arguments;
        if (workingDirectory) task.workingDirectory = workingDirectory;
        std::string commandLine = task.launchPath + " ";
        for (const auto& argument : task.arguments) commandLine += argument + " ";
        if (verbose) {
            std::printf(">>> %s\n", commandLine.c_str());
            std::fflush(stdout);
        }
        helper.setTask(task);
        helper.setVerbose(verbose);
        result = helper.run();
    }
    if (stdoutText) *stdoutText = helper.stdoutOutput();
    if (stderrText) *stderrText = helper.stderrOutput();
    if (launchError) *launchError = launchPath ? helper.launchError() : 0;
    return result;
}

}  // namespace whittle
