// Support material at the bundle root, kept or scrubbed once per run, and the invisible
// files scrubbed from the merged result.
#include <algorithm>
#include <set>

#include "engine/BundleListing.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

constexpr const char* kHomeDiagnostics = "HomeDiagnostic.dmg";
constexpr const char* kSDKImage = "HandsetSDKInternalNonUI.dmg";
constexpr const char* kFirmwareArchives = "Mediadesk FWPKs";
constexpr const char* kRestoreTools = "RestoreTools.dmg";

bool holdsString(const Value& list, std::string_view text) {
    for (const auto& element : list.elements()) {
        if (element.isString() && element.text() == text) return true;
    }
    return false;
}

}  // namespace

// ---- folders and linked images ----

int Stripper2::keepListingWhenAsked(std::string_view optionKey, const std::string& folder, const char* foundMessage,
                                    const char* scrubMessage) {
    // The folder and its direct entries, never deeper levels.
    auto listing = submanifestStartingAt(folder, false);
    if (!foundMessage || !option(optionKey)) {
        if (!listing.empty()) Log(scrubMessage, listing.size());
        return 0;
    }
    if (!listing.empty()) Log(foundMessage, listing.size());
    appendKeptPaths(listing);
    return 0;
}

int Stripper2::stripDebugFolder(const Value&) {
    return keepListingWhenAsked("keepDebug", "Debug", "+++ Debug folder found %d items.", "--- Debug folder scrub %d items.");
}

int Stripper2::stripUnencryptedImages(const Value&) {
    // No option keeps these images.
    return keepListingWhenAsked("", "UnencryptedImages", nullptr, "--- Unencrypted Images scrub %d items.");
}

int Stripper2::stripBundleImages(const Value&) {
    return keepListingWhenAsked("keepBundleImages", "BundleImages", "+++ BundleImages found %d items.",
                                "--- BundleImages scrub %d items.");
}

int Stripper2::keepLinkedImageWhenAsked(std::string_view optionKey, const std::string& linkName, const char* foundMessage,
                                        bool messageNamesTarget, const char* scrubMessage) {
    auto target = files_->linkTarget(linkName);
    if (option(optionKey)) {
        // A plain file under the link's name is not kept.
        std::vector<std::string> kept;
        if (target) {
            if (messageNamesTarget) {
                Log(foundMessage, *target);
            } else {
                Log(foundMessage);
            }
            kept = {*target, linkName};
        }
        appendKeptPaths(kept);
    } else if (target || bundleLists(linkName)) {
        Log(scrubMessage);
    }
    return 0;
}

int Stripper2::stripHomeDiags(const Value&) {
    return keepLinkedImageWhenAsked("keepHomeDiagnostics", kHomeDiagnostics, "+++ HomeDiagnostics found.", false,
                                    "--- HomeDiagnostics scrub.");
}

int Stripper2::stripSDKs(const Value&) {
    return keepLinkedImageWhenAsked("keepSDK", kSDKImage, "+++ NonUI SDK found \"%@\".", true, "--- NonUI SDK scrub.");
}

int Stripper2::stripBogusRestoreImagesInRootDirectory(const Value&) { return 0; }

// ---- firmware archives ----

int Stripper2::stripFWPKs(const Value& item) {
    auto listing = submanifestStartingAt(kFirmwareArchives, false);
    if (!option("keepFWPKs")) {
        // The folder itself counts as one item.
        if (!listing.empty()) Log("--- FWPKs scrub %d items.", listing.size());
        return 0;
    }
    Value personalizations = item.get("workPersonalizationVariantList");
    struct OperatingSystemArchive {
        const char* personalization;
        const char* nameFragment;
    };
    const OperatingSystemArchive systemArchives[] = {
        {"FullInternalOS", "FullInternal"}, {"VendorInternalOS", "VendorInternal"}, {"LiteInternalOS", "LiteInternal"}};

    std::vector<std::string> keptPaths;
    Value found = Value::setOf(), scrubbed = Value::setOf();
    for (const auto& product : item.get("workProductList").elements()) {
        for (const auto& entry : listing) {
            if (entry == kFirmwareArchives || !hasSuffix(entry, "FWPK", kCaseInsensitiveSearch)) continue;
            // An archive of any product is kept as soon as the request asks for the
            // operating system its name carries.
            bool match = containsIgnoringCase(entry, product.description());
            for (const auto& archive : systemArchives) {
                match = match || (holdsString(personalizations, archive.personalization) &&
                                  containsIgnoringCase(entry, archive.nameFragment));
            }
            if (match) {
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
        appendKeptPaths(keptPaths);
        Log("+++ FWPKs found %@.", niceDescription(found));
    }
    return 0;
}

// ---- the restore tools image ----

int Stripper2::stripRestoreTools(const Value&) {
    std::vector<std::string> candidates;
    for (const auto& name : files_->entries("")) {
        if (hasSuffix(name, ".dmg", kCaseInsensitiveSearch) && !name.starts_with("._")) candidates.push_back(name);
    }
    std::vector<std::string> remaining = candidates;
    int result = 0;
    std::optional<std::string> toolName, toolTarget, linkTarget;
    for (const auto& candidate : candidates) {
        auto target = files_->linkTarget(candidate);
        if (target) {
            std::erase_if(remaining, [&](const std::string& name) { return name == candidate || name == *target; });
        }
        if (candidate != kRestoreTools) continue;
        toolName = candidate;
        if (!target) continue;
        linkTarget = target;
        if (!bundleLists(*target)) {
            Log("XXX ERROR: RestoreTools \"%@\" missing from bundle.", *target);
            result = 1;
            break;
        }
        toolTarget = target;
    }

    if (result != 0 || (toolName && toolTarget)) {
        // A missing target is reported and still listed; the run then stops here.
        Log("+++ RestoreTools found %@ %@.", *toolName, *linkTarget);
        std::vector<std::string> kept{*linkTarget};
        if (!option("noSymLinks")) kept.push_back(kRestoreTools);
        appendKeptPaths(kept);
        return result;
    }
    if (remaining.size() == 1) {
        const std::string& image = remaining.front();
        if (image == kRestoreTools) return 0;
        Value files = Value::dictionary();
        files.set(kRestoreTools, Value::data(image));
        modifiedFilesList_.append(files);
        appendKeptPaths({image});
        Log("!!! WARNING: assuming single disk image \"%@\" at root is the RestoreTools disk image.", lastPathComponent(image));
        return 0;
    }
    Log("!!! WARNING: unable to identify the RestoreTools disk image as there are %d disk images left in bundle root - "
        "including them all - %@.",
        remaining.size(), niceDescriptionOfStrings(remaining));
    appendKeptPaths(remaining);
    return 0;
}

// ---- invisibles, from the merged result ----

int Stripper2::stripInvisibles(const Value&) {
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
