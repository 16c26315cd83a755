#include "platform/copy/ZipArchive.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "platform/copy/CopyCommon.hpp"
#include "platform/helper/StopCleanup.hpp"

namespace whittle::copy {

namespace {

constexpr std::size_t kReadBuffer = std::size_t{1} << 20;

struct ArchiveFree {
    void operator()(archive* handle) const { archive_write_free(handle); }
};
struct EntryFree {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

// The archive being written, in a temporary file that is removed unless committed,
// and also when the tool is stopped.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& finalPath) : finalPath_(finalPath) {
        auto nameStart = finalPath.find_last_of('/') + 1;  // 0 when there is no slash
        std::string name = finalPath.substr(0, nameStart) + "." + finalPath.substr(nameStart) + ".XXXXXX";
        {
            helper::StopSignalsBlocked blocked;  // no stop between making it and registering it
            fd_ = Descriptor(::mkostemp(name.data(), O_CLOEXEC));
            if (!fd_.valid()) failOn(finalPath, "create a file beside", errno);
            helper::removeOnStop(name);
        }
        path_ = name;
    }
    ~TemporaryFile() {
        if (path_.empty()) return;
        ::unlink(path_.c_str());
        helper::keepOnStop(path_);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return fd_.get(); }

    void commit(mode_t mode) {
        if (::fchmod(fd_.get(), mode) != 0) failOn(finalPath_, "set the mode of", errno);
        if (::close(fd_.release()) != 0) failOn(finalPath_, "write", errno);
        if (::rename(path_.c_str(), finalPath_.c_str()) != 0) failOn(finalPath_, "write", errno);
        helper::keepOnStop(path_);
        path_.clear();
    }

private:
    std::string finalPath_;
    std::string path_;
    Descriptor fd_;
};

class ZipWriter {
public:
    ZipWriter(int sourceRoot, int outputFd, const std::string& archivePath)
        : sourceRoot_(sourceRoot),
          outputFd_(outputFd),
          archivePath_(archivePath),
          archive_(archive_write_new()),
          entry_(archive_entry_new()) {
        if (!archive_ || !entry_) throw std::bad_alloc();
        check(archive_write_set_format_zip(archive_.get()), "set up the archive");
        check(archive_write_zip_set_compression_deflate(archive_.get()), "set up the archive");
        // A zip archive ends where its data ends: no padding to a block size.
        check(archive_write_set_bytes_in_last_block(archive_.get(), 1), "set up the archive");
        check(archive_write_open2(archive_.get(), this, nullptr, writeOutput, nullptr, nullptr), "start the archive");
    }

    void write(const std::vector<PlannedItem>& plan) {
        PlanPath planPath;
        for (const PlannedItem& item : plan) {
            std::string_view path = planPath.enter(item);
            folders_.resize(item.depth);
            if (item.depth == 0) {
                openRoot();
                continue;
            }
            addItem(item, path);
        }
        folders_.clear();
        check(archive_write_close(archive_.get()), "finish the archive");
    }

private:
    void openRoot() {
        Descriptor root(::fcntl(sourceRoot_, F_DUPFD_CLOEXEC, 0));
        if (!root.valid()) throw CopyError("cannot open the source folder: " + systemMessage(errno));
        folders_.push_back(std::move(root));
    }

    void addItem(const PlannedItem& item, std::string_view path) {
        int parent = folders_.back().get();
        std::string name(item.name);
        std::string entryName(path.substr(2));  // without the leading "./"
        const struct stat& source = item.source;
        archive_entry_clear(entry_.get());
        archive_entry_set_mode(entry_.get(), source.st_mode);
        archive_entry_set_uid(entry_.get(), source.st_uid);
        archive_entry_set_gid(entry_.get(), source.st_gid);
        archive_entry_set_mtime(entry_.get(), source.st_mtim.tv_sec, source.st_mtim.tv_nsec);
        archive_entry_set_atime(entry_.get(), source.st_atim.tv_sec, source.st_atim.tv_nsec);
        if (S_ISDIR(source.st_mode)) {
            addFolder(item, parent, name, entryName + "/", path);
        } else if (S_ISREG(source.st_mode)) {
            addFile(item, parent, name, entryName, path);
        } else if (S_ISLNK(source.st_mode)) {
            addLink(item, parent, name, entryName, path);
        } else {
            throw CopyError("cannot archive \"" + std::string(path) +
                            "\": only folders, files and links go into a zip archive");
        }
    }

    void addFolder(const PlannedItem& item, int parent, const std::string& name, const std::string& entryName,
                   std::string_view path) {
        archive_entry_set_pathname(entry_.get(), entryName.c_str());
        archive_entry_set_size(entry_.get(), 0);
        writeHeader(path);
        if (!item.hasChildren) return;
        Descriptor folder(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder.valid()) failOn(path, "open", errno);
        folders_.push_back(std::move(folder));
    }

    void addFile(const PlannedItem& item, int parent, const std::string& name, const std::string& entryName,
                 std::string_view path) {
        Descriptor file(::openat(parent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file.valid()) failOn(path, "open", errno);
        archive_entry_set_pathname(entry_.get(), entryName.c_str());
        archive_entry_set_size(entry_.get(), item.source.st_size);
        writeHeader(path);
        if (!buffer_) buffer_ = std::make_unique<char[]>(kReadBuffer);
        // The header promised st_size bytes, so exactly that many go in.
        for (off_t remaining = item.source.st_size; remaining > 0;) {
            std::size_t wanted =
                remaining < static_cast<off_t>(kReadBuffer) ? static_cast<std::size_t>(remaining) : kReadBuffer;
            ssize_t got = ::read(file.get(), buffer_.get(), wanted);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) failOn(path, "read", errno);
            if (got == 0) throw CopyError("\"" + std::string(path) + "\" shrank while it was being archived");
            if (archive_write_data(archive_.get(), buffer_.get(), static_cast<std::size_t>(got)) < 0)
                failToArchive(path);
            failOnOutput();
            remaining -= got;
        }
    }

    void addLink(const PlannedItem& item, int parent, const std::string& name, const std::string& entryName,
                 std::string_view path) {
        archive_entry_set_pathname(entry_.get(), entryName.c_str());
        archive_entry_set_size(entry_.get(), 0);
        archive_entry_set_symlink(entry_.get(), readLinkTarget(parent, name, item.source.st_size, path).c_str());
        writeHeader(path);
    }

    void writeHeader(std::string_view path) {
        // A warning (such as a name that needed conversion) still writes the entry.
        if (archive_write_header(archive_.get(), entry_.get()) < ARCHIVE_WARN) failToArchive(path);
        failOnOutput();
    }

    void check(int status, const char* action) {
        failOnOutput();
        if (status < ARCHIVE_WARN) throw CopyError("cannot " + std::string(action) + ": " + archiveMessage());
    }

    [[noreturn]] void failToArchive(std::string_view path) {
        failOnOutput();
        throw CopyError("cannot archive \"" + std::string(path) + "\": " + archiveMessage());
    }

    void failOnOutput() const {
        if (outputError_ != 0) failOn(archivePath_, "write", outputError_);
    }

    // The archive's bytes go out here. A failure is kept for failOnOutput() and the
    // rest is dropped, but the archive is told all went well: an archive that failed
    // in its writer cannot be closed, and closing is what frees its compressor.
    static la_ssize_t writeOutput(archive*, void* self, const void* buffer, std::size_t length) {
        auto* writer = static_cast<ZipWriter*>(self);
        auto* bytes = static_cast<const char*>(buffer);
        for (std::size_t done = 0; writer->outputError_ == 0 && done < length;) {
            ssize_t written = ::write(writer->outputFd_, bytes + done, length - done);
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) writer->outputError_ = errno;
            if (written > 0) done += static_cast<std::size_t>(written);
        }
        return static_cast<la_ssize_t>(length);
    }

    std::string archiveMessage() {
        const char* message = archive_error_string(archive_.get());
        return message ? message : "unknown archive error";
    }

    int sourceRoot_;
    int outputFd_;
    int outputError_ = 0;
    std::string archivePath_;
    std::unique_ptr<archive, ArchiveFree> archive_;
    std::unique_ptr<archive_entry, EntryFree> entry_;
    std::vector<Descriptor> folders_;  // the source root and the folders down to the current item
    std::unique_ptr<char[]> buffer_;
};

}  // namespace

void writeZipArchive(const std::vector<PlannedItem>& plan, int sourceRoot, const std::string& archivePath,
                     mode_t newFileMode) {
    TemporaryFile output(archivePath);
    {
        ZipWriter writer(sourceRoot, output.fd(), archivePath);
        writer.write(plan);
    }
    output.commit(newFileMode);
}

}  // namespace whittle::copy

