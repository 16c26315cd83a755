// The one way the driver and the target writers run a tool. The run is handed a
// ToolRunner, so that a test can answer for the tools without starting any.
#pragma once

#include <string>
#include <vector>

#include "driver/ToolPaths.hpp"

namespace whittle {

struct ToolCall {
    std::string path;
    std::vector<std::string> arguments;
    // The folder the tool runs in; "" for whittle's own.
    std::string workingFolder;
    // Whether what the tool writes is echoed as it comes (the verbose mode).
    bool echoOutput = false;
};

struct ToolResult {
    // The exit status: 1 when the tool could not be started; a tool started after a
    // stop signal is stopped at once.
    int status = 0;
    std::string standardOutput;
    std::string standardError;
    // The system's error number when the tool could not be started, else 0.
    int launchError = 0;
};

class ToolRunner {
public:
    virtual ~ToolRunner() = default;
    // Runs the tool to its end and answers what it did.
    virtual ToolResult run(const ToolCall& call) = 0;
};

// Runs each tool as a child process, and, when standard error is a terminal, with a
// live progress line there for the tool's progress channel.
class ProcessToolRunner final : public ToolRunner {
public:
    ToolResult run(const ToolCall& call) override;
};

// The tools of one run: where they are, how they are run, and what the last one did,
// so that a step's failure message can be followed by the reason.
class PlatformTools {
public:
    PlatformTools(ToolRunner& runner, ToolPaths paths, bool verbose)
        : runner_(runner), paths_(std::move(paths)), verbose_(verbose) {}

    const ToolPaths& paths() const { return paths_; }

    // Runs the tool and answers its status; its standard output is copied out when asked.
    int run(const std::string& path, const std::vector<std::string>& arguments, std::string* standardOutput = nullptr,
            const std::string& workingFolder = "");

    // Logs, after a step's own failure message, why the tool run last failed: which
    // tool could not be started and the path looked at, or the last lines (up to five)
    // of what the tool wrote to its standard error; each as a "!!! NOTE: " line.
    void explainLastFailure() const;

private:
    ToolRunner& runner_;
    ToolPaths paths_;
    bool verbose_;
    ToolCall lastCall_;
    ToolResult lastResult_;
};

}  // namespace whittle
