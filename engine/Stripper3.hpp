// The default strip engine. It decides from the bundle's manifests and the catalogue
// which files a request keeps, and which files get new content, through a work list
// of steps run in order. The bundle is only ever read.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "engine/FileListRules.hpp"
#include "engine/FirmwareMapFilters.hpp"
#include "engine/StripEngine.hpp"
#include "engine/BundleFiles.hpp"
#include "engine/SupportFiles.hpp"
#include "support/PropertyList.hpp"
#include "support/Value.hpp"

namespace whittle {

using KeepList = std::unordered_set<std::string>;

class Stripper3 : public StripEngine<Stripper3> {
public:
    static constexpr EngineStyle style{.bundleRootKey = "BundleRoot", .productsKey = "Products", .reportsLeftOut = false};

    Stripper3(std::shared_ptr<const BundleFiles> files, const Value& products, const Value& factoryVariants,
              const Value& options);
    ~Stripper3() override;

    int strip() override;
    Value validProducts() override;
    Value validFactoryVariants() override;
    Value strippedManifest() override;
    Value modifiedFiles() override { return modifiedFilelist_; }

    // ---- request analysis and the work list ----
    int preanalyzeRequest();

    // ---- valid products and variants ----
    Value factoryVariantsForDeviceClasses(const Value& deviceClasses);

    // ---- the build manifest ----
    void observeValueForKeyPath(std::string_view keyPath, const Value& newValue);
    void buildHierarchicalBuildIdentities();
    static Value flattenBuildIdentities(const Value& index);
    std::vector<std::string> submanifestStartingAt(const std::string& folder);
    std::vector<std::string> submanifestStartingAt(const std::string& folder, bool deep);
    static int addSubpathToKeepList(std::string_view path, KeepList& keepList);
    int buildFilelistFromBuildManifest(const Value& item);
    int stripBuildManifest(const Value& item);

    // ---- unpersonalized installs ----
    int updateFilelistForUnpersonalizedInstall(const Value& item);

    // ---- Restore.plist ----
    int stripRestorePlist(const Value& item);

    // ---- firmware maps ----
    int stripFirmwareMap(const Value& item, FirmwareMap map);

    // ---- bundle content ----
    int stripFactoryDiskImage();
    int stripFWPKs(const Value& item);
    int stripRestoreTools();
    int stripInvisibles();
    void keepPaths(const std::vector<std::string>& paths) { copiedFilelist_.insert(paths.begin(), paths.end()); }
    // The new content of a bundle-relative path.
    void recordModifiedFile(const std::string& path, const Value& content) { modifiedFilelist_.set(path, content); }

    // ---- fields ----
    PropertyList& buildManifest() { return buildManifest_; }
    PropertyList& restorePlist() { return restorePlist_; }
    const Value& originalBuildIdentities() const { return originalBuildIdentities_; }
    const Value& strippedBuildIdentities() const { return strippedBuildIdentities_; }
    const std::set<std::string>& restoreImagesSet() const { return restoreImagesSet_; }
    const std::set<std::string>& kernelCachesSet() const { return kernelCachesSet_; }
    const std::set<std::string>& ramDisksSet() const { return ramDisksSet_; }
    const KeepList& copiedFilelist() const { return copiedFilelist_; }

private:

    Value requestedList(std::string_view key) const;
    Value deviceClassesFor(std::string_view product) const;
    bool loadBuildManifest();
    std::string pathInBundle(std::string_view bundleRelativePath) const;
    void keepAll(const KeepList& keepList);

    int chooseIdentities(const Value& item, Value& chosen);

    PropertyList buildManifest_;
    PropertyList restorePlist_;
    PropertyList::ObserverToken manifestObservation_ = 0;
    Value originalBuildIdentities_;
    Value strippedBuildIdentities_ = Value::dictionary();
    std::set<std::string> restoreImagesSet_;
    std::set<std::string> kernelCachesSet_;
    std::set<std::string> ramDisksSet_;
    std::map<std::string, std::vector<std::string>> shallowPathContentsCache_;
    KeepList copiedFilelist_;
    Value modifiedFilelist_ = Value::dictionary();
};

// The default engine's bundle as the shared file-list rules see it: listings through the
// engine (shallow ones cached), kept paths into one step's own keep list.
class Stripper3BundleView : public BundleView {
public:
    Stripper3BundleView(Stripper3& engine, KeepList& keepList) : engine_(engine), keepList_(keepList) {}
    std::vector<std::string> directEntries(const std::string& folder) override {
        return engine_.submanifestStartingAt(folder, false);
    }
    std::vector<std::string> everythingBelow(const std::string& folder) override {
        return engine_.submanifestStartingAt(folder, true);
    }
    void keep(const std::string& path) override { Stripper3::addSubpathToKeepList(path, keepList_); }

private:
    Stripper3& engine_;
    KeepList& keepList_;
};

}  // namespace whittle
