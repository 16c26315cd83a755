// Opening and status of files, whole reads and writes, output sinks, temporary files that vanish
// on failure, and tree removal that never follows symbolic links.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "support/DescriptorIo.hpp"

namespace whittle::diskimage {

// Opens a file for reading; throws with the path in the message on failure.
UniqueDescriptor openForReading(const std::string& path);
// The file's status (follows nothing: fstat of the open descriptor).
struct stat statusOf(int fd, const std::string& pathForMessages);

// Reads exactly length bytes at offset; throws on a short file or an error.
std::string readAt(int fd, std::uint64_t offset, std::size_t length, const std::string& pathForMessages);
// Reads up to length bytes from a stream (pipe); fewer only at its end.
std::size_t readUpTo(int fd, char* buffer, std::size_t length);
// Write every byte (see whittle::writeAll); throw with the path in the message on failure.
void writeAll(int fd, std::string_view bytes, const std::string& pathForMessages);
void writeAllAt(int fd, std::string_view bytes, std::uint64_t offset, const std::string& pathForMessages);

// Where an image's bytes go, in order.
class ByteSink {
public:
    virtual ~ByteSink() = default;
    virtual void write(std::string_view bytes) = 0;
    // Called once after the last write.
    virtual void finish() = 0;
};

// Writes straight to a file descriptor.
class FileSink : public ByteSink {
public:
    FileSink(int fd, std::string pathForMessages) : fd_(fd), path_(std::move(pathForMessages)) {}
    void write(std::string_view bytes) override { writeAll(fd_, bytes, path_); }
    void finish() override {}

private:
    int fd_;
    std::string path_;
};

// A new file beside a final path, removed again unless committed (renamed to the
// final path). Also removed if the process is stopped by SIGINT, SIGTERM or SIGHUP.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& finalPath);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    // Closes the file and renames it to the final path, which must not exist.
    void commit();

private:
    std::string finalPath_;
    std::string path_;
    UniqueDescriptor fd_;
    bool committed_ = false;
};

// Removes a file, link or whole folder; links are removed, never followed, and folders
// without write permission are made writable first. Returns false (and leaves what
// could not be removed) on failure.
bool removeTree(const std::string& path);

// The absolute, symlink-free form of an existing path; throws if it does not exist.
std::string canonicalPath(const std::string& path);

}  // namespace whittle::diskimage
