#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/ProgressLine.hpp"

using namespace std::chrono_literals;
using whittle::describeProgress;
using whittle::ProgressFigures;
using whittle::ProgressLine;

namespace {

const std::string kErase(ProgressLine::kErase);

// A line drawing into a list of writes, on a clock the test moves by hand.
struct LineOnFakeTerminal {
    explicit LineOnFakeTerminal(std::size_t width = 0)
        : line([this](std::string_view text) { writes.emplace_back(text); }, width, [this] { return now; }) {}

    std::size_t draws() const {
        std::size_t count = 0;
        for (const auto& text : writes)
            if (text.size() > kErase.size()) ++count;
        return count;
    }

    std::vector<std::string> writes;
    std::chrono::steady_clock::time_point now{std::chrono::seconds(1000)};
    ProgressLine line;
};

ProgressFigures figures(std::uint64_t doneFiles, std::uint64_t totalFiles, std::uint64_t doneBytes,
                        std::uint64_t totalBytes, std::chrono::milliseconds elapsed) {
    return ProgressFigures{"copying", doneFiles, totalFiles, doneBytes, totalBytes, elapsed};
}

}  // namespace

TEST(DescribeProgress, FilesBytesRateAndTimeLeft) {
    EXPECT_EQ(describeProgress(figures(1234, 4470, 1'200'000'000, 2'500'000'000, 3000ms)),
              "copying  48%  1,234/4,470 files  1.2/2.5 GB  400 MB/s  4 s left");
}

TEST(DescribeProgress, UnitsFollowTheTotalAndTheRateItsOwn) {
    EXPECT_EQ(describeProgress(figures(3, 53, 12'000'000, 44'000'000, 2000ms)),
              "copying  27%  3/53 files  12/44 MB  6.0 MB/s  6 s left");
    EXPECT_EQ(describeProgress(figures(1, 2, 512, 900, 1000ms)), "copying  56%  1/2 files  512/900 B  512 B/s  1 s left");
}

TEST(DescribeProgress, LongWaitsInMinutesAndHours) {
    // 1 MB/s with 150 MB and then 7,500 MB left.
    EXPECT_EQ(describeProgress(figures(0, 9, 10'000'000, 160'000'000, 10'000ms)),
              "copying  6%  0/9 files  10/160 MB  1.0 MB/s  2 min 30 s left");
    EXPECT_EQ(describeProgress(figures(0, 9, 10'000'000, 7'510'000'000, 10'000ms)),
              "copying  0%  0/9 files  0.0/7.5 GB  1.0 MB/s  2 h 5 min left");
}

TEST(DescribeProgress, NoRateBeforeAnythingIsDoneAndNoTimeLeftAtTheEnd) {
    EXPECT_EQ(describeProgress(figures(0, 10, 0, 5000, 0ms)), "copying  0%  0/10 files  0.0/5.0 KB");
    EXPECT_EQ(describeProgress(figures(10, 10, 5000, 5000, 1000ms)), "copying  100%  10/10 files  5.0/5.0 KB  5.0 KB/s");
}

TEST(DescribeProgress, FilesAloneWhenThereAreNoBytes) {
    EXPECT_EQ(describeProgress(figures(1, 4, 0, 0, 500ms)), "copying  25%  1/4 files");
}

TEST(DescribeProgress, OpenEndedStepShowsTheBytesSoFarAndTheRate) {
    EXPECT_EQ(describeProgress(ProgressFigures{"fetching", 0, 0, 12'300'000, 0, 3000ms}), "fetching  12 MB  4.1 MB/s");
    EXPECT_EQ(describeProgress(ProgressFigures{"fetching", 0, 0, 1'240'000, 0, 500ms}), "fetching  1.2 MB  2.5 MB/s");
    EXPECT_EQ(describeProgress(ProgressFigures{"fetching", 0, 0, 0, 0, 0ms}), "fetching  0 B");
}

TEST(ProgressLine, DrawsInPlaceWhenTheStepBegins) {
    LineOnFakeTerminal terminal;
    terminal.line.begin("copying", 10, 1000);
    ASSERT_EQ(terminal.writes.size(), 1u);
    EXPECT_EQ(terminal.writes[0], kErase + "copying  0%  0/10 files  0.0/1.0 KB");
    EXPECT_TRUE(terminal.line.shown());
}

TEST(ProgressLine, RedrawsAtMostTenTimesASecond) {
    LineOnFakeTerminal terminal;
    terminal.line.begin("copying", 1000, 1'000'000);
    for (int millisecond = 1; millisecond <= 2000; ++millisecond) {
        terminal.now += 1ms;
        terminal.line.update(static_cast<std::uint64_t>(millisecond) / 2, static_cast<std::uint64_t>(millisecond) * 500);
    }
    // The first draw and one every 100 ms after it.
    EXPECT_EQ(terminal.draws(), 21u);
}

TEST(ProgressLine, UpdatesWithinTheIntervalWaitForTheNextRedraw) {
    LineOnFakeTerminal terminal;
    terminal.line.begin("copying", 10, 10'000);
    terminal.now += 40ms;
    terminal.line.update(5, 5000);
    EXPECT_EQ(terminal.draws(), 1u);
    terminal.now += 60ms;
    terminal.line.redraw();
    ASSERT_EQ(terminal.draws(), 2u);
    EXPECT_NE(terminal.writes.back().find("50%  5/10 files"), std::string::npos) << terminal.writes.back();
    EXPECT_NE(terminal.writes.back().find("50 KB/s  1 s left"), std::string::npos) << terminal.writes.back();
}

TEST(ProgressLine, SameTextIsNotDrawnAgain) {
    LineOnFakeTerminal terminal;
    terminal.line.begin("copying", 10, 0);
    terminal.now += 500ms;
    terminal.line.redraw();
    EXPECT_EQ(terminal.draws(), 1u);
}

TEST(ProgressLine, EraseTakesTheLineOffOnceAndRedrawPutsItBack) {
    LineOnFakeTerminal terminal;
    terminal.line.begin("copying", 10, 1000);
    terminal.line.erase();
    terminal.line.erase();
    ASSERT_EQ(terminal.writes.size(), 2u);
    EXPECT_EQ(terminal.writes[1], kErase);
    EXPECT_FALSE(terminal.line.shown());
    // Within the interval the line stays off; after it, it comes back.
    terminal.line.redraw();
    EXPECT_EQ(terminal.writes.size(), 2u);
    terminal.now += 100ms;
    terminal.line.redraw();
    ASSERT_EQ(terminal.writes.size(), 3u);
    EXPECT_EQ(terminal.writes[2].substr(0, kErase.size() + 7), kErase + "copying");
}

TEST(ProgressLine, EndErasesAndNothingIsDrawnAfterIt) {
    LineOnFakeTerminal terminal;
    terminal.line.begin("copying", 10, 1000);
    terminal.line.end();
    EXPECT_EQ(terminal.writes.back(), kErase);
    terminal.now += 1s;
    terminal.line.update(10, 1000);
    terminal.line.redraw();
    EXPECT_EQ(terminal.writes.size(), 2u);
    EXPECT_FALSE(terminal.line.underWay());
}

TEST(ProgressLine, NothingIsDrawnOrErasedWithoutAStep) {
    LineOnFakeTerminal terminal;
    terminal.line.update(1, 1);
    terminal.line.redraw();
    terminal.line.erase();
    terminal.line.end();
    EXPECT_TRUE(terminal.writes.empty());
}

TEST(ProgressLine, CutToTheTerminalsWidthSoThatItNeverWraps) {
    LineOnFakeTerminal terminal(20);
    terminal.line.begin("copying", 4470, 2'500'000'000);
    ASSERT_EQ(terminal.writes.size(), 1u);
    EXPECT_EQ(terminal.writes[0], kErase + "copying  0%  0/4,47");
}

TEST(ProgressLine, TakesTheChannelsRecords) {
    LineOnFakeTerminal terminal;
    terminal.line.takeRecord("total 4 4000 writing image");
    ASSERT_EQ(terminal.writes.size(), 1u);
    EXPECT_EQ(terminal.writes[0], kErase + "writing image  0%  0/4 files  0.0/4.0 KB");
    terminal.now += 1s;
    terminal.line.takeRecord("done 2 2000");
    ASSERT_EQ(terminal.writes.size(), 2u);
    EXPECT_EQ(terminal.writes[1], kErase + "writing image  50%  2/4 files  2.0/4.0 KB  2.0 KB/s  1 s left");
}

TEST(ProgressLine, IgnoresWhatIsNoRecord) {
    LineOnFakeTerminal terminal;
    for (const char* junk : {"", "total", "total x 5", "total 5", "totals 1 2", "done 1 2", "hello 1 2"})
        terminal.line.takeRecord(junk);
    EXPECT_TRUE(terminal.writes.empty());
    terminal.line.takeRecord("total 2 0");
    terminal.now += 1s;
    for (const char* junk : {"done", "done 1", "done -1 2", "done 1 2x", "donee 1 2"}) terminal.line.takeRecord(junk);
    EXPECT_EQ(terminal.draws(), 1u);
    EXPECT_EQ(terminal.writes[0], kErase + "working  0%  0/2 files");
}

TEST(TerminalColumns, AreTheTerminalsWidthAndNoneForAPipe) {
    int master = -1, terminal = -1;
    winsize size{};
    size.ws_col = 97;
    size.ws_row = 20;
    ASSERT_EQ(::openpty(&master, &terminal, nullptr, nullptr, &size), 0);
    EXPECT_EQ(whittle::terminalColumns(terminal), 97u);
    ::close(master);
    ::close(terminal);

    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    EXPECT_EQ(whittle::terminalColumns(pipeEnds[1]), 0u);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
}
