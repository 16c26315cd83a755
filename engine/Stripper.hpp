// The interface every strip engine offers the driver, and what the driver knows of an
// engine class: its catalogue and its factory.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

class Stripper {
public:
    Stripper() = default;
    virtual ~Stripper() = default;
    Stripper(const Stripper&) = delete;
    Stripper& operator=(const Stripper&) = delete;

    // 0 on success, anything else is the failure's code.
    virtual int strip() { return 22; }
    // Arrays of names, or none.
    virtual Value validProducts() { return {}; }
    virtual Value validFactoryVariants() { return {}; }
    virtual Value bundleRoot() const { return {}; }
    // The kept paths (a sorted array) and the new contents by path (a dictionary).
    virtual Value strippedManifest() { return {}; }
    virtual Value modifiedFiles() { return {}; }

    bool verbose() const { return verbose_; }
    virtual void setVerbose(bool verbose) { verbose_ = verbose; }

private:
    bool verbose_ = false;
};

// An engine class as the driver sees it: its catalogue and its factory.
struct StripperClass {
    std::string_view name;
    std::vector<std::string> (*knownProducts)();
    std::vector<std::string> (*knownFactoryVariants)();
    // Products and variants are arrays or none; options is the StripOptions dictionary.
    // Answers nullptr when no engine can be made.
    std::unique_ptr<Stripper> (*stripperForPath)(const std::string& bundleRoot, const Value& products,
                                                 const Value& factoryVariants, const Value& options);
};

}  // namespace whittle
