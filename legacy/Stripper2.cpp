#include "legacy/Stripper2.hpp"

#include <map>
#include <set>

#include "engine/BundleListing.hpp"
#include "engine/BundlePaths.hpp"
#include "engine/RequestRules.hpp"
#include "engine/WorkItems.hpp"
#include "engine/WorkList.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/Paths.hpp"
#include "support/PlistCodec.hpp"

namespace whittle {

Stripper2::Stripper2(std::shared_ptr<const BundleFiles> files, const Value& products, const Value& factoryVariants,
                     const Value& options)
    : StripEngine(std::move(files), products, factoryVariants, options) {
    // The only listing of the bundle: every later membership test is made against it.
    files_->listDeep("", originalManifest_);
    originalPaths_.insert(originalManifest_.begin(), originalManifest_.end());
}

const Catalogue& Stripper2::catalogue() { return Catalogue::builtIn(); }

int Stripper2::strip() {
    if (int result = preanalyzeRequest()) return result;
    return performWork();
}

bool Stripper2::checkPersonalized() const { return option("checkPersonalized"); }

void Stripper2::keepPaths(const std::vector<std::string>& paths) {
    strippedManifestsList_.append(Value::stringArray(paths));
}

// ---- valid products and variants ----

Value Stripper2::validProducts() {
    Value manifest = mutableDictionaryAtSubpath(kBuildManifest);
    if (manifest.isNone()) {
        Log("XXX ERROR: BuildManifest.plist cannot be read.");
        return Value::array();
    }
    // The manifest's device classes are gathered once per catalogue variant; only an
    // empty variant catalogue would make a difference, so one pass stands for them all.
    if (catalogue().factoryVariants().count() == 0) return Value::array();
    std::set<std::string> products;
    for (const auto& identity : manifest.get("BuildIdentities").elements()) {
        Value deviceClass = identity.get("Info").get("DeviceClass");
        if (deviceClass.isString()) products.insert(productOfDeviceClass(std::string(deviceClass.text())));
    }
    return sortedNames(products);
}

Value Stripper2::validFactoryVariants() {
    Value manifest = mutableDictionaryAtSubpath(kBuildManifest);
    if (manifest.isNone()) {
        Log("XXX ERROR: BuildManifest.plist cannot be read.");
        return Value::array();
    }
    std::vector<DeviceClassNames> requestedClasses;
    for (const auto& product : stripInfo_.get("products").elements()) {
        requestedClasses.push_back(deviceClassesOf(product.description(), stripOptions_));
    }
    std::set<std::string> valid;
    for (const auto& variant : knownFactoryVariants()) {
        Value personalization = catalogue().factoryVariantValue(variant + ".PersonalizationVariants");
        if (!personalization.isString()) continue;
        for (const auto& identity : manifest.get("BuildIdentities").elements()) {
            if (infoText(identity, "Variant") != personalization.text()) continue;
            std::string deviceClass = infoText(identity, "DeviceClass");
            for (const auto& classes : requestedClasses) {
                if (classes.includes(deviceClass)) valid.insert(variant);
            }
        }
    }
    return sortedNames(valid);
}

// ---- request analysis ----

Value Stripper2::factoryVariantsForDeviceClasses(const Value& deviceClasses, const Value& buildManifest) const {
    Value variants = Value::array();
    auto known = knownFactoryVariants();
    for (const auto& identity : buildManifest.get("BuildIdentities").elements()) {
        Value deviceClass = identity.get("Info").get("DeviceClass");
        Value personalization = identity.get("Info").get("Variant");
        if (!deviceClass.isString() || !holdsString(deviceClasses, deviceClass.text())) continue;
        // One entry per matching identity: the duplicates this makes are absorbed by
        // the merge steps.
        for (const auto& name : known) {
            if (catalogue().factoryVariantValue(name + ".PersonalizationVariants").equals(personalization)) {
                variants.append(Value::string(name));
            }
        }
    }
    return variants;
}

int Stripper2::preanalyzeRequest() {
    const Catalogue& table = catalogue();
    Value products = stripInfo_.get("products");
    Value variants = stripInfo_.get("FactoryVariants");
    Value deviceClassSet = Value::setOf();
    Value productSet = Value::setOf();
    Value personalizationSet = Value::setOf();
    workList_ = Value::array();

    Value buildManifest = mutableDictionaryAtSubpath(kBuildManifest);
    Value restorePlist = mutableDictionaryAtSubpath(kRestorePlist);
    if (checkPersonalized() && buildManifest.isNone()) {
        Log("XXX ERROR: BuildManifest.plist cannot be read.");
        return 1;
    }
    if (checkUnpersonalized() && restorePlist.isNone()) {
        Log("XXX ERROR: Restore.plist cannot be read.");
        return 1;
    }
    if (products.count() == 0) products = Value::stringArray(knownProducts());

    for (const auto& product : products.elements()) {
        std::string name = product.description();
        DeviceClassNames classes = deviceClassesOf(name, stripOptions_);
        std::string production = lowercased(classes.production);
        std::string development = lowercased(classes.development);
        Value classList = Value::stringArray({production, development});
        for (const auto& deviceClass : {production, development}) {
            if (deviceClass.empty()) continue;
            Value variantList =
                variants.count() > 0 ? variants : factoryVariantsForDeviceClasses(classList, buildManifest);
            for (const auto& variantValue : variantList.elements()) {
                std::string variant = variantValue.description();
                if (variant.empty()) continue;
                deviceClassSet.addToSet(Value::string(deviceClass));
                productSet.addToSet(product);

                Value base = Value::dictionary();
                base.set("workVariant", variantValue);
                base.set("workProduct", product);
                base.set("workDeviceClass", Value::string(deviceClass));
                setIfPresent(base, "workModelList", asList(table.productValue(name + ".model")));
                setIfPresent(base, "workProcessorID", table.productValue(name + ".processor"));
                setIfPresent(base, "workKernelCachesList", asList(table.factoryVariantValue(variant + ".KernelCaches")));
                setIfPresent(base, "workFirmwareTypesList", asList(table.factoryVariantValue(variant + ".FirmwareTypes")));
                setIfPresent(base, "workSystemImageType", table.factoryVariantValue(variant + ".SystemImageTypes"));

                if (checkPersonalized()) {
                    workList_.append(copyWith(base, {
                        {"workSelector", Value::string("stripRestoreUsingTessera:")},
                        {"workName", Value::string(format("Strip Restore and BuildManifest.plist for %@ %@.", deviceClass, variant))},
                    }));
                    workList_.append(copyWith(base, {
                        {"workSelector", Value::string("stripRestorePlistUsingTessera:")},
                        {"workName", Value::string(format("Strip Restore.plist using BuildManifest.plist for %@ %@.", deviceClass, variant))},
                    }));
                }
                if (checkUnpersonalized()) {
                    Value restoreItem = copyWith(base, {
                        {"workSelector", Value::string("stripRestoreWithoutTessera:")},
                        {"workName", Value::string(format("Strip Restore and Restore.plist for %@ %@.", deviceClass, variant))},
                    });
                    setIfPresent(restoreItem, "workDFUTypesList", asList(table.factoryVariantValue(variant + ".DFUTypes")));
                    workList_.append(restoreItem);
                    workList_.append(copyWith(base, {
                        {"workSelector", Value::string("stripBuildManifestWithoutTessera:")},
                        {"workName", Value::string(format("Strip BuildManifest.plist using Restore.plist for %@ %@.", deviceClass, variant))},
                    }));
                }
                Value personalization = table.factoryVariantValue(variant + ".PersonalizationVariants");
                if (!personalization.isNone()) personalizationSet.addToSet(personalization);
            }
        }
    }

    Value closing = Value::dictionary();
    closing.set("workDeviceClassList", Value::array(*deviceClassSet.asSetMembers()));
    closing.set("workProductList", Value::array(*productSet.asSetMembers()));
    closing.set("workPersonalizationVariantList", Value::array(*personalizationSet.asSetMembers()));
    // The cookie comes after the modified-files merge, so it never reaches the result.
    static const ClosingStep closingSteps[] = {
        kSupportFilesStep,
        {"Merging stripped manifests", "mergeStrippedManifests:"},
        {"Merging modified files", "mergeModifiedFiles:"},
    };
    appendClosingSteps(workList_, closing, closingSteps);
    logWorkList(workList_);
    return 0;
}

// ---- utilities ----

void Stripper2::recordModifiedFile(const std::string& path, const Value& content) {
    Value files = Value::dictionary();
    files.set(path, content);
    modifiedFilesList_.append(files);
}

Value Stripper2::mutableDictionaryAtSubpath(const std::string& path) const {
    if (!files_->exists(path)) {
        if (verbose()) Log("!!! NOTE: \"%@\" not found.", path);
        return {};
    }
    auto bytes = files_->readFile(path);
    if (!bytes) {
        if (verbose()) Log("!!! NOTE: cannot read \"%@\".", path);
        return {};
    }
    Value parsed = parsePropertyList(*bytes);
    if (!parsed.isDictionary()) {
        if (verbose()) {
            Log("!!! NOTE: cannot unserialize \"%@\" - %@.", path,
                parsed.isNone() ? "not a property list" : "the property list is not a dictionary");
        }
        return {};
    }
    return parsed;
}

int Stripper2::addSubpathToKeepList(const std::string& path, std::vector<std::string>& keepList) const {
    if (!bundleLists(path)) return 1;
    if (path.empty()) return 0;
    std::string current = path;
    while (!current.empty()) {
        keepList.push_back(current);
        std::string parent = deletingLastPathComponent(current);
        if (parent == current) break;
        current = std::move(parent);
    }
    return 0;
}

std::vector<std::string> Stripper2::submanifestStartingAt(const std::string& path) const {
    return submanifestStartingAt(path, true);
}

std::vector<std::string> Stripper2::submanifestStartingAt(const std::string& path, bool deep) const {
    if (!bundleLists(path)) return {};
    std::vector<std::string> paths{path};
    std::string prefix = path + "/";
    for (const auto& entry : originalManifest_) {
        if (!entry.starts_with(prefix)) continue;
        if (deep || entry.find('/', prefix.size()) == std::string::npos) paths.push_back(entry);
    }
    return paths;
}

}  // namespace whittle
