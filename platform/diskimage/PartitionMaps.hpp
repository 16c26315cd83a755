// The two partition maps involved in making an image: the one of the hybrid file
// system image that xorriso writes (read, to find its HFS+ volume), and the GUID
// partition table that whittle-diskimage lays around that volume (written).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace whittle::diskimage {

struct MappedPartition {
    std::string name;
    std::string type;
    std::uint64_t firstByte = 0;
    std::uint64_t byteCount = 0;
};

// The partitions listed in a system area that begins with a driver descriptor map.
// Throws DiskImageError if there is no such map.
std::vector<MappedPartition> readPartitionMap(std::string_view systemArea);

// The HFS+ partition among them; throws unless there is exactly one.
MappedPartition findHfsPartition(const std::vector<MappedPartition>& partitions);

// A disk holding one volume in a GUID partition table (its only entry, so the table's
// first sector holds everything):
//   sector 0          protective master boot record
//   sector 1          primary header
//   sectors 2..33     primary table
//   sectors 34..      the volume
//   then              backup table (32 sectors) and backup header (last sector)
class GptDisk {
public:
    // Random disk and partition identifiers.
    explicit GptDisk(std::uint64_t volumeSectors);
    GptDisk(std::uint64_t volumeSectors, std::string diskGuid, std::string partitionGuid);

    std::uint64_t totalSectors() const;
    std::uint64_t volumeFirstSector() const;
    std::uint64_t volumeSectors() const { return volumeSectors_; }

    std::string protectiveMbr() const;
    std::string primaryHeader() const;
    std::string table() const;  // the same table serves as primary and backup
    std::string backupHeader() const;

private:
    std::string header(bool primary) const;

    std::uint64_t volumeSectors_;
    std::string diskGuid_;
    std::string partitionGuid_;
};

// A random identifier in the byte order of the table (version 4, RFC 4122 variant).
std::string randomGuid();

}  // namespace whittle::diskimage
