// Writing an engine's results: the file list and the modified files.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "TestSupport.hpp"
#include "driver/TargetWriters.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

// An engine that hands out fixed results.
class FixedEngine : public Stripper {
public:
    explicit FixedEngine(std::vector<std::string> paths) : paths_(std::move(paths)) {}
    Value strippedManifest() override { return Value::stringArray(paths_); }
    Value bundleRoot() const override { return Value::string("/nonexistent"); }

private:
    std::vector<std::string> paths_;
};

std::string logged(const std::function<void()>& body) {
    LogObject::sharedLogger().setUseTTY(false);
    LogObject::sharedLogger().setVerbose(false);
    return test::loggedDuring(body);
}

std::string fileListOf(std::vector<std::string> paths) {
    FixedEngine engine(std::move(paths));
    std::string path;
    EXPECT_EQ(logged([&] { EXPECT_EQ(writeFileListToTempFile(engine, path), 0); }), ">>> writeFileListToTempFile.\n");
    EXPECT_TRUE(path.starts_with("/tmp/whittle.")) << path;
    EXPECT_EQ(path.size(), std::string("/tmp/whittle.").size() + 10);
    EXPECT_NE(path, "/tmp/whittle.XXXXXXXXXX");
    std::string content = readFile(path);
    ::unlink(path.c_str());
    return content;
}

Value modifiedFiles(std::initializer_list<std::pair<const char*, Value>> entries) {
    Value files = Value::dictionary();
    for (const auto& [path, value] : entries) files.set(path, value);
    return files;
}

bool isLink(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

}  // namespace

TEST(FileList, EmptyManifestListsTheRootAlone) { EXPECT_EQ(fileListOf({}), ".\n"); }

TEST(FileList, OneLinePerPathInOrder) {
    EXPECT_EQ(fileListOf({"Restore", "Restore/a b.dmg", "Z"}), ".\n./Restore\n./Restore/a b.dmg\n./Z\n");
}

TEST(FileList, LongLinesAreCutAtTheBuffer) {
    std::string longPath(1100, 'p');
    std::string content = fileListOf({longPath, "next"});
    EXPECT_EQ(content, ".\n./" + std::string(1021, 'p') + "./next\n");
}

TEST(ApplyModifiedFiles, WritesTextPlistAndLinksCreatingFolders) {
    TempDir dir;
    Value plist = Value::dictionary();
    plist.set("k", Value::string("v"));
    std::string log = logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"a/b/text.txt", Value::string("hello\n")},
                                                    {"a/b/list.plist", plist},
                                                    {"a/link.dmg", Value::data("target.dmg")}}),
                                     dir.path(), false),
                  0);
    });
    EXPECT_EQ(readFile(dir / "a/b/text.txt"), "hello\n");
    EXPECT_TRUE(parsePropertyList(readFile(dir / "a/b/list.plist")).equals(plist));
    EXPECT_TRUE(isLink(dir / "a/link.dmg"));
    EXPECT_EQ(std::filesystem::read_symlink(dir / "a/link.dmg").string(), "target.dmg");
    EXPECT_EQ(log,
              ">>> updating plist file \"list.plist\".\n>>> updating text file \"text.txt\".\n"
              ">>> symlinking \"link.dmg\" -> \"target.dmg\".\n");
}

TEST(ApplyModifiedFiles, LinksAreSkippedSilentlyWithNoSymLinks) {
    TempDir dir;
    std::string log = logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"link.dmg", Value::data("t")}}), dir.path(), true), 0);
    });
    EXPECT_EQ(log, "");
    EXPECT_FALSE(pathExists(dir / "link.dmg"));
}

TEST(ApplyModifiedFiles, LinkReplacesAnExistingFile) {
    TempDir dir;
    writeFile(dir / "RestoreTools.dmg", "a copied image");
    logged([&] { applyModifiedFiles(modifiedFiles({{"RestoreTools.dmg", Value::data("Tools-1.dmg")}}), dir.path(), false); });
    EXPECT_TRUE(isLink(dir / "RestoreTools.dmg"));
}

TEST(ApplyModifiedFiles, FailingTextWriteStopsLaterEntries) {
    TempDir dir;
    std::filesystem::create_directories(dir / "b.txt");  // a folder where the text file should go
    std::string log = logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"b.txt", Value::string("x")}, {"c.txt", Value::string("y")}}),
                                     dir.path(), false),
                  1);
    });
    EXPECT_TRUE(log.find("XXX ERROR: unable to update file - ") != std::string::npos) << log;
    EXPECT_FALSE(pathExists(dir / "c.txt"));
}

TEST(ApplyModifiedFiles, FailingPlistWriteGoesOn) {
    TempDir dir;
    std::filesystem::create_directories(dir / "a.plist");
    std::string log = logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"a.plist", Value::dictionary()}, {"b.txt", Value::string("y")}}),
                                     dir.path(), false),
                  1);
    });
    EXPECT_TRUE(log.find("XXX ERROR: unable to update plist - ") != std::string::npos) << log;
    EXPECT_EQ(readFile(dir / "b.txt"), "y");
}

TEST(ApplyModifiedFiles, OtherKindsAreSkippedWithAWarning) {
    TempDir dir;
    std::string log = logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"n", Value::integer(3)}}), dir.path(), false), 0);
    });
    EXPECT_EQ(log, "!!! WARNING: skipping update of \"" + dir.path() + "/n\".\n");
}

TEST(ApplyModifiedFiles, PathsLeadingOutsideTheDestinationAreRefused) {
    TempDir dir;
    TempDir outside;
    std::filesystem::create_directories(dir / "target");
    std::filesystem::create_directory_symlink(outside.path(), dir / "target/escape");
    std::string target = dir / "target";
    std::string log = logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"../sibling.plist", Value::dictionary()},
                                                    {"/tmp/absolute.plist", Value::dictionary()},
                                                    {"escape/inside.plist", Value::dictionary()},
                                                    {"escape/link", Value::data("x")}}),
                                     target, false),
                  1);
    });
    EXPECT_FALSE(pathExists(dir / "sibling.plist"));
    EXPECT_FALSE(pathExists("/tmp/absolute.plist"));
    EXPECT_TRUE(std::filesystem::is_empty(outside.path()));
    EXPECT_EQ(log,
              ">>> updating plist file \"sibling.plist\".\nXXX ERROR: unable to update plist - the path leads outside the target.\n"
              ">>> updating plist file \"absolute.plist\".\nXXX ERROR: unable to update plist - the path leads outside the target.\n"
              ">>> updating plist file \"inside.plist\".\nXXX ERROR: unable to update plist - the path leads outside the target.\n"
              ">>> symlinking \"link\" -> \"x\".\nXXX ERROR: unable to create symlink - the path leads outside the target.\n");
}

TEST(ApplyModifiedFiles, TextThroughALinkedFolderIsRefused) {
    TempDir dir;
    TempDir outside;
    std::filesystem::create_directory_symlink(outside.path(), dir / "Restore");
    logged([&] {
        EXPECT_EQ(applyModifiedFiles(modifiedFiles({{"Restore/x.txt", Value::string("x")}}), dir.path(), false), 1);
    });
    EXPECT_TRUE(std::filesystem::is_empty(outside.path()));
}

TEST(ApplyModifiedFiles, EmptyDictionarySucceeds) {
    TempDir dir;
    EXPECT_EQ(applyModifiedFiles(Value::dictionary(), dir.path(), false), 0);
}
