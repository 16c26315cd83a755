#include "support/ZipRawWriter.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "support/DescriptorIo.hpp"

namespace whittle {

namespace {

constexpr std::uint32_t kLocalSignature = 0x04034b50;
constexpr std::uint32_t kCentralSignature = 0x02014b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint32_t kZip64EndSignature = 0x06064b50;
constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint16_t kTimestampExtraId = 0x5455;
constexpr std::uint16_t kVersionMadeByUnix = (3 << 8) | 45;
constexpr std::uint16_t kVersionNeeded = 20;
constexpr std::uint16_t kVersionNeededZip64 = 45;
constexpr std::uint16_t kUtf8NameFlag = 1 << 11;
constexpr std::uint32_t kMax32 = 0xffffffffu;
constexpr std::uint16_t kMax16 = 0xffff;

void put16(std::string& out, std::uint16_t value) {
    out.push_back(static_cast<char>(value & 0xff));
    out.push_back(static_cast<char>(value >> 8));
}

void put32(std::string& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>((value >> shift) & 0xff));
}

void put64(std::string& out, std::uint64_t value) {
    for (int shift = 0; shift < 64; shift += 8) out.push_back(static_cast<char>((value >> shift) & 0xff));
}

std::uint32_t clamp32(std::uint64_t value) { return value >= kMax32 ? kMax32 : static_cast<std::uint32_t>(value); }

// DOS date and time of the UTC time, which is also recorded exactly in the extended
// timestamp field.
void putDosTime(std::string& out, struct timespec when) {
    std::tm utc{};
    time_t seconds = when.tv_sec;
    ::gmtime_r(&seconds, &utc);
    if (utc.tm_year < 80) utc = std::tm{.tm_mday = 1, .tm_year = 80};
    put16(out, static_cast<std::uint16_t>((utc.tm_hour << 11) | (utc.tm_min << 5) | (utc.tm_sec / 2)));
    put16(out, static_cast<std::uint16_t>(((utc.tm_year - 80) << 9) | ((utc.tm_mon + 1) << 5) | utc.tm_mday));
}

std::string timestampExtra(struct timespec when) {
    std::string extra;
    put16(extra, kTimestampExtraId);
    put16(extra, 5);
    extra.push_back(1);  // the modification time follows
    put32(extra, static_cast<std::uint32_t>(when.tv_sec));
    return extra;
}

bool needsZip64(std::uint64_t compressed, std::uint64_t uncompressed, std::uint64_t offset) {
    return compressed >= kMax32 || uncompressed >= kMax32 || offset >= kMax32;
}

}  // namespace

bool ZipRawWriter::writeBytes(std::string_view bytes, std::string& error) {
    if (!writeAll(fd_, bytes)) {
        error = std::strerror(errno);
        return false;
    }
    offset_ += bytes.size();
    return true;
}

bool ZipRawWriter::writeLocalHeader(const Written& entry, std::string& error) {
    bool zip64 = needsZip64(entry.compressedSize, entry.uncompressedSize, 0);
    std::string header;
    put32(header, kLocalSignature);
    put16(header, zip64 ? kVersionNeededZip64 : kVersionNeeded);
    put16(header, kUtf8NameFlag);
    put16(header, entry.method);
    putDosTime(header, entry.modified);
    put32(header, entry.crc32);
    put32(header, zip64 ? kMax32 : clamp32(entry.compressedSize));
    put32(header, zip64 ? kMax32 : clamp32(entry.uncompressedSize));
    std::string extra = timestampExtra(entry.modified);
    if (zip64) {
        put16(extra, kZip64ExtraId);
        put16(extra, 16);
        put64(extra, entry.uncompressedSize);
        put64(extra, entry.compressedSize);
    }
    put16(header, static_cast<std::uint16_t>(entry.name.size()));
    put16(header, static_cast<std::uint16_t>(extra.size()));
    header += entry.name;
    header += extra;
    return writeBytes(header, error);
}

bool ZipRawWriter::addEntry(const ZipArchive& archive, const ZipEntry& entry, const std::string& name,
                            std::string& error) {
    Written written{name, entry.method, entry.crc32, entry.compressedSize, entry.uncompressedSize, offset_,
                    entry.unixMode, entry.modified};
    if (!writeLocalHeader(written, error)) return false;
    std::string writeError;
    bool copied = archive.streamStored(entry, [&](std::string_view piece) { return writeBytes(piece, writeError); }, error);
    if (!copied) {
        if (error.empty()) error = writeError;
        return false;
    }
    written_.push_back(std::move(written));
    return true;
}

bool ZipRawWriter::addFolder(const std::string& name, std::uint32_t unixMode, struct timespec modified,
                             std::string& error) {
    Written written{name, kZipMethodStored, 0, 0, 0, offset_, unixMode ? unixMode : (S_IFDIR | 0755), modified};
    if (!writeLocalHeader(written, error)) return false;
    written_.push_back(std::move(written));
    return true;
}

bool ZipRawWriter::finish(std::string& error) {
    std::uint64_t directoryStart = offset_;
    for (const auto& entry : written_) {
        bool zip64 = needsZip64(entry.compressedSize, entry.uncompressedSize, entry.localHeaderOffset);
        std::string record;
        put32(record, kCentralSignature);
        put16(record, kVersionMadeByUnix);
        put16(record, zip64 ? kVersionNeededZip64 : kVersionNeeded);
        put16(record, kUtf8NameFlag);
        put16(record, entry.method);
        putDosTime(record, entry.modified);
        put32(record, entry.crc32);
        put32(record, zip64 ? kMax32 : clamp32(entry.compressedSize));
        put32(record, zip64 ? kMax32 : clamp32(entry.uncompressedSize));
        std::string extra = timestampExtra(entry.modified);
        if (zip64) {
            put16(extra, kZip64ExtraId);
            put16(extra, 24);
            put64(extra, entry.uncompressedSize);
            put64(extra, entry.compressedSize);
            put64(extra, entry.localHeaderOffset);
        }
        put16(record, static_cast<std::uint16_t>(entry.name.size()));
        put16(record, static_cast<std::uint16_t>(extra.size()));
        put16(record, 0);  // comment
        put16(record, 0);  // disk
        put16(record, 0);  // internal attributes
        put32(record, entry.unixMode << 16);
        put32(record, zip64 ? kMax32 : clamp32(entry.localHeaderOffset));
        record += entry.name;
        record += extra;
        if (!writeBytes(record, error)) return false;
    }
    std::uint64_t directorySize = offset_ - directoryStart;
    std::uint64_t count = written_.size();
    bool zip64 = count >= kMax16 || directorySize >= kMax32 || directoryStart >= kMax32;
    std::string end;
    if (zip64) {
        std::uint64_t zip64EndOffset = offset_;
        put32(end, kZip64EndSignature);
        put64(end, 44);
        put16(end, kVersionMadeByUnix);
        put16(end, kVersionNeededZip64);
        put32(end, 0);
        put32(end, 0);
        put64(end, count);
        put64(end, count);
        put64(end, directorySize);
        put64(end, directoryStart);
        put32(end, kZip64LocatorSignature);
        put32(end, 0);
        put64(end, zip64EndOffset);
        put32(end, 1);
    }
    put32(end, kEndSignature);
    put16(end, 0);
    put16(end, 0);
    put16(end, static_cast<std::uint16_t>(count >= kMax16 ? kMax16 : count));
    put16(end, static_cast<std::uint16_t>(count >= kMax16 ? kMax16 : count));
    put32(end, clamp32(directorySize));
    put32(end, clamp32(directoryStart));
    put16(end, 0);
    return writeBytes(end, error);
}

}  // namespace whittle
