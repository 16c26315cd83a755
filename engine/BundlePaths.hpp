// Path chores on bundle-relative paths ("Restore/Firmware/x.bin").
#pragma once

#include <string>
#include <string_view>

namespace whittle {

// The bundle's two manifests.
inline constexpr const char* kBuildManifest = "Restore/BuildManifest.plist";
inline constexpr const char* kRestorePlist = "Restore/Restore.plist";
// The manifests name their files from the "Restore" folder: "x.dmg" -> "Restore/x.dmg".
inline std::string inRestoreFolder(std::string_view manifestPath) { return "Restore/" + std::string(manifestPath); }

// "Restore/Firmware/x.bin" -> "Restore/Firmware"; "x.bin" -> ""; "/x" -> "/".
std::string deletingLastPathComponent(std::string_view path);
// "folder" + "/" + "name", or the bare name when the folder is "".
std::string joinPath(std::string_view folder, std::string_view name);
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);

}  // namespace whittle
