// The CRC-32 that the container uses for every checksum (the zlib polynomial, stored
// big-endian), with a shortcut for long runs of zeros.
#pragma once

#include <cstdint>
#include <string_view>

namespace whittle::diskimage {

// Extends a CRC-32 (0 for no bytes yet) by the bytes.
std::uint32_t crc32Update(std::uint32_t crc, std::string_view bytes);

// Extends a CRC-32 by count zero bytes, in time logarithmic in count.
std::uint32_t crc32AppendZeros(std::uint32_t crc, std::uint64_t count);

}  // namespace whittle::diskimage
