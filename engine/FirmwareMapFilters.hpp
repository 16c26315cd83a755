// Reading the firmware map files of "Restore/Firmware" and cutting them down to the
// requested devices; both engines rewrite the same four files by the same rules.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "support/Value.hpp"

namespace whittle {

inline constexpr const char* kDeviceMapText = "Restore/Firmware/device_map.txt";
inline constexpr const char* kDeviceMapPlist = "Restore/Firmware/device_map.plist";
inline constexpr const char* kTargetMapText = "Restore/Firmware/target_map.txt";
inline constexpr const char* kPlatformKeys = "Restore/Firmware/platform_keys.plist";

class BundleFiles;

// The four map files and what each is cut down by.
enum class FirmwareMap { DeviceMapText, DeviceMapPlist, TargetMapText, PlatformKeys };

struct FirmwareMapFile {
    const char* path;     // bundle-relative
    const char* name;     // as the messages name it
    bool isText;          // else a property list
    bool byDeviceClass;   // cut to the device classes, else to the products
};
const FirmwareMapFile& firmwareMapFile(FirmwareMap map);

// The text of device_map.txt or target_map.txt at the bundle-relative path; when it is
// missing or cannot be read as UTF-8 text, says so with that file's own warning and
// answers none.
std::optional<std::string> readFirmwareTextMap(const BundleFiles& files, const std::string& relative, bool isDeviceMap);

// The content of a map file: a text map's text as a string, a property-list map's
// dictionary as `readPropertyList` answers it for the bundle-relative path. When there is
// none, the file's own warning is said and the answer is none.
Value firmwareMapContent(const BundleFiles& files, FirmwareMap map,
                         const std::function<Value(const std::string&)>& readPropertyList);

// A map file cut down: its new content, what the kept part reports and what the
// dropped part would have reported.
struct FilteredMap {
    Value content;
    Value found = Value::setOf();
    Value scrubbed = Value::setOf();
};

// device_map.txt: the non-empty lines that name one of the device classes anywhere,
// without regard to case. A line reports its fifth field (split at single blanks or
// tabs) when it has one.
FilteredMap filterDeviceMapText(const std::string& text, const ValueArray& deviceClasses);

// target_map.txt: the non-empty lines that name one of the products; a line reports itself.
FilteredMap filterTargetMapText(const std::string& text, const ValueArray& products);

// device_map.plist: the top-level entries whose key is one of the device classes as a
// whole, without regard to case; an entry reports its key.
FilteredMap filterDeviceMapPlist(const Value& map, const ValueArray& deviceClasses);

// platform_keys.plist: a copy of the file's dictionary whose "PlatformKeys" holds only
// the entries whose "PlatformName" is one of the platforms without regard to case; an
// entry reports its name.
FilteredMap filterPlatformKeys(const Value& keys, const ValueArray& platforms);

// Any of the four map files cut down: the device classes or products (names) go to the
// map's own filter; platform keys are cut to the products' platforms.
FilteredMap filterFirmwareMap(FirmwareMap map, const Value& content, const ValueArray& names);

// The catalogue's processors of the products, in their order; products the catalogue
// lacks, or without a processor, add none.
ValueArray platformsOfProducts(const ValueArray& products);

}  // namespace whittle
