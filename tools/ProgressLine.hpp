// The live line that shows on a terminal how far a helper tool's long step has got:
//   copying  48%  1,234/4,470 files  1.2/2.5 GB  410 MB/s  3 s left
// It is drawn in place (carriage return, erase line, text) at most ten times a second,
// and erased when the step ends or before other output goes to the terminal. It is
// fed the records of the tool's progress channel (platform/helper/ProgressChannel.hpp).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace whittle {

struct ProgressFigures {
    std::string step;
    std::uint64_t doneFiles = 0;
    std::uint64_t totalFiles = 0;
    std::uint64_t doneBytes = 0;
    std::uint64_t totalBytes = 0;
    std::chrono::steady_clock::duration elapsed{};  // since the step started
};

// The line's text for these figures. The rate and the time left are the average
// since the start; they are left out until there is something to average. A step
// with neither files nor bytes to count toward shows the bytes done so far:
//   fetching  12 MB  4.1 MB/s
std::string describeProgress(const ProgressFigures& figures);

// Where a live line for a person at the terminal is drawn: standard error, written at once,
// and the number of columns of the terminal behind a descriptor (0 when it is none).
void writeToStandardError(std::string_view text);
std::size_t terminalColumns(int fd);

class ProgressLine {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using Sink = std::function<void(std::string_view)>;
    static constexpr std::chrono::milliseconds kRedrawInterval{100};
    static constexpr std::string_view kErase = "\r\x1b[K";

    // Writes through sink. width is the terminal's number of columns (0: unknown): a
    // longer text is cut, as a line that wraps cannot be erased in place. No clock:
    // the steady clock.
    explicit ProgressLine(Sink sink, std::size_t width = 0, Clock clock = {});

    // One record of the progress channel, without its line end; unknown ones are ignored.
    void takeRecord(std::string_view record);

    void begin(std::string step, std::uint64_t totalFiles, std::uint64_t totalBytes);
    void update(std::uint64_t doneFiles, std::uint64_t doneBytes);
    // Draws the line while a step is under way, unless it was drawn less than the
    // redraw interval ago or would show the very same text.
    void redraw();
    // Takes the line off the terminal, if it is on it.
    void erase();
    // The step is over: the line is erased and drawn no more.
    void end();

    bool underWay() const { return underWay_; }
    bool shown() const { return shown_; }

private:
    std::string text() const;

    Sink sink_;
    std::size_t width_;
    Clock clock_;
    ProgressFigures figures_;
    std::chrono::steady_clock::time_point started_{};
    std::chrono::steady_clock::time_point lastDrawn_{};
    std::string lastText_;
    bool underWay_ = false;
    bool drawnOnce_ = false;
    bool shown_ = false;
};

}  // namespace whittle
