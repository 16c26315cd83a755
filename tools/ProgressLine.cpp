#include "tools/ProgressLine.hpp"

#include <sys/ioctl.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <utility>

#include "platform/helper/ProgressChannel.hpp"

namespace whittle {

namespace {

struct ByteUnit {
    double size;
    const char* name;
};

constexpr ByteUnit kByteUnits[] = {{1, "B"}, {1e3, "KB"}, {1e6, "MB"}, {1e9, "GB"}, {1e12, "TB"}};

const ByteUnit& unitFor(std::uint64_t bytes) {
    const ByteUnit* chosen = &kByteUnits[0];
    for (const ByteUnit& unit : kByteUnits)
        if (static_cast<double>(bytes) >= unit.size) chosen = &unit;
    return *chosen;
}

// One decimal for small numbers of a unit larger than a byte: "1.2", "44", "410".
std::string inUnit(double bytes, const ByteUnit& unit, bool withDecimal) {
    char text[32];
    std::snprintf(text, sizeof text, withDecimal ? "%.1f" : "%.0f", bytes / unit.size);
    return text;
}

bool wantsDecimal(double bytes, const ByteUnit& unit) { return unit.size > 1 && bytes / unit.size < 9.95; }

std::string withThousands(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t position = digits.size(); position > 3; position -= 3) digits.insert(position - 3, ",");
    return digits;
}

std::string bytesDoneOfTotal(std::uint64_t done, std::uint64_t total) {
    const ByteUnit& unit = unitFor(total);
    bool decimal = wantsDecimal(static_cast<double>(total), unit);
    return inUnit(static_cast<double>(done), unit, decimal) + "/" + inUnit(static_cast<double>(total), unit, decimal) +
           " " + unit.name;
}

std::string bytesText(double bytes) {
    const ByteUnit& unit = unitFor(static_cast<std::uint64_t>(bytes));
    return inUnit(bytes, unit, wantsDecimal(bytes, unit)) + " " + unit.name;
}

std::string rateText(double bytesPerSecond) { return bytesText(bytesPerSecond) + "/s"; }

std::string timeLeftText(double seconds) {
    auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
    char text[48];
    if (whole < 60) {
        std::snprintf(text, sizeof text, "%llu s left", static_cast<unsigned long long>(whole));
    } else if (whole < 3600) {
        std::snprintf(text, sizeof text, "%llu min %llu s left", static_cast<unsigned long long>(whole / 60),
                      static_cast<unsigned long long>(whole % 60));
    } else {
        std::snprintf(text, sizeof text, "%llu h %llu min left", static_cast<unsigned long long>(whole / 3600),
                      static_cast<unsigned long long>(whole % 3600 / 60));
    }
    return text;
}

unsigned percentDone(const ProgressFigures& figures) {
    std::uint64_t done = figures.totalBytes > 0 ? figures.doneBytes : figures.doneFiles;
    std::uint64_t total = figures.totalBytes > 0 ? figures.totalBytes : figures.totalFiles;
    if (total == 0 || done >= total) return 100;
    return static_cast<unsigned>(static_cast<double>(done) * 100.0 / static_cast<double>(total));
}

// The numbers after a record's keyword: "12 3456" and what follows them.
bool readNumber(std::string_view& text, std::uint64_t& number) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end == text.data()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return text.empty() || text.front() == ' ';
}

bool takeKeyword(std::string_view& text, std::string_view keyword) {
    if (!text.starts_with(keyword) || (text.size() > keyword.size() && text[keyword.size()] != ' ')) return false;
    text.remove_prefix(keyword.size());
    return true;
}

}  // namespace

std::string describeProgress(const ProgressFigures& figures) {
    std::string text = figures.step + "  ";
    if (figures.totalFiles == 0 && figures.totalBytes == 0) {
        // A step with no total to count toward: what it has done so far.
        text += bytesText(static_cast<double>(figures.doneBytes));
    } else {
        text += std::to_string(percentDone(figures)) + "%  " + withThousands(figures.doneFiles) + "/" +
                withThousands(figures.totalFiles) + " files";
        if (figures.totalBytes > 0) text += "  " + bytesDoneOfTotal(figures.doneBytes, figures.totalBytes);
    }
    double seconds = std::chrono::duration<double>(figures.elapsed).count();
    if (seconds > 0 && figures.doneBytes > 0) {
        double rate = static_cast<double>(figures.doneBytes) / seconds;
        text += "  " + rateText(rate);
        if (figures.doneBytes < figures.totalBytes)
            text += "  " + timeLeftText(static_cast<double>(figures.totalBytes - figures.doneBytes) / rate);
    }
    return text;
}

ProgressLine::ProgressLine(Sink sink, std::size_t width, Clock clock)
    : sink_(std::move(sink)),
      width_(width),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })) {}

void ProgressLine::takeRecord(std::string_view record) {
    std::uint64_t files = 0, bytes = 0;
    if (takeKeyword(record, progress::kTotalRecord)) {
        if (!readNumber(record, files) || !readNumber(record, bytes)) return;
        while (!record.empty() && record.front() == ' ') record.remove_prefix(1);
        begin(record.empty() ? std::string("working") : std::string(record), files, bytes);
    } else if (takeKeyword(record, progress::kDoneRecord)) {
        if (readNumber(record, files) && readNumber(record, bytes)) update(files, bytes);
    }
}

void ProgressLine::begin(std::string step, std::uint64_t totalFiles, std::uint64_t totalBytes) {
    figures_ = ProgressFigures{std::move(step), 0, totalFiles, 0, totalBytes, {}};
    started_ = clock_();
    underWay_ = true;
    drawnOnce_ = false;
    redraw();
}

void ProgressLine::update(std::uint64_t doneFiles, std::uint64_t doneBytes) {
    if (!underWay_) return;
    figures_.doneFiles = doneFiles;
    figures_.doneBytes = doneBytes;
    redraw();
}

void ProgressLine::redraw() {
    if (!underWay_) return;
    auto now = clock_();
    if (drawnOnce_ && now - lastDrawn_ < kRedrawInterval) return;
    figures_.elapsed = now - started_;
    std::string line = text();
    if (shown_ && line == lastText_) return;
    sink_(std::string(kErase) + line);
    lastText_ = std::move(line);
    lastDrawn_ = now;
    drawnOnce_ = true;
    shown_ = true;
}

void ProgressLine::erase() {
    if (!shown_) return;
    sink_(kErase);
    shown_ = false;
}

void ProgressLine::end() {
    erase();
    underWay_ = false;
}

std::string ProgressLine::text() const {
    std::string line = describeProgress(figures_);
    if (width_ > 1 && line.size() > width_ - 1) line.resize(width_ - 1);
    return line;
}

void writeToStandardError(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

std::size_t terminalColumns(int fd) {
    winsize size{};
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace whittle
