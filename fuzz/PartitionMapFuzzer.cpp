// The partition map of a hybrid file system image's system area.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/PartitionMaps.hpp"

namespace dmg = whittle::diskimage;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        auto partitions = dmg::readPartitionMap(std::string_view(reinterpret_cast<const char*>(data), size));
        (void)dmg::findHfsPartition(partitions);
    } catch (const dmg::DiskImageError&) {
    }
    return 0;
}
