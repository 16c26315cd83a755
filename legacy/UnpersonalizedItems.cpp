// The unpersonalized strategy's two work items per device class and factory variant.
//
// "Strip Restore and Restore.plist": the default engine's unpersonalized install file
// list for the one device class (the kernel caches of the product or its processor of
// the variant's kinds, the all_flash and dfu folders of the device class and the
// variant's firmware and boot-loader kinds, the baseband firmware), plus the item's own
// Restore.plist cut down the way the personalized strategy cuts it, plus every file
// that this cut Restore.plist still names, so that the stripped bundle holds what its
// Restore.plist refers to.
//
// "Strip BuildManifest.plist using Restore.plist": the item's own BuildManifest.plist,
// listing only the identities that the item's Restore.plist selection serves: those of
// the device class and of the factory variant's personalization variant whose kernel
// caches, RAM disk and system image (the last one only for variants that install an
// operating system) the cut Restore.plist all names. Such an identity's restore images
// are therefore kept by the sibling item, and its firmware by the folders it keeps.
// A bundle without a build manifest gives this item nothing to do.
#include <set>

#include "engine/RequestRules.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

// The file names that a cut Restore.plist's kernel-cache, RAM-disk and system-image
// tables name.
std::set<std::string> filesNamedBy(const Value& restorePlist) {
    std::set<std::string> files;
    for (const char* table : {"KernelCachesByTarget", "KernelCachesByPlatform", "RamDisksByPlatform",
                              "SystemRestoreImagesByTarget"}) {
        const auto* entries = restorePlist.get(table).asDictionary();
        if (!entries) continue;
        for (const auto& entry : *entries) {
            const auto* filesByKind = entry.second.asDictionary();
            if (!filesByKind) continue;
            for (const auto& named : *filesByKind) {
                if (named.second.isString()) files.insert(std::string(named.second.text()));
            }
        }
    }
    return files;
}

// The restore images of an identity that a Restore.plist describes: its kernel caches,
// its RAM disk and, when the variant installs an operating system, its system image.
std::vector<std::string> restoreImagesOf(const Value& identity, bool installsOS) {
    std::vector<std::string> images;
    const auto* manifest = identity.get("Manifest").asDictionary();
    if (!manifest) return images;
    for (const auto& [key, entry] : *manifest) {
        bool describes = containsIgnoringCase(key, "KernelCache") || key == "RestoreRamDisk" || (key == "OS" && installsOS);
        Value path = entry.get("Info").get("Path");
        if (describes && path.isString()) images.emplace_back(path.text());
    }
    return images;
}

}  // namespace

int Stripper2::stripRestoreWithoutTessera(const Value& item) {
    std::vector<std::string> keepList;
    Stripper2BundleView bundle(*this, keepList, "Restore.plist");
    Value deviceClasses = Value::array({item.get("workDeviceClass")});
    std::vector<std::string> kernelCaches;
    bool kept = keepUnpersonalizedKernelCaches(item, bundle, kernelCaches) &&
                keepUnpersonalizedFolders(item, deviceClasses, "Restore/Firmware/all_flash", "workFirmwareTypesList",
                                          "all_flash", bundle) &&
                keepUnpersonalizedFolders(item, deviceClasses, "Restore/Firmware/dfu", "workDFUTypesList", "dfu", bundle) &&
                keepUnpersonalizedBaseband(item.get("workProduct").text(), bundle);
    if (!kept) return 1;

    Value files = Value::dictionary();
    Value restorePlist = restorePlistCutFor(item, true);
    if (!restorePlist.isNone()) {
        // The cut has already warned about the kernel caches and RAM disks the bundle lacks.
        for (const auto& file : filesNamedBy(restorePlist)) addSubpathToKeepList(inRestoreFolder(file), keepList);
        if (restorePlist.count() > 0) files.set(kRestorePlist, restorePlist);
    }
    keepPaths(keepList);
    if (files.count() > 0) modifiedFilesList_.append(files);
    return 0;
}

int Stripper2::stripBuildManifestWithoutTessera(const Value& item) {
    Value buildManifest = mutableDictionaryAtSubpath(kBuildManifest);
    if (buildManifest.isNone()) return 0;
    Value restorePlist = restorePlistCutFor(item, false);
    std::set<std::string> selection = restorePlist.isNone() ? std::set<std::string>() : filesNamedBy(restorePlist);
    bool installsOS = installsOperatingSystem(item.get("workVariant").description());

    Value served = Value::array();
    Value candidates = identitiesFor(buildManifest, item);
    for (const auto& identity : candidates.elements()) {
        std::vector<std::string> unnamed;
        for (const auto& image : restoreImagesOf(identity, installsOS)) {
            if (!selection.contains(image)) unnamed.push_back(image);
        }
        if (unnamed.empty()) {
            Log("+++ BuildManifest.plist BuildIdentity %@ \"%@\" served by Restore.plist.", infoText(identity, "DeviceClass"),
                infoText(identity, "Variant"));
            served.append(identity);
        } else {
            Log("--- BuildManifest.plist BuildIdentity %@ \"%@\" scrub: Restore.plist does not name %@.",
                infoText(identity, "DeviceClass"), infoText(identity, "Variant"), niceDescriptionOfStrings(unnamed));
        }
    }
    Value files = Value::dictionary();
    files.set(kBuildManifest, buildManifestWithIdentities(buildManifest, served, item));
    modifiedFilesList_.append(files);
    return 0;
}

}  // namespace whittle
