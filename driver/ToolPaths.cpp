#include "driver/ToolPaths.hpp"

#include <filesystem>

namespace whittle {

namespace {

std::string platformToolsFolder() {
    std::string configured = WHITTLE_PLATFORM_TOOLS_DIR;
    if (!configured.empty()) return configured;
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : executable.parent_path().string();
}

}  // namespace

std::string bomToolPath() { return platformToolsFolder() + "/whittle-bom"; }
std::string copyToolPath() { return platformToolsFolder() + "/whittle-copy"; }
std::string diskImageToolPath() { return platformToolsFolder() + "/whittle-diskimage"; }
std::string zipToolPath() { return WHITTLE_ZIP_TOOL; }
std::string opensslToolPath() { return WHITTLE_OPENSSL_TOOL; }
std::string chmodToolPath() { return WHITTLE_CHMOD_TOOL; }
std::string volumesFolder() { return WHITTLE_VOLUMES_DIR; }

}  // namespace whittle
