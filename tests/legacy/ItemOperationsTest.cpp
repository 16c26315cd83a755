// The per-item operations that keep files: the build identities of a device class and
// variant, and the unpersonalized install with its Restore.plist; and the build
// manifest cut down to what that Restore.plist serves.
#include "LegacyTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

constexpr const char* kOS = "X10AP-repairshippingsettings-0-os.dmg";
constexpr const char* kRamDisk = "x10ap-repairshippingsettings-0-restore.dmg";

class LegacyItems : public LegacyTest {
protected:
    // The per-variant item that request analysis makes for x10ap and the variant.
    Value itemFor(Stripper2& stripper, const std::string& variant, const std::string& selector) {
        Stripper2 analyzer(std::make_shared<FolderBundleFiles>(root()), strings({"x10"}), strings({variant}),
                           options({"checkPersonalized", "checkUnpersonalized"}));
        loggedDuring([&] { analyzer.preanalyzeRequest(); });
        (void)stripper;
        for (const auto& item : analyzer.workList().elements()) {
            if (item.get("workSelector").text() == selector) return item;
        }
        ADD_FAILURE() << "no item " << selector;
        return Value::dictionary();
    }

    int run(int (Stripper2::*operation)(const Value&), Stripper2& stripper, const Value& item, std::string* log = nullptr) {
        int result = -1;
        std::string said = loggedDuring([&] { result = (stripper.*operation)(item); });
        if (log) *log = said;
        return result;
    }

    static bool holds(const std::vector<std::string>& paths, const std::string& path) {
        return std::find(paths.begin(), paths.end(), path) != paths.end();
    }

    // A Restore.plist that names every restore image of x10ap's "repair" identity.
    void writeRestorePlistNamingTheRepairImages() {
        writePlist("Restore/Restore.plist",
                   dict({{"KernelCachesByTarget", dict({{"x10", dict({{"Release", Value::string("kernelcache.release.x10")},
                                                                      {"Development", Value::string("kernelcache.restore.x10")}})}})},
                         {"RamDisksByPlatform", dict({{"soc100x", dict({{"user", Value::string(kRamDisk)}})}})},
                         {"SystemRestoreImagesByTarget", dict({{"x10", dict({{"User", Value::string(kOS)}})}})},
                         {"SupportedProductTypes", strings({"Handset1,1"})}}));
    }
};

}  // namespace

// ---- the build identities of one device class and variant ----

TEST_F(LegacyItems, TheIdentitiesFilesAndLinksOfOneClassAndVariant) {
    generate({"x10", "x30"}, {"repair", "ss"});
    auto stripper = engine();
    Value item = itemFor(*stripper, "repair", "stripRestoreUsingTessera:");
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, item, &log), 0) << log;
    EXPECT_EQ(log, "+++ BuildManifest.plist BasebandFirmware found RDX0-x10.bbfw.\n");
    auto kept = lastKept(*stripper);
    for (const char* path : {"Restore", "Restore/Firmware", "Restore/Firmware/RDX0-x10.bbfw", "Restore/kernelcache.release.x10",
                             "Restore/kernelcache.restore.x10", "Restore/Firmware/dfu/iBSS.x10ap.RELEASE.dfu",
                             "Restore/Firmware/all_flash/all_flash.x10ap.production/manifest"}) {
        EXPECT_TRUE(holds(kept, path)) << path;
    }
    EXPECT_TRUE(holds(kept, std::string("Restore/") + kOS));
    EXPECT_TRUE(holds(kept, std::string("Restore/") + kRamDisk));
    EXPECT_FALSE(holds(kept, "Restore/X30AP-repairshippingsettings-0-os.dmg"));

    Value files = lastModified(*stripper);
    EXPECT_EQ(files.get("Restore/X10UserOS.dmg").asData()->bytes, kOS);
    EXPECT_EQ(files.get("Restore/c1Release.dmg").asData()->bytes, kRamDisk);
    Value manifest = files.get("Restore/BuildManifest.plist");
    ASSERT_EQ(manifest.get("BuildIdentities").count(), 1u);
    EXPECT_EQ(manifest.get("BuildIdentities").at(0).get("Info").get("Variant").text(), "Repair - Shipping Settings");
    EXPECT_EQ(texts(manifest.get("SupportedProductTypes")), std::vector<std::string>{"Handset1,1"});
    EXPECT_EQ(manifest.get("ProductVersion").text(), "1.0");
}

TEST_F(LegacyItems, AVariantWithoutAnOperatingSystemSkipsTheSystemImage) {
    generate({"x10"}, {"cti"});
    auto stripper = engine();
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, itemFor(*stripper, "cti", "stripRestoreUsingTessera:"), &log), 0);
    EXPECT_TRUE(contains(log, "--- skipping x10ap \"Factory - Shipping Settings\" OS: X10AP-factoryshippingsettings-0-os.dmg.\n"))
        << log;
    EXPECT_FALSE(holds(lastKept(*stripper), "Restore/X10AP-factoryshippingsettings-0-os.dmg"));
}

TEST_F(LegacyItems, AMissingIdentityStopsTheItemAndAddsNothing) {
    generate({"x10"}, {"repair"});
    auto stripper = engine();
    std::string log;
    EXPECT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, itemFor(*stripper, "dfu", "stripRestoreUsingTessera:"), &log), 1);
    EXPECT_EQ(log, "XXX ERROR: BuildIdentity x10ap (Factory - DFU) not found.\n");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyItems, MissingBasebandFirmwareStopsTheItem) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {"repair"}, 1, false}};
    generate(plan);
    auto stripper = engine();
    std::string log;
    EXPECT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, itemFor(*stripper, "repair", "stripRestoreUsingTessera:"), &log), 1);
    EXPECT_EQ(log, "XXX ERROR found no BasebandFirmware files with prefixes RDX0.\n");
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyItems, ManifestPathsTheBundleLacksAreNeitherKeptNorFollowedOut) {
    generate({"x10"}, {"repair"});
    Value manifest = readPlist("Restore/BuildManifest.plist");
    Value items = manifest.get("BuildIdentities").at(0).get("Manifest");
    items.get("LLB").get("Info").set("Path", Value::string("../../secret.txt"));
    items.get("iBoot").get("Info").set("Path", Value::string("Firmware/gone.img3"));
    items.set("Odd", Value::integer(3));
    writePlist("Restore/BuildManifest.plist", manifest);
    writeFile(dir / "secret.txt", "secret");
    auto stripper = engine();
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, itemFor(*stripper, "repair", "stripRestoreUsingTessera:"), &log), 0);
    EXPECT_TRUE(contains(log, "!!! WARNING: BuildManifest.plist item \"Restore/../../secret.txt\" missing from bundle.\n")) << log;
    EXPECT_TRUE(contains(log, "!!! WARNING: BuildManifest.plist item \"Restore/Firmware/gone.img3\" missing from bundle.\n"));
    for (const auto& path : lastKept(*stripper)) EXPECT_FALSE(contains(path, "..")) << path;
}

TEST_F(LegacyItems, AManifestOfTheWrongShapeFindsNoIdentity) {
    writePlist("Restore/BuildManifest.plist", dict({{"BuildIdentities", Value::string("none")}}));
    auto stripper = engine();
    Value item = dict({{"workDeviceClass", Value::string("x10ap")}, {"workVariant", Value::string("repair")},
                       {"workProduct", Value::string("x10")}});
    EXPECT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, item), 1);
    std::filesystem::remove(at("Restore/BuildManifest.plist"));
    std::string log;
    EXPECT_EQ(run(&Stripper2::stripRestoreUsingTessera, *stripper, item, &log), 1);
    EXPECT_EQ(log, "XXX ERROR: BuildManifest.plist cannot be read.\n");
}

// ---- the unpersonalized install with its Restore.plist ----

TEST_F(LegacyItems, TheUnpersonalizedInstallOfOneClassAndVariant) {
    generate({"x10", "x30"}, {"repair"});
    auto stripper = engine();
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripRestoreWithoutTessera, *stripper, itemFor(*stripper, "repair", "stripRestoreWithoutTessera:"), &log), 0)
        << log;
    EXPECT_TRUE(contains(log, "+++ Restore kernelcache found kernelcache.development.soc100x, kernelcache.release.soc100x, "
                              "kernelcache.release.x10.\n"))
        << log;
    EXPECT_TRUE(contains(log, "+++ Restore all_flash found all_flash.x10ap.production.\n"));
    EXPECT_TRUE(contains(log, "+++ Restore.plist BasebandFirmware found RDX0-x10.bbfw.\n"));
    EXPECT_TRUE(contains(log, "+++ Restore.plist found RamDisksByPlatform soc100x.\n"));
    auto kept = lastKept(*stripper);
    for (const char* path : {"Restore/kernelcache.release.soc100x", "Restore/Firmware/all_flash/all_flash.x10ap.production",
                             "Restore/Firmware/all_flash/all_flash.x10ap.production/iBoot.x10ap.RELEASE.img3",
                             "Restore/Firmware/dfu/iBEC.x10ap.DEVELOPMENT.dfu", "Restore/Firmware/RDX0-x10.bbfw"}) {
        EXPECT_TRUE(holds(kept, path)) << path;
    }
    // What the item's Restore.plist names is kept too: here the processor's RAM disks.
    EXPECT_TRUE(holds(kept, std::string("Restore/") + kRamDisk));
    EXPECT_FALSE(holds(kept, "Restore/Firmware/all_flash/all_flash.x10ap.debug"));
    EXPECT_FALSE(holds(kept, "Restore/kernelcache.release.soc200x"));
    Value restorePlist = lastModified(*stripper).get("Restore/Restore.plist");
    ASSERT_TRUE(restorePlist.isDictionary());
    EXPECT_EQ(keysSortedIgnoringCase(restorePlist.get("RamDisksByPlatform")), std::vector<std::string>{"soc100x"});
    EXPECT_EQ(lastModified(*stripper).count(), 1u);
}

TEST_F(LegacyItems, AnUnpersonalizedInstallWithoutItsKernelCacheStopsTheItem) {
    generate({"x10"}, {"repair"});
    for (const char* name : {"kernelcache.release.soc100x", "kernelcache.development.soc100x", "kernelcache.release.x10",
                             "kernelcache.restore.x10"}) {
        std::filesystem::remove(at(std::string("Restore/") + name));
    }
    auto stripper = engine();
    std::string log;
    EXPECT_EQ(run(&Stripper2::stripRestoreWithoutTessera, *stripper, itemFor(*stripper, "repair", "stripRestoreWithoutTessera:"), &log), 1);
    EXPECT_EQ(log, "XXX ERROR no matching kernelcache found in bundle for x10 soc100x.\n");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyItems, AVariantWithoutFirmwareKindsTakesEveryFirmwareFolderButDebugOnes) {
    generate({"x10"}, {"support"});
    auto stripper = engine();
    Value item = itemFor(*stripper, "support", "stripRestoreWithoutTessera:");
    ASSERT_TRUE(item.get("workFirmwareTypesList").isNone());
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripRestoreWithoutTessera, *stripper, item, &log), 0) << log;
    EXPECT_TRUE(contains(log, "+++ Restore all_flash found all_flash.x10ap.production.\n")) << log;
    EXPECT_FALSE(holds(lastKept(*stripper), "Restore/Firmware/all_flash/all_flash.x10ap.debug"));
}

TEST_F(LegacyItems, RestorePlistNamesOutsideTheBundleAreNotKept) {
    generate({"x10"}, {"repair"});
    writePlist("Restore/Restore.plist",
               dict({{"RamDisksByPlatform", dict({{"soc100x", dict({{"user", Value::string("../../secret.dmg")}})}})}}));
    auto stripper = engine();
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripRestoreWithoutTessera, *stripper, itemFor(*stripper, "repair", "stripRestoreWithoutTessera:"), &log), 0);
    EXPECT_TRUE(contains(log, "cannot find RAMdisk file soc100x user \"secret.dmg\""));
    for (const auto& path : lastKept(*stripper)) EXPECT_FALSE(contains(path, "secret")) << path;
}

// ---- the build manifest that the Restore.plist selection serves ----

TEST_F(LegacyItems, IdentitiesWhoseImagesTheRestorePlistNamesAreServed) {
    generate({"x10"}, {"repair", "ss"});
    writeRestorePlistNamingTheRepairImages();
    auto stripper = engine();
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripBuildManifestWithoutTessera, *stripper,
                  itemFor(*stripper, "repair", "stripBuildManifestWithoutTessera:"), &log),
              0);
    EXPECT_EQ(log, "+++ BuildManifest.plist BuildIdentity x10ap \"Repair - Shipping Settings\" served by Restore.plist.\n");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
    Value files = lastModified(*stripper);
    EXPECT_EQ(files.count(), 1u);
    Value manifest = files.get("Restore/BuildManifest.plist");
    ASSERT_EQ(manifest.get("BuildIdentities").count(), 1u);
    EXPECT_EQ(manifest.get("BuildIdentities").at(0).get("Info").get("Variant").text(), "Repair - Shipping Settings");
    EXPECT_EQ(texts(manifest.get("SupportedProductTypes")), std::vector<std::string>{"Handset1,1"});

    // The sibling item keeps every image the served identity uses.
    ASSERT_EQ(run(&Stripper2::stripRestoreWithoutTessera, *stripper, itemFor(*stripper, "repair", "stripRestoreWithoutTessera:")), 0);
    auto kept = lastKept(*stripper);
    for (const auto& identity : manifest.get("BuildIdentities").elements()) {
        for (const auto& [key, entry] : *identity.get("Manifest").asDictionary()) {
            Value path = entry.get("Info").get("Path");
            if (path.isString()) {
                EXPECT_TRUE(holds(kept, "Restore/" + std::string(path.text()))) << path.text();
            }
        }
    }
}

TEST_F(LegacyItems, AnIdentityWithAnImageTheRestorePlistDoesNotNameIsScrubbed) {
    generate({"x10"}, {"repair"});
    auto stripper = engine();
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripBuildManifestWithoutTessera, *stripper,
                  itemFor(*stripper, "repair", "stripBuildManifestWithoutTessera:"), &log),
              0);
    EXPECT_EQ(log, std::string("--- BuildManifest.plist BuildIdentity x10ap \"Repair - Shipping Settings\" scrub: Restore.plist "
                               "does not name ") +
                       kOS + ", kernelcache.restore.x10.\n");
    EXPECT_EQ(lastModified(*stripper).get("Restore/BuildManifest.plist").get("BuildIdentities").count(), 0u);
}

TEST_F(LegacyItems, AVariantWithoutAnOperatingSystemNeedsNoSystemImageNamed) {
    generate({"x10"}, {"cti"});
    writePlist("Restore/Restore.plist",
               dict({{"KernelCachesByTarget", dict({{"x10", dict({{"Release", Value::string("kernelcache.release.x10")},
                                                                  {"Restore", Value::string("kernelcache.restore.x10")}})}})},
                     {"RamDisksByPlatform",
                      dict({{"soc100x", dict({{"user", Value::string("x10ap-factoryshippingsettings-0-restore.dmg")}})}})}}));
    auto stripper = engine();
    Value item = itemFor(*stripper, "cti", "stripBuildManifestWithoutTessera:");
    // "cti" installs only "Release" kernel caches, so the restore kernel cache is not named.
    std::string log;
    ASSERT_EQ(run(&Stripper2::stripBuildManifestWithoutTessera, *stripper, item, &log), 0);
    EXPECT_TRUE(contains(log, "does not name kernelcache.restore.x10.\n")) << log;
    item.set("workKernelCachesList", strings({"Release", "Restore"}));
    ASSERT_EQ(run(&Stripper2::stripBuildManifestWithoutTessera, *stripper, item, &log), 0);
    EXPECT_TRUE(contains(log, "served by Restore.plist")) << log;
}

TEST_F(LegacyItems, WithoutABuildManifestThereIsNothingToCut) {
    writePlist("Restore/Restore.plist", Value::dictionary());
    auto stripper = engine();
    Value item = dict({{"workDeviceClass", Value::string("x10ap")}, {"workVariant", Value::string("repair")},
                       {"workProduct", Value::string("x10")}});
    std::string log;
    EXPECT_EQ(run(&Stripper2::stripBuildManifestWithoutTessera, *stripper, item, &log), 0);
    EXPECT_EQ(log, "");
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}
