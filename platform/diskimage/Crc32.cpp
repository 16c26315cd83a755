#include "platform/diskimage/Crc32.hpp"

#include <zlib.h>

#include <array>
#include <cstring>

#include "platform/diskimage/DiskImageFormat.hpp"

#if defined(__x86_64__)
#include <immintrin.h>
#define WHITTLE_CRC_FOLDING 1
#endif

namespace whittle::diskimage {

namespace {

constexpr std::uint32_t kComplement = 0xFFFFFFFFu;
constexpr std::uint64_t kPolynomial = format::checksum::kCrc32Polynomial;
constexpr std::uint32_t kReflectedPolynomial = format::checksum::kCrc32ReflectedPolynomial;

std::uint32_t zlibCrc(std::uint32_t crc, const char* bytes, std::size_t length) {
    return static_cast<std::uint32_t>(
        crc32_z(crc, reinterpret_cast<const Bytef*>(bytes), static_cast<z_size_t>(length)));
}

#ifdef WHITTLE_CRC_FOLDING

// Carry-less folding (PCLMULQDQ), many times faster than a table-driven CRC: the
// message is folded 128 bits at a time onto an accumulator that stays congruent to
// it modulo the CRC polynomial P, and only the final 128 bits are reduced.
//
// Registers hold polynomials bit-reflected, as the message bits arrive: in a 128-bit
// register bit i is the coefficient of x^(127-i); in a 64-bit lane, of x^(63-i). A
// carry-less product of two reflected 64-bit lanes, read as a reflected 128-bit
// register, is the product times x, so every constant is taken one power lower.

constexpr std::uint32_t reflect32(std::uint32_t value) {
    std::uint32_t reflected = 0;
    for (int bit = 0; bit < 32; ++bit) reflected |= ((value >> bit) & 1u) << (31 - bit);
    return reflected;
}

// x^exponent mod P, coefficient of x^n in bit n.
constexpr std::uint32_t powerOfXModP(unsigned exponent) {
    std::uint64_t remainder = 1;
    for (unsigned i = 0; i < exponent; ++i) {
        remainder <<= 1;
        if (remainder & (1ull << 32)) remainder ^= kPolynomial;
    }
    return static_cast<std::uint32_t>(remainder);
}

// A polynomial of degree below 32 as a reflected 64-bit lane (x^m in bit 63 - m).
constexpr std::uint64_t lane(std::uint32_t polynomial) { return std::uint64_t{reflect32(polynomial)} << 32; }

// Folding distance d bits: the low lane (coefficients x^127..x^64) is multiplied by
// x^(d+64), the high lane (x^63..x^0) by x^d.
struct FoldConstants {
    std::uint64_t forLowLane;
    std::uint64_t forHighLane;
};
constexpr FoldConstants foldConstants(unsigned distance) {
    return {lane(powerOfXModP(distance + 63)), lane(powerOfXModP(distance - 1))};
}
constexpr FoldConstants kFold512 = foldConstants(512);
constexpr FoldConstants kFold128 = foldConstants(128);

constexpr std::array<std::uint32_t, 256> rawByteTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t n = 0; n < 256; ++n) {
        std::uint32_t c = n;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ kReflectedPolynomial : c >> 1;
        table[n] = c;
    }
    return table;
}
constexpr std::array<std::uint32_t, 256> kRawByteTable = rawByteTable();

__attribute__((target("pclmul,sse2"))) __m128i fold(__m128i accumulator, const FoldConstants& constants) {
    __m128i factors =
        _mm_set_epi64x(static_cast<long long>(constants.forHighLane), static_cast<long long>(constants.forLowLane));
    return _mm_xor_si128(_mm_clmulepi64_si128(accumulator, factors, 0x00),
                         _mm_clmulepi64_si128(accumulator, factors, 0x11));
}

__attribute__((target("pclmul,sse2"))) __m128i load(const char* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// The CRC register (unconditioned, reflected) after the given register and bytes;
// length at least 64.
__attribute__((target("pclmul,sse2"))) std::uint32_t foldedRegister(std::uint32_t reg, const char*& bytes,
                                                                    std::size_t& length) {
    // The register enters as the first 32 message bits.
    __m128i lanes[4] = {_mm_xor_si128(load(bytes), _mm_cvtsi32_si128(static_cast<int>(reg))), load(bytes + 16),
                        load(bytes + 32), load(bytes + 48)};
    bytes += 64;
    length -= 64;
    for (; length >= 64; bytes += 64, length -= 64) {
        for (int i = 0; i < 4; ++i) lanes[i] = _mm_xor_si128(fold(lanes[i], kFold512), load(bytes + 16 * i));
    }
    __m128i accumulator = lanes[0];
    for (int i = 1; i < 4; ++i) accumulator = _mm_xor_si128(fold(accumulator, kFold128), lanes[i]);
    for (; length >= 16; bytes += 16, length -= 16)
        accumulator = _mm_xor_si128(fold(accumulator, kFold128), load(bytes));

    // The accumulator times x^32 mod P is the CRC of its 16 bytes from a zero register.
    unsigned char folded[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(folded), accumulator);
    std::uint32_t result = 0;
    for (unsigned char byte : folded) result = kRawByteTable[(result ^ byte) & 0xFFu] ^ (result >> 8);
    return result;
}

bool canFold() {
    static const bool supported = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse2");
    return supported;
}

#endif

}  // namespace

std::uint32_t crc32Update(std::uint32_t crc, std::string_view bytes) {
    const char* data = bytes.data();
    std::size_t length = bytes.size();
#ifdef WHITTLE_CRC_FOLDING
    if (length >= 256 && canFold()) {
        std::uint32_t reg = foldedRegister(crc ^ kComplement, data, length);
        crc = reg ^ kComplement;
    }
#endif
    return zlibCrc(crc, data, length);
}

std::uint32_t crc32AppendZeros(std::uint32_t crc, std::uint64_t count) {
    // crc32_combine(a, 0, n) advances the raw register a over n zero bytes; the stored
    // CRC is that register complemented at both ends.
    std::uint64_t remaining = count;
    std::uint32_t reg = crc ^ kComplement;
    constexpr std::uint64_t kStep = 1ull << 62;  // z_off64_t is signed
    while (remaining > 0) {
        std::uint64_t step = remaining < kStep ? remaining : kStep;
        reg = static_cast<std::uint32_t>(crc32_combine64(reg, 0, static_cast<z_off64_t>(step)));
        remaining -= step;
    }
    return reg ^ kComplement;
}

}  // namespace whittle::diskimage
