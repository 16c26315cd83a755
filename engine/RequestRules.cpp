#include "engine/RequestRules.hpp"

#include <set>

#include "engine/Catalogue.hpp"
#include "engine/WorkItems.hpp"
#include "support/Helpers.hpp"

namespace whittle {

std::vector<std::string> DeviceClassNames::asked() const {
    std::vector<std::string> classes;
    for (const auto* name : {&production, &development}) {
        if (!name->empty()) classes.push_back(*name);
    }
    return classes;
}

bool DeviceClassNames::includes(std::string_view deviceClass) const {
    return (!production.empty() && equalsIgnoringCase(deviceClass, production)) ||
           (!development.empty() && equalsIgnoringCase(deviceClass, development));
}

DeviceClassNames deviceClassesOf(std::string_view product, const Value& stripOptions) {
    DeviceClassNames names;
    if (!boolForKey(stripOptions, "stripAPFirmware")) names.production = std::string(product) + "ap";
    if (boolForKey(stripOptions, "keepDevFirmware")) names.development = std::string(product) + "dev";
    return names;
}

bool checksUnpersonalized(const Value& stripOptions) {
    return boolForKey(stripOptions, "checkUnpersonalized") ||
           boolForKey(stripOptions, "useRestorePlistInsteadOfBuildManifest");
}

bool installsOperatingSystem(std::string_view factoryVariant) {
    Value types = Catalogue::builtIn().factoryVariantValue(std::string(factoryVariant) + ".PersonalizationOSImageTypes");
    return !types.text().empty();
}

Value keptModels(const Value& supportedProductTypes, const Value& requestedModels) {
    std::set<std::string> models;
    for (const auto& model : supportedProductTypes.elements()) {
        if (model.isString() && holdsString(requestedModels, model.text())) models.insert(std::string(model.text()));
    }
    std::vector<std::string> sorted(models.begin(), models.end());
    sortIgnoringCase(sorted);
    return Value::stringArray(sorted);
}

}  // namespace whittle
