#include "support/ZipRawWriter.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "support/DescriptorIo.hpp"
#include "support/ZipFormat.hpp"

namespace whittle {

namespace {

using namespace whittle::zip;

constexpr std::uint16_t kVersionMadeByUnix = (3 << 8) | 45;

void putDosTime(std::string& out, struct timespec when) {
    auto [date, time] = dosDateAndTime(when.tv_sec);
    put16(out, time);
    put16(out, date);
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

// What local and central headers both say of an entry, from the version needed to the
// sizes (all ones when they are in the ZIP64 field).
void ZipRawWriter::putSharedFields(std::string& out, const Written& entry, bool zip64) {
    put16(out, zip64 ? kVersionNeededZip64 : kVersionNeeded);
    put16(out, kFlagUtf8Names);
    put16(out, entry.method);
    putDosTime(out, entry.modified);
    put32(out, entry.crc32);
    put32(out, zip64 ? kMax32 : clamp32(entry.compressedSize));
    put32(out, zip64 ? kMax32 : clamp32(entry.uncompressedSize));
}

// The exact time, and the ZIP64 field when needed: sizes, and in a central header the
// local header's offset too.
std::string ZipRawWriter::extraFields(const Written& entry, bool zip64, bool withOffset) {
    std::string extra = timestampExtra(entry.modified.tv_sec);
    if (!zip64) return extra;
    put16(extra, kZip64ExtraId);
    put16(extra, withOffset ? 24 : 16);
    put64(extra, entry.uncompressedSize);
    put64(extra, entry.compressedSize);
    if (withOffset) put64(extra, entry.localHeaderOffset);
    return extra;
}

bool ZipRawWriter::writeLocalHeader(const Written& entry, std::string& error) {
    bool zip64 = needsZip64(entry.compressedSize, entry.uncompressedSize, 0);
    std::string header;
    put32(header, kLocalSignature);
    putSharedFields(header, entry, zip64);
    std::string extra = extraFields(entry, zip64, false);
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
    bool copied = archive.copyStoredBytes(entry, [&](std::string_view piece) { return writeBytes(piece, writeError); }, error);
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
        putSharedFields(record, entry, zip64);
        std::string extra = extraFields(entry, zip64, true);
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
    return writeBytes(archiveEnd(written_.size(), directoryStart, offset_ - directoryStart, kVersionMadeByUnix), error);
}

}  // namespace whittle
