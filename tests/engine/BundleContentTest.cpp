// Support material at the bundle root, kept or scrubbed.
#include "EngineTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class BundleContent : public EngineTest {
protected:
    // Runs the step a work selector names, as the work list would.
    std::string run(std::string_view selector, const Value& options = Value::dictionary(),
                    const Value& item = Value::dictionary()) {
        stripper = engine({"x10"}, {"repair"}, options);
        auto step = Stripper3::operationNamed(selector);
        if (!step) {
            ADD_FAILURE() << "no operation " << selector;
            return {};
        }
        return loggedDuring([&] { EXPECT_EQ(step(*stripper, item), 0); });
    }

    static Value archiveItem(std::vector<std::string> products, std::vector<std::string> personalizations) {
        Value item = Value::dictionary();
        ValueArray names, variants;
        for (const auto& p : products) names.push_back(Value::string(p));
        for (const auto& v : personalizations) variants.push_back(Value::string(v));
        item.set("workAllProducts", Value::setOf(names));
        item.set("workAllPersonalizationVariants", Value::setOf(variants));
        return item;
    }

    void link(const std::string& name, const std::string& target) {
        std::filesystem::create_directories(root());
        std::filesystem::create_symlink(target, at(name));
    }

    std::unique_ptr<Stripper3> stripper;
};

}  // namespace

TEST_F(BundleContent, DebugFolderOnlyWhenAsked) {
    writeFile(at("Debug/a.txt"), "a");
    writeFile(at("Debug/sub/b.txt"), "b");
    EXPECT_EQ(run("stripDebugFolder:"), "");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
    EXPECT_EQ(run("stripDebugFolder:", options({"keepDebug"})), "+++ Debug folder found 2 items.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"Debug/a.txt", "Debug/sub"}));
}

TEST_F(BundleContent, BundleImagesOnlyWhenAsked) {
    writeFile(at("BundleImages/a.png"), "a");
    EXPECT_EQ(run("stripBundleImages:", options({"keepBundleImages"})), "+++ BundleImages found 1 items.\n");
    EXPECT_TRUE(keeps(*stripper, "BundleImages/a.png"));
    EXPECT_EQ(run("stripBundleImages:", options({"keepDebug"})), "");
}

TEST_F(BundleContent, HomeDiagnosticsLinkKeepsLinkAndTarget) {
    writeFile(at("HomeDiag-2.dmg"), "d");
    link("HomeDiagnostic.dmg", "HomeDiag-2.dmg");
    EXPECT_EQ(run("stripHomeDiags:", options({"keepHomeDiagnostics"})), "+++ HomeDiagnostics found.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"HomeDiag-2.dmg", "HomeDiagnostic.dmg"}));
}

TEST_F(BundleContent, HomeDiagnosticsAsPlainFileIsNotKeptAndNotMentioned) {
    writeFile(at("HomeDiagnostic.dmg"), "d");
    EXPECT_EQ(run("stripHomeDiags:", options({"keepHomeDiagnostics"})), "");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
}

TEST_F(BundleContent, SdkLinkNamesItsTarget) {
    writeFile(at("SDK-1.dmg"), "s");
    link("HandsetSDKInternalNonUI.dmg", "SDK-1.dmg");
    EXPECT_EQ(run("stripSDKs:", options({"keepSDK"})), "+++ NonUI SDK found \"SDK-1.dmg\".\n");
    EXPECT_TRUE(keeps(*stripper, "SDK-1.dmg"));
    EXPECT_EQ(run("stripSDKs:"), "");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
}

TEST_F(BundleContent, FactoryImageNeedsItsSignature) {
    writeFile(at("FactoryDiskImage.dmg"), "f");
    EXPECT_EQ(run("stripFactoryDiskImage:"),
              "+++ Either FactoryDiskImage or signature file is missing. Include non of them.\n");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
    writeFile(at("FactoryDiskImage.dmg.signature"), "s");
    EXPECT_EQ(run("stripFactoryDiskImage:"), "+++ FactoryDiskImage and signature file found.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"FactoryDiskImage.dmg", "FactoryDiskImage.dmg.signature"}));
}

TEST_F(BundleContent, FirmwareArchiveOfTheRequestedOperatingSystemMatchesAnyProduct) {
    writeFile(at("Mediadesk FWPKs/x10_VendorInternal.fwpk/payload"), "p");
    writeFile(at("Mediadesk FWPKs/x10_VendorInternal.fwpk/deep/more"), "m");
    writeFile(at("Mediadesk FWPKs/x30_1.FWPK/payload"), "p");
    std::string log = run("stripFWPKs:", options({"keepFWPKs"}), archiveItem({"x20"}, {"VendorInternalOS"}));
    EXPECT_EQ(log, "+++ FWPKs found Mediadesk FWPKs/x10_VendorInternal.fwpk.\n");
    EXPECT_EQ(stripper->copiedFilelist(),
              (KeepList{"Mediadesk FWPKs/x10_VendorInternal.fwpk/payload", "Mediadesk FWPKs/x10_VendorInternal.fwpk/deep",
                        "Mediadesk FWPKs/x10_VendorInternal.fwpk/deep/more"}));
}

TEST_F(BundleContent, FirmwareArchiveOfTheProductMatchesWithoutRegardToCase) {
    writeFile(at("Mediadesk FWPKs/X30_1.FwPk/payload"), "p");
    writeFile(at("Mediadesk FWPKs/x30_plain.FWPK"), "a file, not a folder");
    writeFile(at("Mediadesk FWPKs/x30.zip"), "z");
    std::string log = run("stripFWPKs:", options({"keepFWPKs"}), archiveItem({"x30"}, {}));
    EXPECT_EQ(log, "+++ FWPKs found Mediadesk FWPKs/X30_1.FwPk, Mediadesk FWPKs/x30_plain.FWPK.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"Mediadesk FWPKs/X30_1.FwPk/payload"}));
}

TEST_F(BundleContent, NoMatchingFirmwareArchiveWarnsWithTheFixedText) {
    writeFile(at("Mediadesk FWPKs/x30_1.FWPK/payload"), "p");
    std::string log = run("stripFWPKs:", options({"keepFWPKs"}), archiveItem({"x10"}, {"UserOS"}));
    EXPECT_EQ(log, "!!! WARNING: platform_keys.plist  () not found.\n");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
    EXPECT_EQ(run("stripFWPKs:", Value::dictionary(), archiveItem({"x30"}, {})), "");
}

TEST_F(BundleContent, RestoreToolsLinkIsKeptWithItsTarget) {
    writeFile(at("RT-9.dmg"), "r");
    link("RestoreTools.dmg", "RT-9.dmg");
    EXPECT_EQ(run("stripRestoreTools:"), "+++ RestoreTools found RT-9.dmg.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"RT-9.dmg", "RestoreTools.dmg"}));
}

TEST_F(BundleContent, PlainRestoreToolsImageAloneKeepsNothing) {
    writeFile(at("RestoreTools.dmg"), "r");
    EXPECT_EQ(run("stripRestoreTools:"), "");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
    EXPECT_EQ(stripper->modifiedFiles().count(), 0u);
}

TEST_F(BundleContent, SingleOtherImageGetsTheRestoreToolsLink) {
    writeFile(at("Tools-123.dmg"), "t");
    writeFile(at("._Tools-123.dmg"), "resource fork");
    writeFile(at("Diag-1.dmg"), "d");
    link("HomeDiagnostic.dmg", "Diag-1.dmg");
    EXPECT_EQ(run("stripRestoreTools:"),
              "!!! WARNING: assuming single disk image \"Tools-123.dmg\" at root is the RestoreTools disk image.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"Tools-123.dmg"}));
    ASSERT_TRUE(stripper->modifiedFiles().get("RestoreTools.dmg").isData());
    EXPECT_EQ(stripper->modifiedFiles().get("RestoreTools.dmg").asData()->bytes, "Tools-123.dmg");
}

TEST_F(BundleContent, TwoPlainImagesAreBothKept) {
    writeFile(at("one.dmg"), "1");
    writeFile(at("two.DMG"), "2");
    EXPECT_EQ(run("stripRestoreTools:"),
              "!!! WARNING: unable to identify the RestoreTools disk image as there are 2 disk images left in bundle "
              "root - including them all - one.dmg, two.DMG.\n");
    EXPECT_EQ(stripper->copiedFilelist(), (KeepList{"one.dmg", "two.DMG"}));
}

TEST_F(BundleContent, NoImageAtAllKeepsNothing) {
    std::filesystem::create_directories(root());
    EXPECT_EQ(run("stripRestoreTools:"),
              "!!! WARNING: unable to identify the RestoreTools disk image as there are 0 disk images left in bundle "
              "root - including them all - .\n");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
}

TEST_F(BundleContent, InvisiblesAreScrubbedByTheirOwnName) {
    generate({"x10"}, {"repair"});
    writeFile(at("Debug/DS_Store"), "not invisible");
    writeFile(at("Debug/.svn/entries"), "inside an invisible folder");
    writeFile(at("Debug/x/.bc_cache"), "invisible");
    auto stripperWithDebug = engine({"x10"}, {"repair"}, options({"keepDebug"}));
    Value item = Value::dictionary();
    std::string log = loggedDuring([&] {
        stripperWithDebug->stripDebugFolder();
        EXPECT_EQ(stripperWithDebug->stripInvisibles(), 0);
    });
    EXPECT_TRUE(contains(log, "--- invisibles scrub 2 items.\n")) << log;
    EXPECT_FALSE(keeps(*stripperWithDebug, "Debug/.DS_Store"));
    EXPECT_FALSE(keeps(*stripperWithDebug, "Debug/.svn"));
    EXPECT_TRUE(keeps(*stripperWithDebug, "Debug/DS_Store"));

    KeepList deep;
    auto second = engine({"x10"}, {"repair"});
    for (const auto& path : second->submanifestStartingAt("Debug")) deep.insert(path);
    EXPECT_TRUE(deep.contains("Debug/x/.bc_cache"));
}

TEST_F(BundleContent, NothingToScrubSaysNothing) {
    EXPECT_EQ(run("stripInvisibles:"), "");
}

TEST_F(BundleContent, WholeRunScrubsInvisiblesFromKeptMaterial) {
    generate({"x10"}, {"repair"});
    auto whole = engine({"x10"}, {"repair"}, options({"keepDebug"}));
    std::string log = loggedDuring([&] { EXPECT_EQ(whole->strip(), 0); });
    EXPECT_TRUE(contains(log, "--- invisibles scrub 1 items.\n"));
    EXPECT_TRUE(keeps(*whole, "Debug/symbols.txt"));
    EXPECT_FALSE(keeps(*whole, "Debug/.DS_Store"));
}
