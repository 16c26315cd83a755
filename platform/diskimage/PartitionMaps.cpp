#include "platform/diskimage/PartitionMaps.hpp"

#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/Crc32.hpp"
#include "platform/diskimage/Crypto.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"

namespace whittle::diskimage {

namespace fmt = format;

// ---- reading the hybrid image's map ----

std::vector<MappedPartition> readPartitionMap(std::string_view systemArea) {
    namespace a = fmt::apm;
    if (systemArea.size() < 2 * fmt::kSectorSize || systemArea.substr(0, 2) != a::kDriverMapSignature)
        throw DiskImageError("the file system image has no partition map");
    std::uint64_t blockSize = readBig16(systemArea, a::kDriverMapOffsetBlockSize);
    if (blockSize != 512 && blockSize != 2048)
        throw DiskImageError("the file system image has an unexpected block size");

    std::vector<MappedPartition> partitions;
    std::uint64_t mapEntries = 1;  // the first entry tells how many there are
    for (std::uint64_t index = 1; index <= mapEntries; ++index) {
        std::uint64_t offset = index * blockSize;
        if (offset + blockSize > systemArea.size()) throw DiskImageError("the partition map is larger than expected");
        std::string_view entry = systemArea.substr(offset, blockSize);
        if (entry.substr(0, 2) != a::kEntrySignature) throw DiskImageError("the partition map is damaged");
        if (index == 1) mapEntries = readBig32(entry, a::kEntryOffsetMapEntries);
        MappedPartition partition;
        partition.name = std::string(readTextField(entry, a::kEntryOffsetName, a::kTypeLength));
        partition.type = std::string(readTextField(entry, a::kEntryOffsetType, a::kTypeLength));
        partition.firstByte = std::uint64_t{readBig32(entry, a::kEntryOffsetStartBlock)} * blockSize;
        partition.byteCount = std::uint64_t{readBig32(entry, a::kEntryOffsetBlockCount)} * blockSize;
        partitions.push_back(std::move(partition));
    }
    return partitions;
}

MappedPartition findHfsPartition(const std::vector<MappedPartition>& partitions) {
    const MappedPartition* found = nullptr;
    for (const auto& partition : partitions) {
        if (!partition.type.ends_with(fmt::apm::kHfsTypeSuffix)) continue;
        if (found) throw DiskImageError("the file system image holds more than one HFS+ volume");
        found = &partition;
    }
    if (!found || found->byteCount == 0) throw DiskImageError("the file system image holds no HFS+ volume");
    return *found;
}

// ---- writing a GUID partition table ----

std::string randomGuid() {
    std::string guid = randomBytes(16);
    // Byte 7 is the high byte of the little-endian time_hi_and_version field.
    guid[7] = static_cast<char>((static_cast<unsigned char>(guid[7]) & 0x0F) | 0x40);
    guid[8] = static_cast<char>((static_cast<unsigned char>(guid[8]) & 0x3F) | 0x80);
    return guid;
}

GptDisk::GptDisk(std::uint64_t volumeSectors) : GptDisk(volumeSectors, randomGuid(), randomGuid()) {}

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
