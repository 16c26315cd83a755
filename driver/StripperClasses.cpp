#include "driver/StripperClasses.hpp"

#include "engine/Stripper3.hpp"
#include "legacy/Stripper2.hpp"

namespace whittle {

namespace {

const StripperClass kStripperClasses[] = {
    {"Stripper3", Stripper3::knownProducts, Stripper3::knownFactoryVariants, Stripper3::stripperForPath,
     Stripper3::stripperForBundle},
    {"Stripper2", Stripper2::knownProducts, Stripper2::knownFactoryVariants, Stripper2::stripperForPath,
     Stripper2::stripperForBundle},
};

}  // namespace

const StripperClass* stripperClassNamed(std::string_view name) {
    for (const auto& stripperClass : kStripperClasses) {
        if (stripperClass.name == name) return &stripperClass;
    }
    return nullptr;
}

}  // namespace whittle
