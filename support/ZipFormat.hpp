// The zip format's records, as the reader and both writers of zip archives know them:
// signatures, fixed sizes, field tags and flags, and little-endian integers in and out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

namespace whittle::zip {

inline constexpr std::uint32_t kLocalSignature = 0x04034b50;
inline constexpr std::uint32_t kCentralSignature = 0x02014b50;
inline constexpr std::uint32_t kEndSignature = 0x06054b50;
inline constexpr std::uint32_t kZip64EndSignature = 0x06064b50;
inline constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;

inline constexpr std::size_t kLocalSize = 30;
inline constexpr std::size_t kCentralSize = 46;
inline constexpr std::size_t kEndSize = 22;
inline constexpr std::size_t kZip64EndSize = 56;
inline constexpr std::size_t kZip64LocatorSize = 20;

inline constexpr std::uint16_t kZip64ExtraId = 0x0001;
inline constexpr std::uint16_t kNtfsExtraId = 0x000a;
inline constexpr std::uint16_t kTimestampExtraId = 0x5455;

inline constexpr std::uint16_t kMethodStored = 0;
inline constexpr std::uint16_t kMethodDeflate = 8;
inline constexpr std::uint16_t kVersionNeeded = 20;
inline constexpr std::uint16_t kVersionNeededZip64 = 45;
inline constexpr std::uint16_t kFlagEncrypted = 1 << 0;
inline constexpr std::uint16_t kFlagDataDescriptor = 1 << 3;
inline constexpr std::uint16_t kFlagUtf8Names = 1 << 11;
inline constexpr std::uint8_t kHostUnix = 3;

inline constexpr std::uint16_t kMax16 = 0xffff;
inline constexpr std::uint32_t kMax32 = 0xffffffff;

inline std::uint16_t little16(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[at]) |
                                      static_cast<unsigned char>(bytes[at + 1]) << 8);
}
inline std::uint32_t little32(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint32_t>(little16(bytes, at)) | static_cast<std::uint32_t>(little16(bytes, at + 2)) << 16;
}
inline std::uint64_t little64(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint64_t>(little32(bytes, at)) | static_cast<std::uint64_t>(little32(bytes, at + 4)) << 32;
}

inline void put16(std::string& out, std::uint16_t value) {
    out += static_cast<char>(value & 0xff);
    out += static_cast<char>(value >> 8);
}
inline void put32(std::string& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}
inline void put64(std::string& out, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}
// A size or offset in a 32-bit field: all ones stands for "in the ZIP64 field".
inline std::uint32_t clamp32(std::uint64_t value) { return value >= kMax32 ? kMax32 : static_cast<std::uint32_t>(value); }

// The extended timestamp field, carrying the modification time alone.
std::string timestampExtra(std::int64_t modified);
// The records that end an archive whose central directory has this many entries and
// stands at this offset with this size: the ZIP64 end record and its locator when a
// count, size or offset does not fit the end record, then the end record itself.
std::string archiveEnd(std::uint64_t entries, std::uint64_t directoryOffset, std::uint64_t directorySize,
                       std::uint16_t versionMadeBy);

// The DOS date and time fields of a time, in UTC so that they do not depend on where
// the archive is made (the extended timestamp field carries the exact time).
inline std::pair<std::uint16_t, std::uint16_t> dosDateAndTime(std::time_t seconds) {
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    if (parts.tm_year < 80) return {(0 << 9) | (1 << 5) | 1, 0};  // 1980-01-01, the earliest there is
    auto date = static_cast<std::uint16_t>(((parts.tm_year - 80) << 9) | ((parts.tm_mon + 1) << 5) | parts.tm_mday);
    auto time = static_cast<std::uint16_t>((parts.tm_hour << 11) | (parts.tm_min << 5) | (parts.tm_sec / 2));
    return {date, time};
}

}  // namespace whittle::zip
