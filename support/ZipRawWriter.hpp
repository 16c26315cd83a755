// Writing a zip archive out of the entries of another, their stored (compressed)
// bytes copied as they are: nothing is deflated again, and the bytes are inflated on
// the side only to check them, so the copy costs about the reading and writing of the
// bytes kept and one inflation. Local headers are written afresh
// (sizes and CRC-32 known up front, so no data descriptors), with ZIP64 records where
// sizes or offsets pass 4 GiB.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/ZipArchive.hpp"

namespace whittle {

class ZipRawWriter {
public:
    // Writes into the descriptor, which must be open for writing at its start; it
    // stays open and is the caller's.
    explicit ZipRawWriter(int fd) : fd_(fd) {}

    // Copies the entry from the archive under `name` (a file or link: no trailing
    // "/"; a folder: named with one). False with the reason in `error`.
    bool addEntry(const ZipArchive& archive, const ZipEntry& entry, const std::string& name, std::string& error);
    // Adds an empty folder entry (`name` ends with "/").
    bool addFolder(const std::string& name, std::uint32_t unixMode, struct timespec modified, std::string& error);
    // Writes the central directory and the end records.
    bool finish(std::string& error);

    std::uint64_t bytesWritten() const { return offset_; }

private:
    struct Written {
        std::string name;
        std::uint16_t method;
        std::uint32_t crc32;
        std::uint64_t compressedSize;
        std::uint64_t uncompressedSize;
        std::uint64_t localHeaderOffset;
        std::uint32_t unixMode;
        struct timespec modified;
    };

    static void putSharedFields(std::string& out, const Written& entry, bool zip64);
    static std::string extraFields(const Written& entry, bool zip64, bool withOffset);
    bool writeLocalHeader(const Written& entry, std::string& error);
    bool writeBytes(std::string_view bytes, std::string& error);

    int fd_;
    std::uint64_t offset_ = 0;
    std::vector<Written> written_;
};

}  // namespace whittle
