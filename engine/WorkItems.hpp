// Building work items and reading the values they carry, the same way in both engines.
#pragma once

#include <initializer_list>
#include <span>
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

// A step every run ends with: the banner it is logged under and the operation it names.
struct ClosingStep {
    const char* name;
    const char* selector;
};

// The step that strips the support files at the bundle root.
inline constexpr ClosingStep kSupportFilesStep{"Strip support files", "stripCommonWork:"};

// Appends one item per step, the engine's own steps and then the two every run ends with
// (the invisibles scrub and the cookie): the base's entries with the step's "workName"
// and "workSelector".
void appendClosingSteps(Value& workList, const Value& base, std::span<const ClosingStep> steps);

// Logs the work list under ">>> Work List".
void logWorkList(const Value& workList);

// True when the array or set holds a string with exactly this text.
bool holdsString(const Value& list, std::string_view text);

}  // namespace whittle
