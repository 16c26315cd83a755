#include "FakeToolRunner.hpp"

#include "support/FileSystem.hpp"

namespace whittle::test {

FakeToolRunner& FakeToolRunner::answer(const std::string& path, ToolResult result, Action action) {
    scripts_[Key{path, std::nullopt}] = Script{std::move(result), std::move(action)};
    return *this;
}

FakeToolRunner& FakeToolRunner::answer(const std::string& path, const std::string& firstArgument, ToolResult result,
                                       Action action) {
    scripts_[Key{path, firstArgument}] = Script{std::move(result), std::move(action)};
    return *this;
}

const FakeToolRunner::Script* FakeToolRunner::scriptFor(const ToolCall& call) const {
    if (!call.arguments.empty()) {
        auto byArgument = scripts_.find(Key{call.path, call.arguments.front()});
        if (byArgument != scripts_.end()) return &byArgument->second;
    }
    auto byPath = scripts_.find(Key{call.path, std::nullopt});
    return byPath == scripts_.end() ? nullptr : &byPath->second;
}

ToolResult FakeToolRunner::run(const ToolCall& call) {
    calls_.push_back(call);
    const Script* script = scriptFor(call);
    if (!script) return ToolResult{};
    if (script->action) script->action(call);
    return script->result;
}

std::vector<ToolCall> FakeToolRunner::callsOf(const std::string& path) const {
    std::vector<ToolCall> found;
    for (const auto& call : calls_) {
        if (call.path == path) found.push_back(call);
    }
    return found;
}

std::vector<std::string> FakeToolRunner::callLines() const {
    std::vector<std::string> lines;
    for (const auto& call : calls_) {
        std::string line = lastPathComponent(call.path);
        for (const auto& argument : call.arguments) line += " " + argument;
        lines.push_back(std::move(line));
    }
    return lines;
}

ToolResult toolResult(int status, std::string standardOutput, std::string standardError) {
    return ToolResult{status, std::move(standardOutput), std::move(standardError), 0};
}

ToolResult launchFailure(int error) { return ToolResult{1, {}, {}, error}; }

}  // namespace whittle::test
