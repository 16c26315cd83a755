#include "driver/ToolPaths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace whittle {

namespace {

// The helpers' folder of an installed tree, relative to the folder of whittle itself.
constexpr std::string_view kInstalledHelpersFolder = "../libexec/whittle";

std::string resolvedExecutableFolder() {
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : executable.parent_path().string();
}

std::string helperPath(std::string_view helperName) {
    std::vector<std::string> candidates = helperCandidatePaths(helperName);
    for (const auto& candidate : candidates) {
        if (isExecutableFile(candidate)) return candidate;
    }
    return candidates.front();
}

}  // namespace

std::vector<std::string> helperCandidatePathsBeside(const std::string& executableFolder,
                                                    std::string_view helperName) {
    std::string name(helperName);
    std::string installed =
        (std::filesystem::path(executableFolder) / kInstalledHelpersFolder / name).lexically_normal().string();
    return {installed, executableFolder + "/" + name};
}

std::vector<std::string> helperCandidatePaths(std::string_view helperName) {
    std::string configured = WHITTLE_PLATFORM_TOOLS_DIR;
    if (!configured.empty()) return {configured + "/" + std::string(helperName)};
    return helperCandidatePathsBeside(resolvedExecutableFolder(), helperName);
}

bool isExecutableFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

ToolPaths ToolPaths::ofThisInstallation() {
    return ToolPaths{
        .bomTool = helperPath("whittle-bom"),
        .copyTool = helperPath("whittle-copy"),
        .diskImageTool = helperPath("whittle-diskimage"),
        .zipTool = WHITTLE_ZIP_TOOL,
        .opensslTool = WHITTLE_OPENSSL_TOOL,
        .chmodTool = WHITTLE_CHMOD_TOOL,
        .volumesFolder = WHITTLE_VOLUMES_DIR,
    };
}

}  // namespace whittle
