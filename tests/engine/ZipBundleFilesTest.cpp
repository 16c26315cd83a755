#include "engine/ZipBundleFiles.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"
#include "ZipTestSupport.hpp"
#include "engine/FolderBundleFiles.hpp"
#include "support/FileByteSource.hpp"

namespace whittle {
namespace {

using test::contains;
using test::fileSpec;
using test::folderSpec;
using test::linkSpec;
using test::loggedDuring;
using test::MemoryByteSource;
using test::ZipBuilder;
using test::ZipSpec;

class ZipBundleFilesTest : public test::BundleFixture {
protected:
    // The bundle seen through an archive built byte by byte.
    std::unique_ptr<ZipBundleFiles> filesOf(const ZipSpec& spec) {
        auto built = ZipBuilder::build(spec);
        std::string error;
        std::unique_ptr<ZipBundleFiles> files;
        said = loggedDuring([&] {
            std::shared_ptr<const ZipArchive> archive =
                ZipArchive::open(std::make_shared<MemoryByteSource>("bundle.zip", built.size, built.pieces), error);
            if (archive) files = std::make_unique<ZipBundleFiles>(archive);
        });
        EXPECT_TRUE(files) << error;
        return files;
    }
    // The bundle seen through an archive an archiver made of the generated bundle.
    std::unique_ptr<ZipBundleFiles> filesOfArchive(const std::string& path) {
        std::string error;
        std::shared_ptr<FileByteSource> source = FileByteSource::open(path, error);
        EXPECT_TRUE(source) << error;
        if (!source) return nullptr;
        std::shared_ptr<const ZipArchive> archive = ZipArchive::open(source, error);
        EXPECT_TRUE(archive) << error;
        if (!archive) return nullptr;
        EXPECT_TRUE(archive->skippedEntries().empty());
        return std::make_unique<ZipBundleFiles>(archive);
    }
    void run(const std::vector<std::string>& argv, const std::string& workingDirectory) {
        test::RunOptions options;
        options.workingDirectory = workingDirectory;
        auto result = test::runProgram(argv, options);
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }
    // Every answer of the zip view equals the folder's, path by path.
    void expectSameAsFolder(const ZipBundleFiles& zipped) {
        FolderBundleFiles folder(root());
        std::vector<std::string> fromFolder;
        std::vector<std::string> fromZip;
        folder.listDeep("", fromFolder);
        zipped.listDeep("", fromZip);
        ASSERT_EQ(fromZip, fromFolder);
        EXPECT_GT(fromZip.size(), 20u);
        EXPECT_EQ(zipped.entries(""), folder.entries(""));
        fromFolder.push_back("");
        for (const auto& path : fromFolder) {
            SCOPED_TRACE(path);
            EXPECT_EQ(zipped.exists(path), folder.exists(path));
            EXPECT_EQ(zipped.isFolder(path), folder.isFolder(path));
            EXPECT_EQ(zipped.linkTarget(path), folder.linkTarget(path));
            EXPECT_EQ(zipped.readFile(path), folder.readFile(path));
            EXPECT_EQ(zipped.entries(path), folder.entries(path));
            std::vector<std::string> deepFolder;
            std::vector<std::string> deepZip;
            folder.listDeep(path, deepFolder);
            zipped.listDeep(path, deepZip);
            EXPECT_EQ(deepZip, deepFolder);
            if (!folder.isFolder(path) && !path.empty()) {
                ASSERT_TRUE(zipped.modificationTime(path));
                EXPECT_EQ(zipped.modificationTime(path)->tv_sec, folder.modificationTime(path)->tv_sec);
            }
        }
        EXPECT_TRUE(zipped.escapingLinks().empty());
    }

    std::string said;
};

TEST_F(ZipBundleFilesTest, AGeneratedBundleZippedByZipAnswersAsItsFolder) {
    generate({"x10"}, {"repair", "internal-debug"});
    run({WHITTLE_ZIP_TOOL, "-q", "-r", "-y", dir / "bundle.zip", "."}, root());
    auto files = filesOfArchive(dir / "bundle.zip");
    ASSERT_TRUE(files);
    EXPECT_EQ(files->entryPrefix(), "");
    EXPECT_EQ(files->root(), dir / "bundle.zip");
    expectSameAsFolder(*files);
}

TEST_F(ZipBundleFilesTest, ABundleZippedWithItsFolderHasThatFolderAsRoot) {
    generate({"x10"}, {"repair"});
    run({WHITTLE_ZIP_TOOL, "-q", "-r", "-y", "bundle.zip", "bundle"}, dir.path());
    auto files = filesOfArchive(dir / "bundle.zip");
    ASSERT_TRUE(files);
    EXPECT_EQ(files->entryPrefix(), "bundle/");
    EXPECT_EQ(files->root(), dir / "bundle.zip");
    expectSameAsFolder(*files);
}

TEST_F(ZipBundleFilesTest, AGeneratedBundleZippedBy7zzAnswersAsItsFolder) {
    generate({"x10"}, {"repair"});
    run({WHITTLE_SEVEN_ZIP, "a", "-bd", "-snl", dir / "bundle.zip", "bundle"}, dir.path());
    auto files = filesOfArchive(dir / "bundle.zip");
    ASSERT_TRUE(files);
    EXPECT_EQ(files->entryPrefix(), "bundle/");
    expectSameAsFolder(*files);
}

TEST_F(ZipBundleFilesTest, FoldersImpliedByPathsAreListedWithTheNewestTimeBelowThem) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/Firmware/b.bin", "b"), fileSpec("Restore/Firmware/a.bin", "a"),
                    fileSpec("Restore/BuildManifest.plist", "m"), fileSpec("Extra-1", "x")};
    spec.entries[1].dosDate = (46 << 9) | (1 << 5) | 2;  // 2026, newer than the others
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    EXPECT_EQ(files->entries(""), (std::vector<std::string>{"Extra-1", "Restore"}));
    EXPECT_EQ(files->entries("Restore"), (std::vector<std::string>{"BuildManifest.plist", "Firmware"}));
    std::vector<std::string> deep;
    files->listDeep("Restore", deep);
    EXPECT_EQ(deep, (std::vector<std::string>{"Restore/BuildManifest.plist", "Restore/Firmware", "Restore/Firmware/a.bin",
                                              "Restore/Firmware/b.bin"}));
    EXPECT_TRUE(files->isFolder("Restore/Firmware"));
    EXPECT_EQ(files->readFile("Restore/Firmware/a.bin").value_or(""), "a");
    EXPECT_EQ(files->modificationTime("Restore")->tv_sec, files->modificationTime("Restore/Firmware/a.bin")->tv_sec);
    auto implied = files->itemAt("Restore/Firmware");
    ASSERT_TRUE(implied);
    EXPECT_EQ(implied->kind, ZipBundleFiles::ItemKind::Folder);
    EXPECT_EQ(implied->entry, nullptr);
    auto file = files->itemAt("Restore/Firmware/a.bin");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->kind, ZipBundleFiles::ItemKind::File);
    ASSERT_NE(file->entry, nullptr);
    EXPECT_EQ(file->entry->path, "Restore/Firmware/a.bin");
    EXPECT_FALSE(files->itemAt("Restore/missing"));
}

TEST_F(ZipBundleFilesTest, OneTopFolderIsTheRootOnlyWhenItHoldsRestore) {
    ZipSpec spec;
    spec.entries = {folderSpec("Top/"), fileSpec("Top/Restore/BuildManifest.plist", "m")};
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    EXPECT_EQ(files->entries(""), std::vector<std::string>{"Restore"});
    EXPECT_EQ(files->root(), "bundle.zip");

    spec.entries = {folderSpec("Top/"), fileSpec("Top/Other/BuildManifest.plist", "m")};
    files = filesOf(spec);
    EXPECT_EQ(files->entries(""), std::vector<std::string>{"Top"});
    spec.entries = {fileSpec("Top/Restore/BuildManifest.plist", "m"), fileSpec("Second/x", "x")};
    files = filesOf(spec);
    EXPECT_EQ(files->entries(""), (std::vector<std::string>{"Second", "Top"}));
    spec.entries = {fileSpec("Restore/BuildManifest.plist", "m")};
    files = filesOf(spec);
    EXPECT_EQ(files->entries(""), std::vector<std::string>{"Restore"});
    EXPECT_EQ(files->root(), "bundle.zip");
}

TEST_F(ZipBundleFilesTest, LinksInsideAreFollowedAndLinksLeadingOutAreNot) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/inside.txt", "inside"),   linkSpec("Restore/alias.txt", "inside.txt"),
                    linkSpec("Restore/up.txt", "../../outside/secret.txt"), linkSpec("Restore/absolute.txt", "/etc/passwd"),
                    linkSpec("Out", "../outside"),              linkSpec("InsideLink", "Restore"),
                    linkSpec("Dangling.dmg", "Missing.dmg")};
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    EXPECT_EQ(files->readFile("Restore/alias.txt").value_or(""), "inside");
    EXPECT_EQ(files->readFile("InsideLink/alias.txt").value_or(""), "inside");
    EXPECT_EQ(files->entries("InsideLink"), files->entries("Restore"));
    EXPECT_EQ(files->linkTarget("Restore/alias.txt").value_or(""), "inside.txt");
    EXPECT_EQ(files->linkTarget("Dangling.dmg").value_or(""), "Missing.dmg");
    EXPECT_FALSE(files->linkTarget("Restore/inside.txt"));
    EXPECT_TRUE(files->escapingLinks().empty());

    std::string warnings = loggedDuring([&] {
        int error = 0;
        EXPECT_FALSE(files->readFile("Restore/up.txt", &error));
        EXPECT_EQ(error, ENOENT);
        EXPECT_FALSE(files->readFile("Restore/up.txt"));
        EXPECT_FALSE(files->linkTarget("Restore/absolute.txt"));
        EXPECT_FALSE(files->readFile("Out/secret.txt"));
        EXPECT_FALSE(files->exists("Out/secret.txt"));
        EXPECT_TRUE(files->entries("Out").empty());
        EXPECT_TRUE(files->exists("Out"));
        EXPECT_FALSE(files->readFile("../outside/secret.txt"));
    });
    EXPECT_EQ(warnings,
              "!!! WARNING: \"Restore/up.txt\" leads outside the bundle and is not followed.\n"
              "!!! WARNING: \"Restore/absolute.txt\" leads outside the bundle and is not followed.\n"
              "!!! WARNING: \"Out\" leads outside the bundle and is not followed.\n"
              "!!! WARNING: \"..\" leads outside the bundle and is not followed.\n");
    EXPECT_EQ(files->escapingLinks(), (std::set<std::string>{"..", "Out", "Restore/absolute.txt", "Restore/up.txt"}));
    // Listing shows the links without entering them.
    std::vector<std::string> deep;
    files->listDeep("", deep);
    EXPECT_EQ(deep, (std::vector<std::string>{"Dangling.dmg", "InsideLink", "Out", "Restore", "Restore/absolute.txt",
                                              "Restore/alias.txt", "Restore/inside.txt", "Restore/up.txt"}));
}

TEST_F(ZipBundleFilesTest, DotDotStaysBelowTheRoot) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/inside.txt", "inside")};
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    EXPECT_EQ(files->readFile("Restore/../Restore/inside.txt").value_or(""), "inside");
    std::string warnings = loggedDuring([&] { EXPECT_FALSE(files->readFile("Restore/../../outside/secret.txt")); });
    EXPECT_EQ(warnings, "!!! WARNING: \"Restore/../..\" leads outside the bundle and is not followed.\n");
    int error = 0;
    EXPECT_FALSE(files->readFile("Restore/inside.txt/x", &error));
    EXPECT_EQ(error, ENOTDIR);
    EXPECT_FALSE(files->readFile("Restore", &error));
    EXPECT_EQ(error, 0);
}

TEST_F(ZipBundleFilesTest, LinkLoopsCountAsAbsent) {
    ZipSpec spec;
    spec.entries = {linkSpec("Restore/loop-a", "loop-b"), linkSpec("Restore/loop-b", "loop-a"), linkSpec("Self", "Self/x")};
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    int error = 0;
    EXPECT_FALSE(files->readFile("Restore/loop-a", &error));
    EXPECT_EQ(error, ELOOP);
    EXPECT_TRUE(files->exists("Restore/loop-a"));
    EXPECT_FALSE(files->isFolder("Restore/loop-a"));
    EXPECT_EQ(files->linkTarget("Restore/loop-a").value_or(""), "loop-b");
    EXPECT_FALSE(files->readFile("Self", &error));
    EXPECT_EQ(error, ELOOP);
}

TEST_F(ZipBundleFilesTest, EntriesThatCannotStandWhereTheirNamesPutThemAreLeftOut) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/a", "file"), fileSpec("Restore/a/b", "below a file"), linkSpec("Link", "Restore"),
                    fileSpec("Link/c", "below a link"), fileSpec("Restore/d/e", "e"), folderSpec("Restore/d/"),
                    fileSpec("Restore/f/g", "g")};
    spec.entries.push_back(fileSpec("Restore/f", "a file where a folder is needed"));
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    EXPECT_EQ(files->readFile("Restore/a").value_or(""), "file");
    EXPECT_FALSE(files->exists("Restore/a/b"));
    EXPECT_FALSE(files->exists("Restore/c"));
    EXPECT_TRUE(files->isFolder("Restore/d"));
    ASSERT_TRUE(files->itemAt("Restore/d"));
    EXPECT_NE(files->itemAt("Restore/d")->entry, nullptr);
    EXPECT_TRUE(files->isFolder("Restore/f"));
    EXPECT_EQ(files->readFile("Restore/f/g").value_or(""), "g");
    EXPECT_TRUE(contains(said, "!!! WARNING: \"Restore/a/b\" in the zip archive \"bundle.zip\" is left out: \"Restore/a\" above it is not a folder."))
        << said;
    EXPECT_TRUE(contains(said, "\"Link/c\" in the zip archive \"bundle.zip\" is left out: \"Link\" above it is not a folder.")) << said;
    EXPECT_TRUE(contains(said, "\"Restore/f\" in the zip archive \"bundle.zip\" is left out: other entries need a folder of that name."))
        << said;
}

TEST_F(ZipBundleFilesTest, DamagedEntriesAreReadAsFailuresWithAWarning) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/BuildManifest.plist", "manifest")};
    spec.entries[0].centralCrc = spec.entries[0].localCrc = 99;
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    int error = 0;
    std::string warnings = loggedDuring([&] { EXPECT_FALSE(files->readFile("Restore/BuildManifest.plist", &error)); });
    EXPECT_EQ(error, EIO);
    EXPECT_EQ(warnings,
              "!!! WARNING: \"Restore/BuildManifest.plist\" in the zip archive \"bundle.zip\": its CRC-32 does not match its "
              "content.\n");
}

// A far source whose server stops answering once the archive is open.
class FailingAfterOpening : public MemoryByteSource {
public:
    using MemoryByteSource::MemoryByteSource;
    bool read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) override {
        if (!failing) return MemoryByteSource::read(offset, length, out, error);
        error = failure_ = "unable to read \"http://host/bundle.zip\" - the server answered 503 Service Unavailable";
        return false;
    }
    std::string lastFailure() const override { return failure_; }
    bool failing = false;

private:
    std::string failure_;
};

TEST_F(ZipBundleFilesTest, ArchiveThatCannotBeReadAnyMoreIsAnErrorSaidOnce) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/BuildManifest.plist", "manifest"), fileSpec("Restore/Restore.plist", "restore")};
    auto built = ZipBuilder::build(spec);
    auto source = std::make_shared<FailingAfterOpening>("http://host/bundle.zip", built.size, built.pieces);
    std::string error;
    std::shared_ptr<const ZipArchive> archive = ZipArchive::open(source, error);
    ASSERT_TRUE(archive) << error;
    ZipBundleFiles files(archive);
    source->failing = true;
    int readError = 0;
    said = loggedDuring([&] {
        EXPECT_FALSE(files.readFile("Restore/BuildManifest.plist", &readError));
        EXPECT_FALSE(files.readFile("Restore/Restore.plist"));
    });
    EXPECT_EQ(readError, EIO);
    EXPECT_EQ(said, "XXX ERROR: unable to read \"http://host/bundle.zip\" - the server answered 503 Service Unavailable.\n");
}

TEST_F(ZipBundleFilesTest, DeeplyNestedNamesAreListedWithoutExhaustingTheStack) {
    std::string deepName;
    for (int level = 0; level < 2000; ++level) deepName += "d/";
    deepName += "leaf";
    ZipSpec spec;
    spec.entries = {fileSpec(deepName, "deep")};
    auto files = filesOf(spec);
    ASSERT_TRUE(files);
    std::vector<std::string> deep;
    files->listDeep("", deep);
    EXPECT_EQ(deep.size(), 2001u);
    EXPECT_EQ(deep.back(), deepName);
    EXPECT_EQ(files->readFile(deepName).value_or(""), "deep");
}

}  // namespace
}  // namespace whittle
