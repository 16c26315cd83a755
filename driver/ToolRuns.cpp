#include "driver/ToolRuns.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>

#include "driver/CommandLine.hpp"
#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"
#include "tools/ProgressLine.hpp"
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

void writeToStandardError(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

std::size_t terminalColumns(int fd) {
    winsize size{};
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace

int runPlatformTool(const std::string& path, const std::vector<std::string>& arguments, std::string* standardOutput,
                    const char* workingDirectory) {
    lastOutcome = ToolOutcome{path, {}, 0};
    // Progress is drawn only for a person watching; it never reaches the log.
    std::optional<ProgressLine> progressLine;
    if (::isatty(STDERR_FILENO) == 1) progressLine.emplace(writeToStandardError, terminalColumns(STDERR_FILENO));
    return runTool(path.c_str(), &arguments, workingDirectory, standardOutput, &lastOutcome.standardError,
                   verboseMode == 1, &lastOutcome.launchError, progressLine ? &*progressLine : nullptr);
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
