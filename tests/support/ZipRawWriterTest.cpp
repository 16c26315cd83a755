// A zip made of another archive's stored bytes: readable by this project's reader and
// by the archivers, entries unchanged, ZIP64 where offsets or sizes call for it.
#include "support/ZipRawWriter.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TestSupport.hpp"
#include "ZipTestSupport.hpp"
#include "support/DescriptorIo.hpp"
#include "support/FileByteSource.hpp"

namespace whittle {
namespace {

using test::fileSpec;
using test::folderSpec;
using test::linkSpec;
using test::MemoryByteSource;
using test::TempDir;
using test::ZipBuilder;
using test::ZipSpec;

std::shared_ptr<const ZipArchive> archiveOf(std::shared_ptr<ByteSource> source) {
    std::string error;
    auto archive = ZipArchive::open(std::move(source), error);
    EXPECT_TRUE(archive) << error;
    return archive;
}

std::shared_ptr<const ZipArchive> archiveOf(const ZipSpec& spec) {
    auto built = ZipBuilder::build(spec);
    return archiveOf(std::make_shared<MemoryByteSource>("in.zip", built.size, built.pieces));
}

class ZipRawWriterTest : public testing::Test {
protected:
    std::string out() const { return dir / "out.zip"; }
    // Writes the named entries of the archive (folders given with a trailing "/").
    void copy(const ZipArchive& archive, const std::vector<std::string>& names) {
        UniqueDescriptor fd(::open(out().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        ASSERT_TRUE(fd.valid());
        ZipRawWriter writer(fd.get());
        std::string error;
        for (const auto& name : names) {
            if (name.ends_with("/")) {
                ASSERT_TRUE(writer.addFolder(name, S_IFDIR | 0750, {1700000000, 0}, error)) << error;
            } else {
                const ZipEntry* entry = archive.find(name);
                ASSERT_TRUE(entry) << name;
                ASSERT_TRUE(writer.addEntry(archive, *entry, name, error)) << error;
            }
        }
        ASSERT_TRUE(writer.finish(error)) << error;
    }
    std::shared_ptr<const ZipArchive> written() {
        std::string error;
        std::shared_ptr<ByteSource> source = FileByteSource::open(out(), error);
        EXPECT_TRUE(source) << error;
        return archiveOf(source);
    }

    TempDir dir;
};

TEST_F(ZipRawWriterTest, CopiedEntriesReadBackUnchanged) {
    ZipSpec spec;
    std::string big(200000, 'a');
    for (std::size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('a' + i % 23);
    spec.entries = {fileSpec("Restore/BuildManifest.plist", "manifest"), fileSpec("Firmware/big.bin", big),
                    fileSpec("stored.txt", "stored", 0), linkSpec("link", "stored.txt"), fileSpec("left/out", "x")};
    auto source = archiveOf(spec);
    copy(*source, {"Restore/", "Restore/BuildManifest.plist", "Firmware/big.bin", "stored.txt", "link"});
    auto copied = written();
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->entries().size(), 5u);
    EXPECT_FALSE(copied->find("left/out"));
    for (const char* name : {"Restore/BuildManifest.plist", "Firmware/big.bin", "stored.txt", "link"}) {
        const ZipEntry* before = source->find(name);
        const ZipEntry* after = copied->find(name);
        ASSERT_TRUE(after) << name;
        EXPECT_EQ(after->method, before->method) << name;
        EXPECT_EQ(after->compressedSize, before->compressedSize) << name;
        EXPECT_EQ(after->crc32, before->crc32) << name;
        std::string a, b, error;
        ASSERT_TRUE(source->readEntry(*before, a, error)) << error;
        ASSERT_TRUE(copied->readEntry(*after, b, error)) << error;
        EXPECT_EQ(a, b) << name;
    }
    EXPECT_TRUE(copied->find("link")->isSymlink);
    const ZipEntry* folder = copied->find("Restore");
    ASSERT_TRUE(folder);
    EXPECT_TRUE(folder->isFolder);
    EXPECT_EQ(folder->unixMode & 07777, 0750u);
}

TEST_F(ZipRawWriterTest, ArchiversAcceptTheCopy) {
    ZipSpec spec;
    spec.entries = {fileSpec("a/b.txt", std::string(5000, 'b')), linkSpec("a/l", "b.txt")};
    auto source = archiveOf(spec);
    copy(*source, {"a/", "a/b.txt", "a/l"});
    auto tested = test::runProgram({"/usr/bin/unzip", "-t", out()});
    EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
    auto listed = test::runProgram({"/usr/bin/unzip", "-Z1", out()});
    EXPECT_EQ(listed.out, "a/\na/b.txt\na/l\n");
}

TEST_F(ZipRawWriterTest, EntriesFromBeyondFourGibibytesAreCopied) {
    // A stored entry preceded by a hole of 4 GiB in the source: its stored bytes are
    // found through the source's ZIP64 records and copied to the front of the copy.
    ZipSpec spec;
    auto small = fileSpec("late.txt", "late", 0);
    small.holeBefore = 0x100000000ull;
    small.zip64 = true;
    spec.entries = {fileSpec("early.txt", "early", 0), small};
    spec.zip64End = true;
    auto source = archiveOf(spec);
    ASSERT_TRUE(source);
    ASSERT_GT(source->find("late.txt")->localHeaderOffset, 0xffffffffull);
    copy(*source, {"late.txt", "early.txt"});
    auto copied = written();
    ASSERT_TRUE(copied);
    std::string content, error;
    ASSERT_TRUE(copied->readEntry(*copied->find("late.txt"), content, error)) << error;
    EXPECT_EQ(content, "late");
}

TEST_F(ZipRawWriterTest, MoreEntriesThanTheEndRecordCanCountGetZip64EndRecords) {
    std::vector<std::string> names;
    for (int i = 0; i < 70000; ++i) names.push_back("f" + std::to_string(i) + "/");
    ZipSpec none;
    none.entries = {fileSpec("unused", "u")};
    auto source = archiveOf(none);
    copy(*source, names);
    auto copied = written();
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->entries().size(), 70000u);
    auto tested = test::runProgram({"/usr/bin/unzip", "-tq", out()});
    EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
}

TEST_F(ZipRawWriterTest, AFailingWriteIsReported) {
    ZipSpec spec;
    spec.entries = {fileSpec("a.txt", "a")};
    auto source = archiveOf(spec);
    UniqueDescriptor readOnly(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ZipRawWriter writer(readOnly.get());
    std::string error;
    EXPECT_FALSE(writer.addEntry(*source, *source->find("a.txt"), "a.txt", error));
    EXPECT_EQ(error, "Bad file descriptor");
}

}  // namespace
}  // namespace whittle
