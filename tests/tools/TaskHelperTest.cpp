#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "TestSupport.hpp"
#include "tools/ProgressLine.hpp"
#include "tools/TaskHelper.hpp"

using whittle::runTool;
using whittle::test::TempDir;

namespace {

const std::string kProbe = TOOL_PROBE_BINARY;

struct ToolRun {
    int status = -1;
    std::string out, err;
};

ToolRun probe(std::vector<std::string> arguments, bool verbose = false, const char* folder = nullptr) {
    ToolRun run;
    run.status = runTool(kProbe.c_str(), &arguments, folder, &run.out, &run.err, verbose);
    return run;
}

// This process's standard output sent into a pipe while it lives, and every chunk that
// arrives there kept with the time it came.
class StandardOutputWatch {
public:
    using Clock = std::chrono::steady_clock;
    struct Chunk {
        std::string text;
        Clock::time_point arrived;
    };

    StandardOutputWatch() {
        std::fflush(stdout);
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        saved_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
        ::dup2(ends[1], STDOUT_FILENO);
        ::close(ends[1]);
        reader_ = std::thread([this, readEnd = ends[0]] {
            char buffer[4096];
            ssize_t got;
            while ((got = ::read(readEnd, buffer, sizeof buffer)) > 0) {
                std::lock_guard lock(mutex_);
                chunks_.push_back({std::string(buffer, static_cast<std::size_t>(got)), Clock::now()});
            }
            ::close(readEnd);
        });
    }

    // Puts standard output back and answers what came.
    std::vector<Chunk> stop() {
        std::fflush(stdout);
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
        reader_.join();
        return chunks_;
    }

private:
    int saved_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::vector<Chunk> chunks_;
};

std::string joined(const std::vector<StandardOutputWatch::Chunk>& chunks) {
    std::string text;
    for (const auto& chunk : chunks) text += chunk.text;
    return text;
}

}  // namespace

TEST(RunTool, SilentToolGivesEmptyTexts) {
    ToolRun run = probe({"silent"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

TEST(RunTool, OutputAfterALongPauseIsCaptured) {
    auto start = std::chrono::steady_clock::now();
    ToolRun run = probe({"late", "1200", "the last words"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
    EXPECT_EQ(run.out, "the last words");
    EXPECT_EQ(run.err, "the last words");
}

TEST(RunTool, VerboseEchoesTheCommandLineThenEachStream) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ToolRun run = probe({"exit", "0"}, true);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, ">>> " + kProbe + " exit 0 \nout\n");
    EXPECT_EQ(err, "err\n");
    EXPECT_EQ(run.out, "out\n");
    EXPECT_EQ(run.err, "err\n");
}

TEST(RunTool, QuietRunEchoesNothing) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    probe({"exit", "0"});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(RunTool, MissingProgramReturnsOneWithTheLaunchErrorAndNoNewline) {
    testing::internal::CaptureStderr();
    std::string out = "untouched", err = "untouched";
    std::vector<std::string> arguments{"x"};
    int status = runTool("/no/such/tool", &arguments, nullptr, &out, &err, false);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: threw an exception launching /no/such/tool");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST(RunTool, NoPathReturnsOneWithItsMessage) {
    testing::internal::CaptureStderr();
    std::string out = "untouched";
    EXPECT_EQ(runTool(nullptr, nullptr, nullptr, &out, nullptr, true), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: no task path specified.\n");
    EXPECT_EQ(out, "");
}

TEST(RunTool, NoArgumentArrayRunsWithoutArguments) {
    std::string out;
    EXPECT_EQ(runTool(kProbe.c_str(), nullptr, nullptr, &out, nullptr, false), 0);
    EXPECT_EQ(out, "no arguments\n");
}

TEST(RunTool, ExitStatusIsPassedOn) {
    EXPECT_EQ(probe({"exit", "17"}).status, 17);
    EXPECT_EQ(probe({"crash"}).status, 9);
}

TEST(RunTool, MuchOutputOnBothStreamsNeverDeadlocks) {
    ToolRun run = probe({"flood", "3000000"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.size(), 3000000u);
    EXPECT_EQ(run.err.size(), 3000000u);
    EXPECT_EQ(run.out.find_first_not_of('o'), std::string::npos);
    EXPECT_EQ(run.err.find_first_not_of('e'), std::string::npos);
}

TEST(RunTool, WorkingDirectoryAndNullStandardInput) {
    TempDir dir;
    ToolRun run = probe({"pwd"}, false, dir.path().c_str());
    EXPECT_EQ(run.out, dir.path() + "\n");
    EXPECT_EQ(probe({"stdin"}).out, "0\n");
}

TEST(TaskHelper, FieldsBeforeAndAfterARun) {
    whittle::TaskHelper helper({kProbe, {"exit", "4"}, std::nullopt});
    EXPECT_EQ(helper.result(), 0);
    EXPECT_FALSE(helper.threadDone());
    EXPECT_EQ(helper.run(), 4);
    EXPECT_TRUE(helper.threadDone());
    EXPECT_EQ(helper.result(), 4);
    EXPECT_EQ(helper.stdoutOutput(), "out\n");
    EXPECT_EQ(helper.stderrOutput(), "err\n");
}

TEST(RunTool, VerboseEchoShowsEachLineAsItArrives) {
    StandardOutputWatch watch;
    ToolRun run = probe({"lines", "3", "500"}, true);
    auto ended = StandardOutputWatch::Clock::now();
    auto chunks = watch.stop();
    EXPECT_EQ(run.out, "line 1\nline 2\nline 3\n");
    EXPECT_EQ(joined(chunks), ">>> " + kProbe + " lines 3 500 \n" + run.out);
    auto firstLine = std::find_if(chunks.begin(), chunks.end(),
                                  [](const auto& chunk) { return chunk.text.find("line 1") != std::string::npos; });
    ASSERT_NE(firstLine, chunks.end());
    // The tool prints its next two lines a second after the first.
    EXPECT_GE(ended - firstLine->arrived, std::chrono::milliseconds(800));
    EXPECT_EQ(firstLine->text.find("line 2"), std::string::npos);
}

TEST(RunTool, VerboseEchoNeverShowsPartOfALine) {
    StandardOutputWatch watch;
    ToolRun run = probe({"halves", "300"}, true);
    auto chunks = watch.stop();
    EXPECT_EQ(run.out, "first half, second half\n");
    EXPECT_EQ(joined(chunks), ">>> " + kProbe + " halves 300 \n" + run.out);
    for (const auto& chunk : chunks) {
        if (chunk.text.find("first half") != std::string::npos) {
            EXPECT_NE(chunk.text.find("second half\n"), std::string::npos);
        }
    }
}

TEST(RunTool, VerboseEchoGivesALastLineWithoutItsEndWhenTheToolEnds) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ToolRun run = probe({"late", "10", "no line end"}, true);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ">>> " + kProbe + " late 10 no line end \nno line end");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "no line end");
    EXPECT_EQ(run.out, "no line end");
}

TEST(RunTool, TheProgressChannelIsTheChildsAloneAndOnlyWhenAsked) {
    ::setenv("WHITTLE_PROGRESS_FD", "1", 1);  // never passed on from this process
    EXPECT_EQ(probe({"channel"}).out, "none\n");
    std::vector<std::string> writes;
    whittle::ProgressLine line([&](std::string_view text) { writes.emplace_back(text); });
    std::string out;
    std::vector<std::string> arguments{"channel"};
    ASSERT_EQ(runTool(kProbe.c_str(), &arguments, nullptr, &out, nullptr, false, nullptr, &line), 0);
    ::unsetenv("WHITTLE_PROGRESS_FD");
    int channel = std::atoi(out.c_str());
    EXPECT_GE(channel, 3) << out;
    EXPECT_EQ(out, std::to_string(channel) + " open\n");
    EXPECT_TRUE(writes.empty());
}

TEST(RunTool, ProgressIsDrawnErasedAroundEachEchoedLineAndAtTheEnd) {
    // The line and the echo share standard output here, as they share a terminal.
    whittle::ProgressLine line([](std::string_view text) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    });
    testing::internal::CaptureStdout();
    std::string out;
    std::vector<std::string> arguments{"report", "4", "250"};
    int status = runTool(kProbe.c_str(), &arguments, nullptr, &out, nullptr, true, nullptr, &line);
    std::string shown = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0);
    EXPECT_EQ(out, "line 1\nline 2\nline 3\nline 4\n");
    const std::string erase(whittle::ProgressLine::kErase);
    EXPECT_NE(shown.find(erase + "copying  25%  1/4 files  1.0/4.0 KB"), std::string::npos) << shown;
    EXPECT_NE(shown.find(erase + "copying  75%  3/4 files  3.0/4.0 KB"), std::string::npos) << shown;
    // No line is written behind the progress line: each comes after an erase (or the command line).
    for (int number = 1; number <= 4; ++number) {
        std::size_t at = shown.find("line " + std::to_string(number) + "\n");
        ASSERT_NE(at, std::string::npos) << shown;
        EXPECT_TRUE(shown.compare(at - erase.size(), erase.size(), erase) == 0 || shown[at - 1] == '\n') << shown;
    }
    // The last line drawn is taken away again.
    std::size_t lastDrawn = shown.rfind(erase + "copying");
    ASSERT_NE(lastDrawn, std::string::npos);
    EXPECT_NE(shown.find(erase, lastDrawn + erase.size()), std::string::npos) << shown;
    EXPECT_FALSE(line.shown());
    EXPECT_FALSE(line.underWay());
}

TEST(RunTool, WithoutAProgressLineTheChannelsRecordsGoNowhere) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ToolRun run = probe({"report", "2", "10"});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(run.out, "line 1\nline 2\n");
    EXPECT_EQ(run.err, "");
}

TEST(RunTool, LaunchErrorIsHandedBackWithTheStatus) {
    testing::internal::CaptureStderr();
    int launchError = 0;
    std::vector<std::string> arguments;
    EXPECT_EQ(runTool("/no/such/tool", &arguments, nullptr, nullptr, nullptr, false, &launchError), 1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(launchError, ENOENT);
    EXPECT_EQ(probe({"exit", "3"}).status, 3);
}

TEST(RunTool, StoppingToolsEndsTheRunningOneAndRefusesNewOnesUntilAllowed) {
    auto start = std::chrono::steady_clock::now();
    std::thread stopper([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        whittle::stopRunningTools();
    });
    ToolRun stopped = probe({"late", "20000", "never"});
    stopper.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(stopped.status, SIGTERM);
    EXPECT_EQ(stopped.out, "");
    // A tool started after the stop is stopped at once.
    EXPECT_EQ(probe({"late", "20000", "never"}).status, SIGTERM);
    whittle::allowTools();
    EXPECT_EQ(probe({"exit", "0"}).status, 0);
}

TEST(RunTool, ToolsDieWithTheProcessThatStartedThem) {
    // A stand-in for whittle: a process that starts a long tool and is then killed.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t runner = ::fork();
    if (runner == 0) {
        ::close(ready[0]);
        std::thread announce([fd = ready[1]] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            [[maybe_unused]] auto ignored = ::write(fd, "x", 1);
        });
        probe({"late", "20000", "never"});
        ::_exit(0);
    }
    ::close(ready[1]);
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::kill(runner, SIGKILL);
    ::waitpid(runner, nullptr, 0);
    bool toolGone = false;
    for (int wait = 0; wait < 100 && !toolGone; ++wait) {
        toolGone = whittle::test::runProgram({"/usr/bin/pgrep", "-f", kProbe + " late 20000"}).status != 0;
        if (!toolGone) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(toolGone);
}
