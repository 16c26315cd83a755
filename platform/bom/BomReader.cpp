// Reading a BOM's paths.
//
// The Paths tree is read by going down to its leftmost leaf and then along the leaf
// chain, which works whatever convention the branch nodes follow. Every block
// reference is checked against the index, every index entry against the file, and
// every record against its block; each node is visited at most once. Names are kept
// as views into the file bytes, so memory stays proportional to the file even when
// many entries share one key block.

#include "platform/bom/BomReader.hpp"

#include <algorithm>
#include <limits>
#include <numeric>

#include "platform/bom/FileBytes.hpp"

namespace whittle::bom {

namespace {

using Bytes = std::string_view;

const std::uint8_t* unsignedData(Bytes bytes) { return reinterpret_cast<const std::uint8_t*>(bytes.data()); }

std::uint32_t u32At(Bytes bytes, std::size_t offset) { return readU32(unsignedData(bytes) + offset); }
std::uint16_t u16At(Bytes bytes, std::size_t offset) { return readU16(unsignedData(bytes) + offset); }

[[noreturn]] void fail(const std::string& problem) { throw BomError("damaged BOM: " + problem); }

// The header's index and the blocks it points at.
class BlockStore {
public:
    explicit BlockStore(Bytes file) : file_(file) {
        if (file.size() < kHeaderLength) fail("file is shorter than its header");
        if (file.substr(0, kStoreMagic.size()) != kStoreMagic) throw BomError("not a BOM file (no BOMStore magic)");
        if (u32At(file, 8) != kStoreVersion) fail("unsupported version " + std::to_string(u32At(file, 8)));
        Bytes index = range(u32At(file, 16), u32At(file, 20), "block index");
        if (index.size() < 4) fail("block index is too short");
        slotCount_ = u32At(index, 0);
        if (slotCount_ > (index.size() - 4) / kPairLength) fail("block index claims more slots than it holds");
        slots_ = index.substr(4, slotCount_ * kPairLength);
        vars_ = range(u32At(file, 24), u32At(file, 28), "vars table");
    }

    std::uint32_t slotCount() const { return slotCount_; }
    Bytes vars() const { return vars_; }

    Bytes block(std::uint32_t number, const char* what) const {
        if (number == 0 || number >= slotCount_)
            fail(std::string(what) + " refers to missing block " + std::to_string(number));
        return range(u32At(slots_, number * kPairLength), u32At(slots_, number * kPairLength + 4), what);
    }

    // A block that must hold at least this many bytes.
    Bytes block(std::uint32_t number, std::size_t minimumLength, const char* what) const {
        Bytes bytes = block(number, what);
        if (bytes.size() < minimumLength)
            fail(std::string(what) + " in block " + std::to_string(number) + " is too short");
        return bytes;
    }

private:
    Bytes range(std::uint32_t offset, std::uint32_t length, const char* what) const {
        if (std::uint64_t{offset} + length > file_.size()) fail(std::string(what) + " lies outside the file");
        return file_.substr(offset, length);
    }

    Bytes file_;
    Bytes slots_;
    Bytes vars_;
    std::uint32_t slotCount_ = 0;
};

// The block number of a named top-level structure. Some writers count a trailing
// NUL in the name's length, so trailing NULs are ignored.
std::uint32_t findVar(Bytes vars, std::string_view wanted) {
    if (vars.size() < 4) fail("vars table is too short");
    std::uint32_t count = u32At(vars, 0);
    std::size_t offset = 4;
    for (std::uint32_t index = 0; index < count; ++index) {
        if (vars.size() - offset < 5) fail("vars table is truncated");
        std::uint32_t block = u32At(vars, offset);
        std::size_t nameLength = unsignedData(vars)[offset + 4];
        offset += 5;
        if (vars.size() - offset < nameLength) fail("vars table is truncated");
        Bytes name = vars.substr(offset, nameLength);
        offset += nameLength;
        while (!name.empty() && name.back() == '\0') name.remove_suffix(1);
        if (name == wanted) return block;
    }
    fail("no \"" + std::string(wanted) + "\" tree");
}

class PathsTreeReader {
public:
    explicit PathsTreeReader(const BlockStore& store) : store_(store), seen_(store.slotCount(), false) {}

    // Calls take(recordBlock, keyBlock) for every pair of every leaf, in leaf order.
    template <typename Take>
    void forEachLeafPair(Take take) {
        // The 21st byte of a tree header carries nothing a reader needs.
        Bytes header = store_.block(findVar(store_.vars(), kVarPaths), 20, "Paths tree header");
        if (header.substr(0, kTreeMagic.size()) != kTreeMagic) fail("Paths tree header has no tree magic");
        if (u32At(header, 4) != kTreeVersion) fail("Paths tree has unsupported version");
        for (std::uint32_t leaf = leftmostLeaf(u32At(header, 8)); leaf != 0;) {
            Bytes node = visitNode(leaf);
            if (u16At(node, 0) != 1) fail("leaf chain reaches a branch node in block " + std::to_string(leaf));
            std::size_t count = u16At(node, 2);
            if (count > (node.size() - kNodeHeaderLength) / kPairLength)
                fail("node in block " + std::to_string(leaf) + " claims more pairs than it holds");
            for (std::size_t pair = 0; pair < count; ++pair) {
                std::size_t offset = kNodeHeaderLength + pair * kPairLength;
                take(u32At(node, offset), u32At(node, offset + 4));
            }
            leaf = u32At(node, 4);
        }
    }

private:
    // Follows the first child of each branch (or its trailing child when it has no
    // pairs) down to a leaf.
    std::uint32_t leftmostLeaf(std::uint32_t block) {
        for (;;) {
            Bytes node = visitNode(block);
            std::uint16_t isLeaf = u16At(node, 0);
            if (isLeaf == 1) {
                seen_[block] = false;  // the leaf chain starts here and visits it again
                return block;
            }
            if (isLeaf != 0) fail("node in block " + std::to_string(block) + " is neither leaf nor branch");
            if (node.size() < kNodeHeaderLength + 4)
                fail("branch node in block " + std::to_string(block) + " is too short");
            block = u32At(node, kNodeHeaderLength);
        }
    }

    // A tree node, each at most once per walk, so that no link can make a loop.
    Bytes visitNode(std::uint32_t block) {
        Bytes node = store_.block(block, kNodeHeaderLength, "Paths tree node");
        if (seen_[block]) fail("Paths tree links loop back to block " + std::to_string(block));
        seen_[block] = true;
        return node;
    }

    const BlockStore& store_;
    std::vector<bool> seen_;
};

}  // namespace

BomPaths BomPaths::parse(std::string bytes) {
    BomPaths result;
    result.bytes_ = std::make_shared<const std::string>(std::move(bytes));
    BlockStore store(*result.bytes_);
    PathsTreeReader(store).forEachLeafPair([&](std::uint32_t recordBlock, std::uint32_t keyBlock) {
        Bytes record = store.block(recordBlock, kPathRecordLength, "path record");
        Bytes key = store.block(keyBlock, 4, "file key");
        Bytes info = store.block(u32At(record, 4), kSimplePathInfoLength, "path info");
        Entry entry;
        entry.id = u32At(record, 0);
        entry.parentId = u32At(key, 0);
        entry.name = key.substr(4);
        entry.name = entry.name.substr(0, entry.name.find('\0'));
        entry.type = static_cast<EntryType>(unsignedData(info)[0]);
        if (entry.id == 0) fail("a path record has id 0");
        if (entry.name.empty()) fail("file key in block " + std::to_string(keyBlock) + " has an empty name");
        // No longer name can be part of a path we hand out, and sorting many long
        // names that share one key block could take practically forever.
        if (entry.name.size() > kMaxPathLength)
            fail("file key in block " + std::to_string(keyBlock) + " has an overlong name");
        result.entries_.push_back(entry);
    });
    result.indexChildren();
    return result;
}

BomPaths BomPaths::load(const std::string& path) {
    // Offsets are 32 bits wide, so nothing past 4 GiB can belong to a BOM.
    std::string bytes = readFileBytes(path, std::numeric_limits<std::uint32_t>::max());
    try {
        return parse(std::move(bytes));
    } catch (const BomError& error) {
        throw BomError(path + ": " + error.what());
    }
}

void BomPaths::indexChildren() {
    std::vector<std::uint32_t> byId(entries_.size());
    std::iota(byId.begin(), byId.end(), std::uint32_t{0});
    std::sort(byId.begin(), byId.end(), [this](auto a, auto b) { return entries_[a].id < entries_[b].id; });
    // A repeated id would give one folder's contents to several parents, which could
    // multiply the walk without end.
    auto sameId = std::adjacent_find(byId.begin(), byId.end(),
                                     [this](auto a, auto b) { return entries_[a].id == entries_[b].id; });
    if (sameId != byId.end()) fail("path id " + std::to_string(entries_[*sameId].id) + " is used twice");

    childOrder_ = std::move(byId);
    auto keyLess = [this](std::uint32_t a, std::uint32_t b) {
        const Entry& left = entries_[a];
        const Entry& right = entries_[b];
        return left.parentId != right.parentId ? left.parentId < right.parentId : left.name < right.name;
    };
    std::sort(childOrder_.begin(), childOrder_.end(), keyLess);
    auto sameKey = std::adjacent_find(childOrder_.begin(), childOrder_.end(), [this](auto a, auto b) {
        return entries_[a].parentId == entries_[b].parentId && entries_[a].name == entries_[b].name;
    });
    if (sameKey != childOrder_.end())
        fail("entry \"" + std::string(entries_[*sameKey].name) + "\" appears twice in one folder");

    auto [rootsBegin, rootsEnd] = childrenOf(0);
    if (rootsBegin == rootsEnd) fail("no root entry \".\"");
    if (rootsEnd - rootsBegin > 1 || entries_[childOrder_[rootsBegin]].name != ".")
        fail("the only top-level entry must be the root \".\"");
}

std::pair<std::size_t, std::size_t> BomPaths::childrenOf(std::uint32_t parentId) const {
    auto begin = std::partition_point(childOrder_.begin(), childOrder_.end(),
                                      [&](std::uint32_t position) { return entries_[position].parentId < parentId; });
    auto end = std::partition_point(begin, childOrder_.end(),
                                    [&](std::uint32_t position) { return entries_[position].parentId == parentId; });
    return {static_cast<std::size_t>(begin - childOrder_.begin()), static_cast<std::size_t>(end - childOrder_.begin())};
}

void BomPaths::forEachPath(const std::function<void(const PathVisit&)>& visit) const {
    // Each entry sits in exactly one parent's range and ids are unique, so every
    // entry is visited at most once, and entries in a loop of parents never are.
    struct Level {
        std::size_t next, end;
        std::size_t pathLength;  // length of the path of the folder whose contents these are
    };
    std::vector<Level> stack;
    std::string path;
    auto [rootBegin, rootEnd] = childrenOf(0);
    stack.push_back({rootBegin, rootEnd, 0});
    while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next == level.end) {
            stack.pop_back();
            continue;
        }
        const Entry& entry = entries_[childOrder_[level.next++]];
        path.resize(level.pathLength);
        if (!path.empty()) path += '/';
        path += entry.name;
        if (path.size() > kMaxPathLength)
            fail("a path is longer than " + std::to_string(kMaxPathLength) + " bytes: " + path.substr(0, 64) + "...");
        auto [childBegin, childEnd] = childrenOf(entry.id);
        PathVisit current;
        current.path = path;
        current.name = entry.name;
        current.depth = stack.size() - 1;
        current.type = entry.type;
        current.hasChildren = childBegin != childEnd;
        visit(current);
        if (current.hasChildren) stack.push_back({childBegin, childEnd, path.size()});
    }
}

std::vector<std::string> BomPaths::paths() const {
    std::vector<std::string> result;
    result.reserve(entries_.size());
    forEachPath([&result](const PathVisit& visit) { result.emplace_back(visit.path); });
    return result;
}

}  // namespace whittle::bom
