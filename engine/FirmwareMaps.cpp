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

// Only the text maps list their findings plainly; the property-list maps print theirs,
// and the device map the names it missed, as property-list text.
void reportFindings(FirmwareMap map, const FilteredMap& filtered, const Value& names) {
    const FirmwareMapFile& file = firmwareMapFile(map);
    if (filtered.found.count() > 0) {
        if (file.isText) {
            Log("+++ %s found %@.", file.name, niceDescription(filtered.found));
        } else {
            Log("+++ %s found %@.", file.name, filtered.found);
        }
    } else if (map == FirmwareMap::PlatformKeys) {
        Log("!!! WARNING: %s %@ (%@) not found.", file.name, niceDescription(names),
            niceDescription(platformsOfProducts(names.elements())));
    } else if (file.isText) {
        Log("!!! WARNING: %s %@ not found.", file.name, niceDescription(names));
    } else {
        Log("!!! WARNING: %s %@ not found.", file.name, names);
    }
}

}  // namespace

int Stripper3::stripFirmwareMap(const Value& item, FirmwareMap map) {
    const FirmwareMapFile& file = firmwareMapFile(map);
    Value content = firmwareMapContent(*files_, map, [this](const std::string& path) { return propertyListInBundle(*files_, path); });
    if (content.isNone()) return 0;
    Value names = namesOf(item.get(file.byDeviceClass ? "workAllDeviceClasses" : "workAllProducts"));
    FilteredMap filtered = filterFirmwareMap(map, content, names.elements());
    reportFindings(map, filtered, names);
    recordModifiedFile(file.path, filtered.content);
    return 0;
}

}  // namespace whittle
