// The build manifest's identities, the files they keep and the stripped manifest.
#include "EngineTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class BuildManifestFileList : public EngineTest {
protected:
    // The per-variant work item for one product and factory variant.
    Value itemFor(Stripper3& stripper, const std::string& product, const std::string& variant) {
        loggedDuring([&] { stripper.preanalyzeRequest(); });
        for (const auto& item : stripper.workList().elements()) {
            if (item.get("workProduct").text() == product && item.get("workVariant").text() == variant) return item;
        }
        return {};
    }

    int runStep(Stripper3& stripper, const Value& item, std::string* log = nullptr) {
        int result = 0;
        std::string text = loggedDuring([&] { result = stripper.buildFilelistFromBuildManifest(item); });
        if (log) *log = text;
        return result;
    }

    std::unique_ptr<Stripper3> loadedEngine(const std::vector<std::string>& products, const std::vector<std::string>& variants,
                                            const Value& options = Value::dictionary()) {
        auto stripper = engine(products, variants, options);
        stripper->buildManifest().load();
        stripper->restorePlist().load();
        return stripper;
    }
};

}  // namespace

TEST_F(BuildManifestFileList, IdentitiesAreIndexedByDeviceClassAndVariant) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, true, {"repair", "cti"}, 2, true}};
    generate(plan);
    auto stripper = loadedEngine({"x10"}, {"repair"});
    const Value& index = stripper->originalBuildIdentities();
    EXPECT_EQ(index.count(), 2u);
    EXPECT_EQ(index.get("x10ap").get("Repair - Shipping Settings").count(), 2u);
    EXPECT_EQ(index.get("x10dev").get("Factory - Shipping Settings").count(), 2u);
}

TEST_F(BuildManifestFileList, ManifestWithoutIdentitiesGivesAnEmptyIndex) {
    writePlist("Restore/BuildManifest.plist", Value::dictionary());
    auto stripper = loadedEngine({"x10"}, {"repair"});
    EXPECT_TRUE(stripper->originalBuildIdentities().isDictionary());
    EXPECT_EQ(stripper->originalBuildIdentities().count(), 0u);
}

TEST_F(BuildManifestFileList, IdentitiesOfTheWrongShapeAreLeftOut) {
    Value bad = Value::dictionary();
    bad.set("Info", Value::stringArray({"not", "a", "dictionary"}));
    Value numberClass = Value::dictionary();
    Value info = Value::dictionary();
    info.set("DeviceClass", Value::integer(7));
    info.set("Variant", Value::string("Factory - DFU"));
    numberClass.set("Info", info);
    Value manifest = Value::dictionary();
    manifest.set("BuildIdentities", Value::array({bad, numberClass, Value::string("junk")}));
    writePlist("Restore/BuildManifest.plist", manifest);
    auto stripper = loadedEngine({"x10"}, {"repair"});
    EXPECT_EQ(stripper->originalBuildIdentities().count(), 0u);
}

TEST_F(BuildManifestFileList, BuildManifestOfTheWrongKindIsHarmless) {
    writePlist("Restore/BuildManifest.plist", Value::stringArray({"an", "array"}));
    writePlist("Restore/Restore.plist", Value::dictionary());
    auto stripper = engine({"x10"}, {"repair"});
    int result = 0;
    std::string log = loggedDuring([&] { result = stripper->strip(); });
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(contains(log, "XXX ERROR: products x10 not found.\n"));
}

TEST_F(BuildManifestFileList, AddSubpathKeepsEveryParent) {
    KeepList keep;
    EXPECT_EQ(Stripper3::addSubpathToKeepList("Restore/Firmware/x.bin", keep), 0);
    EXPECT_EQ(keep, (KeepList{"Restore/Firmware/x.bin", "Restore/Firmware", "Restore"}));
    Stripper3::addSubpathToKeepList("", keep);
    EXPECT_EQ(keep.size(), 3u);
    Stripper3::addSubpathToKeepList("/abs/path", keep);
    EXPECT_TRUE(keep.contains("/abs") && keep.contains("/"));
}

TEST_F(BuildManifestFileList, FlattenOrdersDeviceClassesAndVariantsWithoutRegardToCase) {
    auto identity = [](const std::string& name) {
        Value d = Value::dictionary();
        d.set("name", Value::string(name));
        return d;
    };
    Value index = Value::dictionary();
    Value b = Value::dictionary();
    b.set("zeta", Value::array({identity("b-zeta")}));
    b.set("Alpha", Value::array({identity("b-alpha-1"), identity("b-alpha-2")}));
    index.set("b", b);
    Value a = Value::dictionary();
    a.set("v", Value::array({identity("A-v")}));
    index.set("A", a);
    Value flat = Stripper3::flattenBuildIdentities(index);
    std::vector<std::string> names;
    for (const auto& element : flat.elements()) names.emplace_back(element.get("name").text());
    EXPECT_EQ(names, (std::vector<std::string>{"A-v", "b-alpha-1", "b-alpha-2", "b-zeta"}));
}

TEST_F(BuildManifestFileList, ShallowListingsAreCachedDeepOnesAreNot) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"});
    auto first = stripper->submanifestStartingAt("BundleImages", false);
    EXPECT_EQ(first, (std::vector<std::string>{"BundleImages/back.png", "BundleImages/front.png"}));
    writeFile(at("BundleImages/new.png"), "x");
    EXPECT_EQ(stripper->submanifestStartingAt("BundleImages", false), first);
    EXPECT_EQ(stripper->submanifestStartingAt("BundleImages").size(), 3u);
    auto deep = stripper->submanifestStartingAt("Debug", true);
    EXPECT_NE(std::find(deep.begin(), deep.end(), "Debug/sub/trace.txt"), deep.end());
    EXPECT_NE(std::find(deep.begin(), deep.end(), "Debug/sub"), deep.end());
    EXPECT_TRUE(stripper->submanifestStartingAt("NoSuchFolder", false).empty());
    auto rootListing = stripper->submanifestStartingAt("", false);
    EXPECT_NE(std::find(rootListing.begin(), rootListing.end(), "Restore"), rootListing.end());
}

TEST_F(BuildManifestFileList, ListingsDoNotFollowALinkedFolderOutOfTheBundle) {
    generate({"x10"}, {"repair"});
    TempDir outside;
    writeFile(outside / "secret.txt", "s");
    std::filesystem::remove_all(at("Debug"));
    std::filesystem::create_directory_symlink(outside.path(), at("Debug"));
    auto stripper = engine({"x10"}, {"repair"});
    EXPECT_TRUE(stripper->submanifestStartingAt("Debug", false).empty());
    EXPECT_TRUE(stripper->submanifestStartingAt("Debug", true).empty());
}

TEST_F(BuildManifestFileList, KeepsEveryItemOfTheChosenIdentities) {
    generate({"x10"}, {"repair"});
    auto stripper = loadedEngine({"x10"}, {"repair"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x10", "repair"), &log), 0);
    for (const char* path : {"Restore", "Restore/X10AP-repairshippingsettings-0-os.dmg",
                             "Restore/x10ap-repairshippingsettings-0-restore.dmg", "Restore/kernelcache.release.x10",
                             "Restore/kernelcache.restore.x10", "Restore/Firmware/dfu/iBSS.x10ap.RELEASE.dfu",
                             "Restore/Firmware/RDX0-x10.bbfw", "Restore/Firmware/all_flash",
                             "Restore/Firmware/all_flash/all_flash.x10ap.production/iBoot.x10ap.RELEASE.img3"}) {
        EXPECT_TRUE(keeps(*stripper, path)) << path;
    }
    EXPECT_TRUE(contains(log, "+++ BuildManifest.plist BasebandFirmware found RDX0-x10.bbfw.\n"));
    EXPECT_EQ(stripper->restoreImagesSet(), (std::set<std::string>{"X10AP-repairshippingsettings-0-os.dmg"}));
    EXPECT_EQ(stripper->kernelCachesSet(), (std::set<std::string>{"kernelcache.release.x10", "kernelcache.restore.x10"}));
    EXPECT_EQ(stripper->ramDisksSet(), (std::set<std::string>{"x10ap-repairshippingsettings-0-restore.dmg"}));
}

TEST_F(BuildManifestFileList, CompatibilityLinksUnderTheExpectedNames) {
    generate({"x10"}, {"repair"});
    auto stripper = loadedEngine({"x10"}, {"repair"});
    runStep(*stripper, itemFor(*stripper, "x10", "repair"));
    Value modified = stripper->modifiedFiles();
    ASSERT_TRUE(modified.get("Restore/X10UserOS.dmg").isData());
    EXPECT_EQ(modified.get("Restore/X10UserOS.dmg").asData()->bytes, "X10AP-repairshippingsettings-0-os.dmg");
    EXPECT_EQ(modified.get("Restore/c1Release.dmg").asData()->bytes, "x10ap-repairshippingsettings-0-restore.dmg");
    // The kernel caches already carry their expected names.
    EXPECT_TRUE(modified.get("Restore/kernelcache.release.x10").isNone());
    EXPECT_TRUE(modified.get("Restore/kernelcache.restore.x10").isNone());
    EXPECT_FALSE(keeps(*stripper, "Restore/X10UserOS.dmg"));
}

TEST_F(BuildManifestFileList, OSImageAlreadyUnderItsExpectedNameGetsNoLink) {
    generate({"x10"}, {"repair"});
    Value manifest = readPlist("Restore/BuildManifest.plist");
    Value identity = manifest.get("BuildIdentities").at(0);
    identity.get("Manifest").get("OS").get("Info").set("Path", Value::string("x10useros.DMG"));
    writePlist("Restore/BuildManifest.plist", manifest);
    auto stripper = loadedEngine({"x10"}, {"repair"});
    runStep(*stripper, itemFor(*stripper, "x10", "repair"));
    EXPECT_TRUE(stripper->modifiedFiles().get("Restore/X10UserOS.dmg").isNone());
    EXPECT_TRUE(keeps(*stripper, "Restore/x10useros.DMG"));
}

TEST_F(BuildManifestFileList, VariantWithoutOSImageSkipsTheOSItemOnly) {
    generate({"x10"}, {"cti"});
    auto stripper = loadedEngine({"x10"}, {"cti"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x10", "cti"), &log), 0);
    EXPECT_TRUE(contains(log, "--- skipping x10ap \"Factory - Shipping Settings\" OS: X10AP-factoryshippingsettings-0-os.dmg.\n"));
    EXPECT_FALSE(keeps(*stripper, "Restore/X10AP-factoryshippingsettings-0-os.dmg"));
    EXPECT_TRUE(stripper->restoreImagesSet().empty());
    EXPECT_TRUE(keeps(*stripper, "Restore/x10ap-factoryshippingsettings-0-restore.dmg"));
    EXPECT_TRUE(keeps(*stripper, "Restore/kernelcache.release.x10"));
}

TEST_F(BuildManifestFileList, VariantsSharingAPersonalizationVariantShareIdentities) {
    generate({"x10"}, {"cti", "ss"});
    auto stripper = loadedEngine({"x10"}, {"cti", "ss"});
    runStep(*stripper, itemFor(*stripper, "x10", "cti"));
    runStep(*stripper, itemFor(*stripper, "x10", "ss"));
    EXPECT_EQ(stripper->strippedBuildIdentities().get("x10ap").get("Factory - Shipping Settings").count(), 1u);
    EXPECT_TRUE(keeps(*stripper, "Restore/X10AP-factoryshippingsettings-0-os.dmg"));
}

TEST_F(BuildManifestFileList, AllFlashItemAlsoKeepsTheFolderManifest) {
    generate({"x10"}, {"repair"});
    auto stripper = loadedEngine({"x10"}, {"repair"});
    runStep(*stripper, itemFor(*stripper, "x10", "repair"));
    EXPECT_TRUE(keeps(*stripper, "Restore/Firmware/all_flash/all_flash.x10ap.production/manifest"));
}

TEST_F(BuildManifestFileList, MissingDevIdentitiesFailAndKeepEarlierChoices) {
    generate({"x10"}, {"repair"});
    auto stripper = loadedEngine({"x10"}, {"repair"});
    Value item = itemFor(*stripper, "x10", "repair");
    item.set("workDeviceClasses", Value::stringArray({"x10ap", "x10dev"}));
    std::string log;
    EXPECT_EQ(runStep(*stripper, item, &log), 1);
    EXPECT_EQ(log, "XXX ERROR: BuildIdentity x10dev (Repair - Shipping Settings) not found.\n");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
    EXPECT_EQ(stripper->strippedBuildIdentities().get("x10ap").get("Repair - Shipping Settings").count(), 1u);
}

TEST_F(BuildManifestFileList, MalformedItemIsWarnedAboutAndNotKept) {
    generate({"x10"}, {"repair"});
    Value manifest = readPlist("Restore/BuildManifest.plist");
    manifest.get("BuildIdentities").at(0).get("Manifest").get("RestoreKernelCache").get("Info").set(
        "Path", Value::string("./kernelcache.restore.x10"));
    writePlist("Restore/BuildManifest.plist", manifest);
    auto stripper = loadedEngine({"x10"}, {"repair"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x10", "repair"), &log), 0);
    EXPECT_TRUE(contains(log, "!!! WARNING: BuildManifest.plist BuildIdentity x10ap \"Repair - Shipping Settings\" "
                              "RestoreKernelCache malformed manifest item ./kernelcache.restore.x10.\n"));
    EXPECT_FALSE(keeps(*stripper, "Restore/./kernelcache.restore.x10"));
    EXPECT_TRUE(stripper->kernelCachesSet().contains("./kernelcache.restore.x10"));
}

TEST_F(BuildManifestFileList, MissingBasebandFilesFailTheStep) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {"repair"}, 1, false}};
    generate(plan);
    auto stripper = loadedEngine({"x10"}, {"repair"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x10", "repair"), &log), 1);
    EXPECT_EQ(log, "XXX ERROR found no BasebandFirmware files with prefixes RDX0.\n");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
}

TEST_F(BuildManifestFileList, MissingRDX2BasebandIsTolerated) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x40", true, false, {"repair"}, 1, false}};
    generate(plan);
    auto stripper = loadedEngine({"x40"}, {"repair"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x40", "repair"), &log), 0);
    EXPECT_TRUE(contains(log, "+++ no BasebandFirmware files for RDX2, strip result may not work\n"));
}

TEST_F(BuildManifestFileList, PersonalizedBasebandNotInManifestIsNotSearched) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x30", true, false, {"repair"}, 1, false}};
    generate(plan);
    auto stripper = loadedEngine({"x30"}, {"repair"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x30", "repair"), &log), 0);
    EXPECT_FALSE(contains(log, "BasebandFirmware"));
}

TEST_F(BuildManifestFileList, ProductWithoutBasebandNeedsNone) {
    generate({"x20"}, {"repair"});
    auto stripper = loadedEngine({"x20"}, {"repair"});
    std::string log;
    EXPECT_EQ(runStep(*stripper, itemFor(*stripper, "x20", "repair"), &log), 0);
    EXPECT_FALSE(contains(log, "BasebandFirmware"));
}

TEST_F(BuildManifestFileList, StrippedManifestListsOnlyKeptIdentitiesAndModels) {
    generate({"x10", "x30"}, {"repair", "ss"});
    auto stripper = engine({"x10"}, {"ss"});
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    Value stripped = stripper->modifiedFiles().get("Restore/BuildManifest.plist");
    ASSERT_TRUE(stripped.isDictionary());
    EXPECT_EQ(stripped.get("BuildIdentities").count(), 1u);
    EXPECT_EQ(valueForKeyPath(stripped.get("BuildIdentities").at(0), "Info.Variant").text(), "Factory - Shipping Settings");
    EXPECT_TRUE(stripped.get("SupportedProductTypes").equals(Value::stringArray({"Handset1,1"})));
    EXPECT_EQ(stripped.get("ProductVersion").text(), "1.0");
    // The bundle's own manifest is untouched.
    EXPECT_EQ(readPlist("Restore/BuildManifest.plist").get("BuildIdentities").count(), 4u);
}

TEST_F(BuildManifestFileList, ArrayModelContributesNoSupportedProductType) {
    generate({"x20"}, {"repair"});
    auto stripper = engine({"x20"}, {"repair"});
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    EXPECT_EQ(stripper->modifiedFiles().get("Restore/BuildManifest.plist").get("SupportedProductTypes").count(), 0u);
}

TEST_F(BuildManifestFileList, BinaryManifestWorksLikeXml) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {"repair"}, 1, true}};
    plan.binaryManifest = true;
    generate(plan);
    auto stripper = engine({"x10"}, {"repair"});
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    EXPECT_TRUE(keeps(*stripper, "Restore/X10AP-repairshippingsettings-0-os.dmg"));
}

TEST_F(BuildManifestFileList, HostilePathsAreHandedOnNotFollowed) {
    generate({"x10"}, {"repair"});
    Value manifest = readPlist("Restore/BuildManifest.plist");
    Value items = manifest.get("BuildIdentities").at(0).get("Manifest");
    items.get("LLB").get("Info").set("Path", Value::string("../../../etc/passwd"));
    items.get("iBoot").get("Info").set("Path", Value::string(std::string(5000, 'n')));
    items.get("iBSS").get("Info").set("Path", Value::integer(12));
    writePlist("Restore/BuildManifest.plist", manifest);
    auto stripper = engine({"x10"}, {"repair"});
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    EXPECT_TRUE(keeps(*stripper, "Restore/../../../etc/passwd"));
    EXPECT_TRUE(keeps(*stripper, "Restore/" + std::string(5000, 'n')));
    EXPECT_FALSE(keeps(*stripper, "Restore/Firmware/dfu/iBSS.x10ap.RELEASE.dfu"));
}
