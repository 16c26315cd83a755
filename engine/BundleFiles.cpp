#include "engine/BundleFiles.hpp"

#include "support/Paths.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/Value.hpp"

namespace whittle {

void BundleFiles::listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const {
    if (!relativeFolder.empty() && !isFolder(relativeFolder)) return;
    for (const auto& name : entries(relativeFolder)) {
        std::string child = joinPath(relativeFolder, name);
        out.push_back(child);
        if (isFolder(child)) listDeep(child, out);
    }
}

void BundleFiles::noteEscapingLink(const std::string& step) const {
    if (escapingLinks_.insert(step).second) {
        Log("!!! WARNING: \"%@\" leads outside the bundle and is not followed.", step);
    }
}

Value propertyListInBundle(const BundleFiles& files, std::string_view relative) {
    auto bytes = files.readFile(relative);
    return bytes ? parsePropertyList(*bytes) : Value();
}

}  // namespace whittle
