// Sources that are zip archives: recognising them, opening them, and writing their kept
// entries out as files or as a zip of the stored bytes.
#include "driver/ArchiveSources.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>
#include <sys/stat.h>
#include <unistd.h>

#include "TestSupport.hpp"
#include "ZipTestSupport.hpp"
#include "support/LogObject.hpp"

using namespace std::chrono_literals;

namespace whittle {
namespace {

using test::fileSpec;
using test::folderSpec;
using test::linkSpec;
using test::loggedDuring;
using test::TempDir;
using test::ZipBuilder;
using test::ZipSpec;

class ArchiveSourcesTest : public testing::Test {
protected:
    // Writes the archive to a file and opens the bundle in it.
    std::shared_ptr<ZipBundleFiles> bundleOf(const ZipSpec& spec, const std::string& name = "bundle.zip") {
        test::writeFile(dir / name, ZipBuilder::build(spec).bytes());
        return openArchiveBundle(dir / name);
    }
    static Value paths(const std::vector<std::string>& names) { return Value::stringArray(names); }
    static mode_t modeOf(const std::string& path) {
        struct stat info {};
        ::lstat(path.c_str(), &info);
        return info.st_mode;
    }

    TempDir dir;
};


TEST_F(ArchiveSourcesTest, ArchivesAreKnownByTheirFirstBytesNotTheirNames) {
    ZipSpec spec;
    spec.entries = {fileSpec("a", "a")};
    std::string bytes = ZipBuilder::build(spec).bytes();
    test::writeFile(dir / "bundle", bytes);
    test::writeFile(dir / "image.dmg", bytes);
    test::writeFile(dir / "text.zip", "not an archive");
    EXPECT_TRUE(isArchiveSource(dir / "bundle"));
    EXPECT_FALSE(isArchiveSource(dir / "image.dmg"));
    EXPECT_FALSE(isArchiveSource(dir / "text.zip"));
    EXPECT_FALSE(isArchiveSource(dir.path()));
    EXPECT_FALSE(isArchiveSource(dir / "missing.zip"));
    EXPECT_TRUE(isArchiveSource("https://example.invalid/bundle.zip"));
    EXPECT_TRUE(isArchiveSource("HTTP://example.invalid/bundle"));
    EXPECT_FALSE(isRemoteSource("ftp://example.invalid/bundle.zip"));
}

TEST_F(ArchiveSourcesTest, AnArchiveThatCannotBeReadIsAnErrorNamingIt) {
    test::writeFile(dir / "broken.zip", std::string("PK\x03\x04", 4) + "truncated");
    std::shared_ptr<ZipBundleFiles> files;
    std::string said = loggedDuring([&] { files = openArchiveBundle(dir / "broken.zip"); });
    EXPECT_FALSE(files);
    EXPECT_TRUE(said.starts_with("XXX ERROR: ")) << said;
    EXPECT_NE(said.find(dir / "broken.zip"), std::string::npos) << said;
}

TEST_F(ArchiveSourcesTest, KeptFilesLinksAndFoldersAreWrittenWithTheirModes) {
    ZipSpec spec;
    auto tool = fileSpec("Restore/tool", "#!/bin/sh\n");
    tool.unixMode = 0100755;
    spec.entries = {folderSpec("Restore/"), fileSpec("Restore/BuildManifest.plist", "manifest"), tool,
                    linkSpec("Restore/current", "tool"), fileSpec("Restore/unkept", "u")};
    auto files = bundleOf(spec);
    ASSERT_TRUE(files);
    ASSERT_EQ(extractKeptPaths(*files, paths({"Restore", "Restore/BuildManifest.plist", "Restore/tool", "Restore/current"}),
                               dir / "out"),
              0);
    EXPECT_EQ(test::readFile(dir / "out/Restore/BuildManifest.plist"), "manifest");
    EXPECT_EQ(modeOf(dir / "out/Restore/tool") & 07777, 0755u);
    EXPECT_TRUE(S_ISLNK(modeOf(dir / "out/Restore/current")));
    char target[16] = {};
    ASSERT_GT(::readlink((dir / "out/Restore/current").c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "tool");
    EXPECT_FALSE(test::pathExists(dir / "out/Restore/unkept"));
}

TEST_F(ArchiveSourcesTest, AKeptPathMissingFromTheArchiveFailsTheCopyWithTheReason) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/a", "a")};
    auto files = bundleOf(spec);
    ASSERT_TRUE(files);
    int status = 0;
    std::string said = loggedDuring([&] { status = extractKeptPaths(*files, paths({"Restore/a", "Restore/b"}), dir / "out"); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(said,
              "XXX ERROR: copying manifest to target failed.\n"
              "!!! NOTE: \"Restore/b\" cannot be written - it is not in the archive.\n");
}

TEST_F(ArchiveSourcesTest, NothingIsWrittenThroughALinkStandingInTheDestination) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/a", "a")};
    auto files = bundleOf(spec);
    ASSERT_TRUE(files);
    ::mkdir((dir / "out").c_str(), 0755);
    ::mkdir((dir / "elsewhere").c_str(), 0755);
    ASSERT_EQ(::symlink((dir / "elsewhere").c_str(), (dir / "out/Restore").c_str()), 0);
    int status = 0;
    loggedDuring([&] { status = extractKeptPaths(*files, paths({"Restore/a"}), dir / "out"); });
    EXPECT_EQ(status, 1);
    EXPECT_FALSE(test::pathExists(dir / "elsewhere/a"));
}

TEST_F(ArchiveSourcesTest, AZipOfTheKeptEntriesHoldsExactlyThem) {
    ZipSpec spec;
    spec.entries = {folderSpec("Restore/"), fileSpec("Restore/a", std::string(3000, 'a')), fileSpec("Restore/b", "b"),
                    linkSpec("Restore/l", "a")};
    auto files = bundleOf(spec);
    ASSERT_TRUE(files);
    ASSERT_EQ(copyKeptEntries(*files, paths({"Restore", "Restore/a", "Restore/l"}), dir / "out.zip"), 0);
    auto listed = test::runProgram({"/usr/bin/unzip", "-Z1", dir / "out.zip"});
    EXPECT_EQ(listed.out, "Restore/\nRestore/a\nRestore/l\n");
    auto content = test::runProgram({"/usr/bin/unzip", "-p", dir / "out.zip", "Restore/a"});
    EXPECT_EQ(content.out, std::string(3000, 'a'));
}

TEST_F(ArchiveSourcesTest, AZipIsNeverWrittenOverAnExistingFile) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/a", "a")};
    auto files = bundleOf(spec);
    ASSERT_TRUE(files);
    test::writeFile(dir / "out.zip", "mine");
    int status = 0;
    std::string said = loggedDuring([&] { status = copyKeptEntries(*files, paths({"Restore/a"}), dir / "out.zip"); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(test::readFile(dir / "out.zip"), "mine");
    EXPECT_NE(said.find("XXX ERROR: unable to create final ZIP archive."), std::string::npos) << said;
}

// ---- the progress of a remote source ----

const std::string kErase(ProgressLine::kErase);

// A fetch progress drawing into a list of writes, on a clock the test moves by hand.
struct ProgressOnFakeTerminal {
    ProgressOnFakeTerminal()
        : progress([this](std::string_view text) { writes.emplace_back(text); }, 0, [this] { return now; }) {}

    // The texts drawn, without the erases in front of them.
    std::vector<std::string> drawn() const {
        std::vector<std::string> texts;
        for (const auto& text : writes)
            if (text.size() > kErase.size()) texts.push_back(text.substr(kErase.size()));
        return texts;
    }

    std::vector<std::string> writes;
    std::chrono::steady_clock::time_point now{std::chrono::seconds(1000)};
    FetchProgress progress;
};

TEST(FetchProgress, WhileTheBundleIsReadShowsTheBytesFetchedSoFar) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.fetched(131'072);
    terminal.now += 1s;
    terminal.progress.fetched(2'500'000);
    EXPECT_EQ(terminal.drawn(), (std::vector<std::string>{"fetching  0 B", "fetching  2.5 MB  2.5 MB/s"}));
}

TEST(FetchProgress, EachRequestsEndTakesTheLineOff) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.fetched(1000);
    terminal.progress.requestEnded();
    EXPECT_EQ(terminal.writes.back(), kErase);
    std::size_t writes = terminal.writes.size();
    terminal.progress.requestEnded();
    EXPECT_EQ(terminal.writes.size(), writes) << "nothing to take off";
}

TEST(FetchProgress, WhileKeptEntriesAreWrittenShowsTheirFilesAndBytes) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.fetched(200'000);
    terminal.progress.requestEnded();
    terminal.progress.beginKeptEntries(3, 3'000'000);
    terminal.now += 1s;
    terminal.progress.fetched(200'000 + 1'500'000);
    terminal.now += 1s;
    terminal.progress.keptPathWritten();
    auto drawn = terminal.drawn();
    ASSERT_EQ(drawn.size(), 4u);
    EXPECT_EQ(drawn[1], "fetching  0%  0/3 files  0.0/3.0 MB");
    EXPECT_EQ(drawn[2], "fetching  50%  0/3 files  1.5/3.0 MB  1.5 MB/s  1 s left");
    EXPECT_EQ(drawn[3], "fetching  50%  1/3 files  1.5/3.0 MB  750 KB/s  2 s left");
}

TEST(FetchProgress, AfterTheEndNothingIsDrawn) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.beginKeptEntries(1, 1000);
    terminal.progress.end();
    EXPECT_EQ(terminal.writes.back(), kErase);
    std::size_t writes = terminal.writes.size();
    terminal.now += 1s;
    terminal.progress.fetched(5000);
    terminal.progress.keptPathWritten();
    terminal.progress.beginKeptEntries(1, 1000);
    EXPECT_EQ(terminal.writes.size(), writes);
}

}  // namespace
}  // namespace whittle
