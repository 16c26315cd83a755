// The legacy strip engine. It cuts a request into independent work items, one per
// product, device class and factory variant; each item yields its own kept-path array
// and its own new file contents, and closing items merge them into the run's result.
// The bundle is listed once, at construction, and only ever read.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "engine/BundleFiles.hpp"
#include "engine/Catalogue.hpp"
#include "engine/FirmwareMapFilters.hpp"
#include "engine/StripEngine.hpp"
#include "engine/SupportFiles.hpp"
#include "support/Value.hpp"

namespace whittle {

class Stripper2 : public StripEngine<Stripper2> {
public:
    static constexpr EngineStyle style{.bundleRootKey = "bundleRoot", .productsKey = "products", .reportsLeftOut = true};

    Stripper2(std::shared_ptr<const BundleFiles> files, const Value& products, const Value& factoryVariants,
              const Value& options);

    // This engine's own catalogue; it holds the same rows as the default engine's.
    static const Catalogue& catalogue();

    int strip() override;
    Value validProducts() override;
    Value validFactoryVariants() override;
    // Both are unset (none) until the merge steps have run.
    Value strippedManifest() override { return strippedManifest_; }
    Value modifiedFiles() override { return modifiedFiles_; }

    // ---- request analysis and the work list ----
    int preanalyzeRequest();
    Value factoryVariantsForDeviceClasses(const Value& deviceClasses, const Value& buildManifest) const;
    bool checkPersonalized() const;

    // ---- per-item work ----
    int stripRestoreUsingTessera(const Value& item);
    int stripRestorePlistUsingTessera(const Value& item);
    int stripRestoreWithoutTessera(const Value& item);
    int stripBuildManifestWithoutTessera(const Value& item);

    // ---- support files ----
    int stripFirmwareMap(const Value& item, FirmwareMap map);
    int stripFWPKs(const Value& item);
    int stripUnencryptedImages();
    int stripBogusRestoreImagesInRootDirectory();
    int stripRestoreTools();

    // ---- merging the partial results, and the closing steps ----
    int mergeStrippedManifests();
    int mergeModifiedFiles();
    int stripInvisibles();
    // Hands on kept paths as a partial result of their own.
    void keepPaths(const std::vector<std::string>& paths);
    // Hands on the new content of a bundle-relative path as a partial result of its own.
    void recordModifiedFile(const std::string& path, const Value& content);

    // ---- utilities ----
    // The property list at a bundle-relative path, parsed afresh on every call; none
    // (with a note in verbose mode) when it is missing, unreadable or not a dictionary.
    Value mutableDictionaryAtSubpath(const std::string& path) const;
    // Appends the path and its parents, when the bundle lists the path (0); else 1.
    int addSubpathToKeepList(const std::string& path, std::vector<std::string>& keepList) const;
    // The path itself followed by every listed path below it (or, not deep, its direct
    // children only); empty when the bundle does not list the path.
    std::vector<std::string> submanifestStartingAt(const std::string& path) const;
    std::vector<std::string> submanifestStartingAt(const std::string& path, bool deep) const;
    bool bundleLists(const std::string& path) const { return originalPaths_.contains(path); }

    // ---- fields ----
    const std::vector<std::string>& originalManifest() const { return originalManifest_; }
    const Value& strippedManifestsList() const { return strippedManifestsList_; }
    void setStrippedManifestsList(Value list) { strippedManifestsList_ = std::move(list); }
    const Value& modifiedFilesList() const { return modifiedFilesList_; }
    void setModifiedFilesList(Value list) { modifiedFilesList_ = std::move(list); }
    void setStrippedManifest(Value manifest) { strippedManifest_ = std::move(manifest); }
    void setModifiedFiles(Value files) { modifiedFiles_ = std::move(files); }
    void setWorkList(Value list) { workList_ = std::move(list); }

private:

    // Part of Restore.plist cut down to one item's product, processor, models, kernel-cache
    // kinds and system image type; none when it cannot be read. `report` says whether the
    // findings are logged.
    Value restorePlistCutFor(const Value& item, bool report) const;
    // The manifest's identities of the item's device class and of the personalization
    // variant of its factory variant, in manifest order.
    Value identitiesFor(const Value& buildManifest, const Value& item) const;
    // The manifest listing only these identities and the item's models.
    static Value buildManifestWithIdentities(const Value& buildManifest, const Value& identities, const Value& item);

    std::vector<std::string> originalManifest_;
    std::unordered_set<std::string> originalPaths_;
    Value strippedManifest_;
    Value modifiedFiles_;
    Value strippedManifestsList_ = Value::array();
    Value modifiedFilesList_ = Value::array();
};

}  // namespace whittle
