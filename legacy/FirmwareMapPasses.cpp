// The four firmware map files, cut down once per run to the device classes and
// products that received work items. Each pass reports what it kept and what it
// dropped, and hands its new content on as a partial result.
#include "engine/FirmwareMapFilters.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

void reportFindings(const char* fileName, const FilteredMap& map, const std::string& notFoundMessage) {
    if (map.found.count() > 0) Log("+++ %s found %@.", fileName, niceDescription(map.found));
    if (map.scrubbed.count() > 0) Log("--- %s scrub %@.", fileName, niceDescription(map.scrubbed));
    if (map.found.count() == 0) Log("%@", notFoundMessage);
}

}  // namespace

int Stripper2::stripFirmwareTextMap(const Value& item, bool isDeviceMap) {
    const char* file = isDeviceMap ? kDeviceMapText : kTargetMapText;
    auto text = readFirmwareTextMap(*files_, file, isDeviceMap);
    if (!text) return 0;
    Value names = item.get(isDeviceMap ? "workDeviceClassList" : "workProductList");
    FilteredMap map = isDeviceMap ? filterDeviceMapText(*text, names.elements()) : filterTargetMapText(*text, names.elements());
    const char* fileName = isDeviceMap ? "device_map.txt" : "target_map.txt";
    reportFindings(fileName, map, format("!!! WARNING: %s %@ not found.", fileName, niceDescription(names)));
    Value files = Value::dictionary();
    files.set(file, map.content);
    modifiedFilesList_.append(files);
    return 0;
}

int Stripper2::stripRestoreFirmwareDeviceMapDotTxt(const Value& item) { return stripFirmwareTextMap(item, true); }

int Stripper2::stripRestoreFirmwareTargetMapDotTxt(const Value& item) { return stripFirmwareTextMap(item, false); }

int Stripper2::stripRestoreFirmwareDeviceMapDotPlist(const Value& item) {
    Value map = mutableDictionaryAtSubpath(kDeviceMapPlist);
    if (map.isNone()) {
        // This pass's message has always named the text file.
        Log("!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.");
        return 0;
    }
    Value deviceClasses = item.get("workDeviceClassList");
    FilteredMap kept = filterDeviceMapPlist(map, deviceClasses.elements());
    reportFindings("device_map.plist", kept,
                   format("!!! WARNING: device_map.plist %@ not found.", niceDescription(deviceClasses)));
    Value files = Value::dictionary();
    files.set(kDeviceMapPlist, kept.content);
    modifiedFilesList_.append(files);
    return 0;
}

int Stripper2::stripRestoreFirmwarePlatformKeysDotPlist(const Value& item) {
    Value keys = mutableDictionaryAtSubpath(kPlatformKeys);
    if (keys.isNone()) {
        Log("!!! WARNING: \"Restore/Firmware/platform_keys.plist\" not found.");
        return 0;
    }
    Value products = item.get("workProductList");
    ValueArray platforms = platformsOfProducts(products.elements());
    FilteredMap kept = filterPlatformKeys(keys, platforms);
    reportFindings("platform_keys.plist", kept,
                   format("!!! WARNING: platform_keys.plist %@ (%@) not found.", niceDescription(products),
                          niceDescription(platforms)));
    Value files = Value::dictionary();
    files.set(kPlatformKeys, kept.content);
    modifiedFilesList_.append(files);
    return 0;
}

}  // namespace whittle
