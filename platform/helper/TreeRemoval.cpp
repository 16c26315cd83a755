#include "platform/helper/TreeRemoval.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace whittle::helper {

namespace {

// Deeper trees are left to the caller's error report rather than risk the stack
// (this may run on a signal handler's stack).
constexpr int kDeepestFolder = 200;
constexpr int kMostRescans = 8;
constexpr std::size_t kEntryBufferSize = 2048;

// The layout the getdents64 system call fills in.
struct DirectoryEntry64 {
    std::uint64_t inode;
    std::int64_t nextOffset;
    unsigned short recordLength;
    unsigned char type;
    char name[1];
};

bool isDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

int keepFirstError(int first, int next) { return first != 0 ? first : next; }

int openFolderForRemoval(int parentFd, const char* name) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = ::openat(parentFd, name, kFlags);
    if (fd < 0 && errno == EACCES) {
        // A folder copied without owner read access: open it up, then try again.
        ::fchmodat(parentFd, name, S_IRWXU, 0);
        fd = ::openat(parentFd, name, kFlags);
    }
    return fd;
}

int removeTreeAt(int parentFd, const char* name, int depth);

// Removes every entry of an open folder; answers the first error.
int emptyFolder(int folderFd, int depth) {
    alignas(DirectoryEntry64) char buffer[kEntryBufferSize];
    int firstError = 0;
    for (;;) {
        long got = ::syscall(SYS_getdents64, folderFd, buffer, sizeof buffer);
        if (got < 0) return keepFirstError(firstError, errno);
        if (got == 0) return firstError;
        for (long at = 0; at < got;) {
            auto* entry = reinterpret_cast<DirectoryEntry64*>(buffer + at);
            at += entry->recordLength;
            if (isDotOrDotDot(entry->name)) continue;
            firstError = keepFirstError(firstError, removeTreeAt(folderFd, entry->name, depth + 1));
        }
    }
}

int removeFolderAt(int parentFd, const char* name, int depth) {
    if (depth > kDeepestFolder) return ENAMETOOLONG;
    int folderFd = openFolderForRemoval(parentFd, name);
    if (folderFd < 0) return errno == ENOENT ? 0 : errno;
    struct stat status {};
    if (::fstat(folderFd, &status) == 0 && (status.st_mode & S_IRWXU) != S_IRWXU)
        ::fchmod(folderFd, (status.st_mode & 07777) | S_IRWXU);
    int error = 0;
    for (int scan = 0; scan < kMostRescans; ++scan) {
        error = emptyFolder(folderFd, depth);
        if (::unlinkat(parentFd, name, AT_REMOVEDIR) == 0 || errno == ENOENT) {
            error = 0;
            break;
        }
        if (errno != ENOTEMPTY && errno != EEXIST) {
            error = keepFirstError(error, errno);
            break;
        }
        // Entries removed while the folder was being read can hide others: read again.
        ::lseek(folderFd, 0, SEEK_SET);
        error = keepFirstError(error, ENOTEMPTY);
    }
    ::close(folderFd);
    return error;
}

int removeTreeAt(int parentFd, const char* name, int depth) {
    if (::unlinkat(parentFd, name, 0) == 0 || errno == ENOENT) return 0;
    if (errno != EISDIR) return errno;
    return removeFolderAt(parentFd, name, depth);
}

}  // namespace

int removeEntryAt(int parentFd, const char* name) { return removeTreeAt(parentFd, name, 0); }

int openFolderBelow(int anchorFd, const char* relativePath) {
    int current = ::fcntl(anchorFd, F_DUPFD_CLOEXEC, 0);
    char component[NAME_MAX + 1];
    const char* rest = relativePath;
    while (current >= 0 && *rest != '\0') {
        const char* slash = std::strchr(rest, '/');
        std::size_t length = slash ? static_cast<std::size_t>(slash - rest) : std::strlen(rest);
        if (length > NAME_MAX) {
            ::close(current);
            errno = ENAMETOOLONG;
            return -1;
        }
        if (length > 0) {
            std::memcpy(component, rest, length);
            component[length] = '\0';
            int next = ::openat(current, component, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            int error = errno;
            ::close(current);
            current = next;
            errno = error;
        }
        rest += length + (slash ? 1 : 0);
    }
    return current;
}

}  // namespace whittle::helper
