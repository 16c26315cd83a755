#include "platform/helper/ProgressReporter.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/helper/ProgressChannel.hpp"

namespace whittle::helper {

namespace {

std::chrono::steady_clock::time_point steadyNow() { return std::chrono::steady_clock::now(); }

// The descriptor a variable's value names, or -1: only digits, and never one of the
// three standard streams.
int descriptorNamedBy(const char* value) {
    if (!value || !*value) return -1;
    char* end = nullptr;
    errno = 0;
    long number = std::strtol(value, &end, 10);
    if (errno != 0 || *end != '\0' || number < 3 || number > 65535) return -1;
    return static_cast<int>(number);
}

bool isWritableChannel(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !(S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode))) return false;
    int access = ::fcntl(fd, F_GETFL) & O_ACCMODE;
    return access == O_WRONLY || access == O_RDWR;
}

// Writes the record whole or not at all: it is shorter than a pipe's atomic size and
// the descriptor never blocks. A reader that has gone makes the write fail with EPIPE;
// the SIGPIPE that comes with it is taken back, so that it cannot end the tool.
bool writeWithoutSigpipe(int fd, const std::string& record) {
    sigset_t pipeSignal, previous, pending;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
    ::sigpending(&pending);
    bool pendingBefore = sigismember(&pending, SIGPIPE) == 1;
    ssize_t written;
    do {
        written = ::write(fd, record.data(), record.size());
    } while (written < 0 && errno == EINTR);
    int error = errno;
    if (written < 0 && error == EPIPE && !pendingBefore) {
        timespec noWait{};
        while (::sigtimedwait(&pipeSignal, nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    errno = error;
    return written == static_cast<ssize_t>(record.size());
}

}  // namespace

ProgressReporter::ProgressReporter(int fd, Clock clock, std::chrono::milliseconds interval)
    : fd_(fd), clock_(clock ? std::move(clock) : Clock(steadyNow)), interval_(interval) {
    int statusFlags = ::fcntl(fd_, F_GETFL);
    if (statusFlags < 0 || ::fcntl(fd_, F_SETFL, statusFlags | O_NONBLOCK) != 0) close();
}

ProgressReporter::~ProgressReporter() { close(); }

ProgressReporter::ProgressReporter(ProgressReporter&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      clock_(std::move(other.clock_)),
      interval_(other.interval_),
      lastReport_(other.lastReport_),
      doneFiles_(other.doneFiles_),
      doneBytes_(other.doneBytes_) {}

ProgressReporter& ProgressReporter::operator=(ProgressReporter&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        clock_ = std::move(other.clock_);
        interval_ = other.interval_;
        lastReport_ = other.lastReport_;
        doneFiles_ = other.doneFiles_;
        doneBytes_ = other.doneBytes_;
    }
    return *this;
}

ProgressReporter ProgressReporter::fromEnvironment(Clock clock) {
    int fd = descriptorNamedBy(std::getenv(progress::kChannelVariable));
    ::unsetenv(progress::kChannelVariable);
    if (fd < 0 || !isWritableChannel(fd)) return {};
    int descriptorFlags = ::fcntl(fd, F_GETFD);
    if (descriptorFlags < 0 || ::fcntl(fd, F_SETFD, descriptorFlags | FD_CLOEXEC) != 0) return {};
    return ProgressReporter(fd, std::move(clock));
}

void ProgressReporter::begin(std::string_view step, std::uint64_t totalFiles, std::uint64_t totalBytes) {
    if (!active()) return;
    doneFiles_ = 0;
    doneBytes_ = 0;
    std::string name(step);
    for (char& character : name)
        if (character == '\n' || character == '\r') character = ' ';
    send(std::string(progress::kTotalRecord) + " " + std::to_string(totalFiles) + " " + std::to_string(totalBytes) +
         " " + name + "\n");
    lastReport_ = clock_();
}

void ProgressReporter::advance(std::uint64_t files, std::uint64_t bytes) {
    if (!active()) return;
    doneFiles_ += files;
    doneBytes_ += bytes;
    auto now = clock_();
    if (now - lastReport_ < interval_) return;
    lastReport_ = now;
    sendDone();
}

void ProgressReporter::end() {
    if (!active()) return;
    sendDone();
    lastReport_ = clock_();
}

void ProgressReporter::sendDone() {
    send(std::string(progress::kDoneRecord) + " " + std::to_string(doneFiles_) + " " + std::to_string(doneBytes_) +
         "\n");
}

void ProgressReporter::send(const std::string& record) {
    if (writeWithoutSigpipe(fd_, record)) return;
    // A full channel drops this record only; a broken one is given up.
    if (errno != EAGAIN && errno != EWOULDBLOCK) close();
}

void ProgressReporter::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

}  // namespace whittle::helper
