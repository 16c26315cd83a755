#include "support/Paths.hpp"

#include <algorithm>

namespace whittle {

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

// The folder part of a path whose last component is not at the top: "/" for "/c".
std::string folderPartBefore(std::string_view path, std::size_t slash) {
    return slash == 0 ? std::string("/") : std::string(path.substr(0, slash));
}

}  // namespace

std::vector<std::string> pathSteps(std::string_view path) {
    std::vector<std::string> steps;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t slash = std::min(path.find('/', start), path.size());
        if (slash > start) steps.emplace_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return steps;
}

std::string lastPathComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    auto slash = path.find_last_of('/');
    if (slash == std::string_view::npos || path.size() == 1) return std::string(path);
    return std::string(path.substr(slash + 1));
}

std::string parentFolderOf(std::string_view path) {
    path = withoutTrailingSlashes(path);
    auto slash = path.find_last_of('/');
    return slash == std::string_view::npos ? std::string(".") : folderPartBefore(path, slash);
}

std::string deletingLastPathComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    auto slash = path.find_last_of('/');
    return slash == std::string_view::npos ? std::string() : folderPartBefore(path, slash);
}

std::string joinPath(std::string_view folder, std::string_view name) {
    if (folder.empty()) return std::string(name);
    std::string joined(folder);
    if (joined.back() != '/') joined += '/';
    joined += name;
    return joined;
}

std::string pathExtension(std::string_view path) {
    std::string name = lastPathComponent(path);
    auto dot = name.find_last_of('.');
    return (dot == std::string::npos || dot == 0) ? std::string() : name.substr(dot + 1);
}

std::string withoutExtension(std::string_view name) {
    auto dot = name.find_last_of('.');
    return std::string((dot == std::string_view::npos || dot == 0) ? name : name.substr(0, dot));
}

}  // namespace whittle
