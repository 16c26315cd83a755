// Pieces shared by the legacy engine's own source files.
#pragma once

#include <string>
#include <vector>

#include "engine/BundlePaths.hpp"
#include "engine/FileListRules.hpp"
#include "legacy/Stripper2.hpp"
#include "support/LogObject.hpp"

namespace whittle {

// An identity's "Info" field as text; "" when it is missing or not text.
inline std::string infoText(const Value& identity, const char* field) {
    return std::string(identity.get("Info").get(field).text());
}

// The legacy engine's bundle as the shared file-list rules see it: listings taken from
// the engine's one listing of the bundle, kept paths appended to one item's own list.
// A path the bundle lacks is not kept; the warning names the file that asked for it.
class Stripper2BundleView : public BundleView {
public:
    Stripper2BundleView(const Stripper2& engine, std::vector<std::string>& keepList, const char* askedBy)
        : engine_(engine), keepList_(keepList), askedBy_(askedBy) {}

    std::vector<std::string> directEntries(const std::string& folder) override {
        return withoutFirst(engine_.submanifestStartingAt(folder, false));
    }
    std::vector<std::string> everythingBelow(const std::string& folder) override {
        return withoutFirst(engine_.submanifestStartingAt(folder, true));
    }
    void keep(const std::string& path) override {
        if (engine_.addSubpathToKeepList(path, keepList_) != 0) {
            Log("!!! WARNING: %@ item \"%@\" missing from bundle.", askedBy_, path);
        }
    }

private:
    // The legacy listings begin with the folder itself.
    static std::vector<std::string> withoutFirst(std::vector<std::string> paths) {
        if (!paths.empty()) paths.erase(paths.begin());
        return paths;
    }

    const Stripper2& engine_;
    std::vector<std::string>& keepList_;
    const char* askedBy_;
};

}  // namespace whittle
