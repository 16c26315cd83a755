// Runs the built whittle with targets: folders, BOM file lists and zip archives.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

class WhittleTarget : public testing::Test {
protected:
    void SetUp() override {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair", "ss"}, 1, true}, {"x30", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(source(), plan);
    }

    std::string source() const { return dir / "bundle"; }

    // Runs whittle with the Trash inside the test's folder.
    ProgramResult whittle(std::vector<std::string> arguments) {
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        return runWhittle(arguments, options);
    }

    // What a dry run says the stripped bundle copies and creates.
    void expectedContent(const std::vector<std::string>& requestArguments, std::set<std::string>& copied, std::set<std::string>& created) {
        std::vector<std::string> arguments{source()};
        arguments.insert(arguments.end(), requestArguments.begin(), requestArguments.end());
        arguments.push_back("--dryrun");
        DryRunLists lists = dryRunListsOf(whittle(arguments).out);
        copied = lists.copied;
        created = lists.created;
    }

    std::set<std::string> trashed() const {
        std::set<std::string> names;
        if (!pathExists(dir / "data/Trash/files")) return names;
        for (const auto& entry : fs::directory_iterator(dir / "data/Trash/files")) names.insert(entry.path().filename());
        return names;
    }

    const std::vector<std::string> request{"--product", "x10", "--factory", "repair"};
    TempDir dir;
};

}  // namespace

TEST_F(WhittleTarget, FolderTargetHoldsExactlyTheKeptAndCreatedFiles) {
    std::set<std::string> copied, created;
    expectedContent(request, copied, created);
    ASSERT_FALSE(copied.empty());
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    std::set<std::string> expected = withParentFolders(copied);
    for (const auto& path : withParentFolders(created)) expected.insert(path);
    EXPECT_EQ(folderTree(dir / "out"), expected);
    EXPECT_TRUE(fs::is_symlink(dir / "out/Restore/X10UserOS.dmg"));
    EXPECT_TRUE(fs::is_symlink(dir / "out/RestoreTools.dmg"));
    Value manifest = parsePropertyList(readFile(dir / "out/Restore/BuildManifest.plist"));
    EXPECT_EQ(manifest.get("BuildIdentities").count(), 1u);
    EXPECT_FALSE(parsePropertyList(readFile(dir / "out/WhittleCookie.plist")).get("rawArguments").isNone());
    EXPECT_EQ(readFile(source() + "/Restore/Firmware/RDX0-x10.bbfw"), readFile(dir / "out/Restore/Firmware/RDX0-x10.bbfw"));
}

TEST_F(WhittleTarget, NoSymLinksAndNoCookieLeaveThoseOut) {
    auto result = whittle(plus({source(), dir / "out", "--noSymLinks", "--noCookie"}, request));
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(pathExists(dir / "out/Restore/X10UserOS.dmg"));
    EXPECT_FALSE(pathExists(dir / "out/WhittleCookie.plist"));
    EXPECT_TRUE(pathExists(dir / "out/Restore/Restore.plist"));
}

TEST_F(WhittleTarget, CopiedFilesAreWritableByTheirOwner) {
    std::string firmware = source() + "/Restore/Firmware/RDX0-x10.bbfw";
    ::chmod(firmware.c_str(), 0444);
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_EQ(result.status, 0);
    struct stat info {};
    ASSERT_EQ(::stat((dir / "out/Restore/Firmware/RDX0-x10.bbfw").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0600, 0600u);
}

TEST_F(WhittleTarget, BomTargetListsExactlyTheKeptPaths) {
    std::set<std::string> copied, created;
    expectedContent(request, copied, created);
    auto result = whittle(plus({source(), dir / "out.bom"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    auto listing = runProgram({WHITTLE_BOM_BINARY, "--list", dir / "out.bom"});
    std::set<std::string> listed;
    for (const auto& line : linesOf(listing.out)) listed.insert(line);
    std::set<std::string> expected{"."};
    for (const auto& path : copied) expected.insert("./" + path);
    EXPECT_EQ(listed, expected);
}

TEST_F(WhittleTarget, ZipTargetHoldsKeptAndCreatedFilesAndEchoesItsChecksum) {
    std::set<std::string> copied, created;
    expectedContent(request, copied, created);
    auto result = whittle(plus({source(), dir / "out.zip"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(contains(result.out, "MD5(" + dir / "out.zip" + ")= ")) << result.out;
    EXPECT_FALSE(pathExists(dir / "out.bom"));
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with("Whittle.")) << entry.path();
    }
    auto unzip = runProgram({"/usr/bin/unzip", "-Z1", dir / "out.zip"});
    std::set<std::string> listed;
    for (auto line : linesOf(unzip.out)) {
        if (!line.empty() && line.back() == '/') line.pop_back();
        listed.insert(line);
    }
    std::set<std::string> expected = copied;
    for (const auto& path : created) expected.insert(path);
    EXPECT_EQ(listed, expected);
    auto sevenZip = runProgram({"/usr/bin/7zz", "l", "-slt", dir / "out.zip"});
    EXPECT_EQ(sevenZip.status, 0);
    std::set<std::string> sevenZipListed;
    bool links = false;
    for (const auto& line : linesOf(sevenZip.out)) {
        if (line.starts_with("Path = ") && line != "Path = " + dir / "out.zip") sevenZipListed.insert(line.substr(7));
        links = links || (line.starts_with("Attributes = ") && contains(line, " lrwx"));
    }
    EXPECT_EQ(sevenZipListed, expected);
    EXPECT_TRUE(links) << sevenZip.out;
}

TEST_F(WhittleTarget, ExistingTargetIsLeftAloneWithoutOverwrite) {
    writeFile(dir / "out/mine.txt", "mine");
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_EQ(result.status, 17);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: target \"out\" already exists.\n"));
    EXPECT_EQ(readFile(dir / "out/mine.txt"), "mine");
    EXPECT_EQ(folderTree(dir / "out"), std::set<std::string>{"mine.txt"});
}

TEST_F(WhittleTarget, OverwriteMovesTheExistingTargetToTheTrash) {
    writeFile(dir / "out/mine.txt", "mine");
    auto result = whittle(plus({source(), dir / "out", "--ov"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(contains(readWhittleLog(), ">>> NOTE: moved pre-existing target \"" + dir / "out" + "\" to Trash.\n"));
    EXPECT_FALSE(pathExists(dir / "out/mine.txt"));
    EXPECT_EQ(readFile(dir / "data/Trash/files/out/mine.txt"), "mine");
}

TEST_F(WhittleTarget, FailedZipCopyLeavesNothingBehind) {
    // A file that the manifest names but the bundle lacks makes the copy fail.
    fs::remove(source() + "/Restore/kernelcache.restore.x10");
    auto result = whittle(plus({source(), dir / "out.zip"}, request));
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: unable to create final ZIP archive.\n")) << result.out;
    EXPECT_FALSE(pathExists(dir / "out.zip"));
    EXPECT_FALSE(pathExists(dir / "out.bom"));
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with("Whittle.")) << entry.path();
    }
    // The BOM was made inside the run's temporary folder, which went to the Trash whole.
    bool bomTrashed = false;
    for (const auto& name : trashed()) {
        if (name.starts_with("Whittle.")) bomTrashed = pathExists(dir / "data/Trash/files/" + name + "/out.bom");
    }
    EXPECT_TRUE(bomTrashed);
}

TEST_F(WhittleTarget, FailedFolderCopyMovesTheHalfWrittenTargetAway) {
    fs::remove(source() + "/Restore/kernelcache.restore.x10");
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: copying manifest to target failed.\n")) << result.out;
    EXPECT_FALSE(pathExists(dir / "out"));
}

TEST_F(WhittleTarget, FailedStripWritesNothing) {
    auto result = whittle({source(), dir / "out", "--product", "x10", "--factory", "dfu"});
    EXPECT_EQ(result.status, 1);
    EXPECT_FALSE(pathExists(dir / "out"));
    EXPECT_FALSE(contains(result.out, "Validation"));
}

TEST_F(WhittleTarget, TargetEndingInCapitalDmgIsAFolder) {
    auto result = whittle(plus({source(), dir / "out.DMG"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(fs::is_directory(dir / "out.DMG"));
    EXPECT_TRUE(pathExists(dir / "out.DMG/Restore/Restore.plist"));
}

TEST_F(WhittleTarget, TargetEndingInCapitalZipIsAFolder) {
    auto result = whittle(plus({source(), dir / "out.ZIP"}, request));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(fs::is_directory(dir / "out.ZIP"));
}

TEST_F(WhittleTarget, ManifestPathsOutsideTheBundleAreNeitherReadNorWritten) {
    writeFile(dir / "secret.txt", "secret");
    Value manifest = parsePropertyList(readFile(source() + "/Restore/BuildManifest.plist"));
    for (const auto& identity : manifest.get("BuildIdentities").elements()) {
        if (identity.get("Info").get("DeviceClass").text() != "x10ap") continue;
        identity.get("Manifest").get("LLB").get("Info").set("Path", Value::string("../../secret.txt"));
    }
    writeFile(source() + "/Restore/BuildManifest.plist", xmlPropertyList(manifest));
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_NE(result.status, 0);
    EXPECT_FALSE(pathExists(dir / "out"));
    EXPECT_EQ(readFile(dir / "secret.txt"), "secret");
}

TEST_F(WhittleTarget, LinkedFolderInTheBundleIsNotFollowedOut) {
    TempDir outside;
    writeFile(outside / "private.txt", "private");
    fs::remove_all(source() + "/Restore/Firmware/dfu");
    fs::create_directory_symlink(outside.path(), source() + "/Restore/Firmware/dfu");
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_NE(result.status, 0);
    EXPECT_FALSE(pathExists(dir / "out"));
}

TEST_F(WhittleTarget, CreatedFilePathsOutsideTheTargetAreRefused) {
    Value manifest = parsePropertyList(readFile(source() + "/Restore/BuildManifest.plist"));
    for (const auto& identity : manifest.get("BuildIdentities").elements()) {
        identity.get("Info").get("VariantContents").set("SystemImage", Value::string("/../../../escaped"));
    }
    writeFile(source() + "/Restore/BuildManifest.plist", xmlPropertyList(manifest));
    auto result = whittle(plus({source(), dir / "out"}, request));
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: unable to create symlink - the path leads outside the target.\n")) << result.out;
    EXPECT_FALSE(pathExists(dir / "out"));
    EXPECT_FALSE(pathExists(dir / "escaped.dmg"));
    EXPECT_FALSE(pathExists(dir.path() + "/../escaped.dmg"));
}
