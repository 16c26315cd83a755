// The one error type of the disk image tool: its message is what the user reads after
// "whittle-diskimage: ".
#pragma once

#include <stdexcept>
#include <string>

namespace whittle::diskimage {

class DiskImageError : public std::runtime_error {
public:
    explicit DiskImageError(const std::string& message) : std::runtime_error(message) {}
};

// "what: <description of errno>".
[[noreturn]] void throwSystemError(const std::string& what, int errorNumber);

}  // namespace whittle::diskimage
