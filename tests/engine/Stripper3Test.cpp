// The engine's interface, request analysis and work list.
#include "EngineTestSupport.hpp"
#include "support/Helpers.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class Stripper3Basics : public EngineTest {};

std::vector<std::string> workNames(const Stripper3& stripper) {
    std::vector<std::string> names;
    for (const auto& item : stripper.workList().elements()) names.emplace_back(item.get("workName").text());
    return names;
}

}  // namespace

TEST_F(Stripper3Basics, MissingBuildManifestFailsStripAndListings) {
    auto stripper = engine({"x10"}, {"repair"});
    int result = 0;
    EXPECT_EQ(loggedDuring([&] { result = stripper->strip(); }), "XXX ERROR: BuildManifest.plist cannot be read.\n");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(loggedDuring([&] { EXPECT_TRUE(stripper->validProducts().isNone()); }),
              "XXX ERROR: BuildManifest.plist cannot be read.\n");
    EXPECT_EQ(loggedDuring([&] { EXPECT_TRUE(stripper->validFactoryVariants().isNone()); }),
              "XXX ERROR: BuildManifest.plist cannot be read.\n");
}

TEST_F(Stripper3Basics, MissingRestorePlistFailsBeforeAnyStep) {
    generate({"x10"}, {"repair"});
    std::filesystem::remove(at("Restore/Restore.plist"));
    auto stripper = engine({"x10"}, {"repair"});
    int result = 0;
    EXPECT_EQ(loggedDuring([&] { result = stripper->strip(); }), "XXX ERROR: Restore.plist cannot be read.\n");
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(stripper->copiedFilelist().empty());
    EXPECT_EQ(stripper->modifiedFiles().count(), 0u);
}

TEST_F(Stripper3Basics, BaseClassDoesNothing) {
    Stripper base;
    EXPECT_EQ(base.strip(), 22);
    EXPECT_TRUE(base.validProducts().isNone());
    EXPECT_TRUE(base.validFactoryVariants().isNone());
    EXPECT_TRUE(base.strippedManifest().isNone());
    EXPECT_TRUE(base.modifiedFiles().isNone());
    EXPECT_TRUE(base.bundleRoot().isNone());
    base.setVerbose(true);
    EXPECT_TRUE(base.verbose());
}

TEST_F(Stripper3Basics, CallersOptionsAreCopied) {
    generate({"x10"}, {"repair"});
    Value callerOptions = Value::dictionary();
    auto stripper = engine({"x10"}, {"repair"}, callerOptions);
    callerOptions.set("noCookie", Value::boolean(true));
    EXPECT_TRUE(stripper->stripOptions().get("noCookie").isNone());
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    EXPECT_FALSE(stripper->modifiedFiles().get("WhittleCookie.plist").isNone());
}

TEST_F(Stripper3Basics, ConstructionReadsNothingAndKeepsTheRequest) {
    auto stripper = engine({"x10"}, {});
    EXPECT_FALSE(stripper->buildManifest().loaded());
    EXPECT_EQ(stripper->stripInfo().get("BundleRoot").text(), root());
    EXPECT_TRUE(stripper->stripInfo().get("Products").equals(Value::stringArray({"x10"})));
    EXPECT_TRUE(stripper->stripInfo().get("FactoryVariants").isNone());
    EXPECT_EQ(stripper->bundleRoot().text(), root());
}

TEST_F(Stripper3Basics, StrippedManifestSortsWithoutRegardToCase) {
    generate({"x10"}, {"repair"});
    // With no restore-tools image identifiable, every plain image at the root is kept.
    writeFile(at("a.dmg"), "a");
    writeFile(at("B.dmg"), "b");
    for (const char* name : {"RestoreTools.dmg", "RestoreTools-1.0.dmg", "FactoryDiskImage.dmg"}) {
        std::filesystem::remove(at(name));
    }
    auto stripper = engine({"x10"}, {"repair"}, options({"keepBundleImages"}));
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    auto paths = stripper->strippedManifest();
    std::vector<std::string> names;
    for (const auto& path : paths.elements()) names.emplace_back(path.text());
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end(),
                               [](const std::string& a, const std::string& b) { return compareIgnoringCase(a, b) < 0; }));
    auto a = std::find(names.begin(), names.end(), "a.dmg");
    auto b = std::find(names.begin(), names.end(), "B.dmg");
    EXPECT_LT(a, b);
    EXPECT_NE(b, names.end());
}

TEST_F(Stripper3Basics, ModifiedFilesIsTheLiveDictionary) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"});
    Value before = stripper->modifiedFiles();
    loggedDuring([&] { stripper->strip(); });
    EXPECT_TRUE(before.sameObject(stripper->modifiedFiles()));
    EXPECT_GT(before.count(), 0u);
}

// ---- request analysis ----

TEST_F(Stripper3Basics, NoProductOrVariantMeansEveryValidProductAndTheFirstOnesVariants) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {"repair", "ss"}, 1, true}, {"x30", true, false, {"ss"}, 1, true}};
    generate(plan);
    auto stripper = engine({}, {});
    loggedDuring([&] { EXPECT_EQ(stripper->preanalyzeRequest(), 0); });
    EXPECT_EQ(workNames(*stripper),
              (std::vector<std::string>{"Strip Restore and BuildManifest.plist for x10 cti.",
                                        "Strip Restore and BuildManifest.plist for x10 repair.",
                                        "Strip Restore and BuildManifest.plist for x10 ss.",
                                        "Strip Restore and BuildManifest.plist for x30 cti.",
                                        "Strip Restore and BuildManifest.plist for x30 repair.",
                                        "Strip Restore and BuildManifest.plist for x30 ss.",
                                        "Finish stripping BuildManifest.plist", "Cross check and strip Restore.plist",
                                        "Strip support files", "Strip invisibles", "Leaving cookie for Santa"}));
    Value lastItem = stripper->workList().elements().back();
    EXPECT_EQ(lastItem.get("workAllProducts").count(), 0u);
    EXPECT_EQ(lastItem.get("workAllDeviceClasses").count(), 2u);
    // The first product fixed the variants: x30 has no "repair" identity, so that step fails.
    int result = 0;
    std::string log = loggedDuring([&] { result = stripper->performWork(); });
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(contains(log, "XXX ERROR: BuildIdentity x30ap (Repair - Shipping Settings) not found.\n"));
}

TEST_F(Stripper3Basics, ProductInCatalogueButNotInManifestIsNotFound) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x30", "x10", "x20"}, {"repair"});
    int result = 0;
    std::string log = loggedDuring([&] { result = stripper->strip(); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(log, "XXX ERROR: products x20, x30 not found.\n");
}

TEST_F(Stripper3Basics, UnknownVariantIsNotFound) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"swdl", "repair", "dfu"});
    int result = 0;
    EXPECT_EQ(loggedDuring([&] { result = stripper->strip(); }), "XXX ERROR: variants dfu, swdl not found.\n");
    EXPECT_EQ(result, 1);
}

TEST_F(Stripper3Basics, StripAPFirmwareWithoutDevFirmwareRunsEveryVariantForNoDeviceClass) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {}, options({"stripAPFirmware"}));
    int result = 0;
    loggedDuring([&] { result = stripper->strip(); });
    EXPECT_EQ(result, 0);
    auto names = workNames(*stripper);
    EXPECT_EQ(names.size(), 15u + 5u);
    for (const auto& item : stripper->workList().elements()) {
        if (!item.get("workProduct").isNone()) {
            EXPECT_EQ(item.get("workDeviceClasses").count(), 0u);
        }
    }
}

TEST_F(Stripper3Basics, BannersUseTwoDigitWidths) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"});
    std::string log = loggedDuring([&] { stripper->strip(); });
    EXPECT_TRUE(contains(log, ">>> ==========  1/ 6 Strip Restore and BuildManifest.plist for x10 repair. ==========\n"));
    EXPECT_TRUE(contains(log, ">>> ==========  6/ 6 Leaving cookie for Santa ==========\n"));
    EXPECT_EQ(format(">>> ========== %2d/%2d %@ ==========", 3, 11, std::string("x")), ">>> ==========  3/11 x ==========");
    EXPECT_EQ(format(">>> ========== %2d/%2d %@ ==========", 11, 11, std::string("x")), ">>> ========== 11/11 x ==========");
    EXPECT_EQ(format(">>> ========== %2d/%2d %@ ==========", 100, 120, std::string("x")), ">>> ========== 100/120 x ==========");
}

TEST_F(Stripper3Basics, SupportVariantAddsNoFirmwareType) {
    generate({"x10"}, {"support"});
    auto stripper = engine({"x10"}, {"support"}, options({"checkUnpersonalized"}));
    loggedDuring([&] { EXPECT_EQ(stripper->preanalyzeRequest(), 0); });
    Value unpersonalized = stripper->workList().at(1);
    EXPECT_EQ(unpersonalized.get("workSelector").text(), "updateFilelistForUnpersonalizedInstall:");
    EXPECT_EQ(unpersonalized.get("workFirmwareTypesList").count(), 0u);
    EXPECT_TRUE(unpersonalized.get("workKernelCachesList").equals(Value::stringArray({"Development"})));
    EXPECT_TRUE(unpersonalized.get("workDFUTypesList").equals(Value::stringArray({"DEVELOPMENT"})));
}

TEST_F(Stripper3Basics, TwoProductsTwoVariantsAndUnpersonalizedMakeElevenItems) {
    generate({"x10", "x20"}, {"ss", "dfu"});
    auto stripper = engine({"x10", "x20"}, {"ss", "dfu"}, options({"useRestorePlistInsteadOfBuildManifest"}));
    loggedDuring([&] { EXPECT_EQ(stripper->preanalyzeRequest(), 0); });
    EXPECT_EQ(workNames(*stripper),
              (std::vector<std::string>{"Strip Restore and BuildManifest.plist for x10 ss.",
                                        "Strip Restore and BuildManifest.plist for x10 dfu.",
                                        "Strip Restore for unpersonalized install for x10.",
                                        "Strip Restore and BuildManifest.plist for x20 ss.",
                                        "Strip Restore and BuildManifest.plist for x20 dfu.",
                                        "Strip Restore for unpersonalized install for x20.",
                                        "Finish stripping BuildManifest.plist", "Cross check and strip Restore.plist",
                                        "Strip support files", "Strip invisibles", "Leaving cookie for Santa"}));
    Value first = stripper->workList().at(0);
    EXPECT_EQ(first.get("workSelector").text(), "buildFilelistFromBuildManifest:");
    EXPECT_EQ(first.get("workVariant").text(), "ss");
    EXPECT_EQ(first.get("workModel").text(), "Handset1,1");
    EXPECT_EQ(first.get("workProcessorID").text(), "soc100x");
    Value closing = stripper->workList().at(6);
    Value models = closing.get("workAllModels");
    EXPECT_TRUE(models.setContains(Value::string("Handset1,1")));
    EXPECT_TRUE(models.setContains(Value::stringArray({"Bench2,1", "Settop2,1"})));
    EXPECT_TRUE(closing.get("workAllPersonalizationVariants")
                    .equals(Value::setOf({Value::string("Factory - Shipping Settings"), Value::string("Factory - DFU")})));
    EXPECT_TRUE(closing.get("workAllModels").sameObject(stripper->workList().at(10).get("workAllModels")));
    EXPECT_FALSE(closing.sameObject(stripper->workList().at(10)));
}

TEST_F(Stripper3Basics, DevFirmwareWithoutDevIdentitiesLeavesNoValidVariant) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"}, options({"keepDevFirmware"}));
    int result = 0;
    std::string log = loggedDuring([&] { result = stripper->strip(); });
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(contains(log, "XXX ERROR: variants repair not found.\n"));
}

TEST_F(Stripper3Basics, EmptyWorkListSucceeds) {
    auto stripper = engine({"x10"}, {});
    EXPECT_EQ(stripper->performWork(), 0);
}
