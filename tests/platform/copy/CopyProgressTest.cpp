// whittle-copy on a progress channel: the records it writes there, and that its
// standard output and standard error stay what they are without one.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "CopyTestSupport.hpp"

using namespace whittle::test;

namespace {

// Runs whittle-copy with a progress channel and answers what came on it.
std::string runWithChannel(const std::vector<std::string>& arguments, ProgramResult& result) {
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    ::fcntl(channel[1], F_SETFD, 0);  // the tool inherits the writing end
    RunOptions options;
    options.environment = {{"WHITTLE_PROGRESS_FD", std::to_string(channel[1])}};
    std::vector<std::string> argv{WHITTLE_COPY_BINARY};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    result = runProgram(argv, options);
    ::close(channel[1]);
    std::string records;
    for (bool open = true; open;) appendAvailable(channel[0], records, open);
    ::close(channel[0]);
    return records;
}

class CopyProgress : public testing::Test {
protected:
    void SetUp() override {
        writeFile(temp / "source/a", std::string(1000, 'a'));
        writeFile(temp / "source/sub/b", std::string(300'000, 'b'));
        ASSERT_EQ(::symlink("a", (temp / "source/link").c_str()), 0);
        writeBom(bom(), {"./a", "./link", "./sub", "./sub/b"});
    }

    std::string bom() const { return temp / "list.bom"; }

    // Every record is a "total" line first, then "done" lines that never go back,
    // the last one saying everything is done.
    static void expectRecords(const std::string& records, const std::string& step) {
        std::vector<std::string> lines = linesOf(records);
        ASSERT_GE(lines.size(), 2u) << records;
        EXPECT_EQ(lines.front(), "total 3 301000 " + step);
        EXPECT_EQ(lines.back(), "done 3 301000");
        unsigned long long files = 0, bytes = 0;
        for (std::size_t i = 1; i < lines.size(); ++i) {
            unsigned long long nowFiles = 0, nowBytes = 0;
            ASSERT_EQ(std::sscanf(lines[i].c_str(), "done %llu %llu", &nowFiles, &nowBytes), 2) << lines[i];
            EXPECT_GE(nowFiles, files);
            EXPECT_GE(nowBytes, bytes);
            files = nowFiles;
            bytes = nowBytes;
        }
    }

    TempDir temp;
};

}  // namespace

TEST_F(CopyProgress, FolderCopyReportsItsSizeThenWhatIsDone) {
    ProgramResult reported;
    std::string records = runWithChannel(
        {"-vV", "--noextattr", "--noacl", "--bom", bom(), temp / "source", temp / "reported"}, reported);
    ASSERT_EQ(reported.status, 0) << reported.err;
    expectRecords(records, "copying");
    ProgramResult plain = copyIntoFolder(bom(), temp / "source", temp / "plain");
    ASSERT_EQ(plain.status, 0);
    EXPECT_EQ(reported.out, plain.out);
    EXPECT_EQ(reported.out, ".\n./a\n./link\n./sub\n./sub/b\n");
    EXPECT_EQ(reported.err, "");
    EXPECT_EQ(snapshotTree(temp / "reported"), snapshotTree(temp / "plain"));
}

TEST_F(CopyProgress, ZipArchiveReportsItsSizeThenWhatIsDone) {
    ProgramResult reported;
    std::string records = runWithChannel(
        {"-ck", "--noextattr", "--noacl", "--bom", bom(), temp / "source", temp / "reported.zip"}, reported);
    ASSERT_EQ(reported.status, 0) << reported.err;
    expectRecords(records, "zipping");
    ProgramResult plain = copyIntoZip(bom(), temp / "source", temp / "plain.zip");
    ASSERT_EQ(plain.status, 0);
    EXPECT_EQ(reported.out, plain.out);
    EXPECT_EQ(reported.err, plain.err);
    EXPECT_EQ(readFile(temp / "reported.zip"), readFile(temp / "plain.zip"));
}

TEST_F(CopyProgress, AVariableNamingNoChannelIsIgnored) {
    RunOptions options;
    options.environment = {{"WHITTLE_PROGRESS_FD", "1"}};
    ProgramResult result = runProgram({WHITTLE_COPY_BINARY, "-vV", "--noextattr", "--noacl", "--bom", bom(),
                                       temp / "source", temp / "copy"},
                                      options);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, ".\n./a\n./link\n./sub\n./sub/b\n");
    EXPECT_EQ(result.err, "");
}
