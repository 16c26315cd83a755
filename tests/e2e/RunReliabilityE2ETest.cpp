// Runs the built whittle where earlier versions went wrong: relative and neighbouring
// targets, sources that are not bundles, reasons for failures, standard output that
// cannot be written, text that is not UTF-8, and tools that cannot be found.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

class WhittleReliability : public testing::Test {
protected:
    void SetUp() override {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(source(), plan);
        fs::create_directories(dir / "work");
    }
    std::string source() const { return dir / "bundle"; }

    ProgramResult whittle(std::vector<std::string> arguments, const std::string& workingDirectory = "") {
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        options.workingDirectory = workingDirectory;
        for (const char* part : {"--product", "x10", "--factory", "repair"}) arguments.push_back(part);
        return runWhittle(arguments, options);
    }

    std::set<std::string> zipEntries(const std::string& archive) {
        std::set<std::string> names;
        for (const auto& line : linesOf(runProgram({"/usr/bin/zipinfo", "-1", archive}).out)) {
            if (!line.empty()) names.insert(line.back() == '/' ? line.substr(0, line.size() - 1) : line);
        }
        return names;
    }

    TempDir dir;
};

TEST_F(WhittleReliability, RelativeZipTargetHoldsEverythingAFolderTargetHolds) {
    ProgramResult folder = whittle({source(), dir / "work/folder"});
    ASSERT_EQ(folder.status, 0) << folder.out;
    ProgramResult zip = whittle({source(), "out.zip"}, dir / "work");
    ASSERT_EQ(zip.status, 0) << zip.out;
    EXPECT_EQ(zipEntries(dir / "work/out.zip"), folderTree(dir / "work/folder"));
    EXPECT_TRUE(contains(zip.out, "MD5(out.zip)= ")) << zip.out;

    fs::create_directories(dir / "work/sub");
    ProgramResult nested = whittle({source(), "sub/out.zip"}, dir / "work");
    EXPECT_EQ(nested.status, 0) << nested.out;
    EXPECT_EQ(zipEntries(dir / "work/sub/out.zip"), folderTree(dir / "work/folder"));
}

TEST_F(WhittleReliability, ZipTargetLeavesTheUsersNeighbouringFilesAlone) {
    writeFile(dir / "work/out.bom", "the user's own file");
    ProgramResult zip = whittle({source(), dir / "work/out.zip"});
    ASSERT_EQ(zip.status, 0) << zip.out;
    EXPECT_EQ(readFile(dir / "work/out.bom"), "the user's own file");
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir / "work")) names.insert(entry.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"out.bom", "out.zip"}));
}

TEST_F(WhittleReliability, SourcesThatAreNoBundlesSaySo) {
    ProgramResult missing = whittle({dir / "nothing-here"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(contains(missing.out, "XXX ERROR: source \"" + dir / "nothing-here" + "\" does not exist.\n"
                                      "XXX ERROR: BuildManifest.plist cannot be read.\n")) << missing.out;

    writeFile(dir / "plain.txt", "not a bundle");
    ProgramResult plain = whittle({dir / "plain.txt"});
    EXPECT_EQ(plain.status, 1);
    EXPECT_TRUE(contains(plain.out, "XXX ERROR: source \"" + dir / "plain.txt" + "\" is neither a folder nor a disk image (\".dmg\").\n"))
        << plain.out;

    fs::create_directories(dir / "empty");
    ProgramResult empty = whittle({dir / "empty"});
    EXPECT_EQ(empty.status, 1);
    EXPECT_TRUE(contains(empty.out, "XXX ERROR: source \"" + dir / "empty" + "\" has no \"Restore\" folder.\n")) << empty.out;

    ProgramResult image = whittle({dir / "missing.dmg"});
    EXPECT_NE(image.status, 0);
    EXPECT_TRUE(contains(image.out, "XXX ERROR: source \"" + dir / "missing.dmg" + "\" does not exist.\n")) << image.out;
    EXPECT_TRUE(contains(image.out, "XXX ERROR: unable to mount source disk image: " + dir / "missing.dmg" + ".\n")) << image.out;
}

TEST_F(WhittleReliability, KeptPathMissingFromTheBundleIsNamedDuringValidation) {
    fs::remove(source() + "/Restore/kernelcache.restore.x10");
    ProgramResult validation = whittle({source()});
    EXPECT_EQ(validation.status, 0);
    EXPECT_TRUE(contains(validation.out, "!!! WARNING: kept path \"Restore/kernelcache.restore.x10\" is not in the bundle.\n"))
        << validation.out;
    EXPECT_TRUE(contains(validation.out, "Validation PASSED.")) << validation.out;
}

TEST_F(WhittleReliability, FailedToolSaysWhyWithoutVerbose) {
    fs::remove(source() + "/Restore/kernelcache.restore.x10");
    ProgramResult run = whittle({source(), dir / "work/out"});
    EXPECT_NE(run.status, 0);
    std::string failure = "XXX ERROR: copying manifest to target failed.\n!!! NOTE: ";
    ASSERT_TRUE(contains(run.out, failure)) << run.out;
    std::string note = run.out.substr(run.out.find(failure) + failure.size());
    EXPECT_TRUE(contains(note.substr(0, note.find('\n')), "kernelcache.restore.x10")) << run.out;
    EXPECT_FALSE(pathExists(dir / "work/out"));
}

TEST_F(WhittleReliability, UnwritableStandardOutputFailsTheRun) {
    ProgramResult listing = runProgram({"/bin/sh", "-c", "'" + whittleBinary() + "' --knownproducts > /dev/full"});
    EXPECT_EQ(listing.status, 1);
    EXPECT_TRUE(contains(listing.err, "XXX ERROR: unable to write to standard output - No space left on device.")) << listing.err;

    ProgramResult dryRun = runProgram({"/bin/sh", "-c", "'" + whittleBinary() + "' '" + source() +
                                                            "' --product x10 --factory repair --dryrun > /dev/full"});
    EXPECT_EQ(dryRun.status, 1);
}

TEST_F(WhittleReliability, TargetPathThatIsNotUtf8StillGivesAValidCookie) {
    std::string target = dir / "work/out-\xff\xfe";
    ProgramResult run = whittle({source(), target});
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_TRUE(contains(run.out, "!!! WARNING: the command line holds bytes that are not UTF-8")) << run.out;
    Value cookie = parsePropertyList(readFile(target + "/WhittleCookie.plist"));
    EXPECT_TRUE(cookie.isDictionary());
    EXPECT_EQ(runProgram({"/usr/bin/xmllint", "--noout", target + "/WhittleCookie.plist"}).status, 0);
}

TEST_F(WhittleReliability, HelperThatCannotBeFoundIsNamedWithThePathLookedAt) {
    fs::copy_file(whittleBinary(), dir / "work/whittle");
    RunOptions options;
    options.environment = {{"XDG_DATA_HOME", dir / "data"}};
    ProgramResult run =
        runProgram({dir / "work/whittle", source(), dir / "work/out.bom", "--product", "x10", "--factory", "repair"}, options);
    EXPECT_NE(run.status, 0);
    EXPECT_TRUE(contains(run.out, "XXX ERROR: unable to create BOM.\n!!! NOTE: cannot start \"whittle-bom\" at \"")) << run.out;
    EXPECT_TRUE(contains(run.out, "\" - No such file or directory.")) << run.out;
}

}  // namespace

namespace {

std::string bytesOf(const std::string& path) { return readFile(path); }

class WhittleReproducible : public WhittleReliability {};

TEST_F(WhittleReproducible, EachTargetKindIsByteIdenticalWhenWrittenAgainElsewhere) {
    fs::create_directories(dir / "first");
    fs::create_directories(dir / "second");
    for (std::string name : {"out.zip", "out.dmg", "out.bom"}) {
        SCOPED_TRACE(name);
        // The same command (the cookie records it) run in two folders.
        ProgramResult first = whittle({source(), name}, dir / "first");
        ASSERT_EQ(first.status, 0) << first.out;
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        ProgramResult second = whittle({source(), name}, dir / "second");
        ASSERT_EQ(second.status, 0) << second.out;
        std::string a = bytesOf(dir / ("first/" + name));
        std::string b = bytesOf(dir / ("second/" + name));
        EXPECT_EQ(a.size(), b.size());
        EXPECT_TRUE(a == b) << "the two " << name << " targets differ";
    }
}

}  // namespace
