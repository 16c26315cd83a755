// Pieces shared by the parts of whittle-copy: its error type, its messages and reading
// links.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace whittle::copy {

// A failure that ends the copy; the message is one line, ready to print.
class CopyError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The system's description of errno, for messages.
std::string systemMessage(int error);

// Throws CopyError: cannot <action> "<path>": <system's description of error>.
[[noreturn]] void failOn(std::string_view path, const char* action, int error);

// The target of the symbolic link with this name in the folder; sizeHint is the
// link's size as last seen. Throws CopyError.
std::string readLinkTarget(int folder, const std::string& name, off_t sizeHint, std::string_view path);

}  // namespace whittle::copy
