// The channel on which a helper tool tells whittle how far a long step has got. It is
// neither standard output nor standard error, which keep exactly what the tool prints:
// whittle opens it only when it can show progress (its standard error is a terminal),
// lets the tool inherit its writing end, and names that descriptor in the tool's
// environment. A tool without the variable reports nothing.
//
// Records are lines of text, each written whole in one write:
//   "total FILES BYTES STEP"   once, when the step starts (STEP: a word such as "copying")
//   "done FILES BYTES"         how much of it is done, repeated; the last one at the end
// A reader ignores lines it does not know.
#pragma once

namespace whittle::progress {

inline constexpr const char* kChannelVariable = "WHITTLE_PROGRESS_FD";
inline constexpr const char* kTotalRecord = "total";
inline constexpr const char* kDoneRecord = "done";

}  // namespace whittle::progress
