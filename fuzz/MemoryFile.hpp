// The fuzz input as an anonymous in-memory file, for readers that take a descriptor.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace whittle::fuzz {

class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : fd_(::memfd_create("fuzz-input", 0)) {
        if (fd_ < 0) std::abort();
        std::size_t written = 0;
        while (written < size) {
            ssize_t n = ::write(fd_, data + written, size - written);
            if (n <= 0) std::abort();
            written += static_cast<std::size_t>(n);
        }
    }
    ~MemoryFile() { ::close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int fd() const { return fd_; }

private:
    int fd_;
};

}  // namespace whittle::fuzz
