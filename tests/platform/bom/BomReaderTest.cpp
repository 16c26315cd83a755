#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "BomTestSupport.hpp"
#include "TestSupport.hpp"
#include "platform/bom/BomReader.hpp"

using whittle::bom::BomPaths;
using whittle::bom::EntryType;
using whittle::bom::PathVisit;
using whittle::test::bomFixtureFolder;
using whittle::test::linesOf;
using whittle::test::readFile;

namespace {

std::vector<std::string> fixtureBoms() {
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(bomFixtureFolder()))
        if (item.path().extension() == ".bom") names.push_back(item.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::map<std::string, EntryType> typesOf(const BomPaths& paths) {
    std::map<std::string, EntryType> types;
    paths.forEachPath([&types](const PathVisit& visit) { types[std::string(visit.path)] = visit.type; });
    return types;
}

}  // namespace

// The paths files list each BOM hierarchically, siblings in byte order, which is the
// order the reader walks in, so they compare as ordered lists.
TEST(BomReader, ListsEveryFixtureExactlyAsItsPathsFile) {
    SKIP_WITHOUT_BOM_FIXTURES();
    std::vector<std::string> names = fixtureBoms();
    ASSERT_GE(names.size(), 4u);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        BomPaths paths = BomPaths::load(bomFixtureFolder() + "/" + name + ".bom");
        std::vector<std::string> expected = linesOf(readFile(bomFixtureFolder() + "/" + name + ".paths.txt"));
        EXPECT_EQ(paths.paths(), expected);
        EXPECT_EQ(paths.size(), expected.size());
    }
}

TEST(BomReader, ReadsTheTypesOfAFullBom) {
    SKIP_WITHOUT_BOM_FIXTURES();
    auto types = typesOf(BomPaths::load(bomFixtureFolder() + "/full-10.bom"));
    EXPECT_EQ(types.at("."), EntryType::directory);
    EXPECT_EQ(types.at("./faust.txt"), EntryType::file);
    EXPECT_EQ(types.at("./link.txt"), EntryType::symlink);
    EXPECT_EQ(types.at("./one/alpha"), EntryType::directory);
    EXPECT_EQ(types.at("./one/alpha/empty"), EntryType::file);
}

TEST(BomReader, FollowsBothLeavesOfATwoLevelTree) {
    SKIP_WITHOUT_BOM_FIXTURES();
    BomPaths paths = BomPaths::load(bomFixtureFolder() + "/constructed-simple-611.bom");
    EXPECT_EQ(paths.size(), 611u);
    std::size_t folders = 0, withContents = 0, deepest = 0;
    paths.forEachPath([&](const PathVisit& visit) {
        if (visit.type == EntryType::directory) ++folders;
        if (visit.hasChildren) ++withContents;
        deepest = std::max(deepest, visit.depth);
    });
    EXPECT_EQ(folders, 11u);
    EXPECT_EQ(withContents, 11u);
    EXPECT_EQ(deepest, 2u);
}

TEST(BomReader, GivesAClearErrorForAMissingFile) {
    try {
        BomPaths::load("/nonexistent/whittle/test.bom");
        FAIL() << "expected an error";
    } catch (const whittle::bom::BomError& error) {
        EXPECT_NE(std::string(error.what()).find("/nonexistent/whittle/test.bom"), std::string::npos);
    }
}
