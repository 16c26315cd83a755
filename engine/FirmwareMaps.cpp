// The four firmware map files of "Restore/Firmware", cut down to the requested devices.
#include "engine/FirmwareMapFilters.hpp"
#include "engine/Stripper3.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PropertyList.hpp"

namespace whittle {

namespace {

Value namesOf(const Value& set) {
    return set.isSet() ? set : Value::setOf();
}

}  // namespace

int Stripper3::stripFirmwareTextMap(const Value& item, const char* keysName, bool isDeviceMap) {
    const char* file = isDeviceMap ? kDeviceMapText : kTargetMapText;
    auto text = readFirmwareTextMap(*files_, file, isDeviceMap);
    if (!text) return 0;
    Value names = namesOf(item.get(keysName));
    FilteredMap map = isDeviceMap ? filterDeviceMapText(*text, names.elements()) : filterTargetMapText(*text, names.elements());
    const char* fileName = isDeviceMap ? "device_map.txt" : "target_map.txt";
    if (map.found.count() == 0) {
        Log("!!! WARNING: %s %@ not found.", fileName, niceDescription(names));
    } else {
        Log("+++ %s found %@.", fileName, niceDescription(map.found));
    }
    modifiedFilelist_.set(file, map.content);
    return 0;
}

int Stripper3::stripRestoreFirmwareDeviceMapDotTxt(const Value& item) {
    return stripFirmwareTextMap(item, "workAllDeviceClasses", true);
}

int Stripper3::stripRestoreFirmwareTargetMapDotTxt(const Value& item) {
    return stripFirmwareTextMap(item, "workAllProducts", false);
}

int Stripper3::stripRestoreFirmwareDeviceMapDotPlist(const Value& item) {
    Value map = propertyListInBundle(*files_, kDeviceMapPlist);
    if (!map.isDictionary()) {
        // This step's message has always named the text file.
        Log("!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.");
        return 0;
    }
    Value deviceClasses = namesOf(item.get("workAllDeviceClasses"));
    FilteredMap kept = filterDeviceMapPlist(map, deviceClasses.elements());
    if (kept.found.count() == 0) {
        Log("!!! WARNING: device_map.plist %@ not found.", deviceClasses);
    } else {
        Log("+++ device_map.plist found %@.", kept.found);
    }
    modifiedFilelist_.set(kDeviceMapPlist, kept.content);
    return 0;
}

int Stripper3::stripRestoreFirmwarePlatformKeysDotPlist(const Value& item) {
    Value keys = propertyListInBundle(*files_, kPlatformKeys);
    if (!keys.isDictionary()) {
        Log("!!! WARNING: \"Restore/Firmware/platform_keys.plist\" not found.");
        return 0;
    }
    Value products = namesOf(item.get("workAllProducts"));
    ValueArray platforms = platformsOfProducts(products.elements());
    FilteredMap kept = filterPlatformKeys(keys, platforms);
    if (kept.found.count() == 0) {
        Log("!!! WARNING: platform_keys.plist %@ (%@) not found.", niceDescription(products), niceDescription(platforms));
    } else {
        Log("+++ platform_keys.plist found %@.", kept.found);
    }
    modifiedFilelist_.set(kPlatformKeys, kept.content);
    return 0;
}

}  // namespace whittle
