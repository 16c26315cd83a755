#include "platform/diskimage/HfsVolume.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/Crypto.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/HfsBTree.hpp"
#include "platform/diskimage/HfsNames.hpp"

namespace whittle::diskimage {

namespace h = format::hfs;

namespace {

constexpr std::uint64_t kBlock = h::kBlockSize;

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

std::uint32_t hfsDate(const struct timespec& time) {
    std::int64_t date = static_cast<std::int64_t>(time.tv_sec) + h::kDateOffset;
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(date, 0, std::numeric_limits<std::uint32_t>::max()));
}

std::uint32_t blocksFor(std::uint64_t bytes) {
    std::uint64_t blocks = (bytes + kBlock - 1) / kBlock;
    if (blocks > std::numeric_limits<std::uint32_t>::max()) throw DiskImageError("the folder is too large for a volume");
    return static_cast<std::uint32_t>(blocks);
}

std::string readLinkAt(int folder, const std::string& name, const std::string& path) {
    std::string target(256, '\0');
    for (;;) {
        ssize_t length = ::readlinkat(folder, name.c_str(), target.data(), target.size());
        if (length < 0) throwSystemError("cannot read the link " + inQuotes(path), errno);
        if (static_cast<std::size_t>(length) < target.size()) return target.substr(0, static_cast<std::size_t>(length));
        target.resize(target.size() * 2);
    }
}

std::vector<std::string> namesIn(int folder, const std::string& path) {
    int listing = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
    DIR* stream = listing < 0 ? nullptr : ::fdopendir(listing);
    if (!stream) {
        int error = errno;
        if (listing >= 0) ::close(listing);
        throwSystemError("cannot read the folder " + inQuotes(path), error);
    }
    std::vector<std::string> names;
    errno = 0;
    while (dirent* entry = ::readdir(stream)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    int error = errno;
    ::closedir(stream);
    if (error != 0) throwSystemError("cannot read the folder " + inQuotes(path), error);
    return names;
}

// Lists folders depth first; the items of one folder get consecutive IDs in the
// volume's name order.
class FolderWalker {
public:
    explicit FolderWalker(std::vector<VolumeItem>& items) : items_(items) {}

    void walk(int folder, std::size_t folderIndex) {
        std::string folderPath = items_[folderIndex].path;
        struct Child {
            std::string name;
            VolumeItem item;
        };
        std::vector<Child> children;
        for (std::string& name : namesIn(folder, folderPath)) {
            Child child{std::move(name), {}};
            VolumeItem& item = child.item;
            item.path = folderPath + "/" + child.name;
            if (::fstatat(folder, child.name.c_str(), &item.status, AT_SYMLINK_NOFOLLOW) != 0)
                throwSystemError("cannot read " + inQuotes(item.path), errno);
            item.name = hfsNameOf(child.name);
            if (item.isLink()) item.linkTarget = readLinkAt(folder, child.name, item.path);
            children.push_back(std::move(child));
        }
        std::sort(children.begin(), children.end(),
                  [](const Child& a, const Child& b) { return compareHfsNames(a.item.name, b.item.name) < 0; });
        for (std::size_t i = 1; i < children.size(); ++i)
            if (compareHfsNames(children[i - 1].item.name, children[i].item.name) == 0)
                throw DiskImageError(inQuotes(children[i - 1].item.path) + " and " + inQuotes(children[i].item.path) +
                                     " differ only in letter case, which an HFS+ volume does not tell apart");

        std::size_t first = items_.size();
        std::vector<std::string> names;
        for (Child& child : children) {
            if (nextId_ == std::numeric_limits<std::uint32_t>::max())
                throw DiskImageError("the folder holds too many items for a volume");
            child.item.id = nextId_++;
            child.item.parentId = items_[folderIndex].id;
            names.push_back(std::move(child.name));
            items_.push_back(std::move(child.item));
        }
        items_[folderIndex].valence = static_cast<std::uint32_t>(children.size());
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (!items_[first + i].isFolder()) continue;
            UniqueDescriptor child(::openat(folder, names[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!child.valid()) throwSystemError("cannot open the folder " + inQuotes(items_[first + i].path), errno);
            walk(child.get(), first + i);
        }
    }

    std::uint32_t nextId() const { return nextId_; }

private:
    std::vector<VolumeItem>& items_;
    std::uint32_t nextId_ = h::kFirstUserId;
};

// ---- catalog records ----

std::string catalogKey(std::uint32_t parentId, std::u16string_view name) {
    std::string key(2 + 6 + 2 * name.size(), '\0');
    writeBig16(key, 0, static_cast<std::uint16_t>(6 + 2 * name.size()));
    writeBig32(key, 2, parentId);
    writeBig16(key, 6, static_cast<std::uint16_t>(name.size()));
    for (std::size_t i = 0; i < name.size(); ++i) writeBig16(key, 8 + 2 * i, name[i]);
    return key;
}

std::string threadRecord(const VolumeItem& item) {
    std::string record(10 + 2 * item.name.size(), '\0');
    writeBig16(record, 0, item.isFolder() ? h::kFolderThreadRecord : h::kFileThreadRecord);
    writeBig32(record, 4, item.parentId);
    writeBig16(record, 8, static_cast<std::uint16_t>(item.name.size()));
    for (std::size_t i = 0; i < item.name.size(); ++i) writeBig16(record, 10 + 2 * i, item.name[i]);
    return record;
}

// The fields folder and file records share: ID, dates, owner, mode.
void writeCommonFields(std::string& record, const VolumeItem& item) {
    writeBig32(record, h::kRecordId, item.id);
    std::uint32_t date = hfsDate(item.status.st_mtim);
    for (std::size_t i = 0; i < 4; ++i) writeBig32(record, h::kRecordDates + 4 * i, date);  // the backup date stays 0
    writeBig32(record, h::kRecordOwner, h::kUnknownOwner);
    writeBig32(record, h::kRecordGroup, h::kUnknownOwner);
    writeBig16(record, h::kRecordMode, static_cast<std::uint16_t>(item.status.st_mode));
    if (S_ISCHR(item.status.st_mode) || S_ISBLK(item.status.st_mode))
        writeBig32(record, h::kRecordSpecial, static_cast<std::uint32_t>(item.status.st_rdev));
}

std::string folderRecord(const VolumeItem& item) {
    std::string record(h::kFolderRecordSize, '\0');
    writeBig16(record, 0, h::kFolderRecord);
    writeBig32(record, h::kRecordValence, item.valence);
    writeCommonFields(record, item);
    return record;
}

void writeFork(std::string& bytes, std::size_t offset, std::uint64_t logicalSize, std::uint32_t firstBlock,
               std::uint32_t blockCount) {
    writeBig64(bytes, offset, logicalSize);
    writeBig32(bytes, offset + h::kForkTotalBlocks, blockCount);
    if (blockCount == 0) return;
    writeBig32(bytes, offset + h::kForkExtents, firstBlock);
    writeBig32(bytes, offset + h::kForkExtents + 4, blockCount);
}

std::string fileRecord(const VolumeItem& item) {
    std::string record(h::kFileRecordSize, '\0');
    writeBig16(record, 0, h::kFileRecord);
    writeBig16(record, h::kRecordFlags, h::kFileThreadExists);
    writeCommonFields(record, item);
    if (item.isLink()) {
        writeText(record, h::kRecordFinderInfo, h::kSymlinkType);
        writeText(record, h::kRecordFinderInfo + 4, h::kSymlinkCreator);
    }
    writeFork(record, h::kFileRecordDataFork, item.dataSize(), item.firstBlock, item.blockCount);
    return record;
}

struct SortableRecord {
    std::uint32_t parentId;
    std::u16string_view name;
    BTreeRecord record;
};

std::vector<BTreeRecord> catalogRecords(const std::vector<VolumeItem>& items) {
    std::vector<SortableRecord> records;
    records.reserve(items.size() * 2);
    for (const VolumeItem& item : items) {
        BTreeRecord own{catalogKey(item.parentId, item.name), item.isFolder() ? folderRecord(item) : fileRecord(item)};
        records.push_back({item.parentId, item.name, std::move(own)});
        records.push_back({item.id, {}, {catalogKey(item.id, {}), threadRecord(item)}});
    }
    std::sort(records.begin(), records.end(), [](const SortableRecord& a, const SortableRecord& b) {
        if (a.parentId != b.parentId) return a.parentId < b.parentId;
        return compareHfsNames(a.name, b.name) < 0;
    });
    std::vector<BTreeRecord> sorted;
    sorted.reserve(records.size());
    for (SortableRecord& record : records) sorted.push_back(std::move(record.record));
    return sorted;
}

std::string allocationBitmap(std::uint32_t bitmapBlocks, std::uint32_t totalBlocks) {
    std::string bitmap(std::size_t{bitmapBlocks} * kBlock, '\0');
    std::fill_n(bitmap.begin(), totalBlocks / 8, '\xFF');
    if (totalBlocks % 8 != 0) bitmap[totalBlocks / 8] = static_cast<char>(0xFF00 >> (totalBlocks % 8));
    return bitmap;
}

}  // namespace

std::uint64_t VolumeItem::dataSize() const {
    if (S_ISREG(status.st_mode)) return static_cast<std::uint64_t>(status.st_size);
    if (isLink()) return linkTarget.size();
    return 0;
}

std::uint64_t HfsVolumePlan::blockSize() { return kBlock; }

HfsVolumePlan::HfsVolumePlan(const std::string& folder, const std::string& volumeName) {
    UniqueDescriptor root(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root.valid()) throwSystemError("cannot open the folder " + inQuotes(folder), errno);
    VolumeItem rootItem;
    rootItem.path = folder;
    rootItem.name = hfsNameOf(volumeName);
    rootItem.id = h::kRootFolderId;
    rootItem.parentId = h::kRootParentId;
    rootItem.status = statusOf(root.get(), folder);
    items_.push_back(std::move(rootItem));
    FolderWalker walker(items_);
    walker.walk(root.get(), 0);

    std::uint64_t dataBlocks = 0;
    for (VolumeItem& item : items_) {
        item.blockCount = blocksFor(item.dataSize());
        dataBlocks += item.blockCount;
        newestDate_ = std::max(newestDate_, hfsDate(item.status.st_mtim));
    }

    const std::string extents = buildBTree({}, {h::kExtentsLongestKey, h::kBigKeys});
    const std::string attributes = buildBTree({}, {h::kAttributesLongestKey, h::kBigKeys | h::kVariableIndexKeys});
    const BTreeShape catalogShape{h::kCatalogLongestKey, h::kBigKeys | h::kVariableIndexKeys};
    // Record sizes do not depend on where the data goes, so neither does the catalog's.
    std::uint32_t catalogBlocks = blocksFor(buildBTree(catalogRecords(items_), catalogShape).size());
    std::uint32_t extentsBlocks = blocksFor(extents.size());
    std::uint32_t attributesBlocks = blocksFor(attributes.size());
    std::uint64_t fixedBlocks = 2 + std::uint64_t{extentsBlocks} + catalogBlocks + attributesBlocks + dataBlocks;
    std::uint64_t bitmapBlocks = 1;
    while ((fixedBlocks + bitmapBlocks + 8 * kBlock - 1) / (8 * kBlock) > bitmapBlocks) ++bitmapBlocks;
    totalBlocks_ = blocksFor((fixedBlocks + bitmapBlocks) * kBlock);
    bitmapBlocks_ = static_cast<std::uint32_t>(bitmapBlocks);

    std::uint32_t nextBlock = 1 + bitmapBlocks_ + extentsBlocks + catalogBlocks + attributesBlocks;
    for (VolumeItem& item : items_) {
        item.firstBlock = item.blockCount == 0 ? 0 : nextBlock;
        nextBlock += item.blockCount;
    }
    std::string catalog = buildBTree(catalogRecords(items_), catalogShape);
    if (catalog.size() != std::size_t{catalogBlocks} * kBlock)
        throw DiskImageError("internal error: the catalog changed size");
    digest_ = sha256(catalog);

    nextCatalogId_ = walker.nextId();
    std::string header = volumeHeader(catalog, bitmapBlocks_, extentsBlocks, attributesBlocks);

    std::string first(kBlock, '\0');
    writeText(first, h::kVolumeHeaderOffset, header);
    spans_.push_back({std::move(first)});
    spans_.push_back({allocationBitmap(bitmapBlocks_, totalBlocks_)});
    spans_.push_back({extents});
    spans_.push_back({std::move(catalog)});
    spans_.push_back({attributes});
    for (const VolumeItem& item : items_) {
        if (item.blockCount == 0) continue;
        if (item.isLink()) {
            std::string target = item.linkTarget;
            target.resize(std::size_t{item.blockCount} * kBlock, '\0');
            spans_.push_back({std::move(target)});
        } else {
            spans_.push_back({{}, &item});
        }
    }
    std::string last(kBlock, '\0');
    writeText(last, kBlock - h::kAlternateHeaderFromEnd, header);
    spans_.push_back({std::move(last)});
}

std::string HfsVolumePlan::volumeHeader(const std::string& catalog, std::uint32_t bitmapBlocks,
                                        std::uint32_t extentsBlocks, std::uint32_t attributesBlocks) const {
    std::uint32_t files = 0, folders = 0;
    for (std::size_t i = 1; i < items_.size(); ++i) (items_[i].isFolder() ? folders : files) += 1;
    auto catalogBlocks = static_cast<std::uint32_t>(catalog.size() / kBlock);

    std::string header(h::kVolumeHeaderSize, '\0');
    writeText(header, h::kHeaderSignature, h::kPlusSignature);
    writeBig16(header, h::kHeaderVersion, h::kPlusVersion);
    writeBig32(header, h::kHeaderAttributes, h::kAttributeUnmounted);
    writeBig32(header, h::kHeaderLastMountedVersion, h::kLastMountedVersion);
    writeBig32(header, h::kHeaderCreateDate, newestDate_);
    writeBig32(header, h::kHeaderModifyDate, newestDate_);
    writeBig32(header, h::kHeaderCheckedDate, newestDate_);
    writeBig32(header, h::kHeaderFileCount, files);
    writeBig32(header, h::kHeaderFolderCount, folders);
    writeBig32(header, h::kHeaderBlockSize, h::kBlockSize);
    writeBig32(header, h::kHeaderTotalBlocks, totalBlocks_);
    writeBig32(header, h::kHeaderFreeBlocks, 0);
    writeBig32(header, h::kHeaderNextAllocation, totalBlocks_ - 1);
    writeBig32(header, h::kHeaderResourceClumpSize, h::kClumpSize);
    writeBig32(header, h::kHeaderDataClumpSize, h::kClumpSize);
    writeBig32(header, h::kHeaderNextCatalogId, nextCatalogId_);
    writeBig32(header, h::kHeaderWriteCount, 1);
    writeBig64(header, h::kHeaderEncodingsBitmap, h::kRomanEncodingBit);
    writeText(header, h::kHeaderVolumeIdentifier, sha256("volume identifier" + digest_).substr(0, 8));

    std::uint32_t block = 1;
    auto fork = [&](std::size_t offset, std::uint32_t blocks) {
        writeFork(header, offset, std::uint64_t{blocks} * kBlock, block, blocks);
        writeBig32(header, offset + h::kForkClumpSize, blocks * h::kBlockSize);
        block += blocks;
    };
    fork(h::kHeaderAllocationFile, bitmapBlocks);
    fork(h::kHeaderExtentsFile, extentsBlocks);
    fork(h::kHeaderCatalogFile, catalogBlocks);
    fork(h::kHeaderAttributesFile, attributesBlocks);
    return header;
}

}  // namespace whittle::diskimage
