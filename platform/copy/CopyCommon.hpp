// Pieces shared by the parts of whittle-copy: its error type and an owned file
// descriptor.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace whittle::copy {

// A failure that ends the copy; the message is one line, ready to print.
class CopyError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The system's description of errno, for messages.
std::string systemMessage(int error);

// Throws CopyError: cannot <action> "<path>": <system's description of error>.
[[noreturn]] void failOn(std::string_view path, const char* action, int error);

// The target of the symbolic link with this name in the folder; sizeHint is the
// link's size as last seen. Throws CopyError.
std::string readLinkTarget(int folder, const std::string& name, off_t sizeHint, std::string_view path);

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = other.release();
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

}  // namespace whittle::copy
