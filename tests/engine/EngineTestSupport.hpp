// A fixture for tests of the default engine: a generated bundle in a temporary folder,
// engines made over it, and what they logged.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "BundleFixture.hpp"
#include "engine/Catalogue.hpp"
#include "engine/Stripper3.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/PropertyList.hpp"

namespace whittle::test {

class EngineTest : public BundleFixture {
protected:
    std::unique_ptr<Stripper3> engine(const std::vector<std::string>& products, const std::vector<std::string>& variants,
                                      const Value& options = Value::dictionary()) {
        Value productList = products.empty() ? Value() : Value::stringArray(products);
        Value variantList = variants.empty() ? Value() : Value::stringArray(variants);
        return std::make_unique<Stripper3>(std::make_shared<FolderBundleFiles>(root()), productList, variantList, options);
    }

    static bool keeps(Stripper3& stripper, const std::string& path) { return stripper.copiedFilelist().contains(path); }
};

}  // namespace whittle::test
