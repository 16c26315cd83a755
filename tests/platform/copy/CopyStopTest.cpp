// whittle-copy stopped half-way (SIGINT, SIGTERM, SIGHUP, or its caller killed)
// leaves no partial copy or archive and nothing it did not make is touched; a
// read-only or full destination fails with the system's reason and leaves nothing.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "CopyTestSupport.hpp"
#include "HelperProcesses.hpp"

using namespace whittle::test;
using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

// Sparse, so it costs no disk; a copy of it writes until it is stopped.
constexpr unsigned long long kBigFileSize = 4ull << 30;
constexpr std::uintmax_t kGrowingCopy = 64u << 20;
constexpr std::uintmax_t kGrowingArchive = 64u << 10;
constexpr auto kMomentLimit = 60s;
constexpr auto kPromptly = 3000ms;
enum class Moment { atStart, outputAppeared, outputGrowing };

const char* nameOf(Moment moment) {
    switch (moment) {
        case Moment::atStart:
            return "at start";
        case Moment::outputAppeared:
            return "once the output appeared";
        case Moment::outputGrowing:
            return "while the output grows";
    }
    return "?";
}

std::string randomBytes(std::size_t count) {
    std::mt19937_64 random(7);
    std::string bytes(count, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

std::vector<std::string> folderCopyArguments(const std::string& bom, const std::string& source,
                                             const std::string& destination) {
    return {WHITTLE_COPY_BINARY, "-vV", "--noextattr", "--noacl", "--bom", bom, source, destination};
}

std::vector<std::string> zipArguments(const std::string& bom, const std::string& source, const std::string& archive) {
    return {WHITTLE_COPY_BINARY, "-ck", "--noextattr", "--noacl", "--bom", bom, source, archive};
}

class CopyStopTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = temp / "source";
        makeSparseFile(source + "/Firmware/big.bin", kBigFileSize);
        writeFile(source + "/Firmware/small.txt", "small\n");
        writeFile(source + "/Restore.plist", "<plist/>\n");
        bom = temp / "bundle.bom";
        writeBom(bom, {"./Firmware", "./Firmware/big.bin", "./Firmware/small.txt", "./Restore.plist"});
    }

    // Starts the copy, stops it with the signal at the moment, and checks what every
    // stop promises: a prompt end by that signal, no process left behind.
    // The output shows up as a new entry of watchedFolder that isOutput() accepts, and
    // grows as outputSize() says.
    void stopAt(Moment moment, int signalNumber, const std::vector<std::string>& argv, const std::string& watchedFolder,
                const std::function<bool(const std::string&)>& isOutput,
                const std::function<std::uintmax_t()>& outputSize, std::uintmax_t growingSize) {
        SCOPED_TRACE(std::string(nameOf(moment)) + ", signal " + std::to_string(signalNumber));
        FolderWatch watch(watchedFolder);
        BackgroundProgram copy(argv);
        if (moment == Moment::outputAppeared) {
            ASSERT_TRUE(watch.waitForEntry(isOutput, kMomentLimit));
        }
        if (moment == Moment::outputGrowing) {
            ASSERT_TRUE(waitUntil([&] { return outputSize() >= growingSize || copy.hasEnded(); }, kMomentLimit));
        }
        ASSERT_FALSE(copy.hasEnded()) << "the copy ended before it could be stopped: " << copy.errors();
        StopOutcome outcome = stopWithSignal(copy, signalNumber, 10s);
        ASSERT_TRUE(outcome.status) << "still running 10 s after the signal";
        EXPECT_EQ(*outcome.status, 128 + signalNumber) << copy.errors();
        EXPECT_LT(outcome.took, kPromptly);
        EXPECT_TRUE(outcome.leftBehind.empty());
    }

    TempDir temp;
    std::string source, bom;
};

}  // namespace

TEST_F(CopyStopTest, AStoppedFolderCopyRemovesTheFolderItMade) {
    std::string destination = temp / "made/by/copy";
    for (Moment moment : {Moment::atStart, Moment::outputAppeared, Moment::outputGrowing}) {
        for (int signalNumber : kStopSignals) {
            stopAt(
                moment, signalNumber, folderCopyArguments(bom, source, destination), temp.path(),
                [](const std::string& name) { return name == "made"; },
                [&] { return sizeOr0(destination + "/Firmware/big.bin"); }, kGrowingCopy);
            EXPECT_FALSE(pathExists(temp / "made")) << "the copy's folders are left";
        }
    }
}

TEST_F(CopyStopTest, AStoppedCopyIntoAnExistingFolderRemovesOnlyWhatItMade) {
    std::string destination = temp / "existing";
    writeFile(destination + "/keep.txt", "kept\n");
    writeFile(destination + "/Firmware/old.txt", "old\n");
    auto before = snapshotTree(destination);
    for (Moment moment : {Moment::atStart, Moment::outputAppeared, Moment::outputGrowing}) {
        for (int signalNumber : kStopSignals) {
            stopAt(
                moment, signalNumber, folderCopyArguments(bom, source, destination), destination + "/Firmware",
                [](const std::string& name) { return name == "big.bin"; },
                [&] { return sizeOr0(destination + "/Firmware/big.bin"); }, kGrowingCopy);
            auto after = snapshotTree(destination);
            // The folder that held the new items had its modification time changed by them.
            after.erase("./Firmware");
            auto expected = before;
            expected.erase("./Firmware");
            EXPECT_EQ(after, expected);
        }
    }
}

TEST_F(CopyStopTest, AStoppedZipLeavesNoArchive) {
    std::string archive = temp / "out.zip";
    auto temporaryArchiveSize = [&] {
        std::uintmax_t size = 0;
        for (const std::string& name : namesStartingWith(temp.path(), ".out.zip.")) size += sizeOr0(temp / name);
        return size;
    };
    for (Moment moment : {Moment::atStart, Moment::outputAppeared, Moment::outputGrowing}) {
        for (int signalNumber : kStopSignals) {
            stopAt(
                moment, signalNumber, zipArguments(bom, source, archive), temp.path(),
                [](const std::string& name) { return name.starts_with(".out.zip."); }, temporaryArchiveSize,
                kGrowingArchive);
            EXPECT_EQ(namesStartingWith(temp.path(), ".out.zip"), std::vector<std::string>{});
            EXPECT_FALSE(pathExists(archive));
        }
    }
}

TEST_F(CopyStopTest, TheCopyDiesWithItsCaller) {
    OrphanReaper reaper;
    std::string destination = temp / "orphaned";
    StandInCaller caller(folderCopyArguments(bom, source, destination));
    ASSERT_TRUE(waitUntil([&] { return sizeOr0(destination + "/Firmware/big.bin") >= kGrowingCopy; }, kMomentLimit));
    ASSERT_TRUE(isAlive(caller.helperPid()));
    caller.killCaller();
    EXPECT_EQ(stillAliveAfter({caller.helperPid()}, 2000ms), std::vector<pid_t>{});
    EXPECT_FALSE(pathExists(destination));
}

TEST_F(CopyStopTest, TheZipDiesWithItsCaller) {
    OrphanReaper reaper;
    FolderWatch watch(temp.path());
    StandInCaller caller(zipArguments(bom, source, temp / "orphaned.zip"));
    ASSERT_TRUE(watch.waitForEntry([](const std::string& name) { return name.starts_with(".orphaned.zip."); },
                                   kMomentLimit));
    caller.killCaller();
    EXPECT_EQ(stillAliveAfter({caller.helperPid()}, 2000ms), std::vector<pid_t>{});
    EXPECT_EQ(namesStartingWith(temp.path(), ".orphaned.zip"), std::vector<std::string>{});
    EXPECT_FALSE(pathExists(temp / "orphaned.zip"));
}

// ---- destinations that cannot take the copy ----

class CopyDestinationFailureTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = temp / "source";
        writeFile(source + "/Firmware/noise.bin", randomBytes(3 << 20));  // does not compress
        writeFile(source + "/Restore.plist", "<plist/>\n");
        bom = temp / "bundle.bom";
        writeBom(bom, {"./Firmware", "./Firmware/noise.bin", "./Restore.plist"});
        mountFolder = temp / "mounted";
        writeFile(mountFolder + "/keep.txt", "kept\n");
        fs::create_directories(mountFolder + "/existing");
    }

    void expectOneLineNaming(const ProgramResult& result, const std::string& path, const std::string& reason) {
        expectOneFailureLine(result, "whittle-copy", "\"" + path, reason);
    }

    TempDir temp;
    std::string source, bom, mountFolder;
};

TEST_F(CopyDestinationFailureTest, AReadOnlyDestinationIsReportedAsSuch) {
    const std::vector<std::string> before{"existing", "keep.txt"};
    struct Case {
        std::vector<std::string> argv;
        std::string named;
    };
    std::vector<Case> cases{
        {folderCopyArguments(bom, source, mountFolder + "/new/dest"), mountFolder + "/new/dest"},
        {folderCopyArguments(bom, source, mountFolder + "/existing"), mountFolder + "/existing/Firmware"},
        {zipArguments(bom, source, mountFolder + "/out.zip"), mountFolder + "/out.zip"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.argv.back());
        std::string whyNot;
        auto run = runWithPrivateMount(each.argv, mountFolder, PrivateMount::readOnly, whyNot);
        if (!run) GTEST_SKIP() << "no private read-only mount here: " << whyNot;
        expectOneLineNaming(run->result, each.named, "Read-only file system");
        EXPECT_EQ(run->leftInFolder, before);
    }
    EXPECT_EQ(entriesBelow(mountFolder), before);
    EXPECT_EQ(readFile(mountFolder + "/keep.txt"), "kept\n");
}

TEST_F(CopyDestinationFailureTest, AFullDestinationIsReportedAsSuchAndLeavesNothing) {
    struct Case {
        std::vector<std::string> argv;
        std::string named;
    };
    std::vector<Case> cases{
        {folderCopyArguments(bom, source, mountFolder + "/dest"), mountFolder + "/dest/Firmware/noise.bin"},
        {zipArguments(bom, source, mountFolder + "/out.zip"), mountFolder + "/out.zip"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.argv.back());
        std::string whyNot;
        auto run = runWithPrivateMount(each.argv, mountFolder, PrivateMount::smallTmpfs, whyNot, 1 << 20);
        if (!run) GTEST_SKIP() << "no private tmpfs mount here: " << whyNot;
        expectOneLineNaming(run->result, each.named, "No space left on device");
        EXPECT_EQ(run->leftInFolder, std::vector<std::string>{});
    }
}
