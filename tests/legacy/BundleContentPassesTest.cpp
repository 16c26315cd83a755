// The legacy support-file passes: debug, unencrypted and bundle images, diagnostics and
// SDK images, firmware archives, the restore-tools image, and the invisible files.
#include "LegacyTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class LegacyBundleContent : public LegacyTest {
protected:
    static Value closingItem(const std::vector<std::string>& products, const std::vector<std::string>& personalizations = {}) {
        return dict({{"workDeviceClassList", Value::array()}, {"workProductList", strings(products)},
                     {"workPersonalizationVariantList", strings(personalizations)}});
    }

    // Runs the step a work selector names, as the work list would.
    std::string run(std::string_view selector, Stripper2& stripper, const Value& item = Value::dictionary(),
                    int expected = 0) {
        auto step = Stripper2::operationNamed(selector);
        if (!step) {
            ADD_FAILURE() << "no operation " << selector;
            return {};
        }
        int result = -1;
        std::string log = loggedDuring([&] { result = step(stripper, item); });
        EXPECT_EQ(result, expected);
        return log;
    }
};

}  // namespace

// ---- folders ----

TEST_F(LegacyBundleContent, DebugFolderAndItsDirectEntriesWhenAsked) {
    file("Debug/a.txt");
    file("Debug/sub/deep.txt");
    auto keeping = engine({}, {}, options({"keepDebug"}));
    EXPECT_EQ(run("stripDebugFolder:", *keeping), "+++ Debug folder found 3 items.\n");
    EXPECT_EQ(lastKept(*keeping), (std::vector<std::string>{"Debug", "Debug/a.txt", "Debug/sub"}));
    auto stripping = engine();
    EXPECT_EQ(run("stripDebugFolder:", *stripping), "--- Debug folder scrub 3 items.\n");
    EXPECT_EQ(stripping->strippedManifestsList().count(), 0u);
}

TEST_F(LegacyBundleContent, AnAskedForDebugFolderThatIsMissingAddsAnEmptyList) {
    auto keeping = engine({}, {}, options({"keepDebug"}));
    EXPECT_EQ(run("stripDebugFolder:", *keeping), "");
    ASSERT_EQ(keeping->strippedManifestsList().count(), 1u);
    EXPECT_TRUE(lastKept(*keeping).empty());
    EXPECT_EQ(run("stripDebugFolder:", *engine()), "");
}

TEST_F(LegacyBundleContent, UnencryptedImagesAreNeverKept) {
    file("UnencryptedImages/a.dmg");
    auto stripper = engine({}, {}, options({"keepDebug", "keepBundleImages", "keepSDK"}));
    EXPECT_EQ(run("stripUnencryptedImages:", *stripper), "--- Unencrypted Images scrub 2 items.\n");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
}

TEST_F(LegacyBundleContent, BundleImagesWhenAsked) {
    file("BundleImages/front.png");
    auto keeping = engine({}, {}, options({"keepBundleImages"}));
    EXPECT_EQ(run("stripBundleImages:", *keeping), "+++ BundleImages found 2 items.\n");
    EXPECT_EQ(lastKept(*keeping), (std::vector<std::string>{"BundleImages", "BundleImages/front.png"}));
    EXPECT_EQ(run("stripBundleImages:", *engine()), "--- BundleImages scrub 2 items.\n");
}

TEST_F(LegacyBundleContent, TheBogusImagesPassDoesNothing) {
    file("Bogus.dmg");
    auto stripper = engine();
    EXPECT_EQ(run("stripBogusRestoreImagesInRootDirectory:", *stripper), "");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
}

// ---- linked images ----

TEST_F(LegacyBundleContent, HomeDiagnosticsLinkAndItsTargetWhenAsked) {
    file("HomeDiagnostic-1.0.dmg");
    link("HomeDiagnostic.dmg", "HomeDiagnostic-1.0.dmg");
    auto keeping = engine({}, {}, options({"keepHomeDiagnostics"}));
    EXPECT_EQ(run("stripHomeDiags:", *keeping), "+++ HomeDiagnostics found.\n");
    EXPECT_EQ(lastKept(*keeping), (std::vector<std::string>{"HomeDiagnostic-1.0.dmg", "HomeDiagnostic.dmg"}));
    EXPECT_EQ(run("stripHomeDiags:", *engine()), "--- HomeDiagnostics scrub.\n");
}

TEST_F(LegacyBundleContent, APlainHomeDiagnosticsFileIsNeverKept) {
    file("HomeDiagnostic.dmg");
    auto keeping = engine({}, {}, options({"keepHomeDiagnostics"}));
    EXPECT_EQ(run("stripHomeDiags:", *keeping), "");
    ASSERT_EQ(keeping->strippedManifestsList().count(), 1u);
    EXPECT_TRUE(lastKept(*keeping).empty());
    EXPECT_EQ(run("stripHomeDiags:", *engine()), "--- HomeDiagnostics scrub.\n");
    std::filesystem::remove(at("HomeDiagnostic.dmg"));
    EXPECT_EQ(run("stripHomeDiags:", *engine()), "");
}

TEST_F(LegacyBundleContent, SdkLinkNamesItsTarget) {
    file("SDK-1.dmg");
    link("HandsetSDKInternalNonUI.dmg", "SDK-1.dmg");
    auto keeping = engine({}, {}, options({"keepSDK"}));
    EXPECT_EQ(run("stripSDKs:", *keeping), "+++ NonUI SDK found \"SDK-1.dmg\".\n");
    EXPECT_EQ(lastKept(*keeping), (std::vector<std::string>{"SDK-1.dmg", "HandsetSDKInternalNonUI.dmg"}));
    EXPECT_EQ(run("stripSDKs:", *engine()), "--- NonUI SDK scrub.\n");
}

// ---- firmware archives ----

TEST_F(LegacyBundleContent, ArchivesOfTheProductAreKeptWithTheirFolder) {
    file("Mediadesk FWPKs/x10_1.0_FWPK/payload.bin");
    file("Mediadesk FWPKs/x20_1.0_FWPK/payload.bin");
    file("Mediadesk FWPKs/readme.txt");
    auto stripper = engine({}, {}, options({"keepFWPKs"}));
    std::string log = run("stripFWPKs:", *stripper, closingItem({"x10"}));
    EXPECT_EQ(log,
              "!!! WARNING Cannot find FWPK for x10.\n"
              "--- FWPKs scrub Mediadesk FWPKs/x20_1.0_FWPK.\n"
              "+++ FWPKs found Mediadesk FWPKs/x10_1.0_FWPK.\n");
    EXPECT_EQ(lastKept(*stripper), (std::vector<std::string>{"Mediadesk FWPKs", "Mediadesk FWPKs/x10_1.0_FWPK",
                                                             "Mediadesk FWPKs/x10_1.0_FWPK/payload.bin"}));
}

TEST_F(LegacyBundleContent, AnArchiveCanBeFoundForOneProductAndScrubbedForAnother) {
    file("Mediadesk FWPKs/x10_1.0_FWPK/payload.bin");
    auto stripper = engine({}, {}, options({"keepFWPKs"}));
    std::string log = run("stripFWPKs:", *stripper, closingItem({"x10", "x30"}));
    EXPECT_EQ(log,
              "!!! WARNING Cannot find FWPK for x30.\n"
              "--- FWPKs scrub Mediadesk FWPKs/x10_1.0_FWPK.\n"
              "+++ FWPKs found Mediadesk FWPKs/x10_1.0_FWPK.\n");
}

TEST_F(LegacyBundleContent, AnOperatingSystemArchiveMatchesEveryProduct) {
    file("Mediadesk FWPKs/Base_VendorInternal_FWPK");
    auto stripper = engine({}, {}, options({"keepFWPKs"}));
    std::string log = run("stripFWPKs:", *stripper, closingItem({"x20"}, {"VendorInternalOS"}));
    EXPECT_EQ(log, "+++ FWPKs found Mediadesk FWPKs/Base_VendorInternal_FWPK.\n");
    EXPECT_EQ(lastKept(*stripper), (std::vector<std::string>{"Mediadesk FWPKs", "Mediadesk FWPKs/Base_VendorInternal_FWPK"}));
}

TEST_F(LegacyBundleContent, NoMatchingArchiveKeepsNothing) {
    file("Mediadesk FWPKs/x20_1.0_FWPK/payload.bin");
    auto stripper = engine({}, {}, options({"keepFWPKs"}));
    std::string log = run("stripFWPKs:", *stripper, closingItem({"x10"}));
    EXPECT_EQ(log, "!!! WARNING Cannot find FWPK for x10.\n--- FWPKs scrub Mediadesk FWPKs/x20_1.0_FWPK.\n");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
}

TEST_F(LegacyBundleContent, WithoutTheOptionTheArchiveFolderIsCountedAsScrubbed) {
    folder("Mediadesk FWPKs");
    auto stripper = engine();
    EXPECT_EQ(run("stripFWPKs:", *stripper, closingItem({"x10"})), "--- FWPKs scrub 1 items.\n");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
    std::filesystem::remove(at("Mediadesk FWPKs"));
    EXPECT_EQ(run("stripFWPKs:", *engine(), closingItem({"x10"})), "");
}

// ---- the restore tools image ----

TEST_F(LegacyBundleContent, ALinkedRestoreToolsImageIsKeptWithItsLink) {
    file("Tools-1.dmg");
    link("RestoreTools.dmg", "Tools-1.dmg");
    auto stripper = engine();
    EXPECT_EQ(run("stripRestoreTools:", *stripper), "+++ RestoreTools found RestoreTools.dmg Tools-1.dmg.\n");
    EXPECT_EQ(lastKept(*stripper), (std::vector<std::string>{"Tools-1.dmg", "RestoreTools.dmg"}));
    auto withoutLinks = engine({}, {}, options({"noSymLinks"}));
    run("stripRestoreTools:", *withoutLinks);
    EXPECT_EQ(lastKept(*withoutLinks), std::vector<std::string>{"Tools-1.dmg"});
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyBundleContent, EveryRootImageLinkIsReadSoOneLeadingOutsideIsWarnedAbout) {
    file("Tools-1.dmg");
    link("RestoreTools.dmg", "Tools-1.dmg");
    link("Away.dmg", "../../outside.dmg");
    auto stripper = engine();
    EXPECT_EQ(run("stripRestoreTools:", *stripper),
              "!!! WARNING: \"Away.dmg\" leads outside the bundle and is not followed.\n"
              "+++ RestoreTools found RestoreTools.dmg Tools-1.dmg.\n");
    EXPECT_EQ(lastKept(*stripper), (std::vector<std::string>{"Tools-1.dmg", "RestoreTools.dmg"}));
}

TEST_F(LegacyBundleContent, ARestoreToolsLinkToAMissingImageStopsTheRun) {
    link("RestoreTools.dmg", "Tools-1.dmg");
    auto stripper = engine();
    std::string log = run("stripRestoreTools:", *stripper, Value::dictionary(), 1);
    EXPECT_EQ(log, "XXX ERROR: RestoreTools \"Tools-1.dmg\" missing from bundle.\n+++ RestoreTools found RestoreTools.dmg Tools-1.dmg.\n");
    EXPECT_EQ(lastKept(*stripper), (std::vector<std::string>{"Tools-1.dmg", "RestoreTools.dmg"}));

    // Through the support-file step the whole run stops there.
    Value closing = closingItem({"x10"});
    int result = -1;
    loggedDuring([&] { result = stripper->stripCommonWork(closing); });
    EXPECT_EQ(result, 1);
}

TEST_F(LegacyBundleContent, ASingleOtherImageBecomesTheRestoreToolsImage) {
    file("Tools-1.dmg");
    file("._Tools-1.dmg");
    auto stripper = engine();
    EXPECT_EQ(run("stripRestoreTools:", *stripper),
              "!!! WARNING: assuming single disk image \"Tools-1.dmg\" at root is the RestoreTools disk image.\n");
    EXPECT_EQ(lastKept(*stripper), std::vector<std::string>{"Tools-1.dmg"});
    Value files = lastModified(*stripper);
    ASSERT_TRUE(files.get("RestoreTools.dmg").isData());
    EXPECT_EQ(files.get("RestoreTools.dmg").asData()->bytes, "Tools-1.dmg");
}

TEST_F(LegacyBundleContent, APlainRestoreToolsImageAloneKeepsNothing) {
    file("RestoreTools.dmg");
    auto stripper = engine();
    EXPECT_EQ(run("stripRestoreTools:", *stripper), "");
    EXPECT_EQ(stripper->strippedManifestsList().count(), 0u);
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyBundleContent, LinksAndTheirTargetsDropOutAndTheRestIsKept) {
    file("A.dmg");
    file("b.DMG");
    file("Diag-1.dmg");
    link("HomeDiagnostic.dmg", "Diag-1.dmg");
    auto stripper = engine();
    EXPECT_EQ(run("stripRestoreTools:", *stripper),
              "!!! WARNING: unable to identify the RestoreTools disk image as there are 2 disk images left in bundle root - "
              "including them all - A.dmg, b.DMG.\n");
    EXPECT_EQ(lastKept(*stripper), (std::vector<std::string>{"A.dmg", "b.DMG"}));
}

// ---- invisibles ----

TEST_F(LegacyBundleContent, InvisibleFoldersGoWithEverythingBelowThem) {
    file("Debug/.svn/entries");
    file("Debug/DS_Store");
    file("x/.bc_cache/data");
    file("Debug/.DS_Store");
    auto stripper = engine();
    stripper->setStrippedManifest(strings({"Debug", "Debug/.DS_Store", "Debug/.svn", "Debug/.svn/entries", "Debug/DS_Store",
                                           "x", "x/.bc_cache"}));
    EXPECT_EQ(run("stripInvisibles:", *stripper), "--- invisibles scrub 5 items.\n");
    EXPECT_EQ(texts(stripper->strippedManifest()), (std::vector<std::string>{"Debug", "Debug/DS_Store", "x"}));
}

TEST_F(LegacyBundleContent, TheSvnFolderAndItsEntryCountTwo) {
    file("Debug/.svn/entries");
    auto stripper = engine();
    stripper->setStrippedManifest(strings({"Debug", "Debug/.svn", "Debug/.svn/entries"}));
    EXPECT_EQ(run("stripInvisibles:", *stripper), "--- invisibles scrub 2 items.\n");
    EXPECT_EQ(texts(stripper->strippedManifest()), std::vector<std::string>{"Debug"});
}

TEST_F(LegacyBundleContent, NothingInvisibleSaysNothing) {
    auto stripper = engine();
    stripper->setStrippedManifest(strings({"Restore"}));
    EXPECT_EQ(run("stripInvisibles:", *stripper), "");
    EXPECT_EQ(texts(stripper->strippedManifest()), std::vector<std::string>{"Restore"});
}

TEST_F(LegacyBundleContent, AnInvisibleNameTheBundleLacksStays) {
    // Only listed paths are scrubbed by name; a ".BC_" path goes in any case.
    auto stripper = engine();
    stripper->setStrippedManifest(strings({"elsewhere/.DS_Store", "elsewhere/.BC_x"}));
    EXPECT_EQ(run("stripInvisibles:", *stripper), "--- invisibles scrub 1 items.\n");
    EXPECT_EQ(texts(stripper->strippedManifest()), std::vector<std::string>{"elsewhere/.DS_Store"});
}
