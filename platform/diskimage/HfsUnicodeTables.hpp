// Character data for HFS+ names, generated from the Unicode character database by
// unicode/generate_tables.py (see there for what each table holds).
#pragma once

#include <cstddef>
#include <cstdint>

namespace whittle::diskimage::unicode {

struct Decomposition {
    char32_t codePoint;
    std::uint16_t first;  // index of the first character in kDecomposedCharacters
    std::uint8_t length;
};
struct CombiningClass {
    char32_t codePoint;
    std::uint8_t value;
};
struct CaseFold {
    char16_t from;
    char16_t to;  // 0: the character is ignored when names are compared
};

// All sorted by code point.
extern const Decomposition kDecompositions[];
extern const std::size_t kDecompositionCount;
extern const char32_t kDecomposedCharacters[];
extern const CombiningClass kCombiningClasses[];
extern const std::size_t kCombiningClassCount;
extern const CaseFold kCaseFolds[];
extern const std::size_t kCaseFoldCount;

}  // namespace whittle::diskimage::unicode
