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
#include <cstring>
#include <thread>

#include "platform/helper/ProgressChannel.hpp"
#include "tools/ProgressLine.hpp"

extern char** environ;

namespace whittle {

namespace {

constexpr int kSliceMilliseconds = 100;
constexpr std::size_t kLongestProgressRecord = 4096;

void closeIfOpen(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// This process's environment for a child: the progress channel's variable is set only
// when the child has one, never passed on from our own environment.
std::vector<std::string> childEnvironment(int progressChannel) {
    std::string variable = std::string(progress::kChannelVariable) + "=";
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry)
        if (std::strncmp(*entry, variable.c_str(), variable.size()) != 0) environment.emplace_back(*entry);
    if (progressChannel >= 0) environment.push_back(variable + std::to_string(progressChannel));
    return environment;
}

// A pipe for the child's progress reports. Its writing end is never one of the three
// standard descriptors, which the child's own streams replace. Answers false when
// none could be made: the child then runs without.
bool openProgressChannel(int channel[2]) {
    if (::pipe2(channel, O_CLOEXEC) != 0) return false;
    if (channel[1] < 3) {
        int moved = ::fcntl(channel[1], F_DUPFD_CLOEXEC, 3);
        ::close(channel[1]);
        channel[1] = moved;
    }
    if (channel[1] >= 0 && ::fcntl(channel[0], F_SETFL, O_NONBLOCK) == 0) return true;
    closeIfOpen(channel[0]);
    closeIfOpen(channel[1]);
    return false;
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
[[noreturn]] void becomeTool(const ChildTask& task, char* const* argv, char* const* envp, int stdoutFd, int stderrFd,
                             int progressChannel, int errorFd, pid_t parent) {
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
                 (progressChannel < 0 || ::fcntl(progressChannel, F_SETFD, 0) == 0) &&
                 (!task.workingDirectory || ::chdir(task.workingDirectory->c_str()) == 0);
    if (ready) ::execve(task.launchPath.c_str(), argv, envp);
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

bool TaskHelper::launch(int stdoutPipe[2], int stderrPipe[2], int progressChannel) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(task_.launchPath.c_str()));
    for (const auto& argument : task_.arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> environment = childEnvironment(progressChannel);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    int errorPipe[2];
    if (::pipe2(errorPipe, O_CLOEXEC) != 0) {
        launchError_ = errno;
        return false;
    }
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0)
        becomeTool(task_, argv.data(), envp.data(), stdoutPipe[1], stderrPipe[1], progressChannel, errorPipe[1],
                   parent);
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
    int progressPipe[2] = {-1, -1};
    bool piped = ::pipe2(stdoutPipe, O_CLOEXEC) == 0 && ::pipe2(stderrPipe, O_CLOEXEC) == 0;
    if (!piped) launchError_ = errno;
    if (piped && progressLine_) openProgressChannel(progressPipe);
    if (!piped || !launch(stdoutPipe, stderrPipe, progressPipe[1])) {
        std::fprintf(stderr, "ERROR: threw an exception launching %s", task_.launchPath.c_str());
        std::fflush(stderr);
        result_ = 1;
    }
    closeIfOpen(stdoutPipe[1]);
    closeIfOpen(stderrPipe[1]);
    closeIfOpen(progressPipe[1]);
    stdout_ = OutputStream{stdoutPipe[0]};
    stderr_ = OutputStream{stderrPipe[0]};
    progressRead_ = progressPipe[0];

    if (result_ == 0) {
        ::fcntl(stdout_.fd, F_SETFL, O_NONBLOCK);
        ::fcntl(stderr_.fd, F_SETFL, O_NONBLOCK);
        int waitStatus = 0;
        serviceWhileRunning(waitStatus);
        runningChild = 0;
        taskDied();
        result_ = exitStatusOf(waitStatus);
        stdoutDataAvail();
        stderrDataAvail();
        if (progressLine_) progressLine_->end();
        if (verbose_) {
            echoNewText(stdout_, stdoutOutput_, true, true);
            echoNewText(stderr_, stderrOutput_, false, true);
        }
    }
    closeIfOpen(stdout_.fd);
    closeIfOpen(stderr_.fd);
    closeIfOpen(progressRead_);
    setThreadDone(true);
}

// The pipes are serviced in slices while the child runs, so a child that fills one of
// them never waits on us. A pipe the child has closed is no longer watched; once none
// is left, the child is ending (or has nothing more to say), so we wait for its end.
void TaskHelper::serviceWhileRunning(int& waitStatus) {
    for (;;) {
        bool watching = stdout_.open || stderr_.open || progressRead_ >= 0;
        pid_t ended = ::waitpid(childPid_, &waitStatus, watching ? WNOHANG : 0);
        if (ended < 0 && errno == EINTR) continue;
        if (ended != 0) return;
        pollfd pipes[3] = {{stdout_.open ? stdout_.fd : -1, POLLIN, 0},
                           {stderr_.open ? stderr_.fd : -1, POLLIN, 0},
                           {progressRead_, POLLIN, 0}};
        ::poll(pipes, 3, kSliceMilliseconds);
        if (pipes[0].revents) stdoutDataAvail();
        if (pipes[1].revents) stderrDataAvail();
        if (pipes[2].revents) progressDataAvail();
        if (progressLine_) progressLine_->redraw();
    }
}

void TaskHelper::readAvailable(OutputStream& stream, std::string& sink, bool toStandardOutput) {
    char buffer[65536];
    for (;;) {
        ssize_t got = ::read(stream.fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got == 0) stream.open = false;
        if (got <= 0) break;
        // Chunks are kept as raw bytes: a character split across two reads is whole
        // again once the chunks are joined.
        sink.append(buffer, static_cast<std::size_t>(got));
    }
    if (verbose_) echoNewText(stream, sink, toStandardOutput, false);
}

void TaskHelper::echoNewText(OutputStream& stream, const std::string& sink, bool toStandardOutput,
                             bool partialLineToo) {
    std::size_t end = sink.size();
    if (!partialLineToo) {
        std::size_t lastLineEnd = sink.rfind('\n');
        end = lastLineEnd == std::string::npos || lastLineEnd < stream.echoed ? stream.echoed : lastLineEnd + 1;
    }
    if (end <= stream.echoed) return;
    if (progressLine_) progressLine_->erase();
    FILE* echo = toStandardOutput ? stdout : stderr;
    std::fwrite(sink.data() + stream.echoed, 1, end - stream.echoed, echo);
    std::fflush(echo);
    stream.echoed = end;
}

void TaskHelper::stdoutDataAvail() { readAvailable(stdout_, stdoutOutput_, true); }
void TaskHelper::stderrDataAvail() { readAvailable(stderr_, stderrOutput_, false); }

void TaskHelper::progressDataAvail() {
    char buffer[4096];
    for (;;) {
        ssize_t got = ::read(progressRead_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got == 0) closeIfOpen(progressRead_);
        if (got <= 0) break;
        progressRecords_.append(buffer, static_cast<std::size_t>(got));
    }
    std::size_t start = 0;
    for (std::size_t end; (end = progressRecords_.find('\n', start)) != std::string::npos; start = end + 1)
        progressLine_->takeRecord(std::string_view(progressRecords_).substr(start, end - start));
    progressRecords_.erase(0, start);
    // Records are short: a longer run of bytes without a line end is no record.
    if (progressRecords_.size() > kLongestProgressRecord) progressRecords_.clear();
}

int runTool(const char* launchPath, const std::vector<std::string>* arguments, const char* workingDirectory,
            std::string* stdoutText, std::string* stderrText, bool verbose, int* launchError,
            ProgressLine* progressLine) {
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
        helper.setProgressLine(progressLine);
        result = helper.run();
    }
    if (stdoutText) *stdoutText = helper.stdoutOutput();
    if (stderrText) *stderrText = helper.stderrOutput();
    if (launchError) *launchError = launchPath ? helper.launchError() : 0;
    return result;
}

}  // namespace whittle
