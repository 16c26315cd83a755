// Copying planned items into a destination folder.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/copy/CopyCommon.hpp"
#include "platform/copy/CopyPlan.hpp"

namespace whittle::copy {

// Opens the destination folder, making it and any missing parents first with this
// mode. Throws CopyError.
Descriptor makeDestinationFolder(const std::string& path, mode_t newFolderMode);

// Copies every planned item from the source root into the destination root:
// folders with their modes and times, regular files with their data, modes and
// times, symbolic links as links, never followed. Writing goes one component at a
// time below the destination's descriptor, never through a symbolic link, so
// nothing outside the destination is touched; an existing file in the way is
// replaced, not written through. When verboseOut is set, prints each copied path
// there. Expects the process umask to be 0, so that modes come out exact.
// Throws CopyError.
void copyIntoFolder(const std::vector<PlannedItem>& plan, int sourceRoot, int destinationRoot, std::FILE* verboseOut);

}  // namespace whittle::copy
