#include "driver/ArchiveSources.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace whittle {
namespace {

const std::string kErase(ProgressLine::kErase);

// A fetch progress drawing into a list of writes, on a clock the test moves by hand.
struct ProgressOnFakeTerminal {
    ProgressOnFakeTerminal()
        : progress([this](std::string_view text) { writes.emplace_back(text); }, 0, [this] { return now; }) {}

    // The texts drawn, without the erases in front of them.
    std::vector<std::string> drawn() const {
        std::vector<std::string> texts;
        for (const auto& text : writes)
            if (text.size() > kErase.size()) texts.push_back(text.substr(kErase.size()));
        return texts;
    }

    std::vector<std::string> writes;
    std::chrono::steady_clock::time_point now{std::chrono::seconds(1000)};
    FetchProgress progress;
};

TEST(FetchProgress, WhileTheBundleIsReadShowsTheBytesFetchedSoFar) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.fetched(131'072);
    terminal.now += 1s;
    terminal.progress.fetched(2'500'000);
    EXPECT_EQ(terminal.drawn(), (std::vector<std::string>{"fetching  0 B", "fetching  2.5 MB  2.5 MB/s"}));
}

TEST(FetchProgress, EachRequestsEndTakesTheLineOff) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.fetched(1000);
    terminal.progress.requestEnded();
    EXPECT_EQ(terminal.writes.back(), kErase);
    std::size_t writes = terminal.writes.size();
    terminal.progress.requestEnded();
    EXPECT_EQ(terminal.writes.size(), writes) << "nothing to take off";
}

TEST(FetchProgress, WhileKeptEntriesAreWrittenShowsTheirFilesAndBytes) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.fetched(200'000);
    terminal.progress.requestEnded();
    terminal.progress.beginKeptEntries(3, 3'000'000);
    terminal.now += 1s;
    terminal.progress.fetched(200'000 + 1'500'000);
    terminal.now += 1s;
    terminal.progress.keptPathWritten();
    auto drawn = terminal.drawn();
    ASSERT_EQ(drawn.size(), 4u);
    EXPECT_EQ(drawn[1], "fetching  0%  0/3 files  0.0/3.0 MB");
    EXPECT_EQ(drawn[2], "fetching  50%  0/3 files  1.5/3.0 MB  1.5 MB/s  1 s left");
    EXPECT_EQ(drawn[3], "fetching  50%  1/3 files  1.5/3.0 MB  750 KB/s  2 s left");
}

TEST(FetchProgress, AfterTheEndNothingIsDrawn) {
    ProgressOnFakeTerminal terminal;
    terminal.progress.beginKeptEntries(1, 1000);
    terminal.progress.end();
    EXPECT_EQ(terminal.writes.back(), kErase);
    std::size_t writes = terminal.writes.size();
    terminal.now += 1s;
    terminal.progress.fetched(5000);
    terminal.progress.keptPathWritten();
    terminal.progress.beginKeptEntries(1, 1000);
    EXPECT_EQ(terminal.writes.size(), writes);
}

}  // namespace
}  // namespace whittle
