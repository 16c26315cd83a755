#include "platform/copy/FolderCopy.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "platform/helper/StopCleanup.hpp"

namespace whittle::copy {

namespace {

// Large enough to cost nothing, small enough that a stop signal is handled promptly
// (the kernel finishes a step before the signal handler runs).
constexpr std::size_t kCopyRangeChunk = std::size_t{64} << 20;
constexpr std::size_t kReadWriteBuffer = std::size_t{1} << 20;

// Permission bits to give a copy. Without the source's owner, set-id bits would
// grant the wrong user's rights, so they are dropped then.
mode_t permissionsFor(const struct stat& source) {
    static const uid_t effectiveUser = ::geteuid();
    mode_t permissions = source.st_mode & 07777;
    if (!S_ISDIR(source.st_mode) && source.st_uid != effectiveUser) permissions &= ~mode_t{S_ISUID | S_ISGID};
    return permissions;
}

// "./a/b" -> "a/b".
std::string relativePathOf(std::string_view planPath) {
    return std::string(planPath.starts_with("./") ? planPath.substr(2) : planPath);
}

class FolderCopier {
public:
    FolderCopier(int sourceRoot, Destination& destination, std::FILE* verboseOut, helper::ProgressReporter& progress)
        : sourceRoot_(sourceRoot), destination_(destination), verboseOut_(verboseOut), progress_(progress) {}

    void copy(const std::vector<PlannedItem>& plan) {
        CopyTotals totals = totalsOf(plan);
        progress_.begin("copying", totals.files, totals.bytes);
        PlanPath planPath;
        for (const PlannedItem& item : plan) {
            std::string_view path = planPath.enter(item);
            finishFoldersDeeperThan(item.depth);
            copyItem(item, path);
            if (countsAsFile(item)) progress_.advance(1, 0);
            if (verboseOut_) list(path);
        }
        finishFoldersDeeperThan(0);
        progress_.end();
    }

private:
    // Each line goes out at once, so that a caller echoing the listing shows it live.
    void list(std::string_view path) {
        std::fwrite(path.data(), 1, path.size(), verboseOut_);
        std::fputc('\n', verboseOut_);
        std::fflush(verboseOut_);
    }

    struct OpenFolder {
        UniqueDescriptor source;  // open only when the BOM lists contents inside it
        UniqueDescriptor destination;
        const PlannedItem* item = nullptr;
        std::string path;
        bool madeByThisCopy = false;  // then so is everything made inside it
    };

    // Runs create(), which makes one new entry in the destination folder and answers a
    // negative number on failure. What it makes in a folder that existed before is
    // registered for removal in the same step, as far as a stop is concerned.
    template <typename Create>
    int createOwned(std::string_view path, Create create) {
        if (openFolders_.back().madeByThisCopy) return create();
        helper::StopSignalsBlocked blocked;
        int result = create();
        if (result >= 0) {
            int error = errno;
            helper::removeOnStopBelow(destination_.fd(), relativePathOf(path));
            errno = error;
        }
        return result;
    }

    [[noreturn]] void failInDestination(std::string_view path, const char* action, int error) const {
        failOn(destination_.pathOf(path), action, error);
    }

    void copyItem(const PlannedItem& item, std::string_view path) {
        if (item.depth == 0) {
            openRoot(item);
            return;
        }
        int sourceParent = openFolders_.back().source.get();
        int destinationParent = openFolders_.back().destination.get();
        std::string name(item.name);
        mode_t type = item.source.st_mode & S_IFMT;
        switch (type) {
            case S_IFDIR: {
                OpenFolder folder = makeFolder(item, sourceParent, destinationParent, name, path);
                openFolders_.push_back(std::move(folder));
                break;
            }
            case S_IFREG:
                copyFile(item, sourceParent, destinationParent, name, path);
                break;
            case S_IFLNK:
                copyLink(item, sourceParent, destinationParent, name, path);
                break;
            case S_IFIFO:
            case S_IFCHR:
            case S_IFBLK:
                makeSpecialFile(item, destinationParent, name, path);
                break;
            default:
                throw CopyError("cannot copy \"" + std::string(path) + "\": sockets cannot be copied");
        }
    }

    void openRoot(const PlannedItem& item) {
        OpenFolder root;
        root.source = UniqueDescriptor(::fcntl(sourceRoot_, F_DUPFD_CLOEXEC, 0));
        root.destination = UniqueDescriptor(::fcntl(destination_.fd(), F_DUPFD_CLOEXEC, 0));
        if (!root.source.valid() || !root.destination.valid()) failOn(".", "open", errno);
        root.item = &item;
        root.path = ".";
        root.madeByThisCopy = destination_.madeByThisCopy();
        openFolders_.push_back(std::move(root));
    }

    // ---- folders

    OpenFolder makeFolder(const PlannedItem& item, int sourceParent, int destinationParent, const std::string& name,
                          std::string_view path) {
        // Owner access until its contents are in; the real mode comes when it is finished.
        bool existed = false;
        if (createOwned(path, [&] { return ::mkdirat(destinationParent, name.c_str(), 0700); }) != 0) {
            if (errno != EEXIST) failInDestination(path, "create folder", errno);
            existed = true;
        }
        OpenFolder folder;
        folder.madeByThisCopy = !existed || openFolders_.back().madeByThisCopy;
        folder.destination =
            UniqueDescriptor(::openat(destinationParent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder.destination.valid()) {
            if (errno == ELOOP || errno == ENOTDIR)
                throw CopyError("refusing to write into \"" + std::string(path) +
                                "\": in the destination it is a symbolic link or not a folder");
            failInDestination(path, "open destination folder", errno);
        }
        if (existed) makeWritable(folder.destination.get(), path);
        if (item.hasChildren) {
            folder.source =
                UniqueDescriptor(::openat(sourceParent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!folder.source.valid()) failOn(path, "open source folder", errno);
        }
        folder.item = &item;
        folder.path = path;
        return folder;
    }

    void makeWritable(int folder, std::string_view path) const {
        struct stat info {};
        if (::fstat(folder, &info) != 0) failInDestination(path, "examine destination folder", errno);
        if ((info.st_mode & 0700) != 0700 && ::fchmod(folder, (info.st_mode & 07777) | 0700) != 0)
            failInDestination(path, "change mode of destination folder", errno);
    }

    // A folder's mode and times are set once its contents are in, as adding them
    // changes its modification time and might need the write access it may lack.
    void finishFoldersDeeperThan(std::size_t depth) {
        while (openFolders_.size() > depth) {
            OpenFolder& folder = openFolders_.back();
            const struct stat& source = folder.item->source;
            int destination = folder.destination.get();
            if (::fchmod(destination, permissionsFor(source)) != 0)
                failInDestination(folder.path, "set the mode of", errno);
            struct timespec times[2] = {source.st_atim, source.st_mtim};
            if (::futimens(destination, times) != 0) failInDestination(folder.path, "set the times of", errno);
            openFolders_.pop_back();
        }
    }

    // ---- files

    void copyFile(const PlannedItem& item, int sourceParent, int destinationParent, const std::string& name,
                  std::string_view path) {
        // Non-blocking, so that a named pipe swapped in since the plan cannot stall us.
        UniqueDescriptor source(::openat(sourceParent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!source.valid()) failOn(path, "open", errno);
        mode_t permissions = permissionsFor(item.source);
        UniqueDescriptor destination(replaceWith(destinationParent, name, path, [&] {
            return ::openat(destinationParent, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            permissions & 0777);
        }));
        copyData(source.get(), destination.get(), item.source.st_size, path);
        // Creation may not set the special bits, so they are set apart.
        if ((permissions & 07000) != 0 && ::fchmod(destination.get(), permissions) != 0)
            failInDestination(path, "set the mode of", errno);
        struct timespec times[2] = {item.source.st_atim, item.source.st_mtim};
        if (::futimens(destination.get(), times) != 0) failInDestination(path, "set the times of", errno);
        if (::close(destination.release()) != 0) failInDestination(path, "write", errno);
    }

    void copyData(int from, int to, off_t expectedSize, std::string_view path) {
        if (copyRangeWorks_ && copyWithCopyRange(from, to, expectedSize, path)) return;
        copyWithReadWrite(from, to, path);
    }

    // True when done; false when the kernel declines and plain reads and writes
    // should finish the job from where it stopped.
    bool copyWithCopyRange(int from, int to, off_t expectedSize, std::string_view path) {
        off_t copied = 0;
        for (;;) {
            ssize_t moved = ::copy_file_range(from, nullptr, to, nullptr, kCopyRangeChunk, 0);
            if (moved > 0) {
                copied += moved;
                progress_.advance(0, static_cast<std::uint64_t>(moved));
                continue;
            }
            // Some file systems report nothing to copy for files that do have data.
            if (moved == 0) return copied > 0 || expectedSize == 0;
            if (errno == EINTR) continue;
            if (errno == ENOSYS) copyRangeWorks_ = false;
            if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) return false;
            throw CopyError("cannot copy \"" + std::string(path) + "\" to \"" + destination_.pathOf(path) +
                            "\": " + systemMessage(errno));
        }
    }

    void copyWithReadWrite(int from, int to, std::string_view path) {
        if (!buffer_) buffer_ = std::make_unique<char[]>(kReadWriteBuffer);
        for (;;) {
            ssize_t got = ::read(from, buffer_.get(), kReadWriteBuffer);
            if (got == 0) return;
            if (got < 0) {
                if (errno == EINTR) continue;
                failOn(path, "read", errno);
            }
            if (!writeAll(to, std::string_view(buffer_.get(), static_cast<std::size_t>(got))))
                failInDestination(path, "write", errno);
            progress_.advance(0, static_cast<std::uint64_t>(got));
        }
    }

    // ---- links and special files

    void copyLink(const PlannedItem& item, int sourceParent, int destinationParent, const std::string& name,
                  std::string_view path) {
        std::string target = readLinkTarget(sourceParent, name, item.source.st_size, path);
        replaceWith(destinationParent, name, path,
                    [&] { return ::symlinkat(target.c_str(), destinationParent, name.c_str()); });
        setTimesOfEntry(item, destinationParent, name, path);
    }

    void makeSpecialFile(const PlannedItem& item, int destinationParent, const std::string& name,
                         std::string_view path) {
        mode_t mode = (item.source.st_mode & S_IFMT) | permissionsFor(item.source);
        replaceWith(destinationParent, name, path,
                    [&] { return ::mknodat(destinationParent, name.c_str(), mode, item.source.st_rdev); });
        setTimesOfEntry(item, destinationParent, name, path);
    }

    void setTimesOfEntry(const PlannedItem& item, int folder, const std::string& name, std::string_view path) const {
        struct timespec times[2] = {item.source.st_atim, item.source.st_mtim};
        if (::utimensat(folder, name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
            failInDestination(path, "set the times of", errno);
    }

    // Runs create(), which makes a new entry in the folder and fails with EEXIST if
    // the name is taken; a file or link in the way is removed once and create()
    // retried. Returns create()'s non-negative result.
    template <typename Create>
    int replaceWith(int folder, const std::string& name, std::string_view path, Create create) {
        for (int attempt = 0;; ++attempt) {
            int result = createOwned(path, create);
            if (result >= 0) return result;
            if (errno != EEXIST || attempt > 0) failInDestination(path, "create", errno);
            if (::unlinkat(folder, name.c_str(), 0) != 0) {
                if (errno == EISDIR)
                    throw CopyError("cannot replace \"" + destination_.pathOf(path) +
                                    "\": it is a folder in the destination");
                failInDestination(path, "replace", errno);
            }
        }
    }

    int sourceRoot_;
    Destination& destination_;
    std::FILE* verboseOut_;
    helper::ProgressReporter& progress_;
    std::vector<OpenFolder> openFolders_;
    std::unique_ptr<char[]> buffer_;
    bool copyRangeWorks_ = true;
};

}  // namespace

Destination::Destination(const std::string& path, mode_t newFolderMode) : path_(path) {
    if (path.empty()) throw CopyError("the destination path is empty");
    // Like "mkdir -p"; the first error on the way is the one worth reporting.
    int firstError = 0;
    auto makeFolder = [&](const std::string& folder) {
        helper::StopSignalsBlocked blocked;  // no stop between making it and registering it
        if (::mkdir(folder.c_str(), newFolderMode) == 0) {
            if (outermostMadeFolder_.empty()) {
                outermostMadeFolder_ = folder;
                helper::removeOnStop(folder);
            }
        } else if (errno != EEXIST && firstError == 0) {
            firstError = errno;
        }
    };
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        makeFolder(path.substr(0, slash));
    makeFolder(path);
    folder_ = UniqueDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder_.valid()) {
        int error = errno == ENOENT && firstError != 0 ? firstError : errno;
        if (madeByThisCopy()) helper::removeNow(outermostMadeFolder_);
        failOn(path, "create destination folder", error);
    }
}

Destination::~Destination() {
    if (kept_) return;
    if (madeByThisCopy()) {
        helper::removeNow(outermostMadeFolder_);
    } else if (folder_.valid()) {
        helper::removeEverythingBelowNow(folder_.get());
    }
}

std::string Destination::pathOf(std::string_view planPath) const {
    if (planPath == ".") return path_;
    return path_ + (path_.ends_with('/') ? "" : "/") + relativePathOf(planPath);
}

void Destination::keep() {
    kept_ = true;
    if (madeByThisCopy()) {
        helper::keepOnStop(outermostMadeFolder_);
    } else {
        helper::keepEverythingBelow(folder_.get());
    }
}

void copyIntoFolder(const std::vector<PlannedItem>& plan, int sourceRoot, Destination& destination,
                    std::FILE* verboseOut, helper::ProgressReporter& progress) {
    FolderCopier(sourceRoot, destination, verboseOut, progress).copy(plan);
}

}  // namespace whittle::copy
