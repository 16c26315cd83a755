#include "engine/BundleListing.hpp"

#include <algorithm>

#include "engine/BundlePaths.hpp"
#include "support/Helpers.hpp"

namespace whittle {

bool hasInvisiblePrefix(std::string_view name) { return hasPrefix(name, ".BC_", kCaseInsensitiveSearch); }

bool isInvisibleItemName(std::string_view name) {
    static const char* const invisibles[] = {".DS_Store", ".svn", "CVS", ".fseventsd", ".Trashes"};
    return std::any_of(std::begin(invisibles), std::end(invisibles),
                       [name](const char* invisible) { return equalsIgnoringCase(name, invisible); });
}

}  // namespace whittle
