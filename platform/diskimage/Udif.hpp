// The universal disk image container: data fork, XML resource list of chunk tables
// (one "blkx" entry per range of the virtual disk), and the 512-byte trailer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace whittle::diskimage {

struct ChecksumRecord {
    std::uint32_t type = 0;
    std::uint32_t bits = 0;
    std::uint32_t value = 0;  // only CRC-32 values are kept; other kinds are never written

    static ChecksumRecord none() { return {}; }
    static ChecksumRecord crc32(std::uint32_t value);
    bool isCrc32() const;
};

struct Chunk {
    std::uint32_t type = 0;
    std::uint32_t comment = 0;
    std::uint64_t firstSector = 0;  // relative to the first sector of its table
    std::uint64_t sectorCount = 0;
    std::uint64_t storedOffset = 0;
    std::uint64_t storedLength = 0;

    bool isStored() const;  // raw or compressed bytes in the data fork
};

struct ChunkTable {
    std::uint64_t firstSector = 0;
    std::uint64_t sectorCount = 0;
    std::uint64_t dataOffset = 0;
    std::uint32_t buffersNeeded = 0;
    std::uint32_t blockDescriptor = 0;
    ChecksumRecord checksum;
    std::vector<Chunk> chunks;  // the terminator included
};

struct BlockTableEntry {
    std::string name;
    std::string id;
    ChunkTable table;
};

struct Trailer {
    std::uint32_t version = 0;
    std::uint32_t headerSize = 0;
    std::uint32_t flags = 0;
    std::uint64_t dataForkOffset = 0;
    std::uint64_t dataForkLength = 0;
    std::uint64_t resourceForkOffset = 0;
    std::uint64_t resourceForkLength = 0;
    std::uint32_t segmentNumber = 0;
    std::uint32_t segmentCount = 0;
    ChecksumRecord dataForkChecksum;
    std::uint64_t xmlOffset = 0;
    std::uint64_t xmlLength = 0;
    ChecksumRecord masterChecksum;
    std::uint32_t imageVariant = 0;
    std::uint64_t sectorCount = 0;
};

struct UdifImage {
    std::uint64_t fileSize = 0;
    Trailer trailer;
    std::vector<BlockTableEntry> entries;
};

std::string serializeTrailer(const Trailer& trailer);
// Checks signature, version and size; throws DiskImageError otherwise.
Trailer parseTrailer(std::string_view bytes);

std::string serializeChunkTable(const ChunkTable& table);
// Checks the table's own structure (signature, version, size, terminator, contiguous
// chunks covering the table); where the stored bytes lie is checked by readUdifImage.
ChunkTable parseChunkTable(std::string_view bytes);

// The XML resource list: the blkx entries in order plus the plst resource.
std::string resourceListXml(const std::vector<BlockTableEntry>& entries);
std::vector<BlockTableEntry> parseResourceList(std::string_view xml);

// The master checksum: CRC-32 of the entries' CRC-32 values, 4 big-endian bytes each.
std::uint32_t masterChecksumOf(const std::vector<BlockTableEntry>& entries);

// True when the file ends in a trailer.
bool endsWithTrailer(int fd, std::uint64_t fileSize);

// Reads and checks the whole structure of an image: every offset inside the file,
// entries tiling the disk, chunks tiling their entries. Throws DiskImageError naming
// the image and the fault.
UdifImage readUdifImage(int fd, const std::string& path);

// True when every chunk of the image is raw, zero-filled or ignored (none compressed).
bool hasOnlyRawChunks(const UdifImage& image);

// Checks the CRC-32 of every entry of such an image, and of its data fork when it has
// one; throws DiskImageError naming the first entry that does not match.
void verifyRawImage(int fd, const UdifImage& image, const std::string& path);

// Writes the virtual disk of an image whose chunks are all raw, zero or ignored
// (the kind whittle-diskimage writes) to a file, checking every entry's CRC-32.
void expandRawImage(int fd, const UdifImage& image, int outputFd, const std::string& path);

}  // namespace whittle::diskimage
