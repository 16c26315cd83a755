// One chunk table ("mish" block): what parses must serialize to a table that parses
// to the same chunks.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/Udif.hpp"

namespace dmg = whittle::diskimage;

namespace {

bool sameChunks(const dmg::ChunkTable& a, const dmg::ChunkTable& b) {
    if (a.chunks.size() != b.chunks.size() || a.firstSector != b.firstSector || a.sectorCount != b.sectorCount)
        return false;
    for (std::size_t i = 0; i < a.chunks.size(); ++i) {
        const auto& x = a.chunks[i];
        const auto& y = b.chunks[i];
        if (x.type != y.type || x.firstSector != y.firstSector || x.sectorCount != y.sectorCount ||
            x.storedOffset != y.storedOffset || x.storedLength != y.storedLength)
            return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    dmg::ChunkTable table;
    try {
        table = dmg::parseChunkTable(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const dmg::DiskImageError&) {
        return 0;
    }
    dmg::ChunkTable again = dmg::parseChunkTable(dmg::serializeChunkTable(table));
    if (!sameChunks(table, again)) std::abort();
    return 0;
}
