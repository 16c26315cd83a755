// Where the platform tools are. Each path is fixed when whittle is built; the project's
// own tools default to the folder that holds the whittle executable.
#pragma once

#include <string>

namespace whittle {

std::string bomToolPath();
std::string copyToolPath();
std::string diskImageToolPath();
std::string zipToolPath();
std::string opensslToolPath();
std::string chmodToolPath();
// The folder under which attached disk images appear.
std::string volumesFolder();

}  // namespace whittle
