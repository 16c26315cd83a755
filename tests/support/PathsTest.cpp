#include <gtest/gtest.h>

#include "support/Paths.hpp"

namespace whittle {
namespace {

TEST(Paths, LastPathComponent) {
    EXPECT_EQ(lastPathComponent("/a/b/c.txt"), "c.txt");
    EXPECT_EQ(lastPathComponent("c.txt"), "c.txt");
    EXPECT_EQ(lastPathComponent("/a/b/"), "b");
    EXPECT_EQ(lastPathComponent("/"), "/");
    EXPECT_EQ(lastPathComponent(""), "");
    EXPECT_EQ(lastPathComponent("a//"), "a");
    EXPECT_EQ(lastPathComponent("///"), "/");
}

TEST(Paths, PathStepsDropEmptyStepsAndKeepDotsForTheCaller) {
    EXPECT_EQ(pathSteps("a//b/./../c/"), (std::vector<std::string>{"a", "b", ".", "..", "c"}));
    EXPECT_EQ(pathSteps("/x"), std::vector<std::string>{"x"});
    EXPECT_TRUE(pathSteps("").empty());
    EXPECT_TRUE(pathSteps("///").empty());
}

TEST(Paths, ParentFoldersExtensionsAndJoins) {
    EXPECT_EQ(parentFolderOf("a/b/c"), "a/b");
    EXPECT_EQ(parentFolderOf("c"), ".");
    EXPECT_EQ(parentFolderOf("/c"), "/");
    EXPECT_EQ(parentFolderOf("a/b/"), "a");
    EXPECT_EQ(joinPath("/", "x"), "/x");
    EXPECT_EQ(joinPath("a", "x"), "a/x");
    EXPECT_EQ(pathExtension("dir.d/out.ZIP"), "ZIP");
    EXPECT_EQ(pathExtension(".hidden"), "");
    EXPECT_EQ(pathExtension("noext"), "");
    EXPECT_EQ(withoutExtension("out.tar.gz"), "out.tar");
    EXPECT_EQ(withoutExtension(".hidden"), ".hidden");
}

TEST(Paths, ParentFolderOfTheTopAndOfNothing) {
    EXPECT_EQ(parentFolderOf("/"), "/");
    EXPECT_EQ(parentFolderOf(""), ".");
    EXPECT_EQ(parentFolderOf("/a//"), "/");
}

TEST(Paths, RelativeParentIsEmptyAtTheTop) {
    EXPECT_EQ(deletingLastPathComponent("Restore/Firmware/x.bin"), "Restore/Firmware");
    EXPECT_EQ(deletingLastPathComponent("x.bin"), "");
    EXPECT_EQ(deletingLastPathComponent(""), "");
    EXPECT_EQ(deletingLastPathComponent("/x"), "/");
    EXPECT_EQ(deletingLastPathComponent("Restore/Firmware/"), "Restore");
}

TEST(Paths, JoinToAnEmptyFolderIsTheBareName) {
    EXPECT_EQ(joinPath("", "x.bin"), "x.bin");
    EXPECT_EQ(joinPath("a/", "x"), "a/x");
    EXPECT_EQ(joinPath("a", ""), "a/");
}

TEST(Paths, ExtensionsOfFoldersAndDottedFolders) {
    EXPECT_EQ(pathExtension("a.b/c"), "");
    EXPECT_EQ(pathExtension("image.dmg/"), "dmg");
    EXPECT_EQ(pathExtension("a/.profile"), "");
    EXPECT_EQ(withoutExtension("name"), "name");
    EXPECT_EQ(withoutExtension("a.b"), "a");
}

}  // namespace
}  // namespace whittle
