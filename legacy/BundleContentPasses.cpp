// Support material at the bundle root, kept or scrubbed once per run, and the invisible
// files scrubbed from the merged result.
#include <algorithm>
#include <set>

#include "engine/BundleListing.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"

namespace whittle {

// ---- folders and linked images ----

namespace {

// No option keeps these images.
constexpr OptionalFolder kUnencryptedImages{nullptr, "UnencryptedImages", nullptr, "--- Unencrypted Images scrub %d items."};

}  // namespace

int Stripper2::stripUnencryptedImages() { return keepOptionalFolder(kUnencryptedImages); }

int Stripper2::stripBogusRestoreImagesInRootDirectory() { return 0; }

// ---- firmware archives ----

int Stripper2::stripFWPKs(const Value& item) {
    auto listing = submanifestStartingAt(kFirmwareArchives, false);
    if (!option("keepFWPKs")) {
        // The folder itself counts as one item.
        if (!listing.empty()) Log("--- FWPKs scrub %d items.", listing.size());
        return 0;
    }
    Value personalizations = item.get("workPersonalizationVariantList");
    std::vector<std::string> keptPaths;
    Value found = Value::setOf(), scrubbed = Value::setOf();
    for (const auto& product : item.get("workProductList").elements()) {
        for (const auto& entry : listing) {
            if (!isFirmwareArchive(entry)) continue;
            if (wantsFirmwareArchive(entry, product.description(), personalizations)) {
                found.addToSet(Value::string(entry));
                keptPaths.push_back(kFirmwareArchives);
                for (const auto& path : submanifestStartingAt(entry)) keptPaths.push_back(path);
            } else {
                scrubbed.addToSet(Value::string(entry));
                Log("!!! WARNING Cannot find FWPK for %@.", product);
            }
        }
    }
    if (scrubbed.count() > 0) Log("--- FWPKs scrub %@.", niceDescription(scrubbed));
    if (found.count() > 0) {
        keepPaths(keptPaths);
        Log("+++ FWPKs found %@.", niceDescription(found));
    }
    return 0;
}

// ---- the restore tools image ----

int Stripper2::stripRestoreTools() {
    auto rootNames = files_->entries("");
    // Every root image's link is read in listing order, as far as a restore tools link
    // whose target is missing: one that leads outside the bundle is warned about here.
    std::optional<std::string> toolsTarget;
    for (const auto& image : rootDiskImages(rootNames)) {
        auto target = files_->linkTarget(image);
        if (image != kRestoreTools || !target) continue;
        toolsTarget = target;
        if (!bundleLists(*target)) break;
    }
    if (toolsTarget) {
        int result = 0;
        if (!bundleLists(*toolsTarget)) {
            // A missing target is reported and still listed; the run then stops here.
            Log("XXX ERROR: RestoreTools \"%@\" missing from bundle.", *toolsTarget);
            result = 1;
        }
        Log("+++ RestoreTools found %@ %@.", kRestoreTools, *toolsTarget);
        std::vector<std::string> kept{*toolsTarget};
        if (!option("noSymLinks")) kept.push_back(kRestoreTools);
        keepPaths(kept);
        return result;
    }
    return fallBackOnRootImages(rootNames);
}

// ---- invisibles, from the merged result ----

int Stripper2::stripInvisibles() {
    std::set<std::string> scrubbed;
    for (const auto& pathValue : strippedManifest_.elements()) {
        std::string path(pathValue.text());
        std::string name = lastPathComponent(path);
        if (hasInvisiblePrefix(name)) {
            scrubbed.insert(path);
            for (const auto& below : submanifestStartingAt(path)) scrubbed.insert(below);
        } else if (isInvisibleItemName(name)) {
            // The path itself goes with it when the bundle lists it.
            for (const auto& below : submanifestStartingAt(path)) scrubbed.insert(below);
        }
    }
    if (scrubbed.empty()) return 0;
    Log("--- invisibles scrub %d items.", scrubbed.size());
    ValueArray kept;
    for (const auto& path : strippedManifest_.elements()) {
        if (!scrubbed.contains(std::string(path.text()))) kept.push_back(path);
    }
    strippedManifest_ = Value::array(std::move(kept));
    return 0;
}

}  // namespace whittle
