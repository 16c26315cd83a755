#include "BomTestSupport.hpp"

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace whittle::test {

std::string bomFixtureFolder() { return std::string(WHITTLE_SOURCE_DIR) + "/../shared/fixtures/bom"; }

bool haveBomFixtures() { return std::filesystem::is_directory(bomFixtureFolder()); }

std::string fileListOf(const std::vector<std::string>& paths) {
    std::string list = ".\n";
    for (const std::string& path : paths) list += path + "\n";
    return list;
}

std::vector<std::string> generatedPaths(std::size_t folders, std::size_t filesEach) {
    std::vector<std::string> paths;
    char name[64];
    for (std::size_t folder = 0; folder < folders; ++folder) {
        std::snprintf(name, sizeof name, "./folder-%04zu", folder);
        std::string folderPath = name;
        paths.push_back(folderPath);
        for (std::size_t file = 0; file < filesEach; ++file) {
            std::snprintf(name, sizeof name, "/file-%05zu.bin", file);
            paths.push_back(folderPath + name);
        }
    }
    return paths;
}

std::uint32_t RawBom::u32(std::size_t offset) const {
    if (offset + 4 > bytes_.size()) throw std::out_of_range("RawBom::u32");
    auto byte = [this, offset](std::size_t index) {
        return std::uint32_t{static_cast<unsigned char>(bytes_[offset + index])};
    };
    return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
}

std::uint16_t RawBom::u16(std::size_t offset) const {
    if (offset + 2 > bytes_.size()) throw std::out_of_range("RawBom::u16");
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes_[offset]) << 8 |
                                      static_cast<unsigned char>(bytes_[offset + 1]));
}

void RawBom::setU32(std::size_t offset, std::uint32_t value) {
    for (int index = 0; index < 4; ++index) bytes_.at(offset + index) = static_cast<char>(value >> (24 - 8 * index));
}

void RawBom::setU16(std::size_t offset, std::uint16_t value) {
    bytes_.at(offset) = static_cast<char>(value >> 8);
    bytes_.at(offset + 1) = static_cast<char>(value);
}

std::string_view RawBom::block(std::uint32_t number) const {
    return std::string_view(bytes_).substr(blockOffset(number), blockLength(number));
}

std::uint32_t RawBom::varBlock(std::string_view name) const {
    std::size_t offset = u32(24);
    std::uint32_t count = u32(offset);
    offset += 4;
    for (std::uint32_t index = 0; index < count; ++index) {
        std::uint32_t number = u32(offset);
        std::size_t length = static_cast<unsigned char>(bytes_.at(offset + 4));
        if (std::string_view(bytes_).substr(offset + 5, length) == name) return number;
        offset += 5 + length;
    }
    throw std::runtime_error("no var " + std::string(name));
}

RawBom::Key RawBom::key(std::uint32_t keyBlock) const {
    std::string_view bytes = block(keyBlock);
    std::string_view name = bytes.substr(4);
    return {u32(blockOffset(keyBlock)), std::string(name.substr(0, name.find('\0')))};
}

std::vector<std::uint32_t> RawBom::leaves() const {
    std::uint32_t node = pathsRoot();
    while (u16(blockOffset(node)) == 0) node = u32(blockOffset(node) + 12);
    std::vector<std::uint32_t> chain;
    for (; node != 0 && chain.size() <= slotCount(); node = u32(blockOffset(node) + 4)) chain.push_back(node);
    return chain;
}

std::uint32_t RawBom::keyBlockNamed(std::string_view name) const {
    for (std::uint32_t leaf : leaves()) {
        std::size_t start = blockOffset(leaf);
        for (std::uint16_t pair = 0; pair < u16(start + 2); ++pair) {
            std::uint32_t keyBlock = u32(start + 12 + 8 * pair + 4);
            if (key(keyBlock).name == name) return keyBlock;
        }
    }
    return 0;
}

bool RawBom::lookUp(std::uint32_t parentId, const std::string& name) const {
    auto notBelow = [&](const Key& candidate) {
        return candidate.parentId != parentId ? candidate.parentId > parentId : candidate.name >= name;
    };
    std::uint32_t node = pathsRoot();
    for (int depth = 0; depth < 16; ++depth) {
        std::size_t start = blockOffset(node);
        std::uint16_t count = u16(start + 2);
        if (u16(start) == 1) {
            for (std::uint16_t pair = 0; pair < count; ++pair) {
                Key candidate = key(u32(start + 12 + 8 * pair + 4));
                if (candidate.parentId == parentId && candidate.name == name) return true;
            }
            return false;
        }
        std::uint32_t next = u32(start + 12 + 8 * std::size_t{count});  // the trailing child
        for (std::uint16_t pair = 0; pair < count; ++pair) {
            if (notBelow(key(u32(start + 12 + 8 * pair + 4)))) {
                next = u32(start + 12 + 8 * pair);
                break;
            }
        }
        node = next;
    }
    return false;
}

}  // namespace whittle::test
