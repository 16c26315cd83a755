// Copying planned items into a destination folder.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "platform/copy/CopyCommon.hpp"
#include "platform/copy/CopyPlan.hpp"
#include "platform/helper/ProgressReporter.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle::copy {

// The destination folder of one copy, opened, and made first with any missing
// parents (like "mkdir -p") with newFolderMode. What the copy makes in it is removed
// again when the copy fails (this object goes without keep()) or is stopped by a
// signal; what was there before is never removed. Throws CopyError.
class Destination {
public:
    Destination(const std::string& path, mode_t newFolderMode);
    ~Destination();
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    int fd() const { return folder_.get(); }
    // True when this copy made the folder, so that everything in it is the copy's own.
    bool madeByThisCopy() const { return !outermostMadeFolder_.empty(); }
    // The destination's path for a "./relative" path of the plan, for messages.
    std::string pathOf(std::string_view planPath) const;
    // The copy is complete: nothing is removed any more.
    void keep();

private:
    std::string path_;
    std::string outermostMadeFolder_;  // the first folder made on the way, if any
    UniqueDescriptor folder_;
    bool kept_ = false;
};

// Copies every planned item from the source root into the destination root:
// folders with their modes and times, regular files with their data, modes and
// times, symbolic links as links, never followed. Writing goes one component at a
// time below the destination's descriptor, never through a symbolic link, so
// nothing outside the destination is touched; an existing file in the way is
// replaced, not written through. Every item made directly inside a folder that
// existed before is registered with the destination, to be removed on failure or
// stop. When verboseOut is set, prints each copied path there, a whole line at a time,
// as soon as it is copied. Reports the files and bytes copied as the step "copying".
// Expects the process umask to be 0, so that modes come out exact. Throws CopyError.
void copyIntoFolder(const std::vector<PlannedItem>& plan, int sourceRoot, Destination& destination,
                    std::FILE* verboseOut, helper::ProgressReporter& progress);

}  // namespace whittle::copy
