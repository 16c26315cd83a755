// The HFS+ volumes of created images: names as the volume stores and orders them,
// volumes of every shape checked by an independent HFS+ checker and listed by libfshfs,
// files read back by 7zz, and images that are the same byte for byte for the same
// folder wherever and whenever it is imaged.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "DiskImageTestSupport.hpp"
#include "TestSupport.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/HfsNames.hpp"
#include "platform/diskimage/Udif.hpp"

namespace dmg = whittle::diskimage;
namespace fs = std::filesystem;
using whittle::test::runInNewSession;
using whittle::test::runTool;
using whittle::test::TempDir;
using whittle::test::writeFile;

namespace {

// ---- volumes of images ----

std::string checker() { return std::string(WHITTLE_SOURCE_DIR) + "/../shared/tools/hfsplus-check"; }
const char* const kFshfsinfo = "/usr/bin/fshfsinfo";

// The HFS+ volume of an unencrypted image, cut out into a file of its own.
std::string volumeOf(const std::string& image, const std::string& volumePath) {
    whittle::UniqueDescriptor fd = dmg::openForReading(image);
    dmg::UdifImage parsed = dmg::readUdifImage(fd.get(), image);
    std::string disk = volumePath + ".disk";
    {
        whittle::UniqueDescriptor raw(::open(disk.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        dmg::expandRawImage(fd.get(), parsed, raw.get(), image);
    }
    const dmg::ChunkTable& volume = parsed.entries.at(3).table;
    EXPECT_EQ(parsed.entries.at(3).name, "disk image (HFS+ : 3)");
    writeFile(volumePath, whittle::test::readFile(disk).substr(volume.firstSector * 512, volume.sectorCount * 512));
    fs::remove(disk);
    return volumePath;
}

void expectCheckerFindsItOk(const std::string& volume) {
    auto check = runInNewSession({checker(), "-n", "-f", volume});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    EXPECT_NE(check.out.find("appears to be OK"), std::string::npos) << check.out << check.err;
}

// The paths fshfsinfo lists, without the leading "/".
std::set<std::string> fshfsListing(const std::string& volume) {
    auto run = runInNewSession({kFshfsinfo, "-H", volume});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    std::set<std::string> paths;
    for (const std::string& line : whittle::test::linesOf(run.out))
        if (line.size() > 1 && line[0] == '/') paths.insert(line.substr(1));
    return paths;
}

#define SKIP_WITHOUT_CHECKERS()                                                                              \
    do {                                                                                                     \
        if (!whittle::test::pathExists(checker()))                                                           \
            GTEST_SKIP() << "no HFS+ checker at " << checker() << " (the shared tools folder is absent)";    \
        if (!whittle::test::pathExists(kFshfsinfo)) GTEST_SKIP() << "fshfsinfo (package libfshfs-utils) is missing"; \
    } while (false)

// ---- source folders ----

// A folder and the paths its volume holds, each as the source names it and as the
// volume stores it (names decomposed).
struct SourceFolder {
    std::string root;
    std::map<std::string, std::string> storedPaths;  // source path -> stored path

    void add(const std::string& path, const std::string& stored = {}) {
        storedPaths[path] = stored.empty() ? path : stored;
    }
    void file(const std::string& path, const std::string& content, const std::string& stored = {}) {
        writeFile(root + "/" + path, content);
        add(path, stored);
    }
    void folder(const std::string& path, const std::string& stored = {}) {
        fs::create_directories(root + "/" + path);
        add(path, stored);
    }
    void link(const std::string& path, const std::string& target) {
        fs::create_symlink(target, root + "/" + path);
        add(path);
    }
    std::set<std::string> stored() const {
        std::set<std::string> paths;
        for (const auto& [source, kept] : storedPaths) paths.insert(kept);
        return paths;
    }
    // describeTree of the source with the stored names.
    std::map<std::string, std::string> describedAsStored() const {
        std::map<std::string, std::string> described;
        for (auto& [path, description] : whittle::test::describeTree(root)) described[storedPaths.at(path)] = description;
        return described;
    }
};

std::string randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(count, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

// Files of every kind a bundle holds, and the names that are hard to store.
SourceFolder makeHardFolder(const std::string& root) {
    SourceFolder source{root, {}};
    fs::create_directories(root);
    source.file("Restore.plist", "<plist/>\n");
    source.folder("Firmware");
    source.file("Firmware/random.bin", randomBytes(5 << 20, 1));  // large enough to be copied by the kernel
    source.file("Firmware/small.bin", randomBytes(3000, 2));
    source.file("Firmware/zeros.bin", std::string(3 << 20, '\0'));
    source.file("Firmware/empty", "");
    source.folder("Empty");
    source.file("tool.sh", "#!/bin/sh\n");
    fs::permissions(root + "/tool.sh", fs::perms(0755));
    source.file("secret", "s\n");
    fs::permissions(root + "/secret", fs::perms(0600));
    // Case: only one of each pair exists, in the other case than its neighbours.
    source.file("README", "r\n");
    source.file("readme.txt", "t\n");
    source.file("Zebra", "z\n");
    source.file("apple", "a\n");
    // Names that decompose: an accented letter, a Hangul syllable, Greek with a tonos.
    source.file("caf\xC3\xA9.txt", "accent\n", "cafe\xCC\x81.txt");
    source.file("\xED\x95\x9C", "hangul\n", "\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB");
    source.file("\xCE\x86lpha", "greek\n", "\xCE\x91\xCC\x81lpha");
    // The longest name, 255 units; and 85 accented letters, whose decomposed form is
    // 255 bytes of UTF-8, the longest name an extracting file system takes.
    source.file(std::string(255, 'L'), "long\n");
    std::string accents;
    std::string decomposed;
    for (int i = 0; i < 85; ++i) accents += "\xC3\xA9", decomposed += "e\xCC\x81";
    source.file(accents, "accents\n", decomposed);
    // Deep folders.
    std::string deep;
    for (int level = 0; level < 40; ++level) {
        deep += (deep.empty() ? "" : "/") + std::string("level") + std::to_string(level);
        source.folder(deep);
    }
    source.file(deep + "/bottom.txt", "bottom\n");
    // Links of every direction.
    source.link("link-here", "Restore.plist");
    source.link("Firmware/link-up", "../Restore.plist");
    source.link("link-absolute", "/etc/hostname");
    source.link("link-dangling", "missing/target");
    // A sparse file: data, a hole, data, and a hole at its end.
    std::string sparse = root + "/Firmware/sparse.bin";
    {
        whittle::UniqueDescriptor fd(::open(sparse.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        dmg::writeAllAt(fd.get(), randomBytes(100000, 3), 0, sparse);
        dmg::writeAllAt(fd.get(), randomBytes(70001, 4), 4 << 20, sparse);
        EXPECT_EQ(::ftruncate(fd.get(), (9 << 20) + 77), 0);
    }
    source.add("Firmware/sparse.bin");
    return source;
}

std::string createImage(const std::string& folder, const std::string& image,
                        const std::optional<std::vector<std::string>>& passphrases = std::nullopt) {
    std::vector<std::string> arguments{"create", "-srcfolder", folder, image, "-format", "UDRO"};
    if (passphrases) arguments.push_back("-encryption");
    auto run = runTool(arguments, passphrases);
    EXPECT_EQ(run.status, 0) << run.err;
    return image;
}

std::string decrypted(const std::string& image, const std::string& passphrase, const std::string& output) {
    whittle::UniqueDescriptor fd = dmg::openForReading(image);
    dmg::EncryptedHeader header = dmg::readEncryptedHeader(fd.get(), image);
    auto keys = dmg::unlockContainer(header, passphrase);
    EXPECT_TRUE(keys);
    if (!keys) return output;
    whittle::UniqueDescriptor inner(::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    dmg::decryptContainer(fd.get(), header, *keys, inner.get(), image);
    return output;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    return names;
}

// Copies a folder with its modes and times (links and folders included).
void copyPreservingTimes(const std::string& from, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    auto copy = runInNewSession({"/bin/cp", "-a", from, to});
    ASSERT_EQ(copy.status, 0) << copy.err;
}

}  // namespace

// ---- names ----

TEST(HfsNames, AreStoredDecomposedWithColonsAsSlashes) {
    EXPECT_EQ(dmg::hfsNameOf("plain.txt"), u"plain.txt");
    EXPECT_EQ(dmg::hfsNameOf("caf\xC3\xA9"), u"cafe\u0301");
    EXPECT_EQ(dmg::hfsNameOf("\xED\x95\x9C"), u"\u1112\u1161\u11AB");  // a Hangul syllable, by rule
    EXPECT_EQ(dmg::hfsNameOf("\xEA\xB0\x80"), u"\u1100\u1161");         // one without a trailing consonant
    EXPECT_EQ(dmg::hfsNameOf("\xE1\xBB\x87"), u"e\u0323\u0302");        // two marks, in canonical order
    EXPECT_EQ(dmg::hfsNameOf("e\xCC\x82\xCC\xA3"), u"e\u0323\u0302");   // marks put in canonical order
    EXPECT_EQ(dmg::hfsNameOf("a:b"), u"a/b");
    EXPECT_EQ(dmg::hfsNameOf("\xEF\xA4\x80"), u"\uF900");  // compatibility ideographs stay as they are
    EXPECT_EQ(dmg::hfsNameOf("\xF0\x9F\x98\x80"), u"\U0001F600");
    EXPECT_EQ(dmg::hfsNameOf(std::string(255, 'x')).size(), 255u);
}

TEST(HfsNames, RefusesInvalidAndTooLongNames) {
    EXPECT_THROW(dmg::hfsNameOf("bad\xFF"), dmg::DiskImageError);
    EXPECT_THROW(dmg::hfsNameOf("\xC0\xAF"), dmg::DiskImageError);      // overlong
    EXPECT_THROW(dmg::hfsNameOf("\xED\xA0\x80"), dmg::DiskImageError);  // a surrogate
    EXPECT_THROW(dmg::hfsNameOf("\xC3"), dmg::DiskImageError);
    EXPECT_THROW(dmg::hfsNameOf(std::string(256, 'x')), dmg::DiskImageError);
    // 100 characters of 2 bytes that decompose into 3 units each: 300 units.
    std::string name;
    for (int i = 0; i < 100; ++i) name += "\xCE\x90";
    EXPECT_THROW(dmg::hfsNameOf(name), dmg::DiskImageError);
}

TEST(HfsNames, OrderIgnoresCaseAndFormattingHints) {
    EXPECT_EQ(dmg::compareHfsNames(u"README", u"readme"), 0);
    EXPECT_EQ(dmg::compareHfsNames(u"\u0391\u0392", u"\u03B1\u03B2"), 0);  // Greek
    EXPECT_EQ(dmg::compareHfsNames(u"\u0416", u"\u0436"), 0);              // Cyrillic
    EXPECT_EQ(dmg::compareHfsNames(u"\uFF21", u"\uFF41"), 0);              // full-width
    EXPECT_EQ(dmg::compareHfsNames(u"a\u200Cb", u"ab"), 0);
    EXPECT_LT(dmg::compareHfsNames(u"Apple", u"banana"), 0);
    EXPECT_GT(dmg::compareHfsNames(u"Zebra", u"apple"), 0);
    EXPECT_LT(dmg::compareHfsNames(u"", u"a"), 0);
    EXPECT_LT(dmg::compareHfsNames(u"ab", u"abc"), 0);
    EXPECT_GT(dmg::compareHfsNames(std::u16string(1, u'\0'), u"\uFFFE"), 0);  // NUL sorts last
    EXPECT_NE(dmg::compareHfsNames(u"e\u0301", u"e"), 0);
    EXPECT_NE(dmg::compareHfsNames(u"\u01F6", u"\u0195"), 0);  // capitals the order leaves alone
}

// ---- volumes ----

TEST(HfsVolume, AHardFolderGivesACheckedVolumeListingItsFiles) {
    SKIP_WITHOUT_CHECKERS();
    TempDir dir;
    SourceFolder source = makeHardFolder(dir / "Hard");
    std::string image = createImage(source.root, dir / "hard.dmg");
    std::string volume = volumeOf(image, dir / "hard.hfs");
    expectCheckerFindsItOk(volume);
    EXPECT_EQ(fshfsListing(volume), source.stored());

    // 7zz reads every file back, links as links, modes and times kept.
    std::string output = dir / "extracted";
    auto extract = runInNewSession({whittle::test::sevenZip(), "x", "-snld20", "-o" + output, image});
    ASSERT_EQ(extract.status, 0) << extract.out << extract.err;
    EXPECT_EQ(whittle::test::describeTree(output + "/Hard", output), source.describedAsStored());
}

TEST(HfsVolume, AnEmptyFolderGivesACheckedVolume) {
    SKIP_WITHOUT_CHECKERS();
    TempDir dir;
    fs::create_directories(dir / "Nothing");
    std::string volume = volumeOf(createImage(dir / "Nothing", dir / "empty.dmg"), dir / "empty.hfs");
    expectCheckerFindsItOk(volume);
    EXPECT_EQ(fshfsListing(volume), std::set<std::string>{});
}

TEST(HfsVolume, AManyFileFolderNeedsIndexNodesAndStillChecks) {
    SKIP_WITHOUT_CHECKERS();
    TempDir dir;
    SourceFolder source{dir / "Many", {}};
    for (int folder = 0; folder < 30; ++folder) {
        std::string name = "Folder" + std::to_string(folder);
        source.folder(name);
        for (int file = 0; file < 120; ++file)
            source.file(name + "/File-" + std::to_string(file * 7919 % 1000) + (file % 2 ? "-X" : "-x"), "f");
    }
    std::string volume = volumeOf(createImage(source.root, dir / "many.dmg"), dir / "many.hfs");
    expectCheckerFindsItOk(volume);
    EXPECT_EQ(fshfsListing(volume), source.stored());
}

TEST(HfsVolume, AnEncryptedImageHoldsACheckedVolume) {
    SKIP_WITHOUT_CHECKERS();
    TempDir dir;
    SourceFolder source = makeHardFolder(dir / "Secret");
    std::string image = createImage(source.root, dir / "secret.dmg", std::vector<std::string>{"pass", "pass"});
    std::string volume = volumeOf(decrypted(image, "pass", dir / "inner.dmg"), dir / "secret.hfs");
    expectCheckerFindsItOk(volume);
    EXPECT_EQ(fshfsListing(volume), source.stored());
}

TEST(HfsVolume, NamesTheVolumeCannotTellApartAreRefused) {
    TempDir dir;
    writeFile(dir / "src/Readme", "1");
    writeFile(dir / "src/README", "2");
    auto run = runTool({"create", "-srcfolder", dir / "src", dir / "case.dmg", "-format", "UDRO"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("differ only in letter case"), std::string::npos) << run.err;
    EXPECT_FALSE(whittle::test::pathExists(dir / "case.dmg"));

    std::string tooLong;
    for (int i = 0; i < 100; ++i) tooLong += "\xCE\x90";
    fs::remove(dir / "src/README");
    writeFile(dir / ("src/" + tooLong), "3");
    run = runTool({"create", "-srcfolder", dir / "src", dir / "long.dmg", "-format", "UDRO"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("longer than an HFS+ volume allows"), std::string::npos) << run.err;
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"src"});
}

// ---- the same folder, the same image ----

TEST(HfsVolume, TheSameFolderGivesTheSameImageAnywhereAndAnyTime) {
    TempDir dir;
    SourceFolder source = makeHardFolder(dir / "one/Bundle");
    std::string first = createImage(source.root, dir / "first.dmg");
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    copyPreservingTimes(source.root, dir / "elsewhere/deeper/Bundle");
    std::string second = createImage(dir / "elsewhere/deeper/Bundle", dir / "second.dmg");
    std::string firstBytes = whittle::test::readFile(first);
    EXPECT_TRUE(firstBytes == whittle::test::readFile(second)) << "the two images differ";

    // A changed modification time changes the image.
    struct timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir / "elsewhere/deeper/Bundle/Restore.plist").c_str(), times, 0), 0);
    std::string third = createImage(dir / "elsewhere/deeper/Bundle", dir / "third.dmg");
    EXPECT_FALSE(firstBytes == whittle::test::readFile(third));
}

TEST(HfsVolume, EncryptedImagesOfTheSameFolderDifferOnlyInTheirKeys) {
    TempDir dir;
    SourceFolder source = makeHardFolder(dir / "Bundle");
    std::vector<std::string> passphrases{"same", "same"};
    std::string first = createImage(source.root, dir / "first.dmg", passphrases);
    std::string second = createImage(source.root, dir / "second.dmg", passphrases);
    EXPECT_FALSE(whittle::test::readFile(first) == whittle::test::readFile(second)) << "fresh salts and keys";
    std::string firstInner = whittle::test::readFile(decrypted(first, "same", dir / "first-inner.dmg"));
    EXPECT_TRUE(firstInner == whittle::test::readFile(decrypted(second, "same", dir / "second-inner.dmg")));
    std::string plain = createImage(source.root, dir / "plain.dmg");
    EXPECT_TRUE(firstInner == whittle::test::readFile(plain)) << "the inner image is the plain one";
}
