// The driver's pieces for runs that go wrong: explaining a tool's failure, clearing what
// ended runs left beside a target, and the text helpers they use.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "TestSupport.hpp"
#include "driver/Leftovers.hpp"
#include "driver/ToolRunner.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

namespace whittle {
namespace {

using test::loggedDuring;
using test::TempDir;
using test::writeFile;
namespace fs = std::filesystem;

// The tools of a run whose tools are child processes.
struct ChildProcessTools {
    ProcessToolRunner runner;
    PlatformTools tools{runner, ToolPaths{}, false};
};

TEST(ToolRuns, ToolThatCannotBeStartedIsNamedWithThePathLookedAt) {
    ChildProcessTools child;
    testing::internal::CaptureStderr();
    EXPECT_EQ(child.tools.run("/nowhere/whittle-bom", {"-s"}), 1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(loggedDuring([&] { child.tools.explainLastFailure(); }),
              "!!! NOTE: cannot start \"whittle-bom\" at \"/nowhere/whittle-bom\" - No such file or directory.\n");
}

TEST(ToolRuns, FailedToolIsExplainedByTheLastFiveLinesOfItsErrors) {
    std::string script = "for i in 1 2 3 4 5 6 7; do echo \"line $i\" >&2; done; echo >&2; exit 3";
    ChildProcessTools child;
    EXPECT_EQ(child.tools.run("/bin/sh", {"-c", script}), 3);
    EXPECT_EQ(loggedDuring([&] { child.tools.explainLastFailure(); }),
              "!!! NOTE: line 3\n!!! NOTE: line 4\n!!! NOTE: line 5\n!!! NOTE: line 6\n!!! NOTE: line 7\n");
}

TEST(ToolRuns, SilentFailureAddsNothing) {
    ChildProcessTools child;
    EXPECT_EQ(child.tools.run("/bin/false", {}), 1);
    EXPECT_EQ(loggedDuring([&] { child.tools.explainLastFailure(); }), "");
}

TEST(Leftovers, NamesCarryTheRunsProcessId) {
    EXPECT_EQ(stagingPathFor("/a/b/out.zip", 42), "/a/b/.whittle-42-out.zip");
    EXPECT_EQ(temporaryFolderFor("/a/b/out.zip", 42), "/a/b/Whittle.42");
    EXPECT_EQ(stagingPathFor("/out", 7), "/.whittle-7-out");
}

TEST(Leftovers, ItemsOfEndedRunsGoToTheTrashAndEverythingElseStays) {
    TempDir dir;
    std::string trash = dir / "data";
    ::setenv("XDG_DATA_HOME", trash.c_str(), 1);
    fs::create_directories(dir / "work");
    // No process has this id: the largest pid the system hands out is far below it.
    const std::string ended = "2147483600";
    fs::create_directories(dir / ("work/Whittle." + ended));
    writeFile(dir / ("work/.whittle-" + ended + "-out.zip"), "partial");
    writeFile(dir / ("work/..whittle-" + ended + "-out.zip.AbCdEf"), "partial of a tool");
    // Process 1 lives but is no whittle: its id was only reused.
    fs::create_directories(dir / "work/.whittle-1-out");
    // A live run: a process named whittle.
    fs::copy_file("/bin/sleep", dir / "whittle");
    pid_t live = ::fork();
    if (live == 0) {
        ::execl((dir / "whittle").c_str(), "whittle", "30", nullptr);
        ::_exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::string running = std::to_string(live);
    fs::create_directories(dir / ("work/Whittle." + running));
    writeFile(dir / ("work/.whittle-" + running + "-out.dmg"), "being written");
    writeFile(dir / "work/Whittle.notanumber", "the user's");
    writeFile(dir / "work/.whittle-config", "the user's");
    writeFile(dir / "work/out.bom", "the user's");

    std::string said = loggedDuring([&] { clearLeftoversOfEndedRuns(dir / "work"); });
    ::kill(live, SIGKILL);
    ::waitpid(live, nullptr, 0);
    std::set<std::string> left;
    for (const auto& entry : fs::directory_iterator(dir / "work")) left.insert(entry.path().filename());
    EXPECT_EQ(left, (std::set<std::string>{"Whittle." + running, ".whittle-" + running + "-out.dmg", "Whittle.notanumber",
                                           ".whittle-config", "out.bom"}));
    EXPECT_TRUE(test::pathExists(trash + "/Trash/files/Whittle." + ended));
    EXPECT_NE(said.find("!!! NOTE: moved \"" + dir / ("work/Whittle." + ended) + "\", left by an ended run, to Trash.\n"),
              std::string::npos)
        << said;
    ::unsetenv("XDG_DATA_HOME");
}

TEST(TextHelpers, Utf8IsCheckedAndRepaired) {
    EXPECT_TRUE(isValidUtf8("plain \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_FALSE(isValidUtf8("\xff"));
    EXPECT_FALSE(isValidUtf8("\xc0\xaf"));          // overlong
    EXPECT_FALSE(isValidUtf8("\xed\xa0\x80"));      // surrogate
    EXPECT_FALSE(isValidUtf8("\xf4\x90\x80\x80"));  // beyond U+10FFFF
    EXPECT_FALSE(isValidUtf8("\xe2\x82"));          // cut short
    EXPECT_EQ(withValidUtf8("a\xff" "b\xe2\x82"), "a\xef\xbf\xbd" "b\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(withValidUtf8("caf\xc3\xa9"), "caf\xc3\xa9");
}

TEST(TextHelpers, ReplacingFirstChangesOneOccurrence) {
    EXPECT_EQ(replacingFirst("MD5(/a/.w-1-x)= 1 /a/.w-1-x", "/a/.w-1-x", "x"), "MD5(x)= 1 /a/.w-1-x");
    EXPECT_EQ(replacingFirst("abc", "z", "y"), "abc");
    EXPECT_EQ(replacingFirst("abc", "", "y"), "abc");
}

}  // namespace
}  // namespace whittle
