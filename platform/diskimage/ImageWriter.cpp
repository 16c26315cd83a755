#include "platform/diskimage/ImageWriter.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <future>
#include <memory>

#include "platform/diskimage/BlockTables.hpp"
#include "platform/diskimage/Crc32.hpp"
#include "platform/diskimage/Crypto.hpp"
#include "platform/diskimage/StopCleanup.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/PartitionMaps.hpp"

namespace whittle::diskimage {

namespace fmt = format;

namespace {

constexpr std::uint64_t kSector = fmt::kSectorSize;
constexpr std::size_t kBufferSize = 1 << 20;
// Shorter ranges are copied through a buffer: a thread for the checksum costs more.
constexpr std::uint64_t kShortestKernelCopy = 1 << 20;
// Large enough to cost nothing, small enough that progress is seen within a file.
constexpr std::uint64_t kKernelCopyStep = std::uint64_t{64} << 20;

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }
std::uint64_t roundDown(std::uint64_t value, std::uint64_t unit) { return value / unit * unit; }

std::string_view zeros(std::size_t length) {
    static const std::string block(kBufferSize, '\0');
    return std::string_view(block).substr(0, length);
}

// Reads length bytes at offset in pieces, handing each to use.
template <typename Use>
void readInPieces(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path, Use&& use) {
    auto buffer = std::make_unique<char[]>(kBufferSize);
    while (length > 0) {
        std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(length, kBufferSize));
        ssize_t got = ::pread(fd, buffer.get(), wanted, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throwSystemError("cannot read " + inQuotes(path), errno);
        if (got == 0) throw DiskImageError(inQuotes(path) + " shrank while the image was being made");
        use(std::string_view(buffer.get(), static_cast<std::size_t>(got)));
        offset += static_cast<std::uint64_t>(got);
        length -= static_cast<std::uint64_t>(got);
    }
}

std::uint32_t crcOfRange(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) {
    std::uint32_t crc = 0;
    readInPieces(fd, offset, length, path, [&](std::string_view piece) { crc = crc32Update(crc, piece); });
    return crc;
}

// A GUID derived from the volume's content, in the table's byte order (version 4
// layout, RFC 4122 variant, so that readers take it for an ordinary one).
std::string guidFor(std::string_view purpose, const std::string& digest) {
    std::string guid = sha256(std::string(purpose) + digest).substr(0, 16);
    guid[7] = static_cast<char>((static_cast<unsigned char>(guid[7]) & 0x0F) | 0x40);
    guid[8] = static_cast<char>((static_cast<unsigned char>(guid[8]) & 0x3F) | 0x80);
    return guid;
}

class ImageBuilder {
public:
    ImageBuilder(ImageOutput& output, helper::ProgressReporter& progress) : output_(output), progress_(progress) {}

    void addBytes(std::string_view bytes) {
        tables_.addSectors(bytes, output_.position());
        output_.write(bytes);
    }

    // A file's data and the zeros after it up to the end of its last block; holes
    // of a sparse file take no bytes of the image.
    void addFileData(const VolumeItem& file) {
        UniqueDescriptor fd(::open(file.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!fd.valid()) throwSystemError("cannot open " + inQuotes(file.path), errno);
        struct stat now = statusOf(fd.get(), file.path);
        if (!S_ISREG(now.st_mode) || static_cast<std::uint64_t>(now.st_size) != file.dataSize())
            throw DiskImageError(inQuotes(file.path) + " changed while the image was being made");
        const std::uint64_t size = file.dataSize();
        const std::uint64_t end = std::uint64_t{file.blockCount} * HfsVolumePlan::blockSize();
        for (std::uint64_t at = 0; at < end;) {
            std::uint64_t dataStart = seek(fd.get(), at, SEEK_DATA, size);
            std::uint64_t holeEnd = dataStart >= size ? end : roundDown(dataStart, kSector);
            if (holeEnd > at) {
                addZeros(at, holeEnd);
                progress_.advance(0, std::min(holeEnd, size) - std::min(at, size));
                at = holeEnd;
                continue;
            }
            std::uint64_t dataEnd = seek(fd.get(), dataStart, SEEK_HOLE, size);
            if (roundUp(dataEnd, kSector) >= size) {
                addData(fd.get(), file.path, at, size, end);
                at = end;
            } else {
                std::uint64_t sectorEnd = roundUp(dataEnd, kSector);
                addData(fd.get(), file.path, at, sectorEnd, sectorEnd);
                at = sectorEnd;
            }
        }
        progress_.advance(1, 0);
    }

    BlockTableBuilder& tables() { return tables_; }

private:
    // Where the next data (or hole) starts, or fallback when there is none or the file
    // system cannot tell.
    static std::uint64_t seek(int fd, std::uint64_t from, int whence, std::uint64_t size) {
        off_t found = ::lseek(fd, static_cast<off_t>(from), whence);
        if (found < 0) return errno == ENXIO ? size : (whence == SEEK_DATA ? from : size);
        return std::min<std::uint64_t>(static_cast<std::uint64_t>(found), size);
    }

    void addZeros(std::uint64_t from, std::uint64_t to) {
        tables_.addZeroSectors((to - from) / kSector, output_.position());
    }

    // Copies bytes [from, to) of the file, then zeros up to padTo.
    void addData(int fd, const std::string& path, std::uint64_t from, std::uint64_t to, std::uint64_t padTo) {
        std::uint64_t start = output_.position();
        std::uint32_t crc = output_.copyFrom(fd, from, to - from, path);
        for (std::uint64_t left = padTo - to; left > 0;) {
            std::size_t step = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBufferSize));
            output_.write(zeros(step));
            left -= step;
        }
        crc = crc32AppendZeros(crc, padTo - to);
        tables_.addStoredSectors(padTo - from, start, crc);
    }

    ImageOutput& output_;
    helper::ProgressReporter& progress_;
    BlockTableBuilder tables_;
};

// What the volume's files hold: each regular file, with its data.
std::pair<std::uint64_t, std::uint64_t> filesAndBytesOf(const HfsVolumePlan& volume) {
    std::uint64_t files = 0, bytes = 0;
    for (const VolumeSpan& span : volume.spans()) {
        if (!span.file) continue;
        ++files;
        bytes += span.file->dataSize();
    }
    return {files, bytes};
}

}  // namespace

// ---- outputs ----

void FileImageOutput::write(std::string_view bytes) {
    writeAllAt(fd_, bytes, position_, path_);
    position_ += bytes.size();
}

std::uint32_t ImageOutput::copyThroughBuffer(int fd, std::uint64_t offset, std::uint64_t length,
                                             const std::string& path) {
    std::uint32_t crc = 0;
    readInPieces(fd, offset, length, path, [&](std::string_view piece) {
        crc = crc32Update(crc, piece);
        write(piece);
        copied(piece.size());
    });
    return crc;
}

std::uint32_t FileImageOutput::copyFrom(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) {
    if (length < kShortestKernelCopy) return copyThroughBuffer(fd, offset, length, path);
    std::future<std::uint32_t> checksum;
    {
        StopSignalsBlocked stopsGoToTheMainThread;  // inherited by the checksum's thread
        checksum = std::async(std::launch::async, crcOfRange, fd, offset, length, path);
    }
    auto from = static_cast<off_t>(offset);
    auto to = static_cast<off_t>(position_);
    std::uint64_t left = length;
    while (left > 0) {
        ssize_t moved = ::copy_file_range(fd, &from, fd_, &to, static_cast<std::size_t>(std::min(left, kKernelCopyStep)), 0);
        if (moved < 0 && errno == EINTR) continue;
        if (moved < 0 && left == length && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
            checksum.wait();
            return copyThroughBuffer(fd, offset, length, path);
        }
        if (moved < 0) throwSystemError("cannot copy " + inQuotes(path) + " into " + inQuotes(path_), errno);
        if (moved == 0) throw DiskImageError(inQuotes(path) + " shrank while the image was being made");
        left -= static_cast<std::uint64_t>(moved);
        copied(static_cast<std::uint64_t>(moved));
    }
    position_ += length;
    return checksum.get();
}

void EncryptedImageOutput::write(std::string_view bytes) {
    sink_.write(bytes);
    position_ += bytes.size();
}

std::uint32_t EncryptedImageOutput::copyFrom(int fd, std::uint64_t offset, std::uint64_t length,
                                             const std::string& path) {
    return copyThroughBuffer(fd, offset, length, path);
}

// ---- the image ----

std::uint32_t writeImage(const HfsVolumePlan& volume, ImageOutput& output, helper::ProgressReporter& progress) {
    namespace l = fmt::layout;
    GptDisk disk(volume.byteCount() / kSector, guidFor("disk", volume.contentDigest()),
                 guidFor("partition", volume.contentDigest()));
    std::string table = disk.table();
    auto [files, bytes] = filesAndBytesOf(volume);
    progress.begin("writing image", files, bytes);
    output.reportCopiesTo(&progress);
    ImageBuilder image(output, progress);
    BlockTableBuilder& tables = image.tables();
    tables.beginEntry(l::kProtectiveMbrName, l::kProtectiveMbrType);
    image.addBytes(disk.protectiveMbr());
    tables.beginEntry(l::kGptHeaderName, l::kPrimaryGptHeaderType);
    image.addBytes(disk.primaryHeader());
    tables.beginEntry(l::kGptTableName, l::kPrimaryGptTableType);
    image.addBytes(table);
    tables.beginEntry(l::kVolumePartitionName, l::kVolumePartitionType);
    for (const VolumeSpan& span : volume.spans()) {
        if (span.file)
            image.addFileData(*span.file);
        else
            image.addBytes(span.bytes);
    }
    tables.beginEntry(l::kGptTableName, l::kBackupGptTableType);
    image.addBytes(table);
    tables.beginEntry(l::kGptHeaderName, l::kBackupGptHeaderType);
    image.addBytes(disk.backupHeader());
    tables.endEntry();
    if (tables.diskSectors() != disk.totalSectors()) throw DiskImageError("internal error: disk size mismatch");
    output.write(imageTail(tables.entries(), output.position(), fmt::trailer::kVariantDevice));
    output.reportCopiesTo(nullptr);
    progress.end();
    return masterChecksumOf(tables.entries());
}

}  // namespace whittle::diskimage
