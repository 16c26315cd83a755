// Which products and factory variants a bundle supports: those that both the catalogue
// and the bundle's build manifest know.
#include <map>

#include "engine/Catalogue.hpp"
#include "engine/Stripper3.hpp"
#include "engine/WorkList.hpp"
#include "support/Helpers.hpp"

namespace whittle {

std::string productOfDeviceClass(const std::string& deviceClass) {
    if (hasSuffix(deviceClass, "ap", kCaseInsensitiveSearch)) return deviceClass.substr(0, deviceClass.size() - 2);
    if (hasSuffix(deviceClass, "dev", kCaseInsensitiveSearch)) return deviceClass.substr(0, deviceClass.size() - 3);
    return deviceClass;
}

Value sortedNames(const std::set<std::string>& names) {
    std::vector<std::string> sorted(names.begin(), names.end());
    sortIgnoringCase(sorted);
    return Value::stringArray(sorted);
}

namespace {

// Personalization variant -> the factory variants it serves.
std::map<std::string, std::vector<std::string>> factoryVariantsByPersonalization(const Catalogue& catalogue) {
    std::map<std::string, std::vector<std::string>> index;
    for (const auto& name : catalogue.knownFactoryVariants()) {
        Value personalization = catalogue.factoryVariantValue(name + ".PersonalizationVariants");
        if (personalization.isString()) index[std::string(personalization.text())].push_back(name);
    }
    return index;
}

}  // namespace

Value Stripper3::validProducts() {
    if (!loadBuildManifest()) return {};
    const Value& catalogueProducts = Catalogue::builtIn().products();
    std::set<std::string> products;
    if (const auto* deviceClasses = originalBuildIdentities_.asDictionary()) {
        for (const auto& entry : *deviceClasses) {
            std::string product = productOfDeviceClass(entry.first);
            if (!catalogueProducts.get(product).isNone()) products.insert(product);
        }
    }
    return sortedNames(products);
}

Value Stripper3::validFactoryVariants() {
    Value products = requestedList("Products");
    if (!loadBuildManifest()) return {};
    Value deviceClasses = Value::array();
    for (const auto& product : products.elements()) {
        Value classes = deviceClassesFor(product.description());
        for (const auto& deviceClass : classes.elements()) deviceClasses.append(deviceClass);
    }
    return factoryVariantsForDeviceClasses(deviceClasses);
}

Value Stripper3::factoryVariantsForDeviceClasses(const Value& deviceClasses) {
    if (!deviceClasses.isArray()) return {};
    const Catalogue& catalogue = Catalogue::builtIn();
    auto known = catalogue.knownFactoryVariants();
    std::set<std::string> candidates(known.begin(), known.end());
    auto servedBy = factoryVariantsByPersonalization(catalogue);
    for (const auto& deviceClass : deviceClasses.elements()) {
        std::set<std::string> offered;
        if (const auto* variants = originalBuildIdentities_.get(deviceClass.text()).asDictionary()) {
            for (const auto& entry : *variants) {
                auto served = servedBy.find(entry.first);
                if (served != servedBy.end()) offered.insert(served->second.begin(), served->second.end());
            }
        }
        std::erase_if(candidates, [&offered](const std::string& name) { return !offered.contains(name); });
    }
    return sortedNames(candidates);
}

}  // namespace whittle
