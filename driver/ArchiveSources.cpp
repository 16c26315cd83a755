#include "driver/ArchiveSources.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <numeric>
#include <set>
#include <vector>

#include "driver/Interrupts.hpp"
#include "support/DescriptorIo.hpp"
#include "support/FileByteSource.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/HttpByteSource.hpp"
#include "support/LogObject.hpp"
#include "support/Paths.hpp"
#include "support/ZipRawWriter.hpp"

namespace whittle {

namespace {

constexpr std::string_view kZipSignatures[] = {std::string_view("PK\x03\x04", 4), std::string_view("PK\x05\x06", 4)};

bool startsLikeZip(const std::string& path) {
    UniqueDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) return false;
    char head[4];
    ssize_t got = ::pread(fd.get(), head, sizeof head, 0);
    if (got != static_cast<ssize_t>(sizeof head)) return false;
    std::string_view start(head, sizeof head);
    return std::any_of(std::begin(kZipSignatures), std::end(kZipSignatures), [&](auto s) { return s == start; });
}

// The folder at `relative` below the root descriptor, made (with any missing folder
// above it) when missing; no step may be a link. None with errno set when it cannot be.
UniqueDescriptor openOrMakeFolderBeneath(int rootFd, const std::string& relative) {
    UniqueDescriptor current(::fcntl(rootFd, F_DUPFD_CLOEXEC, 0));
    for (const auto& step : pathSteps(relative)) {
        if (!current.valid()) break;
        if (::mkdirat(current.get(), step.c_str(), 0755) != 0 && errno != EEXIST) return {};
        current.reset(::openat(current.get(), step.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return current;
}

std::uint32_t permissionsOf(const ZipEntry* entry, std::uint32_t fallback) {
    std::uint32_t permissions = entry && entry->unixMode ? entry->unixMode & 07777 : fallback;
    return permissions;
}

class Extraction {
public:
    Extraction(const ZipBundleFiles& files, int rootFd) : files_(files), rootFd_(rootFd) {}

    bool extract(const std::string& path) {
        if (made_.contains(path)) return true;
        auto item = files_.itemAt(path);
        if (!item) return fail(path, "it is not in the archive");
        std::string parent = deletingLastPathComponent(path);
        if (!extractParentFolder(parent)) return false;
        std::string name = lastPathComponent(path);
        UniqueDescriptor parentFolder = openOrMakeFolderBeneath(rootFd_, parent);
        if (!parentFolder.valid()) return fail(path, std::strerror(errno));
        switch (item->kind) {
            case ZipBundleFiles::ItemKind::Folder: return makeFolder(parentFolder.get(), path, name, item->entry);
            case ZipBundleFiles::ItemKind::Link: return makeLink(parentFolder.get(), path, name, *item->entry);
            case ZipBundleFiles::ItemKind::File: return writeFile(parentFolder.get(), path, name, *item->entry);
        }
        return false;
    }

    // Folders take their times last, once nothing more is written into them.
    void settleFolderTimes() {
        for (auto folder = folders_.rbegin(); folder != folders_.rend(); ++folder) {
            auto when = files_.modificationTime(*folder);
            if (!when) continue;
            struct timespec times[2] = {*when, *when};
            ::utimensat(rootFd_, folder->c_str(), times, AT_SYMLINK_NOFOLLOW);
        }
    }

    const std::string& failure() const { return failure_; }

private:
    bool fail(const std::string& path, const std::string& reason) {
        failure_ = format("\"%@\" cannot be written - %@", path, reason);
        return false;
    }

    // A folder above a kept path that the kept paths do not name themselves still takes
    // its mode and time from the archive, as a folder source's copy gives it.
    bool extractParentFolder(const std::string& parent) {
        if (parent.empty() || made_.contains(parent)) return true;
        auto item = files_.itemAt(parent);
        if (!item || item->kind != ZipBundleFiles::ItemKind::Folder) return true;
        return extract(parent);
    }

    bool makeFolder(int parentFd, const std::string& path, const std::string& name, const ZipEntry* entry) {
        if (::mkdirat(parentFd, name.c_str(), 0700) != 0 && errno != EEXIST) return fail(path, std::strerror(errno));
        struct stat info {};
        if (::fstatat(parentFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(info.st_mode)) {
            return fail(path, "something else stands in its place");
        }
        ::fchmodat(parentFd, name.c_str(), permissionsOf(entry, 0755) | 0700, 0);
        folders_.push_back(path);
        made_.insert(path);
        return true;
    }

    // The link is written with its text as the archive holds it, wherever it leads, as
    // the copy of a folder source writes its links; it is never followed here.
    bool makeLink(int parentFd, const std::string& path, const std::string& name, const ZipEntry& entry) {
        std::string target;
        std::string error;
        if (!files_.archive().readEntry(entry, target, error, ZipArchive::kMaxLinkLength)) return fail(path, error);
        if (::symlinkat(target.c_str(), parentFd, name.c_str()) != 0) return fail(path, std::strerror(errno));
        if (auto when = files_.modificationTime(path)) {
            struct timespec times[2] = {*when, *when};
            ::utimensat(parentFd, name.c_str(), times, AT_SYMLINK_NOFOLLOW);
        }
        return true;
    }

    bool writeFile(int parentFd, const std::string& path, const std::string& name, const ZipEntry& entry) {
        int fd = ::openat(parentFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) return fail(path, std::strerror(errno));
        UniqueDescriptor file(fd);
        std::string error;
        std::string writeError;
        bool streamed = files_.archive().streamEntry(entry, [&](std::string_view piece) {
            if (interrupted()) return false;
            if (writeAll(fd, piece)) return true;
            writeError = std::strerror(errno);
            return false;
        }, error);
        if (!streamed) return fail(path, error.empty() ? writeError : error);
        ::fchmod(fd, permissionsOf(&entry, 0644) | 0600);
        struct timespec times[2] = {entry.modified, entry.modified};
        ::futimens(fd, times);
        return true;
    }

    const ZipBundleFiles& files_;
    int rootFd_;
    std::vector<std::string> folders_;
    std::set<std::string> made_;
    std::string failure_;
};

// The stretches of the archive the kept entries occupy, headers included, so that a
// far archive can be read in few requests.
std::vector<ByteRange> rangesOfKeptEntries(const ZipBundleFiles& files, const Value& keptPaths) {
    std::vector<ByteRange> ranges;
    for (const auto& path : keptPaths.elements()) {
        auto item = files.itemAt(path.text());
        if (!item || !item->entry || item->kind == ZipBundleFiles::ItemKind::Folder) continue;
        const ZipEntry& entry = *item->entry;
        ranges.push_back({entry.localHeaderOffset, entry.extentLimit - entry.localHeaderOffset});
    }
    std::sort(ranges.begin(), ranges.end(), [](const ByteRange& a, const ByteRange& b) { return a.offset < b.offset; });
    return ranges;
}

// The kept paths in the order their entries lie in the archive (paths without an entry
// of their own first), so that the archive is read front to back: a far source then
// serves each entry from what it fetched ahead instead of fetching it again.
std::vector<std::string> inArchiveOrder(const ZipBundleFiles& files, const Value& keptPaths) {
    std::vector<std::pair<std::uint64_t, std::string>> placed;
    for (const auto& path : keptPaths.elements()) {
        auto item = files.itemAt(path.text());
        placed.emplace_back(item && item->entry ? item->entry->localHeaderOffset + 1 : 0, std::string(path.text()));
    }
    std::stable_sort(placed.begin(), placed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> paths;
    for (auto& [offset, path] : placed) paths.push_back(std::move(path));
    return paths;
}

std::uint64_t totalLength(const std::vector<ByteRange>& ranges) {
    return std::accumulate(ranges.begin(), ranges.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const ByteRange& range) { return sum + range.length; });
}

// Announces the kept entries' stretches to the source, and their writing to the progress.
void announceKeptEntries(const ZipBundleFiles& files, const Value& keptPaths, FetchProgress* progress) {
    auto ranges = rangesOfKeptEntries(files, keptPaths);
    files.archive().source().willRead(ranges);
    if (progress) progress->beginKeptEntries(keptPaths.count(), totalLength(ranges));
}

// Why writing the kept entries stopped: the archive that could not be read any more
// (an error of its own), or what went wrong with the entry or the writing.
void explainWriteFailure(const ZipBundleFiles& files, const std::string& failure) {
    std::string sourceFailure = files.archive().source().lastFailure();
    if (sourceFailure.empty()) {
        Log("!!! NOTE: %@.", failure);
    } else {
        Log("XXX ERROR: %@.", sourceFailure);
    }
}

}  // namespace

FetchProgress::FetchProgress(ProgressLine::Sink sink, std::size_t width, ProgressLine::Clock clock)
    : line_(std::move(sink), width, std::move(clock)) {}

FetchProgress::~FetchProgress() {
    if (source_) {
        source_->onFetched({});
        source_->onRequest({});
    }
    line_.end();
}

void FetchProgress::follow(HttpByteSource& source) {
    source_ = &source;
    fetched_ = source.bytesFetched();
    source.onFetched([this](std::uint64_t fetchedSoFar, std::uint64_t) { fetched(fetchedSoFar); });
    source.onRequest([this](const HttpRequestRecord&) { requestEnded(); });
}

void FetchProgress::fetched(std::uint64_t fetchedSoFar) {
    fetched_ = fetchedSoFar;
    if (ended_) return;
    if (!line_.underWay()) line_.begin(std::string(kStep), 0, 0);
    line_.update(pathsWritten_, fetched_ - fetchedBeforeStep_);
}

void FetchProgress::requestEnded() { line_.erase(); }

void FetchProgress::beginKeptEntries(std::uint64_t paths, std::uint64_t bytes) {
    if (ended_) return;
    fetchedBeforeStep_ = fetched_;
    pathsWritten_ = 0;
    line_.begin(std::string(kStep), paths, bytes);
}

void FetchProgress::keptPathWritten() {
    if (ended_) return;
    line_.update(++pathsWritten_, fetched_ - fetchedBeforeStep_);
}

void FetchProgress::end() {
    line_.end();
    ended_ = true;
}

std::unique_ptr<FetchProgress> fetchProgressOnTerminal(const ZipBundleFiles& files) {
    auto* remote = dynamic_cast<HttpByteSource*>(&files.archive().source());
    if (!remote || ::isatty(STDERR_FILENO) != 1) return nullptr;
    auto progress = std::make_unique<FetchProgress>(writeToStandardError, terminalColumns(STDERR_FILENO));
    progress->follow(*remote);
    return progress;
}

void noteBytesFetched(const ZipBundleFiles& files) {
    if (!isRemoteSource(files.archive().name())) return;
    Log(">>> NOTE: fetched %llu bytes of \"%@\".", static_cast<unsigned long long>(files.archive().source().bytesFetched()),
        files.archive().name());
}

std::optional<std::string> UnreadableBundleFiles::readFile(std::string_view, int* error) const {
    if (error) *error = ENOENT;
    return std::nullopt;
}

bool isRemoteSource(const std::string& source) {
    return hasPrefix(source, "http://", kCaseInsensitiveSearch) || hasPrefix(source, "https://", kCaseInsensitiveSearch);
}

bool isArchiveSource(const std::string& source) {
    if (isRemoteSource(source)) return true;
    if (equalsIgnoringCase(pathExtension(source), "dmg")) return false;
    struct stat info {};
    return ::stat(source.c_str(), &info) == 0 && S_ISREG(info.st_mode) && startsLikeZip(source);
}

std::shared_ptr<ZipBundleFiles> openArchiveBundle(const std::string& source) {
    std::string error;
    std::shared_ptr<ByteSource> bytes;
    if (isRemoteSource(source)) {
        HttpLimits limits;
        limits.stallTimeout = std::chrono::seconds(WHITTLE_HTTP_STALL_SECONDS);
        bytes = HttpByteSource::open(source, error, limits);
    } else {
        bytes = FileByteSource::open(source, error);
    }
    if (!bytes && !isRemoteSource(source)) error = format("unable to read \"%@\" - %@", source, error);
    std::shared_ptr<const ZipArchive> archive = bytes ? ZipArchive::open(bytes, error) : nullptr;
    if (!archive) {
        // A refused archive's reason is a whole sentence already.
        Log("XXX ERROR: %@%@", error, error.ends_with('.') ? "" : ".");
        return nullptr;
    }
    return std::make_shared<ZipBundleFiles>(archive);
}

int extractKeptPaths(const ZipBundleFiles& files, const Value& keptPaths, const std::string& destination,
                     FetchProgress* progress) {
    ::mkdir(destination.c_str(), 0755);
    UniqueDescriptor root(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    Extraction extraction(files, root.get());
    bool done = root.valid();
    if (done) announceKeptEntries(files, keptPaths, progress);
    for (const auto& path : inArchiveOrder(files, keptPaths)) {
        if (!done || interrupted()) break;
        done = extraction.extract(path);
        if (done && progress) progress->keptPathWritten();
    }
    if (progress) progress->end();
    if (interrupted()) return 128 + stopSignal();
    if (!done) {
        Log("XXX ERROR: copying manifest to target failed.");
        if (!root.valid()) {
            Log("!!! NOTE: \"%@\" cannot be opened - %@.", destination, std::string(std::strerror(errno)));
        } else {
            explainWriteFailure(files, extraction.failure());
        }
        return 1;
    }
    extraction.settleFolderTimes();
    return 0;
}

int copyKeptEntries(const ZipBundleFiles& files, const Value& keptPaths, const std::string& zipPath,
                    FetchProgress* progress) {
    int fd = ::open(zipPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    std::string error = fd < 0 ? format("\"%@\" cannot be made - %@", zipPath, std::string(std::strerror(errno))) : "";
    UniqueDescriptor output(fd);
    ZipRawWriter writer(fd);
    if (fd >= 0) announceKeptEntries(files, keptPaths, progress);
    std::set<std::string> foldersAdded;
    auto addFolder = [&](const std::string& name, const ZipEntry* entry) {
        if (!foldersAdded.insert(name).second) return;
        auto when = files.modificationTime(name).value_or(timespec{0, 0});
        writer.addFolder(name + "/", entry ? entry->unixMode : 0, when, error);
    };
    // Every folder above a kept path has its entry, as in an archive of a folder source.
    auto addParentFolders = [&](const std::string& name) {
        std::vector<std::string> parents;
        for (std::string parent = deletingLastPathComponent(name); !parent.empty() && !foldersAdded.contains(parent);
             parent = deletingLastPathComponent(parent)) {
            parents.push_back(parent);
        }
        for (auto parent = parents.rbegin(); parent != parents.rend() && error.empty(); ++parent) {
            auto item = files.itemAt(*parent);
            if (item && item->kind == ZipBundleFiles::ItemKind::Folder) addFolder(*parent, item->entry);
        }
    };
    for (const auto& name : inArchiveOrder(files, keptPaths)) {
        if (!error.empty() || interrupted()) break;
        auto item = files.itemAt(name);
        if (!item) {
            error = format("\"%@\" is not in the archive", name);
            break;
        }
        addParentFolders(name);
        if (!error.empty()) break;
        if (item->kind == ZipBundleFiles::ItemKind::Folder) {
            addFolder(name, item->entry);
        } else {
            writer.addEntry(files.archive(), *item->entry, name, error);
        }
        if (error.empty() && progress) progress->keptPathWritten();
    }
    if (progress) progress->end();
    if (interrupted()) return 128 + stopSignal();
    if (error.empty()) writer.finish(error);
    if (!error.empty()) {
        Log("XXX ERROR: unable to create final ZIP archive.");
        explainWriteFailure(files, error);
        return 1;
    }
    return 0;
}

}  // namespace whittle
