// Reading the paths of any BOM, simple or full, tolerant of the layouts other
// writers produce and safe on damaged or hostile files: every offset and length is
// checked, tree walks cannot loop, and memory stays proportional to the file size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bom/BomFormat.hpp"

namespace whittle::bom {

// Longest path the reader hands out; a longer one makes the BOM unreadable.
inline constexpr std::size_t kMaxPathLength = 4096;

// One path met during a walk of the tree. The views are valid during the call only.
struct PathVisit {
    std::string_view path;  // "." or "./a/b"
    std::string_view name;  // last component; "." for the root
    std::size_t depth = 0;  // 0 for the root
    EntryType type = EntryType::unknown;
    bool hasChildren = false;
};

class BomPaths {
public:
    // Parses a whole BOM file held in memory. Throws BomError.
    static BomPaths parse(std::string bytes);
    // Reads and parses the BOM at this path. Throws BomError, also for I/O errors.
    static BomPaths load(const std::string& path);

    std::size_t size() const { return entries_.size(); }

    // Walks the paths hierarchically, the way the platform's listing tool orders
    // them: the root, then each folder's contents in key order, each followed by
    // its own contents. Entries that no chain of parents links to the root are not
    // visited. Throws BomError for a path longer than kMaxPathLength.
    void forEachPath(const std::function<void(const PathVisit&)>& visit) const;

    // All visited paths, in walk order.
    std::vector<std::string> paths() const;

private:
    struct Entry {
        std::uint32_t id = 0;
        std::uint32_t parentId = 0;
        std::string_view name;  // into *bytes_
        EntryType type = EntryType::unknown;
    };

    BomPaths() = default;
    void indexChildren();
    // The entries whose parent is this id, as a range of childOrder_.
    std::pair<std::size_t, std::size_t> childrenOf(std::uint32_t parentId) const;

    std::shared_ptr<const std::string> bytes_;  // shared so that copies keep the names valid
    std::vector<Entry> entries_;
    std::vector<std::uint32_t> childOrder_;  // entry positions sorted by (parent id, name)
};

}  // namespace whittle::bom
