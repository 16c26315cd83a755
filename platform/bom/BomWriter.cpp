// Writing a simple BOM.
//
// The layout copies the one the platform's own BOM library produces, so that its
// readers take our files without question:
//   header, zero padding to 0x200, blocks 1..N back to back, vars table, index area.
// Blocks 1-10 are the fixed structures (BomInfo, the Paths tree header and its first
// leaf, and the three empty side trees); then come three blocks per path in id order
// (path info, file key, path record); then any further Paths leaves and the branch
// nodes above them, level by level from the bottom, the root last.
//
// Choices made where the platform's own behaviour was never observed:
//   - ids follow the order of the file list (after de-duplication);
//   - a simple path info is the four-byte common prefix with flags 0, and its type
//     comes from the list's shape (see FileList.cpp);
//   - BomInfo says version 1, "paths + 1", and one entry of cpu type 0 and size 0,
//     as a widely used path BOM writer does;
//   - every other detail readers might check is written as in the platform's files:
//     padding to 0x200, full-size nodes, index area last, 16 zero bytes after the
//     free list, block count without the null block; only the free list differs,
//     being empty instead of holding an allocator's leftovers;
//   - names sort as unsigned bytes, unnormalised;
//   - above 511 leaves (about 130,000 paths) each branch level is cut the way the
//     leaves are (256 children a node, the rest in the last), and the nodes of a
//     level are chained through forward/backward like leaves.

#include "platform/bom/BomWriter.hpp"

#include <algorithm>
#include <limits>
#include <numeric>

namespace whittle::bom {

namespace {

constexpr std::uint32_t kBomInfoBlock = 1;
constexpr std::uint32_t kPathsTreeBlock = 2;
constexpr std::uint32_t kFirstLeafBlock = 3;
constexpr std::uint32_t kHardLinksTreeBlock = 4;
constexpr std::uint32_t kHardLinksLeafBlock = 5;
constexpr std::uint32_t kVIndexBlock = 6;
constexpr std::uint32_t kVIndexTreeBlock = 7;
constexpr std::uint32_t kVIndexLeafBlock = 8;
constexpr std::uint32_t kSize64TreeBlock = 9;
constexpr std::uint32_t kSize64LeafBlock = 10;
constexpr std::uint32_t kFirstPathBlock = 11;
constexpr std::uint32_t kBlocksPerPath = 3;

// Where the three blocks of the entry with this zero-based position live.
std::uint32_t pathInfoBlock(std::size_t position) {
    return kFirstPathBlock + kBlocksPerPath * static_cast<std::uint32_t>(position);
}
std::uint32_t fileKeyBlock(std::size_t position) { return pathInfoBlock(position) + 1; }
std::uint32_t pathRecordBlock(std::size_t position) { return pathInfoBlock(position) + 2; }

// One node of the Paths tree: a leaf over a run of sorted entries, or a branch over
// a run of nodes of the level below.
struct TreeNode {
    std::uint32_t block = 0;
    std::size_t first = 0;  // first entry (leaf) or child node (branch)
    std::size_t count = 0;
    std::uint32_t largestKeyBlock = 0;  // key of the last entry in this subtree
};

using TreeLevel = std::vector<TreeNode>;

// How many items each node of a level gets: all in one node when they fit, else
// nodes of kSplitKeep items and a last node with the rest, which is what ascending
// insertion with the platform's split rule leaves behind.
std::vector<std::size_t> nodeSizes(std::size_t items, std::size_t capacity) {
    if (items <= capacity) return {items};
    std::size_t fullNodes = (items - capacity + kSplitKeep - 1) / kSplitKeep;
    std::vector<std::size_t> sizes(fullNodes, kSplitKeep);
    sizes.push_back(items - fullNodes * kSplitKeep);
    return sizes;
}

class ByteSink {
public:
    explicit ByteSink(std::string& bytes) : bytes_(bytes) {}
    void u8(std::uint8_t value) { bytes_.push_back(static_cast<char>(value)); }
    void u16(std::uint16_t value) {
        u8(static_cast<std::uint8_t>(value >> 8));
        u8(static_cast<std::uint8_t>(value));
    }
    void u32(std::uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) u8(static_cast<std::uint8_t>(value >> shift));
    }
    void text(std::string_view value) { bytes_.append(value); }
    void zeros(std::size_t count) { bytes_.append(count, '\0'); }
    std::size_t size() const { return bytes_.size(); }

private:
    std::string& bytes_;
};

class SimpleBomWriter {
public:
    explicit SimpleBomWriter(const std::vector<SimpleEntry>& entries) : entries_(entries) {}

    std::string write() {
        checkEntries();
        sortByKey();
        planTree();
        estimateSize();
        ByteSink out(bytes_);
        out.text(kStoreMagic);
        out.zeros(kFirstBlockOffset - kStoreMagic.size());  // header fields are patched in at the end
        writeFixedBlocks();
        writePathBlocks();
        writeTreeNodesAfterFirstLeaf();
        writeVars();
        writeIndex();
        patchHeader();
        return std::move(bytes_);
    }

private:
    // ---- checks and planning

    void checkEntries() const {
        if (entries_.empty() || entries_[0].parentId != 0 || entries_[0].name != ".")
            throw BomError("the first entry of a BOM must be the root \".\"");
        // Every path adds three blocks and a pair; stay far inside the 32-bit offsets.
        if (entries_.size() > 20'000'000) throw BomError("too many paths for one BOM");
        for (std::size_t position = 1; position < entries_.size(); ++position) {
            const SimpleEntry& entry = entries_[position];
            if (entry.parentId == 0 || entry.parentId > position)
                throw BomError("entry \"" + entry.name + "\" comes before its parent folder");
            if (entry.name.empty() || entry.name == "." || entry.name == ".." ||
                entry.name.find_first_of(std::string_view("/\0", 2)) != std::string::npos)
                throw BomError("entry name \"" + entry.name + "\" is not a single path component");
        }
    }

    void sortByKey() {
        keyOrder_.resize(entries_.size());
        std::iota(keyOrder_.begin(), keyOrder_.end(), std::size_t{0});
        // Keys compare by parent id, then by name bytes as unsigned values (like
        // strcmp), which is what std::string's comparison does.
        auto keyLess = [this](std::size_t left, std::size_t right) {
            const SimpleEntry& a = entries_[left];
            const SimpleEntry& b = entries_[right];
            return a.parentId != b.parentId ? a.parentId < b.parentId : a.name < b.name;
        };
        std::sort(keyOrder_.begin(), keyOrder_.end(), keyLess);
        auto duplicate = std::adjacent_find(keyOrder_.begin(), keyOrder_.end(), [this](std::size_t a, std::size_t b) {
            return entries_[a].parentId == entries_[b].parentId && entries_[a].name == entries_[b].name;
        });
        if (duplicate != keyOrder_.end()) throw BomError("path \"" + entries_[*duplicate].name + "\" is listed twice");
    }

    void planTree() {
        std::uint32_t nextBlock = pathInfoBlock(entries_.size());
        TreeLevel leaves;
        std::size_t first = 0;
        for (std::size_t size : nodeSizes(entries_.size(), kLeafCapacity)) {
            std::uint32_t block = leaves.empty() ? kFirstLeafBlock : nextBlock++;
            leaves.push_back({block, first, size, fileKeyBlock(keyOrder_[first + size - 1])});
            first += size;
        }
        levels_.push_back(std::move(leaves));
        while (levels_.back().size() > 1) {
            const TreeLevel& below = levels_.back();
            TreeLevel branches;
            std::size_t firstChild = 0;
            for (std::size_t size : nodeSizes(below.size(), kBranchChildCapacity)) {
                branches.push_back({nextBlock++, firstChild, size, below[firstChild + size - 1].largestKeyBlock});
                firstChild += size;
            }
            levels_.push_back(std::move(branches));
        }
        blockCount_ = nextBlock - 1;
    }

    void estimateSize() {
        std::size_t names = 0;
        for (const SimpleEntry& entry : entries_) names += entry.name.size();
        std::size_t nodes = 0;
        for (const TreeLevel& level : levels_) nodes += level.size();
        std::size_t estimate = kFirstBlockOffset + 3 * kPathsNodeSize + 1024 +
                               entries_.size() * (kSimplePathInfoLength + 5 + kPathRecordLength + kPairLength) + names +
                               nodes * kPathsNodeSize;
        checkOffset(estimate);
        bytes_.reserve(estimate);
    }

    // ---- blocks

    void beginBlock(std::uint32_t number) {
        // Blocks go out in number order, so the slot table grows one by one.
        if (slots_.size() != number) throw BomError("internal error: BOM blocks written out of order");
        slots_.push_back({static_cast<std::uint32_t>(bytes_.size()), 0});
    }

    void endBlock() {
        checkOffset(bytes_.size());
        slots_.back().second = static_cast<std::uint32_t>(bytes_.size() - slots_.back().first);
    }

    static void checkOffset(std::size_t offset) {
        if (offset > std::numeric_limits<std::uint32_t>::max()) throw BomError("too many paths for one BOM");
    }

    void writeFixedBlocks() {
        ByteSink out(bytes_);
        beginBlock(kBomInfoBlock);
        out.u32(1);
        out.u32(static_cast<std::uint32_t>(entries_.size() + 1));
        out.u32(1);
        out.zeros(16);
        endBlock();

        writeTreeHeader(kPathsTreeBlock, levels_.back().front().block, kPathsNodeSize,
                        static_cast<std::uint32_t>(entries_.size()));
        writeLeaf(0);
        writeTreeHeader(kHardLinksTreeBlock, kHardLinksLeafBlock, kPathsNodeSize, 0);
        writeEmptyLeaf(kHardLinksLeafBlock, kPathsNodeSize);

        beginBlock(kVIndexBlock);
        out.u32(1);
        out.u32(kVIndexTreeBlock);
        out.u32(0);
        out.u8(0);
        endBlock();
        writeTreeHeader(kVIndexTreeBlock, kVIndexLeafBlock, kVIndexNodeSize, 0);
        writeEmptyLeaf(kVIndexLeafBlock, kVIndexNodeSize);

        writeTreeHeader(kSize64TreeBlock, kSize64LeafBlock, kPathsNodeSize, 0);
        writeEmptyLeaf(kSize64LeafBlock, kPathsNodeSize);
    }

    void writeTreeHeader(std::uint32_t block, std::uint32_t root, std::uint32_t nodeSize, std::uint32_t entryCount) {
        ByteSink out(bytes_);
        beginBlock(block);
        out.text(kTreeMagic);
        out.u32(kTreeVersion);
        out.u32(root);
        out.u32(nodeSize);
        out.u32(entryCount);
        out.u8(0);
        endBlock();
    }

    void writeEmptyLeaf(std::uint32_t block, std::uint32_t nodeSize) {
        ByteSink out(bytes_);
        beginBlock(block);
        out.u16(1);
        out.zeros(nodeSize - 2);
        endBlock();
    }

    void writePathBlocks() {
        ByteSink out(bytes_);
        for (std::size_t position = 0; position < entries_.size(); ++position) {
            const SimpleEntry& entry = entries_[position];
            beginBlock(pathInfoBlock(position));
            out.u8(static_cast<std::uint8_t>(entry.type));
            out.u8(1);
            out.u16(0);  // flags: a path-only entry
            endBlock();

            beginBlock(fileKeyBlock(position));
            out.u32(entry.parentId);
            out.text(entry.name);
            out.u8(0);
            endBlock();

            beginBlock(pathRecordBlock(position));
            out.u32(static_cast<std::uint32_t>(position + 1));
            out.u32(pathInfoBlock(position));
            endBlock();
        }
    }

    void writeTreeNodesAfterFirstLeaf() {
        for (std::size_t index = 1; index < levels_[0].size(); ++index) writeLeaf(index);
        for (std::size_t level = 1; level < levels_.size(); ++level)
            for (std::size_t index = 0; index < levels_[level].size(); ++index) writeBranch(level, index);
    }

    // Neighbours on the same level; 0 where there is none.
    static std::pair<std::uint32_t, std::uint32_t> siblings(const TreeLevel& level, std::size_t index) {
        std::uint32_t forward = index + 1 < level.size() ? level[index + 1].block : 0;
        std::uint32_t backward = index > 0 ? level[index - 1].block : 0;
        return {forward, backward};
    }

    void writeLeaf(std::size_t index) {
        const TreeNode& leaf = levels_[0][index];
        auto [forward, backward] = siblings(levels_[0], index);
        ByteSink out(bytes_);
        beginBlock(leaf.block);
        std::size_t start = out.size();
        out.u16(1);
        out.u16(static_cast<std::uint16_t>(leaf.count));
        out.u32(forward);
        out.u32(backward);
        for (std::size_t rank = leaf.first; rank < leaf.first + leaf.count; ++rank) {
            out.u32(pathRecordBlock(keyOrder_[rank]));
            out.u32(fileKeyBlock(keyOrder_[rank]));
        }
        out.zeros(kPathsNodeSize - (out.size() - start));
        endBlock();
    }

    // A branch names each child but the last with the largest key below it; the
    // last child follows the pairs on its own.
    void writeBranch(std::size_t level, std::size_t index) {
        const TreeNode& branch = levels_[level][index];
        const TreeLevel& below = levels_[level - 1];
        auto [forward, backward] = siblings(levels_[level], index);
        ByteSink out(bytes_);
        beginBlock(branch.block);
        std::size_t start = out.size();
        out.u16(0);
        out.u16(static_cast<std::uint16_t>(branch.count - 1));
        out.u32(forward);
        out.u32(backward);
        for (std::size_t child = branch.first; child + 1 < branch.first + branch.count; ++child) {
            out.u32(below[child].block);
            out.u32(below[child].largestKeyBlock);
        }
        out.u32(below[branch.first + branch.count - 1].block);
        out.zeros(kPathsNodeSize - (out.size() - start));
        endBlock();
    }

    // ---- vars, index and header

    void writeVars() {
        static constexpr std::pair<std::string_view, std::uint32_t> kVars[] = {
            {kVarBomInfo, kBomInfoBlock}, {kVarPaths, kPathsTreeBlock},   {kVarHardLinks, kHardLinksTreeBlock},
            {kVarVIndex, kVIndexBlock},   {kVarSize64, kSize64TreeBlock},
        };
        ByteSink out(bytes_);
        varsOffset_ = out.size();
        out.u32(static_cast<std::uint32_t>(std::size(kVars)));
        for (const auto& [name, block] : kVars) {
            out.u32(block);
            out.u8(static_cast<std::uint8_t>(name.size()));
            out.text(name);
        }
        varsLength_ = out.size() - varsOffset_;
    }

    void writeIndex() {
        if (slots_.size() != blockCount_ + 1) throw BomError("internal error: BOM block count mismatch");
        ByteSink out(bytes_);
        indexOffset_ = out.size();
        out.u32(static_cast<std::uint32_t>(slots_.size()));
        for (const auto& [offset, length] : slots_) {
            out.u32(offset);
            out.u32(length);
        }
        out.u32(0);  // no free ranges
        out.zeros(kIndexTailLength);
        indexLength_ = out.size() - indexOffset_;
        checkOffset(out.size());
    }

    void patchHeader() {
        std::string header;
        ByteSink out(header);
        out.text(kStoreMagic);
        out.u32(kStoreVersion);
        out.u32(blockCount_);
        out.u32(static_cast<std::uint32_t>(indexOffset_));
        out.u32(static_cast<std::uint32_t>(indexLength_));
        out.u32(static_cast<std::uint32_t>(varsOffset_));
        out.u32(static_cast<std::uint32_t>(varsLength_));
        bytes_.replace(0, header.size(), header);
    }

    const std::vector<SimpleEntry>& entries_;
    std::vector<std::size_t> keyOrder_;  // entry positions in key order
    std::vector<TreeLevel> levels_;      // leaves first, the root's level last
    std::uint32_t blockCount_ = 0;
    std::string bytes_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> slots_{{0, 0}};  // slot 0 is the null block
    std::size_t varsOffset_ = 0, varsLength_ = 0, indexOffset_ = 0, indexLength_ = 0;
};

}  // namespace

std::string writeSimpleBom(const std::vector<SimpleEntry>& entries) { return SimpleBomWriter(entries).write(); }

}  // namespace whittle::bom
