// Starting, waiting for and killing a helper's child processes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "HelperProcesses.hpp"
#include "TestSupport.hpp"
#include "platform/helper/ChildProcesses.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle::helper {
namespace {

using test::TempDir;

TEST(ChildProcesses, AChildsExitStatusIsAnswered) {
    pid_t child = startChild({"/bin/sh", "-c", "exit 7"}, {});
    ASSERT_GT(child, 0);
    EXPECT_EQ(waitForChild(child), 7);
}

TEST(ChildProcesses, StreamsGoWhereTheyAreSent) {
    TempDir dir;
    UniqueDescriptor output(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    UniqueDescriptor errors(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ChildStreams streams;
    streams.output = output.get();
    streams.errors = errors.get();
    pid_t child = startChild({"/bin/sh", "-c", "cat; echo out; echo err >&2"}, streams);
    ASSERT_GT(child, 0);
    EXPECT_EQ(waitForChild(child), 0);
    EXPECT_EQ(test::readFile(dir / "out"), "out\n");  // standard input was /dev/null
    EXPECT_EQ(test::readFile(dir / "err"), "err\n");
}

TEST(ChildProcesses, AMissingProgramIsReportedWithItsErrorNumber) {
    errno = 0;
    EXPECT_EQ(startChild({"/nonexistent/program"}, {}), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(startChild({}, {}), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ChildProcesses, AChildLeadsItsOwnProcessGroup) {
    pid_t child = startChild({"/bin/sleep", "30"}, {});
    ASSERT_GT(child, 0);
    EXPECT_EQ(::getpgid(child), child);
    killChild(child);
    EXPECT_EQ(::kill(child, 0), -1);  // killed and reaped
}

std::string firstLineOf(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    return std::getline(file, line) && !file.eof() ? line : std::string();
}

TEST(ChildProcesses, KillingTheChildKillsWhatItStarted) {
    TempDir dir;
    std::string pidFile = dir / "grandchild";
    pid_t child = startChild({"/bin/sh", "-c", "sleep 30 & echo $! > " + pidFile + "; wait"}, {});
    ASSERT_GT(child, 0);
    ASSERT_TRUE(test::waitUntil([&] { return !firstLineOf(pidFile).empty(); }, std::chrono::seconds(5)));
    auto grandchild = static_cast<pid_t>(std::stol(firstLineOf(pidFile)));
    ASSERT_TRUE(test::isAlive(grandchild));
    killChild(child);
    EXPECT_TRUE(test::waitUntil([&] { return !test::isAlive(grandchild); }, std::chrono::seconds(5)));
}

TEST(ChildProcesses, AChildEndedByASignalAnswers128PlusTheSignal) {
    pid_t child = startChild({"/bin/sh", "-c", "kill -TERM $$"}, {});
    ASSERT_GT(child, 0);
    EXPECT_EQ(waitForChild(child), 128 + SIGTERM);
}

}  // namespace
}  // namespace whittle::helper
