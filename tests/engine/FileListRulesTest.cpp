// The rules by which a request's files are found, on a bundle listed in memory.
#include <gtest/gtest.h>

#include <set>

#include "TestSupport.hpp"
#include "engine/FileListRules.hpp"
#include "support/LogObject.hpp"

using namespace whittle;
using whittle::test::loggedDuring;

namespace {

// A bundle that is only a list of paths; kept paths are recorded without their parents.
class ListedBundle : public BundleView {
public:
    explicit ListedBundle(std::set<std::string> paths) : paths_(std::move(paths)) {}

    std::vector<std::string> directEntries(const std::string& folder) override { return below(folder, false); }
    std::vector<std::string> everythingBelow(const std::string& folder) override { return below(folder, true); }
    void keep(const std::string& path) override { kept.insert(path); }

    std::set<std::string> kept;

private:
    std::vector<std::string> below(const std::string& folder, bool deep) const {
        std::vector<std::string> found;
        std::string prefix = folder + "/";
        for (const auto& path : paths_) {
            if (!path.starts_with(prefix)) continue;
            if (deep || path.find('/', prefix.size()) == std::string::npos) found.push_back(path);
        }
        return found;
    }

    std::set<std::string> paths_;
};

class FileListRules : public testing::Test {
protected:
    void SetUp() override { LogObject::sharedLogger().setUseTTY(false); }

    static Value item(const char* variant = "repair") {
        Value item = Value::dictionary();
        item.set("workProduct", Value::string("x10"));
        item.set("workProcessorID", Value::string("soc100x"));
        item.set("workVariant", Value::string(variant));
        return item;
    }

    static Value manifestEntry(const std::string& path) {
        Value info = Value::dictionary();
        info.set("Path", Value::string(path));
        Value entry = Value::dictionary();
        entry.set("Info", info);
        return entry;
    }

    static Value identity(std::initializer_list<std::pair<const char*, std::string>> items, const Value& contents) {
        Value manifest = Value::dictionary();
        for (const auto& [key, path] : items) manifest.set(key, manifestEntry(path));
        Value info = Value::dictionary();
        info.set("DeviceClass", Value::string("x10ap"));
        info.set("Variant", Value::string("Repair - Shipping Settings"));
        info.set("VariantContents", contents);
        Value identity = Value::dictionary();
        identity.set("Info", info);
        identity.set("Manifest", manifest);
        return identity;
    }
};

}  // namespace

TEST_F(FileListRules, ExpectedImageNamesFollowTheProductAndProcessor) {
    Value contents = Value::dictionary();
    contents.set("SystemImage", Value::string("-Customer"));
    contents.set("RestoreRamDisk", Value::string("-Ramdisk"));
    contents.set("RestoreKernelCache", Value::string("Release"));
    contents.set("InstalledKernelCache", Value::string("Development"));
    EXPECT_EQ(expectedImageName("OS", item(), contents), "X10-Customer.dmg");
    EXPECT_EQ(expectedImageName("RestoreRamDisk", item(), contents), "c1-Ramdisk.dmg");
    EXPECT_EQ(expectedImageName("RestoreKernelCache", item(), contents), "kernelcache.release.x10");
    EXPECT_EQ(expectedImageName("KernelCache", item(), contents), "kernelcache.development.x10");
    EXPECT_EQ(expectedImageName("iBoot", item(), contents), "");
    EXPECT_EQ(expectedImageName("OS", item(), Value::dictionary()), "");
}

TEST_F(FileListRules, ManifestItemsAreKeptFromRestoreWithLinksForOtherNames) {
    Value contents = Value::dictionary();
    contents.set("SystemImage", Value::string("-Customer"));
    Value chosen = identity({{"OS", "os-123.dmg"},
                             {"LLB", "Firmware/all_flash/all_flash.x10ap.production/LLB.img3"},
                             {"Bad", "./oops.bin"}},
                            contents);
    ListedBundle bundle({});
    Value links = Value::dictionary();
    std::set<std::string> images, caches, ramDisks;
    ManifestImageSets sets{images, caches, ramDisks};
    std::string log = loggedDuring([&] { keepManifestItems(item(), chosen, bundle, links, &sets); });
    EXPECT_EQ(bundle.kept, (std::set<std::string>{"Restore/os-123.dmg",
                                                  "Restore/Firmware/all_flash/all_flash.x10ap.production/LLB.img3",
                                                  "Restore/Firmware/all_flash/all_flash.x10ap.production/manifest"}));
    EXPECT_EQ(links.get("Restore/X10-Customer.dmg").asData()->bytes, "os-123.dmg");
    EXPECT_EQ(links.count(), 1u);
    EXPECT_EQ(images, (std::set<std::string>{"os-123.dmg"}));
    EXPECT_NE(log.find("malformed manifest item ./oops.bin"), std::string::npos) << log;
}

TEST_F(FileListRules, OperatingSystemSkippedForVariantsThatInstallNone) {
    ListedBundle bundle({});
    Value links = Value::dictionary();
    std::string log = loggedDuring([&] {
        keepManifestItems(item("nandnuker"), identity({{"OS", "os.dmg"}}, Value::dictionary()), bundle, links, nullptr);
    });
    EXPECT_TRUE(bundle.kept.empty());
    EXPECT_NE(log.find("--- skipping x10ap"), std::string::npos) << log;
}

TEST_F(FileListRules, ManifestBasebandByPrefixOrAnError) {
    ListedBundle bundle({"Restore/Firmware/RDX0-1.bbfw", "Restore/Firmware/RDX9.bbfw", "Restore/Firmware/sub/RDX0-2.bbfw"});
    Value chosen = identity({}, Value::dictionary());
    std::string log = loggedDuring([&] { EXPECT_EQ(keepManifestBaseband("x10", chosen, bundle), 0); });
    EXPECT_EQ(bundle.kept, (std::set<std::string>{"Restore/Firmware/RDX0-1.bbfw"}));
    EXPECT_EQ(log, "+++ BuildManifest.plist BasebandFirmware found RDX0-1.bbfw.\n");

    ListedBundle empty({});
    log = loggedDuring([&] { EXPECT_EQ(keepManifestBaseband("x10", chosen, empty), 1); });
    EXPECT_EQ(log, "XXX ERROR found no BasebandFirmware files with prefixes RDX0.\n");
}

TEST_F(FileListRules, UnpersonalizedKernelCachesOfTheProductOrProcessorAndKind) {
    ListedBundle bundle({"Restore/kernelcache.release.x10", "Restore/kernelcache.release.soc100x",
                         "Restore/kernelcache.release.soc100xfpga", "Restore/kernelcache.debug.x10",
                         "Restore/kernelcache.release.x20"});
    Value request = item();
    request.set("workKernelCachesList", Value::stringArray({"Release"}));
    std::vector<std::string> found;
    std::string log = loggedDuring([&] { EXPECT_TRUE(keepUnpersonalizedKernelCaches(request, bundle, found)); });
    EXPECT_EQ(bundle.kept, (std::set<std::string>{"Restore/kernelcache.release.soc100x", "Restore/kernelcache.release.x10"}));
    EXPECT_EQ(found.size(), 2u);

    ListedBundle none({"Restore/kernelcache.release.x20"});
    found.clear();
    log = loggedDuring([&] { EXPECT_FALSE(keepUnpersonalizedKernelCaches(request, none, found)); });
    EXPECT_EQ(log, "XXX ERROR no matching kernelcache found in bundle for x10 soc100x.\n");
}

TEST_F(FileListRules, UnpersonalizedFoldersOfTheDeviceAndKindWithEverythingInside) {
    ListedBundle bundle({"Restore/Firmware/dfu/x10ap.RELEASE", "Restore/Firmware/dfu/x10ap.RELEASE/iBSS.img3",
                         "Restore/Firmware/dfu/x10ap.DEBUG", "Restore/Firmware/dfu/x20ap.RELEASE"});
    Value request = item();
    request.set("workDFUTypesList", Value::stringArray({"RELEASE"}));
    Value classes = Value::stringArray({"x10ap"});
    std::string log = loggedDuring([&] {
        EXPECT_TRUE(keepUnpersonalizedFolders(request, classes, "Restore/Firmware/dfu", "workDFUTypesList", "dfu", bundle));
    });
    EXPECT_EQ(bundle.kept, (std::set<std::string>{"Restore/Firmware/dfu/x10ap.RELEASE",
                                                  "Restore/Firmware/dfu/x10ap.RELEASE/iBSS.img3"}));
    EXPECT_EQ(log, "+++ Restore dfu found x10ap.RELEASE.\n");

    ListedBundle empty({});
    log = loggedDuring([&] {
        EXPECT_FALSE(keepUnpersonalizedFolders(request, classes, "Restore/Firmware/dfu", "workDFUTypesList", "dfu", empty));
    });
    EXPECT_EQ(log, "XXX ERROR no dfu found in bundle.\n");
}

TEST_F(FileListRules, UnpersonalizedFoldersWithoutKindsLeaveDebugOnesOut) {
    ListedBundle bundle({"Restore/Firmware/all_flash/x10ap.production", "Restore/Firmware/all_flash/x10ap.debug"});
    std::string log = loggedDuring([&] {
        EXPECT_TRUE(keepUnpersonalizedFolders(item(), Value::stringArray({"x10ap"}), "Restore/Firmware/all_flash",
                                              "workFirmwareTypesList", "all_flash", bundle));
    });
    EXPECT_EQ(bundle.kept, (std::set<std::string>{"Restore/Firmware/all_flash/x10ap.production"}));
}

TEST_F(FileListRules, UnpersonalizedBasebandByPrefix) {
    ListedBundle bundle({"Restore/Firmware/RDX0-7.bbfw", "Restore/Firmware/other.bin"});
    std::string log = loggedDuring([&] { EXPECT_TRUE(keepUnpersonalizedBaseband("x10", bundle)); });
    EXPECT_EQ(bundle.kept, (std::set<std::string>{"Restore/Firmware/RDX0-7.bbfw"}));
    EXPECT_EQ(log, "+++ Restore.plist BasebandFirmware found RDX0-7.bbfw.\n");
    ListedBundle empty({});
    log = loggedDuring([&] { EXPECT_FALSE(keepUnpersonalizedBaseband("x10", empty)); });
    EXPECT_EQ(log, "XXX ERROR found no BasebandFirmware files with prefixes RDX0.\n");
}
