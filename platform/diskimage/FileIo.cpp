#include "platform/diskimage/FileIo.hpp"

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/StopCleanup.hpp"
#include "support/Paths.hpp"

namespace whittle::diskimage {

void throwSystemError(const std::string& what, int errorNumber) {
    throw DiskImageError(what + ": " + std::strerror(errorNumber));
}

UniqueDescriptor openForReading(const std::string& path) {
    // Non-blocking, so that a named pipe in place of an image cannot stall the tool.
    UniqueDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) throwSystemError("cannot open \"" + path + "\"", errno);
    return fd;
}

struct stat statusOf(int fd, const std::string& pathForMessages) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) throwSystemError("cannot read the status of \"" + pathForMessages + "\"", errno);
    return status;
}

std::string readAt(int fd, std::uint64_t offset, std::size_t length, const std::string& pathForMessages) {
    std::string bytes(length, '\0');
    ssize_t got = readAllAt(fd, bytes.data(), length, offset);
    if (got < 0) throwSystemError("cannot read \"" + pathForMessages + "\"", errno);
    if (static_cast<std::size_t>(got) < length) throw DiskImageError("\"" + pathForMessages + "\" ends early (truncated?)");
    return bytes;
}

std::size_t readUpTo(int fd, char* buffer, std::size_t length) {
    std::size_t done = 0;
    while (done < length) {
        ssize_t got = ::read(fd, buffer + done, length - done);
        if (got < 0) {
            if (errno == EINTR) continue;
            throwSystemError("cannot read from a pipe", errno);
        }
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

void writeAll(int fd, std::string_view bytes, const std::string& pathForMessages) {
    if (!whittle::writeAll(fd, bytes)) throwSystemError("cannot write \"" + pathForMessages + "\"", errno);
}

void writeAllAt(int fd, std::string_view bytes, std::uint64_t offset, const std::string& pathForMessages) {
    if (!whittle::writeAllAt(fd, bytes, offset)) throwSystemError("cannot write \"" + pathForMessages + "\"", errno);
}

// ---- temporary files ----

TemporaryFile::TemporaryFile(const std::string& finalPath) : finalPath_(finalPath) {
    std::string pattern = parentFolderOf(finalPath) + "/." + lastPathComponent(finalPath) + ".XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    int fd = -1, error = 0;
    {
        StopSignalsBlocked blocked;  // no stop between creating the file and registering it
        fd = ::mkostemp(buffer.data(), O_CLOEXEC);
        error = errno;
        if (fd >= 0) removeOnStop(buffer.data());
    }
    if (fd < 0) throwSystemError("cannot create a file beside \"" + finalPath + "\"", error);
    fd_.reset(fd);
    path_ = buffer.data();
    // mkostemp makes it 0600; an image is an ordinary file.
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
}

TemporaryFile::~TemporaryFile() {
    if (!committed_) ::unlink(path_.c_str());
    keepOnStop(path_);
}

void TemporaryFile::commit() {
    if (::close(fd_.release()) != 0) throwSystemError("cannot write \"" + finalPath_ + "\"", errno);
    // Never over an existing file: one may have appeared since the work began.
    if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, finalPath_.c_str(), RENAME_NOREPLACE) != 0)
        throwSystemError("cannot create \"" + finalPath_ + "\"", errno);
    committed_ = true;
    keepOnStop(path_);
}

// ---- tree removal ----

namespace {

// Set when the walk met a folder it could not read: it was opened up, so walk again.
bool metUnreadableFolder = false;

int makeFolderWritable(const char* path, const struct stat* status, int type, struct FTW*) {
    if (type == FTW_DNR) {
        metUnreadableFolder = true;
        ::chmod(path, (status->st_mode & 07777) | S_IRWXU);
    } else if (type == FTW_D && (status->st_mode & S_IRWXU) != S_IRWXU) {
        ::chmod(path, (status->st_mode & 07777) | S_IRWXU);
    }
    return 0;
}

int removeEntry(const char* path, const struct stat*, int type, struct FTW*) {
    int result = (type == FTW_DP) ? ::rmdir(path) : ::unlink(path);
    return result == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace

bool removeTree(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT;
    if (!S_ISDIR(status.st_mode)) return ::unlink(path.c_str()) == 0;
    // First, parents before children: open every folder for writing.
    if ((status.st_mode & S_IRWXU) != S_IRWXU) ::chmod(path.c_str(), (status.st_mode & 07777) | S_IRWXU);
    constexpr int kMostWalks = 16;
    for (int walk = 0; walk < kMostWalks; ++walk) {
        metUnreadableFolder = false;
        ::nftw(path.c_str(), makeFolderWritable, 32, FTW_PHYS);
        if (!metUnreadableFolder) break;
    }
    return ::nftw(path.c_str(), removeEntry, 32, FTW_PHYS | FTW_DEPTH) == 0;
}

std::string canonicalPath(const std::string& path) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (!resolved) throwSystemError("cannot find \"" + path + "\"", errno);
    std::string result(resolved);
    std::free(resolved);
    return result;
}

}  // namespace whittle::diskimage
