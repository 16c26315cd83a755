// Helpers for the whittle-copy tests: running the tools, making BOMs (including
// deliberately crafted ones) and comparing folder trees.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.hpp"

namespace whittle::test {

ProgramResult runCopyTool(const std::vector<std::string>& arguments);
ProgramResult runBomTool(const std::vector<std::string>& arguments);

// The argument vectors the driver uses.
ProgramResult copyIntoFolder(const std::string& bom, const std::string& source, const std::string& destination);
ProgramResult copyIntoZip(const std::string& bom, const std::string& source, const std::string& archive);

// Writes a simple BOM of ".", then these "./relative" paths, at bomPath. Each
// replacement swaps a placeholder name for another of the same length in the BOM's
// bytes, so that names no file list would allow (such as "..") can be planted.
void writeBom(const std::string& bomPath, const std::vector<std::string>& paths,
              const std::vector<std::pair<std::string, std::string>>& replacements = {});

// What a tree holds at one path.
struct TreeItem {
    char type = '?';  // 'd', 'f', 'l' or '?'
    mode_t permissions = 0;
    long long modifiedNanoseconds = 0;
    std::string content;  // a file's bytes or a link's target
    bool operator==(const TreeItem&) const = default;
};

// Everything below root (not root itself), keyed by "./relative/path", never
// following links.
std::map<std::string, TreeItem> snapshotTree(const std::string& root);

// Sets a path's modification time without following a final link.
void setModificationTime(const std::string& path, long long seconds, long nanoseconds = 0);

// Gives every folder below root (and root) owner access again, so that a test's
// temporary folder can be removed even when it holds read-only folders.
void makeTreeRemovable(const std::string& root);

// The folders and files of a folder, without "." and "..".
std::vector<std::string> folderEntries(const std::string& folder);

}  // namespace whittle::test
