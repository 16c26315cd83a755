// Telling one process from another, a reused process id included.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "platform/helper/ProcessInfo.hpp"

namespace whittle::helper {
namespace {

TEST(ProcessInfo, ThisProcessRunsAndKeepsItsIdentity) {
    auto self = runningProcess(::getpid());
    ASSERT_TRUE(self.has_value());
    EXPECT_EQ(self->pid, ::getpid());
    EXPECT_GT(self->startTime, 0u);
    EXPECT_EQ(runningProcess(::getpid()), self);
    EXPECT_TRUE(isRunning(*self));
}

TEST(ProcessInfo, AnotherStartTimeIsAnotherProcess) {
    auto self = runningProcess(::getpid());
    ASSERT_TRUE(self.has_value());
    ProcessIdentity earlier = *self;
    earlier.startTime -= 1;
    EXPECT_FALSE(isRunning(earlier));
}

TEST(ProcessInfo, AnEndedChildIsNotRunningBeforeOrAfterItIsReaped) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    auto identity = runningProcess(child);
    ASSERT_TRUE(identity.has_value());
    EXPECT_TRUE(isRunning(*identity));

    ::kill(child, SIGKILL);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);  // ended, not reaped
    EXPECT_FALSE(runningProcess(child).has_value());
    EXPECT_FALSE(isRunning(*identity));

    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(runningProcess(child).has_value());
}

TEST(ProcessInfo, NoProcessHasAnIdBeyondTheLargest) {
    EXPECT_FALSE(runningProcess(0x3FFFFFFF).has_value());
}

}  // namespace
}  // namespace whittle::helper
