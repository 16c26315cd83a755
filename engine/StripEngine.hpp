// What both strip engines share as engines: the built-in catalogue's names, the work
// selectors and the operation each names, running the work list, the four firmware map
// steps, the steps for the folders and images kept on request, and the cookie. An engine
// derives from StripEngine<itself> and answers stripFirmwareMap, keepOptionalFolder,
// keepOptionalLinkedImage, keepPaths and recordModifiedFile in its own way.
#pragma once

#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/Catalogue.hpp"
#include "engine/Cookie.hpp"
#include "engine/FirmwareMapFilters.hpp"
#include "engine/FolderBundleFiles.hpp"
#include "engine/Stripper.hpp"
#include "engine/SupportFiles.hpp"
#include "engine/WorkList.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/Value.hpp"

namespace whittle {

template <typename Engine>
using OperationTable = std::map<std::string_view, int (Engine::*)(const Value&)>;

// Every work selector and the operation of the same name, for the engines that have it:
// the steps both engines take, then the default engine's own, then the legacy engine's.
template <typename Engine>
OperationTable<Engine> operationTable() {
    OperationTable<Engine> table = {
        {"stripCommonWork:", &Engine::stripCommonWork},
        {"stripInvisibles:", &Engine::stripInvisibles},
        {"leaveCookie:", &Engine::leaveCookie},
        {"stripRestoreFirmwareDeviceMapDotTxt:", &Engine::stripRestoreFirmwareDeviceMapDotTxt},
        {"stripRestoreFirmwareDeviceMapDotPlist:", &Engine::stripRestoreFirmwareDeviceMapDotPlist},
        {"stripRestoreFirmwareTargetMapDotTxt:", &Engine::stripRestoreFirmwareTargetMapDotTxt},
        {"stripRestoreFirmwarePlatformKeysDotPlist:", &Engine::stripRestoreFirmwarePlatformKeysDotPlist},
        {"stripFWPKs:", &Engine::stripFWPKs},
        {"stripDebugFolder:", &Engine::stripDebugFolder},
        {"stripHomeDiags:", &Engine::stripHomeDiags},
        {"stripSDKs:", &Engine::stripSDKs},
        {"stripBundleImages:", &Engine::stripBundleImages},
        {"stripRestoreTools:", &Engine::stripRestoreTools},
    };
    if constexpr (requires { &Engine::buildFilelistFromBuildManifest; }) {
        table.insert({
            {"buildFilelistFromBuildManifest:", &Engine::buildFilelistFromBuildManifest},
            {"updateFilelistForUnpersonalizedInstall:", &Engine::updateFilelistForUnpersonalizedInstall},
            {"stripBuildManifest:", &Engine::stripBuildManifest},
            {"stripRestorePlist:", &Engine::stripRestorePlist},
            {"stripFactoryDiskImage:", &Engine::stripFactoryDiskImage},
        });
    }
    if constexpr (requires { &Engine::stripRestoreUsingTessera; }) {
        table.insert({
            {"stripRestoreUsingTessera:", &Engine::stripRestoreUsingTessera},
            {"stripRestorePlistUsingTessera:", &Engine::stripRestorePlistUsingTessera},
            {"stripRestoreWithoutTessera:", &Engine::stripRestoreWithoutTessera},
            {"stripBuildManifestWithoutTessera:", &Engine::stripBuildManifestWithoutTessera},
            {"mergeStrippedManifests:", &Engine::mergeStrippedManifests},
            {"mergeModifiedFiles:", &Engine::mergeModifiedFiles},
            {"stripUnencryptedImages:", &Engine::stripUnencryptedImages},
            {"stripBogusRestoreImagesInRootDirectory:", &Engine::stripBogusRestoreImagesInRootDirectory},
        });
    }
    return table;
}

template <typename Engine>
class StripEngine : public Stripper {
public:
    // The operation a work item's "workSelector" names, or nullptr.
    using WorkOperation = int (Engine::*)(const Value&);
    static WorkOperation operationNamed(std::string_view selector) {
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

    int performWork(const Value&) { return runWorkList(engine(), engine().workList()); }

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
    int leaveCookie(const Value&) {
        if (boolForKey(engine().stripOptions(), "noCookie")) return 0;
        Log("+++ Oreo's left.  No milk.");
        engine().recordModifiedFile("WhittleCookie.plist",
                                    makeCookie(std::string(engine().bundleRoot().text()), engine().stripOptions()));
        return 0;
    }

    int stripDebugFolder(const Value&) { return engine().keepOptionalFolder(kDebugFolder); }
    int stripBundleImages(const Value&) { return engine().keepOptionalFolder(kBundleImagesFolder); }
    int stripHomeDiags(const Value&) { return engine().keepOptionalLinkedImage(kHomeDiagnosticsImage); }
    int stripSDKs(const Value&) { return engine().keepOptionalLinkedImage(kSDKImage); }

protected:
    // When no "RestoreTools.dmg" link names the restore tools image: the guess the root's
    // unlinked disk images allow, recorded the engine's way, with its warning.
    int fallBackOnRootImages(const std::vector<std::string>& rootNames, const LinkReader& linkTarget) {
        RestoreToolsGuess guess = guessRestoreTools(unlinkedImages(rootDiskImages(rootNames), linkTarget));
        if (guess.outcome == RestoreToolsGuess::Outcome::AlreadyInPlace) return 0;
        if (guess.outcome == RestoreToolsGuess::Outcome::SingleImage) {
            engine().recordModifiedFile(kRestoreTools, Value::data(guess.keptImages.front()));
        }
        engine().keepPaths(guess.keptImages);
        Log("%@", guess.warning);
        return 0;
    }

    // Runs the steps the selectors name, in order, each on its own copy of the item; the
    // first non-zero result ends the run and is answered.
    int runSteps(std::span<const char* const> selectors, const Value& item) {
        int result = 0;
        for (const char* selector : selectors) {
            Value copy = Value::dictionary(*item.asDictionary());
            result = (engine().*operationNamed(selector))(copy);
            if (result != 0) return result;
        }
        return result;
    }

private:
    Engine& engine() { return static_cast<Engine&>(*this); }
};

}  // namespace whittle
