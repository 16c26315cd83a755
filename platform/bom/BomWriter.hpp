// Making a simple BOM: the path-only kind, built from a text file list.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bom/BomFormat.hpp"

namespace whittle::bom {

// One path of a simple BOM. Its id is its position in the list plus one, so the
// root, which comes first, has id 1.
struct SimpleEntry {
    std::uint32_t parentId = 0;  // 0 for the root
    std::string name;            // last path component; "." for the root
    EntryType type = EntryType::file;
};

// Turns a file list ("." then one "./relative/path" per line) into entries in id
// order. Throws BomError for lines it cannot take.
std::vector<SimpleEntry> entriesFromFileList(std::string_view text);

// The bytes of a simple BOM holding these entries. The first entry must be the
// root; every other entry's parent must come before it. Throws BomError otherwise.
std::string writeSimpleBom(const std::vector<SimpleEntry>& entries);

}  // namespace whittle::bom
