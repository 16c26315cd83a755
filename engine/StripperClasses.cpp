#include "engine/Catalogue.hpp"
#include "engine/Stripper.hpp"

namespace whittle {

namespace {

std::vector<std::string> catalogueProducts() { return Catalogue::builtIn().knownProducts(); }
std::vector<std::string> catalogueFactoryVariants() { return Catalogue::builtIn().knownFactoryVariants(); }

// The engines themselves are not part of the program yet: no engine can be made.
std::unique_ptr<Stripper> noEngine(const std::string&, const Value&, const Value&, const Value&) {
    return nullptr;
}

// Both engine classes carry the same catalogue rows.
const StripperClass kStripperClasses[] = {
    {"Stripper3", catalogueProducts, catalogueFactoryVariants, noEngine},
    {"Stripper2", catalogueProducts, catalogueFactoryVariants, noEngine},
};

}  // namespace

const StripperClass* stripperClassNamed(std::string_view name) {
    for (const auto& stripperClass : kStripperClasses) {
        if (stripperClass.name == name) return &stripperClass;
    }
    return nullptr;
}

}  // namespace whittle
