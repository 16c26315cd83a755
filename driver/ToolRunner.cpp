#include "driver/ToolRunner.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>

#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"
#include "tools/ProgressLine.hpp"
#include "tools/TaskHelper.hpp"

namespace whittle {

namespace {

constexpr std::size_t kExplainedErrorLines = 5;

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

ToolResult ProcessToolRunner::run(const ToolCall& call) {
    ToolResult result;
    // Progress is drawn only for a person watching; it never reaches the log.
    std::optional<ProgressLine> progressLine;
    if (::isatty(STDERR_FILENO) == 1) progressLine.emplace(writeToStandardError, terminalColumns(STDERR_FILENO));
    result.status = runTool(call.path.c_str(), &call.arguments, call.workingFolder.empty() ? nullptr : call.workingFolder.c_str(),
                            &result.standardOutput, &result.standardError, call.echoOutput, &result.launchError,
                            progressLine ? &*progressLine : nullptr);
    return result;
}

int PlatformTools::run(const std::string& path, const std::vector<std::string>& arguments, std::string* standardOutput,
                       const std::string& workingFolder) {
    lastCall_ = ToolCall{path, arguments, workingFolder, verbose_};
    lastResult_ = runner_.run(lastCall_);
    // Only the standard error is looked at again, to explain a failure.
    if (standardOutput) *standardOutput = std::move(lastResult_.standardOutput);
    return lastResult_.status;
}

void PlatformTools::explainLastFailure() const {
    if (lastResult_.launchError != 0) {
        Log("!!! NOTE: cannot start \"%@\" at \"%@\" - %@.", lastPathComponent(lastCall_.path), lastCall_.path,
            std::string(std::strerror(lastResult_.launchError)));
        return;
    }
    auto lines = nonEmptyLinesOf(lastResult_.standardError);
    std::size_t first = lines.size() > kExplainedErrorLines ? lines.size() - kExplainedErrorLines : 0;
    for (std::size_t i = first; i < lines.size(); ++i) Log("!!! NOTE: %@", lines[i]);
}

}  // namespace whittle
