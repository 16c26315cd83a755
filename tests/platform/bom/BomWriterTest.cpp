#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "BomTestSupport.hpp"
#include "TestSupport.hpp"
#include "platform/bom/BomReader.hpp"
#include "platform/bom/BomWriter.hpp"

using whittle::bom::BomError;
using whittle::bom::BomPaths;
using whittle::bom::entriesFromFileList;
using whittle::bom::EntryType;
using whittle::bom::SimpleEntry;
using whittle::bom::writeSimpleBom;
using whittle::test::bomFixtureFolder;
using whittle::test::fileListOf;
using whittle::test::generatedPaths;
using whittle::test::RawBom;
using whittle::test::readFile;

namespace {

std::string bomOf(const std::vector<std::string>& paths) {
    return writeSimpleBom(entriesFromFileList(fileListOf(paths)));
}

std::vector<std::string> readBack(const std::string& bom) { return BomPaths::parse(bom).paths(); }

// The order a hierarchical listing gives: "." first, each folder followed by its
// contents, siblings in byte order.
std::vector<std::string> hierarchicalOrder(const std::vector<std::string>& paths) {
    std::vector<std::pair<std::vector<std::string>, std::string>> keyed;
    keyed.reserve(paths.size());
    for (const std::string& path : paths) {
        std::vector<std::string> components;
        for (std::size_t start = 2; start <= path.size();) {
            std::size_t slash = std::min(path.find('/', start), path.size());
            components.push_back(path.substr(start, slash - start));
            start = slash + 1;
        }
        keyed.emplace_back(std::move(components), path);
    }
    std::sort(keyed.begin(), keyed.end());
    std::vector<std::string> ordered{"."};
    for (auto& [components, path] : keyed) ordered.push_back(std::move(path));
    return ordered;
}

std::vector<std::size_t> leafSizes(RawBom& raw) {
    std::vector<std::size_t> sizes;
    for (std::uint32_t leaf : raw.leaves()) sizes.push_back(raw.u16(raw.blockOffset(leaf) + 2));
    return sizes;
}

}  // namespace

TEST(BomWriter, MatchesTheConstructedFixturesByteForByte) {
    SKIP_WITHOUT_BOM_FIXTURES();
    for (const char* name : {"constructed-simple-3", "constructed-simple-611"}) {
        SCOPED_TRACE(name);
        std::string list = readFile(bomFixtureFolder() + "/" + name + ".filelist.txt");
        std::string expected = readFile(bomFixtureFolder() + "/" + name + ".bom");
        ASSERT_FALSE(expected.empty());
        std::string written = writeSimpleBom(entriesFromFileList(list));
        EXPECT_EQ(written.size(), expected.size());
        EXPECT_TRUE(written == expected);
    }
}

TEST(BomWriter, RoundTripsASmallTree) {
    std::vector<std::string> paths = {"./b",
                                      "./b/z.txt",
                                      "./b/Z.txt",
                                      "./a",
                                      "./a/_x",
                                      "./a/R1",
                                      "./a/abc",
                                      "./a/abc-1",
                                      "./a/ab",
                                      "./c d",
                                      "./\xc3\xa9t\xc3\xa9",
                                      "./a/abc/deep",
                                      "./a/abc/deep/er"};
    EXPECT_EQ(readBack(bomOf(paths)), hierarchicalOrder(paths));
}

TEST(BomWriter, WritesTheRootAloneForAnEmptyList) {
    std::string bom = writeSimpleBom(entriesFromFileList(".\n"));
    EXPECT_EQ(readBack(bom), std::vector<std::string>{"."});
}

TEST(BomWriter, KeepsTheLayoutOfThePlatformFiles) {
    RawBom raw(bomOf({"./a", "./a/b.txt"}));
    EXPECT_EQ(raw.bytes().substr(0, 8), "BOMStore");
    EXPECT_EQ(raw.u32(8), 1u);
    EXPECT_EQ(raw.blockOffset(1), 0x200u);
    EXPECT_EQ(std::size_t{raw.u32(16)} + raw.u32(20), raw.bytes().size());  // the index area comes last
    EXPECT_EQ(raw.u32(12), raw.slotCount() - 1);
    EXPECT_EQ(raw.u32(28), 60u);
    EXPECT_EQ(raw.varBlock("BomInfo"), 1u);
    EXPECT_EQ(raw.varBlock("Paths"), 2u);
    EXPECT_EQ(raw.varBlock("HLIndex"), 4u);
    EXPECT_EQ(raw.varBlock("VIndex"), 6u);
    EXPECT_EQ(raw.varBlock("Size64"), 9u);
    EXPECT_EQ(raw.u32(raw.blockOffset(1) + 4), 4u);  // paths + 1
    EXPECT_EQ(raw.blockLength(3), 4096u);
    EXPECT_EQ(raw.blockLength(8), 128u);
}

TEST(BomWriter, SortsLeafPairsByParentThenUnsignedName) {
    RawBom raw(bomOf({"./\xc3\xa9", "./Z", "./_", "./a", "./a/b", "./ID", "./Ic"}));
    std::vector<RawBom::Key> keys;
    for (std::uint32_t leaf : raw.leaves()) {
        std::size_t start = raw.blockOffset(leaf);
        for (std::uint16_t pair = 0; pair < raw.u16(start + 2); ++pair)
            keys.push_back(raw.key(raw.u32(start + 12 + 8 * pair + 4)));
    }
    std::vector<std::string> names;
    for (const auto& key : keys) names.push_back(key.name);
    EXPECT_EQ(names, (std::vector<std::string>{".", "ID", "Ic", "Z", "_", "a", "\xc3\xa9", "b"}));
}

TEST(BomWriter, SplitsLargeListsIntoLeavesOf256UnderABranch) {
    std::vector<std::string> paths = generatedPaths(20, 600);  // 12,020 paths
    std::string bom = bomOf(paths);
    RawBom raw(bom);
    std::vector<std::size_t> sizes = leafSizes(raw);
    std::size_t total = 0;
    for (std::size_t index = 0; index < sizes.size(); ++index) {
        total += sizes[index];
        if (index + 1 < sizes.size()) {
            EXPECT_EQ(sizes[index], 256u);
        }
    }
    EXPECT_EQ(total, paths.size() + 1);
    EXPECT_GE(sizes.back(), 255u);
    EXPECT_LE(sizes.back(), 510u);
    std::uint32_t root = raw.pathsRoot();
    EXPECT_EQ(raw.u16(raw.blockOffset(root)), 0u);  // a branch
    EXPECT_EQ(raw.u16(raw.blockOffset(root) + 2), sizes.size() - 1);
    EXPECT_EQ(readBack(bom), hierarchicalOrder(paths));
    for (std::size_t index = 0; index < paths.size(); index += 37) {
        const std::string& path = paths[index];
        auto slash = path.find_last_of('/');
        std::uint32_t parentId = slash == 1 ? 1 : static_cast<std::uint32_t>(2 + (index / 601) * 601);
        EXPECT_TRUE(raw.lookUp(parentId, path.substr(slash + 1))) << path;
    }
}

TEST(BomWriter, BuildsAThirdLevelForVeryLargeLists) {
    std::vector<std::string> paths = generatedPaths(14, 10'000);  // 140,014 paths, more than 511 leaves
    std::string bom = bomOf(paths);
    RawBom raw(bom);
    std::uint32_t root = raw.pathsRoot();
    std::uint32_t child = raw.u32(raw.blockOffset(root) + 12);
    EXPECT_EQ(raw.u16(raw.blockOffset(root)), 0u);
    EXPECT_EQ(raw.u16(raw.blockOffset(child)), 0u);  // a second branch level
    std::vector<std::size_t> sizes = leafSizes(raw);
    EXPECT_GT(sizes.size(), 511u);
    std::size_t total = 0;
    for (std::size_t size : sizes) total += size;
    EXPECT_EQ(total, paths.size() + 1);
    BomPaths read = BomPaths::parse(bom);
    EXPECT_EQ(read.size(), paths.size() + 1);
    EXPECT_EQ(read.paths(), hierarchicalOrder(paths));
    for (std::size_t index = 0; index < paths.size(); index += 997) {
        const std::string& path = paths[index];
        auto slash = path.find_last_of('/');
        std::uint32_t parentId = slash == 1 ? 1 : static_cast<std::uint32_t>(2 + (index / 10'001) * 10'001);
        EXPECT_TRUE(raw.lookUp(parentId, path.substr(slash + 1))) << path;
    }
    EXPECT_FALSE(raw.lookUp(1, "zzz-not-there"));
}

TEST(FileList, GivesIdsInListOrderAndInfersFolders) {
    auto entries = entriesFromFileList(".\n./b\n./b/x\n./a\n");
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].name, ".");
    EXPECT_EQ(entries[0].type, EntryType::directory);
    EXPECT_EQ(entries[1].name, "b");
    EXPECT_EQ(entries[1].type, EntryType::directory);
    EXPECT_EQ(entries[2].parentId, 2u);
    EXPECT_EQ(entries[2].type, EntryType::file);
    EXPECT_EQ(entries[3].name, "a");
    EXPECT_EQ(entries[3].type, EntryType::file);
}

TEST(FileList, ToleratesUntidyButHarmlessLines) {
    auto entries = entriesFromFileList("./x//y/\n\n./x/./z\n./x/y\n.\n./\n");
    std::vector<std::string> names;
    for (const auto& entry : entries) names.push_back(entry.name);
    // The root comes first even though the list does not start with it; "./x" is
    // added before its first content.
    EXPECT_EQ(names, (std::vector<std::string>{".", "x", "y", "z"}));
    EXPECT_EQ(entries[2].parentId, 2u);
}

TEST(FileList, RejectsLinesThatAreNotPlainRelativePaths) {
    for (const char* list : {".\n/etc/passwd\n", ".\n./a/../../b\n", ".\na/b\n", ".\n../x\n"}) {
        SCOPED_TRACE(list);
        EXPECT_THROW(entriesFromFileList(list), BomError);
    }
    EXPECT_THROW(entriesFromFileList(std::string(".\n./a\0b\n", 8)), BomError);
}

TEST(BomWriter, RejectsEntriesThatDoNotFormATree) {
    EXPECT_THROW(writeSimpleBom({}), BomError);
    EXPECT_THROW(writeSimpleBom({{0, "x", EntryType::directory}}), BomError);
    std::vector<SimpleEntry> parentLater = {
        {0, ".", EntryType::directory}, {3, "a", EntryType::file}, {1, "b", EntryType::directory}};
    EXPECT_THROW(writeSimpleBom(parentLater), BomError);
    std::vector<SimpleEntry> twice = {
        {0, ".", EntryType::directory}, {1, "a", EntryType::file}, {1, "a", EntryType::file}};
    EXPECT_THROW(writeSimpleBom(twice), BomError);
    std::vector<SimpleEntry> slash = {{0, ".", EntryType::directory}, {1, "a/b", EntryType::file}};
    EXPECT_THROW(writeSimpleBom(slash), BomError);
}
