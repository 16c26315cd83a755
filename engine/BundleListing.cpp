#include "engine/BundleListing.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "engine/BundlePaths.hpp"
#include "support/Helpers.hpp"

namespace whittle {

bool isRealFolder(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool pathExists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

std::vector<std::string> folderEntries(const std::string& path) {
    std::vector<std::string> names;
    DIR* folder = ::opendir(path.c_str());
    if (!folder) return names;
    while (const dirent* entry = ::readdir(folder)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    ::closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

void listFolderDeep(const std::string& absolute, const std::string& relative, std::vector<std::string>& out) {
    for (const auto& name : folderEntries(absolute)) {
        std::string childRelative = joinPath(relative, name);
        std::string childAbsolute = absolute + "/" + name;
        out.push_back(childRelative);
        if (isRealFolder(childAbsolute)) listFolderDeep(childAbsolute, childRelative, out);
    }
}

std::optional<std::string> symbolicLinkTarget(const std::string& path) {
    std::string target(4096, '\0');
    ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0 || static_cast<std::size_t>(length) >= target.size()) return std::nullopt;
    target.resize(static_cast<std::size_t>(length));
    return target;
}

bool hasInvisiblePrefix(std::string_view name) { return hasPrefix(name, ".BC_", kCaseInsensitiveSearch); }

bool isInvisibleItemName(std::string_view name) {
    static const char* const invisibles[] = {".DS_Store", ".svn", "CVS", ".fseventsd", ".Trashes"};
    return std::any_of(std::begin(invisibles), std::end(invisibles),
                       [name](const char* invisible) { return equalsIgnoringCase(name, invisible); });
}

}  // namespace whittle
