// Where whittle looks for its helpers.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "TestSupport.hpp"
#include "driver/ToolPaths.hpp"

using namespace whittle;
using namespace whittle::test;

TEST(HelperPaths, InstalledFolderComesBeforeTheExecutablesOwnFolder) {
    EXPECT_EQ(helperCandidatePathsBeside("/opt/whittle/bin", "whittle-bom"),
              (std::vector<std::string>{"/opt/whittle/libexec/whittle/whittle-bom", "/opt/whittle/bin/whittle-bom"}));
}

TEST(HelperPaths, RelativeExecutableFolderGivesRelativeCandidates) {
    EXPECT_EQ(helperCandidatePathsBeside(".", "whittle-copy"),
              (std::vector<std::string>{"../libexec/whittle/whittle-copy", "./whittle-copy"}));
}

TEST(HelperPaths, TestBinaryLooksBesideItselfAfterTheInstalledFolder) {
    if (!std::string(WHITTLE_CONFIGURED_TOOLS_DIR).empty()) GTEST_SKIP() << "this build fixes the helper folder";
    // This test binary is in tests/install/ of the build folder; the tests' build sets no
    // helper folder of its own.
    std::vector<std::string> candidates = helperCandidatePaths("whittle-diskimage");
    ASSERT_EQ(candidates.size(), 2u);
    EXPECT_EQ(candidates[0], std::string(WHITTLE_BUILD_DIR) + "/tests/libexec/whittle/whittle-diskimage");
    EXPECT_EQ(candidates[1], std::string(WHITTLE_BUILD_DIR) + "/tests/install/whittle-diskimage");
}

TEST(HelperPaths, AccessorAnswersThePreferredCandidateWhenNoneIsExecutable) {
    if (!std::string(WHITTLE_CONFIGURED_TOOLS_DIR).empty()) GTEST_SKIP() << "this build fixes the helper folder";
    // Neither candidate exists beside the test binary, so the accessor names the first.
    EXPECT_EQ(ToolPaths::ofThisInstallation().bomTool, helperCandidatePaths("whittle-bom").front());
}

TEST(HelperPaths, ExecutableFileTest) {
    TempDir dir;
    writeFile(dir / "tool", "#!/bin/sh\n");
    EXPECT_FALSE(isExecutableFile(dir / "tool"));
    ASSERT_EQ(::chmod((dir / "tool").c_str(), 0755), 0);
    EXPECT_TRUE(isExecutableFile(dir / "tool"));
    EXPECT_FALSE(isExecutableFile(dir.path()));
    EXPECT_FALSE(isExecutableFile(dir / "missing"));
}
