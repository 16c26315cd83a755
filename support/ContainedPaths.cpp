#include "support/ContainedPaths.hpp"

#include "support/DescriptorIo.hpp"
#include "support/Paths.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

namespace whittle {

namespace {

constexpr const char* kOutsideTarget = "the path leads outside the target";

// The steps that name something: "." names the folder it stands in.
std::vector<std::string> componentsOf(std::string_view relative) {
    auto parts = pathSteps(relative);
    std::erase(parts, ".");
    return parts;
}

// Opens the folder that holds the path's last component, creating missing folders and
// refusing symbolic links on the way. Answers the last component, or "" on failure.
std::string openParent(const std::string& root, std::string_view relative, UniqueDescriptor& parent, std::string& error) {
    if (!isContainedRelativePath(relative)) {
        error = kOutsideTarget;
        return {};
    }
    auto parts = componentsOf(relative);
    parent.reset(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() < 0) {
        error = std::strerror(errno);
        return {};
    }
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        ::mkdirat(parent.get(), parts[i].c_str(), 0755);
        int next = ::openat(parent.get(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) {
            error = (errno == ELOOP || errno == ENOTDIR) ? kOutsideTarget : std::strerror(errno);
            return {};
        }
        parent.reset(next);
    }
    return parts.back();
}

std::string temporaryName(const std::string& leaf) {
    static std::mt19937_64 random(std::random_device{}());
    return "." + leaf.substr(0, 200) + "." + std::to_string(random() % 1000000000ULL) + ".tmp";
}

}  // namespace

bool isContainedRelativePath(std::string_view relative) {
    if (relative.empty() || relative.front() == '/') return false;
    auto parts = componentsOf(relative);
    if (parts.empty()) return false;
    for (const auto& part : parts) {
        if (part == "..") return false;
    }
    return true;
}

bool writeContainedFile(const std::string& root, std::string_view relative, std::string_view bytes, std::string& error) {
    UniqueDescriptor parent;
    std::string leaf = openParent(root, relative, parent, error);
    if (leaf.empty()) return false;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string temporary = temporaryName(leaf);
        UniqueDescriptor file(::openat(parent.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (file.get() < 0) {
            if (errno == EEXIST) continue;
            error = std::strerror(errno);
            return false;
        }
        bool written = writeAll(file.get(), bytes);
        int savedErrno = errno;
        file.reset();
        if (written && ::renameat(parent.get(), temporary.c_str(), parent.get(), leaf.c_str()) == 0) return true;
        error = std::strerror(written ? errno : savedErrno);
        ::unlinkat(parent.get(), temporary.c_str(), 0);
        return false;
    }
    error = "no free temporary name";
    return false;
}

bool makeContainedSymlink(const std::string& root, std::string_view relative, const std::string& target,
                          std::string& error) {
    UniqueDescriptor parent;
    std::string leaf = openParent(root, relative, parent, error);
    if (leaf.empty()) return false;
    ::unlinkat(parent.get(), leaf.c_str(), 0);
    if (::symlinkat(target.c_str(), parent.get(), leaf.c_str()) == 0) return true;
    error = std::strerror(errno);
    return false;
}

}  // namespace whittle
