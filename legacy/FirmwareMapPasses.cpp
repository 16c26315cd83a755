// The four firmware map files, cut down once per run to the device classes and
// products that received work items. Each pass reports what it kept and what it
// dropped, and hands its new content on as a partial result.
#include "engine/FirmwareMapFilters.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

std::string notFoundMessage(FirmwareMap map, const Value& names) {
    const char* fileName = firmwareMapFile(map).name;
    if (map == FirmwareMap::PlatformKeys) {
        return format("!!! WARNING: %s %@ (%@) not found.", fileName, niceDescription(names),
                      niceDescription(platformsOfProducts(names.elements())));
    }
    return format("!!! WARNING: %s %@ not found.", fileName, niceDescription(names));
}

void reportFindings(FirmwareMap map, const FilteredMap& filtered, const Value& names) {
    const char* fileName = firmwareMapFile(map).name;
    if (filtered.found.count() > 0) Log("+++ %s found %@.", fileName, niceDescription(filtered.found));
    if (filtered.scrubbed.count() > 0) Log("--- %s scrub %@.", fileName, niceDescription(filtered.scrubbed));
    if (filtered.found.count() == 0) Log("%@", notFoundMessage(map, names));
}

}  // namespace

int Stripper2::stripFirmwareMap(const Value& item, FirmwareMap map) {
    const FirmwareMapFile& file = firmwareMapFile(map);
    Value content = firmwareMapContent(*files_, map, [this](const std::string& path) { return mutableDictionaryAtSubpath(path); });
    if (content.isNone()) return 0;
    Value names = item.get(file.byDeviceClass ? "workDeviceClassList" : "workProductList");
    FilteredMap filtered = filterFirmwareMap(map, content, names.elements());
    reportFindings(map, filtered, names);
    recordModifiedFile(file.path, filtered.content);
    return 0;
}

}  // namespace whittle
