// The owned descriptor and the whole-buffer writes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "TestSupport.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle {
namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

int openDevNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(UniqueDescriptor, ClosesWhatItOwnsWhenItGoes) {
    int fd = openDevNull();
    ASSERT_GE(fd, 0);
    {
        UniqueDescriptor owner(fd);
        EXPECT_TRUE(owner.valid());
        EXPECT_EQ(owner.get(), fd);
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueDescriptor, ReleasedDescriptorStaysOpen) {
    int fd = openDevNull();
    {
        UniqueDescriptor owner(fd);
        EXPECT_EQ(owner.release(), fd);
        EXPECT_FALSE(owner.valid());
        EXPECT_EQ(owner.get(), -1);
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST(UniqueDescriptor, ResetClosesTheOldOneAndTakesTheNew) {
    int first = openDevNull();
    int second = openDevNull();
    UniqueDescriptor owner(first);
    owner.reset(second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_EQ(owner.get(), second);
    owner.reset();
    EXPECT_FALSE(isOpen(second));
    EXPECT_FALSE(owner.valid());
}

TEST(UniqueDescriptor, MovingHandsOverOwnership) {
    int first = openDevNull();
    int second = openDevNull();
    UniqueDescriptor a(first);
    UniqueDescriptor b(std::move(a));
    EXPECT_FALSE(a.valid());  // NOLINT(bugprone-use-after-move): a moved-from owner holds nothing
    EXPECT_EQ(b.get(), first);

    UniqueDescriptor c(second);
    c = std::move(b);
    EXPECT_FALSE(isOpen(second));
    EXPECT_EQ(c.get(), first);
    EXPECT_TRUE(isOpen(first));

    UniqueDescriptor& same = c;
    c = std::move(same);
    EXPECT_EQ(c.get(), first);
    EXPECT_TRUE(isOpen(first));
}

TEST(UniqueDescriptor, DefaultHoldsNothing) {
    UniqueDescriptor none;
    EXPECT_FALSE(none.valid());
    EXPECT_EQ(none.get(), -1);
}

TEST(WriteAll, WritesEveryByteToAFile) {
    test::TempDir dir;
    std::string bytes(3 << 20, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
    UniqueDescriptor fd(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_TRUE(fd.valid());
    EXPECT_TRUE(writeAll(fd.get(), bytes));
    EXPECT_TRUE(writeAll(fd.get(), ""));
    EXPECT_EQ(test::readFile(dir / "out"), bytes);
}

// The reason of a failure outlives the clean-up after it, even when the close fails too.
TEST(UniqueDescriptor, ClosingKeepsErrno) {
    UniqueDescriptor fd(openDevNull());
    ASSERT_TRUE(fd.valid());
    ::close(fd.get());  // behind its back, so that its own close fails with EBADF
    errno = ENOSPC;
    fd.reset();
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(fd.valid());
}

TEST(WriteAll, FailsWithTheSystemsErrorNumber) {
    UniqueDescriptor fd(openDevNull());  // open for reading only
    errno = 0;
    EXPECT_FALSE(writeAll(fd.get(), "x"));
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_FALSE(writeAllAt(fd.get(), "x", 0));
    EXPECT_EQ(errno, EBADF);
}

TEST(ReadAllAt, ReadsTheRangeAndStopsShortOnlyAtTheEnd) {
    test::TempDir dir;
    test::writeFile(dir / "in", "0123456789");
    UniqueDescriptor fd(::open((dir / "in").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    char buffer[16] = {};
    EXPECT_EQ(readAllAt(fd.get(), buffer, 4, 3), 4);
    EXPECT_EQ(std::string_view(buffer, 4), "3456");
    EXPECT_EQ(readAllAt(fd.get(), buffer, 8, 6), 4);
    EXPECT_EQ(std::string_view(buffer, 4), "6789");
    EXPECT_EQ(readAllAt(fd.get(), buffer, 8, 20), 0);
}

TEST(ReadAllAt, FailsWithTheSystemsErrorNumber) {
    test::TempDir dir;
    UniqueDescriptor fd(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    char buffer[4];
    errno = 0;
    EXPECT_EQ(readAllAt(fd.get(), buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

void ignoreSignal(int) {}

// A pipe is written far beyond its capacity while a timer keeps interrupting the
// writer: writes are cut short or interrupted, and writeAll must go on after each.
TEST(WriteAll, GoesOnAfterShortAndInterruptedWrites) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    UniqueDescriptor readEnd(ends[0]);
    UniqueDescriptor writeEnd(ends[1]);

    struct sigaction interrupting {}, previous {};
    interrupting.sa_handler = ignoreSignal;  // no SA_RESTART: writes return early
    sigemptyset(&interrupting.sa_mask);
    ASSERT_EQ(::sigaction(SIGALRM, &interrupting, &previous), 0);

    std::string bytes(8 << 20, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i % 251);
    std::string received;
    std::thread reader([&] {
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);  // the writer takes every alarm
        char buffer[4096];
        for (;;) {
            ssize_t got = ::read(readEnd.get(), buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            received.append(buffer, static_cast<std::size_t>(got));
        }
    });
    itimerval every100Microseconds{{0, 100}, {0, 100}};
    ::setitimer(ITIMER_REAL, &every100Microseconds, nullptr);
    bool written = writeAll(writeEnd.get(), bytes);
    itimerval stop{};
    ::setitimer(ITIMER_REAL, &stop, nullptr);
    writeEnd.reset();
    reader.join();
    ::sigaction(SIGALRM, &previous, nullptr);

    EXPECT_TRUE(written);
    EXPECT_EQ(received.size(), bytes.size());
    EXPECT_TRUE(received == bytes);
}

TEST(WriteAllAt, WritesAtTheOffsetAndLeavesTheFileOffsetAlone) {
    test::TempDir dir;
    test::writeFile(dir / "f", "0123456789");
    UniqueDescriptor fd(::open((dir / "f").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    EXPECT_TRUE(writeAllAt(fd.get(), "abc", 4));
    EXPECT_TRUE(writeAllAt(fd.get(), "XY", 12));
    EXPECT_EQ(::lseek(fd.get(), 0, SEEK_CUR), 0);
    EXPECT_EQ(test::readFile(dir / "f"), std::string("0123abc789\0\0XY", 14));
}

}  // namespace
}  // namespace whittle
