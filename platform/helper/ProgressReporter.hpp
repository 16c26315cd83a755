// A helper's side of the progress channel (see ProgressChannel.hpp): the step's size
// once, then how much is done, at most once per interval. Writing never waits: a
// record that the channel cannot take at once is dropped, and a channel whose reader
// has gone is closed without a SIGPIPE.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace whittle::helper {

class ProgressReporter {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    static constexpr std::chrono::milliseconds kReportInterval{50};

    // Reports nothing.
    ProgressReporter() = default;
    // Reports on fd, which it owns from now on and makes non-blocking; no clock: the
    // steady clock.
    ProgressReporter(int fd, Clock clock, std::chrono::milliseconds interval = kReportInterval);
    ~ProgressReporter();
    ProgressReporter(ProgressReporter&& other) noexcept;
    ProgressReporter& operator=(ProgressReporter&& other) noexcept;
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    // The channel the caller gave this process, if any. The variable is taken out of
    // the environment and the descriptor closed on exec, so that this tool's own
    // children neither see nor inherit it. Anything but an open pipe or socket is
    // not a channel: nothing is ever written to a file the variable happens to name.
    static ProgressReporter fromEnvironment(Clock clock = {});

    bool active() const { return fd_ >= 0; }

    // The step starts, with this much to do; said at once.
    void begin(std::string_view step, std::uint64_t totalFiles, std::uint64_t totalBytes);
    // This much more is done; said when the interval has passed since the last record.
    void advance(std::uint64_t files, std::uint64_t bytes);
    // The step is over: what was done in all, said at once.
    void end();

private:
    void sendDone();
    void send(const std::string& record);
    void close();

    int fd_ = -1;
    Clock clock_;
    std::chrono::milliseconds interval_{kReportInterval};
    std::chrono::steady_clock::time_point lastReport_{};
    std::uint64_t doneFiles_ = 0;
    std::uint64_t doneBytes_ = 0;
};

}  // namespace whittle::helper
