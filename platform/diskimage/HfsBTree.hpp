// The B-trees of an HFS+ volume (catalog, extents overflow, attributes), built whole
// from records already in key order: a header node, the leaf nodes filled in order,
// and index nodes above them up to a single root.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace whittle::diskimage {

struct BTreeRecord {
    std::string key;  // with its 2-byte length in front
    std::string data;
};

struct BTreeShape {
    std::uint16_t longestKey = 0;
    std::uint32_t attributes = 0;  // big keys, variable-length index keys
};

// The tree file: a whole number of nodes of format::hfs::kNodeSize bytes, none free.
// Throws DiskImageError when the records need more nodes than one header node maps.
std::string buildBTree(std::vector<BTreeRecord> records, const BTreeShape& shape);

}  // namespace whittle::diskimage
