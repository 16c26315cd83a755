// Moving files and folders to the user's Trash, the freedesktop.org way: the item goes
// to "files/" of the trash folder and a ".trashinfo" record of where it came from and
// when goes to "info/".
#pragma once

#include <string>

namespace whittle {

// Moves the item to the Trash. On failure answers false with the reason in error.
bool moveToTrash(const std::string& path, std::string& error);

// Deletes a file, link or whole folder (links are removed, never followed).
bool removeItem(const std::string& path, std::string& error);

// "~" or "~/..." with the home folder in place of the tilde.
std::string expandTilde(const std::string& path);

}  // namespace whittle
