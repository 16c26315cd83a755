// Where a bundle keeps its manifests.
#pragma once

#include <string>
#include <string_view>

namespace whittle {

// The bundle's two manifests.
inline constexpr const char* kBuildManifest = "Restore/BuildManifest.plist";
inline constexpr const char* kRestorePlist = "Restore/Restore.plist";
// The manifests name their files from the "Restore" folder: "x.dmg" -> "Restore/x.dmg".
inline std::string inRestoreFolder(std::string_view manifestPath) { return "Restore/" + std::string(manifestPath); }

}  // namespace whittle
