// The encrypted container: opening images the original platform made with their
// published passphrases, and round trips of our own containers, also through
// vfdecrypt -k with the derived keys.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/Udif.hpp"

namespace dmg = whittle::diskimage;
using whittle::test::TempDir;

namespace {

std::string decryptToString(const std::string& path, std::string_view passphrase) {
    whittle::UniqueDescriptor fd = dmg::openForReading(path);
    dmg::EncryptedHeader header = dmg::readEncryptedHeader(fd.get(), path);
    auto keys = dmg::unlockContainer(header, passphrase);
    if (!keys) throw dmg::DiskImageError("wrong passphrase");
    whittle::UniqueDescriptor out(::memfd_create("inner", MFD_CLOEXEC));
    dmg::decryptContainer(fd.get(), header, *keys, out.get(), path);
    return dmg::readAt(out.get(), 0, header.dataSize, "inner");
}

// Encrypts the bytes into a container file with a fast key derivation.
dmg::ContainerKeys encryptToFile(const std::string& bytes, const std::string& path, std::string_view passphrase) {
    whittle::UniqueDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    dmg::EncryptingSink sink(fd.get(), path, passphrase, {1000, 512});
    // In uneven pieces, as a writer produces them.
    for (std::size_t at = 0; at < bytes.size(); at += 7777) sink.write(std::string_view(bytes).substr(at, 7777));
    sink.finish();
    return sink.keys();
}

std::string randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(count, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

}  // namespace

TEST(EncryptedContainer, OpensThePlatformsImageOf2012WithItsPassphrase) {
    auto folder = whittle::test::sharedFixtureFolder();
    if (!folder) GTEST_SKIP() << "the shared sample images (../shared/fixtures/dmg) are not present";
    std::string inner = decryptToString(*folder + "/HFS+-UDRO-openwall-data.dmg", "openwall");
    EXPECT_EQ(inner, whittle::test::readFile(*folder + "/HFS+-UDRO-openwall-data.decrypted.dmg"));
    EXPECT_THROW(decryptToString(*folder + "/HFS+-UDRO-openwall-data.dmg", "openwal"), dmg::DiskImageError);
}

TEST(EncryptedContainer, OpensThePlatformsImageOf2015WithTheEmptyPassphrase) {
    auto folder = whittle::test::sharedFixtureFolder();
    if (!folder) GTEST_SKIP() << "the shared sample images (../shared/fixtures/dmg) are not present";
    std::string path = *folder + "/src-aes-128.dmg";
    whittle::UniqueDescriptor fd = dmg::openForReading(path);
    dmg::EncryptedHeader header = dmg::readEncryptedHeader(fd.get(), path);
    EXPECT_EQ(header.blockSize, 512u);
    EXPECT_EQ(header.keyBits, 128u);
    ASSERT_EQ(header.passwordRecords.size(), 1u);
    EXPECT_EQ(header.passwordRecords[0].iterations, 153846u);

    TempDir dir;
    whittle::test::writeFile(dir / "inner.dmg", decryptToString(path, ""));
    whittle::UniqueDescriptor inner = dmg::openForReading(dir / "inner.dmg");
    dmg::UdifImage image = dmg::readUdifImage(inner.get(), "inner.dmg");
    EXPECT_EQ(image.trailer.masterChecksum.value, dmg::masterChecksumOf(image.entries));
    auto listing = whittle::test::runInNewSession({whittle::test::sevenZip(), "l", dir / "inner.dmg"});
    EXPECT_EQ(listing.status, 0) << listing.out;
    EXPECT_NE(listing.out.find("src/Hello"), std::string::npos);
    EXPECT_NE(listing.out.find("src/World"), std::string::npos);
    EXPECT_FALSE(dmg::unlockContainer(header, "not empty"));
}

TEST(EncryptedContainer, RoundTripsThroughOurOwnDecryption) {
    TempDir dir;
    for (std::size_t size : {1u, 511u, 512u, 513u, 100000u}) {
        std::string bytes = randomBytes(size, static_cast<unsigned>(size));
        encryptToFile(bytes, dir / "c.dmg", "pass word");
        EXPECT_EQ(decryptToString(dir / "c.dmg", "pass word"), bytes) << size;
        EXPECT_THROW(decryptToString(dir / "c.dmg", "pass-word"), dmg::DiskImageError);
    }
    // Reading one range without decrypting everything.
    std::string bytes = randomBytes(5000, 7);
    dmg::ContainerKeys keys = encryptToFile(bytes, dir / "c.dmg", "");
    whittle::UniqueDescriptor fd = dmg::openForReading(dir / "c.dmg");
    dmg::EncryptedHeader header = dmg::readEncryptedHeader(fd.get(), "c.dmg");
    EXPECT_EQ(dmg::decryptRange(fd.get(), header, keys, 4000, 1000, "c.dmg"), bytes.substr(4000));
    EXPECT_EQ(dmg::decryptRange(fd.get(), header, keys, 100, 30, "c.dmg"), bytes.substr(100, 30));
    EXPECT_THROW(dmg::decryptRange(fd.get(), header, keys, 4990, 20, "c.dmg"), dmg::DiskImageError);
}

TEST(EncryptedContainer, VfdecryptWithTheDerivedKeysReproducesEveryBlock) {
    if (!whittle::test::pathExists(whittle::test::vfdecrypt()))
        GTEST_SKIP() << "vfdecrypt (package dmg2img) is missing";
    TempDir dir;
    std::string bytes = randomBytes(3 * 512 + 100, 99);
    encryptToFile(bytes, dir / "c.dmg", "secret");
    // The keys as the passphrase unlocks them, not as the writer chose them.
    whittle::UniqueDescriptor fd = dmg::openForReading(dir / "c.dmg");
    auto keys = dmg::unlockContainer(dmg::readEncryptedHeader(fd.get(), "c.dmg"), "secret");
    ASSERT_TRUE(keys);
    auto run = whittle::test::runInNewSession(
        {whittle::test::vfdecrypt(), "-i", dir / "c.dmg", "-o", dir / "plain", "-k", dmg::keysAsHex(*keys)});
    ASSERT_EQ(run.status, 0) << run.err;
    std::string plain = whittle::test::readFile(dir / "plain");
    ASSERT_GE(plain.size(), bytes.size());
    EXPECT_EQ(plain.substr(0, bytes.size()), bytes);
}

TEST(EncryptedContainer, RefusesHostileHeadersBeforeAskingForAPassphrase) {
    TempDir dir;
    encryptToFile(randomBytes(2048, 3), dir / "c.dmg", "x");
    std::string good = whittle::test::readFile(dir / "c.dmg");
    namespace enc = dmg::format::encrypted;
    auto refuses = [&](std::size_t offset, std::uint64_t value, std::size_t width) {
        std::string bytes = good;
        dmg::writeBigEndian(bytes, offset, value, width);
        whittle::test::writeFile(dir / "bad.dmg", bytes);
        whittle::UniqueDescriptor fd = dmg::openForReading(dir / "bad.dmg");
        try {
            dmg::readEncryptedHeader(fd.get(), "bad.dmg");
        } catch (const dmg::DiskImageError&) {
            return true;
        }
        return false;
    };
    EXPECT_FALSE(refuses(enc::kOffsetVersion, 2, 4));  // unchanged: accepted
    EXPECT_TRUE(refuses(enc::kOffsetVersion, 3, 4));
    EXPECT_TRUE(refuses(enc::kOffsetBlockSize, 0, 4));
    EXPECT_TRUE(refuses(enc::kOffsetBlockSize, 1000, 4));
    EXPECT_TRUE(refuses(enc::kOffsetDataSize, 1ull << 60, 8));
    EXPECT_TRUE(refuses(enc::kOffsetDataOffset, ~0ull, 8));
    EXPECT_TRUE(refuses(enc::kOffsetKeyCount, 100000, 4));
    EXPECT_TRUE(refuses(enc::kFixedHeaderSize + 4, 1ull << 40, 8));  // key record offset
    EXPECT_TRUE(refuses(enc::kWrittenRecordOffset + enc::kRecordOffsetIterations, 0xFFFFFFFF, 4));
    EXPECT_TRUE(refuses(enc::kWrittenRecordOffset + enc::kRecordOffsetBlobLength, 100000, 4));
    EXPECT_TRUE(refuses(enc::kWrittenRecordOffset + enc::kRecordOffsetSaltLength, 4096, 4));

    std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        std::string bytes = good;
        std::uniform_int_distribution<std::size_t> where(0, enc::kWrittenRecordOffset + enc::kRecordSize);
        for (int flips = 0; flips < 3; ++flips) bytes[where(random)] = static_cast<char>(random());
        whittle::test::writeFile(dir / "bad.dmg", bytes);
        whittle::UniqueDescriptor fd = dmg::openForReading(dir / "bad.dmg");
        try {
            dmg::EncryptedHeader header = dmg::readEncryptedHeader(fd.get(), "bad.dmg");
            for (auto& record : header.passwordRecords) record.iterations = std::min(record.iterations, 2000u);
            if (auto keys = dmg::unlockContainer(header, "x")) {
                whittle::UniqueDescriptor out(::memfd_create("out", MFD_CLOEXEC));
                dmg::decryptContainer(fd.get(), header, *keys, out.get(), "bad.dmg");
            }
        } catch (const dmg::DiskImageError&) {
        }
    }
}
