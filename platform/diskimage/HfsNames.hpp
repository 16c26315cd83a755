// Names as an HFS+ volume stores and orders them: UTF-16, canonically decomposed,
// ":" stored as "/" (a POSIX name cannot hold "/", an HFS+ name shows it as ":"), and
// ordered case-insensitively by folding each character, ignoring formatting hints.
#pragma once

#include <string>
#include <string_view>

namespace whittle::diskimage {

inline constexpr std::size_t kLongestHfsName = 255;  // UTF-16 units

// The stored form of a UTF-8 file name; throws DiskImageError when the name is not
// valid UTF-8 or is longer than kLongestHfsName units once decomposed.
std::u16string hfsNameOf(std::string_view utf8Name);

// Orders two stored names as the volume's catalog does: negative, zero (the names are
// the same to the volume) or positive.
int compareHfsNames(std::u16string_view a, std::u16string_view b);

}  // namespace whittle::diskimage
