#include "platform/diskimage/PartitionMaps.hpp"

#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/Crc32.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"

namespace whittle::diskimage {

namespace fmt = format;

// ---- writing a GUID partition table ----

GptDisk::GptDisk(std::uint64_t volumeSectors, std::string diskGuid, std::string partitionGuid)
    : volumeSectors_(volumeSectors), diskGuid_(std::move(diskGuid)), partitionGuid_(std::move(partitionGuid)) {}

std::uint64_t GptDisk::volumeFirstSector() const { return fmt::gpt::kFirstUsableSector; }

std::uint64_t GptDisk::totalSectors() const {
    return volumeFirstSector() + volumeSectors_ + fmt::gpt::kTableSectors + 1;
}

std::string GptDisk::protectiveMbr() const {
    namespace g = fmt::gpt;
    std::string sector(fmt::kSectorSize, '\0');
    std::size_t entry = g::kMbrFirstEntryOffset;
    auto put = [&](std::size_t offset, const auto& bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) sector[offset + i] = static_cast<char>(bytes[i]);
    };
    put(entry + g::kMbrEntryOffsetStartChs, g::kMbrStartChs);
    sector[entry + g::kMbrEntryOffsetType] = static_cast<char>(g::kMbrProtectiveType);
    put(entry + g::kMbrEntryOffsetEndChs, g::kMbrEndChs);
    writeLittle32(sector, entry + g::kMbrEntryOffsetFirstLba, g::kPrimaryHeaderSector);
    std::uint64_t covered = totalSectors() - 1;
    writeLittle32(sector, entry + g::kMbrEntryOffsetSectorCount,
                  covered > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<std::uint32_t>(covered));
    put(g::kMbrSignatureOffset, g::kMbrSignature);
    return sector;
}

std::string GptDisk::table() const {
    namespace g = fmt::gpt;
    std::string table(g::kTableSectors * fmt::kSectorSize, '\0');
    table.replace(g::kEntryOffsetType, 16,
                  std::string(reinterpret_cast<const char*>(g::kHfsPlusTypeBytes.data()), g::kHfsPlusTypeBytes.size()));
    table.replace(g::kEntryOffsetUnique, 16, partitionGuid_);
    writeLittle64(table, g::kEntryOffsetFirstLba, volumeFirstSector());
    writeLittle64(table, g::kEntryOffsetLastLba, volumeFirstSector() + volumeSectors_ - 1);
    // The partition name in UTF-16LE; the name is plain ASCII.
    std::string_view name = fmt::layout::kVolumePartitionName;
    for (std::size_t i = 0; i < name.size() && i < g::kEntryNameCharacters; ++i)
        table[g::kEntryOffsetName + 2 * i] = name[i];
    return table;
}

std::string GptDisk::header(bool primary) const {
    namespace g = fmt::gpt;
    std::uint64_t last = totalSectors() - 1;
    std::uint64_t backupTable = last - g::kTableSectors;
    std::string sector(fmt::kSectorSize, '\0');
    writeText(sector, g::kOffsetSignature, g::kSignature);
    writeLittle32(sector, g::kOffsetRevision, g::kRevision);
    writeLittle32(sector, g::kOffsetHeaderSize, g::kHeaderSize);
    writeLittle64(sector, g::kOffsetCurrentLba, primary ? g::kPrimaryHeaderSector : last);
    writeLittle64(sector, g::kOffsetBackupLba, primary ? last : g::kPrimaryHeaderSector);
    writeLittle64(sector, g::kOffsetFirstUsableLba, g::kFirstUsableSector);
    writeLittle64(sector, g::kOffsetLastUsableLba, backupTable - 1);
    sector.replace(g::kOffsetDiskGuid, 16, diskGuid_);
    writeLittle64(sector, g::kOffsetEntriesLba, primary ? g::kPrimaryTableSector : backupTable);
    writeLittle32(sector, g::kOffsetEntryCount, g::kEntryCount);
    writeLittle32(sector, g::kOffsetEntrySize, g::kEntrySize);
    writeLittle32(sector, g::kOffsetEntriesCrc, crc32Update(0, table()));
    writeLittle32(sector, g::kOffsetHeaderCrc, crc32Update(0, std::string_view(sector).substr(0, g::kHeaderSize)));
    return sector;
}

std::string GptDisk::primaryHeader() const { return header(true); }
std::string GptDisk::backupHeader() const { return header(false); }

}  // namespace whittle::diskimage
