// Whole runs of the driver inside the test process: the tools are answered by a fake
// runner, the bundle is read from memory, the Trash is the test's own, and the log is
// saved to a file in the test's temporary folder.
#include "driver/RunDriver.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "BundleGenerator.hpp"
#include "FakeToolRunner.hpp"
#include "HelperProcesses.hpp"
#include "MemoryBundleFiles.hpp"
#include "TestSupport.hpp"
#include "driver/Interrupts.hpp"
#include "driver/CommandLine.hpp"
#include "driver/Leftovers.hpp"
#include "engine/Stripper3.hpp"
#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/PropertyList.hpp"

namespace whittle {
namespace {

namespace fs = std::filesystem;
using test::FakeToolRunner;
using test::MemoryBundleFiles;
using test::TempDir;
using test::folderTree;
using test::kStopSignals;
using test::launchFailure;
using test::pathExists;
using test::readFile;
using test::toolResult;
using test::writeFile;

const std::string kBomTool = "/fake/tools/whittle-bom";
const std::string kCopyTool = "/fake/tools/whittle-copy";
const std::string kDiskImageTool = "/fake/tools/whittle-diskimage";
const std::string kZipTool = "/fake/tools/zip";
const std::string kOpensslTool = "/fake/tools/openssl";
const std::string kChmodTool = "/fake/tools/chmod";

// What a bundle holds: files with their bytes and links with their targets.
struct BundleContent {
    std::map<std::string, std::string> files;
    std::map<std::string, std::string> links;
};

// A small real bundle (one product, one factory variant, no optional material), made
// once by the generator and held in memory.
const BundleContent& smallBundle() {
    static const BundleContent content = [] {
        TempDir folder;
        bundlegen::BundlePlan plan;
        plan.products.push_back(bundlegen::ProductPlan{.product = "x10", .factoryVariants = {"repair"}});
        plan.support = bundlegen::SupportPlan{.debugFolder = false, .homeDiagnostics = false, .sdk = false,
                                              .bundleImages = false, .factoryDiskImage = false,
                                              .firmwareArchives = false,
                                              .restoreTools = bundlegen::SupportPlan::RestoreTools::PlainFile,
                                              .invisibles = false};
        auto generated = bundlegen::generateBundle(folder / "bundle", plan);
        BundleContent bundle;
        for (const auto& relative : generated.files) {
            std::string path = generated.root + "/" + relative;
            if (fs::is_symlink(path)) {
                bundle.links[relative] = fs::read_symlink(path).string();
            } else {
                bundle.files[relative] = readFile(path);
            }
        }
        return bundle;
    }();
    return content;
}

// The kept paths a file list (or a fake BOM made from one) names: "./PATH" lines.
std::vector<std::string> listedPaths(const std::string& list) {
    std::vector<std::string> paths;
    for (const auto& line : test::linesOf(list)) {
        if (line.starts_with("./")) paths.push_back(line.substr(2));
    }
    return paths;
}

std::string treeListing(const std::string& folder) {
    std::string listing;
    for (const auto& path : folderTree(folder)) listing += path + "\n";
    return listing;
}

// Lines of a log, each with its line end.
std::string lines(std::initializer_list<std::string> each) {
    std::string text;
    for (const auto& line : each) text += line + "\n";
    return text;
}

struct RunOutcome {
    int status = -1;
    std::string log;  // what the run added to the logger's history
    std::string out;
    std::string err;
};

class RunDriverTest : public testing::Test {
protected:
    void SetUp() override {
        for (int signalNumber : kStopSignals) ::sigaction(signalNumber, nullptr, &savedActions_[signalNumber]);
        forgetStopSignal();
        LogObject::sharedLogger().setUseTTY(false);
        fs::create_directories(volumes());
        fs::create_directories(source());
        scriptWorkingTools();
    }

    void TearDown() override {
        forgetStopSignal();
        for (int signalNumber : kStopSignals) ::sigaction(signalNumber, &savedActions_[signalNumber], nullptr);
    }

    // The whole program with these arguments; the logger's history starts empty, as it
    // does in a new process, so the saved log can be compared with it.
    RunOutcome run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "whittle");
        LogObject::sharedLogger().setHistoricalLog("");
        RunServices services{
            .toolRunner = tools,
            .toolPaths = ToolPaths{kBomTool, kCopyTool, kDiskImageTool, kZipTool, kOpensslTool, kChmodTool, volumes()},
            .openBundle = [this](const std::string& root) { return openBundle(root); },
            .moveToTrash = [this](const std::string& path, std::string& error) { return moveToTrash(path, error); },
        };
        RunOutcome outcome;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        outcome.status = runWhittle(arguments, services, logPath());
        outcome.err = testing::internal::GetCapturedStderr();
        outcome.out = testing::internal::GetCapturedStdout();
        outcome.log = LogObject::sharedLogger().historicalLog();
        return outcome;
    }

    // The log file holds the history as it was when saved; a failed run then says where it is.
    void expectSavedLog(const RunOutcome& outcome) {
        ASSERT_TRUE(pathExists(logPath()));
        std::string saved = readFile(logPath());
        if (outcome.status == 0) {
            EXPECT_EQ(saved, outcome.log);
        } else {
            EXPECT_EQ(saved + "XXX ERROR: log file in " + logPath() + "\n", outcome.log);
        }
    }

    std::shared_ptr<const BundleFiles> openBundle(const std::string& root) {
        openedRoots.push_back(root);
        if (!bundleOpens) return nullptr;
        return memoryBundle(root);
    }

    std::shared_ptr<MemoryBundleFiles> memoryBundle(const std::string& root) const {
        auto files = std::make_shared<MemoryBundleFiles>(root);
        for (const auto& [relative, bytes] : bundle.files) files->file(relative, bytes);
        for (const auto& [relative, target] : bundle.links) files->link(relative, target);
        return files;
    }

    // The default engine on its own over the same bundle, for the request "--product x10
    // --factory repair": what it logs while stripping, and the paths it keeps. A run's
    // log holds these lines between the driver's own.
    std::string engineLog() const { return strippedByEngine().first; }
    std::vector<std::string> keptPaths() const {
        Value kept = strippedByEngine().second;
        std::vector<std::string> paths;
        for (const auto& path : kept.elements()) paths.emplace_back(path.text());
        return paths;
    }
    std::pair<std::string, Value> strippedByEngine() const {
        auto engine = Stripper3::stripperForBundle(memoryBundle(source()), Value::stringArray({"x10"}),
                                                   Value::stringArray({"repair"}), initialStripOptions());
        std::string before = LogObject::sharedLogger().historicalLog();
        testing::internal::CaptureStdout();
        EXPECT_EQ(engine->strip(), 0);
        testing::internal::GetCapturedStdout();
        return {LogObject::sharedLogger().historicalLog().substr(before.size()), engine->strippedManifest()};
    }

    bool moveToTrash(const std::string& path, std::string& error) {
        trashAsked.push_back(path);
        if (!trashWorks) {
            error = "no Trash here";
            return false;
        }
        fs::create_directories(trash());
        fs::rename(path, trash() + "/" + lastPathComponent(path));
        return true;
    }

    // Tools that do what the real ones would: the BOM is the file list itself, the copy
    // tool copies the listed paths out of the bundle (or archives their list), zip adds
    // what its working folder holds, and a disk image lists the folder it was made from.
    void scriptWorkingTools() {
        tools.answer(kBomTool, toolResult(0), [](const ToolCall& call) {
            writeFile(call.arguments.at(3), readFile(call.arguments.at(2)));
        });
        tools.answer(kCopyTool, "-vV", toolResult(0), [this](const ToolCall& call) { copyListedPaths(call); });
        tools.answer(kCopyTool, "-ck", toolResult(0), [](const ToolCall& call) {
            writeFile(call.arguments.back(), "archive of:\n" + readFile(call.arguments.at(4)));
        });
        tools.answer(kZipTool, toolResult(0), [](const ToolCall& call) {
            // The archive comes just before the folder added, relative to where zip runs.
            fs::path archive = fs::path(call.workingFolder) / call.arguments.at(call.arguments.size() - 2);
            std::ofstream(archive, std::ios::app)
                << "updated with:\n" << treeListing(call.workingFolder);
        });
        tools.answer(kDiskImageTool, "create", toolResult(0), [](const ToolCall& call) {
            writeFile(call.arguments.at(3), "image of:\n" + treeListing(call.arguments.at(2)));
        });
        tools.answer(kDiskImageTool, "imageinfo", toolResult(0, "\nchecksum CRC32 $0BADF00D\n\n"));
    }

    void copyListedPaths(const ToolCall& call) {
        const std::string& destination = call.arguments.back();
        fs::create_directories(destination);
        for (const auto& relative : listedPaths(readFile(call.arguments.at(4)))) {
            std::string path = destination + "/" + relative;
            if (auto file = bundle.files.find(relative); file != bundle.files.end()) {
                writeFile(path, file->second);
            } else if (auto link = bundle.links.find(relative); link != bundle.links.end()) {
                fs::create_directories(fs::path(path).parent_path());
                fs::create_symlink(link->second, path);
            } else {
                fs::create_directories(path);
            }
        }
    }

    // The disk image tool attaches the image at `mountPoint` (made as it would be).
    void scriptAttachAt(const std::string& mountPoint, const std::string& deviceEntry = "/dev/disk9") {
        Value entity = Value::dictionary();
        entity.set("dev-entry", Value::string(deviceEntry));
        entity.set("mount-point", Value::string(mountPoint));
        Value answer = Value::dictionary();
        answer.set("system-entities", Value::array({entity}));
        tools.answer(kDiskImageTool, "attach", toolResult(0, xmlPropertyList(answer)),
                     [mountPoint](const ToolCall&) { fs::create_directories(mountPoint); });
    }

    std::string source() const { return dir / "bundle"; }
    std::string image() const { return dir / "Bundle.dmg"; }
    std::string volumes() const { return dir / "Volumes"; }
    std::string trash() const { return dir / "Trash"; }
    std::string logPath() const { return dir / "run.log"; }
    std::string staged(const std::string& target) const { return stagingPathFor(target, ::getpid()); }
    std::string temporaryFolder(const std::string& target) const { return temporaryFolderFor(target, ::getpid()); }

    TempDir dir;
    FakeToolRunner tools;
    BundleContent bundle = smallBundle();
    bool bundleOpens = true;
    bool trashWorks = true;
    std::vector<std::string> openedRoots;
    std::vector<std::string> trashAsked;

private:
    std::map<int, struct sigaction> savedActions_;
};

// The files the engine writes anew for that request.
const std::set<std::string> kModifiedFiles = {
    "Restore/BuildManifest.plist", "Restore/Firmware/device_map.plist", "Restore/Firmware/device_map.txt",
    "Restore/Firmware/platform_keys.plist", "Restore/Firmware/target_map.txt", "Restore/Restore.plist",
    "Restore/X10UserOS.dmg", "Restore/c1Release.dmg", "WhittleCookie.plist"};

const std::vector<std::string> kRepairRequest = {"--product", "x10", "--factory", "repair"};

std::vector<std::string> withRequest(std::vector<std::string> arguments, std::vector<std::string> more = {}) {
    arguments.insert(arguments.end(), kRepairRequest.begin(), kRepairRequest.end());
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

// ---- the source: a folder, or a disk image to attach ----

TEST_F(RunDriverTest, ValidationReadsTheBundleThroughTheOpenerAndPasses) {
    auto outcome = run(withRequest({source()}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() + "Validation PASSED.\n");
    EXPECT_TRUE(engineLog().find(">>> Work List\n") != std::string::npos);
    EXPECT_EQ(outcome.out, "Validation PASSED.\n");  // no colours: standard error is no terminal
    EXPECT_EQ(openedRoots, std::vector<std::string>{source()});
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::is_empty(source()));  // the folder on disk is empty: everything came from memory
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, MountFailureSaysSoWithTheToolsLastFiveErrorLinesAndSkipsTheEject) {
    writeFile(image(), "");
    tools.answer(kDiskImageTool, "attach", toolResult(3, "", "one\ntwo\nthree\nfour\nfive\nsix\n"));
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.log, lines({">>> mounting disk image \"" + image() + "\".",
                                  "XXX ERROR: unable to mount source disk image: " + image() + ".",
                                  "!!! NOTE: two", "!!! NOTE: three", "!!! NOTE: four", "!!! NOTE: five",
                                  "!!! NOTE: six", "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(tools.callLines(), std::vector<std::string>{"whittle-diskimage attach " + image() + " -plist"});
    EXPECT_TRUE(openedRoots.empty());
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, DiskImageToolThatCannotStartIsNamed) {
    writeFile(image(), "");
    tools.answer(kDiskImageTool, "attach", launchFailure(ENOENT));
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.log, lines({">>> mounting disk image \"" + image() + "\".",
                                  "XXX ERROR: unable to mount source disk image: " + image() + ".",
                                  "!!! NOTE: cannot start \"whittle-diskimage\" at \"" + kDiskImageTool +
                                      "\" - No such file or directory.",
                                  "XXX ERROR: log file in " + logPath()}));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, UndecipherableAttachOutputEndsTheRunWithStatusZero) {
    writeFile(image(), "");
    tools.answer(kDiskImageTool, "attach", toolResult(0, "attached somewhere\n"));
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, lines({">>> mounting disk image \"" + image() + "\".",
                                  "XXX ERROR: unable to decipher dimgtool output - cannot find leading <?xml .."}));
    EXPECT_EQ(tools.calls().size(), 1u);  // no eject: the image stays as it is
    EXPECT_TRUE(openedRoots.empty());
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, AttachOutputWithoutAMountPointEndsTheRunWithStatusZero) {
    writeFile(image(), "");
    Value entity = Value::dictionary();
    entity.set("dev-entry", Value::string("/dev/disk9"));
    Value answer = Value::dictionary();
    answer.set("system-entities", Value::array({entity}));
    tools.answer(kDiskImageTool, "attach", toolResult(0, xmlPropertyList(answer)));
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log,
              lines({">>> mounting disk image \"" + image() + "\".", "XXX ERROR: no mount points detected."}));
    EXPECT_EQ(tools.calls().size(), 1u);  // no device entry kept, so nothing to eject
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, FreshlyMountedImageIsReadAtItsMountPointAndEjected) {
    writeFile(image(), "");
    std::string mountPoint = volumes() + "/Bundle";
    scriptAttachAt(mountPoint);
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, lines({">>> mounting disk image \"" + image() + "\".",
                                  "!!! NOTE: image mounted at: " + mountPoint + ".", ">>> analyzing bundle."}) +
                               engineLog() + lines({"Validation PASSED.", ">>> unmounting disk image."}));
    EXPECT_EQ(openedRoots, std::vector<std::string>{mountPoint});
    EXPECT_EQ(tools.callLines(), (std::vector<std::string>{"whittle-diskimage attach " + image() + " -plist",
                                                           "whittle-diskimage eject /dev/disk9"}));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ImageMountedBeforeTheRunIsUsedInPlaceAndNotEjected) {
    writeFile(image(), "");
    std::string mountPoint = volumes() + "/Bundle";
    fs::create_directories(mountPoint);
    scriptAttachAt(mountPoint);
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log,
              lines({">>> mounting disk image \"" + image() + "\".",
                     "!!! NOTE: image previously mounted at: " + mountPoint + ".", ">>> analyzing bundle."}) +
                  engineLog() + "Validation PASSED.\n");
    EXPECT_EQ(tools.callLines(), std::vector<std::string>{"whittle-diskimage attach " + image() + " -plist"});
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, EjectFailureBecomesTheStatusOfAnOtherwiseGoodRun) {
    writeFile(image(), "");
    scriptAttachAt(volumes() + "/Bundle", "/dev/disk4");
    tools.answer(kDiskImageTool, "eject", toolResult(16, "", "resource busy\n"));
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 16);
    EXPECT_TRUE(outcome.log.ends_with(lines({"Validation PASSED.", ">>> unmounting disk image.",
                                             "XXX ERROR: unable to eject source disk image.", "!!! NOTE: resource busy",
                                             "XXX ERROR: log file in " + logPath()})))
        << outcome.log;
    EXPECT_EQ(tools.callLines().back(), "whittle-diskimage eject /dev/disk4");
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, EjectFailureLeavesAnEarlierFailureStatus) {
    writeFile(image(), "");
    scriptAttachAt(volumes() + "/Bundle");
    tools.answer(kDiskImageTool, "eject", toolResult(16));
    bundle.files.erase("Restore/BuildManifest.plist");
    auto outcome = run(withRequest({image()}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.log.ends_with(lines({"Validation FAILED.", ">>> unmounting disk image.",
                                             "XXX ERROR: unable to eject source disk image.",
                                             "XXX ERROR: log file in " + logPath()})))
        << outcome.log;
}

// ---- the engine and the report modes ----

TEST_F(RunDriverTest, BundleThatCannotBeOpenedLeavesNoEngine) {
    bundleOpens = false;
    auto outcome = run(withRequest({source()}));
    EXPECT_EQ(outcome.status, 22);
    EXPECT_EQ(outcome.log, lines({"XXX ERROR: cannot create stripper.", "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(outcome.out, outcome.log);
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ValidProductsAreReportedAsAPropertyList) {
    writeFile(image(), "");
    scriptAttachAt(volumes() + "/Bundle");
    auto outcome = run({image(), "--validProducts"});
    EXPECT_EQ(outcome.status, 0);
    Value report = Value::dictionary();
    report.set("validProducts", Value::stringArray({"x10"}));
    EXPECT_EQ(outcome.out,
              lines({"!!! NOTE: image mounted at: " + volumes() + "/Bundle."}) + xmlPropertyList(report) + "\n");
    // Attached with verification: only the variants report skips it.
    EXPECT_EQ(tools.callLines().front(), "whittle-diskimage attach " + image() + " -plist");
    EXPECT_EQ(tools.callLines().back(), "whittle-diskimage eject /dev/disk9");
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ReportsFailWhenTheBundleOffersNoProducts) {
    bundle.files.erase("Restore/BuildManifest.plist");
    for (const char* mode : {"--validProducts", "--validVariants"}) {
        auto outcome = run({source(), mode});
        EXPECT_EQ(outcome.status, 2) << mode;
        EXPECT_EQ(outcome.log, lines({"XXX ERROR: BuildManifest.plist cannot be read.",
                                      "XXX ERROR: cannot get valid products.", "XXX ERROR: log file in " + logPath()}))
            << mode;
        EXPECT_EQ(outcome.out, outcome.log) << mode;
        expectSavedLog(outcome);
    }
}

TEST_F(RunDriverTest, ValidVariantsOfTheRequestedProduct) {
    auto outcome = run({source(), "--validVariants", "--product", "x10"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, "");
    Value report = Value::dictionary();
    report.set("validProducts", Value::stringArray({"x10"}));
    report.set("validVariants", Value::stringArray({"repair"}));
    EXPECT_EQ(outcome.out, xmlPropertyList(report) + "\n");
    EXPECT_EQ(openedRoots.size(), 1u);  // one engine, one bundle
}

TEST_F(RunDriverTest, ValidVariantsChangeAProductTheBundleLacksToItsFirstValidOne) {
    writeFile(image(), "");
    scriptAttachAt(volumes() + "/Bundle");
    auto outcome = run({image(), "--validvariants", "--product", "x30"});
    EXPECT_EQ(outcome.status, 0);
    std::string note = ">>> NOTE changing products to (\n    x10\n)\n";
    EXPECT_EQ(outcome.log, lines({">>> mounting disk image \"" + image() + "\".",
                                  "!!! NOTE: image mounted at: " + volumes() + "/Bundle."}) +
                               note + ">>> unmounting disk image.\n");
    Value report = Value::dictionary();
    report.set("validProducts", Value::stringArray({"x10"}));
    report.set("validVariants", Value::stringArray({"repair"}));
    EXPECT_EQ(outcome.out, lines({"!!! NOTE: image mounted at: " + volumes() + "/Bundle."}) + note +
                               xmlPropertyList(report) + "\n");
    EXPECT_EQ(tools.callLines().front(), "whittle-diskimage attach " + image() + " -plist -noverify");
    expectSavedLog(outcome);
}

// ---- the strip, the verdict and the dry run ----

TEST_F(RunDriverTest, BundleWithoutAManifestFailsValidation) {
    bundle.files.erase("Restore/BuildManifest.plist");
    auto outcome = run(withRequest({source()}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.log, lines({">>> analyzing bundle.", "XXX ERROR: BuildManifest.plist cannot be read.",
                                  "Validation FAILED.", "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(outcome.out, outcome.log.substr(outcome.log.find('\n') + 1));  // plain lines are not printed
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, FailedStripWithATargetWritesNothing) {
    bundle.files.erase("Restore/BuildManifest.plist");
    auto outcome = run(withRequest({source(), dir / "out.zip"}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.log, lines({">>> analyzing bundle.", "XXX ERROR: BuildManifest.plist cannot be read.",
                                  "XXX ERROR: log file in " + logPath()}));
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_EQ(folderTree(dir.path()), (std::set<std::string>{"Volumes", "bundle", "run.log"}));
}

TEST_F(RunDriverTest, KeptPathMissingFromTheBundleIsWarnedAboutBeforeTheVerdict) {
    bundle.files.erase("Restore/kernelcache.release.x10");
    auto outcome = run(withRequest({source()}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.log.ends_with(lines(
        {"!!! WARNING: kept path \"Restore/kernelcache.release.x10\" is not in the bundle.", "Validation PASSED."})))
        << outcome.log;
}

TEST_F(RunDriverTest, DryRunListsWhatWouldBeWrittenAndLeavesTheTargetAlone) {
    writeFile(dir / "out/mine.txt", "mine");
    auto outcome = run(withRequest({source(), dir / "out"}, {"--dryrun", "--ov"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() + "Validation PASSED.\n");
    std::string copied = "Files to be copied:\n";
    for (const auto& path : keptPaths()) copied += "\t" + path + "\n";
    EXPECT_TRUE(outcome.out.starts_with(copied + "\nFiles to be created:\n")) << outcome.out;
    EXPECT_TRUE(outcome.out.ends_with("}\nValidation PASSED.\n"));
    EXPECT_EQ(test::dryRunListsOf(outcome.out).created, kModifiedFiles);
    EXPECT_TRUE(outcome.out.find("\tRestore/X10UserOS.dmg\t\t->\tX10AP-repairshippingsettings-0-os.dmg\n") !=
                std::string::npos);
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(trashAsked.empty());
    EXPECT_EQ(folderTree(dir / "out"), std::set<std::string>{"mine.txt"});
}

TEST_F(RunDriverTest, TestPassReportsOnStandardErrorOnly) {
    auto outcome = run(withRequest({source()}, {"--doTest"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "Validation PASSED.\n");
    EXPECT_TRUE(outcome.err.find("] test: validProducts ") != std::string::npos) << outcome.err;
    EXPECT_TRUE(outcome.err.find("] test: strip returned 0\n") != std::string::npos) << outcome.err;
    EXPECT_EQ(openedRoots.size(), 1u);  // both engines read the one bundle
}

TEST_F(RunDriverTest, SwitchesOfOneCommandLineDoNotCarryOverToTheNext) {
    auto verbose = run(withRequest({source(), dir / "first.bom"}, {"--legacy", "--verbose"}));
    EXPECT_EQ(verbose.status, 0) << verbose.log;
    EXPECT_TRUE(verbose.out.find(">>> analyzing bundle.\n") != std::string::npos);
    ASSERT_EQ(tools.calls().size(), 1u);
    EXPECT_TRUE(tools.calls()[0].echoOutput);
    EXPECT_EQ(useLegacyStripper, 1);

    auto quiet = run(withRequest({source(), dir / "second.bom"}));
    EXPECT_EQ(quiet.status, 0) << quiet.log;
    EXPECT_EQ(quiet.out, "");  // plain lines are printed in verbose mode only
    ASSERT_EQ(tools.calls().size(), 2u);
    EXPECT_FALSE(tools.calls()[1].echoOutput);
    EXPECT_EQ(useLegacyStripper, 0);
    EXPECT_EQ(verboseMode, 0);
}

// ---- the targets ----

// The whole stripped bundle: the kept paths, the files the engine writes anew, and
// the folders they lie in.
std::set<std::string> strippedBundleTree(const std::vector<std::string>& kept) {
    std::set<std::string> paths(kept.begin(), kept.end());
    paths.insert(kModifiedFiles.begin(), kModifiedFiles.end());
    return test::withParentFolders(paths);
}

// What the driver logs while it writes the modified files of the request.
std::string updateLines() {
    return lines({">>> updating plist file \"BuildManifest.plist\".", ">>> updating plist file \"device_map.plist\".",
                  ">>> updating text file \"device_map.txt\".", ">>> updating plist file \"platform_keys.plist\".",
                  ">>> updating text file \"target_map.txt\".", ">>> updating plist file \"Restore.plist\".",
                  ">>> symlinking \"X10UserOS.dmg\" -> \"X10AP-repairshippingsettings-0-os.dmg\".",
                  ">>> symlinking \"c1Release.dmg\" -> \"x10ap-repairshippingsettings-0-restore.dmg\".",
                  ">>> updating plist file \"WhittleCookie.plist\"."});
}

TEST_F(RunDriverTest, FolderTargetHoldsTheKeptFilesAndTheModifiedOnes) {
    std::string target = dir / "out";
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> copying bundle to \"out\".", ">>> writeFileListToTempFile.",
                                      ">>> updating files in \"out\"."}) +
                               updateLines());
    ASSERT_EQ(tools.calls().size(), 3u);
    const ToolCall& bom = tools.calls()[0];
    const ToolCall& copy = tools.calls()[1];
    EXPECT_EQ(bom.path, kBomTool);
    EXPECT_EQ(copy.arguments, (std::vector<std::string>{"-vV", "--noextattr", "--noacl", "--bom", bom.arguments.at(3),
                                                        source(), staged(target)}));
    EXPECT_EQ(tools.callLines()[2], "chmod -R -v -v u+rw " + staged(target));
    EXPECT_FALSE(pathExists(bom.arguments.at(2)));  // the file list and the BOM are gone
    EXPECT_FALSE(pathExists(bom.arguments.at(3)));
    std::set<std::string> expected = strippedBundleTree(keptPaths());
    EXPECT_EQ(folderTree(target), expected);
    EXPECT_EQ(fs::read_symlink(target + "/Restore/X10UserOS.dmg"), "X10AP-repairshippingsettings-0-os.dmg");
    EXPECT_EQ(mutableDictionaryAtPath(target + "/WhittleCookie.plist").get("rawArguments").count(), 7u);
    EXPECT_FALSE(pathExists(staged(target)));
    EXPECT_TRUE(trashAsked.empty());
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, BomTargetListsTheKeptPaths) {
    std::string target = dir / "out.bom";
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> creating BOM \"out.bom\".", ">>> writeFileListToTempFile."}));
    EXPECT_EQ(tools.callLines().size(), 1u);
    EXPECT_EQ(tools.calls()[0].arguments.back(), staged(target));
    std::string list = ".\n";
    for (const auto& path : keptPaths()) list += "./" + path + "\n";
    EXPECT_EQ(readFile(target), list);
    EXPECT_EQ(folderTree(dir.path()), (std::set<std::string>{"Volumes", "bundle", "out.bom", "run.log"}));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, BomToolFailureLeavesNoTarget) {
    std::string target = dir / "out.bom";
    tools.answer(kBomTool, toolResult(2, "", "bom: cannot write\n"));
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> creating BOM \"out.bom\".", ">>> writeFileListToTempFile.",
                                      "XXX ERROR: unable to create BOM.", "!!! NOTE: bom: cannot write",
                                      ">>> cleaning up...", "XXX ERROR: log file in " + logPath()}));
    EXPECT_FALSE(pathExists(tools.calls()[0].arguments.at(2)));  // the file list is deleted
    EXPECT_TRUE(trashAsked.empty());  // the staged BOM was never made
    EXPECT_EQ(folderTree(dir.path()), (std::set<std::string>{"Volumes", "bundle", "run.log"}));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, CopyFailureSendsThePartialFolderToTheTrash) {
    std::string target = dir / "out";
    tools.answer(kCopyTool, "-vV", toolResult(74, "", "copy: input/output error\n"),
                 [](const ToolCall& call) { writeFile(call.arguments.back() + "/Restore/part", "half"); });
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 74);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> copying bundle to \"out\".", ">>> writeFileListToTempFile.",
                                      "XXX ERROR: copying manifest to target failed.",
                                      "!!! NOTE: copy: input/output error", ">>> cleaning up...",
                                      "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(tools.callsOf(kChmodTool).size(), 0u);
    EXPECT_EQ(trashAsked, std::vector<std::string>{staged(target)});
    EXPECT_EQ(readFile(trash() + "/" + lastPathComponent(staged(target)) + "/Restore/part"), "half");
    EXPECT_FALSE(pathExists(target));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ZipTargetIsArchivedUpdatedAndChecksummedUnderItsOwnName) {
    std::string target = dir / "out.zip";
    tools.answer(kOpensslTool, toolResult(0, "MD5(" + staged(target) + ")= 0123456789abcdef\n"));
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> writeFileListToTempFile.", ">>> creating ZIP archive \"out.zip\".",
                                      ">>> updating files in ZIP archive \"out.zip\"."}) +
                               updateLines() +
                               lines({">>> checksumming ZIP archive \"out.zip\".",
                                      "MD5(" + target + ")= 0123456789abcdef", "", ">>> cleaning up..."}));
    std::string bomPath = temporaryFolder(target) + "/out.bom";
    std::string bundleFolder = temporaryFolder(target) + "/out";
    ASSERT_EQ(tools.callLines().size(), 4u);
    EXPECT_EQ(tools.calls()[0].arguments.back(), bomPath);
    EXPECT_EQ(tools.calls()[1].arguments, (std::vector<std::string>{"-ck", "--noextattr", "--noacl", "--bom", bomPath,
                                                                    source(), staged(target)}));
    EXPECT_EQ(tools.calls()[2].arguments,
              (std::vector<std::string>{"-rvy", "-b", temporaryFolder(target), staged(target), "."}));
    EXPECT_EQ(tools.calls()[2].workingFolder, bundleFolder);
    EXPECT_EQ(tools.callLines()[3], "openssl md5 " + staged(target));
    std::string archive = readFile(target);
    EXPECT_TRUE(archive.starts_with("archive of:\n.\n./" + keptPaths().front() + "\n")) << archive;
    EXPECT_TRUE(archive.find("updated with:\n") != std::string::npos);
    EXPECT_TRUE(archive.find("\nWhittleCookie.plist\n") != std::string::npos) << archive;
    // The temporary folder with the BOM went to the Trash; nothing else is left beside the target.
    EXPECT_EQ(trashAsked, std::vector<std::string>{temporaryFolder(target)});
    EXPECT_TRUE(pathExists(trash() + "/" + lastPathComponent(temporaryFolder(target)) + "/out.bom"));
    EXPECT_FALSE(pathExists(temporaryFolder(target)));
    EXPECT_FALSE(pathExists(staged(target)));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ZipCopyFailureLeavesNoArchiveNoBomAndNoTemporaryFolder) {
    std::string target = dir / "out.zip";
    tools.answer(kCopyTool, "-ck", toolResult(28, "", "copy: no space left on device\n"),
                 [](const ToolCall& call) { writeFile(call.arguments.back(), "partial archive"); });
    trashWorks = false;
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 28);
    std::string temporaryName = lastPathComponent(temporaryFolder(target));
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> writeFileListToTempFile.", ">>> creating ZIP archive \"out.zip\".",
                                      "XXX ERROR: unable to create final ZIP archive.",
                                      "!!! NOTE: copy: no space left on device", ">>> cleaning up...",
                                      ">>> NOTE cannot move \"" + temporaryName + "\" to Trash - deleted instead.",
                                      ">>> NOTE cannot move \"" + lastPathComponent(staged(target)) +
                                          "\" to Trash - deleted instead.",
                                      "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(trashAsked, (std::vector<std::string>{temporaryFolder(target), staged(target)}));
    EXPECT_EQ(tools.callsOf(kZipTool).size(), 0u);
    EXPECT_EQ(folderTree(dir.path()), (std::set<std::string>{"Volumes", "bundle", "run.log"}));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ZipUpdateFailureSendsTheArchiveAndTheTemporaryFolderToTheTrash) {
    std::string target = dir / "out.zip";
    tools.answer(kZipTool, toolResult(15, "", "zip I/O error: Broken pipe\nzip error: Output file write failure\n"));
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 15);
    EXPECT_EQ(outcome.log,
              ">>> analyzing bundle.\n" + engineLog() +
                  lines({">>> writeFileListToTempFile.", ">>> creating ZIP archive \"out.zip\".",
                         ">>> updating files in ZIP archive \"out.zip\"."}) +
                  updateLines() +
                  lines({"XXX ERROR: unable to update files in ZIP archive.", "!!! NOTE: zip I/O error: Broken pipe",
                         "!!! NOTE: zip error: Output file write failure", ">>> cleaning up...",
                         "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(trashAsked, (std::vector<std::string>{temporaryFolder(target), staged(target)}));
    EXPECT_TRUE(readFile(trash() + "/" + lastPathComponent(staged(target))).starts_with("archive of:\n"));
    EXPECT_EQ(tools.callsOf(kOpensslTool).size(), 0u);
    EXPECT_FALSE(pathExists(target));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, AZipThatDiesLeavesItsOwnWorkingArchiveOnlyInTheTemporaryFolder) {
    std::string target = dir / "out.zip";
    tools.answer(kZipTool, toolResult(134, "", "free(): double free detected in tcache 2\n"),
                 [](const ToolCall& call) {
                     ASSERT_GE(call.arguments.size(), 3u);
                     ASSERT_EQ(call.arguments[1], "-b");
                     writeFile(call.arguments[2] + "/ziWkaYev", "half an archive");
                 });
    trashWorks = false;
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 134);
    EXPECT_TRUE(outcome.log.ends_with(lines({"XXX ERROR: unable to update files in ZIP archive.",
                                             "!!! NOTE: free(): double free detected in tcache 2",
                                             ">>> cleaning up...",
                                             ">>> NOTE cannot move \"" + lastPathComponent(temporaryFolder(target)) +
                                                 "\" to Trash - deleted instead.",
                                             ">>> NOTE cannot move \"" + lastPathComponent(staged(target)) +
                                                 "\" to Trash - deleted instead.",
                                             "XXX ERROR: log file in " + logPath()})))
        << outcome.log;
    EXPECT_EQ(folderTree(dir.path()), (std::set<std::string>{"Volumes", "bundle", "run.log"}));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, EncryptedDiskImageTargetIsMadeFromTheUpdatedCopy) {
    std::string target = dir / "out.dmg";
    auto outcome = run(withRequest({source(), target}, {"--encrypt"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log,
              ">>> analyzing bundle.\n" + engineLog() +
                  lines({">>> copying bundle to temporary folder \"out\".", ">>> writeFileListToTempFile.",
                         ">>> updating files in temporary folder \"out\"."}) +
                  updateLines() +
                  lines({">>> creating disk image \"out.dmg\".", ">>> checksumming disk image \"out.dmg\".",
                         "checksum CRC32 $0BADF00D", ">>> cleaning up..."}));
    std::string bundleFolder = temporaryFolder(target) + "/out";
    auto images = tools.callsOf(kDiskImageTool);
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].arguments, (std::vector<std::string>{"create", "-srcfolder", bundleFolder, staged(target),
                                                             "-format", "UDRO", "-encryption"}));
    EXPECT_EQ(images[1].arguments, (std::vector<std::string>{"imageinfo", "-checksum", staged(target)}));
    std::set<std::string> expected = strippedBundleTree(keptPaths());
    std::string imageListing;
    for (const auto& path : expected) imageListing += path + "\n";
    EXPECT_EQ(readFile(target), "image of:\n" + imageListing);
    EXPECT_EQ(trashAsked, std::vector<std::string>{temporaryFolder(target)});
    EXPECT_FALSE(pathExists(temporaryFolder(target)));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, DiskImageCreationFailure) {
    std::string target = dir / "out.dmg";
    tools.answer(kDiskImageTool, "create", toolResult(1, "", "create failed - no space\n"));
    auto outcome = run(withRequest({source(), target}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.log.ends_with(lines({">>> creating disk image \"out.dmg\".",
                                             "XXX ERROR: unable to create final disk image.",
                                             "!!! NOTE: create failed - no space", ">>> cleaning up...",
                                             "XXX ERROR: log file in " + logPath()})))
        << outcome.log;
    EXPECT_EQ(tools.callsOf(kDiskImageTool).back().arguments.back(), "UDRO");  // no encryption unless asked
    EXPECT_EQ(trashAsked, std::vector<std::string>{temporaryFolder(target)});  // no image was made to move
    EXPECT_EQ(folderTree(dir.path()).count("out.dmg"), 0u);
    expectSavedLog(outcome);
}

// ---- a target that is already there ----

TEST_F(RunDriverTest, ExistingTargetStaysAndTheRunFailsWithoutOverwrite) {
    writeFile(dir / "out.zip", "theirs");
    auto outcome = run(withRequest({source(), dir / "out.zip"}));
    EXPECT_EQ(outcome.status, 17);
    EXPECT_EQ(outcome.log,
              ">>> analyzing bundle.\n" + engineLog() +
                  lines({"XXX ERROR: target \"out.zip\" already exists.", "XXX ERROR: log file in " + logPath()}));
    EXPECT_EQ(readFile(dir / "out.zip"), "theirs");
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(trashAsked.empty());
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ExistingTargetGoesToTheTrashWithOverwrite) {
    std::string target = dir / "out.bom";
    writeFile(target, "theirs");
    auto outcome = run(withRequest({source(), target}, {"--ov"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> NOTE: moved pre-existing target \"" + target + "\" to Trash.",
                                      ">>> creating BOM \"out.bom\".", ">>> writeFileListToTempFile."}));
    EXPECT_EQ(readFile(trash() + "/out.bom"), "theirs");
    EXPECT_TRUE(readFile(target).starts_with(".\n./"));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, ExistingTargetIsDeletedWhenTheTrashFails) {
    std::string target = dir / "out.bom";
    writeFile(target, "theirs");
    trashWorks = false;
    auto outcome = run(withRequest({source(), target}, {"--ov"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> NOTE: unable to move pre-existing target \"" + target +
                                          "\" to Trash, deleted instead.",
                                      ">>> creating BOM \"out.bom\".", ">>> writeFileListToTempFile."}));
    EXPECT_EQ(trashAsked, std::vector<std::string>{target});
    EXPECT_TRUE(readFile(target).starts_with(".\n./"));
}

TEST_F(RunDriverTest, ExistingTargetThatCanNeitherGoToTheTrashNorBeDeletedStopsTheRun) {
    // The kernel's process files can be neither moved nor deleted, by anyone; the
    // reason given depends on who asks.
    const std::string target = "/proc/self/status";
    std::error_code refusal;
    fs::remove_all(target, refusal);
    ASSERT_TRUE(refusal);
    trashWorks = false;
    auto outcome = run(withRequest({source(), target}, {"--ov"}));
    EXPECT_EQ(outcome.status, 17);
    EXPECT_EQ(outcome.log, ">>> analyzing bundle.\n" + engineLog() +
                               lines({">>> ERROR: unable to move pre-existing target \"" + target +
                                          "\" to Trash and cannot delete it either (" + refusal.message() + ").",
                                      "XXX ERROR: log file in " + logPath()}));
    EXPECT_TRUE(tools.calls().empty());
    expectSavedLog(outcome);
}

// ---- a stop signal ----

TEST_F(RunDriverTest, StopSignalDuringTheCopyCleansUpEjectsAndEndsWithItsStatus) {
    writeFile(image(), "");
    scriptAttachAt(volumes() + "/Bundle");
    std::string target = dir / "out";
    tools.answer(kCopyTool, "-vV", toolResult(143), [](const ToolCall& call) {
        writeFile(call.arguments.back() + "/Restore/part", "half");
        ::raise(SIGTERM);
    });
    auto outcome = run(withRequest({image(), target}));
    EXPECT_EQ(outcome.status, 128 + SIGTERM);
    EXPECT_TRUE(
        outcome.log.ends_with(lines({">>> writeFileListToTempFile.", "XXX ERROR: copying manifest to target failed.",
                                     "XXX ERROR: interrupted by signal 15.", ">>> cleaning up...",
                                     ">>> unmounting disk image.", "XXX ERROR: log file in " + logPath()})))
        << outcome.log;
    EXPECT_EQ(trashAsked, std::vector<std::string>{staged(target)});
    EXPECT_EQ(tools.callLines().back(), "whittle-diskimage eject /dev/disk9");
    EXPECT_FALSE(pathExists(target));
    expectSavedLog(outcome);
}

TEST_F(RunDriverTest, NextRunAfterAStopSignalIsNotInterrupted) {
    tools.answer(kBomTool, toolResult(0), [](const ToolCall& call) {
        writeFile(call.arguments.at(3), readFile(call.arguments.at(2)));
        ::raise(SIGINT);
    });
    EXPECT_EQ(run(withRequest({source(), dir / "out.bom"})).status, 128 + SIGINT);
    EXPECT_FALSE(pathExists(dir / "out.bom"));
    forgetStopSignal();
    scriptWorkingTools();
    auto outcome = run(withRequest({source(), dir / "out.bom"}));
    EXPECT_EQ(outcome.status, 0) << outcome.log;
    EXPECT_TRUE(pathExists(dir / "out.bom"));
}

}  // namespace
}  // namespace whittle
