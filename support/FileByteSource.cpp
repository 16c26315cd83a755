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
    UniqueDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        error = std::strerror(errno);
        return nullptr;
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        error = "not a regular file";
        return nullptr;
    }
    auto size = static_cast<std::uint64_t>(info.st_size);
    return std::unique_ptr<FileByteSource>(new FileByteSource(path, std::move(fd), size));
}

FileByteSource::FileByteSource(std::string path, UniqueDescriptor fd, std::uint64_t size)
    : path_(std::move(path)), fd_(std::move(fd)), size_(size) {}

bool FileByteSource::read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) {
    if (offset > size_ || length > size_ - offset) {
        error = "the range lies beyond the end of the file";
        return false;
    }
    out.resize(length);
    ssize_t got = readAllAt(fd_.get(), out.data(), length, offset);
    if (got < 0) {
        error = std::strerror(errno);
        return false;
    }
    bytesRead_ += static_cast<std::uint64_t>(got);
    if (static_cast<std::size_t>(got) < length) {
        // The file shrank after it was opened.
        error = "the file ends early";
        return false;
    }
    return true;
}

}  // namespace whittle
