#include "platform/helper/ProcessInfo.hpp"

#include "support/FileSystem.hpp"

#include <charconv>
#include <string>
#include <string_view>

namespace whittle::helper {

namespace {

// In /proc/PID/stat the state is the third field and the start time the 22nd. The
// second, the program name in parentheses, may itself hold spaces and parentheses,
// so counting starts after the last ')'.
constexpr int kStartTimeFieldAfterName = 22 - 2;

// None once the process is gone, even when it goes between the open and the read.
std::optional<std::string> statLineOf(pid_t pid) {
    auto line = readWholeFile("/proc/" + std::to_string(pid) + "/stat");
    if (!line || line->empty()) return std::nullopt;
    return line;
}

// The fields after the program name, numbered from 1 (the state).
std::optional<std::string_view> fieldAfterName(std::string_view line, int number) {
    auto nameEnd = line.rfind(')');
    if (nameEnd == std::string_view::npos) return std::nullopt;
    std::string_view rest = line.substr(nameEnd + 1);
    for (int field = 1;; ++field) {
        auto start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) return std::nullopt;
        rest.remove_prefix(start);
        auto end = rest.find_first_of(" \n");
        std::string_view value = rest.substr(0, end);
        if (field == number) return value;
        if (end == std::string_view::npos) return std::nullopt;
        rest.remove_prefix(end);
    }
}

}  // namespace

std::optional<ProcessIdentity> runningProcess(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    auto line = statLineOf(pid);
    if (!line) return std::nullopt;
    auto state = fieldAfterName(*line, 1);
    auto startTime = fieldAfterName(*line, kStartTimeFieldAfterName);
    if (!state || !startTime || *state == "Z" || *state == "X") return std::nullopt;
    ProcessIdentity identity{pid, 0};
    auto [end, error] = std::from_chars(startTime->data(), startTime->data() + startTime->size(), identity.startTime);
    if (error != std::errc() || end != startTime->data() + startTime->size()) return std::nullopt;
    return identity;
}

bool isRunning(const ProcessIdentity& identity) {
    auto now = runningProcess(identity.pid);
    return now && *now == identity;
}

}  // namespace whittle::helper
