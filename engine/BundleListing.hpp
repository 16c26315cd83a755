// Looking into a bundle on disk without ever leaving it: symbolic links are listed as
// entries, never followed.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace whittle {

// True for a folder that is not reached through a symbolic link at its last step.
bool isRealFolder(const std::string& path);
// True when anything, a dangling link included, stands at the path.
bool pathExists(const std::string& path);
// The names in a folder, sorted; none for a missing or unreadable folder.
std::vector<std::string> folderEntries(const std::string& path);
// Appends every path below an absolute folder, at any depth, as `relative` joined with
// the path below it; links to folders are listed but not entered.
void listFolderDeep(const std::string& absolute, const std::string& relative, std::vector<std::string>& out);
// The text a symbolic link holds, or none when the path is not a link.
std::optional<std::string> symbolicLinkTarget(const std::string& path);

// Invisible housekeeping items: names beginning with ".BC_", and the names ".DS_Store",
// ".svn", "CVS", ".fseventsd" and ".Trashes" as a whole; letter case is ignored.
bool hasInvisiblePrefix(std::string_view name);
bool isInvisibleItemName(std::string_view name);

}  // namespace whittle
