// The build manifest's identities: which of them serve a product and factory variant,
// which files they name, and the stripped manifest that lists only the kept ones.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include "engine/BundlePaths.hpp"
#include "engine/Catalogue.hpp"
#include "engine/Stripper3.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

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

namespace {

bool isRealFolder(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The entries of a folder, sorted by name; symbolic links are listed, never entered.
std::vector<std::string> folderEntries(const std::string& path) {
    std::vector<std::string> names;
    DIR* folder = ::opendir(path.c_str());
    if (!folder) return names;
    while (const dirent* entry = ::readdir(folder)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    ::closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

void listDeep(const std::string& absolute, const std::string& relative, std::vector<std::string>& out) {
    for (const auto& name : folderEntries(absolute)) {
        std::string childRelative = joinPath(relative, name);
        std::string childAbsolute = absolute + "/" + name;
        out.push_back(childRelative);
        if (isRealFolder(childAbsolute)) listDeep(childAbsolute, childRelative, out);
    }
}

}  // namespace

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
    std::string absolute = folder.empty() ? bundleRoot_ : pathInBundle(folder);
    if (folder.empty() || isRealFolder(absolute)) {
        if (deep) {
            listDeep(absolute, folder, paths);
        } else {
            for (const auto& name : folderEntries(absolute)) paths.push_back(joinPath(folder, name));
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
        for (const auto& identity : identities.elements()) {
            chosen.append(identity);
            const auto& already = *keptForVariant.asArray();
            bool present = std::any_of(already.begin(), already.end(),
                                       [&identity](const Value& other) { return other.sameObject(identity); });
            if (!present) keptForVariant.append(identity);
        }
    }
    return 0;
}

int Stripper3::keepBasebandFirmware(std::string_view product, const Value& identity, KeepList& keep) {
    const Catalogue& catalogue = Catalogue::builtIn();
    std::string name(product);
    bool personalized = catalogue.productValue(name + ".BasebandIsPersonalized").numberValue() != 0;
    bool manifestNamesBaseband = !identity.get("Manifest").get("BasebandFirmware").isNone();
    if (personalized && !manifestNamesBaseband) return 0;

    Value prefixes = catalogue.productValue(name + ".BasebandFirmwarePrefix");
    std::vector<std::string> found;
    for (const auto& prefix : prefixes.elements()) {
        for (const auto& path : submanifestStartingAt("Restore/Firmware", false)) {
            std::string fileName = lastPathComponent(path);
            if (hasPrefix(fileName, prefix.text(), kLiteralSearch)) {
                addSubpathToKeepList(path, keep);
                found.push_back(fileName);
            }
        }
    }
    if (!found.empty()) {
        Log("+++ BuildManifest.plist BasebandFirmware found %@.", niceDescriptionOfStrings(found));
    } else if (prefixes.count() == 0) {
        // a product without baseband firmware
    } else if (hasPrefix(prefixes.at(0).text(), "RDX2", kLiteralSearch)) {
        Log("+++ no BasebandFirmware files for RDX2, strip result may not work");
    } else {
        Log("XXX ERROR found no BasebandFirmware files with prefixes %@.", niceDescription(prefixes));
        return 1;
    }
    return 0;
}

namespace {

// The name under which a restore expects a manifest item, or "" when it expects none.
std::string expectedImageName(const std::string& key, const Value& item, const Value& variantContents) {
    const Catalogue& catalogue = Catalogue::builtIn();
    std::string product(item.get("workProduct").text());
    auto contents = [&variantContents](const char* field) { return variantContents.get(field); };
    if (key == "OS" && contents("SystemImage").isString()) {
        return format("%@%@.dmg", uppercased(product), contents("SystemImage"));
    }
    if (key == "RestoreRamDisk" && contents("RestoreRamDisk").isString()) {
        Value processor = item.get("workProcessorID");
        Value chip = catalogue.processorName(processor.text());
        return format("%@%@.dmg", lowercased((chip.isNone() ? processor : chip).description()), contents("RestoreRamDisk"));
    }
    if (key == "RestoreKernelCache" && contents("RestoreKernelCache").isString()) {
        return format("kernelcache.%@.%@", lowercased(contents("RestoreKernelCache").text()), lowercased(product));
    }
    if (key == "KernelCache" && contents("InstalledKernelCache").isString()) {
        return format("kernelcache.%@.%@", lowercased(contents("InstalledKernelCache").text()), lowercased(product));
    }
    return {};
}

}  // namespace

void Stripper3::keepManifestItems(const Value& item, const Value& identity, KeepList& keep, Value& links) {
    Value deviceClass = valueForKeyPath(identity, "Info.DeviceClass");
    Value personalization = valueForKeyPath(identity, "Info.Variant");
    Value variantContents = valueForKeyPath(identity, "Info.VariantContents");
    std::string variant(item.get("workVariant").text());
    bool noOS = Catalogue::builtIn().factoryVariantValue(variant + ".PersonalizationOSImageTypes").text().empty();
    const auto* manifest = identity.get("Manifest").asDictionary();
    if (!manifest) return;

    for (const auto& [key, entry] : *manifest) {
        Value pathValue = valueForKeyPath(entry, "Info.Path");
        // An item without a file of its own (a digest only, say) has nothing to keep.
        if (!pathValue.isString()) continue;
        std::string path(pathValue.text());
        if (path.starts_with("./")) {
            Log("!!! WARNING: BuildManifest.plist BuildIdentity %@ \"%@\" %@ malformed manifest item %@.", deviceClass,
                personalization, key, path);
        } else if (key == "OS" && noOS) {
            Log("--- skipping %@ \"%@\" %@: %@.", deviceClass, personalization, key, path);
            continue;
        } else {
            addSubpathToKeepList("Restore/" + path, keep);
        }

        if (key == "OS") restoreImagesSet_.insert(path);
        if (containsIgnoringCase(key, "KernelCache")) kernelCachesSet_.insert(path);
        if (key == "RestoreRamDisk") ramDisksSet_.insert(path);

        if (path.find('/') == std::string::npos) {
            std::string expected = expectedImageName(key, item, variantContents);
            if (!expected.empty() && !equalsIgnoringCase(expected, path)) {
                links.set("Restore/" + expected, Value::data(path));
            }
        }
        if (containsIgnoringCase(path, "Firmware/all_flash/all_flash.")) {
            addSubpathToKeepList("Restore/" + deletingLastPathComponent(path) + "/manifest", keep);
        }
    }
}

int Stripper3::buildFilelistFromBuildManifest(const Value& item) {
    Value chosen = Value::array();
    if (int result = chooseIdentities(item, chosen)) return result;
    KeepList keep;
    Value links = Value::dictionary();
    for (const auto& identity : chosen.elements()) {
        if (int result = keepBasebandFirmware(item.get("workProduct").text(), identity, keep)) return result;
        keepManifestItems(item, identity, keep, links);
    }
    keepAll(keep);
    for (const auto& [path, target] : *links.asDictionary()) modifiedFilelist_.set(path, target);
    return 0;
}

int Stripper3::stripBuildManifest(const Value& item) {
    Value original = buildManifest_.entries();
    Value stripped = original.isDictionary() ? Value::dictionary(*original.asDictionary()) : Value::dictionary();
    stripped.set("BuildIdentities", flattenBuildIdentities(strippedBuildIdentities_));

    Value requestedModels = item.get("workAllModels");
    std::set<std::string> models;
    Value listed = original.get("SupportedProductTypes");
    for (const auto& model : listed.elements()) {
        if (model.isString() && requestedModels.setContains(model)) models.insert(std::string(model.text()));
    }
    std::vector<std::string> sorted(models.begin(), models.end());
    sortIgnoringCase(sorted);
    stripped.set("SupportedProductTypes", Value::stringArray(sorted));
    modifiedFilelist_.set("Restore/BuildManifest.plist", stripped);
    return 0;
}

}  // namespace whittle
