// Where the platform tools are, fixed once when a run starts. zip, openssl and chmod
// are at paths fixed when whittle is built. The project's own helpers (whittle-bom, whittle-copy, whittle-diskimage)
// are at the folder fixed when whittle is built, if one was; otherwise they are looked
// for relative to the resolved whittle executable: first in "../libexec/whittle" (an
// installed tree, which keeps working when moved as a whole), then beside it (a build
// tree).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace whittle {

struct ToolPaths {
    std::string bomTool;
    std::string copyTool;
    std::string diskImageTool;
    std::string zipTool;
    std::string opensslTool;
    std::string chmodTool;
    // The folder under which attached disk images appear.
    std::string volumesFolder;

    // The tools of this installation, as the build settings and the resolved
    // executable's place say.
    static ToolPaths ofThisInstallation();
};

// Every path at which the helper named `helperName` (e.g. "whittle-bom") is looked
// for, most preferred first. A helper's path is the first of these that is an
// executable file, or, when none is, the first one: so a caller whose helper cannot
// be run can name what was looked at.
std::vector<std::string> helperCandidatePaths(std::string_view helperName);

// The same, for a whittle executable in `executableFolder` (no build-time folder).
std::vector<std::string> helperCandidatePathsBeside(const std::string& executableFolder,
                                                    std::string_view helperName);

// Whether `path` names a file that this process may execute.
bool isExecutableFile(const std::string& path);

}  // namespace whittle
