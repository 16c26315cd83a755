// Converting property-list bytes (XML or binary) to Values and Values to XML text.
// The only place in the program that talks to the property-list library.
#pragma once

#include <string>
#include <string_view>

#include "support/Value.hpp"

namespace whittle {

// Containers nested deeper than this are refused as hostile rather than risk the stack.
inline constexpr int kMaximumPlistNesting = 512;

// Parses XML or binary property-list bytes; answers none for anything unparsable, and
// for lists made to harm their reader: containers nested deeper than the limit, however
// the tags are spelled; dictionary keys that hold a NUL; shared references in a binary
// list that would expand to far more than the file's own size.
Value parsePropertyList(std::string_view bytes);

// A standard XML property list of the value, dictionary keys in ascending order.
// Sets are written as arrays; nones inside containers are left out.
std::string xmlPropertyList(const Value& value);

// The same in the binary property-list encoding.
std::string binaryPropertyList(const Value& value);

}  // namespace whittle
