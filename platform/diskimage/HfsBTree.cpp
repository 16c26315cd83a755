#include "platform/diskimage/HfsBTree.hpp"

#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"

namespace whittle::diskimage {

namespace h = format::hfs;

namespace {

constexpr std::size_t kNodeSize = h::kNodeSize;

// One node being filled: records from the front, their offsets from the back.
class Node {
public:
    bool fits(std::size_t recordLength) const {
        // The offsets: one per record and one for the start of the free space.
        return used_ + recordLength + 2 * (offsets_.size() + 2) <= kNodeSize;
    }
    bool empty() const { return offsets_.empty(); }
    void add(const std::string& record) {
        offsets_.push_back(static_cast<std::uint16_t>(used_));
        bytes_.replace(used_, record.size(), record);
        used_ += record.size();
    }
    std::string finish(std::uint32_t next, std::uint32_t previous, std::int8_t kind, std::uint8_t height) {
        writeBig32(bytes_, 0, next);
        writeBig32(bytes_, 4, previous);
        bytes_[8] = static_cast<char>(kind);
        bytes_[9] = static_cast<char>(height);
        writeBig16(bytes_, 10, static_cast<std::uint16_t>(offsets_.size()));
        offsets_.push_back(static_cast<std::uint16_t>(used_));
        for (std::size_t i = 0; i < offsets_.size(); ++i) writeBig16(bytes_, kNodeSize - 2 * (i + 1), offsets_[i]);
        return std::move(bytes_);
    }

private:
    std::string bytes_ = std::string(kNodeSize, '\0');
    std::size_t used_ = h::kNodeDescriptorSize;
    std::vector<std::uint16_t> offsets_;
};

// The records of one level packed into nodes, in order.
std::vector<std::vector<std::string>> pack(std::vector<std::string> records) {
    std::vector<std::vector<std::string>> nodes;
    Node probe;
    for (std::string& record : records) {
        if (record.size() + 2 * 2 + h::kNodeDescriptorSize > kNodeSize)
            throw DiskImageError("internal error: a catalog record does not fit a node");
        if (nodes.empty() || !probe.fits(record.size())) {
            nodes.emplace_back();
            probe = Node();
        }
        probe.add(record);
        nodes.back().push_back(std::move(record));
    }
    return nodes;
}

struct Level {
    std::vector<std::vector<std::string>> nodes;
    std::uint32_t firstNode = 0;
};

std::string headerNode(const std::vector<Level>& levels, std::size_t leafRecords, std::uint32_t totalNodes,
                       const BTreeShape& shape) {
    std::string header(h::kHeaderRecordSize, '\0');
    std::uint32_t root = 0, firstLeaf = 0, lastLeaf = 0;
    if (!levels.empty()) {
        root = levels.back().firstNode;
        firstLeaf = levels.front().firstNode;
        lastLeaf = firstLeaf + static_cast<std::uint32_t>(levels.front().nodes.size()) - 1;
    }
    writeBig16(header, 0, static_cast<std::uint16_t>(levels.size()));  // depth
    writeBig32(header, 2, root);
    writeBig32(header, 6, static_cast<std::uint32_t>(leafRecords));
    writeBig32(header, 10, firstLeaf);
    writeBig32(header, 14, lastLeaf);
    writeBig16(header, 18, static_cast<std::uint16_t>(kNodeSize));
    writeBig16(header, 20, shape.longestKey);
    writeBig32(header, 22, totalNodes);
    writeBig32(header, 26, 0);  // free nodes
    writeBig32(header, 32, totalNodes * static_cast<std::uint32_t>(kNodeSize));  // clump size
    writeBig32(header, 38, shape.attributes);

    // The map record: one bit per node, most significant bit first; all in use.
    std::size_t mapLength = kNodeSize - h::kNodeDescriptorSize - h::kHeaderRecordSize - h::kUserDataRecordSize - 4 * 2;
    if (totalNodes > mapLength * 8) throw DiskImageError("the folder holds too many items for one volume catalog");
    std::string map(mapLength, '\0');
    for (std::uint32_t node = 0; node < totalNodes; ++node)
        map[node / 8] = static_cast<char>(map[node / 8] | (0x80 >> (node % 8)));

    Node node;
    node.add(header);
    node.add(std::string(h::kUserDataRecordSize, '\0'));
    node.add(map);
    return node.finish(0, 0, h::kHeaderNode, 0);
}

}  // namespace

std::string buildBTree(std::vector<BTreeRecord> records, const BTreeShape& shape) {
    std::vector<std::string> leafRecords;
    leafRecords.reserve(records.size());
    for (BTreeRecord& record : records) {
        leafRecords.push_back(record.key + record.data);
        std::string().swap(record.data);  // only the keys are needed from here on
    }

    // Levels from the leaves up; each index record is the first key of a node below.
    std::vector<Level> levels;
    std::uint32_t nextNode = 1;
    if (!records.empty()) {
        levels.push_back({pack(std::move(leafRecords)), nextNode});
        nextNode += static_cast<std::uint32_t>(levels.back().nodes.size());
        std::vector<std::string> firstKeys;
        std::size_t recordAt = 0;
        for (const auto& leaf : levels.back().nodes) {
            firstKeys.push_back(records[recordAt].key);
            recordAt += leaf.size();
        }
        while (levels.back().nodes.size() > 1) {
            const Level& below = levels.back();
            std::vector<std::string> indexRecords;
            for (std::size_t i = 0; i < below.nodes.size(); ++i) {
                std::string record = firstKeys[i] + std::string(4, '\0');
                writeBig32(record, firstKeys[i].size(), below.firstNode + static_cast<std::uint32_t>(i));
                indexRecords.push_back(std::move(record));
            }
            Level above{pack(std::move(indexRecords)), nextNode};
            nextNode += static_cast<std::uint32_t>(above.nodes.size());
            std::vector<std::string> aboveKeys;
            std::size_t childAt = 0;
            for (const auto& node : above.nodes) {
                aboveKeys.push_back(firstKeys[childAt]);
                childAt += node.size();
            }
            firstKeys = std::move(aboveKeys);
            levels.push_back(std::move(above));
        }
    }

    std::string tree = headerNode(levels, records.size(), nextNode, shape);
    tree.reserve(std::size_t{nextNode} * kNodeSize);
    for (std::size_t depth = 0; depth < levels.size(); ++depth) {
        const Level& level = levels[depth];
        auto count = static_cast<std::uint32_t>(level.nodes.size());
        for (std::uint32_t i = 0; i < count; ++i) {
            Node node;
            for (const std::string& record : level.nodes[i]) node.add(record);
            std::uint32_t next = i + 1 < count ? level.firstNode + i + 1 : 0;
            std::uint32_t previous = i > 0 ? level.firstNode + i - 1 : 0;
            tree += node.finish(next, previous, depth == 0 ? h::kLeafNode : h::kIndexNode,
                                static_cast<std::uint8_t>(depth + 1));
        }
    }
    return tree;
}

}  // namespace whittle::diskimage
