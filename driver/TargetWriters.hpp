// Turning an engine's result into files: the kept paths as a file list and a BOM, a
// copy of the bundle through that BOM, and the modified files written over a copy.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "driver/ToolRunner.hpp"
#include "engine/Stripper.hpp"
#include "support/Value.hpp"

namespace whittle {

inline constexpr const char* kFileListTemplate = "/tmp/whittle.XXXXXXXXXX";

// Writes "." and then "./PATH" for every kept path into a new file named after the
// template. Answers 0 with the name in pathBuffer, or the system error number with
// pathBuffer emptied.
int writeFileListToTempFile(Stripper& engine, std::string& pathBuffer);

// Makes a BOM of the kept paths at bomPath with the BOM tool.
int createBomFromManifest(PlatformTools& tools, Stripper& engine, const std::string& bomPath);

// Copies exactly the kept paths from the bundle into the destination folder.
int copyBundleThroughBom(PlatformTools& tools, Stripper& engine, const std::string& destination);

// Writes each modified file below the destination: text, property list or link.
// Answers 0 when every entry was written, else 1.
int applyModifiedFiles(const Value& modifiedFiles, const std::string& destination, bool noSymLinks);

class BundleFiles;
// Gives the written files (and the folders that writing them changed) times that come
// from the source, so that the same run always writes the same target: each written
// file takes the time of the source's "Restore/BuildManifest.plist", each folder its
// own time in the source, or that time when the source has no such folder. Access
// times are the same, or the fixed time given.
void settleTimesOfModifiedFiles(const Value& modifiedFiles, const std::string& destination, const BundleFiles& source,
                                std::optional<timespec> accessTime = std::nullopt);

}  // namespace whittle
