#include "support/Helpers.hpp"

#include <algorithm>

namespace whittle {

std::string niceDescription(const ValueArray& elements) {
    std::string out;
    for (const auto& element : elements) {
        if (!out.empty()) out += ", ";
        out += element.description();
    }
    return out;
}

std::string niceDescription(const Value& collection) {
    if (const auto* array = collection.asArray()) return niceDescription(*array);
    if (const auto* members = collection.asSetMembers()) return niceDescription(*members);
    return {};
}

bool boolForKey(const Value& dictionary, const std::string* key) {
    return key ? boolForKey(dictionary, std::string_view(*key)) : false;
}

bool boolForKey(const Value& dictionary, std::string_view key) {
    Value value = dictionary.get(key);
    if (value.isNone()) return false;
    if (value.isNumber()) return value.numberValue() != 0;
    if (const auto* text = value.asString()) return !text->empty() && ((*text)[0] == 'y' || (*text)[0] == 'Y');
    return false;
}

namespace {

char foldCase(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return foldCase(x) == foldCase(y); });
}

bool sameWithOptions(std::string_view a, std::string_view b, unsigned options) {
    return (options & kCaseInsensitiveSearch) ? sameIgnoringCase(a, b) : a == b;
}

}  // namespace

bool hasPrefix(std::string_view text, std::string_view prefix, unsigned options) {
    if (prefix.empty() || prefix.size() > text.size()) return false;
    return sameWithOptions(text.substr(0, prefix.size()), prefix, options);
}

bool hasSuffix(std::string_view text, std::string_view suffix, unsigned options) {
    if (suffix.empty() || suffix.size() > text.size()) return false;
    return sameWithOptions(text.substr(text.size() - suffix.size()), suffix, options);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) { return sameIgnoringCase(a, b); }

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), foldCase);
    return out;
}

std::string uppercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; });
    return out;
}

bool containsIgnoringCase(std::string_view text, std::string_view needle) {
    auto found = std::search(text.begin(), text.end(), needle.begin(), needle.end(),
                             [](char x, char y) { return foldCase(x) == foldCase(y); });
    return found != text.end() || needle.empty();
}

int compareIgnoringCase(std::string_view a, std::string_view b) {
    std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        auto x = static_cast<unsigned char>(foldCase(a[i]));
        auto y = static_cast<unsigned char>(foldCase(b[i]));
        if (x != y) return x < y ? -1 : 1;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}

void sortIgnoringCase(std::vector<std::string>& texts) {
    std::stable_sort(texts.begin(), texts.end(),
                     [](const std::string& a, const std::string& b) { return compareIgnoringCase(a, b) < 0; });
}

std::vector<std::string> keysSortedIgnoringCase(const Value& dictionary) {
    std::vector<std::string> keys;
    if (const auto* entries = dictionary.asDictionary()) {
        for (const auto& entry : *entries) keys.push_back(entry.first);
    }
    sortIgnoringCase(keys);
    return keys;
}

bool containsCaseInsensitiveString(const Value& array, std::string_view text) {
    const auto* elements = array.asArray();
    if (!elements) return false;
    return std::any_of(elements->begin(), elements->end(), [text](const Value& element) {
        return element.isString() && sameIgnoringCase(element.text(), text);
    });
}

std::string replacingFirst(std::string text, std::string_view from, std::string_view to) {
    auto at = from.empty() ? std::string::npos : text.find(from);
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

// ---- Text encoding ----

namespace {

// The length of the well-formed UTF-8 sequence at the start of the text, or 0.
std::size_t utf8SequenceLength(std::string_view text) {
    auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    std::size_t length = lead >= 0xC2 && lead <= 0xDF ? 2 : lead >= 0xE0 && lead <= 0xEF ? 3 : lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
    if (length == 0 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    unsigned char second = byte(1);
    if (lead == 0xE0 && second < 0xA0) return 0;  // overlong
    if (lead == 0xED && second > 0x9F) return 0;  // surrogate
    if (lead == 0xF0 && second < 0x90) return 0;  // overlong
    if (lead == 0xF4 && second > 0x8F) return 0;  // beyond U+10FFFF
    return length;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    while (!text.empty()) {
        std::size_t length = utf8SequenceLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string withValidUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        std::size_t length = utf8SequenceLength(text);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            length = 1;
        } else {
            out.append(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return out;
}

}  // namespace whittle
