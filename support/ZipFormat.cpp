#include "support/ZipFormat.hpp"

namespace whittle::zip {

std::string timestampExtra(std::int64_t modified) {
    std::string extra;
    put16(extra, kTimestampExtraId);
    put16(extra, 5);
    extra += '\x01';  // the modification time follows
    put32(extra, static_cast<std::uint32_t>(modified));
    return extra;
}

std::string archiveEnd(std::uint64_t entries, std::uint64_t directoryOffset, std::uint64_t directorySize,
                       std::uint16_t versionMadeBy) {
    std::string end;
    bool zip64 = entries >= kMax16 || directoryOffset >= kMax32 || directorySize >= kMax32;
    if (zip64) {
        std::uint64_t recordOffset = directoryOffset + directorySize;
        put32(end, kZip64EndSignature);
        put64(end, 44);  // the record's size after this field
        put16(end, versionMadeBy);
        put16(end, kVersionNeededZip64);
        put32(end, 0);
        put32(end, 0);
        put64(end, entries);
        put64(end, entries);
        put64(end, directorySize);
        put64(end, directoryOffset);
        put32(end, kZip64LocatorSignature);
        put32(end, 0);
        put64(end, recordOffset);
        put32(end, 1);
    }
    auto count16 = static_cast<std::uint16_t>(entries >= kMax16 ? kMax16 : entries);
    put32(end, kEndSignature);
    put16(end, 0);
    put16(end, 0);
    put16(end, count16);
    put16(end, count16);
    put32(end, clamp32(directorySize));
    put32(end, clamp32(directoryOffset));
    put16(end, 0);
    return end;
}

}  // namespace whittle::zip
