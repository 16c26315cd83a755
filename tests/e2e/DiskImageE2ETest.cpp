// Runs the built whittle with disk images: sources mounted and ejected, image targets.
#include <gtest/gtest.h>

#include <filesystem>

#include "BundleGenerator.hpp"
#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

const std::string kVolumes = WHITTLE_VOLUMES_DIR;
const std::string kDiskImageTool = WHITTLE_DISKIMAGE_BINARY;

class WhittleDiskImage : public testing::Test {
protected:
    void SetUp() override {
        // Each test's bundle folder has a name of its own, which becomes its volume name.
        volumeName = "bundle" + std::to_string(::getpid()) + std::to_string(counter++);
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(dir / volumeName, plan);
        auto created = runProgram({kDiskImageTool, "create", "-srcfolder", dir / volumeName, dir / "source.dmg", "-format", "UDRO"});
        ASSERT_EQ(created.status, 0) << created.err;
    }

    void TearDown() override {
        // Detach whatever a failed test left attached.
        for (const auto& device : attachedDevices) runProgram({kDiskImageTool, "eject", device});
    }

    ProgramResult whittle(std::vector<std::string> arguments) {
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        return runWhittle(arguments, options);
    }

    std::string mountPoint() const { return kVolumes + "/" + volumeName; }

    TempDir dir;
    std::string volumeName;
    std::vector<std::string> attachedDevices;
    static inline int counter = 0;
    const std::vector<std::string> request{"--product", "x10", "--factory", "repair"};
};

}  // namespace

TEST_F(WhittleDiskImage, SourceImageIsMountedValidatedAndEjected) {
    auto result = whittle(plus({dir / "source.dmg"}, request));
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_TRUE(contains(result.out, "!!! NOTE: image mounted at: " + mountPoint() + ".\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "Validation PASSED.\n"));
    std::string log = readWhittleLog();
    EXPECT_TRUE(contains(log, ">>> mounting disk image \"" + dir / "source.dmg" + "\".\n"));
    EXPECT_TRUE(contains(log, ">>> unmounting disk image.\n"));
    EXPECT_FALSE(pathExists(mountPoint()));
}

TEST_F(WhittleDiskImage, SourceEndingInCapitalDmgIsMountedToo) {
    fs::rename(dir / "source.dmg", dir / "SOURCE.DMG");
    auto result = whittle(plus({dir / "SOURCE.DMG"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(contains(result.out, "!!! NOTE: image mounted at: ")) << result.out;
    EXPECT_FALSE(pathExists(mountPoint()));
}

TEST_F(WhittleDiskImage, PreviouslyAttachedImageIsUsedInPlaceAndLeftAttached) {
    auto attached = runProgram({kDiskImageTool, "attach", dir / "source.dmg", "-plist"});
    ASSERT_EQ(attached.status, 0) << attached.err;
    Value entities = parsePropertyList(attached.out).get("system-entities");
    for (const auto& entity : entities.elements()) {
        if (!entity.get("mount-point").isNone()) attachedDevices.emplace_back(entity.get("dev-entry").text());
    }
    ASSERT_TRUE(pathExists(mountPoint()));
    auto result = whittle(plus({dir / "source.dmg"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(contains(result.out, "!!! NOTE: image previously mounted at: " + mountPoint() + ".\n")) << result.out;
    EXPECT_FALSE(contains(readWhittleLog(), ">>> unmounting disk image."));
    EXPECT_TRUE(pathExists(mountPoint() + "/Restore/BuildManifest.plist"));
}

TEST_F(WhittleDiskImage, ImageToImage) {
    auto result = whittle(plus({dir / "source.dmg", dir / "out.dmg"}, request));
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_TRUE(contains(result.out, "Checksum Type: CRC32\nChecksum Value: $")) << result.out;
    EXPECT_FALSE(pathExists(mountPoint()));
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with("Whittle.")) << entry.path();
    }
    auto listing = runProgram({"/usr/bin/7zz", "l", "-slt", dir / "out.dmg"});
    EXPECT_TRUE(contains(listing.out, "Restore/BuildManifest.plist")) << listing.out;
    EXPECT_TRUE(contains(listing.out, "WhittleCookie.plist"));
    EXPECT_TRUE(contains(listing.out, "Restore/X10UserOS.dmg"));
    EXPECT_FALSE(contains(listing.out, "Debug/symbols.txt"));
}

TEST_F(WhittleDiskImage, DamagedSourceImageCannotBeMounted) {
    writeFile(dir / "broken.dmg", std::string(8192, 'x'));
    auto result = whittle(plus({dir / "broken.dmg"}, request));
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: unable to mount source disk image: " + dir / "broken.dmg" + ".\n"))
        << result.out;
    EXPECT_FALSE(contains(result.out, "Validation"));
    EXPECT_FALSE(contains(readWhittleLog(), ">>> unmounting disk image."));
}

TEST_F(WhittleDiskImage, EncryptedTargetWithoutATerminalFailsAndLeavesNothing) {
    auto result = whittle(plus({dir / volumeName, dir / "secret.dmg", "--encrypt"}, request));
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: unable to create final disk image.\n")) << result.out;
    EXPECT_FALSE(pathExists(dir / "secret.dmg"));
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with("Whittle.")) << entry.path();
    }
}

TEST_F(WhittleDiskImage, EncryptIsIgnoredByOtherTargets) {
    auto result = whittle(plus({dir / volumeName, dir / "plain", "--encrypt"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(pathExists(dir / "plain/Restore/Restore.plist"));
}

TEST_F(WhittleDiskImage, ValidVariantsOfAnImage) {
    auto result = whittle({dir / "source.dmg", "--validVariants", "--product", "x10"});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(contains(result.out, "<string>repair</string>"));
    EXPECT_FALSE(pathExists(mountPoint()));
}

TEST_F(WhittleDiskImage, EncryptedTargetAsksForThePassphraseOnTheTerminal) {
    auto result = runInNewSession(plus({whittleBinary(), dir / volumeName, dir / "secret.dmg", "--encrypt"}, request),
                                  std::vector<std::string>{"open sesame", "open sesame", "open sesame"});
    EXPECT_EQ(result.status, 0) << result.out << result.err << result.terminal;
    // Twice to make the image (new, confirm); its checksum is read without the key.
    EXPECT_EQ(result.promptsAnswered, 2);
    EXPECT_TRUE(contains(result.out, "Checksum Type: CRC32\n")) << result.out;
    ASSERT_TRUE(pathExists(dir / "secret.dmg"));
    EXPECT_EQ(readFile(dir / "secret.dmg").substr(0, 8), "encrcdsa");
    auto attached = runInNewSession({kDiskImageTool, "attach", dir / "secret.dmg", "-plist"}, std::vector<std::string>{"open sesame"});
    ASSERT_EQ(attached.status, 0) << attached.err << attached.terminal;
    Value entity = mountedEntityOf(systemEntitiesOf(attached.out));
    std::string mounted(entity.get("mount-point").text());
    EXPECT_TRUE(pathExists(mounted + "/Restore/BuildManifest.plist")) << mounted;
    EXPECT_EQ(runProgram({kDiskImageTool, "eject", std::string(entity.get("dev-entry").text())}).status, 0);
}
