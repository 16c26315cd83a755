// The engine classes the driver can pick by name.
#pragma once

#include <string_view>

#include "engine/Stripper.hpp"

namespace whittle {

// The engine class of that name ("Stripper3", "Stripper2"), or nullptr.
const StripperClass* stripperClassNamed(std::string_view name);

}  // namespace whittle
