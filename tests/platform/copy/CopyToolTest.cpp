#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "CopyTestSupport.hpp"

using namespace whittle::test;

namespace {

// A source tree with more in it than the BOM lists.
class CopyToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = temp / "source";
        writeFile(source + "/a/file.txt", "file contents\n");
        writeFile(source + "/a/run.sh", "#!/bin/sh\n");
        writeFile(source + "/a/readonly.txt", "read only\n");
        writeFile(source + "/a/not-listed.txt", "left out\n");
        writeFile(source + "/a/deeper/inner.txt", "inner\n");
        writeFile(source + "/a/left-out-folder/x.txt", "x\n");
        writeFile(source + "/top.txt", "");
        std::filesystem::create_directories(source + "/empty");
        std::filesystem::create_directories(source + "/locked");
        writeFile(source + "/locked/kept.txt", "kept\n");
        ::symlink("file.txt", (source + "/a/link").c_str());
        ::symlink("../nowhere", (source + "/a/dangling").c_str());
        ::symlink("a", (source + "/folder-link").c_str());
        ::chmod((source + "/a/file.txt").c_str(), 0640);
        ::chmod((source + "/a/run.sh").c_str(), 0755);
        ::chmod((source + "/a/readonly.txt").c_str(), 0444);
        ::chmod((source + "/a").c_str(), 0750);
        setModificationTime(source + "/a/file.txt", 981173106, 123456789);
        setModificationTime(source + "/a/link", 1000000000);
        setModificationTime(source + "/empty", 1100000000);
        setModificationTime(source + "/a/deeper", 1200000000);
        ::chmod((source + "/locked").c_str(), 0555);
        listed = {"./a",
                  "./a/file.txt",
                  "./a/run.sh",
                  "./a/readonly.txt",
                  "./a/deeper",
                  "./a/deeper/inner.txt",
                  "./a/link",
                  "./a/dangling",
                  "./top.txt",
                  "./empty",
                  "./folder-link",
                  "./locked",
                  "./locked/kept.txt"};
        bom = temp / "list.bom";
        writeBom(bom, listed);
    }

    void TearDown() override { makeTreeRemovable(temp.path()); }

    std::map<std::string, TreeItem> listedPartOfSource() {
        std::map<std::string, TreeItem> all = snapshotTree(source), wanted;
        for (const std::string& path : listed) wanted[path] = all.at(path);
        return wanted;
    }

    TempDir temp;
    std::string source;
    std::vector<std::string> listed;
    std::string bom;
};

}  // namespace

TEST_F(CopyToolTest, CopiesExactlyTheListedPathsWithModesTimesAndLinks) {
    std::string destination = temp / "out/deep/destination";
    ProgramResult copied = copyIntoFolder(bom, source, destination);
    ASSERT_EQ(copied.status, 0) << copied.err;
    EXPECT_EQ(copied.err, "");
    EXPECT_EQ(snapshotTree(destination), listedPartOfSource());
    struct stat link {};
    ASSERT_EQ(::lstat((destination + "/folder-link").c_str(), &link), 0);
    EXPECT_TRUE(S_ISLNK(link.st_mode));
}

TEST_F(CopyToolTest, PrintsEachCopiedPathInListingOrder) {
    ProgramResult copied = copyIntoFolder(bom, source, temp / "destination");
    ASSERT_EQ(copied.status, 0) << copied.err;
    ProgramResult listing = runBomTool({"--list", bom});
    EXPECT_EQ(copied.out, listing.out);
}

TEST_F(CopyToolTest, GivesTheDestinationTheSourceRootsMode) {
    ::chmod(source.c_str(), 0711);
    ASSERT_EQ(copyIntoFolder(bom, source, temp / "destination").status, 0);
    struct stat info {};
    ASSERT_EQ(::stat((temp / "destination").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0711u);
}

TEST_F(CopyToolTest, ReplacesWhatIsAlreadyInTheDestination) {
    std::string destination = temp / "destination";
    writeFile(destination + "/a/file.txt", "old and longer contents that must go\n");
    writeFile(destination + "/a/link", "a plain file where a link belongs\n");
    writeFile(destination + "/a/extra.txt", "not ours\n");
    ASSERT_EQ(copyIntoFolder(bom, source, destination).status, 0);
    auto copiedTree = snapshotTree(destination);
    copiedTree.erase("./a/extra.txt");
    EXPECT_EQ(copiedTree, listedPartOfSource());
    EXPECT_TRUE(pathExists(destination + "/a/extra.txt"));
}

TEST_F(CopyToolTest, CopiesLargeFilesExactly) {
    std::string data(9 << 20, '\0');
    std::mt19937 random(7);
    for (char& byte : data) byte = static_cast<char>(random());
    writeFile(source + "/big.bin", data);
    writeBom(bom, {"./big.bin"});
    std::string destination = temp / "destination";
    ASSERT_EQ(copyIntoFolder(bom, source, destination).status, 0);
    EXPECT_TRUE(readFile(destination + "/big.bin") == data);
}

// copy_file_range refuses some pairs of file systems; the copy must still work.
TEST_F(CopyToolTest, CopiesAcrossFileSystems) {
    struct stat shared {
    }, local{};
    if (::stat("/dev/shm", &shared) != 0 || ::stat(temp.path().c_str(), &local) != 0 || shared.st_dev == local.st_dev ||
        ::access("/dev/shm", W_OK) != 0)
        GTEST_SKIP() << "no second writable file system at /dev/shm";
    char pattern[] = "/dev/shm/whittle-copy-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    std::string otherSource = pattern;
    writeFile(otherSource + "/a/file.bin", std::string(3 << 20, 'z'));
    writeBom(bom, {"./a", "./a/file.bin"});
    ProgramResult copied = copyIntoFolder(bom, otherSource, temp / "destination");
    removeTree(otherSource);
    ASSERT_EQ(copied.status, 0) << copied.err;
    EXPECT_EQ(readFile(temp / "destination/a/file.bin"), std::string(3 << 20, 'z'));
}

TEST_F(CopyToolTest, CopiesDeepTrees) {
    std::vector<std::string> paths;
    std::string path = ".";
    for (int depth = 0; depth < 60; ++depth) {
        path += "/d" + std::to_string(depth);
        paths.push_back(path);
    }
    writeFile(source + path.substr(1) + "/leaf.txt", "leaf");
    paths.push_back(path + "/leaf.txt");
    writeBom(bom, paths);
    ASSERT_EQ(copyIntoFolder(bom, source, temp / "destination").status, 0);
    EXPECT_EQ(readFile(temp / ("destination" + path.substr(1) + "/leaf.txt")), "leaf");
}

TEST_F(CopyToolTest, FailsNamingAMissingSourcePathAndWritesNothing) {
    writeBom(bom, {"./a", "./a/file.txt", "./a/not-there.txt"});
    std::string destination = temp / "destination";
    ProgramResult copied = copyIntoFolder(bom, source, destination);
    EXPECT_EQ(copied.status, 1);
    EXPECT_EQ(copied.err.rfind("whittle-copy: ", 0), 0u);
    EXPECT_NE(copied.err.find("./a/not-there.txt"), std::string::npos) << copied.err;
    EXPECT_FALSE(pathExists(destination));
}

TEST_F(CopyToolTest, FailsOnAMissingSourceFolderOrBom) {
    EXPECT_EQ(copyIntoFolder(bom, temp / "no-source", temp / "destination").status, 1);
    EXPECT_EQ(copyIntoFolder(temp / "no.bom", source, temp / "destination").status, 1);
    writeFile(temp / "bad.bom", "BOMStore but not really");
    ProgramResult damaged = copyIntoFolder(temp / "bad.bom", source, temp / "destination");
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(damaged.err.rfind("whittle-copy: ", 0), 0u);
}

TEST_F(CopyToolTest, RefusesToCopyAFolderOntoItself) {
    ProgramResult copied = copyIntoFolder(bom, source, source);
    EXPECT_EQ(copied.status, 1);
    EXPECT_EQ(readFile(source + "/a/file.txt"), "file contents\n");
}

TEST(CopyToolUsage, AcceptsOnlyTheTwoArgumentVectors) {
    std::vector<std::vector<std::string>> misuses = {
        {},
        {"-vV", "--noextattr", "--noacl", "--bom", "b.bom", "src"},
        {"-vV", "--noacl", "--noextattr", "--bom", "b.bom", "src", "dst"},
        {"-v", "--noextattr", "--noacl", "--bom", "b.bom", "src", "dst"},
        {"-kc", "--noextattr", "--noacl", "--bom", "b.bom", "src", "dst.zip"},
        {"--bom", "b.bom", "-vV", "--noextattr", "--noacl", "src", "dst"},
        {"-vV", "--noextattr", "--noacl", "--bom", "b.bom", "src", "dst", "more"},
    };
    for (const auto& arguments : misuses) {
        ProgramResult result = runCopyTool(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err.rfind("whittle-copy: ", 0), 0u) << result.err;
        EXPECT_EQ(linesOf(result.err).size(), 1u) << result.err;
    }
    ProgramResult help = runCopyTool({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("-ck --noextattr --noacl --bom BOM SRC ZIP"), std::string::npos);
}
