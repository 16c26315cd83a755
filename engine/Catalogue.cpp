#include "engine/Catalogue.hpp"

#include "support/Helpers.hpp"
#include "support/PlistCodec.hpp"

namespace whittle {

extern const unsigned char kCatalogueData[];
extern const std::size_t kCatalogueDataSize;

Value valueForKeyPath(const Value& root, std::string_view keyPath) {
    Value current = root;
    while (!current.isNone()) {
        auto dot = keyPath.find('.');
        current = current.get(keyPath.substr(0, dot));
        if (dot == std::string_view::npos) return current;
        keyPath.remove_prefix(dot + 1);
    }
    return {};
}

namespace {

Value dictionaryOrEmpty(const Value& value) { return value.isDictionary() ? value : Value::dictionary(); }

}  // namespace

Catalogue Catalogue::fromPropertyList(std::string_view bytes) {
    Value root = parsePropertyList(bytes);
    Catalogue catalogue;
    catalogue.processorTable_ = dictionaryOrEmpty(root.get("ProcessorTable"));
    catalogue.products_ = dictionaryOrEmpty(root.get("ProductCatalogue"));
    catalogue.factoryVariants_ = dictionaryOrEmpty(root.get("FactoryVariantCatalogue"));
    return catalogue;
}

const Catalogue& Catalogue::builtIn() {
    static const Catalogue catalogue = fromPropertyList(
        std::string_view(reinterpret_cast<const char*>(kCatalogueData), kCatalogueDataSize));
    return catalogue;
}

std::vector<std::string> Catalogue::knownProducts() const { return keysSortedIgnoringCase(products_); }
std::vector<std::string> Catalogue::knownFactoryVariants() const { return keysSortedIgnoringCase(factoryVariants_); }

}  // namespace whittle
