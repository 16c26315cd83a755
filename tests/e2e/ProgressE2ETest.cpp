// Runs the built whittle on a bundle large enough for its copy to take a while, with
// standard error on a pseudo-terminal and on a pipe: the live progress line.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

const std::string kErase = kTerminalLineErase;

// The lines of whittle-copy's listing.
std::vector<std::string> listedPaths(const std::string& output) {
    std::vector<std::string> paths;
    for (const std::string& line : linesOf(output))
        if (line.starts_with("./")) paths.push_back(line);
    return paths;
}

class ProgressLineRun : public testing::Test {
protected:
    void SetUp() override {
        bundlegen::BundlePlan plan;
        bundlegen::ProductPlan x10;
        x10.product = "x10";
        x10.factoryVariants = {"repair", "ss"};
        bundlegen::ProductPlan x30;
        x30.product = "x30";
        x30.factoryVariants = {"repair"};
        plan.products = {x10, x30};
        plan.bytesPerFile = bytesPerFile();
        plan.sparseFiles = true;
        bundlegen::generateBundle(dir / "bundle", plan);
    }

    // About 0.8 GB to copy for x10 / repair (a hole in the source, data in the copy),
    // so that the copy takes a while.
    virtual std::uint64_t bytesPerFile() const { return 80'000'000; }

    ProgramResult whittle(std::vector<std::string> extra, bool stderrOnTerminal, const std::string& target = "stripped") {
        std::vector<std::string> arguments{dir / "bundle", dir / target, "--product", "x10", "--factory", "repair"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        RunOptions options;
        options.stderrOnTerminal = stderrOnTerminal;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        return runWhittle(arguments, options);
    }

    TempDir dir;
};

// For the other target kinds it is enough that each step's line is drawn and erased.
class ProgressLineOfEachStep : public ProgressLineRun {
protected:
    std::uint64_t bytesPerFile() const override { return 4'000'000; }

    // The steps whose lines were drawn, in order, each once.
    static std::vector<std::string> stepsDrawn(const std::string& terminal) {
        std::vector<std::string> steps;
        for (const std::string& line : drawnLines(terminal)) {
            std::string step = line.substr(0, line.find("  "));
            if (steps.empty() || steps.back() != step) steps.push_back(step);
        }
        return steps;
    }
};

}  // namespace

TEST_F(ProgressLineRun, FolderTargetOnATerminalShowsALiveLineErasedAtTheEnd) {
    ProgramResult run = whittle({}, true);
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<std::string> lines = drawnLines(run.err);
    ASSERT_GE(lines.size(), 2u) << run.err;
    const std::regex progress(R"(copying  \d+%  \d+/13 files  [0-9.]+/[0-9.]+ [KMG]B(  [0-9.]+ [KMG]?B/s(  .* left)?)?)");
    for (const std::string& line : lines) EXPECT_TRUE(std::regex_match(line, progress)) << line;
    EXPECT_NE(lines.front(), lines.back());
    // Nothing is left on the terminal: the last thing written is the erase.
    EXPECT_TRUE(run.err.ends_with(kErase)) << run.err;
    EXPECT_TRUE(pathExists(dir / "stripped/Restore/BuildManifest.plist"));
    EXPECT_FALSE(contains(run.out, "\x1b[K"));
    std::string log = readWhittleLog();
    EXPECT_FALSE(contains(log, "\x1b[K"));
    EXPECT_FALSE(contains(log, " files  "));
}

TEST_F(ProgressLineRun, OnAPipeNothingIsDrawn) {
    ProgramResult run = whittle({}, false);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(pathExists(dir / "stripped/Restore/BuildManifest.plist"));
}

TEST_F(ProgressLineRun, VerboseListingStaysWholeBesideTheLine) {
    ProgramResult quiet = whittle({"--verbose"}, false);
    ASSERT_EQ(quiet.status, 0) << quiet.err;
    removeTree(dir / "stripped");
    ProgramResult shown = whittle({"--verbose"}, true);
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_FALSE(drawnLines(shown.err).empty()) << shown.err;
    // The copy's listing on standard output is the same whether or not a line is drawn.
    std::vector<std::string> listed = listedPaths(shown.out);
    EXPECT_NE(std::find(listed.begin(), listed.end(), "./Restore/kernelcache.release.x10"), listed.end()) << shown.out;
    EXPECT_EQ(listed, listedPaths(quiet.out));
    EXPECT_FALSE(contains(shown.out, "\x1b[K"));
    EXPECT_FALSE(contains(readWhittleLog(), "\x1b[K"));
}

TEST_F(ProgressLineOfEachStep, ZipTargetShowsTheArchivingAndErasesIt) {
    ProgramResult run = whittle({}, true, "stripped.zip");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(stepsDrawn(run.err), std::vector<std::string>{"zipping"}) << run.err;
    EXPECT_TRUE(run.err.ends_with(kErase)) << run.err;
    EXPECT_TRUE(run.out.starts_with("MD5(")) << run.out;
}

TEST_F(ProgressLineOfEachStep, DiskImageTargetShowsTheCopyThenTheImage) {
    ProgramResult run = whittle({}, true, "stripped.dmg");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(stepsDrawn(run.err), (std::vector<std::string>{"copying", "writing image"})) << run.err;
    EXPECT_TRUE(run.err.ends_with(kErase)) << run.err;
    EXPECT_TRUE(contains(run.out, "Checksum Value:")) << run.out;
    EXPECT_FALSE(contains(readWhittleLog(), "\x1b[K"));
}
