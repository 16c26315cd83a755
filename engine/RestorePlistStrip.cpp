// Restore.plist, rewritten to name only what the kept build identities use and only the
// requested products, models and processors.
#include "engine/Catalogue.hpp"
#include "engine/RequestRules.hpp"
#include "engine/Stripper3.hpp"
#include "engine/WorkItems.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {

namespace {

bool namesAKeptFile(const Value& value, const std::set<std::string>& files) {
    return value.isString() && files.contains(std::string(value.text()));
}

// Keeps the inner entries whose file is kept, under the outer keys the caller accepts;
// outer keys with no surviving entry are left out.
template <typename AcceptOuter>
Value filterTwoLevels(const Value& original, const std::set<std::string>& files, AcceptOuter acceptOuter) {
    Value filtered = Value::dictionary();
    const auto* outer = original.asDictionary();
    if (!outer) return filtered;
    for (const auto& [outerKey, innerValue] : *outer) {
        const auto* inner = innerValue.asDictionary();
        if (!inner || !acceptOuter(outerKey)) continue;
        for (const auto& [innerKey, value] : *inner) {
            if (!namesAKeptFile(value, files)) continue;
            Value kept = filtered.get(outerKey);
            if (kept.isNone()) filtered.set(outerKey, kept = Value::dictionary());
            kept.set(innerKey, value);
        }
    }
    return filtered;
}

}  // namespace

int Stripper3::stripRestorePlist(const Value& item) {
    Value allProducts = item.get("workAllProducts");
    Value allModels = item.get("workAllModels");
    Value allProcessorIDs = item.get("workAllProcessorIDs");
    Value entries = restorePlist_.entries();
    Value result = entries.isDictionary() ? Value::dictionary(*entries.asDictionary()) : Value::dictionary();

    // Kernel caches: both tables merged, filtered, and split again by the processor table.
    Value merged = Value::dictionary();
    for (const char* key : {"KernelCachesByPlatform", "KernelCachesByTarget"}) {
        if (const auto* table = result.get(key).asDictionary()) {
            for (const auto& [outerKey, inner] : *table) merged.set(outerKey, inner);
        }
        result.remove(key);
    }
    const Value& processors = Catalogue::builtIn().processorTable();
    auto isProcessor = [&processors](const std::string& key) { return !processors.get(key).isNone(); };
    result.set("KernelCachesByPlatform", filterTwoLevels(merged, kernelCachesSet_, isProcessor));
    result.set("KernelCachesByTarget",
               filterTwoLevels(merged, kernelCachesSet_, [&](const std::string& key) { return !isProcessor(key); }));
    std::set<std::string> referenced;
    for (const auto& [outerKey, inner] : *merged.asDictionary()) {
        if (const auto* innerEntries = inner.asDictionary()) {
            for (const auto& entry : *innerEntries) {
                if (namesAKeptFile(entry.second, kernelCachesSet_)) referenced.insert(std::string(entry.second.text()));
            }
        }
    }
    std::vector<std::string> unreferenced;
    for (const auto& name : kernelCachesSet_) {
        if (!referenced.contains(name)) unreferenced.push_back(name);
    }
    if (!unreferenced.empty()) {
        Log("!!! WARNING: Restore.plist missing reference to kernelcaches %@.", niceDescriptionOfStrings(unreferenced));
    }

    result.set("RamDisksByPlatform",
               filterTwoLevels(result.get("RamDisksByPlatform"), ramDisksSet_,
                               [&](const std::string& key) { return holdsString(allProcessorIDs, key); }));
    result.set("SystemRestoreImagesByTarget",
               filterTwoLevels(result.get("SystemRestoreImagesByTarget"), restoreImagesSet_,
                               [&](const std::string& key) { return holdsString(allProducts, key); }));

    result.set("SupportedProductTypes", keptModels(result.get("SupportedProductTypes"), allModels));

    auto keepKeys = [&result](const char* key, auto keepKey) {
        const auto* table = result.get(key).asDictionary();
        if (!table) return;
        Value kept = Value::dictionary();
        for (const auto& [name, value] : *table) {
            if (keepKey(name)) kept.set(name, value);
        }
        result.set(key, kept);
    };
    keepKeys("SystemPartitionPadding", [&](const std::string& name) { return holdsString(allProducts, name); });
    keepKeys("MinimumSystemPartition", [&](const std::string& name) { return restoreImagesSet_.contains(name); });

    modifiedFilelist_.set("Restore/Restore.plist", result);
    return 0;
}

}  // namespace whittle
