// "WhittleCookie.plist": how a stripped bundle was made. Both engines leave the same one.
#pragma once

#include <string>

#include "support/Value.hpp"

namespace whittle {

// The cookie dictionary for a run over the bundle at `source`, with the StripOptions'
// "toolName" and "toolVersion".
Value makeCookie(const std::string& source, const Value& options);

}  // namespace whittle
