// The container's pieces in isolation: checksums, trailer, chunk tables, resource list,
// partition maps, entity planning; and reading hostile images without harm.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "platform/diskimage/BlockTables.hpp"
#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/Crc32.hpp"
#include "platform/diskimage/CreateImage.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/Entities.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/PartitionMaps.hpp"
#include "platform/diskimage/Udif.hpp"

namespace dmg = whittle::diskimage;
using whittle::test::TempDir;

namespace {

// A file in memory, for the readers that take a descriptor.
class MemoryFile {
public:
    explicit MemoryFile(std::string_view bytes) : fd_(::memfd_create("image", MFD_CLOEXEC)) {
        dmg::writeAll(fd_.get(), bytes, "memory");
    }
    int fd() const { return fd_.get(); }

private:
    whittle::UniqueDescriptor fd_;
};

std::string sectorsOf(char fill, std::size_t count) { return std::string(count * 512, fill); }

// A small image: an entry of data with zero runs in it, and an entry of zeros whose
// bytes the data fork does not hold.
std::string sampleImage() {
    dmg::BlockTableBuilder tables;
    std::string dataFork =
        sectorsOf('a', 3) + sectorsOf('\0', 20) + sectorsOf('b', 2) + sectorsOf('\0', 3) + sectorsOf('c', 1);
    tables.beginEntry("first", "DATA");
    tables.addSectors(dataFork, 0);
    tables.beginEntry("second", "ZEROS");
    tables.addSectors(sectorsOf('\0', 5000), dataFork.size());
    tables.endEntry();
    return dataFork + dmg::imageTail(tables.entries(), dataFork.size(), dmg::format::trailer::kVariantDevice);
}

std::string expandToString(const std::string& imageBytes) {
    MemoryFile image(imageBytes);
    dmg::UdifImage parsed = dmg::readUdifImage(image.fd(), "sample");
    MemoryFile output("");
    dmg::expandRawImage(image.fd(), parsed, output.fd(), "sample");
    off_t size = ::lseek(output.fd(), 0, SEEK_END);
    return dmg::readAt(output.fd(), 0, static_cast<std::size_t>(size), "expanded");
}

}  // namespace

TEST(DiskImageChecksum, ZeroRunsExtendLikeZeroBytes) {
    for (std::uint64_t count : {0ull, 1ull, 511ull, 512ull, 100000ull}) {
        std::uint32_t start = dmg::crc32Update(0, "prefix");
        EXPECT_EQ(dmg::crc32AppendZeros(start, count), dmg::crc32Update(start, std::string(count, '\0'))) << count;
    }
    EXPECT_EQ(dmg::crc32Update(0, "123456789"), 0xCBF43926u);
}

TEST(DiskImageTrailer, RoundTripsAndRefusesOtherVersions) {
    dmg::Trailer trailer;
    trailer.version = 4;
    trailer.headerSize = 512;
    trailer.flags = 1;
    trailer.dataForkLength = 1234;
    trailer.xmlOffset = 1234;
    trailer.xmlLength = 99;
    trailer.masterChecksum = dmg::ChecksumRecord::crc32(0xDEADBEEF);
    trailer.imageVariant = 1;
    trailer.sectorCount = 77;
    std::string bytes = dmg::serializeTrailer(trailer);
    ASSERT_EQ(bytes.size(), 512u);
    EXPECT_EQ(bytes.substr(0, 4), "koly");
    dmg::Trailer back = dmg::parseTrailer(bytes);
    EXPECT_EQ(back.xmlLength, 99u);
    EXPECT_EQ(back.masterChecksum.value, 0xDEADBEEFu);
    EXPECT_EQ(back.sectorCount, 77u);

    bytes[7] = 5;
    EXPECT_THROW(dmg::parseTrailer(bytes), dmg::DiskImageError);
    EXPECT_THROW(dmg::parseTrailer(bytes.substr(0, 100)), dmg::DiskImageError);
}

TEST(DiskImageTables, StoresDataRawAndZeroRunsWithoutBytes) {
    std::string image = sampleImage();
    MemoryFile file(image);
    dmg::UdifImage parsed = dmg::readUdifImage(file.fd(), "sample");
    ASSERT_EQ(parsed.entries.size(), 2u);
    EXPECT_EQ(parsed.entries[0].name, "first (DATA : 0)");
    EXPECT_EQ(parsed.entries[0].id, "-1");
    EXPECT_EQ(parsed.entries[1].name, "second (ZEROS : 1)");
    EXPECT_EQ(parsed.trailer.sectorCount, 29u + 5000u);
    // 3 data, 20 zeros (a run of its own), then 2 data + 3 zeros + 1 data stored together.
    const auto& chunks = parsed.entries[0].table.chunks;
    ASSERT_EQ(chunks.size(), 4u);
    EXPECT_EQ(chunks[0].type, dmg::format::chunks::kTypeRaw);
    EXPECT_EQ(chunks[0].sectorCount, 3u);
    EXPECT_EQ(chunks[1].type, dmg::format::chunks::kTypeZeroFill);
    EXPECT_EQ(chunks[1].sectorCount, 20u);
    EXPECT_EQ(chunks[1].storedOffset, 3u * 512u);  // zero chunks point where their zeros lie
    EXPECT_EQ(chunks[2].type, dmg::format::chunks::kTypeRaw);
    EXPECT_EQ(chunks[2].sectorCount, 6u);
    EXPECT_EQ(chunks[2].storedOffset, 23u * 512u);
    EXPECT_EQ(chunks[3].type, dmg::format::chunks::kTypeTerminator);
    // Zero chunks are at most 2048 sectors.
    EXPECT_EQ(parsed.entries[1].table.chunks.size(), 4u);
    EXPECT_EQ(parsed.trailer.dataForkLength, 29u * 512u);
    EXPECT_EQ(parsed.trailer.masterChecksum.value, dmg::masterChecksumOf(parsed.entries));

    std::string expected = sectorsOf('a', 3) + sectorsOf('\0', 20) + sectorsOf('b', 2) + sectorsOf('\0', 3) +
                           sectorsOf('c', 1) + sectorsOf('\0', 5000);
    EXPECT_EQ(expandToString(image), expected);
    EXPECT_EQ(parsed.entries[1].table.checksum.value, dmg::crc32Update(0, sectorsOf('\0', 5000)));
}

TEST(DiskImageTables, LargeSpansScanInPartsWithTheSameResult) {
    // 80 MiB, large enough for several threads, with zero runs of every length.
    std::mt19937 random(5);
    std::string span(80u << 20, '\0');
    for (std::size_t sector = 0; sector < span.size() / 512; ++sector) {
        if (random() % 3 == 0) continue;  // a zero sector
        span[sector * 512 + random() % 512] = static_cast<char>(1 + random() % 255);
    }
    for (std::size_t at = (40u << 20) - 5000; at < (40u << 20) + 5000; ++at) span[at] = '\0';  // across a part border
    dmg::ScannedSectors scanned = dmg::scanSectors(span, 4096);
    EXPECT_EQ(scanned.crc, dmg::crc32Update(0, span));
    std::uint64_t sector = 0, zeros = 0;
    for (const auto& chunk : scanned.chunks) {
        ASSERT_EQ(chunk.firstSector, sector);
        ASSERT_LE(chunk.sectorCount, 2048u);
        ASSERT_EQ(chunk.storedOffset, 4096 + sector * 512);
        std::string_view bytes = std::string_view(span).substr(sector * 512, chunk.sectorCount * 512);
        if (chunk.type == dmg::format::chunks::kTypeZeroFill) {
            ASSERT_EQ(bytes.find_first_not_of('\0'), std::string_view::npos);
            zeros += bytes.size();
        } else {
            ASSERT_EQ(chunk.type, dmg::format::chunks::kTypeRaw);
            ASSERT_EQ(chunk.storedLength, bytes.size());
        }
        sector += chunk.sectorCount;
    }
    EXPECT_EQ(sector, span.size() / 512);
    EXPECT_EQ(zeros, scanned.zeroBytes);
}

TEST(DiskImageTables, ResourceListSuitsLineOrientedReaders) {
    std::string image = sampleImage();
    MemoryFile file(image);
    dmg::UdifImage parsed = dmg::readUdifImage(file.fd(), "sample");
    std::string xml = image.substr(parsed.trailer.xmlOffset, parsed.trailer.xmlLength);
    EXPECT_NE(xml.find("<plist version=\"1.0\">"), std::string::npos);
    EXPECT_NE(xml.substr(xml.size() - 20).find("</plist>"), std::string::npos);
    std::size_t data = xml.find("<key>Data</key>");
    ASSERT_NE(data, std::string::npos);
    EXPECT_LT(data, xml.find("<key>Name</key>", data - 1));
    EXPECT_NE(xml.find("<key>plst</key>"), std::string::npos);
    EXPECT_NE(xml.find("<string>0x0050</string>"), std::string::npos);
}

TEST(DiskImageReader, ReadsThePlatformsReadOnlyImage) {
    auto folder = whittle::test::sharedFixtureFolder();
    if (!folder) GTEST_SKIP() << "the shared sample images (../shared/fixtures/dmg) are not present";
    whittle::UniqueDescriptor fd = dmg::openForReading(*folder + "/src-ro.dmg");
    dmg::UdifImage image = dmg::readUdifImage(fd.get(), "src-ro.dmg");
    ASSERT_EQ(image.entries.size(), 8u);
    EXPECT_EQ(dmg::partitionTypeOf(image.entries[0].name), "MBR");
    EXPECT_EQ(image.trailer.masterChecksum.value, 0x27B4EC3Au);
    EXPECT_EQ(dmg::masterChecksumOf(image.entries), 0x27B4EC3Au);
    // Every entry's CRC-32 recomputed from raw, zero and ignored chunks.
    TempDir dir;
    whittle::UniqueDescriptor out(::open((dir / "disk.raw").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_NO_THROW(dmg::expandRawImage(fd.get(), image, out.get(), "src-ro.dmg"));
}

TEST(DiskImageReader, RefusesHostileTrailersAndTables) {
    std::string image = sampleImage();
    MemoryFile good(image);
    dmg::UdifImage parsed = dmg::readUdifImage(good.fd(), "sample");
    std::size_t trailerAt = image.size() - 512;

    auto refuses = [](const std::string& bytes) {
        MemoryFile file(bytes);
        try {
            dmg::readUdifImage(file.fd(), "hostile");
        } catch (const dmg::DiskImageError& error) {
            return std::string(error.what()).find("hostile") != std::string::npos;
        }
        return false;
    };
    auto patched = [&](std::size_t offset, std::uint64_t value, std::size_t width) {
        std::string bytes = image;
        dmg::writeBigEndian(bytes, offset, value, width);
        return bytes;
    };
    namespace t = dmg::format::trailer;
    EXPECT_TRUE(refuses(image.substr(0, image.size() - 1)));                          // truncated
    EXPECT_TRUE(refuses(patched(trailerAt + t::kOffsetXmlOffset, image.size(), 8)));  // XML past the end
    EXPECT_TRUE(refuses(patched(trailerAt + t::kOffsetXmlOffset, ~0ull - 5, 8)));     // overflowing offset
    EXPECT_TRUE(refuses(patched(trailerAt + t::kOffsetXmlLength, 1ull << 40, 8)));    // huge XML
    EXPECT_TRUE(refuses(patched(trailerAt + t::kOffsetSectorCount, 1ull << 62, 8)));  // absurd sectors
    EXPECT_TRUE(refuses(patched(trailerAt + t::kOffsetSectorCount, parsed.trailer.sectorCount + 1, 8)));
    EXPECT_TRUE(refuses(patched(trailerAt + t::kOffsetDataForkLength, 1ull << 50, 8)));
    EXPECT_TRUE(refuses(std::string(4096, '\0')));
    EXPECT_TRUE(refuses(""));

    // A chunk table pointing outside the data fork, and bad base64 in the XML.
    std::string xml = image.substr(parsed.trailer.xmlOffset, parsed.trailer.xmlLength);
    auto withXml = [&](const std::string& newXml) {
        dmg::Trailer trailer = parsed.trailer;
        trailer.xmlLength = newXml.size();
        return image.substr(0, parsed.trailer.xmlOffset) + newXml + dmg::serializeTrailer(trailer);
    };
    dmg::UdifImage moved = parsed;
    moved.entries[0].table.chunks[0].storedOffset = 1ull << 40;
    EXPECT_TRUE(refuses(withXml(dmg::resourceListXml(moved.entries))));
    dmg::UdifImage gap = parsed;
    gap.entries[1].table.firstSector += 1;
    EXPECT_TRUE(refuses(withXml(dmg::resourceListXml(gap.entries))));
    std::string badBase64 = xml;
    std::size_t dataAt = badBase64.find("<data>");
    badBase64.replace(dataAt + 6, 20, "!!!!@@@@####$$$$%%%%");
    EXPECT_TRUE(refuses(withXml(badBase64)));
    EXPECT_TRUE(refuses(withXml("<?xml version=\"1.0\"?><plist><dict><key>resource-fork</key>")));
    EXPECT_TRUE(refuses(withXml(std::string(5000, '<'))));
}

TEST(DiskImageReader, SurvivesRandomDamage) {
    std::string image = sampleImage();
    std::mt19937 random(20240601);
    std::size_t xmlStart = image.find("<?xml");
    for (int round = 0; round < 300; ++round) {
        std::string damaged = image;
        std::uniform_int_distribution<std::size_t> where(xmlStart, damaged.size() - 1);
        for (int flips = 0; flips < 1 + round % 4; ++flips) damaged[where(random)] = static_cast<char>(random());
        MemoryFile file(damaged);
        try {
            dmg::UdifImage parsed = dmg::readUdifImage(file.fd(), "damaged");
            MemoryFile output("");
            dmg::expandRawImage(file.fd(), parsed, output.fd(), "damaged");
        } catch (const dmg::DiskImageError&) {
        }
    }
}

TEST(DiskImageGpt, HeadersCarryValidChecksumsAndCoverTheVolume) {
    dmg::GptDisk disk(1000, std::string(16, 'D'), std::string(16, 'P'));
    EXPECT_EQ(disk.totalSectors(), 34u + 1000u + 33u);
    std::string table = disk.table();
    for (bool primary : {true, false}) {
        std::string header = primary ? disk.primaryHeader() : disk.backupHeader();
        EXPECT_EQ(header.substr(0, 8), "EFI PART");
        std::string zeroed = header.substr(0, 92);
        std::uint32_t stored = dmg::readLittle32(zeroed, 16);
        zeroed.replace(16, 4, 4, '\0');
        EXPECT_EQ(stored, dmg::crc32Update(0, zeroed));
        EXPECT_EQ(dmg::readLittle32(header, 88), dmg::crc32Update(0, table));
        EXPECT_EQ(dmg::readLittle64(header, 24), primary ? 1u : disk.totalSectors() - 1);
        EXPECT_EQ(dmg::readLittle64(header, 72), primary ? 2u : disk.totalSectors() - 33);
    }
    EXPECT_EQ(table.find_first_not_of('\0', 512), std::string::npos);  // one entry, in the first sector
    EXPECT_EQ(dmg::readLittle64(table, 32), 34u);
    EXPECT_EQ(dmg::readLittle64(table, 40), 34u + 999u);
    EXPECT_EQ(static_cast<unsigned char>(table[3]), 0x48);  // HFS+ type, mixed-endian
    std::string mbr = disk.protectiveMbr();
    EXPECT_EQ(static_cast<unsigned char>(mbr[446 + 4]), 0xEE);
    EXPECT_EQ(static_cast<unsigned char>(mbr[510]), 0x55);
    EXPECT_EQ(static_cast<unsigned char>(mbr[511]), 0xAA);
}

TEST(DiskImageEntities, PlansGuidAndPartitionMapImages) {
    auto imageNamed = [](std::vector<std::string> names) {
        dmg::UdifImage image;
        for (auto& name : names) image.entries.push_back(dmg::BlockTableEntry{name, "", {}});
        return image;
    };
    dmg::EntityPlan guid = dmg::planEntities(
        imageNamed({"Protective Master Boot Record (MBR : 0)", "GPT Header (Primary GPT Header : 1)",
                    "GPT Partition Data (Primary GPT Table : 2)", "disk image (HFS+ : 3)",
                    "GPT Partition Data (Backup GPT Table : 4)", "GPT Header (Backup GPT Header : 5)"}));
    ASSERT_EQ(guid.entities.size(), 2u);
    EXPECT_EQ(guid.entities[0].contentHint, "GUID_partition_scheme");
    EXPECT_EQ(guid.entities[1].slice, 1);
    EXPECT_TRUE(guid.entities[1].isVolume);
    EXPECT_EQ(guid.entities[1].unmappedContentHint, "48465300-0000-11AA-AA11-00306543ECAC");

    dmg::EntityPlan map =
        dmg::planEntities(imageNamed({"Driver Descriptor Map (DDM : 0)", "Maker (Maker_partition_map : 1)",
                                      "disk image (Maker_HFS : 2)", " (Maker_Free : 3)"}));
    ASSERT_EQ(map.entities.size(), 3u);
    EXPECT_EQ(map.entities[0].contentHint, "Maker_partition_scheme");
    EXPECT_EQ(map.entities[1].contentHint, "Maker_partition_map");
    EXPECT_EQ(map.entities[2].slice, 2);
    EXPECT_TRUE(map.entities[2].isVolume);

    whittle::Value entities = dmg::systemEntities(map, 7, "/vols/data");
    EXPECT_EQ(entities.at(0).get("dev-entry").text(), "/dev/disk7");
    EXPECT_EQ(entities.at(2).get("dev-entry").text(), "/dev/disk7s2");
    EXPECT_EQ(entities.at(2).get("mount-point").text(), "/vols/data");
    EXPECT_TRUE(entities.at(1).get("mount-point").isNone());

    EXPECT_THROW(dmg::planEntities(imageNamed({"a (Maker_HFS : 0)", "b (Maker_HFS : 1)"})), dmg::DiskImageError);
    EXPECT_THROW(dmg::planEntities(imageNamed({"whole disk (DOS_FAT_16 : 0)"})), dmg::DiskImageError);
    EXPECT_THROW(dmg::planEntities(imageNamed({" (Maker_Free : 0)"})), dmg::DiskImageError);
}

TEST(DiskImageEntities, ParsesDeviceEntries) {
    EXPECT_EQ(dmg::diskNumberOfDevEntry("/dev/disk4"), 4);
    EXPECT_EQ(dmg::diskNumberOfDevEntry("/dev/disk12s3"), 12);
    EXPECT_EQ(dmg::diskNumberOfDevEntry("disk2"), 2);
    EXPECT_FALSE(dmg::diskNumberOfDevEntry("/dev/sda1"));
    EXPECT_FALSE(dmg::diskNumberOfDevEntry("/dev/disk"));
    EXPECT_FALSE(dmg::diskNumberOfDevEntry("/dev/disk4x"));
    EXPECT_FALSE(dmg::diskNumberOfDevEntry("/dev/disk4s"));
    EXPECT_FALSE(dmg::diskNumberOfDevEntry("/dev/disk0"));
    EXPECT_FALSE(dmg::diskNumberOfDevEntry("/dev/disk99999999999999"));
}

TEST(DiskImageCreate, NamesImagesAndVolumes) {
    EXPECT_EQ(dmg::imagePathFor("out/Restore.dmg"), "out/Restore.dmg");
    EXPECT_EQ(dmg::imagePathFor("out/Restore.DMG"), "out/Restore.DMG");
    EXPECT_EQ(dmg::imagePathFor("out/Restore"), "out/Restore.dmg");
    EXPECT_EQ(dmg::volumeNameFor("/a/b/Bundle/"), "Bundle");
    EXPECT_EQ(dmg::volumeNameFor("/"), "untitled");
    EXPECT_EQ(dmg::volumeNameFor("/x/" + std::string(40, 'n')), std::string(32, 'n'));
    // 31 ASCII bytes then a two-byte character: the character is not split.
    EXPECT_EQ(dmg::volumeNameFor("/x/" + std::string(31, 'a') + "\xC3\xA9" + "zz"), std::string(31, 'a'));
}
