// Volumes left attached by runs that have ended are detached by the next attach and
// the image attached afresh, so that the caller does not take it for one attached
// before it started; volumes of runs still going, and volumes attached by hand, stay.
// The caller decides "attached before" as the run driver does: the mount point's last
// component was already a name in the volumes folder before the attach.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "DiskImageTestSupport.hpp"
#include "HelperProcesses.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle::test;
using whittle::Value;

namespace {

namespace fs = std::filesystem;

std::string stateFolder() { return testVolumesFolder() + "/.whittle-diskimage"; }

std::vector<std::string> attachArguments(const std::string& image) { return {diskImageTool(), "attach", image, "-plist"}; }

std::string mountPointIn(const std::string& attachOutput) {
    if (attachOutput.empty()) return "";
    return std::string(mountedEntityOf(systemEntitiesOf(attachOutput)).get("mount-point").text());
}

std::set<std::string> namesInVolumesFolder() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(testVolumesFolder())) names.insert(entry.path().filename().string());
    return names;
}

bool looksAttachedBefore(const std::string& mountPoint, const std::set<std::string>& namesBefore) {
    return mountPoint.starts_with(testVolumesFolder()) && namesBefore.contains(fs::path(mountPoint).filename().string());
}

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(got));
    return text;
}

// Runs the attach from a forked process of its own, as a run of the caller would, with
// standard input from /dev/null or, atATerminal, typed at a pseudo-terminal. The
// output comes back through the pipe reply. With holdOpen, a pipe, the process goes
// on until the other end of that pipe is closed. Answers the process and the output.
std::pair<pid_t, std::string> attachInProcess(const std::string& image, bool atATerminal, int reply[2],
                                              int* holdOpen) {
    pid_t child = ::fork();
    if (child == 0) {
        ::close(reply[0]);
        if (holdOpen) ::close(holdOpen[1]);
        std::string output;
        if (atATerminal) {
            output = runInNewSession(attachArguments(image), std::vector<std::string>{}).out;
        } else {
            output = runProgram(attachArguments(image)).out;
        }
        ssize_t written = ::write(reply[1], output.data(), output.size());
        (void)written;
        ::close(reply[1]);
        if (holdOpen) readAll(holdOpen[0]);  // until the test lets go
        ::_exit(0);
    }
    ::close(reply[1]);
    std::string output = readAll(reply[0]);
    ::close(reply[0]);
    if (!holdOpen) ::waitpid(child, nullptr, 0);
    return {child, output};
}

// An attach made by a process that has ended since.
std::string attachFromAnEndedProcess(const std::string& image, bool atATerminal = false) {
    int reply[2];
    if (::pipe2(reply, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    return mountPointIn(attachInProcess(image, atATerminal, reply, nullptr).second);
}

// An attach made by a process that goes on until end().
class LiveAttacher {
public:
    explicit LiveAttacher(const std::string& image) {
        int reply[2];
        if (::pipe2(reply, O_CLOEXEC) != 0 || ::pipe2(hold_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        auto [process, output] = attachInProcess(image, false, reply, hold_);
        process_ = process;
        mountPoint = mountPointIn(output);
        ::close(hold_[0]);
    }
    ~LiveAttacher() { end(); }
    void end() {
        if (hold_[1] < 0) return;
        ::close(hold_[1]);
        hold_[1] = -1;
        ::waitpid(process_, nullptr, 0);
    }
    std::string mountPoint;

private:
    int hold_[2] = {-1, -1};
    pid_t process_ = -1;
};

std::string attachHere(const std::string& image) {
    auto run = runTool({"attach", image, "-plist"});
    EXPECT_EQ(run.status, 0) << run.err;
    return run.status == 0 ? mountPointIn(run.out) : "";
}

void ejectByMountPoint(const std::string& image) {
    // Attaching again answers the attached volume's entities, with its device entry.
    auto run = runTool({"attach", image, "-plist"});
    ASSERT_EQ(run.status, 0) << run.err;
    std::string device(mountedEntityOf(systemEntitiesOf(run.out)).get("dev-entry").text());
    auto ejected = runTool({"eject", device});
    EXPECT_EQ(ejected.status, 0) << ejected.err;
}

// The record of the volume at this mount point, and its file.
std::pair<std::string, Value> recordOf(const std::string& mountPoint) {
    for (const std::string& name : namesStartingWith(stateFolder(), "disk")) {
        std::string path = stateFolder() + "/" + name;
        Value record = whittle::parsePropertyList(readFile(path));
        if (record.get("mount-point").text() == mountPoint) return {path, record};
    }
    return {"", Value()};
}

class DiskImageOwnershipTest : public ::testing::Test {
protected:
    void SetUp() override {
        volumeName = "Owned-" + fs::path(temp.path()).filename().string().substr(std::string("whittle-test-").size());
        std::string folder = temp / volumeName;
        writeFile(folder + "/Restore.plist", "<plist/>\n");
        image = temp / "owned.dmg";
        auto created = runTool({"create", "-srcfolder", folder, image, "-format", "UDRO"});
        ASSERT_EQ(created.status, 0) << created.err;
    }

    TempDir temp;
    std::string volumeName, image;
};

}  // namespace

TEST_F(DiskImageOwnershipTest, TheVolumeOfAnEndedRunIsAttachedAfresh) {
    std::string left = attachFromAnEndedProcess(image);
    ASSERT_FALSE(left.empty());
    ASSERT_TRUE(pathExists(left + "/Restore.plist"));
    std::set<std::string> namesBefore = namesInVolumesFolder();

    std::string fresh = attachHere(image);
    EXPECT_FALSE(looksAttachedBefore(fresh, namesBefore)) << fresh;
    EXPECT_FALSE(pathExists(left)) << "the left volume is still there";
    EXPECT_EQ(readFile(fresh + "/Restore.plist"), "<plist/>\n");
    ejectByMountPoint(image);
    EXPECT_FALSE(pathExists(fresh));
}

TEST_F(DiskImageOwnershipTest, TheVolumeOfARunStillGoingStays) {
    LiveAttacher live(image);
    ASSERT_FALSE(live.mountPoint.empty());
    std::set<std::string> namesBefore = namesInVolumesFolder();
    std::string again = attachHere(image);
    EXPECT_EQ(again, live.mountPoint);
    EXPECT_TRUE(looksAttachedBefore(again, namesBefore));

    // The volume now serves this test too, which goes on after the first run ends.
    live.end();
    namesBefore = namesInVolumesFolder();
    EXPECT_EQ(attachHere(image), live.mountPoint);
    EXPECT_TRUE(looksAttachedBefore(live.mountPoint, namesBefore));
    ejectByMountPoint(image);
}

TEST_F(DiskImageOwnershipTest, ARunWhoseProcessIdWasReusedCountsAsEnded) {
    std::string first = attachHere(image);
    ASSERT_FALSE(first.empty());
    // The recorded owner gets another start time: the same process id, another process.
    auto [path, record] = recordOf(first);
    ASSERT_FALSE(path.empty());
    Value owners = record.get("owners");
    ASSERT_EQ(owners.count(), 1u);
    EXPECT_EQ(owners.at(0).get("pid").numberValue(), static_cast<double>(::getpid()));
    Value otherProcess = Value::dictionary();
    otherProcess.set("pid", owners.at(0).get("pid"));
    otherProcess.set("start-time", Value::integer(static_cast<std::int64_t>(owners.at(0).get("start-time").numberValue()) + 1));
    Value changedOwners = Value::array();
    changedOwners.append(otherProcess);
    record.set("owners", changedOwners);
    writeFile(path, whittle::xmlPropertyList(record));

    std::set<std::string> namesBefore = namesInVolumesFolder();
    std::string fresh = attachHere(image);
    EXPECT_FALSE(looksAttachedBefore(fresh, namesBefore)) << fresh;
    EXPECT_FALSE(pathExists(first));
    ejectByMountPoint(image);
}

TEST_F(DiskImageOwnershipTest, AVolumeAttachedAtATerminalStaysAfterwards) {
    std::string byHand = attachFromAnEndedProcess(image, true);
    ASSERT_FALSE(byHand.empty());
    std::set<std::string> namesBefore = namesInVolumesFolder();
    EXPECT_EQ(attachHere(image), byHand);
    EXPECT_TRUE(looksAttachedBefore(byHand, namesBefore));
    ejectByMountPoint(image);
}
