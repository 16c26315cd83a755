// The tool's build-time settings, handed in by its main() (the library itself reads no
// environment and no configuration file).
#pragma once

#include <string>

namespace whittle::diskimage {

struct ToolSettings {
    std::string volumesFolder;  // attached volumes appear as folders in here
    std::string sevenZip;       // the 7zz program
    std::string xorriso;        // the xorriso program
};

}  // namespace whittle::diskimage
