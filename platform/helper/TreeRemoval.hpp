// Removing what a helper wrote, never following a symbolic link and never allocating,
// so that it can run inside a signal handler.
#pragma once

namespace whittle::helper {

// Removes the entry called name in the open folder parentFd: a file, link or special
// file is unlinked; a folder is emptied depth first and then removed (folders without
// owner access are opened up for that). Answers 0 (also when there is nothing by that
// name), or the error number of the first thing that could not be removed.
int removeEntryAt(int parentFd, const char* name);

// Opens the folder at relativePath below the open folder anchorFd, one component at
// a time, refusing symbolic links on the way. An empty path opens the anchor again.
// Answers the new descriptor, or -1 with errno set.
int openFolderBelow(int anchorFd, const char* relativePath);

}  // namespace whittle::helper
