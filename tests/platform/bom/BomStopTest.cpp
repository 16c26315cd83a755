// whittle-bom stopped while it builds or writes a BOM (SIGINT, SIGTERM, SIGHUP, or
// its caller killed) leaves no BOM and no temporary file; a read-only or full
// destination fails with the system's reason and leaves nothing.
#include <gtest/gtest.h>

#include <signal.h>

#include <cstdio>
#include <thread>

#include "HelperProcesses.hpp"
#include "TestSupport.hpp"

using namespace whittle::test;
using namespace std::chrono_literals;

namespace {

constexpr auto kMomentLimit = 120s;
constexpr auto kPromptly = 3000ms;
// Writing a BOM this large takes some tens of milliseconds, a window a signal sent on
// seeing the temporary file reliably falls into; a missed one is tried again.
constexpr int kFoldersInLargeList = 200;
constexpr int kFilesPerFolder = 2000;
constexpr int kAttemptsAtTheWritingMoment = 3;

std::string largeFileList() {
    std::string list = ".\n";
    char line[96];
    for (int folder = 0; folder < kFoldersInLargeList; ++folder) {
        std::snprintf(line, sizeof line, "./folder-%03d\n", folder);
        list += line;
        for (int file = 0; file < kFilesPerFolder; ++file) {
            std::snprintf(line, sizeof line, "./folder-%03d/firmware-file-with-a-longish-name-%05d.img4\n", folder,
                          file);
            list += line;
        }
    }
    return list;
}

std::vector<std::string> makeBomArguments(const std::string& fileList, const std::string& bom) {
    return {WHITTLE_BOM_BINARY, "-s", "-i", fileList, bom};
}

class BomStopTest : public ::testing::Test {
protected:
    void SetUp() override {
        fileList = temp / "list.txt";
        writeFile(fileList, largeFileList());
        bom = temp / "out.bom";
    }

    void expectNoBom() {
        EXPECT_FALSE(pathExists(bom));
        EXPECT_EQ(namesStartingWith(temp.path(), ".out.bom"), std::vector<std::string>{});
    }

    // Stops the tool; false if it had finished before the signal came.
    bool expectCleanStop(BackgroundProgram& tool, int signalNumber) {
        StopOutcome outcome = stopWithSignal(tool, signalNumber, 10s);
        EXPECT_TRUE(outcome.status) << "still running 10 s after the signal";
        if (!outcome.status) return true;
        if (*outcome.status == 0) return false;
        EXPECT_EQ(*outcome.status, 128 + signalNumber) << tool.errors();
        EXPECT_LT(outcome.took, kPromptly);
        EXPECT_TRUE(outcome.leftBehind.empty());
        return true;
    }

    TempDir temp;
    std::string fileList, bom;
};

}  // namespace

TEST_F(BomStopTest, StoppedAtStartOrWhileBuildingItLeavesNoBom) {
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        for (auto wait : {0ms, 300ms}) {
            SCOPED_TRACE("signal " + std::to_string(signalNumber) + " after " + std::to_string(wait.count()) + " ms");
            BackgroundProgram tool(makeBomArguments(fileList, bom));
            std::this_thread::sleep_for(wait);
            ASSERT_FALSE(tool.hasEnded()) << tool.errors();
            EXPECT_TRUE(expectCleanStop(tool, signalNumber));
            expectNoBom();
        }
    }
}

TEST_F(BomStopTest, StoppedWhileWritingItLeavesNoBom) {
    for (int signalNumber : {SIGTERM, SIGHUP}) {
        SCOPED_TRACE("signal " + std::to_string(signalNumber));
        bool stoppedWhileWriting = false;
        for (int attempt = 0; attempt < kAttemptsAtTheWritingMoment && !stoppedWhileWriting; ++attempt) {
            ::unlink(bom.c_str());
            FolderWatch watch(temp.path());
            BackgroundProgram tool(makeBomArguments(fileList, bom));
            ASSERT_TRUE(watch.waitForEntry([](const std::string& name) { return name.starts_with(".out.bom."); },
                                           kMomentLimit));
            stoppedWhileWriting = expectCleanStop(tool, signalNumber);
            if (stoppedWhileWriting) expectNoBom();
        }
        EXPECT_TRUE(stoppedWhileWriting) << "the BOM was always written before the signal came";
    }
}

TEST_F(BomStopTest, TheToolDiesWithItsCaller) {
    OrphanReaper reaper;
    StandInCaller caller(makeBomArguments(fileList, bom));
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(isAlive(caller.helperPid()));
    caller.killCaller();
    EXPECT_EQ(stillAliveAfter({caller.helperPid()}, 2000ms), std::vector<pid_t>{});
    expectNoBom();
}

// ---- destinations that cannot take the BOM ----

class BomDestinationFailureTest : public ::testing::Test {
protected:
    void SetUp() override {
        fileList = temp / "list.txt";
        std::string list = ".\n./Restore\n";
        for (int file = 0; file < 30000; ++file) list += "./Restore/file-" + std::to_string(file) + ".bin\n";
        writeFile(fileList, list);
        mountFolder = temp / "mounted";
        writeFile(mountFolder + "/keep.bom", "kept\n");
    }

    void expectOneLineNaming(const ProgramResult& result, const std::string& path, const std::string& reason) {
        expectOneFailureLine(result, "whittle-bom", "\"" + path + "\"", reason);
    }

    TempDir temp;
    std::string fileList, mountFolder;
};

TEST_F(BomDestinationFailureTest, AReadOnlyFolderIsReportedAsSuch) {
    std::string whyNot;
    std::string bom = mountFolder + "/out.bom";
    auto run = runWithPrivateMount(makeBomArguments(fileList, bom), mountFolder, PrivateMount::readOnly, whyNot);
    if (!run) GTEST_SKIP() << "no private read-only mount here: " << whyNot;
    expectOneLineNaming(run->result, bom, "Read-only file system");
    EXPECT_EQ(run->leftInFolder, std::vector<std::string>{"keep.bom"});
    EXPECT_EQ(entriesBelow(mountFolder), std::vector<std::string>{"keep.bom"});
}

TEST_F(BomDestinationFailureTest, AFullFileSystemIsReportedAsSuchAndLeavesNothing) {
    std::string whyNot;
    std::string bom = mountFolder + "/out.bom";
    auto run =
        runWithPrivateMount(makeBomArguments(fileList, bom), mountFolder, PrivateMount::smallTmpfs, whyNot, 1 << 20);
    if (!run) GTEST_SKIP() << "no private tmpfs mount here: " << whyNot;
    expectOneLineNaming(run->result, bom, "No space left on device");
    EXPECT_EQ(run->leftInFolder, std::vector<std::string>{});
}
