// A bundle held in memory, for tests that want an engine or a run to read a bundle
// without any folder on disk. Folders are implied by the paths of what is added and
// can be added empty; links are resolved the way a folder's links are, and one that
// leads outside the bundle counts as absent and is warned about once.
#pragma once

#include <map>

#include "engine/BundleFiles.hpp"

namespace whittle::test {

class MemoryBundleFiles final : public BundleFiles {
public:
    explicit MemoryBundleFiles(std::string root = "/memory/bundle") : BundleFiles(std::move(root)) {}

    // Each answers *this, so a bundle can be written as one expression.
    MemoryBundleFiles& file(const std::string& relative, std::string bytes);
    MemoryBundleFiles& folder(const std::string& relative);
    MemoryBundleFiles& link(const std::string& relative, std::string target);
    // The time every item reports.
    MemoryBundleFiles& time(struct timespec when);

    bool exists(std::string_view relative) const override;
    bool isFolder(std::string_view relative) const override;
    std::optional<std::string> linkTarget(std::string_view relative) const override;
    std::optional<std::string> readFile(std::string_view relative, int* error = nullptr) const override;
    std::optional<struct timespec> modificationTime(std::string_view relative) const override;
    std::vector<std::string> entries(std::string_view relativeFolder) const override;

    // How many times readFile was asked for the path.
    int readsOf(const std::string& relative) const;

private:
    enum class Kind { File, Folder, Link };
    struct Item {
        Kind kind;
        std::string content;  // a file's bytes or a link's target
    };

    void addParentsOf(const std::string& relative);
    // The path with every link on the way followed (the last step too when asked), or
    // none when it leads outside or round in a loop.
    std::optional<std::string> resolved(std::string_view relative, bool followLast) const;
    const Item* itemAt(std::string_view relative, bool followLast) const;

    std::map<std::string, Item> items_;
    struct timespec time_ {1000000000, 0};
    mutable std::map<std::string, int> reads_;
};

}  // namespace whittle::test
