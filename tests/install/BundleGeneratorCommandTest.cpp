// whittle-bundlegen's command line: help and unknown options write nothing.
#include <gtest/gtest.h>

#include <filesystem>

#include "InstallTestSupport.hpp"

using namespace whittle::test;

namespace {

ProgramResult bundlegenIn(const TempDir& dir, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{WHITTLE_BUNDLEGEN_BINARY};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    RunOptions options;
    options.workingDirectory = dir.path();
    return runProgram(argv, options);
}

bool isEmptyFolder(const TempDir& dir) { return std::filesystem::is_empty(dir.path()); }

}  // namespace

TEST(BundleGeneratorCommand, HelpPrintsUsageAndWritesNothing) {
    TempDir dir;
    ProgramResult result = bundlegenIn(dir, {"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with("usage: whittle-bundlegen FOLDER")) << result.out;
    EXPECT_TRUE(isEmptyFolder(dir));
}

TEST(BundleGeneratorCommand, HelpAfterAFolderStillWritesNothing) {
    TempDir dir;
    EXPECT_EQ(bundlegenIn(dir, {"bundle", "--product", "x10:repair", "--help"}).status, 0);
    EXPECT_TRUE(isEmptyFolder(dir));
}

TEST(BundleGeneratorCommand, UnknownOptionInPlaceOfTheFolderFailsAndWritesNothing) {
    TempDir dir;
    ProgramResult result = bundlegenIn(dir, {"--bogus"});
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(result.err.starts_with("usage: whittle-bundlegen FOLDER")) << result.err;
    EXPECT_TRUE(isEmptyFolder(dir));
}

TEST(BundleGeneratorCommand, UnknownOptionAfterTheFolderFailsAndWritesNothing) {
    TempDir dir;
    EXPECT_NE(bundlegenIn(dir, {"bundle", "--bogus"}).status, 0);
    EXPECT_NE(bundlegenIn(dir, {"bundle", "--product"}).status, 0);
    EXPECT_TRUE(isEmptyFolder(dir));
}

TEST(BundleGeneratorCommand, StillWritesABundleToTheFolderGiven) {
    TempDir dir;
    ProgramResult result = bundlegenIn(dir, {"bundle", "--product", "x10:repair"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(pathExists(dir / "bundle/Restore/BuildManifest.plist"));
}
