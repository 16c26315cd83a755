// Shared facts about the BOM ("BOMStore") container: a big-endian, packed heap file
// of numbered blocks, with named top-level blocks and B+ trees of path entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace whittle::bom {

// Raised for any malformed file list or BOM; the message is one line, ready to print.
class BomError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The type byte at the start of every path info block.
enum class EntryType : std::uint8_t {
    unknown = 0,
    file = 1,
    directory = 2,
    symlink = 3,
    device = 4,
};

inline constexpr std::string_view kStoreMagic = "BOMStore";
inline constexpr std::string_view kTreeMagic = "tree";
inline constexpr std::uint32_t kStoreVersion = 1;
inline constexpr std::uint32_t kTreeVersion = 1;

inline constexpr std::size_t kHeaderLength = 32;
inline constexpr std::size_t kFirstBlockOffset = 0x200;
inline constexpr std::size_t kNodeHeaderLength = 12;
inline constexpr std::size_t kPairLength = 8;
inline constexpr std::size_t kPathRecordLength = 8;
inline constexpr std::size_t kSimplePathInfoLength = 4;
inline constexpr std::size_t kIndexTailLength = 16;

inline constexpr std::uint32_t kPathsNodeSize = 4096;
inline constexpr std::uint32_t kVIndexNodeSize = 128;
// A leaf holds (nodeSize - 12) / 8 pairs; a branch gives up four bytes to its
// trailing child pointer, which makes the same number of pairs plus one child.
inline constexpr std::size_t kLeafCapacity = (kPathsNodeSize - kNodeHeaderLength) / kPairLength;
inline constexpr std::size_t kBranchChildCapacity = (kPathsNodeSize - kNodeHeaderLength - 4) / kPairLength + 1;
// A full node that takes one more entry keeps this many and passes the rest on, so
// nodes filled in ascending key order all hold this many except the last.
inline constexpr std::size_t kSplitKeep = kLeafCapacity / 2 + 1;

inline constexpr std::string_view kVarBomInfo = "BomInfo";
inline constexpr std::string_view kVarPaths = "Paths";
inline constexpr std::string_view kVarHardLinks = "HLIndex";
inline constexpr std::string_view kVarVIndex = "VIndex";
inline constexpr std::string_view kVarSize64 = "Size64";

inline std::uint32_t readU32(const std::uint8_t* bytes) {
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) | (std::uint32_t{bytes[2]} << 8) |
           std::uint32_t{bytes[3]};
}

inline std::uint16_t readU16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]);
}

}  // namespace whittle::bom
