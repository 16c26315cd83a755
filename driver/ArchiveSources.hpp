// Bundles read straight from a zip archive, on this machine or on a web server: which
// sources are archives, opening them, and writing their kept entries out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "engine/ZipBundleFiles.hpp"
#include "support/Value.hpp"
#include "tools/ProgressLine.hpp"

namespace whittle {

// An http:// or https:// address.
bool isRemoteSource(const std::string& source);
// A remote address, or a regular file that starts like a zip archive, whatever its
// name (a ".dmg" is always a disk image).
bool isArchiveSource(const std::string& source);

// What the engines see of a source that cannot be read at all: nothing.
class UnreadableBundleFiles final : public BundleFiles {
public:
    explicit UnreadableBundleFiles(std::string root) : BundleFiles(std::move(root)) {}
    bool exists(std::string_view) const override { return false; }
    bool isFolder(std::string_view) const override { return false; }
    std::optional<std::string> linkTarget(std::string_view) const override { return std::nullopt; }
    std::optional<std::string> readFile(std::string_view, int* error = nullptr) const override;
    std::optional<struct timespec> modificationTime(std::string_view) const override { return std::nullopt; }
    std::vector<std::string> entries(std::string_view) const override { return {}; }
};

// The bundle in the archive. None, with the reason logged as an error naming the
// source, when the archive cannot be read.
std::shared_ptr<ZipBundleFiles> openArchiveBundle(const std::string& source);

class HttpByteSource;

// The live line that shows on a terminal how much of a remote archive has been
// fetched: the bytes so far while the bundle is read, then, while the kept entries
// are written, the files written and the bytes fetched of those they need. It is
// erased after each request, so that no message ever lands on it, and never logged.
class FetchProgress {
public:
    static constexpr std::string_view kStep = "fetching";

    explicit FetchProgress(ProgressLine::Sink sink, std::size_t width = 0, ProgressLine::Clock clock = {});
    ~FetchProgress();  // stops following the source, and takes the line off
    FetchProgress(const FetchProgress&) = delete;
    FetchProgress& operator=(const FetchProgress&) = delete;

    // Follows the source's transfers while this object lives.
    void follow(HttpByteSource& source);
    // What the source tells: its bytes fetched so far, and the end of each request.
    void fetched(std::uint64_t fetchedSoFar);
    void requestEnded();
    // The kept entries are about to be written: this many paths, whose entries take
    // this many bytes of the archive.
    void beginKeptEntries(std::uint64_t paths, std::uint64_t bytes);
    void keptPathWritten();
    // The fetching is over: the line is taken off and drawn no more.
    void end();

private:
    ProgressLine line_;
    HttpByteSource* source_ = nullptr;
    std::uint64_t fetched_ = 0;
    std::uint64_t fetchedBeforeStep_ = 0;
    std::uint64_t pathsWritten_ = 0;
    bool ended_ = false;
};

// A line for a remote archive when standard error is a terminal, following its
// source; none otherwise.
std::unique_ptr<FetchProgress> fetchProgressOnTerminal(const ZipBundleFiles& files);

// Writes the kept paths of the archive's bundle below the destination folder: files
// streamed out of their entries with their modes and times, links as links, folders
// made as needed. Answers 0, or 1 after logging what failed. The progress, when
// given, shows the writing.
int extractKeptPaths(const ZipBundleFiles& files, const Value& keptPaths, const std::string& destination,
                     FetchProgress* progress = nullptr);

// Writes a zip archive of the kept paths at `zipPath`, each entry's stored bytes copied
// as they are. Answers 0, or 1 after logging what failed.
int copyKeptEntries(const ZipBundleFiles& files, const Value& keptPaths, const std::string& zipPath,
                    FetchProgress* progress = nullptr);

// For a remote archive, says how many bytes of it were fetched (a note).
void noteBytesFetched(const ZipBundleFiles& files);

}  // namespace whittle
