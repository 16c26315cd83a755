// What to undo when the tool is stopped half-way: the mechanism all helper tools
// share, under the names this tool's code uses.
#pragma once

#include "platform/helper/StopCleanup.hpp"

namespace whittle::diskimage {

using helper::forgetOnStop;
using helper::keepOnStop;
using helper::killOnStop;
using helper::removeOnStop;
using helper::StopSignalsBlocked;

}  // namespace whittle::diskimage
