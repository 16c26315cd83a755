// Damaged and hostile BOMs must give a clean BomError: no crash, no endless loop,
// no runaway memory. These run under AddressSanitizer in the checked builds.
#include <gtest/gtest.h>

#include <random>

#include "BomTestSupport.hpp"
#include "platform/bom/BomReader.hpp"
#include "platform/bom/BomWriter.hpp"

using whittle::bom::BomError;
using whittle::bom::BomPaths;
using whittle::bom::entriesFromFileList;
using whittle::bom::writeSimpleBom;
using whittle::test::fileListOf;
using whittle::test::generatedPaths;
using whittle::test::RawBom;

namespace {

// ".", "./a", "./a/b.txt": one leaf (block 3); path blocks 11-19, three per path
// (info, key, record) in id order.
RawBom threePathBom() { return RawBom(writeSimpleBom(entriesFromFileList(".\n./a\n./a/b.txt\n"))); }

// 702 paths: two leaves under a branch root.
RawBom twoLeafBom() { return RawBom(writeSimpleBom(entriesFromFileList(fileListOf(generatedPaths(1, 700))))); }

constexpr std::uint32_t kLeafBlock = 3;
constexpr std::uint32_t kKeyOfA = 15;
constexpr std::uint32_t kRecordOfBTxt = 19;

std::vector<std::string> listing(const std::string& bytes) { return BomPaths::parse(bytes).paths(); }

void expectRejected(const std::string& bytes) { EXPECT_THROW(listing(bytes), BomError); }

// Either a listing or a BomError is fine; anything else fails the test.
void expectNoCrash(const std::string& bytes) {
    try {
        listing(bytes);
    } catch (const BomError&) {
    }
}

}  // namespace

TEST(HostileBom, EveryTruncationIsRejected) {
    std::string bytes = threePathBom().bytes();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        ASSERT_THROW(listing(bytes.substr(0, length)), BomError) << "length " << length;
    }
}

TEST(HostileBom, RejectsWrongMagicAndVersion) {
    RawBom raw = threePathBom();
    RawBom badMagic = raw;
    badMagic.bytes()[0] = 'X';
    expectRejected(badMagic.bytes());
    RawBom badVersion = raw;
    badVersion.setU32(8, 2);
    expectRejected(badVersion.bytes());
    expectRejected(std::string(4096, '\xff'));
    expectRejected("");
}

TEST(HostileBom, RejectsHeaderOffsetsOutsideTheFile) {
    for (std::size_t field : {16, 20, 24, 28}) {
        RawBom raw = threePathBom();
        raw.setU32(field, 0xFFFFFFF0u);
        SCOPED_TRACE(field);
        expectRejected(raw.bytes());
    }
}

TEST(HostileBom, RejectsAbsurdCounts) {
    RawBom slots = threePathBom();
    slots.setU32(slots.indexOffset(), 0xFFFFFFFFu);
    expectRejected(slots.bytes());

    RawBom vars = threePathBom();
    vars.setU32(vars.u32(24), 0x7FFFFFFFu);
    vars.bytes()[vars.u32(24) + 4 + 5 + 7 + 5] = 'X';  // spoil "Paths" so the search runs off the end
    expectRejected(vars.bytes());

    RawBom pairs = threePathBom();
    pairs.setU16(pairs.blockOffset(kLeafBlock) + 2, 0xFFFF);
    pairs.setU32(pairs.slotOffset(kLeafBlock) + 4, 64);  // a short node cannot hold them
    expectRejected(pairs.bytes());
}

TEST(HostileBom, RejectsBlockReferencesOutsideTheFileOrIndex) {
    RawBom outside = threePathBom();
    outside.setU32(outside.slotOffset(kLeafBlock), static_cast<std::uint32_t>(outside.bytes().size() - 2));
    expectRejected(outside.bytes());

    RawBom hugeLength = threePathBom();
    hugeLength.setU32(hugeLength.slotOffset(kRecordOfBTxt) + 4, 0xFFFFFFFFu);
    expectRejected(hugeLength.bytes());

    RawBom missingBlock = threePathBom();
    missingBlock.setU32(missingBlock.blockOffset(kLeafBlock) + 12, 0x00FFFFFFu);  // first pair's record
    expectRejected(missingBlock.bytes());

    RawBom nullRoot = threePathBom();
    nullRoot.setU32(nullRoot.blockOffset(2) + 8, 0);
    expectRejected(nullRoot.bytes());
}

TEST(HostileBom, RejectsBlocksTooShortForTheirRecords) {
    RawBom shortRecord = threePathBom();
    shortRecord.setU32(shortRecord.slotOffset(kRecordOfBTxt) + 4, 4);
    expectRejected(shortRecord.bytes());

    RawBom shortKey = threePathBom();
    shortKey.setU32(shortKey.slotOffset(kKeyOfA) + 4, 2);
    expectRejected(shortKey.bytes());

    RawBom shortHeader = threePathBom();
    shortHeader.setU32(shortHeader.slotOffset(2) + 4, 8);
    expectRejected(shortHeader.bytes());
}

TEST(HostileBom, RejectsLoopsInTheLeafChain) {
    RawBom selfLoop = threePathBom();
    selfLoop.setU32(selfLoop.blockOffset(kLeafBlock) + 4, kLeafBlock);
    expectRejected(selfLoop.bytes());

    RawBom twoLeaves = twoLeafBom();
    std::vector<std::uint32_t> leaves = twoLeaves.leaves();
    ASSERT_EQ(leaves.size(), 2u);
    twoLeaves.setU32(twoLeaves.blockOffset(leaves[1]) + 4, leaves[0]);
    expectRejected(twoLeaves.bytes());
}

TEST(HostileBom, RejectsLoopsThroughBranches) {
    RawBom raw = twoLeafBom();
    std::uint32_t root = raw.pathsRoot();
    raw.setU32(raw.blockOffset(root) + 12, root);  // first child is the branch itself
    expectRejected(raw.bytes());

    RawBom chainToBranch = twoLeafBom();
    std::vector<std::uint32_t> leaves = chainToBranch.leaves();
    chainToBranch.setU32(chainToBranch.blockOffset(leaves[1]) + 4, chainToBranch.pathsRoot());
    expectRejected(chainToBranch.bytes());
}

TEST(HostileBom, SkipsEntriesWhoseParentsLoopInsteadOfHanging) {
    RawBom raw = threePathBom();
    raw.setU32(raw.blockOffset(kKeyOfA), 2);  // "a" becomes its own parent
    EXPECT_EQ(listing(raw.bytes()), std::vector<std::string>{"."});
}

TEST(HostileBom, RejectsRepeatedIdsAndKeys) {
    RawBom sameId = threePathBom();
    sameId.setU32(sameId.blockOffset(kRecordOfBTxt), 2);
    expectRejected(sameId.bytes());

    RawBom sameKey = threePathBom();
    sameKey.setU32(sameKey.blockOffset(kLeafBlock) + 12 + 8 * 2 + 4, kKeyOfA);  // b.txt's pair uses a's key
    expectRejected(sameKey.bytes());

    RawBom zeroId = threePathBom();
    zeroId.setU32(zeroId.blockOffset(kRecordOfBTxt), 0);
    expectRejected(zeroId.bytes());
}

TEST(HostileBom, RejectsAMissingOrStrangeRoot) {
    RawBom noPaths = threePathBom();
    std::size_t vars = noPaths.u32(24);
    noPaths.bytes()[vars + 4 + 5 + 7 + 5] = 'X';  // "Paths" -> "Xaths"
    expectRejected(noPaths.bytes());

    RawBom renamedRoot = threePathBom();
    renamedRoot.bytes()[renamedRoot.blockOffset(12) + 4] = '/';
    expectRejected(renamedRoot.bytes());
}

TEST(HostileBom, RejectsPathsLongerThanTheLimit) {
    std::string list = ".\n";
    std::string path = ".";
    for (int depth = 0; depth < 20; ++depth) {
        path += "/" + std::string(250, static_cast<char>('a' + depth));
        list += path + "\n";
    }
    BomPaths paths = BomPaths::parse(writeSimpleBom(entriesFromFileList(list)));
    EXPECT_THROW(paths.paths(), BomError);
    EXPECT_THROW(listing(writeSimpleBom(entriesFromFileList(".\n./" + std::string(5000, 'n') + "\n"))), BomError);
}

TEST(HostileBom, SurvivesRandomDamage) {
    std::mt19937 random(20240611);
    RawBom small = threePathBom();
    RawBom large = twoLeafBom();
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = (round % 2 == 0 ? small : large).bytes();
        // Most of a BOM is zero padding; aim half the damage at the index, vars and
        // path blocks at the end, where it matters most.
        std::size_t tailStart = RawBom(bytes).blockOffset(11);
        int changes = 1 + static_cast<int>(random() % 4);
        for (int change = 0; change < changes; ++change) {
            std::size_t from = (random() % 2 == 0) ? 0 : tailStart;
            std::size_t offset = from + random() % (bytes.size() - from);
            bytes[offset] = static_cast<char>(random() % 4 == 0 ? 0xFF : random() % 256);
        }
        expectNoCrash(bytes);
    }
}
