// Names of the invisible housekeeping items a bundle may carry.
#pragma once

#include <string>
#include <string_view>

namespace whittle {

// Invisible housekeeping items: names beginning with ".BC_", and the names ".DS_Store",
// ".svn", "CVS", ".fseventsd" and ".Trashes" as a whole; letter case is ignored.
bool hasInvisiblePrefix(std::string_view name);
bool isInvisibleItemName(std::string_view name);

}  // namespace whittle
