#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "TestSupport.hpp"
#include "support/FileSystem.hpp"

using whittle::test::TempDir;

TEST(FileSystem, ReadWholeFile) {
    TempDir dir;
    std::string content(300000, 'q');
    content[5] = '\0';
    whittle::test::writeFile(dir / "f", content);
    auto read = whittle::readWholeFile(dir / "f");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, content);
    EXPECT_FALSE(whittle::readWholeFile(dir / "missing").has_value());
    EXPECT_FALSE(whittle::readWholeFile(dir.path()).has_value());
}

// A process's status file read after the process has gone fails to read: that answers
// none, as an unreadable file does, and throws nothing.
TEST(FileSystem, ReadWholeDescriptorOfAProcessThatEndedAfterTheOpenAnswersNone) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    int fd = ::open(("/proc/" + std::to_string(child) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(whittle::readWholeDescriptor(fd).has_value());
    EXPECT_EQ(errno, ESRCH);
    ::close(fd);
}

TEST(FileSystem, AtomicWriteReplacesAndLeavesNoTemporary) {
    TempDir dir;
    std::string error;
    ASSERT_TRUE(whittle::writeFileAtomically(dir / "log", "first", error));
    ASSERT_TRUE(whittle::writeFileAtomically(dir / "log", "second", error));
    EXPECT_EQ(whittle::test::readFile(dir / "log"), "second");
    int entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1);
}

TEST(FileSystem, AtomicWriteIntoMissingFolderFailsWithDescription) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(whittle::writeFileAtomically(dir / "no/such/folder/file", "x", error));
    EXPECT_FALSE(error.empty());
}

