// Helpers for the BOM tests: the shared sample files, file lists, and a small
// independent decoder for checking and patching the raw bytes of a BOM.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace whittle::test {

// The folder of sample BOM files shared beside the project (absent in a plain clone).
std::string bomFixtureFolder();
bool haveBomFixtures();

#define SKIP_WITHOUT_BOM_FIXTURES()                                                                  \
    do {                                                                                             \
        if (!::whittle::test::haveBomFixtures())                                                     \
            GTEST_SKIP() << "sample BOM files not found in " << ::whittle::test::bomFixtureFolder(); \
    } while (false)

// A file list: "." and then the paths, one per line.
std::string fileListOf(const std::vector<std::string>& paths);

// Folders and files for a test tree: `folders` folders of `filesEach` files each,
// listed as a file list would list them (folder before contents).
std::vector<std::string> generatedPaths(std::size_t folders, std::size_t filesEach);

// Raw access to a BOM's bytes, with no checks: the tests give it valid files and
// then damage them on purpose.
class RawBom {
public:
    explicit RawBom(std::string bytes) : bytes_(std::move(bytes)) {}

    std::string& bytes() { return bytes_; }
    std::uint32_t u32(std::size_t offset) const;
    std::uint16_t u16(std::size_t offset) const;
    void setU32(std::size_t offset, std::uint32_t value);
    void setU16(std::size_t offset, std::uint16_t value);

    std::uint32_t indexOffset() const { return u32(16); }
    std::uint32_t slotCount() const { return u32(indexOffset()); }
    std::size_t slotOffset(std::uint32_t block) const { return indexOffset() + 4 + 8 * std::size_t{block}; }
    std::uint32_t blockOffset(std::uint32_t block) const { return u32(slotOffset(block)); }
    std::uint32_t blockLength(std::uint32_t block) const { return u32(slotOffset(block) + 4); }
    std::string_view block(std::uint32_t number) const;

    std::uint32_t varBlock(std::string_view name) const;
    std::uint32_t pathsRoot() const { return u32(blockOffset(varBlock("Paths")) + 8); }

    struct Key {
        std::uint32_t parentId;
        std::string name;
    };
    Key key(std::uint32_t keyBlock) const;
    // Leaves in chain order, starting from the leftmost one.
    std::vector<std::uint32_t> leaves() const;
    // Block number of the file key whose name is this, or 0.
    std::uint32_t keyBlockNamed(std::string_view name) const;
    // Finds a key the way a lookup goes down a tree: at a branch, into the first child
    // whose largest key is not below the key sought, else into the trailing child.
    bool lookUp(std::uint32_t parentId, const std::string& name) const;

private:
    std::string bytes_;
};

}  // namespace whittle::test
