// A fixture for tests of the legacy engine: a bundle in a temporary folder (generated,
// or written file by file), engines made over it, and what they logged.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "legacy/Stripper2.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/PropertyList.hpp"

namespace whittle::test {

class LegacyTest : public testing::Test {
protected:
    void SetUp() override {
        LogObject::sharedLogger().setVerbose(false);
        LogObject::sharedLogger().setUseTTY(false);
        std::filesystem::create_directories(root());
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

    // An engine over the bundle as it is now (the engine lists the bundle when it is made).
    std::unique_ptr<Stripper2> engine(const std::vector<std::string>& products = {},
                                      const std::vector<std::string>& variants = {},
                                      const Value& options = Value::dictionary()) {
        Value productList = products.empty() ? Value() : Value::stringArray(products);
        Value variantList = variants.empty() ? Value() : Value::stringArray(variants);
        return std::make_unique<Stripper2>(root(), productList, variantList, options);
    }

    static Value options(std::initializer_list<const char*> trueKeys) {
        Value result = Value::dictionary();
        for (const char* key : trueKeys) result.set(key, Value::boolean(true));
        return result;
    }

    static Value dict(std::initializer_list<std::pair<const char*, Value>> entries) {
        Value result = Value::dictionary();
        for (const auto& [key, value] : entries) result.set(key, value);
        return result;
    }

    static Value strings(const std::vector<std::string>& texts) { return Value::stringArray(texts); }

    // Runs the body and answers what it logged; standard output is kept quiet.
    static std::string logged(const std::function<void()>& body) {
        std::string before = LogObject::sharedLogger().historicalLog();
        testing::internal::CaptureStdout();
        body();
        testing::internal::GetCapturedStdout();
        return LogObject::sharedLogger().historicalLog().substr(before.size());
    }

    void file(const std::string& relative, const std::string& content = "x") {
        std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
        writeFile(at(relative), content);
    }
    void folder(const std::string& relative) { std::filesystem::create_directories(at(relative)); }
    void link(const std::string& relative, const std::string& target) {
        std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
        std::filesystem::create_symlink(target, at(relative));
    }
    void writePlist(const std::string& relative, const Value& value) {
        std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
        writeFile(at(relative), xmlPropertyList(value));
    }
    Value readPlist(const std::string& relative) { return mutableDictionaryAtPath(at(relative)); }

    static bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

    static std::vector<std::string> texts(const Value& list) {
        std::vector<std::string> out;
        for (const auto& element : list.elements()) out.emplace_back(element.text());
        return out;
    }

    // The last kept-path array and the last modified-files dictionary an engine collected.
    static std::vector<std::string> lastKept(Stripper2& stripper) {
        const Value& list = stripper.strippedManifestsList();
        return list.count() == 0 ? std::vector<std::string>() : texts(list.at(list.count() - 1));
    }
    static Value lastModified(Stripper2& stripper) {
        const Value& list = stripper.modifiedFilesList();
        return list.count() == 0 ? Value() : list.at(list.count() - 1);
    }

    TempDir dir;
};

}  // namespace whittle::test
