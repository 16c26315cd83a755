// Zip archives for tests: byte sources held in memory (with holes standing for
// gigabytes never stored), and a builder of archives byte by byte whose every field a
// test can bend, for the hostile cases no archiver would write.
#pragma once

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/ByteSource.hpp"

namespace whittle::test {

// Bytes at given offsets of a source of a given size; every other byte reads as zero.
class MemoryByteSource : public ByteSource {
public:
    struct Piece {
        std::uint64_t offset;
        std::string bytes;
    };
    MemoryByteSource(std::string name, std::uint64_t size, std::vector<Piece> pieces)
        : name_(std::move(name)), size_(size), pieces_(std::move(pieces)) {}
    MemoryByteSource(std::string name, std::string bytes)
        : MemoryByteSource(std::move(name), bytes.size(), {{0, std::move(bytes)}}) {}

    const std::string& name() const override { return name_; }
    std::uint64_t size() const override { return size_; }
    bool read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) override {
        if (offset > size_ || length > size_ - offset) {
            error = "beyond the end";
            return false;
        }
        out.assign(length, '\0');
        for (const auto& piece : pieces_) {
            std::uint64_t start = std::max(offset, piece.offset);
            std::uint64_t end = std::min(offset + length, piece.offset + piece.bytes.size());
            if (start < end) piece.bytes.copy(out.data() + (start - offset), end - start, start - piece.offset);
        }
        fetched_ += length;
        reads_.push_back({offset, length});
        return true;
    }
    std::uint64_t bytesFetched() const override { return fetched_; }
    const std::vector<ByteRange>& reads() const { return reads_; }

private:
    std::string name_;
    std::uint64_t size_;
    std::vector<Piece> pieces_;
    std::uint64_t fetched_ = 0;
    std::vector<ByteRange> reads_;
};

inline std::string rawDeflate(const std::string& content) {
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&stream, content.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

inline std::uint32_t crcOf(const std::string& content) {
    return static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size())));
}

// One entry as the builder writes it; the optional fields bend what is written.
struct ZipEntrySpec {
    std::string name;
    std::string content;                    // uncompressed
    std::uint16_t method = 8;
    std::uint32_t unixMode = 0100644;
    std::uint16_t flags = 0;
    std::uint16_t dosDate = (45 << 9) | (3 << 5) | 14;  // 2025-03-14
    std::uint16_t dosTime = (15 << 11) | (9 << 5) | 13;  // 15:09:26
    std::string centralExtra;
    std::string localExtra;
    bool zip64 = false;                     // sizes and offset through the ZIP64 field
    std::uint64_t holeBefore = 0;           // unstored zero bytes before the local header
    std::optional<std::string> stored;      // the stored bytes, instead of the compressed content
    std::optional<std::uint32_t> centralCrc;
    std::optional<std::uint64_t> centralUncompressed;
    std::optional<std::uint64_t> centralCompressed;
    std::optional<std::uint64_t> centralOffset;
    std::optional<std::string> localName;
    std::optional<std::uint16_t> localMethod;
    std::optional<std::uint32_t> localCrc;
    std::optional<std::uint64_t> localUncompressed;
};

inline ZipEntrySpec fileSpec(std::string name, std::string content, std::uint16_t method = 8) {
    ZipEntrySpec spec;
    spec.name = std::move(name);
    spec.content = std::move(content);
    spec.method = method;
    return spec;
}
inline ZipEntrySpec folderSpec(std::string name) {
    ZipEntrySpec spec;
    spec.name = std::move(name);
    spec.method = 0;
    spec.unixMode = 040755;
    return spec;
}
inline ZipEntrySpec linkSpec(std::string name, std::string target) {
    ZipEntrySpec spec;
    spec.name = std::move(name);
    spec.content = std::move(target);
    spec.method = 0;
    spec.unixMode = 0120777;
    return spec;
}

struct BuiltZip {
    std::uint64_t size = 0;
    std::vector<MemoryByteSource::Piece> pieces;
    std::vector<std::uint64_t> localOffsets;
    std::uint64_t directoryOffset = 0;
    std::uint64_t directorySize = 0;
    std::uint64_t endOffset = 0;

    // The whole archive as one string (holes written out).
    std::string bytes() const {
        std::string out(size, '\0');
        for (const auto& piece : pieces) out.replace(piece.offset, piece.bytes.size(), piece.bytes);
        return out;
    }
};

struct ZipSpec {
    std::vector<ZipEntrySpec> entries;
    std::string comment;
    bool zip64End = false;
    // Bends of the end record (the ZIP64 one when zip64End).
    std::optional<std::uint64_t> entryCount;
    std::optional<std::uint64_t> directoryOffset;
    std::optional<std::uint64_t> directorySize;
    std::uint16_t disk = 0;
    std::string extraCentralBytes;  // written after the last central header, counted in its size
};

class ZipBuilder {
public:
    static BuiltZip build(const ZipSpec& spec) {
        BuiltZip built;
        std::string current;
        std::uint64_t currentStart = 0;
        std::vector<std::string> centrals;
        auto flush = [&] {
            if (!current.empty()) built.pieces.push_back({currentStart, current});
            current.clear();
        };
        auto position = [&] { return currentStart + current.size(); };
        for (const auto& entry : spec.entries) {
            if (entry.holeBefore) {
                std::uint64_t afterHole = position() + entry.holeBefore;
                flush();
                currentStart = afterHole;
            }
            std::uint64_t offset = position();
            built.localOffsets.push_back(offset);
            std::string data = entry.stored ? *entry.stored : entry.method == 8 ? rawDeflate(entry.content) : entry.content;
            std::uint32_t crc = crcOf(entry.content);
            std::uint64_t uncompressed = entry.content.size();
            std::string localName = entry.localName.value_or(entry.name);
            std::string localExtra = entry.localExtra;
            if (entry.zip64) localExtra += zip64Field({entry.localUncompressed.value_or(uncompressed), data.size()});
            put32(current, 0x04034b50);
            put16(current, 45);
            put16(current, entry.flags);
            put16(current, entry.localMethod.value_or(entry.method));
            put16(current, entry.dosTime);
            put16(current, entry.dosDate);
            put32(current, entry.localCrc.value_or(crc));
            put32(current, entry.zip64 ? 0xffffffff : static_cast<std::uint32_t>(data.size()));
            put32(current, entry.zip64 ? 0xffffffff : static_cast<std::uint32_t>(entry.localUncompressed.value_or(uncompressed)));
            put16(current, static_cast<std::uint16_t>(localName.size()));
            put16(current, static_cast<std::uint16_t>(localExtra.size()));
            current += localName;
            current += localExtra;
            current += data;

            std::uint64_t centralOffset = entry.centralOffset.value_or(offset);
            std::uint64_t centralUncompressed = entry.centralUncompressed.value_or(uncompressed);
            std::uint64_t centralCompressed = entry.centralCompressed.value_or(data.size());
            std::string centralExtra = entry.centralExtra;
            if (entry.zip64) centralExtra += zip64Field({centralUncompressed, centralCompressed, centralOffset});
            std::string central;
            put32(central, 0x02014b50);
            put16(central, (3 << 8) | 45);
            put16(central, 45);
            put16(central, entry.flags);
            put16(central, entry.method);
            put16(central, entry.dosTime);
            put16(central, entry.dosDate);
            put32(central, entry.centralCrc.value_or(crc));
            put32(central, entry.zip64 ? 0xffffffff : static_cast<std::uint32_t>(centralCompressed));
            put32(central, entry.zip64 ? 0xffffffff : static_cast<std::uint32_t>(centralUncompressed));
            put16(central, static_cast<std::uint16_t>(entry.name.size()));
            put16(central, static_cast<std::uint16_t>(centralExtra.size()));
            put16(central, 0);
            put16(central, 0);
            put16(central, 0);
            put32(central, entry.unixMode << 16);
            put32(central, entry.zip64 ? 0xffffffff : static_cast<std::uint32_t>(centralOffset));
            central += entry.name;
            central += centralExtra;
            centrals.push_back(central);
        }
        built.directoryOffset = position();
        for (const auto& central : centrals) current += central;
        current += spec.extraCentralBytes;
        built.directorySize = position() - built.directoryOffset;
        std::uint64_t count = spec.entryCount.value_or(spec.entries.size());
        std::uint64_t directoryOffset = spec.directoryOffset.value_or(built.directoryOffset);
        std::uint64_t directorySize = spec.directorySize.value_or(built.directorySize);
        if (spec.zip64End) {
            std::uint64_t zip64End = position();
            put32(current, 0x06064b50);
            put64(current, 44);
            put16(current, 45);
            put16(current, 45);
            put32(current, spec.disk);
            put32(current, spec.disk);
            put64(current, count);
            put64(current, count);
            put64(current, directorySize);
            put64(current, directoryOffset);
            put32(current, 0x07064b50);
            put32(current, 0);
            put64(current, zip64End);
            put32(current, 1);
        }
        built.endOffset = position();
        put32(current, 0x06054b50);
        put16(current, spec.zip64End ? 0xffff : spec.disk);
        put16(current, spec.zip64End ? 0xffff : spec.disk);
        put16(current, spec.zip64End ? 0xffff : static_cast<std::uint16_t>(count));
        put16(current, spec.zip64End ? 0xffff : static_cast<std::uint16_t>(count));
        put32(current, spec.zip64End ? 0xffffffff : static_cast<std::uint32_t>(directorySize));
        put32(current, spec.zip64End ? 0xffffffff : static_cast<std::uint32_t>(directoryOffset));
        put16(current, static_cast<std::uint16_t>(spec.comment.size()));
        current += spec.comment;
        built.size = position();
        flush();
        return built;
    }

    static void put16(std::string& out, std::uint64_t value) {
        out += static_cast<char>(value & 0xff);
        out += static_cast<char>((value >> 8) & 0xff);
    }
    static void put32(std::string& out, std::uint64_t value) {
        put16(out, value & 0xffff);
        put16(out, (value >> 16) & 0xffff);
    }
    static void put64(std::string& out, std::uint64_t value) {
        put32(out, value & 0xffffffff);
        put32(out, value >> 32);
    }

private:
    static std::string zip64Field(std::initializer_list<std::uint64_t> values) {
        std::string field;
        put16(field, 0x0001);
        put16(field, values.size() * 8);
        for (std::uint64_t value : values) put64(field, value);
        return field;
    }
};

}  // namespace whittle::test
