// Small file chores shared by the whole program.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Path helpers were once declared here; code that still finds them through this header
// keeps finding them.
#include "support/Paths.hpp"

namespace whittle {

// The whole content of a regular file; none if it is missing, not a regular file,
// unreadable or larger than 4 GiB.
std::optional<std::string> readWholeFile(const std::string& path);
// The same for a file already open for reading; the descriptor stays open.
std::optional<std::string> readWholeDescriptor(int fd);

// Writes the text to standard output and flushes it. A failure is remembered.
void writeToStandardOutput(std::string_view text);
// The system's error number of the first failed write to standard output (flushing
// first), or 0 when every write succeeded.
int standardOutputError();

// Writes bytes to a temporary file beside the path and renames it over the path, so
// that readers see the old content or the new, never a part. On failure returns
// false and sets the error's description, and nothing is left behind.
bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string& error);

// The names in a folder, "." and ".." included, in the order the system gives them;
// none for a folder that cannot be read.
std::vector<std::string> namesInFolder(const std::string& folder);

}  // namespace whittle
