// Property lists, XML and binary: whatever parses must describe itself and survive
// being written out and read back in both encodings.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "support/PlistCodec.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    whittle::Value value = whittle::parsePropertyList(bytes);
    if (value.isNone()) return 0;
    (void)value.description();
    (void)whittle::parsePropertyList(whittle::xmlPropertyList(value));
    (void)whittle::parsePropertyList(whittle::binaryPropertyList(value));
    return 0;
}
