// Writing below a destination folder without leaving it.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "TestSupport.hpp"
#include "support/ContainedPaths.hpp"

namespace whittle {
namespace {

using test::TempDir;

TEST(ContainedPaths, RelativePathsWithoutClimbingAreContained) {
    EXPECT_TRUE(isContainedRelativePath("a"));
    EXPECT_TRUE(isContainedRelativePath("a/b/c.plist"));
    EXPECT_TRUE(isContainedRelativePath("./a//b/"));
    EXPECT_TRUE(isContainedRelativePath("a/..b/c.."));
    EXPECT_FALSE(isContainedRelativePath(""));
    EXPECT_FALSE(isContainedRelativePath("/a"));
    EXPECT_FALSE(isContainedRelativePath("a/../b"));
    EXPECT_FALSE(isContainedRelativePath(".."));
    EXPECT_FALSE(isContainedRelativePath("./."));
    EXPECT_FALSE(isContainedRelativePath("//"));
}

TEST(ContainedPaths, WritesMakeMissingFoldersAndReplaceWholeFiles) {
    TempDir dir;
    std::string error;
    ASSERT_TRUE(writeContainedFile(dir.path(), "a/b/c.txt", "first", error)) << error;
    EXPECT_EQ(test::readFile(dir / "a/b/c.txt"), "first");
    ASSERT_TRUE(writeContainedFile(dir.path(), "a/b/c.txt", "second, longer", error)) << error;
    EXPECT_EQ(test::readFile(dir / "a/b/c.txt"), "second, longer");
    // Nothing of the temporary files is left beside it.
    std::size_t entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir / "a/b")) ++entries;
    EXPECT_EQ(entries, 1u);
}

TEST(ContainedPaths, RefusesPathsThatLeaveTheRoot) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(writeContainedFile(dir / "inside", "../outside.txt", "x", error));
    EXPECT_EQ(error, "the path leads outside the target");
    error.clear();
    EXPECT_FALSE(writeContainedFile(dir.path(), "/etc/x", "x", error));
    EXPECT_EQ(error, "the path leads outside the target");
    EXPECT_FALSE(test::pathExists(dir / "outside.txt"));
}

TEST(ContainedPaths, RefusesToPassThroughASymbolicLink) {
    TempDir root;
    TempDir elsewhere;
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), (root / "link").c_str()), 0);
    std::string error;
    EXPECT_FALSE(writeContainedFile(root.path(), "link/file.txt", "x", error));
    EXPECT_EQ(error, "the path leads outside the target");
    EXPECT_FALSE(test::pathExists(elsewhere / "file.txt"));
    error.clear();
    EXPECT_FALSE(makeContainedSymlink(root.path(), "link/made", "target", error));
    EXPECT_EQ(error, "the path leads outside the target");
}

TEST(ContainedPaths, AFileNamedLikeALinkIsReplacedNotFollowed) {
    TempDir root;
    TempDir elsewhere;
    test::writeFile(elsewhere / "victim", "untouched");
    ASSERT_EQ(::symlink((elsewhere / "victim").c_str(), (root / "name").c_str()), 0);
    std::string error;
    ASSERT_TRUE(writeContainedFile(root.path(), "name", "new", error)) << error;
    EXPECT_EQ(test::readFile(elsewhere / "victim"), "untouched");
    EXPECT_EQ(test::readFile(root / "name"), "new");
    struct stat info {};
    ASSERT_EQ(::lstat((root / "name").c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
}

TEST(ContainedPaths, SymbolicLinksReplaceWhatStoodThere) {
    TempDir root;
    test::writeFile(root / "old", "file");
    std::string error;
    ASSERT_TRUE(makeContainedSymlink(root.path(), "old", "Tools-1.dmg", error)) << error;
    ASSERT_TRUE(makeContainedSymlink(root.path(), "deep/er/link", "../x", error)) << error;
    EXPECT_EQ(std::filesystem::read_symlink(root / "old").string(), "Tools-1.dmg");
    EXPECT_EQ(std::filesystem::read_symlink(root / "deep/er/link").string(), "../x");
}

TEST(ContainedPaths, AMissingRootIsReported) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(writeContainedFile(dir / "missing", "a.txt", "x", error));
    EXPECT_FALSE(error.empty());
    EXPECT_NE(error, "the path leads outside the target");
}

}  // namespace
}  // namespace whittle
