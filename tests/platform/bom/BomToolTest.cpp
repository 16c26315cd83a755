#include <gtest/gtest.h>

#include <filesystem>

#include "BomTestSupport.hpp"
#include "TestSupport.hpp"

using whittle::test::bomFixtureFolder;
using whittle::test::fileListOf;
using whittle::test::generatedPaths;
using whittle::test::linesOf;
using whittle::test::pathExists;
using whittle::test::ProgramResult;
using whittle::test::readFile;
using whittle::test::runProgram;
using whittle::test::TempDir;
using whittle::test::writeFile;

namespace {

ProgramResult runBomTool(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{WHITTLE_BOM_BINARY};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv);
}

std::size_t entriesIn(const std::string& folder) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& item : std::filesystem::directory_iterator(folder)) ++count;
    return count;
}

}  // namespace

TEST(BomTool, MakesASimpleBomAndListsIt) {
    TempDir temp;
    writeFile(temp / "list", ".\n./b\n./a\n./a/x.txt\n");
    ProgramResult made = runBomTool({"-s", "-i", temp / "list", temp / "out.bom"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.out, "");
    EXPECT_EQ(made.err, "");
    ProgramResult listed = runBomTool({"--list", temp / "out.bom"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, ".\n./a\n./a/x.txt\n./b\n");
    EXPECT_EQ(runBomTool({"-l", temp / "out.bom"}).out, listed.out);
}

TEST(BomTool, ListsTheFixturesLikeTheirPathsFiles) {
    SKIP_WITHOUT_BOM_FIXTURES();
    for (const char* name : {"full-10", "full-3", "constructed-simple-611"}) {
        ProgramResult listed = runBomTool({"--list", bomFixtureFolder() + "/" + name + ".bom"});
        EXPECT_EQ(listed.status, 0) << listed.err;
        EXPECT_EQ(listed.out, readFile(bomFixtureFolder() + "/" + name + ".paths.txt")) << name;
    }
}

TEST(BomTool, MakesTheConstructedFixtureExactly) {
    SKIP_WITHOUT_BOM_FIXTURES();
    TempDir temp;
    ProgramResult made =
        runBomTool({"-s", "-i", bomFixtureFolder() + "/constructed-simple-611.filelist.txt", temp / "611.bom"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_TRUE(readFile(temp / "611.bom") == readFile(bomFixtureFolder() + "/constructed-simple-611.bom"));
}

TEST(BomTool, HandlesAHundredThousandPaths) {
    TempDir temp;
    std::vector<std::string> paths = generatedPaths(100, 999);
    writeFile(temp / "list", fileListOf(paths));
    ProgramResult made = runBomTool({"-s", "-i", temp / "list", temp / "big.bom"});
    ASSERT_EQ(made.status, 0) << made.err;
    ProgramResult listed = runBomTool({"-l", temp / "big.bom"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(linesOf(listed.out).size(), paths.size() + 1);
}

TEST(BomTool, ReplacesAnExistingBomAndLeavesNoTemporaryFiles) {
    TempDir temp;
    writeFile(temp / "out.bom", "old");
    writeFile(temp / "list", ".\n./a\n");
    ASSERT_EQ(runBomTool({"-s", "-i", temp / "list", temp / "out.bom"}).status, 0);
    EXPECT_EQ(runBomTool({"-l", temp / "out.bom"}).out, ".\n./a\n");
    EXPECT_EQ(entriesIn(temp.path()), 2u);
}

TEST(BomTool, ABadListLeavesNothingBehind) {
    TempDir temp;
    writeFile(temp / "list", ".\n./a\n../escape\n");
    ProgramResult made = runBomTool({"-s", "-i", temp / "list", temp / "out.bom"});
    EXPECT_EQ(made.status, 1);
    EXPECT_EQ(made.err.rfind("whittle-bom: ", 0), 0u) << made.err;
    EXPECT_NE(made.err.find("line 3"), std::string::npos) << made.err;
    EXPECT_FALSE(pathExists(temp / "out.bom"));
    EXPECT_EQ(entriesIn(temp.path()), 1u);
}

TEST(BomTool, ReportsIoAndFormatErrorsWithStatusOne) {
    TempDir temp;
    writeFile(temp / "list", ".\n");
    writeFile(temp / "garbage.bom", std::string(100, 'x'));
    std::vector<std::vector<std::string>> failures = {
        {"-s", "-i", temp / "missing-list", temp / "out.bom"},
        {"-s", "-i", temp / "list", temp / "no-such-folder/out.bom"},
        {"--list", temp / "garbage.bom"},
        {"--list", temp / "missing.bom"},
        {"--list", temp.path()},
    };
    for (const auto& arguments : failures) {
        ProgramResult result = runBomTool(arguments);
        EXPECT_EQ(result.status, 1) << arguments.back();
        EXPECT_EQ(result.err.rfind("whittle-bom: ", 0), 0u) << result.err;
        EXPECT_EQ(linesOf(result.err).size(), 1u) << result.err;
    }
}

TEST(BomTool, RejectsBadUsageWithStatusTwo) {
    std::vector<std::vector<std::string>> misuses = {
        {},
        {"-s", "-i", "list"},
        {"-i", "list", "out.bom"},
        {"-s", "list", "out.bom"},
        {"-s", "-i", "list", "a.bom", "b.bom"},
        {"--list"},
        {"--list", "a", "b"},
        {"-x"},
    };
    for (const auto& arguments : misuses) {
        ProgramResult result = runBomTool(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err.rfind("whittle-bom: ", 0), 0u) << result.err;
        EXPECT_EQ(linesOf(result.err).size(), 1u) << result.err;
    }
    ProgramResult help = runBomTool({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("-s -i FILELIST BOMPATH"), std::string::npos);
}
