// What an unpersonalized install uses, found by file and folder names alone: the
// kernel cache, the firmware and boot-loader folders and the baseband files.
#include "engine/Catalogue.hpp"
#include "engine/Stripper3.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {

namespace {

bool containsAnyOf(std::string_view name, const Value& kinds) {
    for (const auto& kind : kinds.elements()) {
        if (containsIgnoringCase(name, kind.text())) return true;
    }
    return false;
}

}  // namespace

bool Stripper3::keepUnpersonalizedKernelCaches(const Value& item, KeepList& keep) {
    std::string product(item.get("workProduct").text());
    std::string processor(item.get("workProcessorID").text());
    std::vector<std::string> found;
    for (const auto& path : submanifestStartingAt("Restore", false)) {
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
            addSubpathToKeepList(path, keep);
            kernelCachesSet_.insert(name);
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

bool Stripper3::keepUnpersonalizedFolders(const Value& item, const char* folder, const char* kindsKey,
                                          const char* kindName, KeepList& keep) {
    auto entries = submanifestStartingAt(folder, false);
    if (entries.empty()) {
        Log("XXX ERROR no %s found in bundle.", kindName);
        return false;
    }
    Value kinds = item.get(kindsKey);
    Value deviceClasses = item.get("workDeviceClasses");
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
        addSubpathToKeepList(path, keep);
        for (const auto& below : submanifestStartingAt(path, true)) keep.insert(below);
    }
    if (found.empty()) {
        Log("XXX ERROR no matching %s found in bundle for %@, %@.", kindName, item.get("workProduct"), niceDescription(kinds));
        return false;
    }
    Log("+++ Restore %s found %@.", kindName, niceDescriptionOfStrings(found));
    return true;
}

bool Stripper3::keepUnpersonalizedBaseband(std::string_view product, KeepList& keep) {
    Value prefixes = Catalogue::builtIn().productValue(std::string(product) + ".BasebandFirmwarePrefix");
    std::vector<std::string> found;
    for (const auto& prefix : prefixes.elements()) {
        for (const auto& path : submanifestStartingAt("Restore/Firmware", false)) {
            std::string name = lastPathComponent(path);
            if (!hasPrefix(name, prefix.text(), kLiteralSearch)) continue;
            addSubpathToKeepList(path, keep);
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

int Stripper3::updateFilelistForUnpersonalizedInstall(const Value& item) {
    KeepList keep;
    bool kept = keepUnpersonalizedKernelCaches(item, keep) &&
                keepUnpersonalizedFolders(item, "Restore/Firmware/all_flash", "workFirmwareTypesList", "all_flash", keep) &&
                keepUnpersonalizedFolders(item, "Restore/Firmware/dfu", "workDFUTypesList", "dfu", keep) &&
                keepUnpersonalizedBaseband(item.get("workProduct").text(), keep);
    if (!kept) return 1;
    keepAll(keep);
    return 0;
}

}  // namespace whittle
