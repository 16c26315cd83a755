// What a request's options and factory variants mean for the files kept, the same in
// both engines: the device classes served for a product, whether unpersonalized
// installs are checked, which variants install an operating system, and which models
// a rewritten manifest still lists.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

// A product's device classes as the options ask for them; a class left out is "".
struct DeviceClassNames {
    std::string production;   // the product's name + "ap", unless "stripAPFirmware"
    std::string development;  // the product's name + "dev", with "keepDevFirmware"

    // The classes asked for, production first.
    std::vector<std::string> asked() const;
    // True when the device class is one asked for, without regard to case.
    bool includes(std::string_view deviceClass) const;
};

DeviceClassNames deviceClassesOf(std::string_view product, const Value& stripOptions);

// "checkUnpersonalized", or "useRestorePlistInsteadOfBuildManifest" which implies it.
bool checksUnpersonalized(const Value& stripOptions);

// True when the factory variant names operating-system image types to personalize.
bool installsOperatingSystem(std::string_view factoryVariant);

// The strings of a manifest's "SupportedProductTypes" that the requested models (an
// array or a set) hold, each once, sorted without regard to case.
Value keptModels(const Value& supportedProductTypes, const Value& requestedModels);

}  // namespace whittle
