// Reading a zip archive through a ByteSource: its central directory once, then any
// entry's bytes on demand, inflated as they stream in. Nothing outside the central
// directory and the entries read is ever fetched, so an archive of several gigabytes,
// near or far, costs only what is used.
//
// Archives are treated as hostile. The archive as a whole is refused when its end
// records or central directory cannot be trusted (missing, truncated, lying about
// counts, offsets or sizes). A single entry that cannot be trusted is left out, with
// a warning naming it:
// - names that are empty, absolute, longer than 4095 bytes, hold "..", "." or empty
//   steps, backslashes or NUL bytes;
// - a name seen before (the first entry of a name wins; folder entries "a/" and file
//   entries "a" count as the same name);
// - encrypted entries, methods other than stored and deflate, entries said to start
//   on another disk;
// - entries whose data would run into the central directory or into another entry
//   (of entries sharing bytes, the one stored first in the file wins);
// - stored entries whose two sizes differ, links of more than 4095 bytes, and
//   entries above 16 MiB that claim to inflate more than 1100 times their compressed
//   size (deflate itself cannot pass about 1032:1, so only a lie claims more, and
//   no genuine entry is refused).
// Reading an entry then checks its local header against the central directory, never
// produces more than the declared size, and fails on short output or a bad CRC-32.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "support/ByteSource.hpp"
#include "support/ZipFormat.hpp"

namespace whittle {

inline constexpr std::uint16_t kZipMethodStored = zip::kMethodStored;
inline constexpr std::uint16_t kZipMethodDeflate = zip::kMethodDeflate;

struct ZipEntry {
    std::string path;                 // the name without a folder's trailing "/"
    std::string storedName;           // the name exactly as the archive stores it
    bool isFolder = false;            // named with a trailing "/" (or a folder mode)
    bool isSymlink = false;           // a Unix link: its target text is the entry's data
    std::uint32_t unixMode = 0;       // type and permission bits; 0 when not recorded
    std::uint16_t method = kZipMethodStored;
    std::uint16_t flags = 0;          // general purpose bits
    std::uint32_t crc32 = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t uncompressedSize = 0;
    std::uint64_t localHeaderOffset = 0;
    // Where the next entry (or the central directory) starts: the entry's bytes, data
    // descriptor included, must end there at the latest.
    std::uint64_t extentLimit = 0;
    struct timespec modified {};      // UTC
    std::uint16_t centralExtraLength = 0;  // a guess at the local extra field's length
};

// An entry left out of the archive's listing, and why.
struct ZipSkippedEntry {
    std::string name;
    std::string reason;
};

class ZipArchive {
public:
    // Limits on what is trusted.
    static constexpr std::uint64_t kMaxCentralDirectorySize = 256ull << 20;
    static constexpr std::uint64_t kRatioCheckedAbove = 16ull << 20;
    static constexpr std::uint64_t kMaxCompressionRatio = 1100;
    static constexpr std::uint64_t kMaxLinkLength = 4095;
    static constexpr std::size_t kMaxNameLength = 4095;

    // Reads the central directory, warning about each entry left out. None, with the
    // reason in `error` (naming the archive), when the archive cannot be read.
    static std::unique_ptr<ZipArchive> open(std::shared_ptr<ByteSource> source, std::string& error);

    const std::string& name() const { return source_->name(); }
    const std::string& comment() const { return comment_; }
    // The entries kept, in central directory order.
    const std::vector<ZipEntry>& entries() const { return entries_; }
    const std::vector<ZipSkippedEntry>& skippedEntries() const { return skipped_; }
    // The entry with this path (no trailing "/"), or null.
    const ZipEntry* find(std::string_view path) const;
    ByteSource& source() const { return *source_; }

    // The whole uncompressed content of a small entry, refused when it declares more
    // than `maxSize` bytes. False with the reason in `error` (naming the archive and
    // the entry).
    bool readEntry(const ZipEntry& entry, std::string& out, std::string& error,
                   std::uint64_t maxSize = 64ull << 20) const;
    // Hands the uncompressed content to `sink` piece by piece. The pieces are checked
    // against the declared size as they come, the CRC-32 only at the end: a caller
    // must discard what it received when this answers false. A sink answering false
    // stops the reading (false with `error` empty).
    bool streamEntry(const ZipEntry& entry, const std::function<bool(std::string_view)>& sink,
                     std::string& error) const;
    // Where the entry's stored (compressed) bytes lie, from its local header.
    bool dataRange(const ZipEntry& entry, ByteRange& range, std::string& error) const;
    // Hands the entry's stored bytes to `sink` as they are, inflating them on the side
    // to check them as streamEntry does: a copy must not carry on an entry whose data
    // disagrees with its declared size or CRC-32. The same answers as streamEntry.
    bool copyStoredBytes(const ZipEntry& entry, const std::function<bool(std::string_view)>& sink,
                         std::string& error) const;

private:
    explicit ZipArchive(std::shared_ptr<ByteSource> source) : source_(std::move(source)) {}

    struct DataStart {
        std::uint64_t offset = 0;
        std::string prefetched;  // the entry's first stored bytes, when they came with the header
    };
    bool locateData(const ZipEntry& entry, DataStart& start, std::string& error) const;
    bool feedStored(const ZipEntry& entry, const DataStart& start, const std::function<bool(std::string_view)>& sink,
                    std::string& error) const;
    // Reads the entry's stored bytes, handing them to `stored` (when given) as they are
    // and their uncompressed content, checked, to `decoded`.
    bool passEntry(const ZipEntry& entry, const std::function<bool(std::string_view)>& decoded,
                   const std::function<bool(std::string_view)>* stored, std::string& error) const;
    std::string entryError(const ZipEntry& entry, std::string_view reason) const;

    std::shared_ptr<ByteSource> source_;
    std::string comment_;
    std::vector<ZipEntry> entries_;
    std::vector<ZipSkippedEntry> skipped_;
    std::unordered_map<std::string, std::size_t> byPath_;

    friend class ZipDirectoryReader;
};

// Says that an entry of the archive is left out, and why (a warning).
void warnZipEntryLeftOut(const std::string& archive, std::string_view name, std::string_view reason);

}  // namespace whittle
