#include "support/ZipArchive.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "TestSupport.hpp"
#include "ZipTestSupport.hpp"
#include "support/FileByteSource.hpp"
#include "support/LogObject.hpp"

namespace whittle {
namespace {

using test::BuiltZip;
using test::contains;
using test::fileSpec;
using test::folderSpec;
using test::linkSpec;
using test::loggedDuring;
using test::MemoryByteSource;
using test::TempDir;
using test::ZipBuilder;
using test::ZipEntrySpec;
using test::ZipSpec;

// Bytes bent by hand, as an archive to open.
BuiltZip asBuilt(const std::string& bytes) {
    BuiltZip built;
    built.size = bytes.size();
    built.pieces = {{0, bytes}};
    return built;
}

constexpr std::time_t kFixedTime = 1700000000;  // 2023-11-14 22:13:20 UTC

class ZipArchiveTest : public ::testing::Test {
protected:
    // Opens a built archive, keeping what was said while reading its directory.
    std::unique_ptr<ZipArchive> open(const BuiltZip& built, std::string& error) {
        source_ = std::make_shared<MemoryByteSource>("hostile.zip", built.size, built.pieces);
        std::unique_ptr<ZipArchive> archive;
        said_ = loggedDuring([&] { archive = ZipArchive::open(source_, error); });
        return archive;
    }
    std::unique_ptr<ZipArchive> open(const ZipSpec& spec) {
        std::string error;
        auto archive = open(ZipBuilder::build(spec), error);
        EXPECT_TRUE(archive) << error;
        return archive;
    }
    // The reason an archive is refused for.
    std::string refusal(const ZipSpec& spec) { return refusal(ZipBuilder::build(spec)); }
    std::string refusal(const BuiltZip& built) {
        std::string error;
        EXPECT_FALSE(open(built, error));
        return error;
    }
    // The error of reading an entry of an archive whose directory is fine.
    std::string readError(const ZipSpec& spec, const std::string& path) {
        auto archive = open(spec);
        if (!archive) return "no archive";
        const ZipEntry* entry = archive->find(path);
        if (!entry) return "no entry";
        std::string content;
        std::string error;
        EXPECT_FALSE(archive->readEntry(*entry, content, error));
        EXPECT_TRUE(content.empty());
        return error;
    }
    std::string readContent(const ZipArchive& archive, const std::string& path) {
        const ZipEntry* entry = archive.find(path);
        if (!entry) return "<no entry>";
        std::string content;
        std::string error;
        EXPECT_TRUE(archive.readEntry(*entry, content, error)) << error;
        return content;
    }
    // A spec whose single entry is left out, and the warning about it.
    void expectLeftOut(ZipEntrySpec hostile, const std::string& reason) {
        ZipSpec spec;
        spec.entries = {fileSpec("good.txt", "good"), hostile};
        auto archive = open(spec);
        ASSERT_TRUE(archive);
        ASSERT_EQ(archive->entries().size(), 1u) << hostile.name;
        EXPECT_EQ(archive->entries()[0].path, "good.txt");
        ASSERT_EQ(archive->skippedEntries().size(), 1u);
        EXPECT_EQ(archive->skippedEntries()[0].reason, reason);
        EXPECT_TRUE(contains(said_, "!!! WARNING: \"")) << said_;
        EXPECT_TRUE(contains(said_, "\" in the zip archive \"hostile.zip\" is left out: " + reason + ".")) << said_;
    }

    // A small tree on disk with fixed times, to be zipped by the archivers.
    void makeTree() {
        namespace fs = std::filesystem;
        fs::create_directories(dir_ / "Tree/Restore/Firmware");
        test::writeFile(dir_ / "Tree/Restore/BuildManifest.plist", "<plist>manifest</plist>");
        test::writeFile(dir_ / "Tree/Restore/empty", "");
        big_.clear();
        for (int index = 0; index < 200000; ++index) big_ += "line " + std::to_string(index) + "\n";
        test::writeFile(dir_ / "Tree/Restore/Firmware/big.bin", big_);
        ASSERT_EQ(::symlink("BuildManifest.plist", (dir_ / "Tree/Restore/alias").c_str()), 0);
        ::chmod((dir_ / "Tree/Restore/empty").c_str(), 0600);
        for (const auto& item : fs::recursive_directory_iterator(dir_ / "Tree")) setFixedTime(item.path());
        setFixedTime(dir_ / "Tree");
    }
    static void setFixedTime(const std::string& path) {
        struct timespec times[2] = {{kFixedTime, 0}, {kFixedTime, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    std::unique_ptr<ZipArchive> openFile(const std::string& path) {
        std::string error;
        std::shared_ptr<FileByteSource> source = FileByteSource::open(path, error);
        EXPECT_TRUE(source) << error;
        if (!source) return nullptr;
        auto archive = ZipArchive::open(source, error);
        EXPECT_TRUE(archive) << error;
        return archive;
    }
    void run(const std::vector<std::string>& argv) {
        test::RunOptions options;
        options.workingDirectory = dir_.path();
        auto result = test::runProgram(argv, options);
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }
    // What every archiver must have kept of the tree.
    void expectTree(const ZipArchive& archive, bool utcTimes) {
        const ZipEntry* folder = archive.find("Tree/Restore/Firmware");
        ASSERT_TRUE(folder);
        EXPECT_TRUE(folder->isFolder);
        EXPECT_TRUE(S_ISDIR(folder->unixMode));
        const ZipEntry* manifest = archive.find("Tree/Restore/BuildManifest.plist");
        ASSERT_TRUE(manifest);
        EXPECT_FALSE(manifest->isFolder);
        EXPECT_FALSE(manifest->isSymlink);
        EXPECT_EQ(readContent(archive, "Tree/Restore/BuildManifest.plist"), "<plist>manifest</plist>");
        if (utcTimes) {
            EXPECT_EQ(manifest->modified.tv_sec, kFixedTime);
        }
        const ZipEntry* big = archive.find("Tree/Restore/Firmware/big.bin");
        ASSERT_TRUE(big);
        EXPECT_EQ(big->method, kZipMethodDeflate);
        EXPECT_EQ(big->uncompressedSize, big_.size());
        EXPECT_LT(big->compressedSize, big_.size() / 3);
        EXPECT_EQ(readContent(archive, "Tree/Restore/Firmware/big.bin"), big_);
        const ZipEntry* alias = archive.find("Tree/Restore/alias");
        ASSERT_TRUE(alias);
        EXPECT_TRUE(alias->isSymlink);
        EXPECT_EQ(readContent(archive, "Tree/Restore/alias"), "BuildManifest.plist");
        const ZipEntry* empty = archive.find("Tree/Restore/empty");
        ASSERT_TRUE(empty);
        EXPECT_EQ(empty->unixMode & 07777, 0600u);
        EXPECT_EQ(readContent(archive, "Tree/Restore/empty"), "");
        EXPECT_TRUE(archive.skippedEntries().empty());
    }

    TempDir dir_;
    std::string big_;
    std::shared_ptr<MemoryByteSource> source_;
    std::string said_;
};

TEST_F(ZipArchiveTest, ReadsAnArchiveMadeByZip) {
    makeTree();
    run({WHITTLE_ZIP_TOOL, "-q", "-r", "-y", "made.zip", "Tree"});
    auto archive = openFile(dir_ / "made.zip");
    ASSERT_TRUE(archive);
    expectTree(*archive, true);
}

TEST_F(ZipArchiveTest, ReadsAnArchiveMadeBy7zz) {
    makeTree();
    run({WHITTLE_SEVEN_ZIP, "a", "-bd", "-snl", "made.zip", "Tree"});
    auto archive = openFile(dir_ / "made.zip");
    ASSERT_TRUE(archive);
    expectTree(*archive, true);
}

TEST_F(ZipArchiveTest, ReadsAForcedZip64ArchiveMadeByZip) {
    makeTree();
    run({WHITTLE_ZIP_TOOL, "-q", "-r", "-y", "-fz", "made.zip", "Tree"});
    std::string bytes = test::readFile(dir_ / "made.zip");
    ASSERT_NE(bytes.find(std::string("PK\x06\x06", 4)), std::string::npos) << "no ZIP64 end record was written";
    auto archive = openFile(dir_ / "made.zip");
    ASSERT_TRUE(archive);
    expectTree(*archive, true);
}

TEST_F(ZipArchiveTest, ReadsEntriesBeyondFourGigabytes) {
    ZipSpec spec;
    spec.entries = {fileSpec("first.txt", "first"), fileSpec("far/away.txt", std::string(5000, 'f'))};
    spec.entries[1].zip64 = true;
    spec.entries[1].holeBefore = 5ull << 30;
    spec.zip64End = true;
    BuiltZip built = ZipBuilder::build(spec);
    ASSERT_GT(built.localOffsets[1], 5ull << 30);
    std::string error;
    auto archive = open(built, error);
    ASSERT_TRUE(archive) << error;
    const ZipEntry* far = archive->find("far/away.txt");
    ASSERT_TRUE(far);
    EXPECT_EQ(far->localHeaderOffset, built.localOffsets[1]);
    EXPECT_EQ(readContent(*archive, "far/away.txt"), std::string(5000, 'f'));
    EXPECT_EQ(readContent(*archive, "first.txt"), "first");
    // Only the end, the directory and the two entries were read, not the gigabytes between.
    EXPECT_LT(source_->bytesFetched(), 200000u);
}

TEST_F(ZipArchiveTest, ReadsTheCommentAndTheTimes) {
    ZipSpec spec;
    spec.entries = {fileSpec("dos.txt", "d"), fileSpec("stamped.txt", "s")};
    std::string stamp;
    ZipBuilder::put16(stamp, 0x5455);
    ZipBuilder::put16(stamp, 5);
    stamp += '\x01';
    ZipBuilder::put32(stamp, kFixedTime);
    spec.entries[1].centralExtra = stamp;
    spec.comment = "made for the test";
    auto archive = open(spec);
    ASSERT_TRUE(archive);
    EXPECT_EQ(archive->comment(), "made for the test");
    EXPECT_EQ(archive->find("stamped.txt")->modified.tv_sec, kFixedTime);
    // DOS times are the writer's local time.
    std::tm local{};
    std::time_t dos = archive->find("dos.txt")->modified.tv_sec;
    ::localtime_r(&dos, &local);
    EXPECT_EQ(local.tm_year, 125);
    EXPECT_EQ(local.tm_mon, 2);
    EXPECT_EQ(local.tm_mday, 14);
    EXPECT_EQ(local.tm_hour, 15);
    EXPECT_EQ(local.tm_min, 9);
    EXPECT_EQ(local.tm_sec, 26);
}

TEST_F(ZipArchiveTest, InflatesOnlyTheEntryReadAndStreamsItInPieces) {
    std::string large(4 << 20, '\0');
    std::uint32_t state = 1;
    for (char& byte : large) {
        state = state * 1103515245 + 12345;
        byte = static_cast<char>('a' + (state >> 16) % 4);
    }
    ZipSpec spec;
    spec.entries = {fileSpec("large.bin", large), fileSpec("small.txt", "small")};
    auto archive = open(spec);
    ASSERT_TRUE(archive);
    std::uint64_t before = source_->bytesFetched();
    EXPECT_EQ(readContent(*archive, "small.txt"), "small");
    EXPECT_LT(source_->bytesFetched() - before, 1000u);

    std::string gathered;
    int pieces = 0;
    std::string error;
    ASSERT_TRUE(archive->streamEntry(*archive->find("large.bin"), [&](std::string_view piece) {
        gathered.append(piece);
        ++pieces;
        return true;
    }, error)) << error;
    EXPECT_EQ(gathered, large);
    EXPECT_GT(pieces, 10);
    int calls = 0;
    EXPECT_FALSE(archive->streamEntry(*archive->find("large.bin"), [&](std::string_view) { return ++calls < 3; }, error));
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(error.empty());
}

TEST_F(ZipArchiveTest, GivesTheStoredBytesRangeForARawCopy) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa")};
    BuiltZip built = ZipBuilder::build(spec);
    std::string error;
    auto archive = open(built, error);
    ASSERT_TRUE(archive);
    ByteRange range;
    ASSERT_TRUE(archive->dataRange(*archive->find("a.txt"), range, error)) << error;
    EXPECT_EQ(range.offset, built.localOffsets[0] + 30 + 5);
    EXPECT_EQ(built.bytes().substr(range.offset, range.length), test::rawDeflate(spec.entries[0].content));
}

// The bytes that come with the local header are used, and the rest read from where
// that read ended: no byte of the entry is read twice.
TEST_F(ZipArchiveTest, ReadsEachStoredByteOnceWhenStreaming) {
    std::string noise(300'000, '\0');
    std::uint32_t state = 5;
    for (char& byte : noise) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state);
    }
    ZipSpec spec;
    spec.entries = {fileSpec("noise.bin", noise), fileSpec("after.txt", "after")};
    BuiltZip built = ZipBuilder::build(spec);
    std::string error;
    auto archive = open(built, error);
    ASSERT_TRUE(archive) << error;
    const ZipEntry& entry = *archive->find("noise.bin");
    std::uint64_t extent = built.localOffsets[1] - built.localOffsets[0];

    std::uint64_t before = source_->bytesFetched();
    std::string content;
    ASSERT_TRUE(archive->readEntry(entry, content, error)) << error;
    EXPECT_EQ(content, noise);
    EXPECT_EQ(source_->bytesFetched() - before, extent);

    before = source_->bytesFetched();
    std::string stored;
    ASSERT_TRUE(archive->copyStoredBytes(entry, [&](std::string_view piece) {
        stored.append(piece);
        return true;
    }, error)) << error;
    EXPECT_EQ(stored, built.bytes().substr(built.localOffsets[0] + 30 + 9, entry.compressedSize));
    EXPECT_EQ(source_->bytesFetched() - before, extent);
}

TEST_F(ZipArchiveTest, LeavesOutEntriesWithNamesThatLeaveTheRoot) {
    expectLeftOut(fileSpec("../escape.txt", "x"), "its name climbs with \"..\"");
    expectLeftOut(fileSpec("Restore/../../escape.txt", "x"), "its name climbs with \"..\"");
    expectLeftOut(fileSpec("/etc/passwd", "x"), "its name is absolute");
    expectLeftOut(fileSpec("Restore\\file.txt", "x"), "its name holds a backslash");
    expectLeftOut(fileSpec(std::string("Restore/a\0b", 11), "x"), "its name holds a NUL byte");
    expectLeftOut(fileSpec("Restore//file.txt", "x"), "its name holds an empty step");
    expectLeftOut(fileSpec("Restore/./file.txt", "x"), "its name holds a \".\" step");
    expectLeftOut(fileSpec("", "x"), "its name is empty");
    expectLeftOut(fileSpec(std::string(4096, 'n'), "x"), "its name is longer than 4095 bytes");
}

TEST_F(ZipArchiveTest, NamesWithNulBytesArePrintedSafely) {
    expectLeftOut(fileSpec(std::string("a\0b", 3), "x"), "its name holds a NUL byte");
    EXPECT_TRUE(contains(said_, "\"a?b\" in the zip archive")) << said_;
}

TEST_F(ZipArchiveTest, TheFirstOfTwoEntriesOfTheSameNameWins) {
    ZipSpec spec;
    spec.entries = {fileSpec("Restore/a.txt", "first"), fileSpec("Restore/a.txt", "second"), folderSpec("Restore/b/"),
                    fileSpec("Restore/b", "file named like a folder")};
    auto archive = open(spec);
    ASSERT_TRUE(archive);
    EXPECT_EQ(archive->entries().size(), 2u);
    EXPECT_EQ(readContent(*archive, "Restore/a.txt"), "first");
    EXPECT_TRUE(archive->find("Restore/b")->isFolder);
    EXPECT_TRUE(contains(said_, "\"Restore/a.txt\" in the zip archive \"hostile.zip\" is left out: an entry of the same name comes first."))
        << said_;
    EXPECT_TRUE(contains(said_, "\"Restore/b\" in the zip archive \"hostile.zip\" is left out:")) << said_;
}

TEST_F(ZipArchiveTest, LeavesOutEntriesItCannotRead) {
    ZipEntrySpec encrypted = fileSpec("secret.txt", "x");
    encrypted.flags = 1;
    expectLeftOut(encrypted, "it is encrypted");
    ZipEntrySpec other = fileSpec("other.txt", "x", 0);
    other.method = 14;
    expectLeftOut(other, "it is compressed with method 14, which is not read");
    ZipEntrySpec lying = fileSpec("stored.txt", "abc", 0);
    lying.centralUncompressed = 10;
    expectLeftOut(lying, "its stored size and its uncompressed size differ");
    expectLeftOut(linkSpec("long-link", std::string(5000, 'l')), "its link text is longer than 4095 bytes");
    ZipEntrySpec folderLink = linkSpec("both/", "x");
    expectLeftOut(folderLink, "it is both a folder and a link");
}

TEST_F(ZipArchiveTest, LeavesOutEntriesClaimingAnAbsurdCompressionRatio) {
    ZipEntrySpec bomb = fileSpec("bomb.bin", std::string(1000, 'z'));
    bomb.centralUncompressed = 100ull << 30;
    bomb.localUncompressed = 100ull << 30;
    bomb.zip64 = true;
    expectLeftOut(bomb, "it claims to inflate 107374182400 bytes from " + std::to_string(test::rawDeflate(bomb.content).size()) +
                            " (more than 1100:1)");
}

TEST_F(ZipArchiveTest, AcceptsWhatDeflateReallyReachesOnZeros) {
    ZipSpec spec;
    std::string zeros(20 << 20, '\0');
    spec.entries = {fileSpec("zeros.bin", zeros)};
    auto archive = open(spec);
    ASSERT_TRUE(archive);
    const ZipEntry* entry = archive->find("zeros.bin");
    ASSERT_TRUE(entry);
    EXPECT_GT(entry->uncompressedSize / entry->compressedSize, 1000u);
    EXPECT_EQ(readContent(*archive, "zeros.bin").size(), zeros.size());
}

TEST_F(ZipArchiveTest, LeavesOutEntriesThatShareBytesOrRunIntoTheDirectory) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "aaaa", 0), fileSpec("b.txt", "bbbb", 0), fileSpec("c.txt", "cccc", 0)};
    BuiltZip honest = ZipBuilder::build(spec);
    spec.entries[1].centralOffset = honest.localOffsets[0];
    spec.entries[2].centralOffset = honest.localOffsets[2] + 10;
    spec.entries[2].centralCompressed = spec.entries[2].centralUncompressed = 20;
    auto archive = open(spec);
    ASSERT_TRUE(archive);
    ASSERT_EQ(archive->entries().size(), 1u);
    EXPECT_EQ(readContent(*archive, "a.txt"), "aaaa");
    EXPECT_TRUE(contains(said_, "\"b.txt\" in the zip archive \"hostile.zip\" is left out: its bytes overlap those of another entry."))
        << said_;
    EXPECT_TRUE(contains(said_, "\"c.txt\" in the zip archive \"hostile.zip\" is left out: its bytes run into the central directory."))
        << said_;
}

TEST_F(ZipArchiveTest, RefusesArchivesWithoutTrustworthyEndRecords) {
    EXPECT_EQ(refusal(asBuilt("PK\x05\x06x")), "\"hostile.zip\" cannot be read as a zip archive: it is too short to be a zip archive.");
    EXPECT_TRUE(contains(refusal(asBuilt(std::string(100, 'x'))), "it has no end of central directory record"));

    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "a"), fileSpec("b.txt", "b")};
    ZipSpec beyond = spec;
    beyond.directoryOffset = 0xf0000000;
    EXPECT_TRUE(contains(refusal(beyond), "its central directory (")) << refusal(beyond);
    ZipSpec tooLarge = spec;
    tooLarge.directorySize = 1ull << 20;
    EXPECT_TRUE(contains(refusal(tooLarge), "lies beyond its end record"));
    ZipSpec absurdCount = spec;
    absurdCount.entryCount = 0xffff;
    EXPECT_TRUE(contains(refusal(absurdCount), "its 65535 entries cannot fit in a central directory of")) << refusal(absurdCount);
    ZipSpec absurdZip64Count = spec;
    absurdZip64Count.zip64End = true;
    absurdZip64Count.entryCount = 1ull << 60;
    EXPECT_TRUE(contains(refusal(absurdZip64Count), "entries cannot fit in a central directory of"));
    ZipSpec disks = spec;
    disks.disk = 1;
    EXPECT_TRUE(contains(refusal(disks), "it spans several disks"));
}

TEST_F(ZipArchiveTest, RefusesTruncatedCentralDirectories) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "a"), fileSpec("b.txt", "b")};
    ZipSpec oneMore = spec;
    oneMore.entryCount = 3;
    oneMore.extraCentralBytes = std::string(46, 'x');
    EXPECT_TRUE(contains(refusal(oneMore), "entry 3 of its central directory has no header signature")) << refusal(oneMore);
    // A last header whose name runs past the directory's end.
    BuiltZip built = ZipBuilder::build(spec);
    std::string bytes = built.bytes();
    std::uint64_t lastHeader = built.directoryOffset + 46 + 5;
    bytes[lastHeader + 28] = static_cast<char>(200);
    EXPECT_TRUE(contains(refusal(asBuilt(bytes)), "its central directory is truncated at entry 2"));
}

TEST_F(ZipArchiveTest, RefusesAZip64LocatorPointingAnywhere) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "a")};
    spec.zip64End = true;
    BuiltZip built = ZipBuilder::build(spec);
    std::string bytes = built.bytes();
    std::string far;
    ZipBuilder::put64(far, 1ull << 50);
    bytes.replace(built.endOffset - 20 + 8, 8, far);
    EXPECT_TRUE(contains(refusal(asBuilt(bytes)), "its ZIP64 end record lies outside the archive"));
}

TEST_F(ZipArchiveTest, RefusesToReadEntriesWhoseLocalHeaderDisagrees) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "aaaa")};
    spec.entries[0].localName = "b.txt";
    EXPECT_EQ(readError(spec, "a.txt"), "\"a.txt\" in the zip archive \"hostile.zip\": its local header names \"b.txt\".");
    spec.entries[0].localName.reset();
    spec.entries[0].localMethod = 0;
    EXPECT_TRUE(contains(readError(spec, "a.txt"), "its local header gives another compression method"));
    spec.entries[0].localMethod.reset();
    spec.entries[0].localUncompressed = 3;
    EXPECT_TRUE(contains(readError(spec, "a.txt"), "its local header gives other sizes than the central directory"));
    spec.entries[0].localUncompressed.reset();
    spec.entries[0].localCrc = 7;
    EXPECT_TRUE(contains(readError(spec, "a.txt"), "its local header gives another CRC-32"));
    // With a data descriptor, the local header's sizes and CRC are not known yet.
    spec.entries[0].flags = 8;
    EXPECT_EQ(readContent(*open(spec), "a.txt"), "aaaa");
}

TEST_F(ZipArchiveTest, RefusesToReadEntriesWhoseLocalHeaderIsMissing) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "aaaa"), fileSpec("b.txt", "bbbb")};
    BuiltZip built = ZipBuilder::build(spec);
    std::string bytes = built.bytes();
    bytes[built.localOffsets[1]] = 'X';
    std::string error;
    auto archive = open(asBuilt(bytes), error);
    ASSERT_TRUE(archive) << error;
    std::string content;
    EXPECT_FALSE(archive->readEntry(*archive->find("b.txt"), content, error));
    EXPECT_EQ(error, "\"b.txt\" in the zip archive \"hostile.zip\": its local header is missing.");
    EXPECT_EQ(readContent(*archive, "a.txt"), "aaaa");
}

TEST_F(ZipArchiveTest, SizesThatLieStopTheReading) {
    std::string content(100000, 'q');
    for (std::size_t index = 0; index < content.size(); index += 7) content[index] = static_cast<char>('a' + index % 26);
    ZipSpec spec;
    spec.entries = {fileSpec("a.bin", content)};
    spec.entries[0].centralUncompressed = spec.entries[0].localUncompressed = 5000;
    EXPECT_TRUE(contains(readError(spec, "a.bin"), "it holds more than the 5000 bytes declared"));
    spec.entries[0].centralUncompressed = spec.entries[0].localUncompressed = 200000;
    EXPECT_TRUE(contains(readError(spec, "a.bin"), "it holds 100000 bytes, not the 200000 declared"));
    spec.entries[0].centralUncompressed.reset();
    spec.entries[0].localUncompressed.reset();
    spec.entries[0].centralCrc = spec.entries[0].localCrc = 12345;
    EXPECT_TRUE(contains(readError(spec, "a.bin"), "its CRC-32 does not match its content"));
}

TEST_F(ZipArchiveTest, CompressedDataThatIsCutOrPaddedOrDamagedIsRefused) {
    std::string content(50000, 'r');
    for (std::size_t index = 0; index < content.size(); index += 5) content[index] = static_cast<char>('a' + index % 26);
    std::string deflated = test::rawDeflate(content);
    ZipSpec spec;
    spec.entries = {fileSpec("a.bin", content)};
    spec.entries[0].stored = deflated.substr(0, deflated.size() / 2);
    EXPECT_TRUE(contains(readError(spec, "a.bin"), "its compressed data is cut short"));
    spec.entries[0].stored = deflated + "trailing";
    EXPECT_TRUE(contains(readError(spec, "a.bin"), "its compressed data ends before its declared compressed size"));
    std::string damaged = deflated;
    for (std::size_t index = 10; index < 40; ++index) damaged[index] = '\xff';
    spec.entries[0].stored = damaged;
    std::string error = readError(spec, "a.bin");
    EXPECT_TRUE(contains(error, "its compressed data is corrupt") || contains(error, "CRC-32") || contains(error, "bytes")) << error;
}

TEST_F(ZipArchiveTest, RefusesWholeReadsOfLargeEntries) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.bin", std::string(3000, 'a'))};
    auto archive = open(spec);
    ASSERT_TRUE(archive);
    std::string content;
    std::string error;
    EXPECT_FALSE(archive->readEntry(*archive->find("a.bin"), content, error, 2000));
    EXPECT_TRUE(contains(error, "it holds 3000 bytes, more than the 2000 read at once")) << error;
}

}  // namespace
}  // namespace whittle
