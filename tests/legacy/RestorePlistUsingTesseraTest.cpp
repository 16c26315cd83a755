// Restore.plist cut down per work item: kernel caches, RAM disks, system images and
// supported product types of one product, processor, model list, kernel-cache kinds
// and system image type.
#include "LegacyTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class RestorePlistUsingTessera : public LegacyTest {
protected:
    static Value item(const std::vector<std::string>& kernelCaches, const char* systemImageType = "User") {
        Value result = dict({{"workProduct", Value::string("x10")},
                             {"workProcessorID", Value::string("soc100x")},
                             {"workDeviceClass", Value::string("x10ap")},
                             {"workVariant", Value::string("repair")},
                             {"workModelList", strings({"Handset1,1"})}});
        if (!kernelCaches.empty()) result.set("workKernelCachesList", strings(kernelCaches));
        if (systemImageType) result.set("workSystemImageType", Value::string(systemImageType));
        return result;
    }

    void writeFullRestorePlist() {
        writePlist("Restore/Restore.plist",
                   dict({{"KernelCachesByTarget",
                          dict({{"X10", dict({{"Release", Value::string("kc.release.x10")},
                                              {"Development", Value::string("kc.development.x10")}})},
                                {"x20", dict({{"Release", Value::string("kc.release.x20")}})}})},
                         {"KernelCachesByPlatform",
                          dict({{"SOC100X", dict({{"Release", Value::string("kc.release.soc100x")}})},
                                {"board-soc100x-fpga", dict({{"Release", Value::string("kc.release.fpga")}})},
                                {"soc200x", dict({{"Release", Value::string("kc.release.soc200x")}})}})},
                         {"RamDisksByPlatform",
                          dict({{"soc100x", dict({{"user", Value::string("rd-user.dmg")}, {"update", Value::string("rd-update.dmg")}})},
                                {"soc200x", dict({{"user", Value::string("rd-other.dmg")}})}})},
                         {"SystemRestoreImagesByTarget",
                          dict({{"x10", dict({{"User", Value::string("os-user.dmg")}, {"Internal", Value::string("os-internal.dmg")}})},
                                {"x20", dict({{"User", Value::string("os-x20.dmg")}})}})},
                         {"SupportedProductTypes", strings({"Handset1,1", "Slate3,1"})},
                         {"ProductVersion", Value::string("1.0")}}));
        for (const char* name : {"kc.release.x10", "kc.release.soc100x", "kc.release.fpga", "rd-user.dmg", "os-user.dmg"}) {
            file(std::string("Restore/") + name);
        }
    }

    // Runs the operation for the item and answers the Restore.plist it produced.
    Value cut(Stripper2& stripper, const Value& workItem, std::string* log = nullptr) {
        std::size_t before = stripper.modifiedFilesList().count();
        int result = -1;
        std::string said = loggedDuring([&] { result = stripper.stripRestorePlistUsingTessera(workItem); });
        EXPECT_EQ(result, 0);
        if (log) *log = said;
        if (stripper.modifiedFilesList().count() == before) return {};
        EXPECT_EQ(stripper.modifiedFilesList().count(), before + 1);
        Value files = lastModified(stripper);
        EXPECT_EQ(files.count(), 1u);
        return files.get("Restore/Restore.plist");
    }
};

}  // namespace

TEST_F(RestorePlistUsingTessera, KernelCacheEntriesOfTheProductOrProcessorAreKept) {
    writeFullRestorePlist();
    auto stripper = engine();
    Value plist = cut(*stripper, item({"Release"}));
    ASSERT_TRUE(plist.isDictionary());
    // A target entry named after the product in other letter case, and platform entries
    // whose names hold the processor's name anywhere.
    EXPECT_EQ(keysSortedIgnoringCase(plist.get("KernelCachesByTarget")), std::vector<std::string>{"X10"});
    EXPECT_EQ(keysSortedIgnoringCase(plist.get("KernelCachesByPlatform")),
              (std::vector<std::string>{"board-soc100x-fpga", "SOC100X"}));
    EXPECT_EQ(keysSortedIgnoringCase(plist.get("KernelCachesByTarget").get("X10")), std::vector<std::string>{"Release"});
    EXPECT_EQ(plist.get("ProductVersion").text(), "1.0");
}

TEST_F(RestorePlistUsingTessera, WithoutKernelCacheKindsEveryKindStaysUnwarned) {
    writeFullRestorePlist();
    file("Restore/kc.development.x10");
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({}), &log);
    EXPECT_EQ(keysSortedIgnoringCase(plist.get("KernelCachesByTarget").get("X10")),
              (std::vector<std::string>{"Development", "Release"}));
    EXPECT_FALSE(contains(log, "missing reference to kernelcache")) << log;
}

TEST_F(RestorePlistUsingTessera, AKeptKindWhoseFileIsMissingIsKeptAndWarnedAbout) {
    writeFullRestorePlist();
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({"Release", "Development"}), &log);
    EXPECT_TRUE(plist.get("KernelCachesByTarget").get("X10").get("Development").equals(Value::string("kc.development.x10")));
    EXPECT_TRUE(contains(log, "!!! WARNING: Restore.plist KernelCachesByTarget X10 Development missing \"kc.development.x10\" from bundle.\n"))
        << log;
}

TEST_F(RestorePlistUsingTessera, FindingsRepeatAfterEveryMatchingEntryOfATable) {
    writePlist("Restore/Restore.plist",
               dict({{"KernelCachesByPlatform",
                      dict({{"soc100x", dict({{"Release", Value::string("a")}, {"Development", Value::string("b")}})},
                            {"soc100x-fpga", dict({{"Release", Value::string("sub/c")}})},
                            {"soc200x", dict({{"Release", Value::string("d")}})}})}}));
    file("Restore/a");
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({"Release", "Research"}), &log);
    EXPECT_EQ(log,
              "+++ Restore.plist found KernelCachesByPlatform soc100x (Release).\n"
              "--- Restore.plist scrub KernelCachesByPlatform soc100x (Development).\n"
              "!!! WARNING: Restore.plist KernelCachesByPlatform soc100x missing reference to kernelcache Research.\n"
              "!!! WARNING: Restore.plist KernelCachesByPlatform soc100x-fpga Release missing \"c\" from bundle.\n"
              "+++ Restore.plist found KernelCachesByPlatform soc100x (Release), soc100x-fpga (Release).\n"
              "--- Restore.plist scrub KernelCachesByPlatform soc100x (Development).\n"
              "!!! WARNING: Restore.plist KernelCachesByPlatform soc100x-fpga missing reference to kernelcache Research.\n"
              "!!! WARNING: Restore.plist RamDisksByPlatform has no reference to soc100x.\n"
              "!!! WARNING: Restore.plist SystemRestoreImagesByTarget has no reference to soc100x.\n"
              "!!! WARNING: Restore.plist SupportedProductTypes has no reference to Handset1,1.\n");
    EXPECT_TRUE(plist.get("KernelCachesByPlatform").get("soc200x").isNone());
    EXPECT_TRUE(plist.get("KernelCachesByPlatform").get("soc100x").get("Development").isNone());
    // Tables the bundle lacks: images and models are set anyway, the others stay absent.
    EXPECT_TRUE(plist.get("SystemRestoreImagesByTarget").isDictionary());
    EXPECT_EQ(plist.get("SupportedProductTypes").count(), 0u);
    EXPECT_TRUE(plist.get("RamDisksByPlatform").isNone());
}

TEST_F(RestorePlistUsingTessera, RamDisksOfTheProcessorStayWhole) {
    writeFullRestorePlist();
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({"Release"}), &log);
    EXPECT_EQ(keysSortedIgnoringCase(plist.get("RamDisksByPlatform")), std::vector<std::string>{"soc100x"});
    EXPECT_EQ(plist.get("RamDisksByPlatform").get("soc100x").count(), 2u);
    EXPECT_TRUE(contains(log, "+++ Restore.plist found RamDisksByPlatform soc100x.\n")) << log;
    EXPECT_TRUE(contains(log, "--- Restore.plist scrub RamDisksByPlatform soc200x.\n"));
    EXPECT_TRUE(contains(log, "!!! WARNING: Restore.plist RamDisksByPlatform cannot find RAMdisk file soc100x update \"rd-update.dmg\".\n"));
    EXPECT_FALSE(contains(log, "rd-user.dmg"));
}

TEST_F(RestorePlistUsingTessera, SystemImagesOfTheProductAndTypeOnly) {
    writeFullRestorePlist();
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({"Release"}, "User"), &log);
    Value images = plist.get("SystemRestoreImagesByTarget");
    EXPECT_EQ(keysSortedIgnoringCase(images), std::vector<std::string>{"x10"});
    EXPECT_EQ(keysSortedIgnoringCase(images.get("x10")), std::vector<std::string>{"User"});
    EXPECT_TRUE(contains(log, "+++ Restore.plist found SystemRestoreImagesByTarget x10 (User).\n")) << log;
    EXPECT_TRUE(contains(log, "--- Restore.plist scrub SystemRestoreImagesByTarget x10 (Internal), x20.\n")) << log;

    // A type that no entry has leaves the target empty, and the message names the processor.
    plist = cut(*stripper, item({"Release"}, ""), &log);
    EXPECT_EQ(plist.get("SystemRestoreImagesByTarget").get("x10").count(), 0u);
    EXPECT_TRUE(contains(log, "!!! WARNING: Restore.plist SystemRestoreImagesByTarget has no reference to soc100x.\n"));
}

TEST_F(RestorePlistUsingTessera, WithoutASystemImageTypeTheTargetKeepsEveryType) {
    writeFullRestorePlist();
    auto stripper = engine();
    Value plist = cut(*stripper, item({"Release"}, nullptr));
    EXPECT_EQ(keysSortedIgnoringCase(plist.get("SystemRestoreImagesByTarget").get("x10")),
              (std::vector<std::string>{"Internal", "User"}));
}

TEST_F(RestorePlistUsingTessera, SupportedProductTypesAreTheItemsModels) {
    writeFullRestorePlist();
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({"Release"}), &log);
    EXPECT_EQ(texts(plist.get("SupportedProductTypes")), std::vector<std::string>{"Handset1,1"});
    EXPECT_TRUE(contains(log, "+++ Restore.plist found SupportedProductTypes Handset1,1.\n"));
    EXPECT_TRUE(contains(log, "--- Restore.plist scrub SupportedProductTypes Slate3,1.\n"));
}

TEST_F(RestorePlistUsingTessera, AnUnknownProductKeepsNothingOfItsProcessor) {
    writeFullRestorePlist();
    auto stripper = engine();
    Value unknown = dict({{"workProduct", Value::string("zz9")}});
    std::string log;
    Value plist = cut(*stripper, unknown, &log);
    EXPECT_EQ(plist.get("KernelCachesByPlatform").count(), 0u);
    EXPECT_EQ(plist.get("RamDisksByPlatform").count(), 0u);
    EXPECT_TRUE(contains(log, "!!! WARNING: Restore.plist RamDisksByPlatform has no reference to (null).\n")) << log;
}

TEST_F(RestorePlistUsingTessera, TwoVariantsOfOneProductDifferOnlyInKindsAndTypesAndMergeIntoOne) {
    writeFullRestorePlist();
    auto stripper = engine();
    Value release = cut(*stripper, item({"Release"}, "User"));
    Value development = cut(*stripper, item({"Development"}, "Internal"));
    EXPECT_TRUE(release.get("RamDisksByPlatform").equals(development.get("RamDisksByPlatform")));
    EXPECT_TRUE(release.get("SupportedProductTypes").equals(development.get("SupportedProductTypes")));
    EXPECT_FALSE(release.get("KernelCachesByTarget").equals(development.get("KernelCachesByTarget")));
    int result = -1;
    loggedDuring([&] { result = stripper->mergeModifiedFiles(); });
    ASSERT_EQ(result, 0);
    Value merged = stripper->modifiedFiles().get("Restore/Restore.plist");
    EXPECT_EQ(keysSortedIgnoringCase(merged.get("KernelCachesByTarget").get("X10")),
              (std::vector<std::string>{"Development", "Release"}));
    EXPECT_EQ(keysSortedIgnoringCase(merged.get("SystemRestoreImagesByTarget").get("x10")),
              (std::vector<std::string>{"Internal", "User"}));
}

TEST_F(RestorePlistUsingTessera, WithoutRestorePlistOneWarningAndNothingAppended) {
    auto stripper = engine();
    std::string log;
    Value plist = cut(*stripper, item({"Release"}), &log);
    EXPECT_TRUE(plist.isNone());
    EXPECT_EQ(log, "!!! WARNING: Restore.plist cannot be read.\n");
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(RestorePlistUsingTessera, ValuesOfTheWrongKindAreTreatedAsAbsent) {
    writePlist("Restore/Restore.plist",
               dict({{"KernelCachesByTarget", Value::string("odd")},
                     {"KernelCachesByPlatform", dict({{"soc100x", Value::integer(3)}})},
                     {"RamDisksByPlatform", Value::array()},
                     {"SystemRestoreImagesByTarget", dict({{"x10", Value::boolean(true)}})},
                     {"SupportedProductTypes", dict({{"a", Value::integer(1)}})}}));
    auto stripper = engine();
    Value plist = cut(*stripper, item({"Release"}));
    ASSERT_TRUE(plist.isDictionary());
    EXPECT_EQ(plist.get("KernelCachesByTarget").text(), "odd");
    EXPECT_EQ(plist.get("SystemRestoreImagesByTarget").get("x10").count(), 0u);
    EXPECT_EQ(plist.get("SupportedProductTypes").count(), 0u);
}
