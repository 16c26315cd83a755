// The names under which a run builds its target and keeps its temporary bundle copy,
// and the clearing away of such items left behind by runs that ended without cleaning
// up (killed, or the machine stopped).
#pragma once

#include <string>

namespace whittle {

// ".whittle-<pid>-<name>" beside the target: where the target is built before it is
// renamed into place.
std::string stagingPathFor(const std::string& absoluteTarget, int processId);

// "Whittle.<pid>" beside the target: the temporary folder of zip and disk-image targets.
std::string temporaryFolderFor(const std::string& absoluteTarget, int processId);

// Moves to the Trash (or deletes) every staging item and temporary folder in the folder
// whose run is no longer alive, with a "!!! NOTE: " line each. Items that carry this
// process's own id are leftovers too: this run has made none yet.
void clearLeftoversOfEndedRuns(const std::string& folder);

}  // namespace whittle
