#include "platform/diskimage/Subprocess.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/StopCleanup.hpp"

extern char** environ;

namespace whittle::diskimage {

namespace {

constexpr std::size_t kMessageTailLines = 6;

// Children start with no signal blocked, whatever the tool blocks at that moment.
class SpawnAttributes {
public:
    SpawnAttributes() {
        posix_spawnattr_init(&attributes_);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, int outputFd) {
    if (argv.empty()) throw DiskImageError("internal error: no program to run");
    programName_ = lastComponentOf(argv[0]);
    capture_.reset(::memfd_create("whittle-diskimage-capture", MFD_CLOEXEC));
    if (!capture_.valid()) throwSystemError("cannot capture the output of " + programName_, errno);

    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(actions.get(), outputFd >= 0 ? outputFd : capture_.get(), 1);
    posix_spawn_file_actions_adddup2(actions.get(), capture_.get(), 2);

    std::vector<char*> arguments;
    for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    SpawnAttributes attributes;
    int error = 0;
    {
        StopSignalsBlocked blocked;  // no stop between starting the child and registering it
        error = ::posix_spawn(&pid_, argv[0].c_str(), actions.get(), attributes.get(), arguments.data(), environ);
        if (error == 0) killOnStop(pid_);
    }
    if (error != 0) {
        pid_ = -1;
        throwSystemError("cannot run " + argv[0], error);
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
}

int ChildProcess::wait() {
    if (pid_ <= 0) return status_;
    int raw = 0;
    while (::waitpid(pid_, &raw, 0) < 0) {
        if (errno != EINTR) {
            raw = 0;
            break;
        }
    }
    forgetOnStop(pid_);
    pid_ = -1;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_;
}

std::string ChildProcess::capturedText() const {
    std::string text;
    char buffer[65536];
    off_t offset = 0;
    for (;;) {
        ssize_t got = ::pread(capture_.get(), buffer, sizeof buffer, offset);
        if (got <= 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
        offset += got;
    }
    return text;
}

std::string ChildProcess::messageTail() const {
    std::string text = capturedText();
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    std::size_t start = text.size();
    for (std::size_t lines = 0; lines < kMessageTailLines && start > 0; ++lines) {
        std::size_t newline = text.rfind('\n', start - 1);
        start = newline == std::string::npos ? 0 : newline;
    }
    std::string tail = text.substr(start);
    while (!tail.empty() && (tail.front() == '\n' || tail.front() == '\r')) tail.erase(0, 1);
    return tail;
}

ProcessResult runToCompletion(const std::vector<std::string>& argv) {
    ChildProcess child(argv);
    int status = child.wait();
    return {status, child.capturedText()};
}

}  // namespace whittle::diskimage
