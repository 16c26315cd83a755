// Writing below a destination folder without ever leaving it: paths that are absolute,
// that climb with "..", or that pass through a symbolic link are refused.
#pragma once

#include <string>
#include <string_view>

namespace whittle {

// True for a relative path with no ".." component and at least one name.
bool isContainedRelativePath(std::string_view relative);

// Writes the bytes to root/relative through a temporary file and a rename, creating
// missing folders on the way. False with the reason in error on any failure.
bool writeContainedFile(const std::string& root, std::string_view relative, std::string_view bytes, std::string& error);

// Makes root/relative a symbolic link to target, replacing a file or link there.
bool makeContainedSymlink(const std::string& root, std::string_view relative, const std::string& target,
                          std::string& error);

}  // namespace whittle
