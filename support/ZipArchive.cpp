#include "support/ZipArchive.hpp"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <optional>
#include <set>

#include "support/Format.hpp"
#include "support/LogObject.hpp"
#include "support/ZipFormat.hpp"

namespace whittle {

namespace {

using namespace whittle::zip;

constexpr std::size_t kMaxCommentLength = 0xffff;

// Small entries come with their header in a single read.
constexpr std::uint64_t kPrefetchedDataLimit = 64 << 10;
constexpr std::size_t kLocalExtraAllowance = 64;
constexpr std::size_t kInflateOutputPiece = 64 << 10;

// A name fit for a message: control bytes (a NUL among them) shown as "?".
std::string printable(std::string_view name) {
    std::string out(name);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    return out;
}

// Why a stored name cannot be a path below the archive's root, or "" when it can.
std::string nameProblem(std::string_view name) {
    if (name.find('\0') != std::string_view::npos) return "its name holds a NUL byte";
    if (name.size() > ZipArchive::kMaxNameLength) return format("its name is longer than %@ bytes", ZipArchive::kMaxNameLength);
    if (name.find('\\') != std::string_view::npos) return "its name holds a backslash";
    if (name.starts_with('/')) return "its name is absolute";
    if (name.ends_with('/')) name.remove_suffix(1);
    if (name.empty()) return "its name is empty";
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t slash = std::min(name.find('/', start), name.size());
        std::string_view step = name.substr(start, slash - start);
        if (step.empty()) return "its name holds an empty step";
        if (step == ".") return "its name holds a \".\" step";
        if (step == "..") return "its name climbs with \"..\"";
        start = slash + 1;
    }
    return {};
}

// One field of an extra block, or an empty view when there is none of that id.
std::string_view extraField(std::string_view extra, std::uint16_t wanted) {
    std::size_t at = 0;
    while (at + 4 <= extra.size()) {
        std::uint16_t id = little16(extra, at);
        std::size_t length = little16(extra, at + 2);
        // A field running past the block ends it: some writers pad with stray bytes.
        if (at + 4 + length > extra.size()) break;
        if (id == wanted) return extra.substr(at + 4, length);
        at += 4 + length;
    }
    return {};
}

// A DOS date and time, which writers record in the local time of the machine.
struct timespec dosTime(std::uint16_t date, std::uint16_t time) {
    std::tm parts{};
    parts.tm_year = ((date >> 9) & 0x7f) + 80;
    parts.tm_mon = ((date >> 5) & 0x0f) - 1;
    parts.tm_mday = date & 0x1f;
    parts.tm_hour = (time >> 11) & 0x1f;
    parts.tm_min = (time >> 5) & 0x3f;
    parts.tm_sec = (time & 0x1f) * 2;
    parts.tm_isdst = -1;
    struct timespec result {};
    std::time_t seconds = std::mktime(&parts);
    result.tv_sec = seconds == static_cast<std::time_t>(-1) ? 0 : seconds;
    return result;
}

// The modification time from the extended timestamp field (seconds, UTC) or the NTFS
// field (100 ns steps since 1601), when either is there.
std::optional<struct timespec> extraTime(std::string_view extra) {
    std::string_view stamp = extraField(extra, kTimestampExtraId);
    if (stamp.size() >= 5 && (stamp[0] & 1)) {
        struct timespec result {};
        result.tv_sec = static_cast<std::int32_t>(little32(stamp, 1));
        return result;
    }
    std::string_view ntfs = extraField(extra, kNtfsExtraId);
    // Four reserved bytes, then tagged attributes; tag 1 holds three 8-byte times.
    for (std::size_t at = 4; at + 4 <= ntfs.size();) {
        std::uint16_t tag = little16(ntfs, at);
        std::size_t length = little16(ntfs, at + 2);
        if (at + 4 + length > ntfs.size()) break;
        if (tag == 1 && length >= 8) {
            constexpr std::uint64_t kTicksPerSecond = 10'000'000;
            constexpr std::uint64_t kTicksTo1970 = 116'444'736'000'000'000;
            std::uint64_t ticks = little64(ntfs, at + 4);
            if (ticks < kTicksTo1970) break;
            struct timespec result {};
            result.tv_sec = static_cast<std::time_t>((ticks - kTicksTo1970) / kTicksPerSecond);
            result.tv_nsec = static_cast<long>((ticks - kTicksTo1970) % kTicksPerSecond * 100);
            return result;
        }
        at += 4 + length;
    }
    return std::nullopt;
}

// Reads the values of the ZIP64 field in their fixed order, each only when the
// 32-bit field it stands for holds the marker. False when one is missing.
struct Zip64Values {
    std::uint64_t* value;
    bool wanted;
    std::size_t width;
};
bool readZip64Values(std::string_view extra, std::initializer_list<Zip64Values> values) {
    std::string_view field = extraField(extra, kZip64ExtraId);
    std::size_t at = 0;
    for (const auto& value : values) {
        if (!value.wanted) continue;
        if (at + value.width > field.size()) return false;
        *value.value = value.width == 8 ? little64(field, at) : little32(field, at);
        at += value.width;
    }
    return true;
}

}  // namespace

// Reads the end records and the central directory into a ZipArchive.
class ZipDirectoryReader {
public:
    explicit ZipDirectoryReader(ZipArchive& archive) : archive_(archive), source_(*archive.source_) {}

    bool read(std::string& reason) {
        if (!readEndRecords(reason)) return false;
        std::string directory;
        std::string error;
        source_.willRead({{directoryOffset_, directorySize_}});
        if (!source_.read(directoryOffset_, static_cast<std::size_t>(directorySize_), directory, error)) {
            reason = "its central directory cannot be read: " + error;
            return false;
        }
        if (!readEntries(directory, reason)) return false;
        keepEntriesThatDoNotOverlap();
        for (std::size_t index = 0; index < archive_.entries_.size(); ++index) {
            archive_.byPath_.emplace(archive_.entries_[index].path, index);
        }
        return true;
    }

private:
    bool readEndRecords(std::string& reason) {
        std::uint64_t size = source_.size();
        if (size < kEndSize) {
            reason = "it is too short to be a zip archive";
            return false;
        }
        std::uint64_t tailLength = std::min<std::uint64_t>(size, kEndSize + kMaxCommentLength + kZip64LocatorSize);
        std::uint64_t tailStart = size - tailLength;
        std::string tail;
        std::string error;
        if (!source_.read(tailStart, static_cast<std::size_t>(tailLength), tail, error)) {
            reason = "its end cannot be read: " + error;
            return false;
        }
        // The end record is the last one whose comment reaches exactly to the end of the file.
        std::size_t at = tail.size() - kEndSize + 1;
        bool found = false;
        while (at-- > 0) {
            if (little32(tail, at) == kEndSignature && at + kEndSize + little16(tail, at + 20) == tail.size()) {
                found = true;
                break;
            }
        }
        if (!found) {
            reason = "it has no end of central directory record";
            return false;
        }
        std::uint64_t endOffset = tailStart + at;
        std::uint32_t disk = little16(tail, at + 4);
        std::uint32_t directoryDisk = little16(tail, at + 6);
        std::uint64_t entriesOnDisk = little16(tail, at + 8);
        entryCount_ = little16(tail, at + 10);
        directorySize_ = little32(tail, at + 12);
        directoryOffset_ = little32(tail, at + 16);
        archive_.comment_ = tail.substr(at + kEndSize);
        directoryEnd_ = endOffset;

        if (at >= kZip64LocatorSize && little32(tail, at - kZip64LocatorSize) == kZip64LocatorSignature) {
            std::size_t locator = at - kZip64LocatorSize;
            std::uint64_t zip64EndOffset = little64(tail, locator + 8);
            if (little32(tail, locator + 4) != 0 || little32(tail, locator + 16) > 1) {
                reason = "it spans several disks";
                return false;
            }
            if (zip64EndOffset > endOffset - kZip64LocatorSize ||
                endOffset - kZip64LocatorSize - zip64EndOffset < kZip64EndSize) {
                reason = "its ZIP64 end record lies outside the archive";
                return false;
            }
            std::string record;
            if (!source_.read(zip64EndOffset, kZip64EndSize, record, error)) {
                reason = "its ZIP64 end record cannot be read: " + error;
                return false;
            }
            if (little32(record, 0) != kZip64EndSignature) {
                reason = "its ZIP64 end record is missing";
                return false;
            }
            disk = little32(record, 16);
            directoryDisk = little32(record, 20);
            entriesOnDisk = little64(record, 24);
            entryCount_ = little64(record, 32);
            directorySize_ = little64(record, 40);
            directoryOffset_ = little64(record, 48);
            directoryEnd_ = zip64EndOffset;
        }
        if (disk != 0 || directoryDisk != 0 || entriesOnDisk != entryCount_) {
            reason = "it spans several disks";
            return false;
        }
        if (directoryOffset_ > directoryEnd_ || directorySize_ > directoryEnd_ - directoryOffset_) {
            reason = format("its central directory (%@ bytes at %@) lies beyond its end record", directorySize_,
                            directoryOffset_);
            return false;
        }
        if (directorySize_ > ZipArchive::kMaxCentralDirectorySize) {
            reason = format("its central directory of %@ bytes is larger than the %@ bytes read", directorySize_,
                            ZipArchive::kMaxCentralDirectorySize);
            return false;
        }
        if (entryCount_ > directorySize_ / kCentralSize) {
            reason = format("its %@ entries cannot fit in a central directory of %@ bytes", entryCount_, directorySize_);
            return false;
        }
        return true;
    }

    bool readEntries(std::string_view directory, std::string& reason) {
        std::size_t at = 0;
        for (std::uint64_t index = 0; index < entryCount_; ++index) {
            if (directory.size() - at < kCentralSize) {
                reason = format("its central directory is truncated at entry %@", index + 1);
                return false;
            }
            if (little32(directory, at) != kCentralSignature) {
                reason = format("entry %@ of its central directory has no header signature", index + 1);
                return false;
            }
            std::size_t nameLength = little16(directory, at + 28);
            std::size_t extraLength = little16(directory, at + 30);
            std::size_t commentLength = little16(directory, at + 32);
            std::size_t length = kCentralSize + nameLength + extraLength + commentLength;
            if (directory.size() - at < length) {
                reason = format("its central directory is truncated at entry %@", index + 1);
                return false;
            }
            readEntry(directory.substr(at, length), nameLength, extraLength);
            at += length;
        }
        return true;
    }

    void readEntry(std::string_view header, std::size_t nameLength, std::size_t extraLength) {
        ZipEntry entry;
        entry.storedName = std::string(header.substr(kCentralSize, nameLength));
        std::string_view extra = header.substr(kCentralSize + nameLength, extraLength);
        std::string problem = describeEntry(header, extra, entry);
        if (problem.empty() && !seenNames_.insert(entry.path).second) problem = "an entry of the same name comes first";
        if (!problem.empty()) {
            skip(entry.storedName, problem);
            return;
        }
        candidates_.push_back(std::move(entry));
    }

    // Fills the entry from its central header; the reason it cannot be trusted, or "".
    std::string describeEntry(std::string_view header, std::string_view extra, ZipEntry& entry) const {
        std::string problem = nameProblem(entry.storedName);
        if (!problem.empty()) return problem;
        std::uint8_t host = static_cast<std::uint8_t>(little16(header, 4) >> 8);
        entry.flags = little16(header, 8);
        entry.method = little16(header, 10);
        entry.crc32 = little32(header, 16);
        entry.compressedSize = little32(header, 20);
        entry.uncompressedSize = little32(header, 24);
        std::uint64_t startDisk = little16(header, 34);
        std::uint32_t external = little32(header, 38);
        entry.localHeaderOffset = little32(header, 42);
        entry.centralExtraLength = static_cast<std::uint16_t>(extra.size());
        if (!readZip64Values(extra, {{&entry.uncompressedSize, entry.uncompressedSize == kMax32, 8},
                                     {&entry.compressedSize, entry.compressedSize == kMax32, 8},
                                     {&entry.localHeaderOffset, entry.localHeaderOffset == kMax32, 8},
                                     {&startDisk, startDisk == kMax16, 4}})) {
            return "its ZIP64 sizes or offset are missing";
        }
        entry.unixMode = host == kHostUnix ? external >> 16 : 0;
        entry.isSymlink = S_ISLNK(entry.unixMode);
        entry.isFolder = entry.storedName.ends_with('/') || S_ISDIR(entry.unixMode);
        entry.path = entry.storedName.ends_with('/') ? entry.storedName.substr(0, entry.storedName.size() - 1)
                                                     : entry.storedName;
        entry.modified = extraTime(extra).value_or(dosTime(little16(header, 14), little16(header, 12)));

        std::uint64_t archiveSize = source_.size();
        if (entry.isFolder && entry.isSymlink) return "it is both a folder and a link";
        if (entry.flags & kFlagEncrypted) return "it is encrypted";
        if (entry.method != kZipMethodStored && entry.method != kZipMethodDeflate) {
            return format("it is compressed with method %@, which is not read", entry.method);
        }
        if (startDisk != 0) return "it starts on another disk";
        if (entry.localHeaderOffset >= archiveSize || entry.compressedSize > archiveSize) {
            return "it lies beyond the end of the archive";
        }
        if (entry.method == kZipMethodStored && entry.compressedSize != entry.uncompressedSize) {
            return "its stored size and its uncompressed size differ";
        }
        if (entry.isSymlink && entry.uncompressedSize > ZipArchive::kMaxLinkLength) {
            return format("its link text is longer than %@ bytes", ZipArchive::kMaxLinkLength);
        }
        if (entry.uncompressedSize > ZipArchive::kRatioCheckedAbove &&
            entry.uncompressedSize / ZipArchive::kMaxCompressionRatio >= std::max<std::uint64_t>(entry.compressedSize, 1)) {
            return format("it claims to inflate %@ bytes from %@ (more than %@:1)", entry.uncompressedSize,
                          entry.compressedSize, ZipArchive::kMaxCompressionRatio);
        }
        return {};
    }

    // Entries are taken in the order of their bytes in the file; one that starts inside
    // the bytes of an entry kept before it, or runs into the central directory, is left out.
    void keepEntriesThatDoNotOverlap() {
        std::vector<std::size_t> order(candidates_.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return candidates_[a].localHeaderOffset < candidates_[b].localHeaderOffset;
        });
        std::vector<bool> kept(candidates_.size(), false);
        std::uint64_t keptEnd = 0;
        std::size_t previous = candidates_.size();
        for (std::size_t index : order) {
            ZipEntry& entry = candidates_[index];
            // No overflow: the offset and the compressed size are each below the archive's size.
            std::uint64_t minimalEnd =
                entry.localHeaderOffset + kLocalSize + entry.storedName.size() + entry.compressedSize;
            if (entry.localHeaderOffset < keptEnd) {
                skip(entry.storedName, "its bytes overlap those of another entry");
                continue;
            }
            if (minimalEnd > directoryOffset_) {
                skip(entry.storedName, "its bytes run into the central directory");
                continue;
            }
            if (previous < candidates_.size()) candidates_[previous].extentLimit = entry.localHeaderOffset;
            kept[index] = true;
            keptEnd = minimalEnd;
            previous = index;
        }
        if (previous < candidates_.size()) candidates_[previous].extentLimit = directoryOffset_;
        for (std::size_t index = 0; index < candidates_.size(); ++index) {
            if (kept[index]) archive_.entries_.push_back(std::move(candidates_[index]));
        }
    }

    void skip(const std::string& name, const std::string& reason) {
        warnZipEntryLeftOut(source_.name(), name, reason);
        archive_.skipped_.push_back({name, reason});
    }

    ZipArchive& archive_;
    ByteSource& source_;
    std::uint64_t entryCount_ = 0;
    std::uint64_t directorySize_ = 0;
    std::uint64_t directoryOffset_ = 0;
    std::uint64_t directoryEnd_ = 0;
    std::vector<ZipEntry> candidates_;
    std::set<std::string> seenNames_;
};

void warnZipEntryLeftOut(const std::string& archive, std::string_view name, std::string_view reason) {
    Log("!!! WARNING: \"%@\" in the zip archive \"%@\" is left out: %@.", printable(name), archive, reason);
}

std::unique_ptr<ZipArchive> ZipArchive::open(std::shared_ptr<ByteSource> source, std::string& error) {
    std::unique_ptr<ZipArchive> archive(new ZipArchive(std::move(source)));
    std::string reason;
    if (!ZipDirectoryReader(*archive).read(reason)) {
        error = format("\"%@\" cannot be read as a zip archive: %@.", archive->name(), reason);
        return nullptr;
    }
    return archive;
}

const ZipEntry* ZipArchive::find(std::string_view path) const {
    auto found = byPath_.find(std::string(path));
    return found == byPath_.end() ? nullptr : &entries_[found->second];
}

std::string ZipArchive::entryError(const ZipEntry& entry, std::string_view reason) const {
    return format("\"%@\" in the zip archive \"%@\": %@.", printable(entry.path), name(), reason);
}

bool ZipArchive::locateData(const ZipEntry& entry, DataStart& start, std::string& error) const {
    std::uint64_t room = entry.extentLimit - entry.localHeaderOffset;
    std::uint64_t guess = kLocalSize + entry.storedName.size() + entry.centralExtraLength + kLocalExtraAllowance;
    if (entry.compressedSize <= kPrefetchedDataLimit) guess += entry.compressedSize;
    std::string header;
    std::string readError;
    if (room < kLocalSize) {
        error = entryError(entry, "its local header lies beyond its place in the archive");
        return false;
    }
    if (!source_->read(entry.localHeaderOffset, static_cast<std::size_t>(std::min(room, guess)), header, readError)) {
        error = entryError(entry, "its local header cannot be read: " + readError);
        return false;
    }
    if (little32(header, 0) != kLocalSignature) {
        error = entryError(entry, "its local header is missing");
        return false;
    }
    std::uint16_t flags = little16(header, 6);
    std::size_t nameLength = little16(header, 26);
    std::size_t extraLength = little16(header, 28);
    std::uint64_t dataOffset = entry.localHeaderOffset + kLocalSize + nameLength + extraLength;
    if (dataOffset > entry.extentLimit || entry.compressedSize > entry.extentLimit - dataOffset) {
        error = entryError(entry, "its data runs into the next entry or the central directory");
        return false;
    }
    std::size_t headerLength = kLocalSize + nameLength + extraLength;
    if (header.size() < headerLength) {
        std::string rest;
        if (!source_->read(entry.localHeaderOffset + header.size(), headerLength - header.size(), rest, readError)) {
            error = entryError(entry, "its local header cannot be read: " + readError);
            return false;
        }
        header += rest;
    }
    std::string_view view(header);
    if (view.substr(kLocalSize, nameLength) != entry.storedName) {
        error = entryError(entry, format("its local header names \"%@\"", printable(view.substr(kLocalSize, nameLength))));
        return false;
    }
    if (little16(header, 8) != entry.method) {
        error = entryError(entry, "its local header gives another compression method");
        return false;
    }
    if (!(flags & kFlagDataDescriptor)) {
        std::uint64_t compressed = little32(header, 18);
        std::uint64_t uncompressed = little32(header, 22);
        std::string_view extra = view.substr(kLocalSize + nameLength, extraLength);
        bool complete = readZip64Values(extra, {{&uncompressed, uncompressed == kMax32, 8},
                                                {&compressed, compressed == kMax32, 8}});
        if (!complete || compressed != entry.compressedSize || uncompressed != entry.uncompressedSize) {
            error = entryError(entry, "its local header gives other sizes than the central directory");
            return false;
        }
        if (little32(header, 14) != entry.crc32) {
            error = entryError(entry, "its local header gives another CRC-32 than the central directory");
            return false;
        }
    }
    start.offset = dataOffset;
    start.prefetched = header.size() > headerLength ? header.substr(headerLength) : std::string();
    if (start.prefetched.size() > entry.compressedSize) start.prefetched.resize(entry.compressedSize);
    return true;
}

// The bytes that came with the local header first, then the rest from where that read
// ended: a far source that fetched ahead serves the rest from what it already holds.
bool ZipArchive::feedStored(const ZipEntry& entry, const DataStart& start,
                            const std::function<bool(std::string_view)>& sink, std::string& error) const {
    if (!start.prefetched.empty() && !sink(start.prefetched)) return false;
    std::uint64_t rest = entry.compressedSize - start.prefetched.size();
    if (rest == 0) return true;
    return source_->stream({start.offset + start.prefetched.size(), rest}, sink, error);
}

bool ZipArchive::dataRange(const ZipEntry& entry, ByteRange& range, std::string& error) const {
    DataStart start;
    if (!locateData(entry, start, error)) return false;
    range = {start.offset, entry.compressedSize};
    return true;
}

namespace {

// Turns an entry's stored bytes into its content, checking as it goes that the content
// stays within the declared size.
class EntryDecoder {
public:
    EntryDecoder(const ZipEntry& entry, const std::function<bool(std::string_view)>& sink)
        : entry_(entry), sink_(sink), output_(entry.method == kZipMethodDeflate ? kInflateOutputPiece : 0, '\0') {
        if (entry.method == kZipMethodDeflate) {
            inflating_ = inflateInit2(&stream_, -MAX_WBITS) == Z_OK;
            if (!inflating_) problem_ = "the inflater cannot start";
        }
    }
    ~EntryDecoder() {
        if (inflating_) inflateEnd(&stream_);
    }
    EntryDecoder(const EntryDecoder&) = delete;
    EntryDecoder& operator=(const EntryDecoder&) = delete;

    // False to stop: a problem was found, or the sink asked to stop.
    bool feed(std::string_view input) {
        if (!problem_.empty()) return false;
        if (entry_.method == kZipMethodStored) return deliver(input);
        if (ended_) {
            if (!input.empty()) problem_ = "its compressed data ends before its declared compressed size";
            return input.empty();
        }
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
        stream_.avail_in = static_cast<uInt>(input.size());
        while (stream_.avail_in > 0 || !ended_) {
            stream_.next_out = reinterpret_cast<Bytef*>(output_.data());
            stream_.avail_out = static_cast<uInt>(output_.size());
            int status = inflate(&stream_, Z_NO_FLUSH);
            std::size_t produced = output_.size() - stream_.avail_out;
            if (status == Z_STREAM_END) {
                ended_ = true;
            } else if (status == Z_BUF_ERROR && produced == 0) {
                break;  // it wants more input
            } else if (status != Z_OK && status != Z_BUF_ERROR) {
                problem_ = "its compressed data is corrupt";
                return false;
            }
            if (produced > 0 && !deliver(std::string_view(output_.data(), produced))) return false;
            if (ended_) {
                if (stream_.avail_in > 0) {
                    problem_ = "its compressed data ends before its declared compressed size";
                    return false;
                }
                break;
            }
            if (stream_.avail_in == 0 && stream_.avail_out > 0) break;
        }
        return true;
    }

    // Checks the whole once every stored byte was fed.
    bool finish() {
        if (!problem_.empty()) return false;
        if (entry_.method == kZipMethodDeflate && !ended_) {
            problem_ = "its compressed data is cut short";
        } else if (produced_ != entry_.uncompressedSize) {
            problem_ = format("it holds %@ bytes, not the %@ declared", produced_, entry_.uncompressedSize);
        } else if (crc_ != entry_.crc32) {
            problem_ = "its CRC-32 does not match its content";
        }
        return problem_.empty();
    }

    const std::string& problem() const { return problem_; }

private:
    bool deliver(std::string_view piece) {
        if (piece.size() > entry_.uncompressedSize - produced_) {
            problem_ = format("it holds more than the %@ bytes declared", entry_.uncompressedSize);
            return false;
        }
        produced_ += piece.size();
        crc_ = static_cast<std::uint32_t>(
            ::crc32_z(crc_, reinterpret_cast<const Bytef*>(piece.data()), static_cast<z_size_t>(piece.size())));
        return sink_(piece);
    }

    const ZipEntry& entry_;
    const std::function<bool(std::string_view)>& sink_;
    std::string output_;
    z_stream stream_{};
    bool inflating_ = false;
    bool ended_ = false;
    std::uint64_t produced_ = 0;
    std::uint32_t crc_ = 0;
    std::string problem_;
};

}  // namespace

bool ZipArchive::passEntry(const ZipEntry& entry, const std::function<bool(std::string_view)>& decoded,
                           const std::function<bool(std::string_view)>* stored, std::string& error) const {
    DataStart start;
    if (!locateData(entry, start, error)) return false;
    EntryDecoder decoder(entry, decoded);
    std::string readError;
    bool fed = feedStored(
        entry, start, [&](std::string_view piece) { return decoder.feed(piece) && (!stored || (*stored)(piece)); },
        readError);
    if (fed && decoder.finish()) return true;
    if (!decoder.problem().empty()) {
        error = entryError(entry, decoder.problem());
    } else if (!readError.empty()) {
        error = entryError(entry, "its data cannot be read: " + readError);
    } else {
        error.clear();  // a sink stopped the reading
    }
    return false;
}

bool ZipArchive::streamEntry(const ZipEntry& entry, const std::function<bool(std::string_view)>& sink,
                             std::string& error) const {
    return passEntry(entry, sink, nullptr, error);
}

bool ZipArchive::copyStoredBytes(const ZipEntry& entry, const std::function<bool(std::string_view)>& sink,
                                 std::string& error) const {
    const std::function<bool(std::string_view)> discard = [](std::string_view) { return true; };
    return passEntry(entry, discard, &sink, error);
}

bool ZipArchive::readEntry(const ZipEntry& entry, std::string& out, std::string& error, std::uint64_t maxSize) const {
    out.clear();
    if (entry.uncompressedSize > maxSize) {
        error = entryError(entry, format("it holds %@ bytes, more than the %@ read at once", entry.uncompressedSize, maxSize));
        return false;
    }
    out.reserve(static_cast<std::size_t>(entry.uncompressedSize));
    bool read = streamEntry(entry, [&out](std::string_view piece) {
        out.append(piece);
        return true;
    }, error);
    if (!read) out.clear();
    return read;
}

}  // namespace whittle
