// What both strip engines share as engines: the bundle, the request and the options they
// are made with, the built-in catalogue's names, the work selectors and the operation each
// names, running the work list and the common steps, the four firmware map steps, the folders and images kept
// on request, and the cookie. An engine derives from StripEngine<itself>, says in its
// `style` how it files the request and whether it reports what it leaves out, and answers
// stripFirmwareMap, submanifestStartingAt, keepPaths and recordModifiedFile in its own way.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/BundleFiles.hpp"
#include "engine/Catalogue.hpp"
#include "engine/Cookie.hpp"
#include "engine/FirmwareMapFilters.hpp"
#include "engine/FolderBundleFiles.hpp"
#include "engine/RequestRules.hpp"
#include "engine/Stripper.hpp"
#include "engine/SupportFiles.hpp"
#include "engine/WorkList.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/Value.hpp"

namespace whittle {

// An operation as the work list runs it: on the engine, with the work item. A step that
// does not read its item is declared without one.
template <typename Engine>
using WorkOperation = int (*)(Engine&, const Value&);

template <typename Engine>
using OperationTable = std::map<std::string_view, WorkOperation<Engine>>;

// Every work selector and the operation of the same name, for the operations the engine
// has: the steps both engines take, the default engine's own, the legacy engine's own.
template <typename Engine>
OperationTable<Engine> operationTable() {
    OperationTable<Engine> table;
    // A selector is its operation's name followed by a colon.
#define WHITTLE_OPERATION(name)                                                                      \
    if constexpr (requires(Engine& engine, const Value& item) { engine.name(item); })               \
        table.emplace(#name ":", [](Engine& engine, const Value& item) { return engine.name(item); }); \
    else if constexpr (requires(Engine& engine) { engine.name(); })                                 \
        table.emplace(#name ":", [](Engine& engine, const Value&) { return engine.name(); })
    WHITTLE_OPERATION(stripCommonWork);
    WHITTLE_OPERATION(stripInvisibles);
    WHITTLE_OPERATION(leaveCookie);
    WHITTLE_OPERATION(stripRestoreFirmwareDeviceMapDotTxt);
    WHITTLE_OPERATION(stripRestoreFirmwareDeviceMapDotPlist);
    WHITTLE_OPERATION(stripRestoreFirmwareTargetMapDotTxt);
    WHITTLE_OPERATION(stripRestoreFirmwarePlatformKeysDotPlist);
    WHITTLE_OPERATION(stripFWPKs);
    WHITTLE_OPERATION(stripDebugFolder);
    WHITTLE_OPERATION(stripHomeDiags);
    WHITTLE_OPERATION(stripSDKs);
    WHITTLE_OPERATION(stripBundleImages);
    WHITTLE_OPERATION(stripRestoreTools);
    WHITTLE_OPERATION(buildFilelistFromBuildManifest);
    WHITTLE_OPERATION(updateFilelistForUnpersonalizedInstall);
    WHITTLE_OPERATION(stripBuildManifest);
    WHITTLE_OPERATION(stripRestorePlist);
    WHITTLE_OPERATION(stripFactoryDiskImage);
    WHITTLE_OPERATION(stripRestoreUsingTessera);
    WHITTLE_OPERATION(stripRestorePlistUsingTessera);
    WHITTLE_OPERATION(stripRestoreWithoutTessera);
    WHITTLE_OPERATION(stripBuildManifestWithoutTessera);
    WHITTLE_OPERATION(mergeStrippedManifests);
    WHITTLE_OPERATION(mergeModifiedFiles);
    WHITTLE_OPERATION(stripUnencryptedImages);
    WHITTLE_OPERATION(stripBogusRestoreImagesInRootDirectory);
#undef WHITTLE_OPERATION
    return table;
}

// The steps a run takes once for the whole request, in order; an engine takes those it
// has an operation for.
inline constexpr const char* kCommonSteps[] = {
    "stripRestoreFirmwareDeviceMapDotTxt:", "stripRestoreFirmwareDeviceMapDotPlist:",
    "stripRestoreFirmwareTargetMapDotTxt:", "stripRestoreFirmwarePlatformKeysDotPlist:",
    "stripFWPKs:", "stripDebugFolder:", "stripUnencryptedImages:", "stripHomeDiags:", "stripSDKs:",
    "stripBundleImages:", "stripBogusRestoreImagesInRootDirectory:", "stripRestoreTools:", "stripFactoryDiskImage:",
};

// Where the engines part ways in what StripEngine does for them.
struct EngineStyle {
    // The stripInfo() keys of the bundle's root and of the requested products.
    const char* bundleRootKey;
    const char* productsKey;
    // Whether the optional folders and images that are not kept are reported.
    bool reportsLeftOut;
};

template <typename Engine>
class StripEngine : public Stripper {
public:
    // The operation a work item's "workSelector" names, or nullptr.
    static WorkOperation<Engine> operationNamed(std::string_view selector) {
        static const OperationTable<Engine> operations = operationTable<Engine>();
        auto found = operations.find(selector);
        return found == operations.end() ? nullptr : found->second;
    }

    // An engine over the bundle folder at `bundleRoot`, or over the bundle `files` reads.
    static std::unique_ptr<Stripper> stripperForPath(const std::string& bundleRoot, const Value& products,
                                                     const Value& factoryVariants, const Value& options) {
        return stripperForBundle(std::make_shared<FolderBundleFiles>(bundleRoot), products, factoryVariants, options);
    }
    static std::unique_ptr<Stripper> stripperForBundle(std::shared_ptr<const BundleFiles> files, const Value& products,
                                                       const Value& factoryVariants, const Value& options) {
        return std::make_unique<Engine>(std::move(files), products, factoryVariants, options);
    }

    static std::vector<std::string> knownProducts() { return Catalogue::builtIn().knownProducts(); }
    static std::vector<std::string> knownFactoryVariants() { return Catalogue::builtIn().knownFactoryVariants(); }

    Value bundleRoot() const override { return Value::string(bundleRoot_); }
    const Value& stripInfo() const { return stripInfo_; }
    const Value& stripOptions() const { return stripOptions_; }
    bool checkUnpersonalized() const { return checksUnpersonalized(stripOptions_); }

    const Value& workList() const { return workList_; }
    int performWork() { return runWorkList(engine(), workList_); }

    // Runs the common steps the engine has, in order, each on its own copy of the item;
    // the first non-zero result ends the run and is answered.
    int stripCommonWork(const Value& item) {
        for (const char* selector : kCommonSteps) {
            WorkOperation<Engine> operation = operationNamed(selector);
            if (!operation) continue;
            Value copy = Value::dictionary(*item.asDictionary());
            if (int result = operation(engine(), copy)) return result;
        }
        return 0;
    }

    int stripRestoreFirmwareDeviceMapDotTxt(const Value& item) {
        return engine().stripFirmwareMap(item, FirmwareMap::DeviceMapText);
    }
    int stripRestoreFirmwareDeviceMapDotPlist(const Value& item) {
        return engine().stripFirmwareMap(item, FirmwareMap::DeviceMapPlist);
    }
    int stripRestoreFirmwareTargetMapDotTxt(const Value& item) {
        return engine().stripFirmwareMap(item, FirmwareMap::TargetMapText);
    }
    int stripRestoreFirmwarePlatformKeysDotPlist(const Value& item) {
        return engine().stripFirmwareMap(item, FirmwareMap::PlatformKeys);
    }

    // Leaves "WhittleCookie.plist" among the modified files, unless "noCookie".
    int leaveCookie() {
        if (option("noCookie")) return 0;
        Log("+++ Oreo's left.  No milk.");
        engine().recordModifiedFile("WhittleCookie.plist", makeCookie(bundleRoot_, stripOptions_));
        return 0;
    }

    int stripDebugFolder() { return keepOptionalFolder(kDebugFolder); }
    int stripBundleImages() { return keepOptionalFolder(kBundleImagesFolder); }
    int stripHomeDiags() { return keepOptionalLinkedImage(kHomeDiagnosticsImage); }
    int stripSDKs() { return keepOptionalLinkedImage(kSDKImage); }

protected:
    // The request as given: products and variants are kept only when they are arrays, the
    // options always as a dictionary of their own.
    StripEngine(std::shared_ptr<const BundleFiles> files, const Value& products, const Value& factoryVariants,
                const Value& options)
        : bundleRoot_(files->root()), files_(std::move(files)), stripInfo_(Value::dictionary()),
          stripOptions_(Value::dictionary()) {
        stripInfo_.set(Engine::style.bundleRootKey, Value::string(bundleRoot_));
        if (products.isArray()) stripInfo_.set(Engine::style.productsKey, products.deepCopy());
        if (factoryVariants.isArray()) stripInfo_.set("FactoryVariants", factoryVariants.deepCopy());
        if (const auto* entries = options.asDictionary()) {
            for (const auto& [key, value] : *entries) stripOptions_.set(key, value.deepCopy());
        }
    }

    bool option(std::string_view key) const { return boolForKey(stripOptions_, key); }

    // A folder is kept, with its direct entries (never deeper levels), when its option is
    // set; a folder without an option never is.
    int keepOptionalFolder(const OptionalFolder& folder) {
        bool wanted = folder.option && option(folder.option);
        if (!wanted && !Engine::style.reportsLeftOut) return 0;
        auto listing = engine().submanifestStartingAt(folder.folder, false);
        if (!listing.empty()) Log(wanted ? folder.foundMessage : folder.scrubMessage, listing.size());
        if (wanted) engine().keepPaths(listing);
        return 0;
    }

    // The image and its link are kept when the option is set and the link is one; a plain
    // file under the link's name is deliberately not kept.
    int keepOptionalLinkedImage(const OptionalLinkedImage& image) {
        if (!option(image.option)) {
            if constexpr (Engine::style.reportsLeftOut) {
                if (files_->linkTarget(image.link) || engine().bundleLists(image.link)) Log(image.scrubMessage);
            }
            return 0;
        }
        std::vector<std::string> kept;
        if (auto target = files_->linkTarget(image.link)) {
            Log(image.foundMessage, *target);
            kept = {*target, image.link};
        }
        engine().keepPaths(kept);
        return 0;
    }

    // When no "RestoreTools.dmg" link names the restore tools image: the guess the root's
    // unlinked disk images allow, recorded the engine's way, with its warning.
    int fallBackOnRootImages(const std::vector<std::string>& rootNames) {
        LinkReader linkTarget = [this](const std::string& image) { return files_->linkTarget(image); };
        RestoreToolsGuess guess = guessRestoreTools(unlinkedImages(rootDiskImages(rootNames), linkTarget));
        if (guess.outcome == RestoreToolsGuess::Outcome::AlreadyInPlace) return 0;
        if (guess.outcome == RestoreToolsGuess::Outcome::SingleImage) {
            engine().recordModifiedFile(kRestoreTools, Value::data(guess.keptImages.front()));
        }
        engine().keepPaths(guess.keptImages);
        Log("%@", guess.warning);
        return 0;
    }

    std::string bundleRoot_;
    std::shared_ptr<const BundleFiles> files_;
    Value stripInfo_;
    Value stripOptions_;
    Value workList_;

private:
    Engine& engine() { return static_cast<Engine&>(*this); }
};

}  // namespace whittle
