// Whole-file reads and atomic whole-file writes for the BOM tool.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace whittle::bom {

// The content of the regular file at this path. Throws BomError when it cannot be
// read, is not a regular file, or is larger than maxBytes.
std::string readFileBytes(const std::string& path, std::uint64_t maxBytes);

// Writes the bytes to a temporary file beside the path, flushes it to disk and
// renames it over the path, so that the path holds the old content or the new and
// never a part. Throws BomError, leaving nothing behind.
void writeFileAtomically(const std::string& path, std::string_view bytes);

}  // namespace whittle::bom
