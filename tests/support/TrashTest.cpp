// Moving items to the user's Trash.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "TestSupport.hpp"
#include "support/Trash.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class Trash : public testing::Test {
protected:
    void SetUp() override {
        const char* previous = std::getenv("XDG_DATA_HOME");
        saved = previous ? previous : "";
        ::setenv("XDG_DATA_HOME", data.path().c_str(), 1);
    }
    void TearDown() override {
        if (saved.empty()) {
            ::unsetenv("XDG_DATA_HOME");
        } else {
            ::setenv("XDG_DATA_HOME", saved.c_str(), 1);
        }
    }
    TempDir data;
    TempDir work;
    std::string saved;
};

}  // namespace

TEST_F(Trash, ItemMovesWithARecordOfWhereItCameFrom) {
    writeFile(work / "old target/file.txt", "x");
    std::string error;
    ASSERT_TRUE(moveToTrash(work / "old target", error)) << error;
    EXPECT_FALSE(pathExists(work / "old target"));
    EXPECT_EQ(readFile(data / "Trash/files/old target/file.txt"), "x");
    std::string record = readFile(data / "Trash/info/old target.trashinfo");
    EXPECT_TRUE(record.starts_with("[Trash Info]\nPath=" + work.path() + "/old%20target\nDeletionDate=")) << record;
}

TEST_F(Trash, SecondItemOfTheSameNameGetsAnotherName) {
    std::string error;
    writeFile(work / "a.zip", "1");
    ASSERT_TRUE(moveToTrash(work / "a.zip", error));
    writeFile(work / "a.zip", "2");
    ASSERT_TRUE(moveToTrash(work / "a.zip", error));
    EXPECT_EQ(readFile(data / "Trash/files/a.zip"), "1");
    EXPECT_EQ(readFile(data / "Trash/files/a.zip.2"), "2");
    EXPECT_TRUE(pathExists(data / "Trash/info/a.zip.2.trashinfo"));
}

TEST_F(Trash, MissingItemCannotBeMoved) {
    std::string error;
    EXPECT_FALSE(moveToTrash(work / "missing", error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(pathExists(data / "Trash/info/missing.trashinfo"));
}

TEST_F(Trash, LinksAreMovedNotFollowed) {
    writeFile(work / "real.txt", "r");
    std::filesystem::create_symlink("real.txt", work / "link");
    std::string error;
    ASSERT_TRUE(moveToTrash(work / "link", error));
    EXPECT_EQ(readFile(work / "real.txt"), "r");
    EXPECT_TRUE(std::filesystem::is_symlink(data / "Trash/files/link"));
}

TEST(RemoveItem, RemovesFoldersAndLinksWithoutFollowing) {
    TempDir work;
    TempDir outside;
    writeFile(outside / "keep.txt", "k");
    writeFile(work / "folder/deep/file", "f");
    std::filesystem::create_directory_symlink(outside.path(), work / "folder/out");
    std::string error;
    EXPECT_TRUE(removeItem(work / "folder", error));
    EXPECT_FALSE(pathExists(work / "folder"));
    EXPECT_EQ(readFile(outside / "keep.txt"), "k");
}

TEST(ExpandTilde, HomeInPlaceOfTheTilde) {
    std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
    if (home.empty()) GTEST_SKIP() << "no HOME";
    EXPECT_EQ(expandTilde("~/x"), home + "/x");
    EXPECT_EQ(expandTilde("~"), home);
    EXPECT_EQ(expandTilde("/a/~"), "/a/~");
}
