// Bundles read straight from a zip archive, on this machine or on a web server: which
// sources are archives, opening them, and writing their kept entries out.
#pragma once

#include <memory>
#include <string>

#include "engine/ZipBundleFiles.hpp"
#include "support/Value.hpp"

namespace whittle {

// An http:// or https:// address.
bool isRemoteSource(const std::string& source);
// A remote address, or a regular file that starts like a zip archive, whatever its
// name (a ".dmg" is always a disk image).
bool isArchiveSource(const std::string& source);

// What the engines see of a source that cannot be read at all: nothing.
class UnreadableBundleFiles final : public BundleFiles {
public:
    explicit UnreadableBundleFiles(std::string root) : BundleFiles(std::move(root)) {}
    bool exists(std::string_view) const override { return false; }
    bool isFolder(std::string_view) const override { return false; }
    std::optional<std::string> linkTarget(std::string_view) const override { return std::nullopt; }
    std::optional<std::string> readFile(std::string_view, int* error = nullptr) const override;
    std::optional<struct timespec> modificationTime(std::string_view) const override { return std::nullopt; }
    std::vector<std::string> entries(std::string_view) const override { return {}; }
};

// The bundle in the archive. None, with the reason logged as an error naming the
// source, when the archive cannot be read.
std::shared_ptr<ZipBundleFiles> openArchiveBundle(const std::string& source);

// Writes the kept paths of the archive's bundle below the destination folder: files
// streamed out of their entries with their modes and times, links as links, folders
// made as needed. Answers 0, or 1 after logging what failed.
int extractKeptPaths(const ZipBundleFiles& files, const Value& keptPaths, const std::string& destination);

// Writes a zip archive of the kept paths at `zipPath`, each entry's stored bytes copied
// as they are. Answers 0, or 1 after logging what failed.
int copyKeptEntries(const ZipBundleFiles& files, const Value& keptPaths, const std::string& zipPath);

}  // namespace whittle
