#include "platform/diskimage/Subprocess.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/helper/ChildProcesses.hpp"
#include "support/Paths.hpp"

namespace whittle::diskimage {

namespace {

constexpr std::size_t kMessageTailLines = 6;

// The reasons a child may give in the system's words, the more telling first.
constexpr int kReasonsToLookFor[] = {ENOSPC, EDQUOT, EROFS, EACCES, EPERM, EFBIG, EIO, ENAMETOOLONG, EMFILE, ENOENT};

std::string lastLineOf(const std::string& text) {
    auto end = text.find_last_not_of("\r\n ");
    if (end == std::string::npos) return "";
    auto newline = text.rfind('\n', end);
    std::size_t start = newline == std::string::npos ? 0 : newline + 1;
    return text.substr(start, end + 1 - start);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, int outputFd) {
    if (argv.empty()) throw DiskImageError("internal error: no program to run");
    programName_ = lastPathComponent(argv[0]);
    capture_.reset(::memfd_create("whittle-diskimage-capture", MFD_CLOEXEC));
    if (!capture_.valid()) throwSystemError("cannot capture the output of " + programName_, errno);
    helper::ChildStreams streams;
    streams.output = outputFd >= 0 ? outputFd : capture_.get();
    streams.errors = capture_.get();
    pid_ = helper::startChild(argv, streams);
    if (pid_ < 0) throwSystemError("cannot run " + argv[0], errno);
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) helper::killChild(pid_);
}

int ChildProcess::wait() {
    if (pid_ <= 0) return status_;
    status_ = helper::waitForChild(pid_);
    pid_ = -1;
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

std::string ChildProcess::failureReason() const {
    std::string text = capturedText();
    for (int reason : kReasonsToLookFor)
        if (text.find(std::strerror(reason)) != std::string::npos) return std::strerror(reason);
    std::string last = lastLineOf(text);
    return last.empty() ? programName_ + " ended with status " + std::to_string(status_) : programName_ + ": " + last;
}

ProcessResult runToCompletion(const std::vector<std::string>& argv) {
    ChildProcess child(argv);
    int status = child.wait();
    return {status, child.capturedText()};
}

}  // namespace whittle::diskimage
