// Runs the built whittle and stops it part way: SIGINT to its process group (a
// terminal's Ctrl-C), SIGTERM to whittle alone, SIGKILL; and targets on file systems
// that are full or read-only. Whatever happens, no process of the run stays behind,
// the target path holds a finished target or nothing, and the next run clears what
// an ended run left and succeeds.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

const std::vector<std::string> kRequest{"--product", "x10", "--factory", "repair"};

// The processes whose command line mentions the text: the run's tools name paths
// inside the test's own folders.
std::vector<int> processesMentioning(const std::string& text) {
    std::vector<int> found;
    DIR* proc = ::opendir("/proc");
    if (!proc) return found;
    while (const dirent* entry = ::readdir(proc)) {
        int pid = std::atoi(entry->d_name);
        if (pid <= 0 || pid == ::getpid()) continue;
        std::ifstream cmdline("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
        std::stringstream content;
        content << cmdline.rdbuf();
        if (contains(content.str(), text)) found.push_back(pid);
    }
    ::closedir(proc);
    return found;
}

// True once no process mentions the text, waiting up to five seconds for stopping tools.
bool noProcessLeftMentioning(const std::string& text) {
    for (int wait = 0; wait < 100; ++wait) {
        if (processesMentioning(text).empty()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::set<std::string> namesIn(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

// One large bundle (over 1 GB kept, as sparse files) for the runs that are stopped, and
// one small one for the runs after them; made once for the whole suite.
class Bundles {
public:
    static Bundles& shared() {
        static Bundles bundles;
        return bundles;
    }
    std::string large() const { return dir_ / "large"; }
    std::string small() const { return dir_ / "small"; }
    // Kept files of a megabyte each, written out in full: more than a small file system holds.
    std::string dense() const { return dir_ / "dense"; }

private:
    Bundles() {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(small(), plan);
        plan.bytesPerFile = 1'000'000;
        bundlegen::generateBundle(dense(), plan);
        fillWithRandomBytes(dense());
        plan.bytesPerFile = 100'000'000;
        plan.sparseFiles = true;
        bundlegen::generateBundle(large(), plan);
    }
    // Payloads that no compression makes small.
    static void fillWithRandomBytes(const std::string& root) {
        std::ifstream random("/dev/urandom", std::ios::binary);
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            if (!entry.is_regular_file() || entry.file_size() < 100'000) continue;
            std::string bytes(entry.file_size(), '\0');
            random.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            writeFile(entry.path(), bytes);
        }
    }
    TempDir dir_;
};

struct StopCase {
    const char* kind;   // the target's extension, "" for a folder
    int signalNumber;
    bool toProcessGroup;
};

void PrintTo(const StopCase& stop, std::ostream* out) {
    *out << (*stop.kind ? stop.kind : "folder") << " target, signal " << stop.signalNumber
         << (stop.toProcessGroup ? " to the process group" : "");
}

std::string nameOf(const testing::TestParamInfo<StopCase>& info) {
    std::string kind = *info.param.kind ? info.param.kind : "folder";
    std::string signal = info.param.signalNumber == SIGINT ? "SigintToGroup" : info.param.signalNumber == SIGTERM ? "Sigterm" : "Sigkill";
    return kind + signal;
}

// Moments after the start, spread from before the first tool runs to the end of a run
// that takes this long when left alone.
std::vector<int> momentsWithin(int runMilliseconds) {
    std::vector<int> moments;
    for (double share : {0.0, 0.02, 0.08, 0.2, 0.4, 0.65, 0.9}) moments.push_back(static_cast<int>(share * runMilliseconds));
    return moments;
}

// A finished target: its last written file is in it.
bool isComplete(const std::string& target, const std::string& kind) {
    if (kind == "") return pathExists(target + "/WhittleCookie.plist");
    if (kind == "zip") return contains(runProgram({"/usr/bin/unzip", "-l", target}).out, "WhittleCookie.plist");
    return fs::file_size(target) > 0;
}

class WhittleStopped : public testing::TestWithParam<StopCase> {
protected:
    ProgramResult whittle(const std::vector<std::string>& arguments, const RunOptions& base = {}) {
        RunOptions options = base;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        std::vector<std::string> all = arguments;
        all.insert(all.end(), kRequest.begin(), kRequest.end());
        return runWhittle(all, options);
    }
    TempDir dir;
};

TEST_P(WhittleStopped, LeavesNoProcessNoPartialTargetAndTheNextRunSucceeds) {
    const StopCase& stop = GetParam();
    std::string extension = *stop.kind ? std::string(".") + stop.kind : std::string();
    // The moments are spread over the quicker of two whole runs.
    auto runMilliseconds = std::chrono::milliseconds::max();
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto started = std::chrono::steady_clock::now();
        ProgramResult whole = whittle({Bundles::shared().large(), dir / ("whole" + extension)});
        ASSERT_EQ(whole.status, 0) << whole.out << whole.err;
        runMilliseconds = std::min(runMilliseconds, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                        std::chrono::steady_clock::now() - started));
        removeTree(dir / ("whole" + extension));
        removeTree(dir / "data");
    }

    int finished = 0;
    for (int moment : momentsWithin(static_cast<int>(runMilliseconds.count()))) {
        SCOPED_TRACE("stopped after " + std::to_string(moment) + " ms");
        std::string folder = dir / ("targets-" + std::to_string(moment));
        fs::create_directories(folder);
        std::string target = folder + "/out" + extension;

        RunOptions options;
        options.signalNumber = stop.signalNumber;
        options.signalAfterMilliseconds = moment;
        options.signalProcessGroup = stop.toProcessGroup;
        ProgramResult stopped = whittle({Bundles::shared().large(), target}, options);

        EXPECT_TRUE(noProcessLeftMentioning(folder)) << "a tool of the stopped run is still running";
        if (pathExists(target)) {
            // The signal came after the finished target was renamed into place.
            ++finished;
            EXPECT_TRUE(isComplete(target, stop.kind)) << stopped.out << stopped.err;
        } else {
            EXPECT_NE(stopped.status, 0) << stopped.out << stopped.err;
        }
        if (stopped.status == 128 + SIGKILL || stopped.status == 0) {
            // Killed: what it left is for the next run to clear.
        } else {
            EXPECT_EQ(stopped.status, 128 + stop.signalNumber) << stopped.out << stopped.err;
            // A signal that comes before the program has started its run ends it silently.
            std::string said = "XXX ERROR: interrupted by signal " + std::to_string(stop.signalNumber) + ".";
            bool startedItsRun = !(stopped.out + stopped.err).empty();
            if (startedItsRun) {
                EXPECT_TRUE(contains(stopped.out + stopped.err, said)) << stopped.out << stopped.err;
            }
            // A run that could clean up after itself left nothing beside the target.
            std::set<std::string> expected;
            if (pathExists(target)) expected.insert("out" + extension);
            EXPECT_EQ(namesIn(folder), expected) << stopped.out << stopped.err;
        }

        removeTree(target);
        bool leftovers = namesIn(folder) != std::set<std::string>{};
        ProgramResult next = whittle({Bundles::shared().small(), target});
        EXPECT_EQ(next.status, 0) << next.out << next.err;
        if (leftovers) {
            EXPECT_TRUE(contains(next.out + next.err, "!!! NOTE: moved \"" + folder + "/")) << next.out;
        }
        EXPECT_EQ(namesIn(folder), std::set<std::string>{"out" + extension}) << next.out;
        removeTree(folder);
        removeTree(dir / "data");
    }
    // Most moments fall inside the run.
    EXPECT_LE(finished, 3);
}

INSTANTIATE_TEST_SUITE_P(Targets, WhittleStopped,
                         testing::Values(StopCase{"", SIGINT, true}, StopCase{"zip", SIGINT, true},
                                         StopCase{"dmg", SIGINT, true}, StopCase{"", SIGTERM, false},
                                         StopCase{"zip", SIGTERM, false}, StopCase{"dmg", SIGTERM, false},
                                         StopCase{"", SIGKILL, false}, StopCase{"zip", SIGKILL, false},
                                         StopCase{"dmg", SIGKILL, false}),
                         nameOf);

// ---- full and read-only file systems, in a mount namespace of the test's own ----

class WhittleOnSmallFileSystems : public testing::Test {
protected:
    void SetUp() override {
        if (runProgram({"/usr/bin/unshare", "-rm", "/bin/true"}).status != 0) {
            GTEST_SKIP() << "mount namespaces are not available here";
        }
        fs::create_directories(dir / "mnt");
    }

    // Runs whittle in a private mount namespace where "mnt" is a tmpfs of the given size,
    // mounted read-only when asked, and answers what whittle said; `left` receives what
    // the tmpfs held afterwards.
    ProgramResult whittleOnTmpfs(const std::string& options, const std::string& target, std::set<std::string>& left) {
        std::string mnt = dir / "mnt";
        std::string script = "mount -t tmpfs -o " + options + " tmpfs '" + mnt + "' && " +
                             "XDG_DATA_HOME='" + (dir / "data") + "' '" + whittleBinary() + "' '" + Bundles::shared().dense() + "' '" +
                             mnt + "/" + target + "' --product x10 --factory repair; status=$?; ls -A '" + mnt +
                             "' > '" + (dir / "left.txt") + "'; exit $status";
        ProgramResult result = runProgram({"/usr/bin/unshare", "-rm", "/bin/sh", "-c", script});
        for (const auto& line : linesOf(readFile(dir / "left.txt"))) {
            if (!line.empty()) left.insert(line);
        }
        return result;
    }
    TempDir dir;
};

TEST_F(WhittleOnSmallFileSystems, FullFileSystemFailsWithTheReasonAndLeavesNothing) {
    for (std::string target : {"out", "out.zip", "out.dmg", "out.bom"}) {
        SCOPED_TRACE(target);
        std::set<std::string> left;
        ProgramResult result = whittleOnTmpfs("size=4m", target, left);
        if (target == "out.bom") {
            // A file list of a few paths fits; the run succeeds.
            EXPECT_EQ(result.status, 0) << result.out;
            EXPECT_EQ(left, std::set<std::string>{"out.bom"});
            continue;
        }
        EXPECT_NE(result.status, 0);
        EXPECT_TRUE(contains(result.out + result.err, "No space left on device")) << result.out << result.err;
        for (const auto& name : left) EXPECT_TRUE(name.starts_with(".Trash")) << "left behind: " << name;
    }
}

TEST_F(WhittleOnSmallFileSystems, ReadOnlyFileSystemFailsWithTheReasonAndLeavesNothing) {
    for (std::string target : {"out", "out.zip", "out.dmg", "out.bom"}) {
        SCOPED_TRACE(target);
        std::set<std::string> left;
        ProgramResult result = whittleOnTmpfs("ro,size=4m", target, left);
        EXPECT_NE(result.status, 0);
        EXPECT_TRUE(contains(result.out + result.err, "Read-only file system")) << result.out << result.err;
        EXPECT_EQ(left, std::set<std::string>{});
    }
}

}  // namespace

namespace {

// ---- a disk-image source ----

// A disk image of a bundle, whose volume appears under the volumes folder once attached.
class WhittleStoppedWithImageSource : public testing::Test {
protected:
    void makeImage(const std::string& volumeName) {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair"}, 1, true}};
        plan.bytesPerFile = 20'000'000;
        bundlegen::generateBundle(dir / volumeName, plan);
        auto created = runProgram({WHITTLE_DISKIMAGE_BINARY, "create", "-srcfolder", dir / volumeName, image, "-format", "UDRO"});
        ASSERT_EQ(created.status, 0) << created.err;
        volume = std::string(WHITTLE_TEST_VOLUMES_DIR) + "/" + volumeName;
    }
    TempDir dir;
    std::string image = dir / "source.dmg";
    std::string volume;
};

TEST_F(WhittleStoppedWithImageSource, TheImageThisRunAttachedIsEjected) {
    ASSERT_NO_FATAL_FAILURE(makeImage("stopped" + std::to_string(::getpid())));

    for (int moment : {300, 700, 1200, 2000}) {
        SCOPED_TRACE("stopped after " + std::to_string(moment) + " ms");
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        options.signalNumber = SIGINT;
        options.signalAfterMilliseconds = moment;
        options.signalProcessGroup = true;
        ProgramResult stopped = runWhittle({image, dir / "out", "--product", "x10", "--factory", "repair"}, options);
        EXPECT_TRUE(noProcessLeftMentioning(dir.path()));
        EXPECT_FALSE(pathExists(volume)) << "the volume stays attached after: " << stopped.out;
        if (stopped.status != 0) {
            EXPECT_FALSE(pathExists(dir / "out"));
        }
        removeTree(dir / "out");
        removeTree(dir / "data");
    }
}

TEST_F(WhittleStoppedWithImageSource, AVolumeLeftByAKilledRunIsAttachedAfreshAndEjected) {
    ASSERT_NO_FATAL_FAILURE(makeImage("killed" + std::to_string(::getpid())));

    // Killed as soon as it has attached the volume, before it could eject it.
    RunOptions options;
    options.environment = {{"XDG_DATA_HOME", dir / "data"}};
    options.signalNumber = SIGKILL;
    options.signalWhenOutputContains = "!!! NOTE: image mounted at: ";
    ProgramResult killed = runWhittle({image, dir / "out", "--product", "x10", "--factory", "repair"}, options);
    EXPECT_TRUE(noProcessLeftMentioning(dir.path()));
    ASSERT_EQ(killed.status, 128 + SIGKILL) << "the run ended before the volume was attached: " << killed.out;
    ASSERT_TRUE(pathExists(volume));

    options.signalNumber = 0;
    options.signalWhenOutputContains.clear();
    ProgramResult next = runWhittle({image, "--product", "x10", "--factory", "repair"}, options);
    EXPECT_EQ(next.status, 0) << next.out;
    EXPECT_TRUE(contains(next.out, "!!! NOTE: image mounted at: ")) << next.out;
    EXPECT_FALSE(contains(next.out, "previously mounted")) << next.out;
    EXPECT_FALSE(pathExists(volume));
}

}  // namespace
