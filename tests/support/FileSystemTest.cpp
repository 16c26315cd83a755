#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "TestSupport.hpp"
#include "support/FileSystem.hpp"

using whittle::test::TempDir;

TEST(FileSystem, ReadWholeFile) {
    TempDir dir;
    std::string content(300000, 'q');
    content[5] = '\0';
    whittle::test::writeFile(dir / "f", content);
    auto read = whittle::readWholeFile(dir / "f");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, content);
    EXPECT_FALSE(whittle::readWholeFile(dir / "missing").has_value());
    EXPECT_FALSE(whittle::readWholeFile(dir.path()).has_value());
}

TEST(FileSystem, AtomicWriteReplacesAndLeavesNoTemporary) {
    TempDir dir;
    std::string error;
    ASSERT_TRUE(whittle::writeFileAtomically(dir / "log", "first", error));
    ASSERT_TRUE(whittle::writeFileAtomically(dir / "log", "second", error));
    EXPECT_EQ(whittle::test::readFile(dir / "log"), "second");
    int entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1);
}

TEST(FileSystem, AtomicWriteIntoMissingFolderFailsWithDescription) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(whittle::writeFileAtomically(dir / "no/such/folder/file", "x", error));
    EXPECT_FALSE(error.empty());
}

