#include "tools/TaskHelper.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
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

bool TaskHelper::launch(int stdoutPipe[2], int stderrPipe[2]) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, stdoutPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, stderrPipe[1], STDERR_FILENO);
    if (task_.workingDirectory) posix_spawn_file_actions_addchdir_np(&actions, task_.workingDirectory->c_str());

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(task_.launchPath.c_str()));
    for (const auto& argument : task_.arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int error = posix_spawn(&pid, task_.launchPath.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return false;
    childPid_ = pid;
    return true;
}

void TaskHelper::taskThread() {
    int stdoutPipe[2] = {-1, -1};
    int stderrPipe[2] = {-1, -1};
    bool piped = ::pipe2(stdoutPipe, O_CLOEXEC) == 0 && ::pipe2(stderrPipe, O_CLOEXEC) == 0;
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
            std::string* stdoutText, std::string* stderrText, bool verbose) {
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
    return result;
}

}  // namespace whittle
