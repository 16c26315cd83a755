// whittle-diskimage end to end: images it creates read back with 7zz and dmg2img,
// attach and eject through the test volumes folder, the platform's sample images,
// encryption with the passphrase typed on a pseudo-terminal, and damaged input.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/Udif.hpp"
#include "support/Paths.hpp"

extern char** environ;

namespace dmg = whittle::diskimage;
namespace fs = std::filesystem;
using whittle::Value;
using whittle::test::runInNewSession;
using whittle::test::runTool;
using whittle::test::TempDir;

namespace {

// HFS+ keeps names decomposed: "é" (U+00E9) comes back as "e" and U+0301.
std::map<std::string, std::string> asStoredOnHfs(std::map<std::string, std::string> tree) {
    std::map<std::string, std::string> stored;
    for (auto& [path, description] : tree) {
        std::string name = path;
        for (std::size_t at; (at = name.find("\xC3\xA9")) != std::string::npos;) name.replace(at, 2, "e\xCC\x81");
        stored[name] = description;
    }
    return stored;
}

// A name no other test uses, so that volumes of tests running at the same time differ.
std::string uniqueName(const TempDir& dir, const std::string& prefix) {
    return prefix + "-" + whittle::lastPathComponent(dir.path()).substr(std::string("whittle-test-").size());
}

void setMode(const std::string& path, mode_t mode) { ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path; }

// A folder holding what restore bundles hold: modes, long and non-ASCII names, links
// of every direction, empty files and folders, data with long runs of zeros.
void makeBundleFolder(const std::string& root) {
    using whittle::test::writeFile;
    std::mt19937 random(42);
    std::string noise(300000, '\0');
    for (auto& byte : noise) byte = static_cast<char>(random());
    writeFile(root + "/Restore.plist", "<plist>restore</plist>\n");
    writeFile(root + "/Firmware/all_flash/LLB.img4", noise);
    writeFile(root + "/Firmware/zeros.bin", std::string(3 << 20, '\0') + "end");
    writeFile(root + "/Firmware/empty", "");
    writeFile(root + "/usr/bin/tool.sh", "#!/bin/sh\necho tool\n");
    setMode(root + "/usr/bin/tool.sh", 0755);
    writeFile(root + "/private/secret", "s\n");
    setMode(root + "/private/secret", 0600);
    writeFile(root + "/readonly.txt", "r\n");
    setMode(root + "/readonly.txt", 0444);
    writeFile(root + "/caf\xC3\xA9 menu.txt", "accent\n");
    writeFile(root + "/" + std::string(250, 'L'), "long name\n");
    writeFile(root + "/a/b/c/d/e/f/g/h/i/j/deep.txt", "deep\n");
    fs::create_directories(root + "/EmptyFolder");
    fs::create_directories(root + "/Locked");
    setMode(root + "/Locked", 0700);
    fs::create_symlink("Restore.plist", root + "/link-here");
    fs::create_symlink("../Firmware/all_flash/LLB.img4", root + "/usr/link-up");
    fs::create_symlink("/etc/hostname", root + "/link-absolute");
    fs::create_symlink("missing/target", root + "/link-dangling");
}

struct CreatedImage {
    std::string image;
    std::string source;
    std::string volumeName;
};

CreatedImage createBundleImage(const TempDir& dir, const std::string& prefix = "Bundle") {
    CreatedImage created;
    created.volumeName = uniqueName(dir, prefix);
    created.source = dir / created.volumeName;
    makeBundleFolder(created.source);
    created.image = dir / "out.dmg";
    auto run = runTool({"create", "-srcfolder", created.source, created.image, "-format", "UDRO"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "created: " + created.image + "\n");
    return created;
}

std::string sevenZipMessage(const whittle::test::SessionResult& run) { return run.out + run.err; }

void expectCleanTest(const std::string& image) {
    auto test = runInNewSession({whittle::test::sevenZip(), "t", image});
    EXPECT_EQ(test.status, 0) << sevenZipMessage(test);
    EXPECT_NE(test.out.find("Everything is Ok"), std::string::npos) << test.out;
    for (const char* trouble : {"Warning", "WARNING", "Headers Error", "CRC Error", "Master CRC"})
        EXPECT_EQ(test.out.find(trouble), std::string::npos) << trouble << "\n" << test.out;
}

struct Attachment {
    std::string mountPoint;
    std::string devEntry;  // the mounted entity's
    std::string wholeDisk;
    Value entities;
    std::string output;
};

Attachment attach(const std::string& image, const std::optional<std::vector<std::string>>& answers = std::nullopt,
                  const std::vector<std::string>& extra = {}) {
    std::vector<std::string> arguments{"attach", image, "-plist"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    auto run = runTool(arguments, answers);
    Attachment attachment;
    EXPECT_EQ(run.status, 0) << run.err;
    if (run.status != 0) return attachment;
    attachment.output = run.out;
    attachment.entities = whittle::test::systemEntitiesOf(run.out);
    Value mounted = whittle::test::mountedEntityOf(attachment.entities);
    attachment.mountPoint = std::string(mounted.get("mount-point").text());
    attachment.devEntry = std::string(mounted.get("dev-entry").text());
    attachment.wholeDisk = std::string(attachment.entities.at(0).get("dev-entry").text());
    return attachment;
}

void eject(const std::string& devEntry) {
    auto run = runTool({"eject", devEntry});
    EXPECT_EQ(run.status, 0) << run.err;
}

bool volumesFolderHasNameStartingWith(const std::string& prefix) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(whittle::test::testVolumesFolder(), error))
        if (entry.path().filename().string().starts_with(prefix)) return true;
    return false;
}

void expectCleanFailure(const whittle::test::SessionResult& run, const std::string& mentioning) {
    EXPECT_NE(run.status, 0);
    EXPECT_TRUE(run.err.starts_with("whittle-diskimage: ")) << run.err;
    EXPECT_NE(run.err.find(mentioning), std::string::npos) << run.err;
    EXPECT_LT(run.status, 128) << "the tool died of a signal";
}

std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    return names;
}

}  // namespace

// ---- create ----

TEST(DiskImageTool, CreatedImageExtractsWith7zzToTheSameTree) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir);
    expectCleanTest(created.image);

    auto listing = runInNewSession({whittle::test::sevenZip(), "l", created.image});
    EXPECT_NE(listing.out.find(created.volumeName + "/" + std::string(250, 'L')), std::string::npos);

    std::string output = dir / "extracted";
    auto extract = runInNewSession({whittle::test::sevenZip(), "x", "-snld20", "-o" + output, created.image});
    ASSERT_EQ(extract.status, 0) << sevenZipMessage(extract);
    // 7zz points absolute links into its output folder; the rest must be identical.
    EXPECT_EQ(whittle::test::describeTree(output + "/" + created.volumeName, output),
              asStoredOnHfs(whittle::test::describeTree(created.source)));
}

TEST(DiskImageTool, CreatedImageIsAGuidDiskThatDmg2imgConverts) {
    if (!whittle::test::pathExists(whittle::test::dmg2img())) GTEST_SKIP() << "dmg2img (package dmg2img) is missing";
    TempDir dir;
    CreatedImage created = createBundleImage(dir);

    whittle::UniqueDescriptor image = dmg::openForReading(created.image);
    dmg::UdifImage parsed = dmg::readUdifImage(image.get(), created.image);
    ASSERT_EQ(parsed.entries.size(), 6u);
    EXPECT_EQ(parsed.entries[3].name, "disk image (HFS+ : 3)");
    EXPECT_EQ(parsed.trailer.imageVariant, 1u);
    {
        whittle::UniqueDescriptor raw(::open((dir / "ours.raw").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        dmg::expandRawImage(image.get(), parsed, raw.get(), created.image);  // checks every entry's CRC-32
    }
    auto convert = runInNewSession({whittle::test::dmg2img(), "-s", created.image, dir / "dmg2img.raw"});
    ASSERT_EQ(convert.status, 0) << convert.out << convert.err;
    std::string converted = whittle::test::readFile(dir / "dmg2img.raw");
    EXPECT_TRUE(converted == whittle::test::readFile(dir / "ours.raw"));
    EXPECT_EQ(converted.size(), parsed.trailer.sectorCount * 512);
    EXPECT_EQ(converted.substr(512, 8), "EFI PART");
    EXPECT_EQ(converted.substr(34 * 512 + 1024, 2), "H+");
}

TEST(DiskImageTool, CreateFailuresLeaveNothingBehind) {
    TempDir dir;
    fs::create_directories(dir / "src");
    whittle::test::writeFile(dir / "src/file", "x");
    expectCleanFailure(runTool({"create", "-srcfolder", dir / "missing", dir / "a.dmg", "-format", "UDRO"}), "missing");
    expectCleanFailure(runTool({"create", "-srcfolder", dir / "src", dir / "no/such/dir/a.dmg", "-format", "UDRO"}),
                       "a.dmg");
    expectCleanFailure(runTool({"create", "-srcfolder", dir / "src", dir / "a.dmg", "-format", "UDZO"}), "UDRO");
    whittle::test::writeFile(dir / "existing.dmg", "keep me");
    expectCleanFailure(runTool({"create", "-srcfolder", dir / "src", dir / "existing.dmg", "-format", "UDRO"}),
                       "already exists");
    EXPECT_EQ(whittle::test::readFile(dir / "existing.dmg"), "keep me");
    auto usage = runTool({"create", dir / "a.dmg"});
    EXPECT_EQ(usage.status, 2);
    EXPECT_NE(usage.err.find("usage:"), std::string::npos);
    EXPECT_EQ(runTool({}).status, 2);
    EXPECT_EQ(runTool({"frobnicate"}).status, 2);
    auto names = filesIn(dir.path());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"existing.dmg", "src"}));
}

TEST(DiskImageTool, InterruptedCreateLeavesNoPartialImage) {
    TempDir dir;
    fs::create_directories(dir / "src");
    {
        // Written, not sparse: its data must be copied, which takes a while.
        std::ofstream big(dir / "src/big.bin", std::ios::binary);
        const std::string megabyte(1 << 20, 'b');
        for (int i = 0; i < 1024; ++i) big << megabyte;
    }
    std::string tool = whittle::test::diskImageTool();
    std::vector<std::string> arguments{tool, "create", "-srcfolder", dir / "src", dir / "big.dmg", "-format", "UDRO"};
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t child = 0;
    ASSERT_EQ(::posix_spawn(&child, tool.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    // Wait until the tool writes into the temporary image, then stop it.
    bool writing = false;
    for (int i = 0; i < 400 && !writing; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        for (const auto& name : filesIn(dir.path()))
            writing = writing || (name.starts_with(".big.dmg.") && fs::file_size(dir / name) > 0);
    }
    ::kill(child, SIGTERM);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(writing);
    EXPECT_TRUE(WIFSIGNALED(status));
    // Nothing is left, and nothing appears later.
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"src"});
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"src"});
}

// ---- attach and eject ----

TEST(DiskImageTool, AttachMakesTheVolumeAvailableAndEjectRemovesIt) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir);
    Attachment first = attach(created.image);
    ASSERT_FALSE(first.mountPoint.empty()) << first.output;
    EXPECT_EQ(first.mountPoint, whittle::test::testVolumesFolder() + "/" + created.volumeName);
    ASSERT_EQ(first.entities.count(), 2u);
    EXPECT_EQ(first.entities.at(0).get("content-hint").text(), "GUID_partition_scheme");
    EXPECT_EQ(first.devEntry, first.wholeDisk + "s1");
    EXPECT_EQ(whittle::test::mountedEntityOf(first.entities).get("volume-kind").text(), "hfs");
    EXPECT_TRUE(*whittle::test::mountedEntityOf(first.entities).get("potentially-mountable").asBoolean());
    // The tree, absolute links included, exactly as in the source folder.
    EXPECT_EQ(whittle::test::describeTree(first.mountPoint),
              asStoredOnHfs(whittle::test::describeTree(created.source)));

    // Attached again: the same answer, and nothing extracted anew.
    whittle::test::writeFile(first.mountPoint + "/marker", "still here");
    Attachment second = attach(created.image);
    EXPECT_EQ(second.output, first.output);
    EXPECT_TRUE(whittle::test::pathExists(first.mountPoint + "/marker"));

    auto ejected = runTool({"eject", first.devEntry});
    EXPECT_EQ(ejected.status, 0) << ejected.err;
    EXPECT_EQ(ejected.out, "\"" + first.wholeDisk.substr(5) + "\" ejected.\n");
    EXPECT_FALSE(whittle::test::pathExists(first.mountPoint));
    expectCleanFailure(runTool({"eject", first.devEntry}), first.devEntry);
    expectCleanFailure(runTool({"eject", "/dev/sda1"}), "/dev/sda1");

    // After an eject the image attaches afresh.
    Attachment third = attach(created.image);
    EXPECT_EQ(third.mountPoint, first.mountPoint);
    EXPECT_FALSE(whittle::test::pathExists(third.mountPoint + "/marker"));
    eject(third.wholeDisk);
}

TEST(DiskImageTool, AttachOfASecondVolumeWithTheSameNameGetsANewFolder) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir);
    whittle::test::copyFile(created.image, dir / "copy.dmg");
    Attachment first = attach(created.image);
    Attachment second = attach(dir / "copy.dmg");
    EXPECT_EQ(second.mountPoint, first.mountPoint + " 1");
    EXPECT_NE(second.wholeDisk, first.wholeDisk);
    eject(first.devEntry);
    EXPECT_TRUE(whittle::test::pathExists(second.mountPoint));
    eject(second.devEntry);
}

// Attaches each sample image (a private copy: other tests may attach the same sample
// at the same time) and compares the volume with the sample's 7zz listing.
void expectSamplesAttachWithListedContents(const std::string& folder, const std::vector<std::string>& names) {
    TempDir dir;
    for (const auto& name : names) {
        std::string sample = folder + "/" + name + ".dmg";
        SCOPED_TRACE(sample);
        std::string image = dir / (name + ".dmg");
        whittle::test::copyFile(sample, image);
        Attachment attachment = attach(image);
        ASSERT_FALSE(attachment.mountPoint.empty());
        std::set<std::string> expected;
        for (const auto& listed : whittle::test::listedNames(sample + ".contents.txt")) {
            // The listing names the volume folder first; its hidden metadata is removed.
            auto slash = listed.find('/');
            if (slash == std::string::npos) continue;
            std::string inside = listed.substr(slash + 1);
            if (inside.starts_with(".HFS+ Private") || inside.starts_with("[HFS+ Private") ||
                inside.starts_with(".journal"))
                continue;
            expected.insert(inside);
        }
        std::set<std::string> found;
        for (const auto& [path, description] : whittle::test::describeTree(attachment.mountPoint)) found.insert(path);
        EXPECT_EQ(found, expected);
        eject(attachment.devEntry);
    }
}

TEST(DiskImageTool, AttachesTheProjectsSampleImagesWithTheirListedContents) {
    expectSamplesAttachWithListedContents(whittle::test::projectFixtureFolder(),
                                          {"hfsplus_zlib", "hfsplus_bzip2", "hfsplus_lzfse", "hfsplus_lzma"});
}

TEST(DiskImageTool, AttachesTheSharedSampleImagesWithTheirListedContents) {
    auto shared = whittle::test::sharedFixtureFolder();
    if (!shared) GTEST_SKIP() << "the shared sample images (../shared/fixtures/dmg) are not present";
    expectSamplesAttachWithListedContents(*shared, {"src-ro", "HFS+-UDRO-openwall-data.decrypted"});
}

TEST(DiskImageTool, AttachListsTheEntitiesOfAPartitionMapImage) {
    auto shared = whittle::test::sharedFixtureFolder();
    if (!shared) GTEST_SKIP() << "the shared sample images (../shared/fixtures/dmg) are not present";
    TempDir dir;
    whittle::test::copyFile(*shared + "/HFS+-UDRO-openwall-data.decrypted.dmg", dir / "apm.dmg");
    Attachment attachment = attach(dir / "apm.dmg");
    ASSERT_EQ(attachment.entities.count(), 3u);
    EXPECT_TRUE(std::string(attachment.entities.at(0).get("content-hint").text()).ends_with("_partition_scheme"));
    EXPECT_TRUE(std::string(attachment.entities.at(1).get("content-hint").text()).ends_with("_partition_map"));
    EXPECT_EQ(attachment.devEntry, attachment.wholeDisk + "s2");
    EXPECT_EQ(whittle::test::readFile(attachment.mountPoint + "/test.txt").size(), 5u);
    eject(attachment.wholeDisk);
}

TEST(DiskImageTool, DamagedImagesFailWithAClearMessage) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir, "Damaged");
    std::string good = whittle::test::readFile(created.image);
    whittle::UniqueDescriptor fd = dmg::openForReading(created.image);
    dmg::UdifImage parsed = dmg::readUdifImage(fd.get(), created.image);
    std::size_t trailerAt = good.size() - 512;
    namespace t = dmg::format::trailer;

    auto tryAttach = [&](const std::string& bytes, const std::string& mentioning) {
        whittle::test::writeFile(dir / "bad.dmg", bytes);
        expectCleanFailure(runTool({"attach", dir / "bad.dmg", "-plist"}), mentioning);
        EXPECT_FALSE(volumesFolderHasNameStartingWith(created.volumeName));
    };
    auto patched = [&](std::size_t offset, std::uint64_t value, std::size_t width) {
        std::string bytes = good;
        dmg::writeBigEndian(bytes, offset, value, width);
        return bytes;
    };
    tryAttach(good.substr(0, good.size() - 100), "not a disk image");
    tryAttach("", "not a disk image");
    tryAttach(std::string(100000, 'x'), "not a disk image");
    tryAttach(patched(trailerAt + t::kOffsetXmlOffset, good.size() + 10, 8), "outside the file");
    tryAttach(patched(trailerAt + t::kOffsetSectorCount, 1ull << 60, 8), "sector count");
    tryAttach(patched(trailerAt + t::kOffsetVersion, 9, 4), "version");

    std::string xml = good.substr(parsed.trailer.xmlOffset, parsed.trailer.xmlLength);
    auto withXml = [&](const std::string& newXml) {
        dmg::Trailer trailer = parsed.trailer;
        trailer.xmlLength = newXml.size();
        return good.substr(0, parsed.trailer.xmlOffset) + newXml + dmg::serializeTrailer(trailer);
    };
    std::string badBase64 = xml;
    badBase64.replace(badBase64.find("<data>") + 6, 16, "****@@@@!!!!^^^^");
    tryAttach(withXml(badBase64), "chunk table");
    dmg::UdifImage outside = parsed;
    outside.entries[3].table.chunks[0].storedOffset = 1ull << 45;
    tryAttach(withXml(dmg::resourceListXml(outside.entries)), "outside the data fork");

    // A changed byte in stored data: the checksums catch it.
    std::string flipped = good;
    std::size_t inVolume = parsed.entries[3].table.chunks[0].storedOffset + 4096;
    flipped[inVolume] = static_cast<char>(flipped[inVolume] ^ 0x5A);
    tryAttach(flipped, "checksum");

    // A path that is no file at all.
    expectCleanFailure(runTool({"attach", dir / "nothing.dmg", "-plist"}), "nothing.dmg");
    expectCleanFailure(runTool({"attach", dir.path(), "-plist"}), "not a file");
}

TEST(DiskImageTool, DamagedCompressedSampleFailsVerification) {
    TempDir dir;
    std::string bytes = whittle::test::readFile(whittle::test::projectFixtureFolder() + "/hfsplus_zlib.dmg");
    whittle::test::writeFile(dir / "sample.dmg", bytes);
    whittle::UniqueDescriptor fd = dmg::openForReading(dir / "sample.dmg");
    dmg::UdifImage parsed = dmg::readUdifImage(fd.get(), "sample.dmg");
    const dmg::Chunk* compressed = nullptr;
    for (const auto& entry : parsed.entries)
        for (const auto& chunk : entry.table.chunks)
            if (!compressed && chunk.type == dmg::format::chunks::kTypeZlib && chunk.storedLength > 100)
                compressed = &chunk;
    ASSERT_NE(compressed, nullptr);
    std::size_t at = compressed->storedOffset + compressed->storedLength / 2;
    bytes[at] = static_cast<char>(bytes[at] ^ 0xFF);
    whittle::test::writeFile(dir / "sample.dmg", bytes);
    expectCleanFailure(runTool({"attach", dir / "sample.dmg", "-plist"}), "checksum");
}

TEST(DiskImageTool, AttachRemovesWhatAStoppedRunLeftBehind) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir, "Leftover");
    // A work folder of a run that no longer exists (no process has this id).
    std::string state = whittle::test::testVolumesFolder() + "/.whittle-diskimage";
    std::string abandoned = state + "/attach.2147483646.AbCdEf";
    fs::create_directories(abandoned + "/volume/inside");
    Attachment attachment = attach(created.image);
    EXPECT_FALSE(whittle::test::pathExists(abandoned));
    eject(attachment.devEntry);
}

TEST(DiskImageTool, NoverifySkipsTheMasterChecksum) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir, "Noverify");
    std::string bytes = whittle::test::readFile(created.image);
    std::size_t masterValue = bytes.size() - 512 + dmg::format::trailer::kOffsetMasterChecksum + 8;
    bytes[masterValue] = static_cast<char>(bytes[masterValue] ^ 1);
    whittle::test::writeFile(dir / "bad-master.dmg", bytes);
    expectCleanFailure(runTool({"attach", dir / "bad-master.dmg", "-plist"}), "master checksum");
    Attachment attachment = attach(dir / "bad-master.dmg", std::nullopt, {"-noverify"});
    EXPECT_EQ(whittle::test::describeTree(attachment.mountPoint),
              asStoredOnHfs(whittle::test::describeTree(created.source)));
    eject(attachment.devEntry);
}

// ---- encryption ----

TEST(DiskImageTool, AttachesTheEncryptedSampleImagesWithTheirPassphrases) {
    auto shared = whittle::test::sharedFixtureFolder();
    if (!shared) GTEST_SKIP() << "the shared sample images (../shared/fixtures/dmg) are not present";
    TempDir dir;
    whittle::test::copyFile(*shared + "/src-aes-128.dmg", dir / "src-aes-128.dmg");
    Attachment src = attach(dir / "src-aes-128.dmg", std::vector<std::string>{""});
    EXPECT_EQ(whittle::test::readFile(src.mountPoint + "/Hello").size(), 6u);
    EXPECT_EQ(whittle::test::readFile(src.mountPoint + "/World").size(), 6u);
    // Attached already: no passphrase is asked.
    auto again = runTool({"attach", dir / "src-aes-128.dmg", "-plist"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, src.output);
    eject(src.devEntry);

    whittle::test::copyFile(*shared + "/HFS+-UDRO-openwall-data.dmg", dir / "openwall.dmg");
    Attachment openwall = attach(dir / "openwall.dmg", std::vector<std::string>{"openwall"});
    EXPECT_EQ(whittle::lastPathComponent(openwall.mountPoint).substr(0, 4), "data");
    EXPECT_TRUE(whittle::test::pathExists(openwall.mountPoint + "/test.txt"));
    eject(openwall.devEntry);

    auto wrong = runTool({"attach", dir / "openwall.dmg", "-plist"}, std::vector<std::string>{"open sesame"});
    expectCleanFailure(wrong, "wrong passphrase");
    EXPECT_EQ(wrong.terminal.find("open sesame"), std::string::npos) << "the passphrase was echoed";
    expectCleanFailure(runTool({"attach", dir / "openwall.dmg", "-plist"}), "no terminal");
}

TEST(DiskImageTool, CreatesEncryptedImagesThatDecryptAndAttach) {
    TempDir dir;
    std::string volume = uniqueName(dir, "Secret");
    std::string source = dir / volume;
    makeBundleFolder(source);
    auto created = runTool({"create", "-srcfolder", source, dir / "enc.dmg", "-format", "UDRO", "-encryption"},
                           std::vector<std::string>{"s3cret pass", "s3cret pass"});
    ASSERT_EQ(created.status, 0) << created.err;
    EXPECT_EQ(created.promptsAnswered, 2);
    EXPECT_EQ(created.terminal.find("s3cret"), std::string::npos) << "the passphrase was echoed";

    // Our own decryption, then the inner image checked by 7zz.
    whittle::UniqueDescriptor fd = dmg::openForReading(dir / "enc.dmg");
    dmg::EncryptedHeader header = dmg::readEncryptedHeader(fd.get(), "enc.dmg");
    EXPECT_EQ(header.blockSize, 512u);
    EXPECT_EQ(header.keyBits, 128u);
    auto keys = dmg::unlockContainer(header, "s3cret pass");
    ASSERT_TRUE(keys);
    {
        whittle::UniqueDescriptor inner(::open((dir / "inner.dmg").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        dmg::decryptContainer(fd.get(), header, *keys, inner.get(), "enc.dmg");
    }
    expectCleanTest(dir / "inner.dmg");

    // vfdecrypt, given the derived keys, reproduces the same inner image block by block.
    if (whittle::test::pathExists(whittle::test::vfdecrypt())) {
        auto run = runInNewSession(
            {whittle::test::vfdecrypt(), "-i", dir / "enc.dmg", "-o", dir / "vf.dmg", "-k", dmg::keysAsHex(*keys)});
        ASSERT_EQ(run.status, 0) << run.err;
        std::string inner = whittle::test::readFile(dir / "inner.dmg");
        std::string viaVfdecrypt = whittle::test::readFile(dir / "vf.dmg");
        ASSERT_GE(viaVfdecrypt.size(), inner.size());
        EXPECT_TRUE(viaVfdecrypt.substr(0, inner.size()) == inner);
    }

    Attachment attachment = attach(dir / "enc.dmg", std::vector<std::string>{"s3cret pass"});
    EXPECT_EQ(whittle::test::describeTree(attachment.mountPoint), asStoredOnHfs(whittle::test::describeTree(source)));
    eject(attachment.devEntry);

    // The checksum is readable without the passphrase: no terminal, no question.
    auto info = runTool({"imageinfo", "-checksum", dir / "enc.dmg"});
    EXPECT_EQ(info.status, 0) << info.err;
    auto innerInfo = runTool({"imageinfo", "-checksum", dir / "inner.dmg"});
    EXPECT_EQ(info.out, innerInfo.out);
}

TEST(DiskImageTool, EncryptedCreateNeedsATerminalAndMatchingPassphrases) {
    TempDir dir;
    fs::create_directories(dir / "src");
    whittle::test::writeFile(dir / "src/file", "x");
    expectCleanFailure(runTool({"create", "-srcfolder", dir / "src", dir / "e.dmg", "-format", "UDRO", "-encryption"}),
                       "terminal");
    expectCleanFailure(runTool({"create", "-srcfolder", dir / "src", dir / "e.dmg", "-format", "UDRO", "-encryption"},
                               std::vector<std::string>{"one", "two"}),
                       "do not match");
    expectCleanFailure(
        runTool({"create", "-srcfolder", dir / "src", dir / "e.dmg", "-format", "UDRO", "-encryption", "AES-256"}),
        "AES-128");
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"src"});
}

// ---- imageinfo ----

TEST(DiskImageTool, ImageinfoPrintsTheMasterChecksum) {
    TempDir dir;
    CreatedImage created = createBundleImage(dir, "Info");
    auto info = runTool({"imageinfo", "-checksum", created.image});
    ASSERT_EQ(info.status, 0) << info.err;
    auto listing = runInNewSession({whittle::test::sevenZip(), "l", "-slt", "-tdmg", created.image});
    auto at = listing.out.find("master-checksum: CRC: ");
    ASSERT_NE(at, std::string::npos) << listing.out;
    std::string crc = listing.out.substr(at + 22, 8);
    EXPECT_EQ(info.out, "Checksum Type: CRC32\nChecksum Value: $" + crc + "\n");

    if (auto shared = whittle::test::sharedFixtureFolder()) {
        auto sample = runTool({"imageinfo", "-checksum", *shared + "/src-ro.dmg"});
        EXPECT_EQ(sample.out, "Checksum Type: CRC32\nChecksum Value: $27B4EC3A\n");
    }
    expectCleanFailure(runTool({"imageinfo", "-checksum", dir / "nothing.dmg"}), "nothing.dmg");
    whittle::test::writeFile(dir / "junk.dmg", std::string(1000, 'j'));
    expectCleanFailure(runTool({"imageinfo", "-checksum", dir / "junk.dmg"}), "not a disk image");
}

// ---- files of 4 GiB and more (a sparse file; about 20 s, and 4 GiB of disk twice) ----

std::uint64_t freeBytesAt(const std::string& path) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0) return 0;
    return std::uint64_t{status.f_bavail} * status.f_frsize;
}

TEST(DiskImageTool, FilesOfFourGigabytesAndMoreRoundTrip) {
    TempDir dir;
    fs::create_directories(whittle::test::testVolumesFolder());
    constexpr std::uint64_t kNeeded = 10ull << 30;
    if (freeBytesAt(dir.path()) < kNeeded || freeBytesAt(whittle::test::testVolumesFolder()) < kNeeded)
        GTEST_SKIP() << "less than 10 GB free in /tmp or in the build tree for the 4 GiB file";
    std::string volume = uniqueName(dir, "Large");
    std::string source = dir / volume;
    fs::create_directories(source);
    const std::uint64_t size = (4ull << 30) + 12345;
    { std::ofstream file(source + "/huge.bin"); }
    fs::resize_file(source + "/huge.bin", size - 4);
    {
        std::ofstream file(source + "/huge.bin", std::ios::app | std::ios::binary);
        file << "tail";
    }
    auto created = runTool({"create", "-srcfolder", source, dir / "large.dmg", "-format", "UDRO"});
    ASSERT_EQ(created.status, 0) << created.err;
    EXPECT_LT(fs::file_size(dir / "large.dmg"), 64u << 20);
    Attachment attachment = attach(dir / "large.dmg");
    EXPECT_EQ(fs::file_size(attachment.mountPoint + "/huge.bin"), size);
    std::ifstream huge(attachment.mountPoint + "/huge.bin", std::ios::binary);
    huge.seekg(static_cast<std::streamoff>(size - 4));
    std::string tail(4, '\0');
    huge.read(tail.data(), 4);
    EXPECT_EQ(tail, "tail");
    eject(attachment.devEntry);
}
