#include "engine/BundlePaths.hpp"

#include <algorithm>

namespace whittle {

std::string deletingLastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    auto slash = path.find_last_of('/');
    if (slash == std::string_view::npos) return {};
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

std::string joinPath(std::string_view folder, std::string_view name) {
    if (folder.empty()) return std::string(name);
    std::string joined(folder);
    if (joined.back() != '/') joined += '/';
    joined += name;
    return joined;
}

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](char c) { return (c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c; });
    return out;
}

std::string uppercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](char c) { return (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c; });
    return out;
}

}  // namespace whittle
