// An installed tree, moved after installation, strips the example bundle to every kind
// of target with the helpers it carries.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

#include "InstallTestSupport.hpp"

using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

class MovedInstall : public testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new TempDir;
        ProgramResult installed = installBuildInto(*root_ / "installed");
        ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
        fs::rename(*root_ / "installed", *root_ / "moved");
    }
    static void TearDownTestSuite() {
        delete root_;
        root_ = nullptr;
    }

    static std::string prefix() { return *root_ / "moved"; }
    static std::string installedWhittle() { return prefix() + "/bin/whittle"; }

    // A folder of this test's own for the runs' targets and Trash.
    TempDir work;
    TargetNames names;
    static TempDir* root_;
};

TempDir* MovedInstall::root_ = nullptr;

}  // namespace

TEST_F(MovedInstall, HoldsTheProgramHelpersManualPageAndCompletion) {
    for (std::string program : {"bin/whittle", "libexec/whittle/whittle-bom", "libexec/whittle/whittle-copy",
                                "libexec/whittle/whittle-diskimage"}) {
        EXPECT_EQ(::access((prefix() + "/" + program).c_str(), X_OK), 0) << program;
    }
    EXPECT_TRUE(pathExists(prefix() + "/share/man/man1/whittle.1.gz"));
    EXPECT_EQ(readFile(prefix() + "/share/bash-completion/completions/whittle"), readFile(WHITTLE_COMPLETION_FILE));
    EXPECT_FALSE(pathExists(prefix() + "/bin/whittle-bom"));
    EXPECT_FALSE(pathExists(prefix() + "/bin/whittle-bundlegen"));
}

TEST_F(MovedInstall, WritesAFolderTarget) {
    ProgramResult result = runExample(installedWhittle(), work.path(), names.folder);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_TRUE(pathExists(work / (names.folder + "/Restore/BuildManifest.plist")));
    EXPECT_TRUE(pathExists(work / (names.folder + "/WhittleCookie.plist")));
}

TEST_F(MovedInstall, WritesABomTargetThatItsBomHelperLists) {
    ProgramResult result = runExample(installedWhittle(), work.path(), names.bom);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    ProgramResult listing = runProgram({prefix() + "/libexec/whittle/whittle-bom", "--list", work / names.bom});
    ASSERT_EQ(listing.status, 0) << listing.err;
    EXPECT_TRUE(contains(listing.out, "./Restore/kernelcache.release.x10\n")) << listing.out;
    EXPECT_FALSE(contains(listing.out, "x30")) << listing.out;
}

TEST_F(MovedInstall, WritesAZipTarget) {
    ProgramResult result = runExample(installedWhittle(), work.path(), names.zip);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    ASSERT_TRUE(pathExists(work / names.zip));
    std::string unzip = programOnPath("unzip");
    if (unzip.empty()) return;
    ProgramResult listing = runProgram({unzip, "-l", work / names.zip});
    EXPECT_EQ(listing.status, 0);
    EXPECT_TRUE(contains(listing.out, "Restore/BuildManifest.plist")) << listing.out;
    EXPECT_TRUE(contains(listing.out, "WhittleCookie.plist")) << listing.out;
}

TEST_F(MovedInstall, WritesADiskImageTargetThatItsDiskImageHelperReads) {
    ProgramResult result = runExample(installedWhittle(), work.path(), names.dmg);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    ProgramResult info = runProgram({prefix() + "/libexec/whittle/whittle-diskimage", "imageinfo", "-checksum", work / names.dmg});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_TRUE(contains(info.out, "Checksum Value")) << info.out;
}

TEST_F(MovedInstall, RunsThroughASymbolicLinkFromAnotherFolder) {
    // The helpers are found from the link's target, not from the folder of the link.
    ASSERT_EQ(::symlink(installedWhittle().c_str(), (work / "whittle").c_str()), 0);
    ProgramResult result = runExample(work / "whittle", work.path(), names.folder);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_TRUE(pathExists(work / (names.folder + "/Restore/BuildManifest.plist")));
}

TEST_F(MovedInstall, ManualPageRendersFromTheInstalledTree) {
    std::string man = programOnPath("man");
    if (man.empty()) GTEST_SKIP() << "man is not installed";
    RunOptions options;
    options.environment = {{"MANWIDTH", "80"}};
    ProgramResult page = runProgram({man, "-l", prefix() + "/share/man/man1/whittle.1.gz"}, options);
    EXPECT_EQ(page.status, 0) << page.err;
    for (std::string heading : {"NAME", "SYNOPSIS", "DESCRIPTION", "MODES", "OPTIONS", "TARGET KINDS", "EXIT STATUS",
                                "FILES", "HELPERS", "EXAMPLES"}) {
        EXPECT_TRUE(contains(page.out, "\n" + heading + "\n")) << heading;
    }
}
