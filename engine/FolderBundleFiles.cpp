#include "engine/FolderBundleFiles.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "support/Paths.hpp"
#include "support/FileSystem.hpp"

namespace whittle {

namespace {

constexpr int kResolveAttempts = 8;

int openat2Beneath(int rootFd, const std::string& path, int flags) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (int attempt = 0; attempt < kResolveAttempts; ++attempt) {
        long fd = ::syscall(SYS_openat2, rootFd, path.c_str(), &how, sizeof how);
        if (fd >= 0) return static_cast<int>(fd);
        // The kernel asks for a retry when a rename raced the lookup.
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
    return -1;
}

std::string pathOrDot(std::string_view relative) { return relative.empty() ? std::string(".") : std::string(relative); }

struct FolderEntry {
    std::string name;
    bool isFolder;
};

// The entries of an open folder with whether each is a real folder; closes the descriptor.
std::vector<FolderEntry> readFolder(int folderFd) {
    std::vector<FolderEntry> found;
    DIR* folder = ::fdopendir(folderFd);
    if (!folder) {
        ::close(folderFd);
        return found;
    }
    while (const dirent* entry = ::readdir(folder)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat info {};
        bool isFolder = ::fstatat(::dirfd(folder), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
        found.push_back({std::move(name), isFolder});
    }
    ::closedir(folder);
    std::sort(found.begin(), found.end(), [](const FolderEntry& a, const FolderEntry& b) { return a.name < b.name; });
    return found;
}

}  // namespace

FolderBundleFiles::FolderBundleFiles(std::string root) : BundleFiles(std::move(root)) {
    rootFd_ = ::open(this->root().empty() ? "." : this->root().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

FolderBundleFiles::~FolderBundleFiles() {
    if (rootFd_ >= 0) ::close(rootFd_);
}

int FolderBundleFiles::openBeneath(std::string_view relative, int flags, bool followLastLink) const {
    if (rootFd_ < 0) {
        errno = ENOENT;
        return -1;
    }
    int fd = openat2Beneath(rootFd_, pathOrDot(relative), flags | (followLastLink ? 0 : O_NOFOLLOW));
    if (fd < 0 && errno == EXDEV) {
        noteEscape(relative);
        errno = ENOENT;
    }
    return fd;
}

// The first step of the path whose resolution leaves the root: the link (or "..") to name.
std::string FolderBundleFiles::escapingStepOf(std::string_view relative) const {
    std::string prefix;
    for (const auto& step : pathSteps(relative)) {
        prefix = joinPath(prefix, step);
        int fd = openat2Beneath(rootFd_, prefix, O_PATH);
        if (fd >= 0) {
            ::close(fd);
        } else if (errno == EXDEV) {
            return prefix;
        }
    }
    return std::string(relative);
}

void FolderBundleFiles::noteEscape(std::string_view relative) const {
    int savedErrno = errno;
    std::string step = escapingStepOf(relative);
    noteEscapingLink(step);
    errno = savedErrno;
}

bool FolderBundleFiles::exists(std::string_view relative) const {
    int fd = openBeneath(relative, O_PATH, false);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

bool FolderBundleFiles::isFolder(std::string_view relative) const {
    int fd = openBeneath(relative, O_PATH, false);
    if (fd < 0) return false;
    struct stat info {};
    bool folder = ::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
    ::close(fd);
    return folder;
}

std::optional<std::string> FolderBundleFiles::linkTarget(std::string_view relative) const {
    std::string parent = deletingLastPathComponent(relative);
    std::string name = lastPathComponent(relative);
    int parentFd = openBeneath(parent, O_PATH | O_DIRECTORY, true);
    if (parentFd < 0) return std::nullopt;
    std::string target(4096, '\0');
    ssize_t length = ::readlinkat(parentFd, name.c_str(), target.data(), target.size());
    ::close(parentFd);
    if (length < 0 || static_cast<std::size_t>(length) >= target.size()) return std::nullopt;
    target.resize(static_cast<std::size_t>(length));
    // A link that leads outside is treated as if it were not there.
    int resolved = openat2Beneath(rootFd_, std::string(relative), O_PATH);
    if (resolved >= 0) {
        ::close(resolved);
    } else if (errno == EXDEV) {
        noteEscape(relative);
        return std::nullopt;
    }
    return target;
}

std::optional<std::string> FolderBundleFiles::readFile(std::string_view relative, int* error) const {
    auto fail = [error](int number) -> std::optional<std::string> {
        if (error) *error = number;
        return std::nullopt;
    };
    int pathFd = openBeneath(relative, O_PATH, true);
    if (pathFd < 0) return fail(errno);
    struct stat info {};
    if (::fstat(pathFd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(pathFd);
        return fail(0);
    }
    // Only a regular file is opened for reading: a pipe or a device in a file's place
    // is never opened at all.
    std::string reopen = "/proc/self/fd/" + std::to_string(pathFd);
    int fd = ::open(reopen.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    int openErrno = errno;
    ::close(pathFd);
    if (fd < 0) return fail(openErrno);
    errno = 0;
    auto bytes = readWholeDescriptor(fd);
    int readErrno = errno;
    ::close(fd);
    if (!bytes) return fail(readErrno);
    return bytes;
}

std::optional<struct timespec> FolderBundleFiles::modificationTime(std::string_view relative) const {
    int fd = openBeneath(relative, O_PATH, false);
    if (fd < 0) return std::nullopt;
    struct stat info {};
    bool known = ::fstat(fd, &info) == 0;
    ::close(fd);
    if (!known) return std::nullopt;
    return info.st_mtim;
}

std::vector<std::string> FolderBundleFiles::entries(std::string_view relativeFolder) const {
    std::vector<std::string> names;
    int fd = openBeneath(relativeFolder, O_RDONLY | O_DIRECTORY, true);
    if (fd < 0) return names;
    for (auto& entry : readFolder(fd)) names.push_back(std::move(entry.name));
    return names;
}

void FolderBundleFiles::listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const {
    int fd = openBeneath(relativeFolder, O_RDONLY | O_DIRECTORY, true);
    if (fd < 0) return;
    for (const auto& entry : readFolder(fd)) {
        std::string child = joinPath(relativeFolder, entry.name);
        out.push_back(child);
        if (entry.isFolder) listDeep(child, out);
    }
}

}  // namespace whittle
