// What every bundle reader shares: the deep listing built from the one-level listing,
// the property-list reader, and one warning per link that leads outside. Seen through
// the in-memory bundle, which is also checked to keep the confinement rule.
#include "engine/BundleFiles.hpp"

#include <gtest/gtest.h>

#include "MemoryBundleFiles.hpp"
#include "TestSupport.hpp"
#include "support/LogObject.hpp"
#include "support/Value.hpp"

namespace whittle {
namespace {

using test::loggedDuring;
using test::MemoryBundleFiles;

TEST(BundleFiles, DeepListingEntersFoldersButNotLinks) {
    MemoryBundleFiles files;
    files.file("Restore/BuildManifest.plist", "x").folder("Firmware/dfu").link("Firmware/all", "dfu").file("top", "t");
    std::vector<std::string> listed;
    files.listDeep("", listed);
    EXPECT_EQ(listed, (std::vector<std::string>{"Firmware", "Firmware/all", "Firmware/dfu", "Restore",
                                                "Restore/BuildManifest.plist", "top"}));
}

TEST(BundleFiles, DeepListingOfAFolderNamesPathsFromTheRoot) {
    MemoryBundleFiles files;
    files.file("Firmware/dfu/a.im4p", "a").file("Firmware/b.im4p", "b");
    std::vector<std::string> listed;
    files.listDeep("Firmware", listed);
    EXPECT_EQ(listed, (std::vector<std::string>{"Firmware/b.im4p", "Firmware/dfu", "Firmware/dfu/a.im4p"}));
}

TEST(BundleFiles, DeepListingOfAFileOrNothingAddsNothing) {
    MemoryBundleFiles files;
    files.file("top", "t");
    std::vector<std::string> listed;
    files.listDeep("top", listed);
    files.listDeep("missing", listed);
    EXPECT_TRUE(listed.empty());
}

TEST(BundleFiles, PropertyListsAreParsedOrNone) {
    MemoryBundleFiles files;
    files.file("good.plist", "<plist version=\"1.0\"><dict><key>a</key><string>b</string></dict></plist>")
        .file("bad.plist", "not a list");
    EXPECT_EQ(propertyListInBundle(files, "good.plist").get("a").text(), "b");
    EXPECT_TRUE(propertyListInBundle(files, "bad.plist").isNone());
    EXPECT_TRUE(propertyListInBundle(files, "missing.plist").isNone());
}

TEST(MemoryBundleFiles, LinksInsideAreFollowedAndLinksOutsideAreAbsentWithOneWarning) {
    MemoryBundleFiles files;
    files.file("Restore/real.txt", "real").link("Restore/inside", "real.txt").link("Restore/out", "../../etc/passwd");
    EXPECT_EQ(files.readFile("Restore/inside"), "real");
    EXPECT_EQ(files.linkTarget("Restore/inside"), "real.txt");
    std::string said = loggedDuring([&] {
        EXPECT_FALSE(files.readFile("Restore/out"));
        EXPECT_FALSE(files.linkTarget("Restore/out"));
    });
    EXPECT_EQ(said, "!!! WARNING: \"Restore/out\" leads outside the bundle and is not followed.\n");
    EXPECT_EQ(files.escapingLinks().size(), 1u);
}

TEST(MemoryBundleFiles, AbsoluteLinksAndLoopsAreNotFollowed) {
    MemoryBundleFiles files;
    files.link("abs", "/Restore/x").link("a", "b").link("b", "a");
    loggedDuring([&] {
        EXPECT_FALSE(files.readFile("abs"));
        EXPECT_FALSE(files.readFile("a"));
    });
    EXPECT_TRUE(files.exists("abs"));
    EXPECT_FALSE(files.isFolder("a"));
}

TEST(MemoryBundleFiles, ReadsAreCountedAndTimesReported) {
    MemoryBundleFiles files;
    files.file("f", "x").time({42, 7});
    files.readFile("f");
    files.readFile("f");
    EXPECT_EQ(files.readsOf("f"), 2);
    ASSERT_TRUE(files.modificationTime("f"));
    EXPECT_EQ(files.modificationTime("f")->tv_sec, 42);
    EXPECT_FALSE(files.modificationTime("g"));
}

}  // namespace
}  // namespace whittle
