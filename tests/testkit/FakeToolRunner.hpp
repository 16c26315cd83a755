// A tool runner for tests that starts nothing: every call is recorded, and each tool
// answers what the test scripted for it, by path alone or by path and first argument
// (the disk image tool's "attach", "eject", "create", "imageinfo"). A scripted answer
// can carry an action, run when the call is made, that does what the real tool would
// have left behind (a folder, an archive) or what would have happened meanwhile (a stop
// signal). A tool nothing was scripted for succeeds without output.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "driver/ToolRunner.hpp"

namespace whittle::test {

class FakeToolRunner final : public ToolRunner {
public:
    using Action = std::function<void(const ToolCall&)>;

    // Every call of the tool at `path` answers `result`, after the action if one is given.
    FakeToolRunner& answer(const std::string& path, ToolResult result, Action action = {});
    // Only the calls whose first argument is `firstArgument`; these win over the above.
    FakeToolRunner& answer(const std::string& path, const std::string& firstArgument, ToolResult result,
                           Action action = {});

    ToolResult run(const ToolCall& call) override;

    // Every call, in the order made.
    const std::vector<ToolCall>& calls() const { return calls_; }
    // The calls of one tool, in the order made.
    std::vector<ToolCall> callsOf(const std::string& path) const;
    // Each call as its tool's file name followed by its arguments, one string each.
    std::vector<std::string> callLines() const;

private:
    struct Script {
        ToolResult result;
        Action action;
    };
    using Key = std::pair<std::string, std::optional<std::string>>;

    const Script* scriptFor(const ToolCall& call) const;

    std::map<Key, Script> scripts_;
    std::vector<ToolCall> calls_;
};

// A tool that ran and ended with `status`, having written these.
ToolResult toolResult(int status, std::string standardOutput = {}, std::string standardError = {});
// A tool that could not be started for the system error `error`.
ToolResult launchFailure(int error);

}  // namespace whittle::test
