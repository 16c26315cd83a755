// The disk image tool's property-list output, and where an attached image is mounted.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "support/Value.hpp"

namespace whittle {

// Cuts the XML property lists out of a tool's output and parses each. Answers those
// parsed so far; sets errorText on failure and leaves it untouched on success.
Value splitPropertyLists(std::string_view text, bool mutableResults, std::string& errorText);

struct MountedVolume {
    std::string mountPoint;
    std::string deviceEntry;
};

// The last property list's first entity with a "mount-point", if any.
std::optional<MountedVolume> findMountPoint(const Value& propertyLists);

}  // namespace whittle
