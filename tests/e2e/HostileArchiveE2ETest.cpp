// Runs the built whittle on zip archives built entry by entry to mislead it: a valid
// small bundle plus one hostile thing each. Names that climb out, absolute names,
// backslashes, NUL bytes and duplicates are left out with a warning; links leading out
// are not followed; entries whose headers or sizes lie fail the run that needs them;
// archives whose end records or central directory lie are refused whole. Whatever the
// archive, each run ends in time, nothing beside its target changes, and a failed run
// leaves no target behind.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "BundleGenerator.hpp"
#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "ZipTestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

const std::string kSecret = "SECRET-BESIDE-THE-ARCHIVE";
const std::string kKeptFile = "Restore/kernelcache.release.x10";
constexpr int kRunBoundSeconds = 30;

// One run of whittle on the archive with one target.
struct TargetRun {
    std::string target;
    ProgramResult result;
    std::string said;  // standard output and error together
};

class HostileArchive : public testing::Test {
protected:
    void SetUp() override {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(dir / "bundle", plan);
        fs::create_directories(sentinel());
        writeFile(sentinel() + "/secret.txt", kSecret + "\n");
        spec.entries = bundleEntries(dir / "bundle");
    }

    std::string work() const { return dir / "work"; }
    std::string sentinel() const { return work() + "/sentinel"; }
    std::string archive() const { return work() + "/source.zip"; }

    // The bundle's folders, files and links as archive entries, in the order of a walk.
    static std::vector<ZipEntrySpec> bundleEntries(const std::string& root) {
        std::vector<fs::path> paths;
        for (auto walk = fs::recursive_directory_iterator(root); walk != fs::recursive_directory_iterator(); ++walk) {
            paths.push_back(walk->path());
        }
        std::sort(paths.begin(), paths.end());
        std::vector<ZipEntrySpec> entries;
        for (const auto& path : paths) {
            std::string name = path.lexically_relative(root).string();
            struct stat info {};
            ::lstat(path.c_str(), &info);
            if (S_ISLNK(info.st_mode)) {
                entries.push_back(linkSpec(name, fs::read_symlink(path).string()));
            } else if (S_ISDIR(info.st_mode)) {
                entries.push_back(folderSpec(name + "/"));
            } else {
                entries.push_back(fileSpec(name, readFile(path)));
                entries.back().unixMode = info.st_mode;
            }
        }
        return entries;
    }

    ZipEntrySpec& entryNamed(const std::string& name) {
        for (auto& entry : spec.entries) {
            if (entry.name == name) return entry;
        }
        ADD_FAILURE() << "no entry " << name;
        static ZipEntrySpec none;
        return none;
    }

    void writeArchive() {
        built = ZipBuilder::build(spec);
        writeFile(archive(), built.bytes());
    }

    // What the work folder holds, modes, sizes, contents and times included.
    std::map<std::string, std::string> workFolder() const { return describeTree(work(), "", true); }

    // Runs whittle on the archive with a folder and then a zip target, each checked for
    // what it may change, for what it leaves behind when it fails, and for its time.
    std::vector<TargetRun> runWithEachTarget(const std::vector<std::string>& extra = {}) {
        writeArchive();
        std::vector<TargetRun> runs;
        for (const std::string name : {"out", "out.zip"}) {
            SCOPED_TRACE(name);
            TargetRun run{work() + "/" + name, {}, {}};
            auto before = workFolder();
            RunOptions options;
            options.environment = {{"XDG_DATA_HOME", dir / "data"}};
            options.timeoutSeconds = kRunBoundSeconds;
            auto started = std::chrono::steady_clock::now();
            run.result = runWhittle(plus({archive(), run.target, "--product", "x10", "--factory", "repair"}, extra), options);
            auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            run.said = run.result.out + run.result.err;
            EXPECT_LT(seconds, kRunBoundSeconds) << run.said;
            EXPECT_LT(run.result.status, 128) << run.said;

            auto after = workFolder();
            std::erase_if(after, [&](const auto& item) { return item.first == name || item.first.starts_with(name + "/"); });
            EXPECT_EQ(after, before) << "something beside the target changed";
            if (run.result.status != 0) {
                EXPECT_FALSE(pathExists(run.target)) << "a failed run left its target";
            }
            if (pathExists(run.target)) {
                if (inspectTarget) inspectTarget(run.target);
                expectNothingFromOutside(run.target);
            }
            runs.push_back(run);
            removeTree(run.target);
        }
        return runs;
    }

    // A target carries no byte from beside the archive (links are not followed: those
    // leading out stay links, as a folder source's copy keeps them).
    void expectNothingFromOutside(const std::string& target) {
        std::string folder = target;
        if (target.ends_with(".zip")) {
            folder = target + ".extracted";
            auto tested = runProgram({"/usr/bin/unzip", "-t", target});
            EXPECT_EQ(tested.status, 0) << tested.out;
            auto extracted = runProgram({"/usr/bin/unzip", "-q", target, "-d", folder});
            EXPECT_EQ(extracted.status, 0) << extracted.out << extracted.err;
        }
        std::uint64_t bytes = 0;
        for (const auto& [path, description] : describeTree(folder, "", false)) {
            std::string full = folder + "/" + path;
            if (description.starts_with("f ")) {
                bytes += fs::file_size(full);
                EXPECT_FALSE(contains(readFile(full), kSecret)) << path;
            }
        }
        EXPECT_LT(bytes, 1u << 20) << "the target holds more than the bundle";
        if (folder != target) removeTree(folder);
    }

    std::string leftOut(const std::string& name, const std::string& reason) const {
        return "!!! WARNING: \"" + name + "\" in the zip archive \"" + archive() + "\" is left out: " + reason + ".\n";
    }

    // Both runs succeed, each warning about every entry left out.
    void expectBothSucceedLeavingOut(const std::vector<std::pair<std::string, std::string>>& leftOutEntries,
                                     const std::vector<std::string>& extra = {}) {
        for (const auto& run : runWithEachTarget(extra)) {
            EXPECT_EQ(run.result.status, 0) << run.said;
            for (const auto& [name, reason] : leftOutEntries) {
                EXPECT_TRUE(contains(run.said, leftOut(name, reason))) << run.said;
            }
        }
    }

    // Both runs fail on the kept entry, naming the archive, the entry and the reason.
    void expectBothFailOnEntry(const std::string& name, const std::string& reason) {
        auto runs = runWithEachTarget();
        ASSERT_EQ(runs.size(), 2u);
        std::string note = "!!! NOTE: ";
        std::string named = "\"" + name + "\" in the zip archive \"" + archive() + "\": " + reason;
        EXPECT_NE(runs[0].result.status, 0);
        EXPECT_TRUE(contains(runs[0].said, "XXX ERROR: copying manifest to target failed.\n")) << runs[0].said;
        EXPECT_TRUE(contains(runs[0].said, note + "\"" + name + "\" cannot be written - " + named)) << runs[0].said;
        EXPECT_NE(runs[1].result.status, 0);
        EXPECT_TRUE(contains(runs[1].said, "XXX ERROR: unable to create final ZIP archive.\n")) << runs[1].said;
        EXPECT_TRUE(contains(runs[1].said, note + named)) << runs[1].said;
    }

    // Both runs refuse the archive as a whole.
    void expectBothRefuse(const std::string& reason) {
        for (const auto& run : runWithEachTarget()) {
            EXPECT_NE(run.result.status, 0);
            EXPECT_TRUE(contains(run.said, "XXX ERROR: \"" + archive() + "\" cannot be read as a zip archive: " + reason + ".\n"))
                << run.said;
            EXPECT_FALSE(contains(run.said, "Validation")) << run.said;
        }
    }

    TempDir dir;
    ZipSpec spec;
    BuiltZip built;
    // Looks at each target a run wrote, before it is removed.
    std::function<void(const std::string&)> inspectTarget;
};

}  // namespace

TEST_F(HostileArchive, TheBundleAloneIsStrippedIntoBothTargets) {
    for (const auto& run : runWithEachTarget()) {
        EXPECT_EQ(run.result.status, 0) << run.said;
        EXPECT_FALSE(contains(run.said, "WARNING")) << run.said;
    }
}

// ---- entries left out ----

TEST_F(HostileArchive, NamesClimbingWithDotDotAreLeftOut) {
    spec.entries.push_back(fileSpec("../sentinel/secret.txt", "overwritten"));
    spec.entries.push_back(fileSpec("Restore/../../sentinel/planted.txt", "planted"));
    spec.entries.push_back(folderSpec("Restore/Firmware/../../../sentinel/"));
    expectBothSucceedLeavingOut({{"../sentinel/secret.txt", "its name climbs with \"..\""},
                                 {"Restore/../../sentinel/planted.txt", "its name climbs with \"..\""},
                                 {"Restore/Firmware/../../../sentinel/", "its name climbs with \"..\""}});
}

TEST_F(HostileArchive, AbsoluteNamesAreLeftOut) {
    spec.entries.push_back(fileSpec(sentinel() + "/secret.txt", "overwritten"));
    spec.entries.push_back(fileSpec(sentinel() + "/planted.txt", "planted"));
    expectBothSucceedLeavingOut({{sentinel() + "/secret.txt", "its name is absolute"},
                                 {sentinel() + "/planted.txt", "its name is absolute"}});
}

TEST_F(HostileArchive, NamesWithBackslashesAreLeftOut) {
    spec.entries.push_back(fileSpec("..\\sentinel\\planted.txt", "planted"));
    spec.entries.push_back(fileSpec("Restore\\Firmware\\extra.bin", "extra"));
    expectBothSucceedLeavingOut({{"..\\sentinel\\planted.txt", "its name holds a backslash"},
                                 {"Restore\\Firmware\\extra.bin", "its name holds a backslash"}});
}

TEST_F(HostileArchive, NamesWithNulBytesAreLeftOut) {
    spec.entries.push_back(fileSpec(std::string("Restore/extra.bin\0/../../sentinel/planted.txt", 45), "planted"));
    expectBothSucceedLeavingOut({{"Restore/extra.bin?/../../sentinel/planted.txt", "its name holds a NUL byte"}});
}

TEST_F(HostileArchive, DuplicateNamesKeepTheFirstEntry) {
    std::string original = entryNamed(kKeptFile).content;
    spec.entries.push_back(fileSpec(kKeptFile, "REPLACED " + kSecret));
    spec.entries.push_back(folderSpec(kKeptFile + "/"));
    std::string sameName = "an entry of the same name comes first";
    auto runs = runWithEachTarget();
    for (const auto& run : runs) {
        EXPECT_EQ(run.result.status, 0) << run.said;
        EXPECT_TRUE(contains(run.said, leftOut(kKeptFile, sameName))) << run.said;
        EXPECT_TRUE(contains(run.said, leftOut(kKeptFile + "/", sameName))) << run.said;
    }
    // The first entry is the one kept: checked in a target of each kind kept this time.
    writeArchive();
    auto folderRun = runWhittle({archive(), dir / "kept", "--product", "x10", "--factory", "repair"});
    ASSERT_EQ(folderRun.status, 0) << folderRun.out;
    EXPECT_EQ(readFile(dir / ("kept/" + kKeptFile)), original);
    auto zipRun = runWhittle({archive(), dir / "kept.zip", "--product", "x10", "--factory", "repair"});
    ASSERT_EQ(zipRun.status, 0) << zipRun.out;
    EXPECT_EQ(runProgram({"/usr/bin/unzip", "-p", dir / "kept.zip", kKeptFile}).out, original);
}

TEST_F(HostileArchive, LinksLeadingOutAreNeitherFollowedNorKept) {
    // Read by the engine: the firmware maps; kept: the support images' links.
    entryNamed("Restore/Firmware/target_map.txt") = linkSpec("Restore/Firmware/target_map.txt", sentinel() + "/secret.txt");
    entryNamed("Restore/Firmware/device_map.txt") = linkSpec("Restore/Firmware/device_map.txt", "../../../sentinel/secret.txt");
    entryNamed("RestoreTools.dmg") = linkSpec("RestoreTools.dmg", "../sentinel/secret.txt");
    entryNamed("HomeDiagnostic.dmg") = linkSpec("HomeDiagnostic.dmg", "/etc/passwd");
    // The kept links stay links with the archive's text, never followed, as a folder
    // source's links do.
    std::set<std::string> inspected;
    inspectTarget = [&](const std::string& target) {
        inspected.insert(target);
        if (target.ends_with(".zip")) {
            EXPECT_EQ(runProgram({"/usr/bin/unzip", "-p", target, "HomeDiagnostic.dmg"}).out, "/etc/passwd");
            EXPECT_EQ(runProgram({"/usr/bin/unzip", "-p", target, "RestoreTools.dmg"}).out, "../sentinel/secret.txt");
        } else {
            EXPECT_EQ(fs::read_symlink(target + "/HomeDiagnostic.dmg"), "/etc/passwd");
            EXPECT_EQ(fs::read_symlink(target + "/RestoreTools.dmg"), "../sentinel/secret.txt");
        }
    };
    for (const auto& run : runWithEachTarget({"--keepHomeDiags"})) {
        EXPECT_EQ(run.result.status, 0) << run.said;
        for (const std::string link : {"Restore/Firmware/target_map.txt", "Restore/Firmware/device_map.txt",
                                       "RestoreTools.dmg", "HomeDiagnostic.dmg"}) {
            EXPECT_TRUE(contains(run.said, "!!! WARNING: \"" + link + "\" leads outside the bundle and is not followed.\n"))
                << link << "\n" << run.said;
        }
    }
    EXPECT_EQ(inspected.size(), 2u);
}

TEST_F(HostileArchive, OverlappingEntriesAreLeftOut) {
    writeArchive();
    std::size_t kept = 0;
    while (spec.entries[kept].name != kKeptFile) ++kept;
    ZipEntrySpec sameBytes = fileSpec("Restore/Firmware/same.bin", entryNamed(kKeptFile).content);
    sameBytes.centralOffset = built.localOffsets[kept];
    ZipEntrySpec insideBytes = fileSpec("Restore/Firmware/inside.bin", "x");
    insideBytes.centralOffset = built.localOffsets[kept] + 10;
    spec.entries.push_back(sameBytes);
    spec.entries.push_back(insideBytes);
    expectBothSucceedLeavingOut({{"Restore/Firmware/same.bin", "its bytes overlap those of another entry"},
                                 {"Restore/Firmware/inside.bin", "its bytes overlap those of another entry"}});
}

// ---- kept entries that lie ----

TEST_F(HostileArchive, LocalHeaderNamingAnotherFileFailsTheRun) {
    // As long as the central directory's name, so that only the name disagrees, not where
    // the entry's data starts.
    const std::string otherName = "../../../../sentinel/secret.txt";
    ASSERT_EQ(otherName.size(), kKeptFile.size());
    entryNamed(kKeptFile).localName = otherName;
    expectBothFailOnEntry(kKeptFile, "its local header names \"" + otherName + "\"");
}

TEST_F(HostileArchive, LocalHeaderWithAnotherChecksumFailsTheRun) {
    entryNamed(kKeptFile).localCrc = 0x12345678;
    expectBothFailOnEntry(kKeptFile, "its local header gives another CRC-32 than the central directory");
}

TEST_F(HostileArchive, ContentLargerThanDeclaredFailsTheRun) {
    ZipEntrySpec& entry = entryNamed(kKeptFile);
    entry.content = std::string(256 << 10, 'k');
    entry.centralUncompressed = 16;
    entry.localUncompressed = 16;
    expectBothFailOnEntry(kKeptFile, "it holds more than the 16 bytes declared");
}

TEST_F(HostileArchive, ContentSmallerThanDeclaredFailsTheRun) {
    ZipEntrySpec& entry = entryNamed(kKeptFile);
    std::uint64_t declared = entry.content.size() + 1000;
    entry.centralUncompressed = declared;
    entry.localUncompressed = declared;
    expectBothFailOnEntry(kKeptFile, "it holds " + std::to_string(entry.content.size()) + " bytes, not the " +
                                         std::to_string(declared) + " declared");
}

TEST_F(HostileArchive, KeptEntryClaimingAnImpossibleRatioIsLeftOut) {
    // A megabyte of zeros said to inflate to a gigabyte: no deflate stream does that.
    ZipEntrySpec& entry = entryNamed(kKeptFile);
    entry.stored = rawDeflate(std::string(1 << 20, '\0'));
    std::uint64_t compressed = entry.stored->size();
    entry.centralUncompressed = 1ull << 30;
    entry.localUncompressed = 1ull << 30;
    auto runs = runWithEachTarget();
    std::string reason = "it claims to inflate 1073741824 bytes from " + std::to_string(compressed) + " (more than 1100:1)";
    for (const auto& run : runs) {
        EXPECT_NE(run.result.status, 0) << run.said;
        EXPECT_TRUE(contains(run.said, leftOut(kKeptFile, reason))) << run.said;
    }
}

// ---- archives refused whole ----

TEST_F(HostileArchive, TruncatedCentralDirectoryIsRefused) {
    writeArchive();
    spec.directorySize = built.directorySize - 30;
    expectBothRefuse("its central directory is truncated at entry " + std::to_string(spec.entries.size()));
}

TEST_F(HostileArchive, EntryCountBeyondTheCentralDirectoryIsRefused) {
    writeArchive();
    spec.entryCount = 0xffff;
    expectBothRefuse("its 65535 entries cannot fit in a central directory of " + std::to_string(built.directorySize) +
                     " bytes");
}

TEST_F(HostileArchive, CentralDirectoryBeyondTheFileIsRefused) {
    writeArchive();
    spec.directoryOffset = built.size + 4096;
    expectBothRefuse("its central directory (" + std::to_string(built.directorySize) + " bytes at " +
                     std::to_string(built.size + 4096) + ") lies beyond its end record");
}

TEST_F(HostileArchive, CentralDirectoryPointingBackAtTheEntriesIsRefused) {
    // The ZIP64 end record sends the reader to the first local header, as if the
    // entries were their own directory.
    spec.zip64End = true;
    writeArchive();
    spec.directoryOffset = 0;
    spec.directorySize = built.directoryOffset + built.directorySize;
    expectBothRefuse("entry 1 of its central directory has no header signature");
}
