// A bundle that is a folder on disk. Every lookup resolves beneath the root folder's
// descriptor, so no link or ".." can take it outside; files are opened only when they
// are regular files, never a pipe or a device in a file's place.
#pragma once

#include "engine/BundleFiles.hpp"

namespace whittle {

class FolderBundleFiles final : public BundleFiles {
public:
    // The root is opened once, as named (the root itself may be a link).
    explicit FolderBundleFiles(std::string root);
    ~FolderBundleFiles() override;

    bool exists(std::string_view relative) const override;
    bool isFolder(std::string_view relative) const override;
    std::optional<std::string> linkTarget(std::string_view relative) const override;
    std::optional<std::string> readFile(std::string_view relative, int* error = nullptr) const override;
    std::optional<struct timespec> modificationTime(std::string_view relative) const override;
    std::vector<std::string> entries(std::string_view relativeFolder) const override;
    void listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const override;

private:
    // A descriptor of the path resolved beneath the root, or -1 with errno set.
    int openBeneath(std::string_view relative, int flags, bool followLastLink) const;
    void noteEscape(std::string_view relative) const;
    std::string escapingStepOf(std::string_view relative) const;

    int rootFd_ = -1;
};

}  // namespace whittle
