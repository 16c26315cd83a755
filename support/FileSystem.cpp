#include "support/FileSystem.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "support/DescriptorIo.hpp"
#include "support/Paths.hpp"

namespace whittle {

namespace {

constexpr std::uint64_t kLargestReadableFile = 0xFFFFFFFFull;

}  // namespace

std::optional<std::string> readWholeFile(const std::string& path) {
    // Non-blocking open, so that a named pipe in place of a file cannot stall the run.
    UniqueDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) return std::nullopt;
    return readWholeDescriptor(fd.get());
}

std::optional<std::string> readWholeDescriptor(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if (static_cast<std::uint64_t>(info.st_size) > kLargestReadableFile) {
        errno = EFBIG;
        return std::nullopt;
    }

    // Read straight into a buffer of the file's size; a file that grows meanwhile is
    // read on to its end.
    std::string content(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t filled = 0;
    for (;;) {
        if (filled == content.size()) content.resize(content.size() + (1 << 16));
        ssize_t got = ::read(fd, content.data() + filled, content.size() - filled);
        if (got < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (got == 0) break;
        filled += static_cast<std::size_t>(got);
        if (filled > kLargestReadableFile) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
    content.resize(filled);
    return content;
}

namespace {
int firstStandardOutputError = 0;

void noteStandardOutputResult(bool written) {
    if (!written && firstStandardOutputError == 0) firstStandardOutputError = errno ? errno : EIO;
}
}  // namespace

void writeToStandardOutput(std::string_view text) {
    errno = 0;
    bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    noteStandardOutputResult(written && std::fflush(stdout) == 0);
}

int standardOutputError() {
    errno = 0;
    noteStandardOutputResult(std::fflush(stdout) == 0 && !std::ferror(stdout));
    return firstStandardOutputError;
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string& error) {
    std::string temporary = joinPath(parentFolderOf(path), "." + lastPathComponent(path) + ".XXXXXX");
    std::vector<char> templateBuffer(temporary.begin(), temporary.end());
    templateBuffer.push_back('\0');
    UniqueDescriptor fd(::mkstemp(templateBuffer.data()));
    if (fd.get() < 0) {
        error = std::strerror(errno);
        return false;
    }
    temporary.assign(templateBuffer.data());
    bool written = writeAll(fd.get(), bytes) && ::fchmod(fd.get(), 0644) == 0;
    int savedErrno = errno;
    bool closed = ::close(fd.release()) == 0;
    if (written && closed && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
    if (written && closed) savedErrno = errno;
    error = std::strerror(savedErrno);
    ::unlink(temporary.c_str());
    return false;
}

std::vector<std::string> namesInFolder(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* listing = ::opendir(folder.c_str())) {
        while (const dirent* entry = ::readdir(listing)) names.emplace_back(entry->d_name);
        ::closedir(listing);
    }
    return names;
}

}  // namespace whittle
