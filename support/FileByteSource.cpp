#include "support/FileByteSource.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace whittle {

std::unique_ptr<FileByteSource> FileByteSource::open(const std::string& path, std::string& error) {
    // Not blocking: a pipe in the file's place must not make the open wait for a writer.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        error = std::strerror(errno);
        return nullptr;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = "not a regular file";
        ::close(fd);
        return nullptr;
    }
    return std::unique_ptr<FileByteSource>(new FileByteSource(path, fd, static_cast<std::uint64_t>(info.st_size)));
}

FileByteSource::FileByteSource(std::string path, int fd, std::uint64_t size)
    : path_(std::move(path)), fd_(fd), size_(size) {}

FileByteSource::~FileByteSource() { ::close(fd_); }

bool FileByteSource::read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) {
    if (offset > size_ || length > size_ - offset) {
        error = "the range lies beyond the end of the file";
        return false;
    }
    out.resize(length);
    std::size_t done = 0;
    while (done < length) {
        ssize_t got = ::pread(fd_, out.data() + done, length - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            error = std::strerror(errno);
            return false;
        }
        if (got == 0) {
            // The file shrank after it was opened.
            error = "the file ends early";
            return false;
        }
        done += static_cast<std::size_t>(got);
        bytesRead_ += static_cast<std::uint64_t>(got);
    }
    return true;
}

}  // namespace whittle
