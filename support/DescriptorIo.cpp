#include "support/DescriptorIo.hpp"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace whittle {

UniqueDescriptor& UniqueDescriptor::operator=(UniqueDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
}

int UniqueDescriptor::release() { return std::exchange(fd_, -1); }

void UniqueDescriptor::reset(int fd) {
    if (fd_ >= 0) {
        int savedErrno = errno;
        ::close(fd_);
        errno = savedErrno;
    }
    fd_ = fd;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool writeAllAt(int fd, std::string_view bytes, std::uint64_t offset) {
    while (!bytes.empty()) {
        ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    return true;
}

ssize_t readAllAt(int fd, char* buffer, std::size_t length, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < length) {
        ssize_t got = ::pread(fd, buffer + done, length - done, static_cast<off_t>(offset + done));
        if (got < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

}  // namespace whittle
