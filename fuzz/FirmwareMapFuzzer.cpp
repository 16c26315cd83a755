// The firmware map filters of both engines. The first byte chooses the file (the two
// text maps, device_map.plist, platform_keys.plist); the rest is its content.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "engine/FirmwareMapFilters.hpp"
#include "support/Helpers.hpp"
#include "support/PlistCodec.hpp"

namespace {

using whittle::Value;
using whittle::ValueArray;

const ValueArray& requestedNames() {
    static const ValueArray names{Value::string("x10ap"), Value::string("X30"), Value::string("j1dev"),
                                  Value::string("")};
    return names;
}

// A set holds no two equal members, and finds each of its own.
void checkSet(const Value& set) {
    const auto& members = set.elements();
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (!set.setContains(members[i])) std::abort();
        for (std::size_t j = i + 1; j < members.size(); ++j) {
            if (members[i].equals(members[j])) std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::string content(reinterpret_cast<const char*>(data) + 1, size - 1);
    whittle::FilteredMap map;
    switch (data[0] % 4) {
        case 0: map = whittle::filterDeviceMapText(content, requestedNames()); break;
        case 1: map = whittle::filterTargetMapText(content, requestedNames()); break;
        case 2: map = whittle::filterDeviceMapPlist(whittle::parsePropertyList(content), requestedNames()); break;
        default:
            map = whittle::filterPlatformKeys(whittle::parsePropertyList(content),
                                              whittle::platformsOfProducts(requestedNames()));
    }
    // The kept lines come from the input, each with its line break.
    if (map.content.isString() && map.content.text().size() > content.size() + 1) std::abort();
    checkSet(map.found);
    checkSet(map.scrubbed);
    (void)whittle::niceDescription(map.found);
    (void)whittle::niceDescription(map.scrubbed);
    return 0;
}
