// The list of what to copy: every path a BOM lists, checked against the source
// folder before anything is written.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bom/BomReader.hpp"

namespace whittle::copy {

struct PlannedItem {
    std::string_view name;  // last component, a view into the BOM; "." for the root
    std::size_t depth = 0;  // 0 for the root
    bool hasChildren = false;
    struct stat source {};  // the source item, not following a final symbolic link
};

// The BOM's paths in walk order (each folder before its contents), with what the
// source folder holds at each. Throws CopyError, naming the path, when a listed path
// is not a plain relative path (absolute, "..", "." or empty components), is missing
// from the source, or lies inside something that is not a real folder, such as a
// symbolic link. Nothing outside the source folder is looked at: every step opens
// one component relative to its parent folder and never follows a link.
// The type byte a BOM records is not used: a simple BOM's types are guessed from
// its file list, so what the source really holds decides how each path is copied.
std::vector<PlannedItem> planCopy(const bom::BomPaths& paths, int sourceRoot);

// How much a plan copies: every item but a folder counts as a file, and the bytes are
// the regular files' sizes as planned.
struct CopyTotals {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
};
CopyTotals totalsOf(const std::vector<PlannedItem>& plan);
bool countsAsFile(const PlannedItem& item);

// Rebuilds "./a/b" paths while going through a plan in order.
class PlanPath {
public:
    // Moves to this item, which must come next in plan order; returns its path.
    std::string_view enter(const PlannedItem& item);

private:
    std::string path_;
    std::vector<std::size_t> lengths_;  // path length at each depth
};

}  // namespace whittle::copy
