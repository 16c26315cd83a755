// Building work items and reading the values they carry, the same way in both engines.
#pragma once

#include <initializer_list>
#include <string_view>
#include <utility>

#include "support/Value.hpp"

namespace whittle {

// A new dictionary with the base's entries and then the given ones (which win).
Value copyWith(const Value& base, std::initializer_list<std::pair<const char*, Value>> entries);

// Writes the entry unless the value is none.
void setIfPresent(Value& item, const char* key, const Value& value);

// A catalogue value for a list key: an array as it is, none as none, any other value
// as a one-element array.
Value asList(const Value& value);

// True when the array or set holds a string with exactly this text.
bool holdsString(const Value& list, std::string_view text);

}  // namespace whittle
