// Builds the chunk tables of a read-only image whose data fork the caller lays out:
// every sector is described where its bytes already lie, runs of zero sectors become
// zero-fill chunks that need no bytes at all.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/diskimage/Udif.hpp"

namespace whittle::diskimage {

// The chunks describing a span of sectors, their first sectors counted from the span's
// start, and the span's CRC-32.
struct ScannedSectors {
    std::vector<Chunk> chunks;
    std::uint32_t crc = 0;
    std::uint64_t zeroBytes = 0;
};

// Scans a span of whole sectors lying in the data fork at dataForkOffset: raw chunks
// of at most 2048 sectors, runs of 8 and more zero sectors (and zeros at the span's
// end) as zero-fill chunks. Large spans are scanned in parts on several threads.
ScannedSectors scanSectors(std::string_view sectors, std::uint64_t dataForkOffset);

class BlockTableBuilder {
public:
    // Starts the next entry of the disk, named "<partition> (<type> : <index>)", with
    // the index, ID and block descriptor that follow from the entries before it.
    void beginEntry(std::string_view partitionName, std::string_view partitionType);
    // Adds whole sectors (a multiple of 512 bytes) to the current entry; their bytes
    // lie in the data fork at dataForkOffset.
    void addSectors(std::string_view sectors, std::uint64_t dataForkOffset);
    // Adds byteCount bytes (whole sectors) already stored at dataForkOffset, whose
    // CRC-32 is crc, without looking at them.
    void addStoredSectors(std::uint64_t byteCount, std::uint64_t dataForkOffset, std::uint32_t crc);
    // Adds sectors that read as zeros and take no bytes of the data fork.
    void addZeroSectors(std::uint64_t sectors, std::uint64_t dataForkOffset);
    void endEntry();

    std::vector<BlockTableEntry>& entries() { return entries_; }
    std::uint64_t diskSectors() const { return diskSectors_; }
    // Bytes that zero-fill chunks describe (bytes the data fork need not keep).
    std::uint64_t zeroBytes() const { return zeroBytes_; }

private:
    // Adds a raw or zero-fill chunk to the current entry, joined to the previous one
    // when that is of the same kind, adjacent and not yet of the largest size.
    void appendChunk(std::uint32_t type, std::uint64_t sectors, std::uint64_t dataForkOffset);

    std::vector<BlockTableEntry> entries_;
    bool inEntry_ = false;
    std::uint64_t diskSectors_ = 0;
    std::uint64_t entrySectors_ = 0;
    std::uint64_t entryEnd_ = 0;  // data-fork offset just after the entry's last chunk
    std::uint32_t entryCrc_ = 0;
    std::uint64_t zeroBytes_ = 0;
};

// The resource list and trailer that end an image whose data fork has this length.
std::string imageTail(const std::vector<BlockTableEntry>& entries, std::uint64_t dataForkLength,
                      std::uint32_t imageVariant);

}  // namespace whittle::diskimage
