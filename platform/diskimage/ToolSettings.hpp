// The tool's build-time settings, handed in by its main() (the library itself reads no
// environment and no configuration file).
#pragma once

#include <string>

#include "platform/helper/ProgressReporter.hpp"

namespace whittle::diskimage {

struct ToolSettings {
    std::string volumesFolder;  // attached volumes appear as folders in here
    std::string sevenZip;       // the 7zz program
    helper::ProgressReporter* progress = nullptr;  // where create says how far it has got; none: nowhere
};

}  // namespace whittle::diskimage
