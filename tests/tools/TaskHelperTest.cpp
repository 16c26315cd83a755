#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "TestSupport.hpp"
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
