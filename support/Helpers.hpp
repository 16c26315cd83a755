// Collection and string helpers used by the driver and both engines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

// ---- NicePrint: one-line renderings of collections for messages ----

// The elements' descriptions joined by ", ". The separator goes in only when the text
// built so far is not empty, so an empty first element leaves no leading ", ".
std::string niceDescription(const ValueArray& elements);
// An array or a set value (members in the set's own order); "" for anything else.
std::string niceDescription(const Value& collection);
template <typename StringRange>
std::string niceDescriptionOfStrings(const StringRange& texts) {
    std::string out;
    for (const auto& text : texts) {
        if (!out.empty()) out += ", ";
        out += text;
    }
    return out;
}

// The text with the first occurrence of `from` replaced by `to` (unchanged when absent).
std::string replacingFirst(std::string text, std::string_view from, std::string_view to);

// ---- Text encoding ----

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values
// beyond U+10FFFF).
bool isValidUtf8(std::string_view text);
// The text with every byte that is not part of well-formed UTF-8 replaced by U+FFFD.
std::string withValidUtf8(std::string_view text);

// ---- Extras: tolerant option reading ----

// A number is true when non-zero; a string is true exactly when its upper-cased form
// begins with "Y" ("YES", "yeah"; but not "true" or "1"); anything else is false.
bool boolForKey(const Value& dictionary, const std::string* key);
bool boolForKey(const Value& dictionary, std::string_view key);

// ---- MoreStuff: prefix and suffix tests with search options ----

enum SearchOptions : unsigned {
    kLiteralSearch = 0,
    kCaseInsensitiveSearch = 1,
};

// An empty candidate is never a prefix or a suffix.
bool hasPrefix(std::string_view text, std::string_view prefix, unsigned options);
bool hasSuffix(std::string_view text, std::string_view suffix, unsigned options);

// ---- case-insensitive comparison ----

bool equalsIgnoringCase(std::string_view a, std::string_view b);
// The text with ASCII letters turned to lower case, or to upper case; other bytes stay.
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);
bool containsIgnoringCase(std::string_view text, std::string_view needle);
// <0, 0 or >0, comparing letters without regard to case.
int compareIgnoringCase(std::string_view a, std::string_view b);
// Sorts ascending without regard to case; names equal but for case keep their order.
void sortIgnoringCase(std::vector<std::string>& texts);
// A dictionary's keys, sorted without regard to case; none for anything else.
std::vector<std::string> keysSortedIgnoringCase(const Value& dictionary);
// True when the array holds a string equal to the text without regard to case;
// elements that are not strings are skipped.
bool containsCaseInsensitiveString(const Value& array, std::string_view text);

}  // namespace whittle
