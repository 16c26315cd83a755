// The build manifest's identities: which of them serve a product and factory variant,
// which files they name, and the stripped manifest that lists only the kept ones.
#include <algorithm>

#include "engine/BundleListing.hpp"
#include "engine/Catalogue.hpp"
#include "engine/FileListRules.hpp"
#include "engine/RequestRules.hpp"
#include "engine/Stripper3.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/Paths.hpp"

namespace whittle {

void Stripper3::observeValueForKeyPath(std::string_view keyPath, const Value& newValue) {
    if (keyPath == "loaded" && newValue.numberValue() != 0) buildHierarchicalBuildIdentities();
}

void Stripper3::buildHierarchicalBuildIdentities() {
    Value index = Value::dictionary();
    Value identities = buildManifest_.entries().get("BuildIdentities");
    if (const auto* list = identities.asArray()) {
        for (const auto& identity : *list) {
            // An identity that does not say which device class and variant it serves
            // cannot be chosen, so it is left out of the index.
            Value deviceClass = valueForKeyPath(identity, "Info.DeviceClass");
            Value variant = valueForKeyPath(identity, "Info.Variant");
            if (!deviceClass.isString() || !variant.isString()) continue;
            Value variants = index.get(deviceClass.text());
            if (variants.isNone()) index.set(deviceClass.text(), variants = Value::dictionary());
            Value chosen = variants.get(variant.text());
            if (chosen.isNone()) variants.set(variant.text(), chosen = Value::array());
            chosen.append(identity);
        }
    }
    originalBuildIdentities_ = index;
}

Value Stripper3::flattenBuildIdentities(const Value& index) {
    Value flat = Value::array();
    for (const auto& deviceClass : keysSortedIgnoringCase(index)) {
        Value variants = index.get(deviceClass);
        for (const auto& variant : keysSortedIgnoringCase(variants)) {
            Value identities = variants.get(variant);
            for (const auto& identity : identities.elements()) flat.append(identity);
        }
    }
    return flat;
}

// ---- folder listings ----

std::vector<std::string> Stripper3::submanifestStartingAt(const std::string& folder) {
    return submanifestStartingAt(folder, true);
}

std::vector<std::string> Stripper3::submanifestStartingAt(const std::string& folder, bool deep) {
    if (!deep) {
        auto cached = shallowPathContentsCache_.find(folder);
        if (cached != shallowPathContentsCache_.end()) return cached->second;
    }
    std::vector<std::string> paths;
    // A start folder reached through a symbolic link is not listed: its entries
    // would lie outside the bundle.
    if (folder.empty() || files_->isFolder(folder)) {
        if (deep) {
            files_->listDeep(folder, paths);
        } else {
            for (const auto& name : files_->entries(folder)) paths.push_back(joinPath(folder, name));
        }
    }
    if (!deep) shallowPathContentsCache_[folder] = paths;
    return paths;
}

int Stripper3::addSubpathToKeepList(std::string_view path, KeepList& keepList) {
    std::string current(path);
    while (!current.empty()) {
        // Parents of a path already listed are listed too.
        if (!keepList.insert(current).second) break;
        std::string parent = deletingLastPathComponent(current);
        if (parent == current) break;
        current = std::move(parent);
    }
    return 0;
}

// ---- the per-product, per-variant step ----

int Stripper3::chooseIdentities(const Value& item, Value& chosen) {
    Value personalization =
        Catalogue::builtIn().factoryVariantValue(std::string(item.get("workVariant").text()) + ".PersonalizationVariants");
    Value deviceClasses = item.get("workDeviceClasses");
    for (const auto& deviceClass : deviceClasses.elements()) {
        Value identities = originalBuildIdentities_.get(deviceClass.text()).get(personalization.text());
        if (identities.count() == 0) {
            Log("XXX ERROR: BuildIdentity %@ (%@) not found.", deviceClass, personalization);
            return 1;
        }
        Value kept = strippedBuildIdentities_.get(deviceClass.text());
        if (kept.isNone()) strippedBuildIdentities_.set(deviceClass.text(), kept = Value::dictionary());
        Value keptForVariant = kept.get(personalization.text());
        if (keptForVariant.isNone()) kept.set(personalization.text(), keptForVariant = Value::array());
        // Only this step fills the kept list of a device class and variant, always from
        // the same identities of the index (each there once): a list that is not empty
        // already holds every one of them.
        bool keptBefore = keptForVariant.count() > 0;
        for (const auto& identity : identities.elements()) {
            chosen.append(identity);
            if (!keptBefore) keptForVariant.append(identity);
        }
    }
    return 0;
}

int Stripper3::buildFilelistFromBuildManifest(const Value& item) {
    Value chosen = Value::array();
    if (int result = chooseIdentities(item, chosen)) return result;
    KeepList keep;
    Stripper3BundleView bundle(*this, keep);
    ManifestImageSets imageSets{restoreImagesSet_, kernelCachesSet_, ramDisksSet_};
    Value links = Value::dictionary();
    for (const auto& identity : chosen.elements()) {
        if (int result = keepManifestBaseband(item.get("workProduct").text(), identity, bundle)) return result;
        keepManifestItems(item, identity, bundle, links, &imageSets);
    }
    keepAll(keep);
    for (const auto& [path, target] : *links.asDictionary()) modifiedFilelist_.set(path, target);
    return 0;
}

int Stripper3::stripBuildManifest(const Value& item) {
    Value original = buildManifest_.entries();
    Value stripped = original.isDictionary() ? Value::dictionary(*original.asDictionary()) : Value::dictionary();
    stripped.set("BuildIdentities", flattenBuildIdentities(strippedBuildIdentities_));

    stripped.set("SupportedProductTypes", keptModels(original.get("SupportedProductTypes"), item.get("workAllModels")));
    modifiedFilelist_.set("Restore/BuildManifest.plist", stripped);
    return 0;
}

}  // namespace whittle
