// whittle-diskimage stopped half-way through create or attach (SIGINT, SIGTERM,
// SIGHUP, or its caller killed) leaves no partial image, no work folder and no
// volume, and no 7zz running; a read-only or full destination fails with
// the system's reason and leaves nothing.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "DiskImageTestSupport.hpp"
#include "HelperProcesses.hpp"
#include "TestSupport.hpp"

using namespace whittle::test;
using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

constexpr auto kMomentLimit = 120s;
constexpr auto kPromptly = 3000ms;
constexpr std::uintmax_t kGrowingImage = 32u << 20;
enum class Moment { atStart, outputAppeared, childAtWork };

const char* nameOf(Moment moment) {
    switch (moment) {
        case Moment::atStart:
            return "at start";
        case Moment::outputAppeared:
            return "once its output appeared";
        case Moment::childAtWork:
            return "while its child works";
    }
    return "?";
}

std::uintmax_t totalSizeOf(const std::string& folder, const std::string& prefix) {
    std::uintmax_t size = 0;
    for (const std::string& name : namesStartingWith(folder, prefix)) size += sizeOr0(folder + "/" + name);
    return size;
}

std::string stateFolder() { return testVolumesFolder() + "/.whittle-diskimage"; }

// A name no other test uses, as volumes of all tests share one folder.
std::string uniqueName(const TempDir& dir, const std::string& prefix) {
    return prefix + "-" + fs::path(dir.path()).filename().string().substr(std::string("whittle-test-").size());
}

std::vector<std::string> createArguments(const std::string& folder, const std::string& image) {
    return {diskImageTool(), "create", "-srcfolder", folder, image, "-format", "UDRO"};
}

std::vector<std::string> attachArguments(const std::string& image) { return {diskImageTool(), "attach", image, "-plist"}; }

// True when a record of an attached image names this image.
bool anyRecordNames(const std::string& image) {
    for (const std::string& name : namesStartingWith(stateFolder(), "disk"))
        if (readFile(stateFolder() + "/" + name).find(image) != std::string::npos) return true;
    return false;
}

class DiskImageStopTest : public ::testing::Test {
protected:
    // Stops the running tool with the signal; checks a prompt end by that signal and
    // that none of its processes is left. Answers the processes it had running.
    std::vector<pid_t> expectCleanStop(BackgroundProgram& tool, int signalNumber) {
        EXPECT_FALSE(tool.hasEnded()) << "it ended before it could be stopped: " << tool.errors();
        StopOutcome outcome = stopWithSignal(tool, signalNumber, 10s);
        EXPECT_TRUE(outcome.status) << "still running 10 s after the signal";
        if (outcome.status) {
            EXPECT_EQ(*outcome.status, 128 + signalNumber) << tool.errors();
        }
        EXPECT_LT(outcome.took, kPromptly);
        EXPECT_EQ(outcome.leftBehind, std::vector<pid_t>{});
        return outcome.childrenBefore;
    }

    TempDir temp;
};

// ---- create ----

class CreateStopTest : public DiskImageStopTest {
protected:
    void SetUp() override {
        source = temp / "src";
        // Written out, not sparse: copying it into the image takes a while.
        std::filesystem::create_directories(source);
        std::ofstream big(source + "/big.bin", std::ios::binary);
        std::string block(1 << 20, 'Z');
        for (int i = 0; i < 768; ++i) big.write(block.data(), static_cast<std::streamsize>(block.size()));
        image = temp / "big.dmg";
    }

    void expectNoImage() {
        EXPECT_EQ(namesStartingWith(temp.path(), ".big.dmg"), std::vector<std::string>{});
        EXPECT_FALSE(pathExists(image));
    }

    std::string source, image;
};

TEST_F(CreateStopTest, AStoppedCreateLeavesNoImage) {
    for (Moment moment : {Moment::atStart, Moment::outputAppeared, Moment::childAtWork}) {
        for (int signalNumber : kStopSignals) {
            SCOPED_TRACE(std::string(nameOf(moment)) + ", signal " + std::to_string(signalNumber));
            FolderWatch watch(temp.path());
            BackgroundProgram tool(createArguments(source, image));
            if (moment == Moment::outputAppeared) {
                ASSERT_TRUE(watch.waitForEntry([](const std::string& name) { return name.starts_with(".big.dmg."); },
                                               kMomentLimit));
            }
            if (moment == Moment::childAtWork) {
                // The image is being written.
                ASSERT_TRUE(waitUntil(
                    [&] { return totalSizeOf(temp.path(), ".big.dmg.") >= kGrowingImage || tool.hasEnded(); },
                    kMomentLimit));
            }
            expectCleanStop(tool, signalNumber);
            expectNoImage();
        }
    }
    // Nothing appears later either.
    std::this_thread::sleep_for(500ms);
    expectNoImage();
}

TEST_F(CreateStopTest, ACreateDiesWithItsCaller) {
    OrphanReaper reaper;
    StandInCaller caller(createArguments(source, image));
    ASSERT_TRUE(waitUntil([&] { return totalSizeOf(temp.path(), ".big.dmg.") >= kGrowingImage; }, kMomentLimit));
    std::vector<pid_t> processes = descendantsOf(caller.helperPid());
    processes.push_back(caller.helperPid());
    caller.killCaller();
    EXPECT_EQ(stillAliveAfter(processes, 2000ms), std::vector<pid_t>{});
    expectNoImage();
    std::this_thread::sleep_for(500ms);
    expectNoImage();
}

// ---- attach ----

class AttachStopTest : public DiskImageStopTest {
protected:
    void SetUp() override {
        volumeName = uniqueName(temp, "Stopped");
        std::string folder = temp / volumeName;
        makeSparseFile(folder + "/big.bin", 1ull << 30);  // 7zz writes it out for a while
        writeFile(folder + "/Restore.plist", "<plist/>\n");
        image = temp / "stopped.dmg";
        auto created = runTool({"create", "-srcfolder", folder, image, "-format", "UDRO"});
        ASSERT_EQ(created.status, 0) << created.err;
        fs::create_directories(stateFolder());
    }

    void expectNothingAttached(pid_t tool) {
        EXPECT_EQ(namesStartingWith(stateFolder(), "attach." + std::to_string(tool) + "."), std::vector<std::string>{});
        EXPECT_EQ(namesStartingWith(testVolumesFolder(), volumeName), std::vector<std::string>{});
        EXPECT_FALSE(anyRecordNames(image));
    }

    std::string volumeName, image;
};

TEST_F(AttachStopTest, AStoppedAttachLeavesNoVolumeNoWorkFolderAnd7zzGone) {
    for (Moment moment : {Moment::atStart, Moment::outputAppeared, Moment::childAtWork}) {
        for (int signalNumber : kStopSignals) {
            SCOPED_TRACE(std::string(nameOf(moment)) + ", signal " + std::to_string(signalNumber));
            FolderWatch watch(stateFolder());
            BackgroundProgram tool(attachArguments(image));
            std::string workFolderPrefix = "attach." + std::to_string(tool.pid()) + ".";
            if (moment == Moment::outputAppeared) {
                ASSERT_TRUE(watch.waitForEntry(
                    [&](const std::string& name) { return name.starts_with(workFolderPrefix); }, kMomentLimit));
            }
            if (moment == Moment::childAtWork) {
                ASSERT_TRUE(waitUntil([&] { return !descendantsOf(tool.pid()).empty() || tool.hasEnded(); },
                                      kMomentLimit));
                std::this_thread::sleep_for(100ms);
            }
            std::vector<pid_t> children = expectCleanStop(tool, signalNumber);
            if (moment == Moment::childAtWork) {
                EXPECT_FALSE(children.empty()) << "7zz was not running";
            }
            expectNothingAttached(tool.pid());
        }
    }
}

TEST_F(AttachStopTest, AnAttachDiesWithItsCallerAnd7zzWithIt) {
    OrphanReaper reaper;
    StandInCaller caller(attachArguments(image));
    ASSERT_TRUE(waitUntil([&] { return !descendantsOf(caller.helperPid()).empty(); }, kMomentLimit));
    std::vector<pid_t> processes = descendantsOf(caller.helperPid());
    processes.push_back(caller.helperPid());
    caller.killCaller();
    EXPECT_EQ(stillAliveAfter(processes, 2000ms), std::vector<pid_t>{});
    EXPECT_EQ(membersOfGroups(processes), std::vector<pid_t>{});
    expectNothingAttached(caller.helperPid());
}

// ---- destinations that cannot take the image ----

class CreateDestinationFailureTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = temp / "src";
        std::mt19937_64 random(11);
        std::string noise(3 << 20, '\0');
        for (auto& byte : noise) byte = static_cast<char>(random());
        writeFile(source + "/noise.bin", noise);
        mountFolder = temp / "mounted";
        writeFile(mountFolder + "/keep.dmg", "kept\n");
    }

    void expectOneLineNaming(const ProgramResult& result, const std::string& path, const std::string& reason) {
        expectOneFailureLine(result, "whittle-diskimage", "\"" + path, reason);
    }

    TempDir temp;
    std::string source, mountFolder;
};

TEST_F(CreateDestinationFailureTest, AReadOnlyFolderIsReportedAsSuch) {
    std::string whyNot;
    std::string image = mountFolder + "/new.dmg";
    auto run = runWithPrivateMount(createArguments(source, image), mountFolder, PrivateMount::readOnly, whyNot);
    if (!run) GTEST_SKIP() << "no private read-only mount here: " << whyNot;
    expectOneLineNaming(run->result, image, "Read-only file system");
    EXPECT_EQ(run->leftInFolder, std::vector<std::string>{"keep.dmg"});
    EXPECT_EQ(entriesBelow(mountFolder), std::vector<std::string>{"keep.dmg"});
}

TEST_F(CreateDestinationFailureTest, AFullFileSystemIsReportedAsSuchAndLeavesNothing) {
    std::string whyNot;
    std::string image = mountFolder + "/new.dmg";
    auto run =
        runWithPrivateMount(createArguments(source, image), mountFolder, PrivateMount::smallTmpfs, whyNot, 1 << 20);
    if (!run) GTEST_SKIP() << "no private tmpfs mount here: " << whyNot;
    expectOneLineNaming(run->result, mountFolder + "/", "No space left on device");
    EXPECT_EQ(run->leftInFolder, std::vector<std::string>{});
}

}  // namespace
