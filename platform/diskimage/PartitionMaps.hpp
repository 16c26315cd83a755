// The GUID partition table that whittle-diskimage lays around the volume of a new image.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace whittle::diskimage {

// A disk holding one volume in a GUID partition table (its only entry, so the table's
// first sector holds everything):
//   sector 0          protective master boot record
//   sector 1          primary header
//   sectors 2..33     primary table
//   sectors 34..      the volume
//   then              backup table (32 sectors) and backup header (last sector)
class GptDisk {
public:
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

}  // namespace whittle::diskimage
