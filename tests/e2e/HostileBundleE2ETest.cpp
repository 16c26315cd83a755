// Runs the built whittle, traced system call by system call, on bundles made to lead it
// astray: links out of the bundle at every file the engines read, "..", absolute,
// over-long and multi-line manifest paths, link loops, pipes and devices in place of
// files, and a disk image whose volume holds absolute links. Whatever the bundle, no
// file outside the source is opened and nothing outside the target, its temporary
// items, the Trash and the log is written.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

const std::string kSecret = "SECRET-FROM-OUTSIDE-THE-BUNDLE";
const std::string kVolumes = WHITTLE_TEST_VOLUMES_DIR;
const std::string kDiskImageTool = WHITTLE_DISKIMAGE_BINARY;

bool isUnder(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder.back() == '/' ? folder : folder + "/");
}

// One system call that touched a path, as strace printed it.
struct TouchedPath {
    std::string call;
    std::string path;  // resolved as far as strace tells
    bool writes = false;
};

// Undoes strace's quoting of a string argument.
std::string unquoted(const std::string& quoted) {
    std::string out;
    for (std::size_t i = 0; i < quoted.size(); ++i) {
        if (quoted[i] != '\\' || i + 1 == quoted.size()) {
            out += quoted[i];
            continue;
        }
        char next = quoted[++i];
        if (next == 'n') out += '\n';
        else if (next == 't') out += '\t';
        else if (next == 'x' && i + 2 < quoted.size()) {
            out += static_cast<char>(std::stoi(quoted.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else out += next;
    }
    return out;
}

// The quoted strings of a call's arguments, each with the folder of the descriptor
// written just before it ("AT_FDCWD</cwd>, "name"" gives "/cwd/name").
std::vector<std::string> pathArguments(const std::string& arguments) {
    std::vector<std::string> paths;
    std::size_t at = 0;
    while ((at = arguments.find('"', at)) != std::string::npos) {
        std::size_t end = at + 1;
        while (end < arguments.size() && !(arguments[end] == '"' && arguments[end - 1] != '\\')) ++end;
        std::string path = unquoted(arguments.substr(at + 1, end - at - 1));
        std::string before = arguments.substr(0, at);
        auto close = before.rfind(">, ");
        if (!path.starts_with("/") && close != std::string::npos && close + 3 == before.size()) {
            auto open = before.rfind('<', close);
            path = before.substr(open + 1, close - open - 1) + "/" + path;
        }
        paths.push_back(fs::path(path).lexically_normal().string());
        at = end + 1;
    }
    return paths;
}

std::vector<TouchedPath> parseTrace(const std::string& text) {
    std::vector<TouchedPath> touched;
    for (const auto& line : linesOf(text)) {
        auto paren = line.find('(');
        auto equals = line.rfind(") = ");
        if (paren == std::string::npos || equals == std::string::npos) continue;
        std::string call = line.substr(0, paren);
        std::string arguments = line.substr(paren + 1, equals - paren - 1);
        std::string result = line.substr(equals + 4);
        if (result.starts_with("-1") || result.starts_with("?")) continue;
        if (call == "open" || call == "openat" || call == "openat2" || call == "creat") {
            auto open = result.find('<');
            if (open == std::string::npos) continue;
            std::string path = result.substr(open + 1, result.rfind('>') - open - 1);
            bool writes = call == "creat" || contains(arguments, "O_WRONLY") || contains(arguments, "O_RDWR") ||
                          contains(arguments, "O_CREAT") || contains(arguments, "O_TRUNC");
            touched.push_back({call, path, writes});
            continue;
        }
        auto paths = pathArguments(arguments);
        // A link's target text is not a path that is written.
        if ((call == "symlink" || call == "symlinkat") && !paths.empty()) paths.erase(paths.begin());
        for (const auto& path : paths) touched.push_back({call, path, true});
    }
    return touched;
}

class WhittleOnHostileBundles : public testing::Test {
protected:
    void SetUp() override {
        if (runProgram({"/usr/bin/strace", "-o", "/dev/null", "/bin/true"}).status != 0) {
            GTEST_SKIP() << "strace cannot trace here";
        }
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(bundle(), plan);
        fs::create_directories(outside());
        fs::create_directories(dir / "targets");
        writeFile(outside() + "/secret.txt", kSecret + " x10 x10ap\n");
        bundlegen::generateBundle(outside() + "/bundle", plan);
        appendToEveryFileIn(outside() + "/bundle/Restore/Firmware", kSecret);
    }

    std::string bundle() const { return dir / "bundle"; }
    std::string outside() const { return dir / "outside"; }
    std::string target(const std::string& name) const { return dir / ("targets/" + name); }

    static void appendToEveryFileIn(const std::string& folder, const std::string& text) {
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (entry.is_regular_file()) writeFile(entry.path(), readFile(entry.path()) + text + "\n");
        }
    }

    void replaceWithLink(const std::string& relative, const std::string& linkTarget) {
        std::string path = bundle() + "/" + relative;
        removeTree(path);
        ASSERT_EQ(::symlink(linkTarget.c_str(), path.c_str()), 0) << path;
    }

    // Runs whittle under strace and checks every path it touched.
    ProgramResult tracedWhittle(const std::vector<std::string>& arguments) {
        std::string traceFolder = dir / ("trace-" + std::to_string(runs++));
        fs::create_directories(traceFolder);
        std::vector<std::string> argv{"/usr/bin/strace", "-ff", "-y", "-qq", "-o", traceFolder + "/t",
                                      "-e", "trace=open,openat,openat2,creat,mkdir,mkdirat,rename,renameat,renameat2,"
                                            "unlink,unlinkat,rmdir,symlink,symlinkat,link,linkat,truncate",
                                      whittleBinary()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        RunOptions options;
        // The leak checker cannot run under a tracer.
        options.environment = {{"XDG_DATA_HOME", dir / "data"}, {"ASAN_OPTIONS", "detect_leaks=0"}};
        ProgramResult result = runProgram(argv, options);
        std::string trace;
        for (const auto& entry : fs::directory_iterator(traceFolder)) trace += readFile(entry.path());
        expectConfined(parseTrace(trace));
        removeTree(traceFolder);
        return result;
    }

    void expectConfined(const std::vector<TouchedPath>& touched) const {
        ASSERT_FALSE(touched.empty()) << "the trace is empty";
        for (const auto& item : touched) {
            EXPECT_FALSE(isUnder(item.path, outside())) << item.call << " reached outside the bundle: " << item.path;
            EXPECT_FALSE(item.path == "/etc/passwd" || item.path == "/etc/shadow") << item.call << " " << item.path;
            if (item.writes) {
                EXPECT_TRUE(mayBeWritten(item.path)) << item.call << " wrote outside its places: " << item.path;
            }
        }
    }

    bool mayBeWritten(const std::string& path) const {
        for (const std::string& place : {dir / "targets", dir / "data", kVolumes, std::string("/dev/null"),
                                         std::string("/tmp/Whittle.log")}) {
            if (isUnder(path, place)) return true;
        }
        // The copy's file list and its BOM (the BOM tool writes it through a hidden file beside it).
        return path.starts_with("/tmp/whittle.") || path.starts_with("/tmp/.whittle.") || path.starts_with("/tmp/.Whittle.log.");
    }

    // Validation, then a folder and a zip target; none may carry what lies outside.
    void expectEveryRunConfined(const std::vector<std::string>& extra = {}, int validationStatus = 0) {
        std::vector<std::string> request{"--product", "x10", "--factory", "repair"};
        request.insert(request.end(), extra.begin(), extra.end());
        auto arguments = [&](std::vector<std::string> front) {
            front.insert(front.end(), request.begin(), request.end());
            return front;
        };
        ProgramResult validation = tracedWhittle(arguments({bundle()}));
        EXPECT_EQ(validation.status, validationStatus) << validation.out << validation.err;
        said = validation.out + validation.err;
        for (const std::string& name : {std::string("out"), std::string("out.zip")}) {
            ProgramResult run = tracedWhittle(arguments({bundle(), target(name)}));
            if (!pathExists(target(name))) continue;
            if (name == "out") {
                for (const auto& path : folderTree(target(name))) {
                    std::string full = target(name) + "/" + path;
                    if (fs::is_regular_file(fs::symlink_status(full))) {
                        EXPECT_FALSE(contains(readFile(full), kSecret)) << path;
                    }
                }
            } else {
                EXPECT_FALSE(contains(runProgram({"/usr/bin/unzip", "-p", target(name)}).out, kSecret));
            }
            removeTree(target(name));
        }
    }

    void editManifest(const std::function<void(Value&)>& edit) {
        std::string path = bundle() + "/Restore/BuildManifest.plist";
        Value manifest = parsePropertyList(readFile(path));
        edit(manifest);
        writeFile(path, xmlPropertyList(manifest));
    }

    TempDir dir;
    std::string said;
    int runs = 0;
};

TEST_F(WhittleOnHostileBundles, MapFilesLinkedOutsideAreNotRead) {
    replaceWithLink("Restore/Firmware/target_map.txt", outside() + "/secret.txt");
    replaceWithLink("Restore/Firmware/device_map.txt", "../../../outside/secret.txt");
    replaceWithLink("Restore/Firmware/device_map.plist", outside() + "/bundle/Restore/Firmware/device_map.plist");
    replaceWithLink("Restore/Firmware/platform_keys.plist", "../../../outside/bundle/Restore/Firmware/platform_keys.plist");
    expectEveryRunConfined();
    for (const char* link : {"target_map.txt", "device_map.txt", "device_map.plist", "platform_keys.plist"}) {
        std::string warning = "!!! WARNING: \"Restore/Firmware/" + std::string(link) + "\" leads outside the bundle and is not followed.";
        EXPECT_TRUE(contains(said, warning)) << said;
    }
    EXPECT_TRUE(contains(said, "!!! WARNING: target_map.txt not found.")) << said;
}

TEST_F(WhittleOnHostileBundles, BuildManifestLinkedOutsideIsNotRead) {
    replaceWithLink("Restore/BuildManifest.plist", outside() + "/bundle/Restore/BuildManifest.plist");
    expectEveryRunConfined({}, 1);
    EXPECT_TRUE(contains(said, "XXX ERROR: BuildManifest.plist cannot be read.")) << said;
}

TEST_F(WhittleOnHostileBundles, RestoreFolderLinkedOutsideIsNotEntered) {
    replaceWithLink("Restore", outside() + "/bundle/Restore");
    expectEveryRunConfined({}, 1);
    EXPECT_TRUE(contains(said, "!!! WARNING: \"Restore\" leads outside the bundle and is not followed.")) << said;
}

TEST_F(WhittleOnHostileBundles, SupportLinksLeadingOutsideAreNotKept) {
    replaceWithLink("RestoreTools.dmg", "/etc/passwd");
    replaceWithLink("HomeDiagnostic.dmg", "../outside/secret.txt");
    replaceWithLink("HandsetSDKInternalNonUI.dmg", outside() + "/secret.txt");
    replaceWithLink("Debug", outside() + "/bundle/Restore");
    replaceWithLink("BundleImages", "../outside/bundle/Restore/Firmware");
    expectEveryRunConfined({"--keepHomeDiags", "--keepSDK", "--keepDebug", "--keepBundleImages"});
}

TEST_F(WhittleOnHostileBundles, HostileManifestPathsStayInside) {
    editManifest([](Value& manifest) {
        Value items = manifest.get("BuildIdentities").at(0).get("Manifest");
        items.get("iBSS").get("Info").set("Path", Value::string("../../outside/secret.txt"));
        items.get("iBoot").get("Info").set("Path", Value::string("/" + std::string(256, 'a') + "/../../etc/passwd"));
        items.get("LLB").get("Info").set("Path", Value::string(std::string(5000, 'x')));
        items.get("Digest").get("Info").set("Path", Value::string("Firmware/line\nbreak"));
    });
    expectEveryRunConfined();
    EXPECT_TRUE(contains(said, "!!! WARNING: kept path \"Restore/../../outside/secret.txt\" is not in the bundle.")) << said;
}

TEST_F(WhittleOnHostileBundles, LinkLoopsEndQuietly) {
    replaceWithLink("Restore/Firmware/target_map.txt", "target_map.txt");
    replaceWithLink("RestoreTools.dmg", "RestoreTools.dmg");
    replaceWithLink("Debug", "Debug/inner");
    expectEveryRunConfined({"--keepDebug"});
}

TEST_F(WhittleOnHostileBundles, PipesAndDevicesInPlaceOfFilesAreNotOpened) {
    std::string firmware = bundle() + "/Restore/Firmware/";
    removeTree(firmware + "target_map.txt");
    ASSERT_EQ(::mkfifo((firmware + "target_map.txt").c_str(), 0644), 0);
    removeTree(firmware + "device_map.plist");
    ASSERT_EQ(::mkfifo((firmware + "device_map.plist").c_str(), 0644), 0);
    removeTree(firmware + "device_map.txt");
    if (::mknod((firmware + "device_map.txt").c_str(), S_IFCHR | 0644, makedev(1, 5)) != 0) {
        ASSERT_EQ(::mkfifo((firmware + "device_map.txt").c_str(), 0644), 0);
    }
    expectEveryRunConfined();
}

TEST_F(WhittleOnHostileBundles, DiskImageSourceWithAbsoluteLinksIsNotFollowedOut) {
    replaceWithLink("Restore/Firmware/target_map.txt", outside() + "/secret.txt");
    replaceWithLink("RestoreTools.dmg", "/etc/passwd");
    std::string image = dir / "source.dmg";
    auto created = runProgram({kDiskImageTool, "create", "-srcfolder", bundle(), image, "-format", "UDRO"});
    ASSERT_EQ(created.status, 0) << created.err;
    ProgramResult validation = tracedWhittle({image, "--product", "x10", "--factory", "repair"});
    EXPECT_EQ(validation.status, 0) << validation.out << validation.err;
    EXPECT_TRUE(contains(validation.out + validation.err,
                         "!!! WARNING: \"Restore/Firmware/target_map.txt\" leads outside the bundle and is not followed."))
        << validation.out;
    ProgramResult run = tracedWhittle({image, target("out"), "--product", "x10", "--factory", "repair"});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_FALSE(contains(readFile(target("out") + "/Restore/Firmware/target_map.txt"), kSecret));
}

}  // namespace
