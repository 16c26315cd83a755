#include "engine/FileListRules.hpp"

#include "engine/Catalogue.hpp"
#include "engine/BundlePaths.hpp"
#include "engine/RequestRules.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {

// ---- build identities ----

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

int keepManifestBaseband(std::string_view product, const Value& identity, BundleView& bundle) {
    const Catalogue& catalogue = Catalogue::builtIn();
    std::string name(product);
    bool personalized = catalogue.productValue(name + ".BasebandIsPersonalized").numberValue() != 0;
    bool manifestNamesBaseband = !identity.get("Manifest").get("BasebandFirmware").isNone();
    if (personalized && !manifestNamesBaseband) return 0;

    Value prefixes = catalogue.productValue(name + ".BasebandFirmwarePrefix");
    std::vector<std::string> found;
    for (const auto& prefix : prefixes.elements()) {
        for (const auto& path : bundle.directEntries("Restore/Firmware")) {
            std::string fileName = lastPathComponent(path);
            if (hasPrefix(fileName, prefix.text(), kLiteralSearch)) {
                bundle.keep(path);
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

void keepManifestItems(const Value& item, const Value& identity, BundleView& bundle, Value& links,
                       ManifestImageSets* imageSets) {
    Value deviceClass = valueForKeyPath(identity, "Info.DeviceClass");
    Value personalization = valueForKeyPath(identity, "Info.Variant");
    Value variantContents = valueForKeyPath(identity, "Info.VariantContents");
    std::string variant(item.get("workVariant").text());
    bool noOS = !installsOperatingSystem(variant);
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
            bundle.keep(inRestoreFolder(path));
        }

        if (imageSets) {
            if (key == "OS") imageSets->restoreImages.insert(path);
            if (containsIgnoringCase(key, "KernelCache")) imageSets->kernelCaches.insert(path);
            if (key == "RestoreRamDisk") imageSets->ramDisks.insert(path);
        }

        if (path.find('/') == std::string::npos) {
            std::string expected = expectedImageName(key, item, variantContents);
            if (!expected.empty() && !equalsIgnoringCase(expected, path)) {
                links.set(inRestoreFolder(expected), Value::data(path));
            }
        }
        if (containsIgnoringCase(path, "Firmware/all_flash/all_flash.")) {
            bundle.keep(inRestoreFolder(deletingLastPathComponent(path) + "/manifest"));
        }
    }
}

// ---- unpersonalized installs ----

namespace {

bool containsAnyOf(std::string_view name, const Value& kinds) {
    for (const auto& kind : kinds.elements()) {
        if (containsIgnoringCase(name, kind.text())) return true;
    }
    return false;
}

}  // namespace

bool keepUnpersonalizedKernelCaches(const Value& item, BundleView& bundle, std::vector<std::string>& found) {
    std::string product(item.get("workProduct").text());
    std::string processor(item.get("workProcessorID").text());
    for (const auto& path : bundle.directEntries("Restore")) {
        std::string name = lastPathComponent(path);
        if (!hasPrefix(name, "kernelcache.", kCaseInsensitiveSearch)) continue;
        // A cache built for the whole processor serves each of its products, but an
        // FPGA build must name the product.
        bool forProcessor = !processor.empty() && containsIgnoringCase(name, processor) && !name.ends_with("fpga");
        bool forProduct = !product.empty() && containsIgnoringCase(name, product);
        if (!forProcessor && !forProduct) continue;
        Value kinds = item.get("workKernelCachesList");
        for (const auto& kind : kinds.elements()) {
            if (!containsIgnoringCase(name, kind.text())) continue;
            found.push_back(name);
            bundle.keep(path);
            break;
        }
    }
    if (found.empty()) {
        Log("XXX ERROR no matching kernelcache found in bundle for %@ %@.", product, processor);
        return false;
    }
    Log("+++ Restore kernelcache found %@.", niceDescriptionOfStrings(found));
    return true;
}

bool keepUnpersonalizedFolders(const Value& item, const Value& deviceClasses, const char* folder, const char* kindsKey,
                               const char* kindName, BundleView& bundle) {
    auto entries = bundle.directEntries(folder);
    if (entries.empty()) {
        Log("XXX ERROR no %s found in bundle.", kindName);
        return false;
    }
    Value kinds = item.get(kindsKey);
    std::vector<std::string> found;
    for (const auto& path : entries) {
        std::string name = lastPathComponent(path);
        bool forDevice = false;
        for (const auto& deviceClass : deviceClasses.elements()) {
            forDevice = forDevice || containsIgnoringCase(name, deviceClass.text());
        }
        if (!forDevice) continue;
        bool ofKind = kinds.isNone() ? !containsIgnoringCase(name, "debug") : containsAnyOf(name, kinds);
        if (!ofKind) continue;
        found.push_back(name);
        bundle.keep(path);
        for (const auto& below : bundle.everythingBelow(path)) bundle.keep(below);
    }
    if (found.empty()) {
        Log("XXX ERROR no matching %s found in bundle for %@, %@.", kindName, item.get("workProduct"), niceDescription(kinds));
        return false;
    }
    Log("+++ Restore %s found %@.", kindName, niceDescriptionOfStrings(found));
    return true;
}

bool keepUnpersonalizedBaseband(std::string_view product, BundleView& bundle) {
    Value prefixes = Catalogue::builtIn().productValue(std::string(product) + ".BasebandFirmwarePrefix");
    std::vector<std::string> found;
    for (const auto& prefix : prefixes.elements()) {
        for (const auto& path : bundle.directEntries("Restore/Firmware")) {
            std::string name = lastPathComponent(path);
            if (!hasPrefix(name, prefix.text(), kLiteralSearch)) continue;
            bundle.keep(path);
            found.push_back(name);
        }
    }
    if (!found.empty()) {
        Log("+++ Restore.plist BasebandFirmware found %@.", niceDescriptionOfStrings(found));
    } else if (prefixes.count() > 0) {
        Log("XXX ERROR found no BasebandFirmware files with prefixes %@.", niceDescription(prefixes));
        return false;
    }
    return true;
}

}  // namespace whittle
