// The built-in catalogue: the processor table, the products (boards) a user may ask
// for and the factory variants. The data is compiled into the program from
// data/catalogue.plist and parsed once, on first use.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

// Follows a key path such as "x10.model" through nested dictionaries; none when any
// step is missing.
Value valueForKeyPath(const Value& root, std::string_view keyPath);

class Catalogue {
public:
    // The compiled-in catalogue.
    static const Catalogue& builtIn();
    // A catalogue read from property-list text (the compiled-in one, or test data).
    static Catalogue fromPropertyList(std::string_view bytes);

    const Value& processorTable() const { return processorTable_; }
    const Value& products() const { return products_; }
    const Value& factoryVariants() const { return factoryVariants_; }

    // Names sorted without regard to case.
    std::vector<std::string> knownProducts() const;
    std::vector<std::string> knownFactoryVariants() const;

    // Lookups by key path ("%@.model", "%@.KernelCaches", ...); none when unknown.
    Value productValue(std::string_view keyPath) const { return valueForKeyPath(products_, keyPath); }
    Value factoryVariantValue(std::string_view keyPath) const {
        return valueForKeyPath(factoryVariants_, keyPath);
    }
    Value processorName(std::string_view processorID) const { return processorTable_.get(processorID); }

private:
    Value processorTable_ = Value::dictionary();
    Value products_ = Value::dictionary();
    Value factoryVariants_ = Value::dictionary();
};

}  // namespace whittle
