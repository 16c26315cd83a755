#include "engine/Catalogue.hpp"
#include "engine/Stripper.hpp"
#include "engine/Stripper3.hpp"

namespace whittle {

namespace {

std::vector<std::string> catalogueProducts() { return Catalogue::builtIn().knownProducts(); }
std::vector<std::string> catalogueFactoryVariants() { return Catalogue::builtIn().knownFactoryVariants(); }

// The legacy engine is not part of the program yet: no such engine can be made.
std::unique_ptr<Stripper> noEngine(const std::string&, const Value&, const Value&, const Value&) {
    return nullptr;
}

// Both engine classes carry the same catalogue rows.
const StripperClass kStripperClasses[] = {
    {"Stripper3", Stripper3::knownProducts, Stripper3::knownFactoryVariants, Stripper3::stripperForPath},
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
