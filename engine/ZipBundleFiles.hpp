// A bundle read straight from a zip archive, answering what a bundle folder answers:
// folders named by entries or implied by the paths below them, listed sorted by name;
// link entries as symbolic links, followed inside the bundle (at most 40 hops) and never
// when they lead outside it, which counts as absent and is warned about once with the
// same words as for a folder; modification times from the entries (an implied folder
// takes the newest time found below it).
//
// The bundle is named by the archive as the user named it. Its root is the archive's
// root, unless every entry sits below one top
// folder that itself holds "Restore": bundles are often zipped together with their
// folder, and that folder is then the root.
//
// Entries that cannot stand where their names put them (below a file or a link, or a
// file where other entries need a folder) are left out with a warning.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/BundleFiles.hpp"
#include "support/ZipArchive.hpp"

namespace whittle {

class ZipBundleFiles final : public BundleFiles {
public:
    enum class ItemKind { Folder, File, Link };
    // What stands at a bundle path: its kind and its entry (none for a folder that
    // only the paths below it imply, and for the root).
    struct Item {
        ItemKind kind;
        const ZipEntry* entry;
    };

    // The largest file content read whole by readFile.
    static constexpr std::uint64_t kMaxWholeRead = 1ull << 30;
    static constexpr int kMaxLinkHops = 40;

    explicit ZipBundleFiles(std::shared_ptr<const ZipArchive> archive);
    ~ZipBundleFiles() override;

    // Paths are bundle-relative ("Restore/BuildManifest.plist"); "" is the root itself.
    bool exists(std::string_view relative) const override;
    bool isFolder(std::string_view relative) const override;
    std::optional<std::string> linkTarget(std::string_view relative) const override;
    // The content of the file entry at the path, links inside the bundle followed;
    // none for anything else, with ENOENT, ELOOP or ENOTDIR as a folder's lookup would
    // give, 0 for something that is not a file, EFBIG above kMaxWholeRead, EIO for
    // an entry whose data is damaged (warned about).
    std::optional<std::string> readFile(std::string_view relative, int* error = nullptr) const override;
    std::optional<struct timespec> modificationTime(std::string_view relative) const override;
    std::vector<std::string> entries(std::string_view relativeFolder) const override;
    void listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const override;

    // What stands at the path, its last step not followed: for writing a kept path
    // out, by extracting its entry or copying the entry's stored bytes as they are.
    std::optional<Item> itemAt(std::string_view relative) const;
    const ZipArchive& archive() const { return *archive_; }
    // What the archive's entry names carry in front of bundle paths: "" or "Top/".
    const std::string& entryPrefix() const { return prefix_; }

private:
    struct Node;
    struct Resolution {
        const Node* node = nullptr;
        int error = 0;
        bool leftBundle = false;
    };

    void chooseRoot();
    void addEntry(const ZipEntry& entry, std::string_view relative);
    Resolution resolve(std::string_view relative, bool followLastLink) const;
    void noteEscape(const std::string& step) const;
    void warnLeftOut(const ZipEntry& entry, std::string_view reason) const;
    void reportReadFailure(const std::string& reason) const;

    std::shared_ptr<const ZipArchive> archive_;
    std::string prefix_;
    std::unique_ptr<Node> rootNode_;
    mutable bool sourceFailureSaid_ = false;
};

}  // namespace whittle
