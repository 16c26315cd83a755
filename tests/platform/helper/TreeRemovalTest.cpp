// Removing what a helper wrote without following links.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TestSupport.hpp"
#include "platform/helper/TreeRemoval.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle::helper {
namespace {

using test::TempDir;

UniqueDescriptor openFolder(const std::string& path) {
    return UniqueDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

TEST(TreeRemoval, RemovesAWholeTreeEvenWithoutOwnerAccess) {
    TempDir dir;
    ::mkdir((dir / "out").c_str(), 0755);
    ::mkdir((dir / "out/a").c_str(), 0755);
    ::mkdir((dir / "out/a/locked").c_str(), 0755);
    test::writeFile(dir / "out/a/locked/file", "x");
    test::writeFile(dir / "out/top", "y");
    ::chmod((dir / "out/a/locked").c_str(), 0);
    ::chmod((dir / "out/a").c_str(), 0500);
    UniqueDescriptor parent = openFolder(dir.path());
    EXPECT_EQ(removeEntryAt(parent.get(), "out"), 0);
    EXPECT_FALSE(test::pathExists(dir / "out"));
}

TEST(TreeRemoval, RemovesLinksAndNeverWhatTheyLeadTo) {
    TempDir dir;
    TempDir elsewhere;
    test::writeFile(elsewhere / "keep", "k");
    ::mkdir((dir / "out").c_str(), 0755);
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), (dir / "out/folder-link").c_str()), 0);
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), (dir / "top-link").c_str()), 0);
    UniqueDescriptor parent = openFolder(dir.path());
    EXPECT_EQ(removeEntryAt(parent.get(), "out"), 0);
    EXPECT_EQ(removeEntryAt(parent.get(), "top-link"), 0);
    EXPECT_FALSE(test::pathExists(dir / "out"));
    EXPECT_FALSE(test::pathExists(dir / "top-link"));
    EXPECT_EQ(test::readFile(elsewhere / "keep"), "k");
}

TEST(TreeRemoval, NothingByThatNameIsNoError) {
    TempDir dir;
    UniqueDescriptor parent = openFolder(dir.path());
    EXPECT_EQ(removeEntryAt(parent.get(), "missing"), 0);
}

TEST(TreeRemoval, OpensFoldersBelowButNotThroughLinks) {
    TempDir dir;
    ::mkdir((dir / "a").c_str(), 0755);
    ::mkdir((dir / "a/b").c_str(), 0755);
    test::writeFile(dir / "a/b/marker", "m");
    ASSERT_EQ(::symlink("a", (dir / "link").c_str()), 0);
    UniqueDescriptor anchor = openFolder(dir.path());

    UniqueDescriptor below(openFolderBelow(anchor.get(), "a/b"));
    ASSERT_TRUE(below.valid());
    struct stat info {};
    EXPECT_EQ(::fstatat(below.get(), "marker", &info, 0), 0);

    UniqueDescriptor again(openFolderBelow(anchor.get(), ""));
    ASSERT_TRUE(again.valid());
    EXPECT_EQ(::fstatat(again.get(), "a", &info, 0), 0);

    errno = 0;
    EXPECT_EQ(openFolderBelow(anchor.get(), "link/b"), -1);
    EXPECT_NE(errno, 0);
}

}  // namespace
}  // namespace whittle::helper
