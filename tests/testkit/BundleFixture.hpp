// A fixture for tests that work on a bundle in a temporary folder: generated bundles,
// property-list files in it, option dictionaries, and what the code under test logged.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/PropertyList.hpp"

namespace whittle::test {

class BundleFixture : public testing::Test {
protected:
    void SetUp() override {
        LogObject::sharedLogger().setVerbose(false);
        LogObject::sharedLogger().setUseTTY(false);
    }

    std::string root() const { return dir.path() + "/bundle"; }
    std::string at(const std::string& relative) const { return root() + "/" + relative; }

    bundlegen::GeneratedBundle generate(const bundlegen::BundlePlan& plan) { return bundlegen::generateBundle(root(), plan); }

    // A bundle with the given products, each offering the given factory variants.
    bundlegen::GeneratedBundle generate(const std::vector<std::string>& products, const std::vector<std::string>& variants) {
        bundlegen::BundlePlan plan;
        for (const auto& product : products) {
            bundlegen::ProductPlan productPlan;
            productPlan.product = product;
            productPlan.factoryVariants = variants;
            plan.products.push_back(productPlan);
        }
        return generate(plan);
    }

    static Value options(std::initializer_list<const char*> trueKeys) {
        Value result = Value::dictionary();
        for (const char* key : trueKeys) result.set(key, Value::boolean(true));
        return result;
    }


    void writePlist(const std::string& relative, const Value& value) { writeFile(at(relative), xmlPropertyList(value)); }
    Value readPlist(const std::string& relative) { return mutableDictionaryAtPath(at(relative)); }

    TempDir dir;
};

}  // namespace whittle::test
