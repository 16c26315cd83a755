#include "driver/ToolRuns.hpp"

#include <cstring>

#include "driver/CommandLine.hpp"
#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"
#include "tools/TaskHelper.hpp"

namespace whittle {

namespace {

constexpr std::size_t kExplainedErrorLines = 5;

struct ToolOutcome {
    std::string path;
    std::string standardError;
    int launchError = 0;
};

ToolOutcome lastOutcome;

std::vector<std::string> nonEmptyLinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

}  // namespace

int runPlatformTool(const std::string& path, const std::vector<std::string>& arguments, std::string* standardOutput,
                    const char* workingDirectory) {
    lastOutcome = ToolOutcome{path, {}, 0};
    return runTool(path.c_str(), &arguments, workingDirectory, standardOutput, &lastOutcome.standardError,
                   verboseMode == 1, &lastOutcome.launchError);
}

void explainLastToolFailure() {
    if (lastOutcome.launchError != 0) {
        Log("!!! NOTE: cannot start \"%@\" at \"%@\" - %@.", lastPathComponent(lastOutcome.path), lastOutcome.path,
            std::string(std::strerror(lastOutcome.launchError)));
        return;
    }
    auto lines = nonEmptyLinesOf(lastOutcome.standardError);
    std::size_t first = lines.size() > kExplainedErrorLines ? lines.size() - kExplainedErrorLines : 0;
    for (std::size_t i = first; i < lines.size(); ++i) Log("!!! NOTE: %@", lines[i]);
}

}  // namespace whittle
