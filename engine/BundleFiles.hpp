// Everything the engines read from a bundle, reached from the bundle's root folder
// without ever leaving it: a symbolic link (or "..") that would lead outside the root
// is not followed, and what lies behind it counts as absent. Links that stay inside
// the bundle keep working.
#pragma once

#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace whittle {

class BundleFiles {
public:
    // The root is opened once, as named (the root itself may be a link).
    explicit BundleFiles(std::string root);
    ~BundleFiles();
    BundleFiles(const BundleFiles&) = delete;
    BundleFiles& operator=(const BundleFiles&) = delete;

    const std::string& root() const { return root_; }

    // Paths are bundle-relative ("Restore/BuildManifest.plist"); "" is the root itself.
    // True when anything stands at the path, a link included (its last step is not followed).
    bool exists(std::string_view relative) const;
    // True for a folder that is not a link at its last step.
    bool isFolder(std::string_view relative) const;
    // The text of the symbolic link at the path, when it is one and it leads to a place
    // inside the bundle (or to nothing there yet); none otherwise.
    std::optional<std::string> linkTarget(std::string_view relative) const;
    // The bytes of the regular file at the path (links inside the bundle followed);
    // none for anything else, with the system's error number in `error`.
    std::optional<std::string> readFile(std::string_view relative, int* error = nullptr) const;
    // The modification time of what stands at the path (a link's own), or none.
    std::optional<struct timespec> modificationTime(std::string_view relative) const;
    // The names inside a folder, sorted; none for a missing folder or one outside.
    std::vector<std::string> entries(std::string_view relativeFolder) const;
    // Appends every path below the folder at any depth, each as the folder's relative
    // path joined with the path below it; links to folders are listed, never entered.
    void listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const;

    // The links that were found to lead outside, each warned about once.
    const std::set<std::string>& escapingLinks() const { return escapingLinks_; }

private:
    // A descriptor of the path resolved beneath the root, or -1 with errno set.
    int openBeneath(std::string_view relative, int flags, bool followLastLink) const;
    void noteEscape(std::string_view relative) const;
    std::string escapingStepOf(std::string_view relative) const;

    std::string root_;
    int rootFd_ = -1;
    // Each escaping link is warned about once; noting one does not change what is read.
    mutable std::set<std::string> escapingLinks_;
};

// The property list (XML or binary) at a bundle-relative path, or none when it is
// missing, unreadable or not a property list.
class Value;
Value propertyListInBundle(const BundleFiles& files, std::string_view relative);

}  // namespace whittle
