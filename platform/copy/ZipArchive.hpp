// Writing planned items into a zip archive.
#pragma once

#include <string>
#include <vector>

#include "platform/copy/CopyPlan.hpp"
#include "platform/helper/ProgressReporter.hpp"

namespace whittle::copy {

// Writes every planned item below the root into a zip archive at archivePath:
// deflated data, folders as entries of their own, symbolic links stored as links,
// Unix modes and modification times kept, names relative to the source root with
// no leading "./". The archive is written to a temporary file beside archivePath and
// renamed into place only when complete, so a failure leaves no archive. Source
// items are opened one component at a time below the source root's descriptor,
// never through a symbolic link. newFileMode is the mode of the finished archive.
// Reports the files and bytes archived as the step "zipping". Throws CopyError.
void writeZipArchive(const std::vector<PlannedItem>& plan, int sourceRoot, const std::string& archivePath,
                     mode_t newFileMode, helper::ProgressReporter& progress);

}  // namespace whittle::copy
