// Support material at the bundle root: kept or scrubbed by option and by name.
#include <algorithm>
#include <optional>
#include <set>
#include <unordered_set>

#include "engine/BundleListing.hpp"
#include "engine/Stripper3.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {

namespace {

constexpr const char* kHomeDiagnostics = "HomeDiagnostic.dmg";
constexpr const char* kSDKImage = "HandsetSDKInternalNonUI.dmg";
constexpr const char* kFactoryDiskImage = "FactoryDiskImage.dmg";
constexpr const char* kFactoryDiskImageSignature = "FactoryDiskImage.dmg.signature";
constexpr const char* kFirmwareArchives = "Mediadesk FWPKs";
constexpr const char* kRestoreTools = "RestoreTools.dmg";

bool isInvisibleName(std::string_view name) { return hasInvisiblePrefix(name) || isInvisibleItemName(name); }

}  // namespace

int Stripper3::keepFolderListingWhenAsked(std::string_view optionKey, const std::string& folder, const char* message) {
    if (!option(optionKey)) return 0;
    auto listing = submanifestStartingAt(folder, false);
    if (!listing.empty()) Log(message, listing.size());
    keepAll(listing);
    return 0;
}

int Stripper3::stripDebugFolder(const Value&) {
    return keepFolderListingWhenAsked("keepDebug", "Debug", "+++ Debug folder found %d items.");
}

int Stripper3::stripBundleImages(const Value&) {
    return keepFolderListingWhenAsked("keepBundleImages", "BundleImages", "+++ BundleImages found %d items.");
}

int Stripper3::keepLinkedImageWhenAsked(std::string_view optionKey, const std::string& linkName, const char* message,
                                        bool messageNamesTarget) {
    if (!option(optionKey)) return 0;
    auto target = files_->linkTarget(linkName);
    // A plain file under the link's name is deliberately not kept.
    if (!target) return 0;
    if (messageNamesTarget) {
        Log(message, *target);
    } else {
        Log(message);
    }
    copiedFilelist_.insert(*target);
    copiedFilelist_.insert(linkName);
    return 0;
}

int Stripper3::stripHomeDiags(const Value&) {
    return keepLinkedImageWhenAsked("keepHomeDiagnostics", kHomeDiagnostics, "+++ HomeDiagnostics found.", false);
}

int Stripper3::stripSDKs(const Value&) {
    return keepLinkedImageWhenAsked("keepSDK", kSDKImage, "+++ NonUI SDK found \"%@\".", true);
}

int Stripper3::stripFactoryDiskImage(const Value&) {
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
    auto wants = [&personalizations](const char* variant) { return personalizations.setContains(Value::string(variant)); };
    struct OperatingSystemArchive {
        const char* personalization;
        const char* nameFragment;
    };
    const OperatingSystemArchive systemArchives[] = {
        {"FullInternalOS", "FullInternal"}, {"VendorInternalOS", "VendorInternal"}, {"LiteInternalOS", "LiteInternal"}};

    auto listing = submanifestStartingAt(kFirmwareArchives, false);
    std::vector<std::string> matched;  // in the order first matched, each once
    std::unordered_set<std::string> matchedOnce;
    KeepList keptFiles;
    for (const auto& product : products.isSet() ? *products.asSetMembers() : ValueArray{}) {
        for (const auto& entry : listing) {
            if (entry == kFirmwareArchives || !hasSuffix(entry, "FWPK", kCaseInsensitiveSearch)) continue;
            bool match = containsIgnoringCase(entry, product.text());
            for (const auto& archive : systemArchives) {
                match = match || (wants(archive.personalization) && containsIgnoringCase(entry, archive.nameFragment));
            }
            if (!match) continue;
            if (matchedOnce.insert(entry).second) matched.push_back(entry);
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

int Stripper3::stripRestoreTools(const Value&) {
    if (auto target = files_->linkTarget(kRestoreTools)) {
        Log("+++ RestoreTools found %@.", *target);
        copiedFilelist_.insert(*target);
        copiedFilelist_.insert(kRestoreTools);
        return 0;
    }
    std::vector<std::string> candidates;
    for (const auto& entry : submanifestStartingAt("", false)) {
        if (hasSuffix(entry, ".dmg", kCaseInsensitiveSearch) && !entry.starts_with("._")) candidates.push_back(entry);
    }
    // Links and the images they point at drop out, judged on the list as it was.
    std::set<std::string> eliminated;
    for (const auto& candidate : candidates) {
        if (auto target = files_->linkTarget(candidate)) {
            eliminated.insert(candidate);
            eliminated.insert(*target);
        }
    }
    std::erase_if(candidates, [&eliminated](const std::string& candidate) { return eliminated.contains(candidate); });

    if (candidates.size() == 1) {
        const std::string& image = candidates.front();
        if (image == kRestoreTools) return 0;
        modifiedFilelist_.set(kRestoreTools, Value::data(image));
        copiedFilelist_.insert(image);
        Log("!!! WARNING: assuming single disk image \"%@\" at root is the RestoreTools disk image.", lastPathComponent(image));
        return 0;
    }
    Log("!!! WARNING: unable to identify the RestoreTools disk image as there are %d disk images left in bundle root - "
        "including them all - %@.",
        candidates.size(), niceDescriptionOfStrings(candidates));
    keepAll(candidates);
    return 0;
}

int Stripper3::stripInvisibles(const Value&) {
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
