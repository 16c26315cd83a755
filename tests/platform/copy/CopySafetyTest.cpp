// Listed paths that would lead out of the source folder, or writes that would lead
// out of the destination folder, are refused, and nothing outside is read or written.
#include <gtest/gtest.h>
#include <unistd.h>

#include "CopyTestSupport.hpp"

using namespace whittle::test;

namespace {

class CopySafetyTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = temp / "source";
        destination = temp / "destination";
        outside = temp / "outside";
        archive = temp / "archive.zip";
        bom = temp / "crafted.bom";
        writeFile(source + "/a/file.txt", "inside\n");
        writeFile(outside + "/secret.txt", "secret\n");
        outsideBefore = snapshotTree(outside);
    }

    // Runs both kinds of copy, expecting both to be refused without a trace.
    void expectRefused(const char* messagePart) {
        ProgramResult copied = copyIntoFolder(bom, source, destination);
        EXPECT_EQ(copied.status, 1);
        EXPECT_EQ(copied.err.rfind("whittle-copy: ", 0), 0u) << copied.err;
        EXPECT_NE(copied.err.find(messagePart), std::string::npos) << copied.err;
        ProgramResult zipped = copyIntoZip(bom, source, archive);
        EXPECT_EQ(zipped.status, 1);
        EXPECT_NE(zipped.err.find(messagePart), std::string::npos) << zipped.err;
        expectNothingLeaked();
    }

    void expectNothingLeaked() {
        EXPECT_FALSE(pathExists(archive));
        EXPECT_EQ(snapshotTree(outside), outsideBefore);
        if (pathExists(destination)) {
            for (const auto& [path, item] : snapshotTree(destination)) EXPECT_NE(item.content, "secret\n") << path;
        }
        for (const std::string& name : folderEntries(temp.path()))
            EXPECT_TRUE(name == "source" || name == "outside" || name == "destination" || name == "crafted.bom")
                << name;
    }

    TempDir temp;
    std::string source, destination, outside, archive, bom;
    std::map<std::string, TreeItem> outsideBefore;
};

}  // namespace

TEST_F(CopySafetyTest, RefusesDotDotComponents) {
    writeBom(bom, {"./a", "./a/file.txt", "./QQ", "./QQ/outside", "./QQ/outside/secret.txt"}, {{"QQ", ".."}});
    expectRefused("unsafe path \"./..\"");
}

TEST_F(CopySafetyTest, RefusesNamesHoldingSlashes) {
    const std::string name = "/../outside/secret.txt";
    writeBom(bom, {"./a", "./" + std::string(name.size(), 'Q')}, {{std::string(name.size(), 'Q'), name}});
    expectRefused("unsafe path \".//../outside/secret.txt\"");
}

TEST_F(CopySafetyTest, RefusesAnAbsoluteRoot) {
    writeBom(bom, {"./a"});
    // The root's name "." becomes "/": the listing would start at the file system's root.
    std::string bytes = readFile(bom);
    auto rootKey = bytes.find(std::string("\0\0\0\0.\0", 6), 0x200);
    ASSERT_NE(rootKey, std::string::npos);
    bytes[rootKey + 4] = '/';
    writeFile(bom, bytes);
    expectRefused("root");
}

TEST_F(CopySafetyTest, RefusesPathsThroughALinkedSourceFolder) {
    ASSERT_EQ(::symlink("../outside", (source + "/escape").c_str()), 0);
    writeBom(bom, {"./a", "./a/file.txt", "./escape", "./escape/secret.txt"});
    expectRefused("symbolic link");
}

TEST_F(CopySafetyTest, RefusesPathsThroughALinkedSourceFolderDeepDown) {
    ASSERT_EQ(::symlink("../../outside", (source + "/a/escape").c_str()), 0);
    writeBom(bom, {"./a", "./a/escape", "./a/escape/secret.txt"});
    expectRefused("\"./a/escape\"");
}

TEST_F(CopySafetyTest, CopiesALinkToOutsideAsALinkWithoutFollowingIt) {
    ASSERT_EQ(::symlink("../outside/secret.txt", (source + "/pointer").c_str()), 0);
    writeBom(bom, {"./pointer"});
    ASSERT_EQ(copyIntoFolder(bom, source, destination).status, 0);
    auto copied = snapshotTree(destination);
    EXPECT_EQ(copied.at("./pointer").type, 'l');
    EXPECT_EQ(copied.at("./pointer").content, "../outside/secret.txt");
}

TEST_F(CopySafetyTest, RefusesToWriteThroughALinkedDestinationFolder) {
    writeFile(destination + "/.keep", "");
    ASSERT_EQ(::symlink("../outside", (destination + "/a").c_str()), 0);
    writeBom(bom, {"./a", "./a/file.txt"});
    ProgramResult copied = copyIntoFolder(bom, source, destination);
    EXPECT_EQ(copied.status, 1);
    EXPECT_NE(copied.err.find("symbolic link"), std::string::npos) << copied.err;
    EXPECT_EQ(snapshotTree(outside), outsideBefore);
}

TEST_F(CopySafetyTest, ReplacesALinkInTheDestinationInsteadOfWritingThroughIt) {
    writeFile(destination + "/.keep", "");
    writeFile(source + "/secret.txt", "replacement\n");
    ASSERT_EQ(::symlink("../outside/secret.txt", (destination + "/secret.txt").c_str()), 0);
    writeBom(bom, {"./secret.txt"});
    ASSERT_EQ(copyIntoFolder(bom, source, destination).status, 0);
    EXPECT_EQ(snapshotTree(outside), outsideBefore);
    auto copied = snapshotTree(destination);
    EXPECT_EQ(copied.at("./secret.txt").type, 'f');
    EXPECT_EQ(copied.at("./secret.txt").content, "replacement\n");
}

TEST_F(CopySafetyTest, RefusesAListedFileWhereTheSourceHasAFolderOfContents) {
    writeBom(bom, {"./a", "./a/file.txt", "./a/file.txt/inner"});
    expectRefused("not a folder");
}

TEST_F(CopySafetyTest, TheBomToolRefusesEscapingLines) {
    writeFile(temp / "list", ".\n./../outside/secret.txt\n");
    ProgramResult made = runBomTool({"-s", "-i", temp / "list", bom});
    EXPECT_EQ(made.status, 1);
    EXPECT_FALSE(pathExists(bom));
    ::unlink((temp / "list").c_str());
}
