// An owned file descriptor, and writes that put a whole buffer out.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace whittle {

// Owns one open file descriptor and closes it when it goes, unless released first.
// -1 stands for none.
class UniqueDescriptor {
public:
    UniqueDescriptor() = default;
    explicit UniqueDescriptor(int fd) : fd_(fd) {}
    ~UniqueDescriptor() { reset(); }
    UniqueDescriptor(UniqueDescriptor&& other) noexcept : fd_(other.release()) {}
    UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept;
    UniqueDescriptor(const UniqueDescriptor&) = delete;
    UniqueDescriptor& operator=(const UniqueDescriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives up ownership without closing: the caller closes it (to see close's result).
    int release();
    // Closes the descriptor held, if any, and takes fd in its place; errno is kept, so
    // that the reason of a failure survives the clean-up after it.
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// Writes every byte to the descriptor, going on after short writes and interruptions.
// False with errno set when a write fails.
bool writeAll(int fd, std::string_view bytes);
// The same at a file offset (pwrite), leaving the descriptor's own offset alone.
bool writeAllAt(int fd, std::string_view bytes, std::uint64_t offset);
// Reads length bytes at a file offset (pread), going on after short reads and
// interruptions. Answers how many were read, fewer only when the file ends first;
// -1 with errno set when a read fails.
ssize_t readAllAt(int fd, char* buffer, std::size_t length, std::uint64_t offset);

}  // namespace whittle
