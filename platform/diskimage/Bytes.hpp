// Reading and writing fixed-width integers in byte buffers, in either byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace whittle::diskimage {

inline std::uint64_t readBigEndian(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}

inline std::uint16_t readBig16(std::string_view bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(readBigEndian(bytes, offset, 2));
}
inline std::uint32_t readBig32(std::string_view bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(readBigEndian(bytes, offset, 4));
}
inline std::uint64_t readBig64(std::string_view bytes, std::size_t offset) { return readBigEndian(bytes, offset, 8); }

inline void writeBigEndian(std::string& bytes, std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        bytes[offset + width - 1 - i] = static_cast<char>(value & 0xFF);
        value >>= 8;
    }
}
inline void writeBig16(std::string& bytes, std::size_t offset, std::uint16_t value) {
    writeBigEndian(bytes, offset, value, 2);
}
inline void writeBig32(std::string& bytes, std::size_t offset, std::uint32_t value) {
    writeBigEndian(bytes, offset, value, 4);
}
inline void writeBig64(std::string& bytes, std::size_t offset, std::uint64_t value) {
    writeBigEndian(bytes, offset, value, 8);
}

inline std::uint64_t readLittleEndian(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) value = (value << 8) | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}
inline std::uint32_t readLittle32(std::string_view bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(readLittleEndian(bytes, offset, 4));
}
inline std::uint64_t readLittle64(std::string_view bytes, std::size_t offset) {
    return readLittleEndian(bytes, offset, 8);
}

inline void writeLittleEndian(std::string& bytes, std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        bytes[offset + i] = static_cast<char>(value & 0xFF);
        value >>= 8;
    }
}
inline void writeLittle32(std::string& bytes, std::size_t offset, std::uint32_t value) {
    writeLittleEndian(bytes, offset, value, 4);
}
inline void writeLittle64(std::string& bytes, std::size_t offset, std::uint64_t value) {
    writeLittleEndian(bytes, offset, value, 8);
}

// Copies text into a field, which must be large enough.
inline void writeText(std::string& bytes, std::size_t offset, std::string_view text) {
    bytes.replace(offset, text.size(), text);
}

// A fixed-width text field up to its first NUL.
inline std::string_view readTextField(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::string_view field = bytes.substr(offset, width);
    return field.substr(0, field.find('\0'));
}

}  // namespace whittle::diskimage
