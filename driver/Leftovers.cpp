#include "driver/Leftovers.hpp"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <optional>
#include <vector>

#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"
#include "support/Paths.hpp"
#include "support/Trash.hpp"

namespace whittle {

namespace {

constexpr std::string_view kStagingPrefix = ".whittle-";
constexpr std::string_view kTemporaryFolderPrefix = "Whittle.";

std::optional<int> processIdAt(std::string_view digits) {
    int value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end == digits.data() || value <= 0) return std::nullopt;
    return value;
}

// The id of the run that made an item of ours, or none for any other name. A tool
// writing a staged target keeps its own partial file under the staged name with a
// point in front; such a file counts too.
std::optional<int> ownerOf(std::string_view name) {
    if (name.starts_with(".") && name.substr(1).starts_with(kStagingPrefix)) name.remove_prefix(1);
    if (name.starts_with(kStagingPrefix)) {
        std::string_view rest = name.substr(kStagingPrefix.size());
        auto dash = rest.find('-');
        if (dash == std::string_view::npos || dash + 1 == rest.size()) return std::nullopt;
        return processIdAt(rest.substr(0, dash));
    }
    if (name.starts_with(kTemporaryFolderPrefix)) {
        std::string_view digits = name.substr(kTemporaryFolderPrefix.size());
        if (digits.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
        return processIdAt(digits);
    }
    return std::nullopt;
}

// A run is alive when a process of that id exists and is a whittle.
bool isLiveRun(int processId) {
    if (processId == ::getpid()) return false;
    if (::kill(processId, 0) != 0 && errno != EPERM) return false;
    auto name = readWholeFile("/proc/" + std::to_string(processId) + "/comm");
    return !name || name->starts_with("whittle");
}

void clearLeftover(const std::string& path) {
    std::string error;
    if (moveToTrash(path, error)) {
        Log("!!! NOTE: moved \"%@\", left by an ended run, to Trash.", path);
    } else if (removeItem(path, error)) {
        Log("!!! NOTE: deleted \"%@\", left by an ended run.", path);
    } else {
        Log("!!! WARNING: cannot remove \"%@\", left by an ended run (%@).", path, error);
    }
}

}  // namespace

std::string stagingPathFor(const std::string& absoluteTarget, int processId) {
    return joinPath(parentFolderOf(absoluteTarget),
                             std::string(kStagingPrefix) + std::to_string(processId) + "-" + lastPathComponent(absoluteTarget));
}

std::string temporaryFolderFor(const std::string& absoluteTarget, int processId) {
    return joinPath(parentFolderOf(absoluteTarget), std::string(kTemporaryFolderPrefix) + std::to_string(processId));
}

void clearLeftoversOfEndedRuns(const std::string& folder) {
    for (const auto& name : namesInFolder(folder)) {
        auto owner = ownerOf(name);
        if (owner && !isLiveRun(*owner)) clearLeftover(joinPath(folder, name));
    }
}

}  // namespace whittle
