// Runs the built whittle on a bundle's zip archive served by a web server on
// 127.0.0.1: the same results as from the archive on this machine, few bytes fetched,
// the failures of servers that cannot be read, and the progress and the count of
// bytes fetched that a remote source shows.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "WebServers.hpp"
#include "support/FileByteSource.hpp"
#include "support/PlistCodec.hpp"
#include "support/ZipArchive.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string kErase = kTerminalLineErase;
const std::string kCookie = "WhittleCookie.plist";
// Each payload file of the bundle: large enough that the kept entries' 1% covers the
// archive's tail read when it is opened.
constexpr std::uint64_t kBytesPerFile = 2'000'000;

// Printable text that deflate shrinks only somewhat, different for every file.
std::string textPayload(std::size_t size, std::uint32_t seed) {
    std::string text(size, ' ');
    std::uint32_t state = seed * 2654435761u + 12345u;
    for (std::size_t i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        text[i] = (i % 64 == 63) ? '\n' : static_cast<char>(' ' + state % 95);
    }
    return text;
}

// A bundle whose payload files hold text (those of the product x30, never kept here,
// the generator's own quickly deflated bytes), and its zip archive, made once for
// the whole suite when a test first needs them.
struct SharedBundle {
    TempDir dir;
    std::string folder = dir / "bundle";
    std::string archive = dir / "bundle.zip";

    SharedBundle() {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair", "ss"}, 1, true}, {"x30", true, false, {"repair"}, 1, true}};
        plan.bytesPerFile = kBytesPerFile;
        auto bundle = bundlegen::generateBundle(folder, plan);
        std::uint32_t seed = 1;
        for (const auto& relative : bundle.files) {
            std::string path = folder + "/" + relative;
            bool forX30 = contains(relative, "x30") || contains(relative, "X30");
            if (!forX30 && !fs::is_symlink(path) && fs::file_size(path) == kBytesPerFile)
                writeFile(path, textPayload(kBytesPerFile, seed++));
        }
        RunOptions options;
        options.workingDirectory = folder;
        ProgramResult zipped = runProgram({"/usr/bin/zip", "-r", "-y", "-q", archive, "."}, options);
        if (zipped.status != 0) throw std::runtime_error("zip failed: " + zipped.err);
    }
};

const SharedBundle& sharedBundle() {
    static SharedBundle* bundle = new SharedBundle();  // kept to the end of the process, removed at exit
    static const bool removedAtExit = [] {
        std::atexit([] { delete bundle; });
        return true;
    }();
    (void)removedAtExit;
    return *bundle;
}

// How a run was typed: its source and its target, which its cookie records.
struct Typed {
    std::string source;
    std::string target;
};

// Everything about each path below a folder that a stripped bundle's reader could
// tell apart: kind, permission bits, size, content, link target, modification time
// (a link's own only where the links were made by whittle). The cookie records the
// run as typed, so its "source" and the source and target in its "rawArguments"
// are set aside.
std::map<std::string, std::string> snapshot(const std::string& root, const Typed& typed, bool linkTimes = true) {
    std::map<std::string, std::string> items;
    for (const std::string& relative : folderTree(root)) {
        std::string path = root + "/" + relative;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) continue;
        // The cookie's size follows the length of the paths it records.
        std::string description = std::to_string(info.st_mode) + " " + (relative == kCookie ? "" : std::to_string(info.st_size));
        if (S_ISLNK(info.st_mode)) {
            description += " -> " + fs::read_symlink(path).string();
        } else if (S_ISREG(info.st_mode) && relative == kCookie) {
            Value cookie = parsePropertyList(readFile(path));
            cookie.remove("source");
            Value arguments = Value::array();
            for (const auto& argument : cookie.get("rawArguments").elements())
                arguments.append(argument.text() == typed.source   ? Value::string("SOURCE")
                                 : argument.text() == typed.target ? Value::string("TARGET")
                                                                   : argument);
            cookie.set("rawArguments", arguments);
            description += " " + cookie.description();
        } else if (S_ISREG(info.st_mode)) {
            description += " " + std::to_string(std::hash<std::string>{}(readFile(path)));
        }
        if (relative != kCookie && !S_ISDIR(info.st_mode) && (linkTimes || !S_ISLNK(info.st_mode)))
            description += " @" + std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
        items[relative] = description;
    }
    return items;
}

// The entries of a zip archive, unpacked into a folder.
void unpack(const std::string& archive, const std::string& folder) {
    ProgramResult unzipped = runProgram({"/usr/bin/unzip", "-q", "-o", archive, "-d", folder});
    ASSERT_EQ(unzipped.status, 0) << unzipped.err;
}

class RemoteArchive : public testing::Test {
protected:
    void SetUp() override {
        if (nginxBinary().empty()) GTEST_SKIP() << "nginx is not installed (scripts/install-deps installs it)";
        server = std::make_unique<WebServer>();
        ASSERT_TRUE(server->running()) << "nginx did not start on 127.0.0.1";
        fs::create_directories(dir / "out");
    }

    static const SharedBundle& bundle() { return sharedBundle(); }
    void serveArchive() {
        if (!pathExists(server->file("bundle.zip"))) fs::copy_file(bundle().archive, server->file("bundle.zip"));
    }
    // The archive's address, once the server has it.
    std::string url() {
        serveArchive();
        return server->url("/bundle.zip");
    }

    // Runs whittle with the Trash inside the test's folder.
    ProgramResult whittle(const std::vector<std::string>& arguments, bool stderrOnTerminal = false) {
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        options.stderrOnTerminal = stderrOnTerminal;
        options.timeoutSeconds = 90;
        return runWhittle(arguments, options);
    }

    // A failed run: a nonzero status, the line naming the address and the reason, and
    // nothing left in the target's folder.
    void expectFailureNamed(const ProgramResult& run, const std::string& address, const std::string& reason) {
        EXPECT_NE(run.status, 0);
        std::string line = "XXX ERROR: unable to read \"" + address + "\" - " + reason + ".\n";
        EXPECT_TRUE(contains(run.out, line)) << "expected: " << line << "output:\n" << run.out;
        EXPECT_TRUE(contains(readWhittleLog(), line));
        EXPECT_EQ(folderTree(dir / "out"), std::set<std::string>{});
    }

    std::unique_ptr<WebServer> server;
    const std::vector<std::string> request{"--product", "x10", "--factory", "repair"};
    TempDir dir;
};

// What the archive says a run should fetch at most: the kept entries' stored bytes
// with their local headers, the central directory with the end records, and the
// entries read to analyse the bundle (manifests and maps, and the links, whose
// targets are read when the archive is opened), with 1% more.
struct FetchBound {
    std::uint64_t keptBytes = 0;
    std::uint64_t directoryBytes = 0;
    std::uint64_t analysisBytes = 0;
    std::uint64_t total() const {
        std::uint64_t sum = keptBytes + directoryBytes + analysisBytes;
        return sum + sum / 100;
    }
};

bool isReadForAnalysis(const std::string& path) {
    bool manifestOrMap = path.ends_with(".plist") || path.ends_with(".txt");
    std::string folder = path.substr(0, path.rfind('/') + 1);
    return (manifestOrMap && (folder == "Restore/" || folder == "Restore/Firmware/")) || path.ends_with("/manifest");
}

FetchBound fetchBoundOf(const std::string& archivePath, const std::set<std::string>& keptPaths) {
    std::string error;
    std::shared_ptr<ByteSource> bytes = FileByteSource::open(archivePath, error);
    auto archive = bytes ? ZipArchive::open(bytes, error) : nullptr;
    if (!archive) throw std::runtime_error(error);
    FetchBound bound;
    std::uint64_t directoryStart = archive->source().size();
    for (const ZipEntry& entry : archive->entries()) {
        std::uint64_t extent = entry.extentLimit - entry.localHeaderOffset;
        directoryStart = std::min(directoryStart, entry.extentLimit);
        if (entry.isFolder) continue;
        if (keptPaths.contains(entry.path)) bound.keptBytes += extent;
        if (entry.isSymlink || isReadForAnalysis(entry.path)) bound.analysisBytes += extent;
    }
    // The last entry's extent ends where the central directory begins.
    for (const ZipEntry& entry : archive->entries()) directoryStart = std::max(directoryStart, entry.extentLimit);
    bound.directoryBytes = archive->source().size() - directoryStart;
    return bound;
}

}  // namespace

TEST_F(RemoteArchive, ValidationFromTheAddressPrintsWhatTheFolderPrints) {
    ProgramResult fromFolder = whittle(plus({bundle().folder}, request));
    ProgramResult fromServer = whittle(plus({url()}, request));
    ASSERT_EQ(fromFolder.status, 0) << fromFolder.out;
    EXPECT_EQ(fromServer.status, 0) << fromServer.out;
    EXPECT_TRUE(contains(fromServer.out, "Validation PASSED.")) << fromServer.out;
    EXPECT_EQ(fromServer.out, fromFolder.out);
    EXPECT_FALSE(contains(fromServer.out, "fetched"));
}

TEST_F(RemoteArchive, FolderTargetEqualsTheOneFromTheLocalArchiveAndFetchesLittleMoreThanItKeeps) {
    ProgramResult local = whittle(plus({bundle().archive, dir / "local"}, request));
    ASSERT_EQ(local.status, 0) << local.out;
    ProgramResult remote = whittle(plus({url(), dir / "out/stripped"}, request));
    ASSERT_EQ(remote.status, 0) << remote.out;
    EXPECT_EQ(snapshot(dir / "out/stripped", {url(), dir / "out/stripped"}),
              snapshot(dir / "local", {bundle().archive, dir / "local"}));
    EXPECT_FALSE(contains(remote.out, "fetched"));

    DryRunLists lists = dryRunListsOf(whittle(plus({bundle().folder, "--dryrun"}, request)).out);
    ASSERT_FALSE(lists.copied.empty());
    FetchBound bound = fetchBoundOf(bundle().archive, lists.copied);
    Served served = server->servedSoFar("/bundle.zip");
    std::printf("[ figures  ] archive %llu bytes; served %llu bytes in %llu requests; kept entries %llu, "
                "central directory %llu, analysis entries %llu: bound %llu (%.2f%% over the sum)\n",
                static_cast<unsigned long long>(fs::file_size(bundle().archive)),
                static_cast<unsigned long long>(served.bodyBytes), static_cast<unsigned long long>(served.requests),
                static_cast<unsigned long long>(bound.keptBytes), static_cast<unsigned long long>(bound.directoryBytes),
                static_cast<unsigned long long>(bound.analysisBytes), static_cast<unsigned long long>(bound.total()),
                100.0 * (static_cast<double>(served.bodyBytes) /
                             static_cast<double>(bound.keptBytes + bound.directoryBytes + bound.analysisBytes) - 1));
    EXPECT_GT(bound.keptBytes, 10'000'000u);
    EXPECT_LE(served.bodyBytes, bound.total());
    EXPECT_GE(served.bodyBytes, bound.keptBytes);
}

TEST_F(RemoteArchive, ZipTargetEqualsTheOneFromTheLocalArchive) {
    ProgramResult local = whittle(plus({bundle().archive, dir / "local.zip"}, request));
    ASSERT_EQ(local.status, 0) << local.out;
    ProgramResult remote = whittle(plus({url(), dir / "out/stripped.zip"}, request));
    ASSERT_EQ(remote.status, 0) << remote.out;
    EXPECT_TRUE(contains(remote.out, "MD5(" + dir / "out/stripped.zip" + ")= ")) << remote.out;
    EXPECT_EQ(runProgram({"/usr/bin/unzip", "-tq", dir / "out/stripped.zip"}).status, 0);
    EXPECT_EQ(runProgram({"/usr/bin/zipinfo", "-1", dir / "out/stripped.zip"}).out,
              runProgram({"/usr/bin/zipinfo", "-1", dir / "local.zip"}).out);
    unpack(dir / "out/stripped.zip", dir / "remote-entries");
    unpack(dir / "local.zip", dir / "local-entries");
    // unzip gives the links it makes the time of unpacking.
    auto fromServer = snapshot(dir / "remote-entries", {url(), dir / "out/stripped.zip"}, false);
    EXPECT_GT(fromServer.size(), 20u);
    EXPECT_EQ(fromServer, snapshot(dir / "local-entries", {bundle().archive, dir / "local.zip"}, false));
}

TEST_F(RemoteArchive, VerboseRunsSayHowManyBytesWereFetched) {
    ProgramResult validation = whittle(plus({url(), "--verbose"}, request));
    ASSERT_EQ(validation.status, 0) << validation.out;
    Served served = server->served("/bundle.zip", 1);
    std::string note = ">>> NOTE: fetched " + std::to_string(served.bodyBytes) + " bytes of \"" + url() + "\".\n";
    EXPECT_TRUE(contains(validation.out, note)) << validation.out;
    EXPECT_TRUE(contains(readWhittleLog(), note));

    ProgramResult target = whittle(plus({url(), dir / "out/stripped", "--verbose"}, request));
    ASSERT_EQ(target.status, 0) << target.out;
    std::uint64_t fetched = server->servedSoFar("/bundle.zip").bodyBytes - served.bodyBytes;
    std::string targetNote = ">>> NOTE: fetched " + std::to_string(fetched) + " bytes of \"" + url() + "\".\n";
    EXPECT_TRUE(contains(target.out, targetNote)) << target.out;
    std::string log = readWhittleLog();
    EXPECT_EQ(log.find(">>> NOTE: fetched"), log.rfind(">>> NOTE: fetched")) << "said once";

    ProgramResult report = whittle({url(), "--validProducts", "--verbose"});
    ASSERT_EQ(report.status, 0) << report.out;
    EXPECT_TRUE(contains(readWhittleLog(), ">>> NOTE: fetched ")) << report.out;
    ProgramResult quietReport = whittle({url(), "--validProducts"});
    ASSERT_EQ(quietReport.status, 0) << quietReport.out;
    EXPECT_FALSE(contains(quietReport.out + readWhittleLog(), "fetched")) << quietReport.out;
}

TEST_F(RemoteArchive, OnATerminalALiveLineShowsTheBytesFetchedAndIsErased) {
    ProgramResult run = whittle(plus({url(), dir / "out/stripped"}, request), true);
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<std::string> lines = drawnLines(run.err);
    const std::regex reading(R"(fetching  [0-9.]+ [KMG]?B(  [0-9.]+ [KMG]?B/s)?)");
    const std::regex writing(
        R"(fetching  \d+%  \d+/\d+ files  [0-9.]+/[0-9.]+ [KMG]?B(  [0-9.]+ [KMG]?B/s(  .* left)?)?)");
    bool sawReading = false, sawWriting = false;
    for (const std::string& line : lines) {
        bool isReading = std::regex_match(line, reading), isWriting = std::regex_match(line, writing);
        EXPECT_TRUE(isReading || isWriting) << line;
        sawReading = sawReading || isReading;
        sawWriting = sawWriting || isWriting;
    }
    EXPECT_TRUE(sawReading) << run.err;
    EXPECT_TRUE(sawWriting) << run.err;
    EXPECT_TRUE(run.err.ends_with(kErase)) << run.err;
    EXPECT_TRUE(pathExists(dir / "out/stripped/Restore/BuildManifest.plist"));
    std::string log = readWhittleLog();
    EXPECT_FALSE(contains(log, "\x1b[K"));
    EXPECT_FALSE(contains(log, "fetching"));

    ProgramResult piped = whittle(plus({url(), dir / "out/again"}, request));
    ASSERT_EQ(piped.status, 0) << piped.out;
    EXPECT_EQ(piped.err, "");
}

TEST_F(RemoteArchive, ServerIgnoringRangesIsNamed) {
    serveArchive();
    ProgramResult run = whittle(plus({server->url("/whole/bundle.zip"), dir / "out/stripped"}, request));
    expectFailureNamed(run, server->url("/whole/bundle.zip"), "the server does not honour byte ranges");
    EXPECT_LT(server->served("/whole/bundle.zip", 1).bodyBytes, fs::file_size(bundle().archive) / 2);
}

TEST_F(RemoteArchive, ServerErrorIsNamed) {
    ProgramResult run = whittle(plus({server->url("/broken"), dir / "out/stripped"}, request));
    expectFailureNamed(run, server->url("/broken"), "the server answered 500 Internal Server Error");
}

TEST_F(RemoteArchive, MissingArchiveIsNamed) {
    ProgramResult run = whittle(plus({server->url("/missing.zip"), dir / "out/stripped.zip"}, request));
    expectFailureNamed(run, server->url("/missing.zip"), "the server answered 404 Not Found");
}

// The archive on the server is replaced by another after its end was read: the next
// request is answered, as a server does when If-Range names an old version, with
// the whole new file.
TEST_F(RemoteArchive, ArchiveReplacedWhileItIsReadIsNamed) {
    const std::string before = readFile(bundle().archive);
    std::string after = before;
    after[after.size() / 2] ^= 1;
    ScriptedServer changing([&](const std::string& asked, std::size_t index) {
        return Reply{index == 0 ? rangedAnswer(asked, before, "\"v1\"") : rangedAnswer(asked, after, "\"v2\"")};
    });
    ProgramResult run = whittle(plus({changing.url(), dir / "out/stripped"}, request));
    expectFailureNamed(run, changing.url(),
                       "the file changed on the server while it was read (its ETag went from \"v1\" to \"v2\")");
}

// The server goes silent when the kept entries are fetched, the first request of
// more than a mebibyte; the run gives up after its stall limit (a build setting: 30 s
// unless the build says otherwise).
TEST_F(RemoteArchive, ServerStallingWhileEntriesAreFetchedIsGivenUp) {
    const std::string content = readFile(bundle().archive);
    ScriptedServer stalling([&](const std::string& asked, std::size_t) {
        std::string answer = rangedAnswer(asked, content, "\"v1\"");
        if (answer.size() > (1u << 20)) return Reply{answer.substr(0, answer.find("\r\n\r\n") + 4 + 1000), true};
        return Reply{answer};
    });
    auto started = std::chrono::steady_clock::now();
    ProgramResult run = whittle(plus({stalling.url(), dir / "out/stripped"}, request));
    auto took = std::chrono::steady_clock::now() - started;
    constexpr std::chrono::seconds stallLimit{WHITTLE_HTTP_STALL_SECONDS};
    expectFailureNamed(run, stalling.url(), "the server sent nothing for " + std::to_string(stallLimit.count()) + " s");
    EXPECT_GE(took, stallLimit - 1s);
    EXPECT_LT(took, stallLimit + 40s);
}
