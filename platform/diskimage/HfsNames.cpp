#include "platform/diskimage/HfsNames.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/HfsUnicodeTables.hpp"

namespace whittle::diskimage {

namespace {

[[noreturn]] void badName(std::string_view name, const char* why) {
    throw DiskImageError("the name \"" + std::string(name) + "\" " + why);
}

std::vector<char32_t> decodeUtf8(std::string_view name) {
    std::vector<char32_t> characters;
    for (std::size_t at = 0; at < name.size();) {
        auto lead = static_cast<unsigned char>(name[at]);
        std::size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
        if (length == 0 || at + length > name.size()) badName(name, "is not valid UTF-8");
        char32_t value = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t i = 1; i < length; ++i) {
            auto next = static_cast<unsigned char>(name[at + i]);
            if ((next & 0xC0) != 0x80) badName(name, "is not valid UTF-8");
            value = (value << 6) | (next & 0x3F);
        }
        static constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
        if (value < kSmallest[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
            badName(name, "is not valid UTF-8");
        characters.push_back(value);
        at += length;
    }
    return characters;
}

// Hangul syllables decompose by rule into their leading, vowel and trailing jamo.
constexpr char32_t kSyllableBase = 0xAC00, kLeadingBase = 0x1100, kVowelBase = 0x1161, kTrailingBase = 0x11A7;
constexpr char32_t kVowelCount = 21, kTrailingCount = 28, kSyllableCount = 19 * 21 * 28;

void appendDecomposed(char32_t character, std::vector<char32_t>& out) {
    if (character >= kSyllableBase && character < kSyllableBase + kSyllableCount) {
        char32_t index = character - kSyllableBase;
        out.push_back(kLeadingBase + index / (kVowelCount * kTrailingCount));
        out.push_back(kVowelBase + index % (kVowelCount * kTrailingCount) / kTrailingCount);
        if (index % kTrailingCount != 0) out.push_back(kTrailingBase + index % kTrailingCount);
        return;
    }
    const auto* end = unicode::kDecompositions + unicode::kDecompositionCount;
    const auto* found = std::lower_bound(unicode::kDecompositions, end, character,
                                         [](const unicode::Decomposition& d, char32_t c) { return d.codePoint < c; });
    if (found == end || found->codePoint != character) {
        out.push_back(character);
        return;
    }
    out.insert(out.end(), unicode::kDecomposedCharacters + found->first,
               unicode::kDecomposedCharacters + found->first + found->length);
}

std::uint8_t combiningClassOf(char32_t character) {
    const auto* end = unicode::kCombiningClasses + unicode::kCombiningClassCount;
    const auto* found = std::lower_bound(unicode::kCombiningClasses, end, character,
                                         [](const unicode::CombiningClass& c, char32_t v) { return c.codePoint < v; });
    return found != end && found->codePoint == character ? found->value : 0;
}

// Marks that follow one base character go in ascending order of their classes.
void putMarksInCanonicalOrder(std::vector<char32_t>& characters) {
    for (std::size_t start = 0; start < characters.size();) {
        if (combiningClassOf(characters[start]) == 0) {
            ++start;
            continue;
        }
        std::size_t end = start;
        while (end < characters.size() && combiningClassOf(characters[end]) != 0) ++end;
        std::stable_sort(characters.begin() + static_cast<std::ptrdiff_t>(start),
                         characters.begin() + static_cast<std::ptrdiff_t>(end),
                         [](char32_t a, char32_t b) { return combiningClassOf(a) < combiningClassOf(b); });
        start = end;
    }
}

// Folded value of every UTF-16 unit; 0 for units that comparisons skip. A NUL is a
// real character that sorts after all others.
const std::array<char16_t, 0x10000>& foldTable() {
    static const auto table = [] {
        auto folded = std::make_unique<std::array<char16_t, 0x10000>>();
        for (std::size_t unit = 0; unit < folded->size(); ++unit) (*folded)[unit] = static_cast<char16_t>(unit);
        (*folded)[0] = 0xFFFF;
        for (std::size_t i = 0; i < unicode::kCaseFoldCount; ++i)
            (*folded)[unicode::kCaseFolds[i].from] = unicode::kCaseFolds[i].to;
        return folded;
    }();
    return *table;
}

// The next unit that counts in a comparison, or 0 at the end of the name.
char16_t nextFolded(std::u16string_view& name, const std::array<char16_t, 0x10000>& folds) {
    while (!name.empty()) {
        char16_t folded = folds[name.front()];
        name.remove_prefix(1);
        if (folded != 0) return folded;
    }
    return 0;
}

}  // namespace

std::u16string hfsNameOf(std::string_view utf8Name) {
    std::vector<char32_t> decomposed;
    for (char32_t character : decodeUtf8(utf8Name)) appendDecomposed(character == U':' ? U'/' : character, decomposed);
    putMarksInCanonicalOrder(decomposed);
    std::u16string name;
    for (char32_t character : decomposed) {
        if (character < 0x10000) {
            name.push_back(static_cast<char16_t>(character));
        } else {
            character -= 0x10000;
            name.push_back(static_cast<char16_t>(0xD800 + (character >> 10)));
            name.push_back(static_cast<char16_t>(0xDC00 + (character & 0x3FF)));
        }
    }
    if (name.size() > kLongestHfsName) badName(utf8Name, "is longer than an HFS+ volume allows");
    return name;
}

int compareHfsNames(std::u16string_view a, std::u16string_view b) {
    const auto& folds = foldTable();
    for (;;) {
        char16_t left = nextFolded(a, folds);
        char16_t right = nextFolded(b, folds);
        if (left != right) return left < right ? -1 : 1;
        if (left == 0) return 0;
    }
}

}  // namespace whittle::diskimage
