#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "TestSupport.hpp"
#include "platform/helper/ProgressReporter.hpp"

using namespace std::chrono_literals;
using whittle::helper::ProgressReporter;

namespace {

constexpr const char* kVariable = "WHITTLE_PROGRESS_FD";

// A pipe whose reading end the test keeps; the writing end goes to a reporter.
struct Channel {
    Channel() {
        if (::pipe2(ends, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe failed";
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
    ~Channel() {
        if (ends[0] >= 0) ::close(ends[0]);
    }
    // Everything written so far.
    std::string drain() {
        std::string text;
        bool open = true;
        for (std::size_t before = ~std::size_t{0}; open && before != text.size();) {
            before = text.size();
            whittle::test::appendAvailable(ends[0], text, open);
        }
        return text;
    }
    int ends[2] = {-1, -1};
};

struct FakeClock {
    std::chrono::steady_clock::time_point now{std::chrono::seconds(1000)};
    ProgressReporter::Clock clock() {
        return [this] { return now; };
    }
};

bool sigpipePending() {
    sigset_t pending;
    ::sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

TEST(ProgressReporter, WithoutTheVariableReportsNothing) {
    ::unsetenv(kVariable);
    ProgressReporter reporter = ProgressReporter::fromEnvironment();
    EXPECT_FALSE(reporter.active());
    reporter.begin("copying", 1, 1);
    reporter.advance(1, 1);
    reporter.end();
}

TEST(ProgressReporter, TakesThePipeTheVariableNamesAndHidesItFromChildren) {
    Channel channel;
    ::setenv(kVariable, std::to_string(channel.ends[1]).c_str(), 1);
    ::fcntl(channel.ends[1], F_SETFD, 0);
    ProgressReporter reporter = ProgressReporter::fromEnvironment();
    EXPECT_TRUE(reporter.active());
    EXPECT_EQ(std::getenv(kVariable), nullptr);
    EXPECT_EQ(::fcntl(channel.ends[1], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    reporter.begin("copying", 2, 300);
    EXPECT_EQ(channel.drain(), "total 2 300 copying\n");
}

TEST(ProgressReporter, NeverWritesToWhatIsNoChannel) {
    whittle::test::TempDir dir;
    std::string path = dir / "a file";
    int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    for (std::string value : {std::to_string(file), std::string("2"), std::string("1x"), std::string("")}) {
        ::setenv(kVariable, value.c_str(), 1);
        ProgressReporter reporter = ProgressReporter::fromEnvironment();
        EXPECT_FALSE(reporter.active()) << value;
        reporter.begin("copying", 1, 1);
        reporter.end();
        EXPECT_EQ(std::getenv(kVariable), nullptr);
    }
    ::close(file);
    EXPECT_EQ(whittle::test::readFile(path), "");
}

TEST(ProgressReporter, DoneIsSaidAtMostOncePerInterval) {
    Channel channel;
    FakeClock time;
    ProgressReporter reporter(channel.ends[1], time.clock(), 50ms);
    reporter.begin("copying", 10, 1000);
    EXPECT_EQ(channel.drain(), "total 10 1000 copying\n");
    reporter.advance(1, 100);
    time.now += 49ms;
    reporter.advance(1, 100);
    EXPECT_EQ(channel.drain(), "");
    time.now += 1ms;
    reporter.advance(1, 100);
    EXPECT_EQ(channel.drain(), "done 3 300\n");
    time.now += 10ms;
    reporter.advance(2, 200);
    EXPECT_EQ(channel.drain(), "");
    reporter.end();
    EXPECT_EQ(channel.drain(), "done 5 500\n");
}

TEST(ProgressReporter, AFullChannelDropsRecordsInsteadOfWaiting) {
    Channel channel;
    // The smallest pipe, filled up.
    ::fcntl(channel.ends[1], F_SETPIPE_SZ, 4096);
    ::fcntl(channel.ends[1], F_SETFL, O_NONBLOCK);
    std::string filler(4096, 'x');
    while (::write(channel.ends[1], filler.data(), filler.size()) > 0) {
    }
    while (::write(channel.ends[1], "x", 1) > 0) {
    }
    ::fcntl(channel.ends[1], F_SETFL, 0);  // the reporter must make it non-blocking itself
    FakeClock time;
    ProgressReporter reporter(channel.ends[1], time.clock(), 50ms);
    ::alarm(20);  // a blocked write would end the test here
    reporter.begin("copying", 1000, 1000);
    for (int file = 0; file < 1000; ++file) {
        time.now += 1s;
        reporter.advance(1, 1);
    }
    reporter.end();
    ::alarm(0);
    EXPECT_TRUE(reporter.active());
    // Once there is room again, records come through, whole.
    std::string filled = channel.drain();
    EXPECT_EQ(filled.find_first_not_of('x'), std::string::npos);
    time.now += 1s;
    reporter.advance(0, 0);
    EXPECT_EQ(channel.drain(), "done 1000 1000\n");
}

TEST(ProgressReporter, AReaderThatHasGoneEndsTheReportsNotTheTool) {
    Channel channel;
    FakeClock time;
    ProgressReporter reporter(channel.ends[1], time.clock(), 50ms);
    ::close(channel.ends[0]);
    channel.ends[0] = -1;
    reporter.begin("copying", 1, 1);
    EXPECT_FALSE(reporter.active());
    EXPECT_FALSE(sigpipePending());
}
