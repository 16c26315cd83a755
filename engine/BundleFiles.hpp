// Everything the engines read from a bundle, whatever holds it (a folder, an archive,
// a fake in a test): whether a path exists and its kind, a link's target, a file's
// bytes, and folders listed one level and deep.
//
// Nothing is ever reached through a symbolic link (or "..") that leads outside the
// bundle's root: what lies behind it counts as absent, and the link is warned about
// once. Links that stay inside the bundle keep working.
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
    virtual ~BundleFiles() = default;

    // The bundle as the user named it, for messages and the cookie.
    const std::string& root() const { return root_; }

    // Paths are bundle-relative ("Restore/BuildManifest.plist"); "" is the root itself.
    // True when anything stands at the path, a link included (its last step is not followed).
    virtual bool exists(std::string_view relative) const = 0;
    // True for a folder that is not a link at its last step.
    virtual bool isFolder(std::string_view relative) const = 0;
    // The text of the symbolic link at the path, when it is one and it leads to a place
    // inside the bundle (or to nothing there yet); none otherwise.
    virtual std::optional<std::string> linkTarget(std::string_view relative) const = 0;
    // The bytes of the regular file at the path (links inside the bundle followed);
    // none for anything else, with the system's error number in `error`.
    virtual std::optional<std::string> readFile(std::string_view relative, int* error = nullptr) const = 0;
    // The modification time of what stands at the path (a link's own), or none.
    virtual std::optional<struct timespec> modificationTime(std::string_view relative) const = 0;
    // The names inside a folder, sorted; none for a missing folder or one outside.
    virtual std::vector<std::string> entries(std::string_view relativeFolder) const = 0;
    // Appends every path below the folder at any depth, each as the folder's relative
    // path joined with the path below it; links to folders are listed, never entered.
    virtual void listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const;

    // The links that were found to lead outside, each warned about once.
    const std::set<std::string>& escapingLinks() const { return escapingLinks_; }

protected:
    explicit BundleFiles(std::string root) : root_(std::move(root)) {}
    BundleFiles(const BundleFiles&) = delete;
    BundleFiles& operator=(const BundleFiles&) = delete;

    // Records that the link (or "..") at `step` leads outside; warns the first time.
    void noteEscapingLink(const std::string& step) const;

private:
    std::string root_;
    // Each escaping link is warned about once; noting one does not change what is read.
    mutable std::set<std::string> escapingLinks_;
};

// The property list (XML or binary) at a bundle-relative path, or none when it is
// missing, unreadable or not a property list.
class Value;
Value propertyListInBundle(const BundleFiles& files, std::string_view relative);

}  // namespace whittle
