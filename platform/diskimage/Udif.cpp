#include "platform/diskimage/Udif.hpp"

#include <sys/stat.h>

#include <cerrno>

#include <charconv>

#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/Crc32.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "support/PlistCodec.hpp"
#include "support/Value.hpp"

namespace whittle::diskimage {

namespace fmt = format;

namespace {

// The largest sector count any field may hold: its byte count must fit in 63 bits.
constexpr std::uint64_t kLargestSectorCount = 1ull << 54;

std::string hex32(std::uint32_t value) {
    char text[16];
    auto [end, error] = std::to_chars(text, text + sizeof text, value, 16);
    (void)error;
    return "0x" + std::string(text, end);
}

// a + b <= limit, without overflow.
bool fitsWithin(std::uint64_t a, std::uint64_t b, std::uint64_t limit) { return a <= limit && b <= limit - a; }

void writeChecksum(std::string& bytes, std::size_t offset, const ChecksumRecord& record) {
    writeBig32(bytes, offset, record.type);
    writeBig32(bytes, offset + 4, record.bits);
    if (record.isCrc32()) writeBig32(bytes, offset + fmt::checksum::kValueOffset, record.value);
}

ChecksumRecord readChecksum(std::string_view bytes, std::size_t offset) {
    ChecksumRecord record;
    record.type = readBig32(bytes, offset);
    record.bits = readBig32(bytes, offset + 4);
    record.value = readBig32(bytes, offset + fmt::checksum::kValueOffset);
    return record;
}

}  // namespace

ChecksumRecord ChecksumRecord::crc32(std::uint32_t crcValue) {
    return ChecksumRecord{fmt::checksum::kTypeCrc32, fmt::checksum::kBitsCrc32, crcValue};
}

bool ChecksumRecord::isCrc32() const { return type == fmt::checksum::kTypeCrc32 && bits == fmt::checksum::kBitsCrc32; }

bool Chunk::isStored() const {
    return type == fmt::chunks::kTypeRaw || (type >= fmt::chunks::kTypeAdc && type <= fmt::chunks::kTypeLzma);
}

// ---- trailer ----

std::string serializeTrailer(const Trailer& trailer) {
    namespace t = fmt::trailer;
    std::string bytes(t::kSize, '\0');
    writeText(bytes, t::kOffsetSignature, t::kSignature);
    writeBig32(bytes, t::kOffsetVersion, trailer.version);
    writeBig32(bytes, t::kOffsetHeaderSize, trailer.headerSize);
    writeBig32(bytes, t::kOffsetFlags, trailer.flags);
    writeBig64(bytes, t::kOffsetDataForkOffset, trailer.dataForkOffset);
    writeBig64(bytes, t::kOffsetDataForkLength, trailer.dataForkLength);
    writeBig64(bytes, t::kOffsetResourceForkOffset, trailer.resourceForkOffset);
    writeBig64(bytes, t::kOffsetResourceForkLength, trailer.resourceForkLength);
    writeBig32(bytes, t::kOffsetSegmentNumber, trailer.segmentNumber);
    writeBig32(bytes, t::kOffsetSegmentCount, trailer.segmentCount);
    writeChecksum(bytes, t::kOffsetDataForkChecksum, trailer.dataForkChecksum);
    writeBig64(bytes, t::kOffsetXmlOffset, trailer.xmlOffset);
    writeBig64(bytes, t::kOffsetXmlLength, trailer.xmlLength);
    writeChecksum(bytes, t::kOffsetMasterChecksum, trailer.masterChecksum);
    writeBig32(bytes, t::kOffsetImageVariant, trailer.imageVariant);
    writeBig64(bytes, t::kOffsetSectorCount, trailer.sectorCount);
    return bytes;
}

Trailer parseTrailer(std::string_view bytes) {
    namespace t = fmt::trailer;
    if (bytes.size() != t::kSize || bytes.substr(t::kOffsetSignature, 4) != t::kSignature)
        throw DiskImageError("no disk image trailer at the end of the file");
    Trailer trailer;
    trailer.version = readBig32(bytes, t::kOffsetVersion);
    trailer.headerSize = readBig32(bytes, t::kOffsetHeaderSize);
    if (trailer.version != t::kVersion || trailer.headerSize != t::kSize)
        throw DiskImageError("unsupported trailer version " + std::to_string(trailer.version));
    trailer.flags = readBig32(bytes, t::kOffsetFlags);
    trailer.dataForkOffset = readBig64(bytes, t::kOffsetDataForkOffset);
    trailer.dataForkLength = readBig64(bytes, t::kOffsetDataForkLength);
    trailer.resourceForkOffset = readBig64(bytes, t::kOffsetResourceForkOffset);
    trailer.resourceForkLength = readBig64(bytes, t::kOffsetResourceForkLength);
    trailer.segmentNumber = readBig32(bytes, t::kOffsetSegmentNumber);
    trailer.segmentCount = readBig32(bytes, t::kOffsetSegmentCount);
    trailer.dataForkChecksum = readChecksum(bytes, t::kOffsetDataForkChecksum);
    trailer.xmlOffset = readBig64(bytes, t::kOffsetXmlOffset);
    trailer.xmlLength = readBig64(bytes, t::kOffsetXmlLength);
    trailer.masterChecksum = readChecksum(bytes, t::kOffsetMasterChecksum);
    trailer.imageVariant = readBig32(bytes, t::kOffsetImageVariant);
    trailer.sectorCount = readBig64(bytes, t::kOffsetSectorCount);
    return trailer;
}

// ---- chunk tables ----

std::string serializeChunkTable(const ChunkTable& table) {
    namespace c = fmt::chunks;
    std::string bytes(c::kHeaderSize + c::kEntrySize * table.chunks.size(), '\0');
    writeText(bytes, c::kOffsetSignature, c::kSignature);
    writeBig32(bytes, c::kOffsetVersion, c::kVersion);
    writeBig64(bytes, c::kOffsetFirstSector, table.firstSector);
    writeBig64(bytes, c::kOffsetSectorCount, table.sectorCount);
    writeBig64(bytes, c::kOffsetDataOffset, table.dataOffset);
    writeBig32(bytes, c::kOffsetBuffersNeeded, table.buffersNeeded);
    writeBig32(bytes, c::kOffsetBlockDescriptor, table.blockDescriptor);
    writeChecksum(bytes, c::kOffsetChecksum, table.checksum);
    writeBig32(bytes, c::kOffsetEntryCount, static_cast<std::uint32_t>(table.chunks.size()));
    std::size_t offset = c::kHeaderSize;
    for (const Chunk& chunk : table.chunks) {
        writeBig32(bytes, offset + c::kEntryOffsetType, chunk.type);
        writeBig32(bytes, offset + c::kEntryOffsetComment, chunk.comment);
        writeBig64(bytes, offset + c::kEntryOffsetFirstSector, chunk.firstSector);
        writeBig64(bytes, offset + c::kEntryOffsetSectorCount, chunk.sectorCount);
        writeBig64(bytes, offset + c::kEntryOffsetStoredOffset, chunk.storedOffset);
        writeBig64(bytes, offset + c::kEntryOffsetStoredLength, chunk.storedLength);
        offset += c::kEntrySize;
    }
    return bytes;
}

namespace {

Chunk readChunk(std::string_view bytes, std::size_t offset) {
    namespace c = fmt::chunks;
    Chunk chunk;
    chunk.type = readBig32(bytes, offset + c::kEntryOffsetType);
    chunk.comment = readBig32(bytes, offset + c::kEntryOffsetComment);
    chunk.firstSector = readBig64(bytes, offset + c::kEntryOffsetFirstSector);
    chunk.sectorCount = readBig64(bytes, offset + c::kEntryOffsetSectorCount);
    chunk.storedOffset = readBig64(bytes, offset + c::kEntryOffsetStoredOffset);
    chunk.storedLength = readBig64(bytes, offset + c::kEntryOffsetStoredLength);
    return chunk;
}

bool isKnownChunkType(std::uint32_t type) {
    namespace c = fmt::chunks;
    return type == c::kTypeZeroFill || type == c::kTypeRaw || type == c::kTypeIgnore ||
           (type >= c::kTypeAdc && type <= c::kTypeLzma) || type == c::kTypeComment || type == c::kTypeTerminator;
}

void checkChunk(const Chunk& chunk, std::uint64_t expectedFirstSector) {
    namespace c = fmt::chunks;
    if (!isKnownChunkType(chunk.type)) throw DiskImageError("unknown chunk type " + hex32(chunk.type));
    if (chunk.type == c::kTypeComment) {
        if (chunk.sectorCount != 0) throw DiskImageError("a comment chunk covers sectors");
        return;
    }
    if (chunk.firstSector != expectedFirstSector) throw DiskImageError("chunks do not follow each other");
    if (chunk.sectorCount > kLargestSectorCount) throw DiskImageError("a chunk has an impossible sector count");
    if (chunk.type == c::kTypeRaw && chunk.storedLength != chunk.sectorCount * fmt::kSectorSize)
        throw DiskImageError("a raw chunk's stored length does not match its sectors");
    if ((chunk.type == c::kTypeZeroFill || chunk.type == c::kTypeIgnore) && chunk.storedLength != 0)
        throw DiskImageError("a zero chunk has stored bytes");
    if (chunk.isStored() && chunk.storedLength == 0) throw DiskImageError("a compressed chunk is empty");
}

}  // namespace

ChunkTable parseChunkTable(std::string_view bytes) {
    namespace c = fmt::chunks;
    if (bytes.size() < c::kHeaderSize || bytes.substr(c::kOffsetSignature, 4) != c::kSignature)
        throw DiskImageError("a chunk table has no signature");
    if (readBig32(bytes, c::kOffsetVersion) != c::kVersion) throw DiskImageError("unsupported chunk table version");
    std::uint64_t entryCount = readBig32(bytes, c::kOffsetEntryCount);
    if (entryCount == 0 || bytes.size() != c::kHeaderSize + c::kEntrySize * entryCount)
        throw DiskImageError("a chunk table's size does not match its entry count");

    ChunkTable table;
    table.firstSector = readBig64(bytes, c::kOffsetFirstSector);
    table.sectorCount = readBig64(bytes, c::kOffsetSectorCount);
    table.dataOffset = readBig64(bytes, c::kOffsetDataOffset);
    table.buffersNeeded = readBig32(bytes, c::kOffsetBuffersNeeded);
    table.blockDescriptor = readBig32(bytes, c::kOffsetBlockDescriptor);
    table.checksum = readChecksum(bytes, c::kOffsetChecksum);
    if (table.firstSector > kLargestSectorCount || table.sectorCount > kLargestSectorCount)
        throw DiskImageError("a chunk table has an impossible sector count");

    table.chunks.reserve(entryCount);
    std::uint64_t covered = 0;
    for (std::uint64_t i = 0; i < entryCount; ++i) {
        Chunk chunk = readChunk(bytes, c::kHeaderSize + c::kEntrySize * i);
        bool last = i + 1 == entryCount;
        if ((chunk.type == c::kTypeTerminator) != last) throw DiskImageError("a chunk table's terminator is misplaced");
        if (!last) {
            checkChunk(chunk, covered);
            covered += chunk.sectorCount;
            if (covered > table.sectorCount) throw DiskImageError("chunks reach beyond their table");
        }
        table.chunks.push_back(chunk);
    }
    if (covered != table.sectorCount) throw DiskImageError("chunks do not cover their table");
    return table;
}

// ---- resource list ----

namespace {

Value plstResource() {
    std::string bytes(fmt::resources::kPlstSize, '\0');
    for (std::size_t index : fmt::resources::kPlstOneBytes) bytes[index] = 1;
    namespace r = fmt::resources;
    Value resource = Value::dictionary();
    resource.set(r::kAttributes, Value::string(std::string(r::kAttributesValue)));
    resource.set(r::kData, Value::data(std::move(bytes)));
    resource.set(r::kId, Value::string(std::string(r::kPlstId)));
    resource.set(r::kName, Value::string(""));
    return resource;
}

Value blockTableResource(const BlockTableEntry& entry) {
    namespace r = fmt::resources;
    // Keys come out sorted, which puts Name after Data as line-oriented readers expect.
    Value resource = Value::dictionary();
    resource.set(r::kAttributes, Value::string(std::string(r::kAttributesValue)));
    resource.set(r::kCFName, Value::string(entry.name));
    resource.set(r::kData, Value::data(serializeChunkTable(entry.table)));
    resource.set(r::kId, Value::string(entry.id));
    resource.set(r::kName, Value::string(entry.name));
    return resource;
}

}  // namespace

std::string resourceListXml(const std::vector<BlockTableEntry>& entries) {
    namespace r = fmt::resources;
    ValueArray tables;
    tables.reserve(entries.size());
    for (const auto& entry : entries) tables.push_back(blockTableResource(entry));
    Value resources = Value::dictionary();
    resources.set(r::kBlockTables, Value::array(std::move(tables)));
    resources.set(r::kPlstResource, Value::array({plstResource()}));
    Value root = Value::dictionary();
    root.set(r::kResourceFork, resources);
    return xmlPropertyList(root);
}

std::vector<BlockTableEntry> parseResourceList(std::string_view xml) {
    namespace r = fmt::resources;
    Value root = parsePropertyList(xml);
    if (!root.isDictionary()) throw DiskImageError("the resource list is not a readable property list");
    Value tables = root.get(r::kResourceFork).get(r::kBlockTables);
    if (!tables.isArray() || tables.count() == 0) throw DiskImageError("the resource list has no chunk tables");

    std::vector<BlockTableEntry> entries;
    entries.reserve(tables.count());
    for (std::size_t i = 0; i < tables.count(); ++i) {
        Value resource = tables.at(i);
        const Data* data = resource.get(r::kData).asData();
        if (!data) throw DiskImageError("chunk table " + std::to_string(i) + " has no data");
        BlockTableEntry entry;
        entry.name = std::string(resource.get(r::kName).text());
        if (entry.name.empty()) entry.name = std::string(resource.get(r::kCFName).text());
        entry.id = std::string(resource.get(r::kId).text());
        try {
            entry.table = parseChunkTable(data->bytes);
        } catch (const DiskImageError& error) {
            throw DiskImageError("chunk table " + std::to_string(i) + ": " + error.what());
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::uint32_t masterChecksumOf(const std::vector<BlockTableEntry>& entries) {
    std::uint32_t crc = 0;
    for (const auto& entry : entries) {
        std::string value(4, '\0');
        writeBig32(value, 0, entry.table.checksum.value);
        crc = crc32Update(crc, value);
    }
    return crc;
}

// ---- reading a whole image ----

bool endsWithTrailer(int fd, std::uint64_t fileSize) {
    if (fileSize < fmt::trailer::kSize) return false;
    char signature[4];
    ssize_t got = ::pread(fd, signature, sizeof signature, static_cast<off_t>(fileSize - fmt::trailer::kSize));
    return got == 4 && std::string_view(signature, 4) == fmt::trailer::kSignature;
}

namespace {

void checkForks(const Trailer& trailer, std::uint64_t fileSize) {
    if (trailer.xmlLength == 0) {
        if (trailer.resourceForkLength != 0)
            throw DiskImageError("images whose tables are kept in an old-style resource fork are not supported");
        throw DiskImageError("the image has no resource list");
    }
    if (trailer.xmlLength > fmt::resources::kLargestResourceList)
        throw DiskImageError("the resource list is implausibly large");
    if (!fitsWithin(trailer.xmlOffset, trailer.xmlLength, fileSize))
        throw DiskImageError("the resource list lies outside the file");
    if (!fitsWithin(trailer.dataForkOffset, trailer.dataForkLength, fileSize))
        throw DiskImageError("the data fork lies outside the file");
    if (trailer.sectorCount == 0 || trailer.sectorCount > kLargestSectorCount)
        throw DiskImageError("the image has an impossible sector count");
}

void checkStoredChunks(const ChunkTable& table, const Trailer& trailer) {
    for (const Chunk& chunk : table.chunks) {
        if (!chunk.isStored()) continue;
        // Offsets count from the data fork's start plus the table's data offset.
        if (table.dataOffset > trailer.dataForkLength ||
            !fitsWithin(chunk.storedOffset, chunk.storedLength, trailer.dataForkLength - table.dataOffset))
            throw DiskImageError("a chunk's bytes lie outside the data fork");
    }
}

void checkTiling(const std::vector<BlockTableEntry>& entries, const Trailer& trailer) {
    std::uint64_t nextSector = 0;
    for (const auto& entry : entries) {
        if (entry.table.firstSector != nextSector) throw DiskImageError("the chunk tables do not follow each other");
        nextSector += entry.table.sectorCount;
        if (nextSector > trailer.sectorCount) throw DiskImageError("the chunk tables reach beyond the disk");
        checkStoredChunks(entry.table, trailer);
    }
    if (nextSector != trailer.sectorCount) throw DiskImageError("the chunk tables do not cover the disk");
}

}  // namespace

UdifImage readUdifImage(int fd, const std::string& path) {
    UdifImage image;
    struct stat status = statusOf(fd, path);
    if (!S_ISREG(status.st_mode)) throw DiskImageError("\"" + path + "\" is not a file");
    image.fileSize = static_cast<std::uint64_t>(status.st_size);
    try {
        if (image.fileSize < fmt::trailer::kSize) throw DiskImageError("the file is too short to be a disk image");
        image.trailer = parseTrailer(readAt(fd, image.fileSize - fmt::trailer::kSize, fmt::trailer::kSize, path));
        checkForks(image.trailer, image.fileSize);
        std::string xml = readAt(fd, image.trailer.xmlOffset, image.trailer.xmlLength, path);
        image.entries = parseResourceList(xml);
        checkTiling(image.entries, image.trailer);
    } catch (const DiskImageError& error) {
        throw DiskImageError("\"" + path + "\" is not a readable disk image: " + error.what());
    }
    return image;
}

// ---- verifying ----

bool hasOnlyRawChunks(const UdifImage& image) {
    for (const auto& entry : image.entries)
        for (const Chunk& chunk : entry.table.chunks)
            if (chunk.isStored() && chunk.type != fmt::chunks::kTypeRaw) return false;
    return true;
}

namespace {

constexpr std::size_t kReadPiece = 1 << 20;

// Extends a CRC-32 by length bytes of the file at offset, read a piece at a time.
std::uint32_t crcOfStored(int fd, std::uint64_t offset, std::uint64_t length, std::uint32_t crc,
                          const std::string& path) {
    while (length > 0) {
        std::size_t step = length < kReadPiece ? static_cast<std::size_t>(length) : kReadPiece;
        crc = crc32Update(crc, readAt(fd, offset, step, path));
        offset += step;
        length -= step;
    }
    return crc;
}

}  // namespace

void verifyRawImage(int fd, const UdifImage& image, const std::string& path) {
    namespace c = fmt::chunks;
    const std::uint64_t dataFork = image.trailer.dataForkOffset;
    for (const auto& entry : image.entries) {
        if (!entry.table.checksum.isCrc32()) continue;
        std::uint32_t crc = 0;
        for (const Chunk& chunk : entry.table.chunks) {
            if (chunk.type == c::kTypeRaw)
                crc = crcOfStored(fd, dataFork + entry.table.dataOffset + chunk.storedOffset, chunk.storedLength, crc,
                                  path);
            else if (chunk.type == c::kTypeZeroFill)
                crc = crc32AppendZeros(crc, chunk.sectorCount * fmt::kSectorSize);
        }
        if (crc != entry.table.checksum.value)
            throw DiskImageError("\"" + path + "\" is damaged: the checksum of \"" + entry.name + "\" does not match");
    }
    const ChecksumRecord& whole = image.trailer.dataForkChecksum;
    if (whole.isCrc32() && crcOfStored(fd, dataFork, image.trailer.dataForkLength, 0, path) != whole.value)
        throw DiskImageError("\"" + path + "\" is damaged: the checksum of its data does not match");
}

// ---- expanding ----

namespace {

constexpr std::size_t kExpandBufferSize = 1 << 20;

void writeZeros(int outputFd, std::uint64_t count, const std::string& path) {
    static const std::string zeros(kExpandBufferSize, '\0');
    while (count > 0) {
        std::size_t step = count < zeros.size() ? static_cast<std::size_t>(count) : zeros.size();
        writeAll(outputFd, std::string_view(zeros).substr(0, step), path);
        count -= step;
    }
}

// Copies one stored raw chunk and returns the CRC extended by its bytes.
std::uint32_t copyRawChunk(int fd, std::uint64_t offset, std::uint64_t length, int outputFd, std::uint32_t crc,
                           const std::string& path) {
    while (length > 0) {
        std::size_t step = length < kExpandBufferSize ? static_cast<std::size_t>(length) : kExpandBufferSize;
        std::string bytes = readAt(fd, offset, step, path);
        crc = crc32Update(crc, bytes);
        writeAll(outputFd, bytes, path);
        offset += step;
        length -= step;
    }
    return crc;
}

}  // namespace

void expandRawImage(int fd, const UdifImage& image, int outputFd, const std::string& path) {
    namespace c = fmt::chunks;
    for (const auto& entry : image.entries) {
        std::uint32_t crc = 0;
        for (const Chunk& chunk : entry.table.chunks) {
            std::uint64_t bytes = chunk.sectorCount * fmt::kSectorSize;
            if (chunk.type == c::kTypeRaw) {
                std::uint64_t offset = image.trailer.dataForkOffset + entry.table.dataOffset + chunk.storedOffset;
                crc = copyRawChunk(fd, offset, chunk.storedLength, outputFd, crc, path);
            } else if (chunk.type == c::kTypeZeroFill) {
                crc = crc32AppendZeros(crc, bytes);
                writeZeros(outputFd, bytes, path);
            } else if (chunk.type == c::kTypeIgnore) {
                writeZeros(outputFd, bytes, path);
            } else if (chunk.isStored()) {
                throw DiskImageError("\"" + path + "\" holds compressed chunks");
            }
        }
        if (entry.table.checksum.isCrc32() && entry.table.checksum.value != crc)
            throw DiskImageError("\"" + path + "\": checksum mismatch in \"" + entry.name + "\"");
    }
}

}  // namespace whittle::diskimage
