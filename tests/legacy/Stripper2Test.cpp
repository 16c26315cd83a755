// The legacy engine's interface, request analysis, work list and path utilities.
#include <algorithm>

#include "LegacyTestSupport.hpp"
#include "driver/StripperClasses.hpp"
#include "engine/Stripper3.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class Stripper2Analysis : public LegacyTest {
protected:
    // The selectors of the work list, in order.
    static std::vector<std::string> selectors(Stripper2& stripper) {
        std::vector<std::string> out;
        for (const auto& item : stripper.workList().elements()) out.emplace_back(item.get("workSelector").text());
        return out;
    }

    static const std::vector<std::string>& closingSelectors() {
        static const std::vector<std::string> closing{"stripCommonWork:", "mergeStrippedManifests:", "mergeModifiedFiles:",
                                                      "stripInvisibles:", "leaveCookie:"};
        return closing;
    }

    static std::vector<std::string> plusClosing(std::vector<std::string> items) {
        items.insert(items.end(), closingSelectors().begin(), closingSelectors().end());
        return items;
    }

    int analyze(Stripper2& stripper) {
        int result = -1;
        loggedDuring([&] { result = stripper.preanalyzeRequest(); });
        return result;
    }
};

}  // namespace

// ---- interface ----

TEST_F(Stripper2Analysis, TheDriverMakesTheLegacyEngineByName) {
    const StripperClass* legacy = stripperClassNamed("Stripper2");
    ASSERT_NE(legacy, nullptr);
    auto stripper = legacy->stripperForPath(root(), Value(), Value(), Value::dictionary());
    ASSERT_NE(stripper, nullptr);
    EXPECT_NE(dynamic_cast<Stripper2*>(stripper.get()), nullptr);
    EXPECT_EQ(stripper->bundleRoot().text(), root());
}

TEST_F(Stripper2Analysis, ItsOwnCatalogueHoldsTheSameRowsSortedWithoutRegardToCase) {
    EXPECT_EQ(Stripper2::knownProducts(), Stripper3::knownProducts());
    EXPECT_EQ(Stripper2::knownFactoryVariants(), Stripper3::knownFactoryVariants());
    EXPECT_EQ(Stripper2::knownProducts().size(), 36u);
    EXPECT_TRUE(Stripper2::catalogue().productValue("x10.model").equals(Value::string("Handset1,1")));
    EXPECT_TRUE(Stripper2::catalogue().factoryVariantValue("support.FirmwareTypes").isNone());
}

TEST_F(Stripper2Analysis, StripInfoSpellsItsKeysTheLegacyWay) {
    auto withLists = engine({"x10"}, {"repair"});
    EXPECT_EQ(withLists->stripInfo().get("bundleRoot").text(), root());
    EXPECT_EQ(texts(withLists->stripInfo().get("products")), std::vector<std::string>{"x10"});
    EXPECT_EQ(texts(withLists->stripInfo().get("FactoryVariants")), std::vector<std::string>{"repair"});
    auto without = engine();
    EXPECT_EQ(without->stripInfo().count(), 1u);
    Stripper2 withEmptyLists(std::make_shared<FolderBundleFiles>(root()), Value::array(), Value::array(), Value::dictionary());
    EXPECT_EQ(withEmptyLists.stripInfo().get("products").count(), 0u);
    EXPECT_TRUE(withEmptyLists.stripInfo().get("products").isArray());
}

TEST_F(Stripper2Analysis, OptionsAreCopiedAtConstruction) {
    Value caller = options({"keepDebug"});
    Stripper2 stripper(std::make_shared<FolderBundleFiles>(root()), Value(), Value(), caller);
    caller.set("keepDebug", Value::boolean(false));
    caller.set("noCookie", Value::boolean(true));
    EXPECT_TRUE(stripper.stripOptions().get("keepDebug").numberValue() != 0);
    EXPECT_TRUE(stripper.stripOptions().get("noCookie").isNone());
}

TEST_F(Stripper2Analysis, TheBundleIsListedOnceAtConstruction) {
    file("Restore/Firmware/x.bin");
    file("a.txt");
    auto stripper = engine();
    file("later.txt");
    auto listed = stripper->originalManifest();
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, (std::vector<std::string>{"Restore", "Restore/Firmware", "Restore/Firmware/x.bin", "a.txt"}));
}

TEST_F(Stripper2Analysis, ResultsAreUnsetUntilTheMergesRun) {
    auto stripper = engine();
    EXPECT_TRUE(stripper->strippedManifest().isNone());
    EXPECT_TRUE(stripper->modifiedFiles().isNone());
    EXPECT_TRUE(stripper->workList().isNone());
}

TEST_F(Stripper2Analysis, StrategySwitchesFollowTheirOptions) {
    EXPECT_FALSE(engine()->checkPersonalized());
    EXPECT_FALSE(engine()->checkUnpersonalized());
    EXPECT_TRUE(engine({}, {}, options({"checkPersonalized"}))->checkPersonalized());
    EXPECT_TRUE(engine({}, {}, options({"checkUnpersonalized"}))->checkUnpersonalized());
    EXPECT_TRUE(engine({}, {}, options({"useRestorePlistInsteadOfBuildManifest"}))->checkUnpersonalized());
}

// ---- request analysis ----

TEST_F(Stripper2Analysis, NoProductsRequestedCoversEveryCatalogueProduct) {
    generate({"x10"}, {"repair"});
    // Without variants only the products whose device classes the manifest has get items.
    auto stripper = engine({}, {}, options({"checkPersonalized"}));
    ASSERT_EQ(analyze(*stripper), 0);
    EXPECT_EQ(selectors(*stripper), plusClosing({"stripRestoreUsingTessera:", "stripRestorePlistUsingTessera:"}));
    EXPECT_EQ(stripper->workList().at(0).get("workDeviceClass").text(), "x10ap");

    // With a variant every catalogue product gets its items.
    auto withVariant = engine({}, {"repair"}, options({"checkPersonalized"}));
    ASSERT_EQ(analyze(*withVariant), 0);
    EXPECT_EQ(withVariant->workList().count(), 36u * 2 + 5);
    EXPECT_EQ(withVariant->workList().at(withVariant->workList().count() - 1).get("workProductList").count(), 36u);
}

TEST_F(Stripper2Analysis, StrippingApFirmwareWithoutDevFirmwareLeavesOnlyTheClosingItems) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"}, options({"checkPersonalized", "stripAPFirmware"}));
    ASSERT_EQ(analyze(*stripper), 0);
    EXPECT_EQ(selectors(*stripper), closingSelectors());
    EXPECT_EQ(stripper->workList().at(0).get("workDeviceClassList").count(), 0u);
}

TEST_F(Stripper2Analysis, WithoutAStrategyTheClosingItemsRunAloneAndNothingIsNeeded) {
    // An empty bundle: neither manifest is there.
    auto stripper = engine({"x10"}, {"repair"});
    int result = -1;
    loggedDuring([&] { result = stripper->strip(); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(selectors(*stripper), closingSelectors());
    EXPECT_TRUE(stripper->strippedManifest().isArray());
    EXPECT_TRUE(stripper->modifiedFiles().isDictionary());
}

TEST_F(Stripper2Analysis, TheUnpersonalizedStrategyAloneByEitherOption) {
    generate({"x10"}, {"repair"});
    for (const char* key : {"checkUnpersonalized", "useRestorePlistInsteadOfBuildManifest"}) {
        auto stripper = engine({"x10"}, {"repair"}, options({key}));
        ASSERT_EQ(analyze(*stripper), 0) << key;
        EXPECT_EQ(selectors(*stripper), plusClosing({"stripRestoreWithoutTessera:", "stripBuildManifestWithoutTessera:"}))
            << key;
    }
}

TEST_F(Stripper2Analysis, BothStrategiesGiveFourItemsPerClassAndVariantInOrder) {
    generate({"x10"}, {"repair", "ss"});
    auto stripper = engine({"x10"}, {"repair", "ss"}, options({"checkPersonalized", "checkUnpersonalized"}));
    ASSERT_EQ(analyze(*stripper), 0);
    std::vector<std::string> perVariant{"stripRestoreUsingTessera:", "stripRestorePlistUsingTessera:",
                                        "stripRestoreWithoutTessera:", "stripBuildManifestWithoutTessera:"};
    std::vector<std::string> expected = perVariant;
    expected.insert(expected.end(), perVariant.begin(), perVariant.end());
    EXPECT_EQ(selectors(*stripper), plusClosing(expected));
    std::vector<std::string> names;
    for (const auto& item : stripper->workList().elements()) names.emplace_back(item.get("workName").text());
    EXPECT_EQ(names[0], "Strip Restore and BuildManifest.plist for x10ap repair.");
    EXPECT_EQ(names[1], "Strip Restore.plist using BuildManifest.plist for x10ap repair.");
    EXPECT_EQ(names[2], "Strip Restore and Restore.plist for x10ap repair.");
    EXPECT_EQ(names[3], "Strip BuildManifest.plist using Restore.plist for x10ap repair.");
    EXPECT_EQ(names[4], "Strip Restore and BuildManifest.plist for x10ap ss.");
    std::vector<std::string> closingNames(names.end() - 5, names.end());
    EXPECT_EQ(closingNames, (std::vector<std::string>{"Strip support files", "Merging stripped manifests",
                                                      "Merging modified files", "Strip invisibles",
                                                      "Leaving cookie for Santa"}));
}

TEST_F(Stripper2Analysis, PerVariantItemsCarryTheCatalogueValues) {
    generate({"x20"}, {"support"});
    auto stripper = engine({"x20"}, {"support"}, options({"checkPersonalized", "checkUnpersonalized"}));
    ASSERT_EQ(analyze(*stripper), 0);
    Value first = stripper->workList().at(0);
    EXPECT_EQ(first.get("workVariant").text(), "support");
    EXPECT_EQ(first.get("workProduct").text(), "x20");
    EXPECT_EQ(texts(first.get("workModelList")), (std::vector<std::string>{"Bench2,1", "Settop2,1"}));
    EXPECT_EQ(first.get("workProcessorID").text(), "soc200x");
    EXPECT_EQ(texts(first.get("workKernelCachesList")), std::vector<std::string>{"Development"});
    EXPECT_TRUE(first.get("workFirmwareTypesList").isNone());  // "support" has none
    EXPECT_TRUE(first.get("workSystemImageType").isString());
    EXPECT_TRUE(first.get("workDFUTypesList").isNone());
    // Only the Restore.plist strategy's first item carries the boot-loader kinds.
    EXPECT_EQ(texts(stripper->workList().at(2).get("workDFUTypesList")), std::vector<std::string>{"DEVELOPMENT"});
    EXPECT_TRUE(stripper->workList().at(3).get("workDFUTypesList").isNone());
    Value closing = stripper->workList().at(4);
    EXPECT_EQ(texts(closing.get("workDeviceClassList")), std::vector<std::string>{"x20ap"});
    EXPECT_EQ(texts(closing.get("workProductList")), std::vector<std::string>{"x20"});
    EXPECT_EQ(texts(closing.get("workPersonalizationVariantList")), std::vector<std::string>{"Factory - Support"});
}

TEST_F(Stripper2Analysis, ASingleCatalogueStringBecomesAOneElementList) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"}, options({"checkPersonalized"}));
    ASSERT_EQ(analyze(*stripper), 0);
    EXPECT_EQ(texts(stripper->workList().at(0).get("workModelList")), std::vector<std::string>{"Handset1,1"});
}

TEST_F(Stripper2Analysis, EveryWorkItemIsItsOwnDictionary) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"}, options({"checkPersonalized"}));
    ASSERT_EQ(analyze(*stripper), 0);
    Value first = stripper->workList().at(0);
    first.set("workSelector", Value::string("changed"));
    EXPECT_EQ(stripper->workList().at(1).get("workSelector").text(), "stripRestorePlistUsingTessera:");
}

TEST_F(Stripper2Analysis, TwoIdentitiesOfOneVariantGiveItsItemsTwice) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {"repair"}, 2, true}};
    generate(plan);
    auto stripper = engine({"x10"}, {}, options({"checkPersonalized"}));
    ASSERT_EQ(analyze(*stripper), 0);
    EXPECT_EQ(selectors(*stripper), plusClosing({"stripRestoreUsingTessera:", "stripRestorePlistUsingTessera:",
                                                 "stripRestoreUsingTessera:", "stripRestorePlistUsingTessera:"}));
    // The merges absorb the duplicates.
    int result = -1;
    loggedDuring([&] { result = stripper->performWork(); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(stripper->modifiedFiles().get("Restore/BuildManifest.plist").get("BuildIdentities").count(), 2u);
}

TEST_F(Stripper2Analysis, VariantDiscoveryListsAVariantOncePerMatchingIdentity) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, true, {"ss"}, 1, true}};
    generate(plan);
    auto stripper = engine();
    Value manifest = stripper->mutableDictionaryAtSubpath("Restore/BuildManifest.plist");
    Value variants = stripper->factoryVariantsForDeviceClasses(strings({"x10ap", "x10dev"}), manifest);
    EXPECT_EQ(texts(variants), (std::vector<std::string>{"cti", "ss", "cti", "ss"}));
    EXPECT_EQ(stripper->factoryVariantsForDeviceClasses(strings({"X10AP"}), manifest).count(), 0u);
    EXPECT_EQ(stripper->factoryVariantsForDeviceClasses(strings({"x10ap"}), Value()).count(), 0u);
}

TEST_F(Stripper2Analysis, AMissingManifestFailsOnlyTheStrategyThatNeedsIt) {
    file("Restore/Restore.plist", xmlPropertyList(Value::dictionary()));
    auto personalized = engine({"x10"}, {"repair"}, options({"checkPersonalized"}));
    int result = -1;
    std::string log = loggedDuring([&] { result = personalized->strip(); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(log, "XXX ERROR: BuildManifest.plist cannot be read.\n");
    EXPECT_TRUE(personalized->workList().count() == 0);

    std::filesystem::remove(at("Restore/Restore.plist"));
    writePlist("Restore/BuildManifest.plist", dict({{"BuildIdentities", Value::array()}}));
    auto unpersonalized = engine({"x10"}, {"repair"}, options({"checkUnpersonalized"}));
    log = loggedDuring([&] { result = unpersonalized->strip(); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(log, "XXX ERROR: Restore.plist cannot be read.\n");
}

TEST_F(Stripper2Analysis, TheWorkListIsAnnounced) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"}, options({"checkPersonalized"}));
    std::string log = loggedDuring([&] { stripper->preanalyzeRequest(); });
    EXPECT_EQ(log, ">>> Work List\n");
}

// ---- the work runner ----

TEST_F(Stripper2Analysis, BannersNumberTheItemsAndAFailingItemStopsTheRun) {
    Value list = Value::array();
    for (int i = 0; i < 11; ++i) {
        list.append(dict({{"workName", Value::string("Merging stripped manifests")},
                          {"workSelector", Value::string(i == 9 ? "stripRestoreTools:" : "mergeStrippedManifests:")}}));
    }
    link("RestoreTools.dmg", "missing.dmg");
    auto stripper = engine();
    stripper->setWorkList(list);
    int result = -1;
    std::string log = loggedDuring([&] { result = stripper->performWork(); });
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(contains(log, ">>> ==========  3/11 Merging stripped manifests ==========\n")) << log;
    EXPECT_TRUE(contains(log, ">>> ==========  9/11 Merging stripped manifests ==========\n"));
    EXPECT_TRUE(contains(log, ">>> ========== 10/11 Merging stripped manifests ==========\n"));
    EXPECT_FALSE(contains(log, "11/11"));
}

TEST_F(Stripper2Analysis, AnUnknownOperationStopsTheRun) {
    auto stripper = engine();
    stripper->setWorkList(Value::array({dict({{"workName", Value::string("odd")}, {"workSelector", Value::string("nothing:")}})}));
    int result = -1;
    std::string log = loggedDuring([&] { result = stripper->performWork(); });
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(contains(log, "XXX ERROR: no operation nothing:.\n"));
    stripper->setWorkList(Value::array());
    EXPECT_EQ(stripper->performWork(), 0);
}

// ---- valid products and variants ----

TEST_F(Stripper2Analysis, ValidProductsAreTheManifestsDeviceClassesWithoutTheirEndings) {
    Value identities = Value::array();
    for (const char* deviceClass : {"x10ap", "x10dev", "zz9ap", "X30AP", "board"}) {
        identities.append(dict({{"Info", dict({{"DeviceClass", Value::string(deviceClass)}, {"Variant", Value::string("v")}})}}));
    }
    identities.append(dict({{"Info", dict({{"DeviceClass", Value::integer(4)}})}}));
    writePlist("Restore/BuildManifest.plist", dict({{"BuildIdentities", identities}}));
    Value products = engine()->validProducts();
    auto names = texts(products);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"X30", "board", "x10", "zz9"}));
}

TEST_F(Stripper2Analysis, ValidProductsAndVariantsWithoutAManifest) {
    auto stripper = engine({"x10"});
    Value products, variants;
    std::string log = loggedDuring([&] {
        products = stripper->validProducts();
        variants = stripper->validFactoryVariants();
    });
    EXPECT_EQ(log, "XXX ERROR: BuildManifest.plist cannot be read.\nXXX ERROR: BuildManifest.plist cannot be read.\n");
    EXPECT_TRUE(products.isArray());
    EXPECT_EQ(products.count(), 0u);
    EXPECT_TRUE(variants.isArray());
    EXPECT_EQ(variants.count(), 0u);
}

TEST_F(Stripper2Analysis, ValidVariantsNeedARequestedProduct) {
    generate({"x10"}, {"repair", "ss"});
    EXPECT_EQ(engine()->validFactoryVariants().count(), 0u);
    EXPECT_EQ(texts(engine({"x10"})->validFactoryVariants()), (std::vector<std::string>{"cti", "repair", "ss"}));
    EXPECT_EQ(texts(engine({"X10"})->validFactoryVariants()), (std::vector<std::string>{"cti", "repair", "ss"}));
    EXPECT_EQ(engine({"x10"}, {}, options({"stripAPFirmware"}))->validFactoryVariants().count(), 0u);
}

TEST_F(Stripper2Analysis, ValidVariantsOfDevelopmentClasses) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", false, true, {"dfu"}, 1, true}};
    generate(plan);
    EXPECT_EQ(engine({"x10"})->validFactoryVariants().count(), 0u);
    EXPECT_EQ(texts(engine({"x10"}, {}, options({"keepDevFirmware"}))->validFactoryVariants()),
              std::vector<std::string>{"dfu"});
}

// ---- utilities ----

TEST_F(Stripper2Analysis, KeepingAPathKeepsItsParentsInOrder) {
    file("Restore/Firmware/x.bin");
    auto stripper = engine();
    std::vector<std::string> keep;
    EXPECT_EQ(stripper->addSubpathToKeepList("Restore/Firmware/x.bin", keep), 0);
    EXPECT_EQ(keep, (std::vector<std::string>{"Restore/Firmware/x.bin", "Restore/Firmware", "Restore"}));
    EXPECT_EQ(stripper->addSubpathToKeepList("Restore/Firmware/y.bin", keep), 1);
    EXPECT_EQ(stripper->addSubpathToKeepList("", keep), 1);
    EXPECT_EQ(stripper->addSubpathToKeepList("Restore/../Restore", keep), 1);
    EXPECT_EQ(keep.size(), 3u);
    // Duplicates are not avoided; the merge removes them.
    EXPECT_EQ(stripper->addSubpathToKeepList("Restore", keep), 0);
    EXPECT_EQ(keep.size(), 4u);
}

TEST_F(Stripper2Analysis, SubmanifestsStartWithThePathItself) {
    file("Debug/a.txt");
    file("Debug/sub/b.txt");
    file("Debugger/c.txt");
    auto stripper = engine();
    EXPECT_EQ(stripper->submanifestStartingAt("Debug"),
              (std::vector<std::string>{"Debug", "Debug/a.txt", "Debug/sub", "Debug/sub/b.txt"}));
    EXPECT_EQ(stripper->submanifestStartingAt("Debug", false), (std::vector<std::string>{"Debug", "Debug/a.txt", "Debug/sub"}));
    EXPECT_EQ(stripper->submanifestStartingAt("Debug/a.txt"), std::vector<std::string>{"Debug/a.txt"});
    EXPECT_TRUE(stripper->submanifestStartingAt("Nothing").empty());
    EXPECT_TRUE(stripper->submanifestStartingAt("Nothing", false).empty());
}

TEST_F(Stripper2Analysis, LinkedFoldersAreListedButNotEntered) {
    TempDir outside;
    writeFile(outside / "private.txt", "private");
    link("Linked", outside.path());
    auto stripper = engine();
    EXPECT_EQ(stripper->originalManifest(), std::vector<std::string>{"Linked"});
}

TEST_F(Stripper2Analysis, PropertyListsAreReadAfreshAndExplainedInVerboseModeOnly) {
    writePlist("Restore/Restore.plist", dict({{"A", Value::string("a")}}));
    file("Restore/broken.plist", "not a property list");
    writePlist("Restore/array.plist", Value::array({Value::string("a")}));
    auto stripper = engine();
    Value first = stripper->mutableDictionaryAtSubpath("Restore/Restore.plist");
    first.set("A", Value::string("changed"));
    EXPECT_EQ(stripper->mutableDictionaryAtSubpath("Restore/Restore.plist").get("A").text(), "a");

    std::string quiet = loggedDuring([&] {
        EXPECT_TRUE(stripper->mutableDictionaryAtSubpath("missing.plist").isNone());
        EXPECT_TRUE(stripper->mutableDictionaryAtSubpath("Restore/broken.plist").isNone());
    });
    EXPECT_EQ(quiet, "");
    stripper->setVerbose(true);
    std::string chatty = loggedDuring([&] {
        EXPECT_TRUE(stripper->mutableDictionaryAtSubpath("missing.plist").isNone());
        EXPECT_TRUE(stripper->mutableDictionaryAtSubpath("Restore/broken.plist").isNone());
        EXPECT_TRUE(stripper->mutableDictionaryAtSubpath("Restore").isNone());
        EXPECT_TRUE(stripper->mutableDictionaryAtSubpath("Restore/array.plist").isNone());
    });
    EXPECT_EQ(chatty,
              "!!! NOTE: \"missing.plist\" not found.\n"
              "!!! NOTE: cannot unserialize \"Restore/broken.plist\" - not a property list.\n"
              "!!! NOTE: cannot read \"Restore\".\n"
              "!!! NOTE: cannot unserialize \"Restore/array.plist\" - the property list is not a dictionary.\n");
}

// ---- the cookie ----

TEST_F(Stripper2Analysis, TheCookieIsLeftWhereNoMergePicksItUp) {
    generate({"x10"}, {"repair"});
    Value withVersion = options({"checkPersonalized"});
    withVersion.set("toolVersion", Value::real(2.5));
    auto stripper = engine({"x10"}, {"repair"}, withVersion);
    int result = -1;
    std::string log = loggedDuring([&] { result = stripper->strip(); });
    ASSERT_EQ(result, 0) << log;
    EXPECT_TRUE(log.ends_with("+++ Oreo's left.  No milk.\n")) << log;
    EXPECT_TRUE(stripper->modifiedFiles().get("WhittleCookie.plist").isNone());
    Value cookie = lastModified(*stripper).get("WhittleCookie.plist");
    EXPECT_EQ(cookie.get("source").text(), root());
    EXPECT_EQ(cookie.get("version").text(), "2.500000");
}

TEST_F(Stripper2Analysis, NoCookieLeavesNothingAndSaysNothing) {
    auto stripper = engine({}, {}, options({"noCookie"}));
    std::size_t before = stripper->modifiedFilesList().count();
    std::string log = loggedDuring([&] { EXPECT_EQ(stripper->leaveCookie(), 0); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(stripper->modifiedFilesList().count(), before);
}
