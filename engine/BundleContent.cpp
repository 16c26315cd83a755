// Support material at the bundle root: kept or scrubbed by option and by name.
#include <unordered_set>

#include "engine/BundleListing.hpp"
#include "engine/Stripper3.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {

namespace {

bool isInvisibleName(std::string_view name) { return hasInvisiblePrefix(name) || isInvisibleItemName(name); }

}  // namespace

int Stripper3::stripFactoryDiskImage() {
    if (files_->exists(kFactoryDiskImage) && files_->exists(kFactoryDiskImageSignature)) {
        Log("+++ FactoryDiskImage and signature file found.");
        copiedFilelist_.insert(kFactoryDiskImage);
        copiedFilelist_.insert(kFactoryDiskImageSignature);
    } else {
        Log("+++ Either FactoryDiskImage or signature file is missing. Include non of them.");
    }
    return 0;
}

int Stripper3::stripFWPKs(const Value& item) {
    if (!option("keepFWPKs")) return 0;
    Value products = item.get("workAllProducts");
    Value personalizations = item.get("workAllPersonalizationVariants");
    auto listing = submanifestStartingAt(kFirmwareArchives, false);
    std::vector<std::string> matched;  // in the order first matched, each once
    std::unordered_set<std::string> matchedOnce;
    KeepList keptFiles;
    for (const auto& product : products.isSet() ? *products.asSetMembers() : ValueArray{}) {
        for (const auto& entry : listing) {
            if (!isFirmwareArchive(entry) || !wantsFirmwareArchive(entry, product.text(), personalizations)) continue;
            if (!matchedOnce.insert(entry).second) continue;
            matched.push_back(entry);
            for (const auto& path : submanifestStartingAt(entry)) keptFiles.insert(path);
        }
    }
    if (matched.empty()) {
        // The fixed text of this warning names another file and fills neither placeholder.
        Log("!!! WARNING: platform_keys.plist %@ (%@) not found.", "", "");
        return 0;
    }
    keepAll(keptFiles);
    Log("+++ FWPKs found %@.", niceDescriptionOfStrings(matched));
    return 0;
}

int Stripper3::stripRestoreTools() {
    if (auto target = files_->linkTarget(kRestoreTools)) {
        Log("+++ RestoreTools found %@.", *target);
        copiedFilelist_.insert(*target);
        copiedFilelist_.insert(kRestoreTools);
        return 0;
    }
    return fallBackOnRootImages(submanifestStartingAt("", false));
}

int Stripper3::stripInvisibles() {
    std::vector<std::string> scrubbed;
    for (const auto& path : copiedFilelist_) {
        if (isInvisibleName(lastPathComponent(path))) scrubbed.push_back(path);
    }
    if (scrubbed.empty()) return 0;
    Log("--- invisibles scrub %d items.", scrubbed.size());
    for (const auto& path : scrubbed) copiedFilelist_.erase(path);
    return 0;
}

}  // namespace whittle
