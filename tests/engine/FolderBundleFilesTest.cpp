#include "engine/FolderBundleFiles.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "support/LogObject.hpp"
#include "support/Value.hpp"
#include "TestSupport.hpp"

namespace whittle {
namespace {

using test::loggedDuring;
using test::TempDir;
using test::writeFile;

// A bundle folder beside a folder that stands for the rest of the machine.
class FolderBundleFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::mkdir(bundle().c_str(), 0755);
        ::mkdir(outside().c_str(), 0755);
        ::mkdir((bundle() + "/Restore").c_str(), 0755);
        writeFile(bundle() + "/Restore/inside.txt", "inside");
        writeFile(outside() + "/secret.txt", "secret");
        ::mkdir((outside() + "/Firmware").c_str(), 0755);
        writeFile(outside() + "/Firmware/target_map.txt", "outside map");
    }
    std::string bundle() const { return temp_ / "bundle"; }
    std::string outside() const { return temp_ / "outside"; }
    void link(const std::string& target, const std::string& relative) const {
        ASSERT_EQ(::symlink(target.c_str(), (bundle() + "/" + relative).c_str()), 0);
    }

    TempDir temp_;
};

TEST_F(FolderBundleFilesTest, ReadsFilesAndFollowsLinksThatStayInside) {
    link("inside.txt", "Restore/alias.txt");
    FolderBundleFiles files(bundle());
    EXPECT_EQ(files.readFile("Restore/inside.txt").value_or(""), "inside");
    EXPECT_EQ(files.readFile("Restore/alias.txt").value_or(""), "inside");
    EXPECT_TRUE(files.escapingLinks().empty());
}

TEST_F(FolderBundleFilesTest, FileLinkLeadingOutsideCountsAsAbsentWithOneWarning) {
    link(outside() + "/secret.txt", "Restore/BuildManifest.plist");
    FolderBundleFiles files(bundle());
    std::string said = loggedDuring([&] {
        int error = 0;
        EXPECT_FALSE(files.readFile("Restore/BuildManifest.plist", &error));
        EXPECT_EQ(error, ENOENT);
        EXPECT_FALSE(files.readFile("Restore/BuildManifest.plist"));
    });
    EXPECT_EQ(said, "!!! WARNING: \"Restore/BuildManifest.plist\" leads outside the bundle and is not followed.\n");
}

TEST_F(FolderBundleFilesTest, RelativeLinkClimbingOutIsNotFollowed) {
    link("../../outside/secret.txt", "Restore/up.txt");
    FolderBundleFiles files(bundle());
    EXPECT_FALSE(files.readFile("Restore/up.txt"));
    EXPECT_EQ(files.escapingLinks(), std::set<std::string>{"Restore/up.txt"});
}

TEST_F(FolderBundleFilesTest, FolderLinkLeadingOutsideHidesEverythingBehindIt) {
    link(outside(), "Out");
    FolderBundleFiles files(bundle());
    EXPECT_FALSE(files.readFile("Out/secret.txt"));
    EXPECT_TRUE(files.entries("Out").empty());
    EXPECT_FALSE(files.exists("Out/secret.txt"));
    EXPECT_FALSE(files.isFolder("Out/Firmware"));
    // The link itself is an entry of the bundle.
    EXPECT_TRUE(files.exists("Out"));
    EXPECT_EQ(files.escapingLinks(), std::set<std::string>{"Out"});
}

TEST_F(FolderBundleFilesTest, DotDotPathsNeverLeaveTheRoot) {
    FolderBundleFiles files(bundle());
    EXPECT_FALSE(files.readFile("../outside/secret.txt"));
    EXPECT_FALSE(files.readFile("Restore/../../outside/secret.txt"));
    EXPECT_EQ(files.readFile("Restore/../Restore/inside.txt").value_or(""), "inside");
}

TEST_F(FolderBundleFilesTest, AbsoluteLinksAreNotFollowedEvenIntoTheBundle) {
    link(bundle() + "/Restore/inside.txt", "Restore/absolute.txt");
    FolderBundleFiles files(bundle());
    EXPECT_FALSE(files.readFile("Restore/absolute.txt"));
    EXPECT_FALSE(files.linkTarget("Restore/absolute.txt"));
}

TEST_F(FolderBundleFilesTest, LinkTargetsAreGivenOnlyForLinksThatStayInside) {
    link("Restore/inside.txt", "Tools.dmg");
    link("Missing.dmg", "Dangling.dmg");
    link("/etc/passwd", "Passwd.dmg");
    FolderBundleFiles files(bundle());
    EXPECT_EQ(files.linkTarget("Tools.dmg").value_or(""), "Restore/inside.txt");
    EXPECT_EQ(files.linkTarget("Dangling.dmg").value_or(""), "Missing.dmg");
    EXPECT_FALSE(files.linkTarget("Passwd.dmg"));
    EXPECT_FALSE(files.linkTarget("Restore/inside.txt"));
    EXPECT_EQ(files.escapingLinks(), std::set<std::string>{"Passwd.dmg"});
}

TEST_F(FolderBundleFilesTest, LinkLoopsCountAsAbsent) {
    link("loop-b", "Restore/loop-a");
    link("loop-a", "Restore/loop-b");
    FolderBundleFiles files(bundle());
    int error = 0;
    EXPECT_FALSE(files.readFile("Restore/loop-a", &error));
    EXPECT_EQ(error, ELOOP);
    EXPECT_TRUE(files.exists("Restore/loop-a"));
    EXPECT_FALSE(files.isFolder("Restore/loop-a"));
}

TEST_F(FolderBundleFilesTest, PipesAndDevicesInPlaceOfFilesAreNeverOpened) {
    ASSERT_EQ(::mkfifo((bundle() + "/Restore/pipe").c_str(), 0644), 0);
    FolderBundleFiles files(bundle());
    int error = -1;
    // A reader that opened the pipe would wait here for a writer forever.
    EXPECT_FALSE(files.readFile("Restore/pipe", &error));
    EXPECT_EQ(error, 0);
    if (::mknod((bundle() + "/Restore/zero").c_str(), S_IFCHR | 0644, makedev(1, 5)) == 0) {
        EXPECT_FALSE(files.readFile("Restore/zero"));
    }
}

TEST_F(FolderBundleFilesTest, DeepListingListsLinksWithoutEnteringThem) {
    ::mkdir((bundle() + "/Restore/Firmware").c_str(), 0755);
    writeFile(bundle() + "/Restore/Firmware/a.bin", "a");
    link(outside(), "Restore/Out");
    link("Firmware", "Restore/InsideLink");
    FolderBundleFiles files(bundle());
    std::vector<std::string> listed;
    files.listDeep("", listed);
    std::vector<std::string> expected{"Restore", "Restore/Firmware", "Restore/Firmware/a.bin", "Restore/InsideLink",
                                      "Restore/Out", "Restore/inside.txt"};
    EXPECT_EQ(listed, expected);
    EXPECT_TRUE(files.escapingLinks().empty());
}

TEST_F(FolderBundleFilesTest, AMissingRootHasNothingInIt) {
    FolderBundleFiles files(temp_ / "no-such-bundle");
    EXPECT_FALSE(files.exists(""));
    EXPECT_TRUE(files.entries("").empty());
    EXPECT_FALSE(files.readFile("Restore/inside.txt"));
}

TEST_F(FolderBundleFilesTest, PropertyListsAreReadThroughTheSameRule) {
    writeFile(bundle() + "/Restore/list.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a</key><string>b</string></dict></plist>");
    link(outside() + "/secret.txt", "Restore/out.plist");
    FolderBundleFiles files(bundle());
    EXPECT_EQ(propertyListInBundle(files, "Restore/list.plist").get("a").text(), "b");
    EXPECT_TRUE(propertyListInBundle(files, "Restore/out.plist").isNone());
}

}  // namespace
}  // namespace whittle
