// BOM files: any bytes either list their paths or are refused with BomError.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/bom/BomReader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        auto bom = whittle::bom::BomPaths::parse(std::string(reinterpret_cast<const char*>(data), size));
        (void)bom.paths();
    } catch (const whittle::bom::BomError&) {
    }
    return 0;
}
