#include "engine/Stripper3.hpp"

#include <algorithm>
#include <map>

#include "engine/BundlePaths.hpp"
#include "engine/Catalogue.hpp"
#include "support/Paths.hpp"
#include "engine/RequestRules.hpp"
#include "engine/WorkItems.hpp"
#include "engine/WorkList.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {

Stripper3::Stripper3(std::shared_ptr<const BundleFiles> files, const Value& products, const Value& factoryVariants,
                     const Value& options)
    : StripEngine(std::move(files), products, factoryVariants, options),
      buildManifest_(pathInBundle(kBuildManifest), [this] { return files_->readFile(kBuildManifest); }),
      restorePlist_(pathInBundle(kRestorePlist), [this] { return files_->readFile(kRestorePlist); }) {
    manifestObservation_ = buildManifest_.addObserver(
        [this](std::string_view keyPath, const Value& newValue) { observeValueForKeyPath(keyPath, newValue); });
}

Stripper3::~Stripper3() { buildManifest_.removeObserver(manifestObservation_); }

int Stripper3::strip() {
    if (!loadBuildManifest()) return 1;
    if (!restorePlist_.load()) {
        Log("XXX ERROR: Restore.plist cannot be read.");
        return 1;
    }
    if (int result = preanalyzeRequest()) return result;
    return performWork();
}

Value Stripper3::strippedManifest() {
    std::vector<std::string> paths(copiedFilelist_.begin(), copiedFilelist_.end());
    std::sort(paths.begin(), paths.end(),
              [](const std::string& a, const std::string& b) { return compareIgnoringCase(a, b) < 0; });
    return Value::stringArray(paths);
}

bool Stripper3::loadBuildManifest() {
    if (buildManifest_.load()) return true;
    Log("XXX ERROR: BuildManifest.plist cannot be read.");
    return false;
}

std::string Stripper3::pathInBundle(std::string_view bundleRelativePath) const {
    return joinPath(bundleRoot_, bundleRelativePath);
}

Value Stripper3::requestedList(std::string_view key) const {
    Value list = stripInfo_.get(key);
    return list.isArray() ? list : Value::array();
}

Value Stripper3::deviceClassesFor(std::string_view product) const {
    return Value::stringArray(deviceClassesOf(product, stripOptions_).asked());
}

void Stripper3::keepAll(const KeepList& keepList) { copiedFilelist_.insert(keepList.begin(), keepList.end()); }


// ---- request analysis ----

namespace {

// The names of a list that another list lacks, sorted for the message.
std::vector<std::string> namesMissingFrom(const Value& requested, const Value& available) {
    std::set<std::string> missing;
    for (const auto& name : *requested.asArray()) {
        bool found = false;
        for (const auto& offered : *available.asArray()) found = found || offered.equals(name);
        if (!found) missing.insert(name.description());
    }
    return {missing.begin(), missing.end()};
}

void addAllToSet(Value& set, const Value& catalogueValue) {
    Value list = asList(catalogueValue);
    for (const auto& element : list.elements()) set.addToSet(element);
}

Value setAsArray(const Value& set) { return Value::array(*set.asSetMembers()); }

}  // namespace

int Stripper3::preanalyzeRequest() {
    const Catalogue& catalogue = Catalogue::builtIn();
    Value products = requestedList("Products");
    Value variants = requestedList("FactoryVariants");
    Value allProducts = Value::setOf(*products.asArray());
    Value allDeviceClasses = Value::setOf();
    Value allModels = Value::setOf();
    Value allProcessorIDs = Value::setOf();
    Value allPersonalizationVariants = Value::setOf();
    workList_ = Value::array();

    if (products.count() == 0) {
        products = validProducts();
        if (products.isNone()) products = Value::array();
    }
    Value valid = validProducts();
    auto unknownProducts = namesMissingFrom(products, valid.isArray() ? valid : Value::array());
    if (!unknownProducts.empty()) {
        Log("XXX ERROR: products %@ not found.", niceDescriptionOfStrings(unknownProducts));
        return 1;
    }
    Value validVariants = validFactoryVariants();
    auto unknownVariants = namesMissingFrom(variants, validVariants.isArray() ? validVariants : Value::array());
    if (!unknownVariants.empty()) {
        Log("XXX ERROR: variants %@ not found.", niceDescriptionOfStrings(unknownVariants));
        return 1;
    }

    for (const auto& productValue : *products.asArray()) {
        std::string product = productValue.description();
        Value deviceClasses = deviceClassesFor(product);
        if (variants.count() == 0) {
            variants = factoryVariantsForDeviceClasses(deviceClasses);
            if (variants.isNone()) variants = Value::array();
        }
        Value model = catalogue.productValue(product + ".model");
        Value processor = catalogue.productValue(product + ".processor");
        for (const auto& deviceClass : *deviceClasses.asArray()) allDeviceClasses.addToSet(deviceClass);
        if (!model.isNone()) allModels.addToSet(model);
        if (!processor.isNone()) allProcessorIDs.addToSet(processor);

        Value base = Value::dictionary();
        base.set("workProduct", productValue);
        base.set("workDeviceClasses", deviceClasses);
        setIfPresent(base, "workModel", model);
        setIfPresent(base, "workProcessorID", processor);

        Value kernelCaches = Value::setOf(), firmwareTypes = Value::setOf(), dfuTypes = Value::setOf();
        for (const auto& variantValue : *variants.asArray()) {
            std::string variant = variantValue.description();
            workList_.append(copyWith(base, {
                {"workVariant", variantValue},
                {"workSelector", Value::string("buildFilelistFromBuildManifest:")},
                {"workName", Value::string(format("Strip Restore and BuildManifest.plist for %@ %@.", product, variant))},
            }));
            addAllToSet(kernelCaches, catalogue.factoryVariantValue(variant + ".KernelCaches"));
            addAllToSet(firmwareTypes, catalogue.factoryVariantValue(variant + ".FirmwareTypes"));
            addAllToSet(dfuTypes, catalogue.factoryVariantValue(variant + ".DFUTypes"));
            Value personalization = catalogue.factoryVariantValue(variant + ".PersonalizationVariants");
            if (!personalization.isNone()) allPersonalizationVariants.addToSet(personalization);
        }
        if (checkUnpersonalized()) {
            workList_.append(copyWith(base, {
                {"workKernelCachesList", setAsArray(kernelCaches)},
                {"workFirmwareTypesList", setAsArray(firmwareTypes)},
                {"workDFUTypesList", setAsArray(dfuTypes)},
                {"workSelector", Value::string("updateFilelistForUnpersonalizedInstall:")},
                {"workName", Value::string(format("Strip Restore for unpersonalized install for %@.", product))},
            }));
        }
    }

    Value wholeRun = Value::dictionary();
    wholeRun.set("workAllProducts", allProducts);
    wholeRun.set("workAllDeviceClasses", allDeviceClasses);
    wholeRun.set("workAllModels", allModels);
    wholeRun.set("workAllProcessorIDs", allProcessorIDs);
    wholeRun.set("workAllPersonalizationVariants", allPersonalizationVariants);
    static const ClosingStep closingSteps[] = {
        {"Finish stripping BuildManifest.plist", "stripBuildManifest:"},
        {"Cross check and strip Restore.plist", "stripRestorePlist:"},
        kSupportFilesStep,
    };
    appendClosingSteps(workList_, wholeRun, closingSteps);
    logWorkList(workList_);
    return 0;
}

}  // namespace whittle
