// Runs the built whittle on a bundle read straight from zip archives: made by zip from
// inside the bundle's folder and with the folder itself, by 7zz, and by zip with ZIP64
// records. Whatever the archive, every mode and every target kind gives what the
// bundle's folder gives; only the cookie's record of the source differs.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <set>

#include "BundleGenerator.hpp"
#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

const std::string kZipTool = WHITTLE_ZIP_TOOL;
const std::string kCookie = "WhittleCookie.plist";

std::string replacedAll(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// How an archive of the bundle is made: the archiver's arguments (ARCHIVE stands for
// the archive's path) run from inside the bundle's folder or from the folder above it.
struct Archiver {
    std::string name;
    std::vector<std::string> command;
    bool fromInsideTheBundle;
    bool zip64;
};

std::ostream& operator<<(std::ostream& out, const Archiver& archiver) { return out << archiver.name; }

const Archiver kZipFromInside{"ZipFromInside", {kZipTool, "-q", "-r", "-y", "ARCHIVE", "."}, true, false};
const Archiver kZipWithTopFolder{"ZipWithTopFolder", {kZipTool, "-q", "-r", "-y", "ARCHIVE", "bundle"}, false, false};
// 7zz follows links unless told to store them as links.
const Archiver kSevenZip{"SevenZip", {sevenZip(), "a", "-bd", "-bso0", "-snl", "ARCHIVE", "bundle"}, false, false};
const Archiver kZip64{"Zip64", {kZipTool, "-q", "-r", "-y", "-fz", "ARCHIVE", "."}, true, true};

// What one run of whittle left: its output and, for a target, the target itself.
struct Outcome {
    ProgramResult result;
    std::string target;
};

class ArchiveRuns : public testing::Test {
protected:
    void prepare(const Archiver& archiver) {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair", "ss"}, 1, true}, {"x30", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(folder(), plan);
        // Modes other than the usual ones, which every target must carry over.
        fs::permissions(folder() + "/Mediadesk FWPKs", fs::perms(0750));
        fs::permissions(folder() + "/Restore/Firmware", fs::perms(0750));
        fs::permissions(folder() + "/Debug/sub", fs::perms(0700));
        fs::permissions(folder() + "/Restore/kernelcache.release.x10", fs::perms(0755));
        fs::permissions(folder() + "/FactoryDiskImage.dmg.signature", fs::perms(0600));
        makeArchive(archiver, archive());
    }

    std::string folder() const { return dir / "bundle"; }
    std::string archive() const { return dir / "archives/bundle.zip"; }

    void makeArchive(const Archiver& archiver, const std::string& path) {
        fs::create_directories(fs::path(path).parent_path());
        std::vector<std::string> argv;
        for (const auto& argument : archiver.command) argv.push_back(argument == "ARCHIVE" ? path : argument);
        RunOptions options;
        options.workingDirectory = archiver.fromInsideTheBundle ? folder() : dir.path();
        auto made = runProgram(argv, options);
        ASSERT_EQ(made.status, 0) << made.out << made.err;
    }

    ProgramResult whittle(const std::vector<std::string>& arguments) {
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        options.timeoutSeconds = 60;
        return runWhittle(arguments, options);
    }

    // Runs the request on the source, writing the target (when named) below a folder
    // of the source's own, so that both runs name their targets alike.
    Outcome run(const std::string& source, const std::vector<std::string>& request, const std::string& targetName = "") {
        Outcome outcome;
        std::vector<std::string> arguments{source};
        if (!targetName.empty()) {
            std::string parent = dir / (source == folder() ? "from-folder" : "from-archive");
            fs::create_directories(parent);
            outcome.target = parent + "/" + targetName;
            arguments.push_back(outcome.target);
        }
        outcome.result = whittle(plus(arguments, request));
        return outcome;
    }

    // The output with the source's and the target's paths written alike for both runs.
    static std::string normalized(const std::string& text, const std::string& source, const std::string& target) {
        std::string out = replacedAll(text, source, "SOURCE");
        return target.empty() ? out : replacedAll(out, target, "TARGET");
    }

    void expectSameOutput(const Outcome& fromFolder, const Outcome& fromArchive) {
        EXPECT_EQ(fromArchive.result.status, fromFolder.result.status) << fromArchive.result.out;
        EXPECT_EQ(normalized(fromArchive.result.out, archive(), fromArchive.target),
                  normalized(fromFolder.result.out, folder(), fromFolder.target));
    }

    // Both cookies record how the bundle was made; apart from the source and the
    // target named on the command line they are the same.
    void expectSameCookies(const std::string& fromFolder, const std::string& fromArchive, const Outcome& folderRun,
                           const Outcome& archiveRun) {
        ASSERT_TRUE(pathExists(fromFolder));
        ASSERT_TRUE(pathExists(fromArchive));
        Value folderCookie = parsePropertyList(normalized(readFile(fromFolder), folder(), folderRun.target));
        Value archiveCookie = parsePropertyList(normalized(readFile(fromArchive), archive(), archiveRun.target));
        EXPECT_EQ(parsePropertyList(readFile(fromArchive)).get("source").text(), archive());
        EXPECT_EQ(parsePropertyList(readFile(fromFolder)).get("source").text(), folder());
        folderCookie.remove("source");
        archiveCookie.remove("source");
        EXPECT_TRUE(archiveCookie.equals(folderCookie)) << xmlPropertyList(archiveCookie) << xmlPropertyList(folderCookie);
    }

    // Paths, kinds, permission bits, sizes, contents and link targets of two trees, the
    // cookies compared apart.
    void expectSameTrees(const std::string& fromFolder, const std::string& fromArchive, const Outcome& folderRun,
                         const Outcome& archiveRun, const std::string& cookieFolder = "") {
        auto folderTree = describeTree(fromFolder, fromFolder, false);
        auto archiveTree = describeTree(fromArchive, fromArchive, false);
        std::string cookie = cookieFolder.empty() ? kCookie : cookieFolder + "/" + kCookie;
        EXPECT_EQ(folderTree.count(cookie), archiveTree.count(cookie));
        if (folderTree.count(cookie)) {
            expectSameCookies(fromFolder + "/" + cookie, fromArchive + "/" + cookie, folderRun, archiveRun);
        }
        folderTree.erase(cookie);
        archiveTree.erase(cookie);
        EXPECT_GT(folderTree.size(), 20u);
        EXPECT_EQ(archiveTree, folderTree);
    }

    // A folder target's run from the folder and from the archive, compared.
    void expectSameFolderTargets(const std::vector<std::string>& request) {
        Outcome fromFolder = run(folder(), request, "out");
        Outcome fromArchive = run(archive(), request, "out");
        ASSERT_EQ(fromFolder.result.status, 0) << fromFolder.result.out;
        ASSERT_EQ(fromArchive.result.status, 0) << fromArchive.result.out << fromArchive.result.err;
        expectSameTrees(fromFolder.target, fromArchive.target, fromFolder, fromArchive);
    }

    TempDir dir;
};

class ArchiveSource : public ArchiveRuns, public testing::WithParamInterface<Archiver> {
protected:
    void SetUp() override { prepare(GetParam()); }
};

// Every kept file, the support material with its links and both products' firmware.
const std::vector<std::string> kRequest{"--product", "x10", "--product", "x30", "--factory", "repair",
                                        "--keepDebug", "--keepFWPKs", "--keepHomeDiags", "--keepSDK", "--keepBundleImages"};

// The names in a zip archive, folders with their trailing "/".
std::set<std::string> entryNames(const std::string& zip) {
    auto listing = runProgram({"/usr/bin/unzip", "-Z1", zip});
    EXPECT_EQ(listing.status, 0) << listing.err;
    auto lines = linesOf(listing.out);
    return {lines.begin(), lines.end()};
}

}  // namespace

TEST_P(ArchiveSource, ArchiveHoldsTheBundlesLinksAsLinks) {
    auto listing = runProgram({"/usr/bin/zipinfo", archive()});
    ASSERT_EQ(listing.status, 0) << listing.err;
    std::set<std::string> links;
    for (const auto& line : linesOf(listing.out)) {
        if (line.starts_with("l")) links.insert(line.substr(line.rfind(' ') + 1));
    }
    std::string top = GetParam().fromInsideTheBundle ? "" : "bundle/";
    EXPECT_EQ(links, (std::set<std::string>{top + "HandsetSDKInternalNonUI.dmg", top + "HomeDiagnostic.dmg",
                                            top + "RestoreTools.dmg"}))
        << listing.out;
}

TEST_P(ArchiveSource, ArchiveHasZip64EndRecordsOnlyWhenAskedFor) {
    std::string bytes = readFile(archive());
    bool zip64End = contains(bytes, std::string("PK\x06\x06", 4));
    bool zip64Locator = contains(bytes, std::string("PK\x06\x07", 4));
    EXPECT_EQ(zip64End, GetParam().zip64);
    EXPECT_EQ(zip64Locator, GetParam().zip64);
}

TEST_P(ArchiveSource, ValidationGivesTheFoldersVerdict) {
    Outcome passed = run(archive(), {"--product", "x10", "--factory", "repair"});
    EXPECT_EQ(passed.result.status, 0) << passed.result.out << passed.result.err;
    EXPECT_TRUE(passed.result.out.ends_with("Validation PASSED.\n")) << passed.result.out;
    expectSameOutput(run(folder(), {"--product", "x10", "--factory", "repair"}), passed);
    expectSameOutput(run(folder(), kRequest), run(archive(), kRequest));

    // x30 has no "ss" variant in this bundle.
    Outcome failed = run(archive(), {"--product", "x30", "--factory", "ss"});
    EXPECT_NE(failed.result.status, 0);
    expectSameOutput(run(folder(), {"--product", "x30", "--factory", "ss"}), failed);
}

TEST_P(ArchiveSource, ReportModesGiveTheFoldersLists) {
    for (const auto& request : std::vector<std::vector<std::string>>{
             {"--validProducts"}, {"--validVariants", "--product", "x10"}, {"--validVariants", "--product", "x30"},
             {"--validVariants"}}) {
        SCOPED_TRACE(request.front());
        Outcome fromArchive = run(archive(), request);
        EXPECT_EQ(fromArchive.result.status, 0) << fromArchive.result.out;
        EXPECT_TRUE(contains(fromArchive.result.out, "<key>validProducts</key>")) << fromArchive.result.out;
        expectSameOutput(run(folder(), request), fromArchive);
    }
}

TEST_P(ArchiveSource, DryRunListsTheFoldersFiles) {
    Outcome fromFolder = run(folder(), plus(kRequest, {"--dryrun"}));
    Outcome fromArchive = run(archive(), plus(kRequest, {"--dryrun"}));
    EXPECT_EQ(fromArchive.result.status, 0) << fromArchive.result.out;
    DryRunLists lists = dryRunListsOf(fromArchive.result.out);
    EXPECT_TRUE(lists.copied.contains("Restore/kernelcache.release.x30"));
    EXPECT_TRUE(lists.copied.contains("HomeDiagnostic.dmg"));
    EXPECT_TRUE(lists.created.contains(kCookie));
    expectSameOutput(fromFolder, fromArchive);
}

TEST_P(ArchiveSource, FolderTargetIsTheFoldersOwn) { expectSameFolderTargets(kRequest); }

TEST_P(ArchiveSource, LegacyEngineFolderTargetIsTheFoldersOwn) {
    expectSameFolderTargets({"--legacy", "--product", "x10", "--factory", "repair", "--keepSDK", "--keepHomeDiags"});
}

TEST_P(ArchiveSource, BomTargetIsTheFoldersOwn) {
    Outcome fromFolder = run(folder(), kRequest, "out.bom");
    Outcome fromArchive = run(archive(), kRequest, "out.bom");
    ASSERT_EQ(fromFolder.result.status, 0) << fromFolder.result.out;
    ASSERT_EQ(fromArchive.result.status, 0) << fromArchive.result.out;
    std::string bom = readFile(fromArchive.target);
    EXPECT_GT(bom.size(), 512u);
    EXPECT_TRUE(bom == readFile(fromFolder.target)) << "the two BOM files differ";
}

TEST_P(ArchiveSource, ZipTargetHoldsTheFoldersEntries) {
    Outcome fromFolder = run(folder(), kRequest, "out.zip");
    Outcome fromArchive = run(archive(), kRequest, "out.zip");
    ASSERT_EQ(fromFolder.result.status, 0) << fromFolder.result.out;
    ASSERT_EQ(fromArchive.result.status, 0) << fromArchive.result.out << fromArchive.result.err;
    EXPECT_TRUE(contains(fromArchive.result.out, "MD5(" + fromArchive.target + ")= ")) << fromArchive.result.out;

    EXPECT_EQ(entryNames(fromArchive.target), entryNames(fromFolder.target));
    auto tested = runProgram({"/usr/bin/unzip", "-t", fromArchive.target});
    EXPECT_EQ(tested.status, 0) << tested.out;
    auto sevenZipTested = runProgram({sevenZip(), "t", fromArchive.target});
    EXPECT_EQ(sevenZipTested.status, 0) << sevenZipTested.out;
    EXPECT_TRUE(contains(sevenZipTested.out, "Everything is Ok")) << sevenZipTested.out;

    // Each entry's content, mode and link target, through what unzip makes of both.
    for (const auto& target : {fromFolder.target, fromArchive.target}) {
        auto extracted = runProgram({"/usr/bin/unzip", "-q", target, "-d", target + ".extracted"});
        ASSERT_EQ(extracted.status, 0) << extracted.out << extracted.err;
    }
    expectSameTrees(fromFolder.target + ".extracted", fromArchive.target + ".extracted", fromFolder, fromArchive);
}

TEST_P(ArchiveSource, DiskImageTargetHoldsTheFoldersTree) {
    Outcome fromFolder = run(folder(), kRequest, "out.dmg");
    Outcome fromArchive = run(archive(), kRequest, "out.dmg");
    ASSERT_EQ(fromFolder.result.status, 0) << fromFolder.result.out << fromFolder.result.err;
    ASSERT_EQ(fromArchive.result.status, 0) << fromArchive.result.out << fromArchive.result.err;
    EXPECT_TRUE(contains(fromArchive.result.out, "Checksum Type: CRC32\n")) << fromArchive.result.out;
    std::vector<std::string> volumes;
    for (const auto& image : {fromFolder.target, fromArchive.target}) {
        std::string output = image + ".extracted";
        auto extracted = runProgram({sevenZip(), "x", "-bd", "-snld20", "-o" + output, image});
        ASSERT_EQ(extracted.status, 0) << extracted.out << extracted.err;
        auto names = folderTree(output);
        // The volume is the one folder at the top of what 7zz extracts.
        std::string volume;
        for (const auto& name : names) {
            if (name.find('/') == std::string::npos) volume = name;
        }
        ASSERT_FALSE(volume.empty());
        volumes.push_back(volume);
    }
    EXPECT_EQ(volumes[0], volumes[1]);
    expectSameTrees(fromFolder.target + ".extracted", fromArchive.target + ".extracted", fromFolder, fromArchive,
                    volumes[0]);
}

INSTANTIATE_TEST_SUITE_P(Archivers, ArchiveSource, testing::Values(kZipFromInside, kZipWithTopFolder, kSevenZip, kZip64),
                         [](const testing::TestParamInfo<Archiver>& param) { return param.param.name; });

// ---- how a source is taken for an archive ----

class ArchiveSourceKind : public ArchiveRuns {
protected:
    void SetUp() override { prepare(kZipFromInside); }
};

TEST_F(ArchiveSourceKind, ZipFileNamedWithoutZipIsReadAsAnArchive) {
    std::vector<std::string> request{"--product", "x10", "--factory", "repair"};
    for (std::string name : {"bundle", "bundle.ipsw", "bundle.ZIP"}) {
        std::string renamed = dir / ("archives/" + name);
        fs::copy_file(archive(), renamed);
        auto result = whittle(plus({renamed}, request));
        EXPECT_EQ(result.status, 0) << name << ": " << result.out;
        EXPECT_EQ(result.out, "Validation PASSED.\n") << name;
    }
}

TEST_F(ArchiveSourceKind, ZipFileNamedDmgStaysADiskImage) {
    std::string renamed = dir / "archives/bundle.dmg";
    fs::copy_file(archive(), renamed);
    auto result = whittle({renamed, "--product", "x10", "--factory", "repair"});
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: unable to mount source disk image: " + renamed + ".\n")) << result.out;
    EXPECT_FALSE(contains(result.out, "Validation"));
}

TEST_F(ArchiveSourceKind, RegularFileThatIsNoZipKeepsItsMessage) {
    for (std::string name : {"notes.txt", "fake.zip", "PK"}) {
        std::string path = dir / name;
        writeFile(path, name == "PK" ? "PK\x03" : "not a bundle, not an archive");
        auto result = whittle({path, "--product", "x10", "--factory", "repair"});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_TRUE(contains(result.out, "XXX ERROR: source \"" + path + "\" is neither a folder nor a disk image (\".dmg\").\n"))
            << result.out;
        EXPECT_FALSE(contains(result.out, "zip archive")) << result.out;
    }
}

TEST_F(ArchiveSourceKind, VerboseRunFromAnArchiveWritesTheFoldersTarget) {
    Outcome fromFolder = run(folder(), plus(kRequest, {"--verbose"}), "out");
    Outcome fromArchive = run(archive(), plus(kRequest, {"--verbose"}), "out");
    ASSERT_EQ(fromArchive.result.status, 0) << fromArchive.result.out << fromArchive.result.err;
    EXPECT_TRUE(contains(fromArchive.result.out, ">>> Work List\n")) << fromArchive.result.out;
    EXPECT_TRUE(contains(fromArchive.result.out, "+++ Oreo's left.  No milk.\n")) << fromArchive.result.out;
    expectSameTrees(fromFolder.target, fromArchive.target, fromFolder, fromArchive);
}
