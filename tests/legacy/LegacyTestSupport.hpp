// A fixture for tests of the legacy engine: a bundle in a temporary folder (generated,
// or written file by file), engines made over it, and what they logged.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BundleFixture.hpp"
#include "legacy/Stripper2.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/PropertyList.hpp"

namespace whittle::test {

class LegacyTest : public BundleFixture {
protected:
    void SetUp() override {
        BundleFixture::SetUp();
        std::filesystem::create_directories(root());
    }

    // An engine over the bundle as it is now (the engine lists the bundle when it is made).
    std::unique_ptr<Stripper2> engine(const std::vector<std::string>& products = {},
                                      const std::vector<std::string>& variants = {},
                                      const Value& options = Value::dictionary()) {
        Value productList = products.empty() ? Value() : Value::stringArray(products);
        Value variantList = variants.empty() ? Value() : Value::stringArray(variants);
        return std::make_unique<Stripper2>(std::make_shared<FolderBundleFiles>(root()), productList, variantList, options);
    }

    static Value dict(std::initializer_list<std::pair<const char*, Value>> entries) {
        Value result = Value::dictionary();
        for (const auto& [key, value] : entries) result.set(key, value);
        return result;
    }

    static Value strings(const std::vector<std::string>& texts) { return Value::stringArray(texts); }

    void file(const std::string& relative, const std::string& content = "x") {
        std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
        writeFile(at(relative), content);
    }
    void folder(const std::string& relative) { std::filesystem::create_directories(at(relative)); }
    void link(const std::string& relative, const std::string& target) {
        std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
        std::filesystem::create_symlink(target, at(relative));
    }

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
};

}  // namespace whittle::test
