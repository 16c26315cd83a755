// An HFS+ volume holding a copy of a folder, planned whole before a byte is written:
// every item of the folder with its catalog node ID, where each file's data goes,
// and the volume's metadata (volume headers, allocation bitmap, catalog, extents
// overflow and attributes B-trees). Files' data is not read here; the writer copies
// it into the places the plan gives.
//
// Layout, in allocation blocks: block 0 (boot blocks and volume header), the
// allocation bitmap, the extents overflow, catalog and attributes B-trees, the files'
// data in catalog node ID order, one contiguous extent each, and the last block (the
// alternate volume header). Every block is in use; the volume is read-only.
//
// The volume depends on nothing but the folder: owners are "unknown", every date comes
// from the items' own modification times (the volume's from the newest of them), and
// the volume identifier is derived from the catalog.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace whittle::diskimage {

struct VolumeItem {
    std::string path;  // in the source folder
    std::u16string name;
    std::uint32_t id = 0;
    std::uint32_t parentId = 0;
    struct stat status {};  // of the item itself, never of a link's target
    std::string linkTarget;
    std::uint32_t valence = 0;  // folders: how many items they hold
    std::uint32_t firstBlock = 0;
    std::uint32_t blockCount = 0;

    bool isFolder() const { return S_ISDIR(status.st_mode); }
    bool isLink() const { return S_ISLNK(status.st_mode); }
    // Bytes of the data fork: a file's data, a link's target.
    std::uint64_t dataSize() const;
};

// A run of the volume's blocks, in order: metadata given as bytes, or the data of a
// file followed by zeros up to its last block.
struct VolumeSpan {
    std::string bytes;
    const VolumeItem* file = nullptr;
};

class HfsVolumePlan {
public:
    // Walks the folder (never following links) and plans the volume. Throws
    // DiskImageError when an item cannot be read, two names in a folder are the same
    // to the volume (they differ only in letter case), or a name cannot be stored.
    HfsVolumePlan(const std::string& folder, const std::string& volumeName);
    HfsVolumePlan(const HfsVolumePlan&) = delete;
    HfsVolumePlan& operator=(const HfsVolumePlan&) = delete;

    std::uint64_t byteCount() const { return std::uint64_t{totalBlocks_} * blockSize(); }
    static std::uint64_t blockSize();
    const std::vector<VolumeItem>& items() const { return items_; }
    const std::vector<VolumeSpan>& spans() const { return spans_; }
    // 32 bytes that change whenever a name, size, mode or date in the volume does.
    const std::string& contentDigest() const { return digest_; }

private:
    void allocate(std::uint32_t metadataBlocks);
    std::string volumeHeader(const std::string& catalog, std::uint32_t bitmapBlocks, std::uint32_t extentsBlocks,
                             std::uint32_t attributesBlocks) const;

    std::vector<VolumeItem> items_;  // the root folder first
    std::vector<VolumeSpan> spans_;
    std::string digest_;
    std::uint32_t totalBlocks_ = 0;
    std::uint32_t bitmapBlocks_ = 0;
    std::uint32_t newestDate_ = 0;
    std::uint32_t nextCatalogId_ = 0;
};

}  // namespace whittle::diskimage
