// The personalized strategy's two work items per device class and factory variant:
// the build identities with the files they name and a BuildManifest.plist listing only
// them, and Restore.plist cut down to the item.
#include <set>

#include "engine/RequestRules.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

bool holdsEqual(const Value& list, const Value& value) {
    for (const auto& element : list.elements()) {
        if (element.equals(value)) return true;
    }
    return false;
}

void removeEqual(Value& list, const Value& value) {
    if (auto* elements = list.asMutableArray()) {
        std::erase_if(*elements, [&value](const Value& element) { return element.equals(value); });
    }
}

// A kernel-cache or RAM-disk table entry serves the processor when its name contains
// the processor's name; an unknown processor is served by none.
bool namesProcessor(std::string_view entryName, std::string_view processor) {
    return !processor.empty() && containsIgnoringCase(entryName, processor);
}

}  // namespace

Value Stripper2::identitiesFor(const Value& buildManifest, const Value& item) const {
    Value identities = Value::array();
    std::string deviceClass(item.get("workDeviceClass").text());
    Value personalization = catalogue().factoryVariantValue(item.get("workVariant").description() + ".PersonalizationVariants");
    if (!personalization.isString()) return identities;
    for (const auto& identity : buildManifest.get("BuildIdentities").elements()) {
        if (infoText(identity, "DeviceClass") == deviceClass && infoText(identity, "Variant") == personalization.text()) {
            identities.append(identity);
        }
    }
    return identities;
}

Value Stripper2::buildManifestWithIdentities(const Value& buildManifest, const Value& identities, const Value& item) {
    Value stripped = Value::dictionary(*buildManifest.asDictionary());
    stripped.set("BuildIdentities", identities);
    stripped.set("SupportedProductTypes", keptModels(buildManifest.get("SupportedProductTypes"), item.get("workModelList")));
    return stripped;
}

// The default engine's build-manifest file list for one device class and factory
// variant: every identity of the class whose variant is the factory variant's
// personalization variant, the product's baseband firmware, every file the identities
// name (with the all_flash folders' manifests), and compatibility links for images
// stored under other names than a restore expects. The item's own BuildManifest.plist
// lists just these identities and the product's models.
int Stripper2::stripRestoreUsingTessera(const Value& item) {
    Value buildManifest = mutableDictionaryAtSubpath(kBuildManifest);
    if (buildManifest.isNone()) {
        Log("XXX ERROR: BuildManifest.plist cannot be read.");
        return 1;
    }
    Value identities = identitiesFor(buildManifest, item);
    if (identities.count() == 0) {
        Log("XXX ERROR: BuildIdentity %@ (%@) not found.", item.get("workDeviceClass"),
            catalogue().factoryVariantValue(item.get("workVariant").description() + ".PersonalizationVariants"));
        return 1;
    }
    std::vector<std::string> keepList;
    Stripper2BundleView bundle(*this, keepList, "BuildManifest.plist");
    Value files = Value::dictionary();
    for (const auto& identity : identities.elements()) {
        if (int result = keepManifestBaseband(item.get("workProduct").text(), identity, bundle)) return result;
        keepManifestItems(item, identity, bundle, files, nullptr);
    }
    files.set(kBuildManifest, buildManifestWithIdentities(buildManifest, identities, item));
    keepPaths(keepList);
    modifiedFilesList_.append(files);
    return 0;
}

int Stripper2::stripRestorePlistUsingTessera(const Value& item) {
    Value files = Value::dictionary();
    Value restorePlist = restorePlistCutFor(item, true);
    if (restorePlist.count() > 0) files.set(kRestorePlist, restorePlist);
    if (files.count() > 0) modifiedFilesList_.append(files);
    return 0;
}

Value Stripper2::restorePlistCutFor(const Value& item, bool report) const {
    auto say = [report](std::string_view message, const auto&... args) {
        if (report) Log(message, args...);
    };
    auto sayFindings = [&say](const char* table, const Value& found, const Value& scrubbed) {
        if (found.count() > 0) say("+++ Restore.plist found %@ %@.", table, niceDescription(found));
        if (scrubbed.count() > 0) say("--- Restore.plist scrub %@ %@.", table, niceDescription(scrubbed));
    };
    auto label = [](std::string_view name, std::string_view kind) { return Value::string(format("%@ (%@)", name, kind)); };

    Value reading = mutableDictionaryAtSubpath(kRestorePlist);
    if (reading.isNone()) {
        say("!!! WARNING: Restore.plist cannot be read.");
        return {};
    }
    Value output = mutableDictionaryAtSubpath(kRestorePlist);
    std::string product(item.get("workProduct").description());
    Value processorValue = item.get("workProcessorID");
    std::string processor(processorValue.text());
    Value kinds = item.get("workKernelCachesList");
    Value models = item.get("workModelList");
    Value imageType = item.get("workSystemImageType");

    // Kernel caches: entries named after the product or the processor keep the item's
    // kinds. The found and scrub sets belong to the table, so each matching entry's
    // lines repeat what the table gathered so far.
    for (const char* table : {"KernelCachesByTarget", "KernelCachesByPlatform"}) {
        Value found = Value::setOf(), scrubbed = Value::setOf();
        Value outputTable = output.get(table);
        const auto* entries = reading.get(table).asDictionary();
        if (!entries) continue;
        for (const auto& [name, entry] : *entries) {
            if (!equalsIgnoringCase(name, product) && !namesProcessor(name, processor)) {
                scrubbed.addToSet(Value::string(name));
                outputTable.remove(name);
                continue;
            }
            Value remaining = Value::array(kinds.elements());
            Value outputEntry = outputTable.get(name);
            if (const auto* cachesByKind = entry.asDictionary()) {
                for (const auto& [kind, file] : *cachesByKind) {
                    Value kindValue = Value::string(kind);
                    if (!kinds.isNone() && !holdsEqual(kinds, kindValue)) {
                        scrubbed.addToSet(label(name, kind));
                        outputEntry.remove(kind);
                    } else {
                        found.addToSet(label(name, kind));
                        std::string path = inRestoreFolder(file.text());
                        if (!bundleLists(path)) {
                            say("!!! WARNING: Restore.plist %@ %@ %@ missing \"%@\" from bundle.", table, name, kind,
                                lastPathComponent(path));
                        }
                    }
                    removeEqual(remaining, kindValue);
                }
            }
            sayFindings(table, found, scrubbed);
            if (remaining.count() > 0) {
                say("!!! WARNING: Restore.plist %@ %@ missing reference to kernelcache %@.", table, name,
                    niceDescription(remaining));
            }
        }
    }

    // RAM disks: a platform entry of the processor stays whole.
    {
        Value found = Value::setOf(), scrubbed = Value::setOf();
        Value outputTable = output.get("RamDisksByPlatform");
        if (const auto* entries = reading.get("RamDisksByPlatform").asDictionary()) {
            for (const auto& [name, entry] : *entries) {
                if (!namesProcessor(name, processor)) {
                    scrubbed.addToSet(Value::string(name));
                    outputTable.remove(name);
                    continue;
                }
                found.addToSet(Value::string(name));
                if (const auto* disksByKind = entry.asDictionary()) {
                    for (const auto& [kind, file] : *disksByKind) {
                        if (bundleLists(inRestoreFolder(file.text()))) continue;
                        say("!!! WARNING: Restore.plist RamDisksByPlatform cannot find RAMdisk file %@ %@ \"%@\".", name, kind,
                            lastPathComponent(file.text()));
                    }
                }
            }
        }
        sayFindings("RamDisksByPlatform", found, scrubbed);
        if (found.count() == 0) say("!!! WARNING: Restore.plist RamDisksByPlatform has no reference to %@.", processorValue);
    }

    // System images: only the product's target, and of it only the item's image type.
    {
        Value found = Value::setOf(), scrubbed = Value::setOf();
        Value images = Value::dictionary();
        if (const auto* entries = reading.get("SystemRestoreImagesByTarget").asDictionary()) {
            for (const auto& [name, entry] : *entries) {
                if (!equalsIgnoringCase(name, product)) {
                    scrubbed.addToSet(Value::string(name));
                    continue;
                }
                Value kept = Value::dictionary();
                images.set(name, kept);
                if (const auto* imagesByType = entry.asDictionary()) {
                    for (const auto& [type, image] : *imagesByType) {
                        if (!imageType.isNone() && !imageType.equals(Value::string(type))) {
                            scrubbed.addToSet(label(name, type));
                        } else {
                            kept.set(type, image);
                            found.addToSet(label(name, type));
                        }
                    }
                }
            }
        }
        output.set("SystemRestoreImagesByTarget", images);
        sayFindings("SystemRestoreImagesByTarget", found, scrubbed);
        // The message names the processor although the match is by product.
        if (found.count() == 0) {
            say("!!! WARNING: Restore.plist SystemRestoreImagesByTarget has no reference to %@.", processorValue);
        }
    }

    // Supported product types: the item's models.
    {
        Value found = Value::setOf(), scrubbed = Value::setOf();
        for (const auto& model : reading.get("SupportedProductTypes").elements()) {
            (holdsEqual(models, model) ? found : scrubbed).addToSet(model);
        }
        sayFindings("SupportedProductTypes", found, scrubbed);
        if (found.count() == 0) {
            say("!!! WARNING: Restore.plist SupportedProductTypes has no reference to %@.", niceDescription(models));
        }
        output.set("SupportedProductTypes", Value::array(*found.asSetMembers()));
    }
    return output;
}

}  // namespace whittle
