// Where a bundle keeps its manifests.
#pragma once

namespace whittle {

// The bundle's two manifests.
inline constexpr const char* kBuildManifest = "Restore/BuildManifest.plist";
inline constexpr const char* kRestorePlist = "Restore/Restore.plist";

}  // namespace whittle
