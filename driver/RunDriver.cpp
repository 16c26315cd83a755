#include "driver/RunDriver.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <set>
#include <vector>

#include "driver/TargetWriters.hpp"
#include "driver/ToolPaths.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/ProcessInfo.hpp"
#include "support/Trash.hpp"
#include "tools/DiskImage.hpp"
#include "tools/TaskHelper.hpp"

namespace whittle {

namespace {

constexpr const char* kPassedColours = "\x1b[37m\x1b[42m";
constexpr const char* kFailedColours = "\x1b[37m\x1b[41m";

void writeOut(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

std::unique_ptr<Stripper> createEngine(const RunRequest& request) {
    return stripperClass().stripperForPath(*request.source, request.products, request.factoryVariants,
                                           request.stripOptions);
}

// The run's engines stay reachable until the process ends and are never torn down:
// freeing a manifest of many megabytes node by node would cost a good part of a run
// that is about to end anyway.
void keepUntilExit(std::unique_ptr<Stripper> engine) {
    static auto* kept = new std::vector<Stripper*>();  // never destroyed, so never unreachable
    if (engine) kept->push_back(engine.release());
}

// A timestamped diagnostic line on standard error, outside the shared logger.
void diagnostic(const std::string& message) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    std::tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(stderr, "%s.%03d whittle[%d] %s\n", stamp, static_cast<int>(now.tv_usec / 1000),
                 static_cast<int>(::getpid()), message.c_str());
    std::fflush(stderr);
}

void printPropertyList(const Value& value) {
    writeOut(xmlPropertyList(value) + "\n");
    std::fflush(stdout);
}

Value arrayOrEmpty(const Value& value) { return value.isArray() ? value : Value::array(); }

// The extension of a path's last component, without its point ("" when it has none).
std::string pathExtension(const std::string& path) {
    std::string name = lastPathComponent(path);
    auto dot = name.find_last_of('.');
    return (dot == std::string::npos || dot == 0) ? std::string() : name.substr(dot + 1);
}

std::string withoutExtension(const std::string& name) {
    auto dot = name.find_last_of('.');
    return (dot == std::string::npos || dot == 0) ? name : name.substr(0, dot);
}

std::string parentFolderOf(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    auto slash = trimmed.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : trimmed.substr(0, slash);
}

bool itemExists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

std::set<std::string> namesIn(const std::string& folder) {
    std::set<std::string> names;
    if (DIR* listing = ::opendir(folder.c_str())) {
        while (const dirent* entry = ::readdir(listing)) names.insert(entry->d_name);
        ::closedir(listing);
    }
    return names;
}

std::string trimmedOfLineEnds(std::string text) {
    auto isLineEnd = [](char c) { return c == '\n' || c == '\r'; };
    while (!text.empty() && isLineEnd(text.back())) text.pop_back();
    std::size_t start = 0;
    while (start < text.size() && isLineEnd(text[start])) ++start;
    return text.substr(start);
}

int runPlatformTool(const std::string& path, const std::vector<std::string>& arguments,
                    std::string* standardOutput = nullptr, const char* workingDirectory = nullptr) {
    return runTool(path.c_str(), &arguments, workingDirectory, standardOutput, nullptr, verboseMode == 1);
}

// One run of the tool, from the parsed command line to the saved log.
class Run {
public:
    explicit Run(RunRequest& request) : request_(request) {}
    int execute();

private:
    enum class Next { Continue, Eject, SaveLog };

    Next mountSource();
    Next runEngine();
    void runTestPass();
    int reportValidProducts(Stripper& engine);
    int reportValidVariants(std::unique_ptr<Stripper>& engine);
    Next stripAndFinish(Stripper& engine);
    void printDryRunListing(Stripper& engine);
    void reportVerdict();
    bool clearExistingTarget();
    int writeTarget(Stripper& engine);
    int writeBomTarget(Stripper& engine);
    int writeZipTarget(Stripper& engine);
    int writeDiskImageTarget(Stripper& engine);
    int writeFolderTarget(Stripper& engine);
    int applyModifiedFilesTo(Stripper& engine, const std::string& folder);
    std::string temporaryFolder() const;
    std::string temporaryBundleFolder() const;
    void cleanUp();
    void eject();

    RunRequest& request_;
    int status_ = 0;
    std::string deviceEntry_;
    bool previouslyMounted_ = false;
    std::vector<std::string> temporaryItems_;
};

int Run::execute() {
    Next next = mountSource();
    if (next == Next::Continue) next = runEngine();
    if (next != Next::SaveLog) eject();
    return status_;
}

// ---- step 1: a disk-image source ----

Run::Next Run::mountSource() {
    std::string& source = *request_.source;
    if (!equalsIgnoringCase(pathExtension(source), "dmg")) return Next::Continue;
    std::set<std::string> mountedBefore = namesIn(volumesFolder());
    Log(">>> mounting disk image \"%s\".", source);
    std::vector<std::string> arguments{"attach", source, "-plist"};
    if (request_.validVariantsMode) arguments.push_back("-noverify");
    std::string output;
    if (int status = runPlatformTool(diskImageToolPath(), arguments, &output)) {
        Log("XXX ERROR: unable to mount source disk image: %s.", source);
        status_ = status;
        return Next::SaveLog;
    }
    std::string error;
    Value lists = splitPropertyLists(output, false, error);
    if (!error.empty()) {
        Log("XXX ERROR: unable to decipher dimgtool output - %@.", error);
        return Next::SaveLog;
    }
    auto volume = findMountPoint(lists);
    if (!volume) {
        Log("XXX ERROR: no mount points detected.");
        return Next::Eject;
    }
    source = volume->mountPoint;
    deviceEntry_ = volume->deviceEntry;
    if (hasPrefix(source, volumesFolder(), kLiteralSearch) && mountedBefore.contains(lastPathComponent(source))) {
        Log("!!! NOTE: image previously mounted at: %@.", source);
        previouslyMounted_ = true;
    } else {
        Log("!!! NOTE: image mounted at: %@.", source);
    }
    return Next::Continue;
}

// ---- steps 2 to 9 ----

Run::Next Run::runEngine() {
    if (request_.doTest) runTestPass();
    auto engine = createEngine(request_);
    if (!engine) {
        Log("XXX ERROR: cannot create stripper.");
        status_ = 22;
        return Next::Eject;
    }
    Next next = Next::Eject;
    if (request_.validProductsMode) {
        status_ = reportValidProducts(*engine);
    } else if (request_.validVariantsMode) {
        status_ = reportValidVariants(engine);
    } else {
        next = stripAndFinish(*engine);
    }
    keepUntilExit(std::move(engine));
    return next;
}

// The diagnostic pass of "--doTest": an engine of its own, whose results are reported
// and then dropped.
void Run::runTestPass() {
    auto engine = createEngine(request_);
    if (!engine) return;
    diagnostic(format("test: validProducts %@", niceDescription(engine->validProducts())));
    diagnostic(format("test: validVariants %@", niceDescription(engine->validFactoryVariants())));
    int result = engine->strip();
    diagnostic(format("test: strip returned %d", result));
    diagnostic(format("test: modifiedFiles: %@", engine->modifiedFiles()));
    diagnostic(format("test: strippedManifest: %@", engine->strippedManifest()));
    keepUntilExit(std::move(engine));
}

int Run::reportValidProducts(Stripper& engine) {
    Value products = engine.validProducts();
    if (products.count() == 0) {
        Log("XXX ERROR: cannot get valid products.");
        return 2;
    }
    Value report = Value::dictionary();
    report.set("validProducts", products);
    printPropertyList(report);
    return 0;
}

int Run::reportValidVariants(std::unique_ptr<Stripper>& engine) {
    Value products = engine->validProducts();
    if (products.count() == 0) {
        Log("XXX ERROR: cannot get valid products.");
        return 2;
    }
    Value requested = request_.products.at(0);
    const auto& valid = products.elements();
    bool requestedIsValid =
        !requested.isNone() && std::any_of(valid.begin(), valid.end(), [&](const Value& p) { return p.equals(requested); });
    if (!requestedIsValid) {
        request_.products = Value::array({products.at(0)});
        Log(">>> NOTE changing products to %@", request_.products);
        keepUntilExit(std::move(engine));
        engine = createEngine(request_);
        if (!engine) {
            Log("XXX ERROR: cannot create stripper.");
            return 22;
        }
    }
    Value report = Value::dictionary();
    report.set("validProducts", arrayOrEmpty(engine->validProducts()));
    report.set("validVariants", arrayOrEmpty(engine->validFactoryVariants()));
    printPropertyList(report);
    return 0;
}

Run::Next Run::stripAndFinish(Stripper& engine) {
    if (verboseMode == 1) engine.setVerbose(true);
    Log(">>> analyzing bundle.");
    status_ = engine.strip();
    if (request_.dryRun) printDryRunListing(engine);
    if (!request_.target || request_.dryRun) {
        reportVerdict();
        return Next::Eject;
    }
    if (status_ != 0) return Next::Eject;
    if (!clearExistingTarget()) return Next::Eject;
    status_ = writeTarget(engine);
    if (status_ != 0) temporaryItems_.push_back(*request_.target);
    cleanUp();
    return Next::Eject;
}

void Run::printDryRunListing(Stripper& engine) {
    std::string listing = "Files to be copied:\n";
    Value paths = engine.strippedManifest();
    for (const auto& path : paths.elements()) listing += format("\t%s\n", path);
    listing += "\nFiles to be created:\n";
    Value modified = engine.modifiedFiles();
    if (const auto* entries = modified.asDictionary()) {
        for (const auto& [path, content] : *entries) {  // ascending plain string order
            if (content.isString()) {
                listing += format("\t%s\t\t=\n\"%s\"\n", path, content);
            } else if (const auto* link = content.asData()) {
                listing += format("\t%s\t\t->\t%s\n", path, link->bytes);
            } else if (content.isDictionary()) {
                listing += format("\t%s\t\t=\n%s\n", path, content.description());
            }
        }
    }
    writeOut(listing);
    std::fflush(stdout);
}

void Run::reportVerdict() {
    bool onTerminal = ::isatty(STDERR_FILENO) == 1;
    if (onTerminal) {
        writeOut(status_ == 0 ? kPassedColours : kFailedColours);
        std::fflush(stdout);
    }
    MustLog(status_ == 0 ? "Validation PASSED." : "Validation FAILED.");
    if (onTerminal) {
        writeOut(std::string(kColourReset) + kColourReset);
        std::fflush(stdout);
        std::fflush(stderr);
    }
}

// ---- step 8: the target ----

bool Run::clearExistingTarget() {
    const std::string& target = *request_.target;
    if (!itemExists(target)) return true;
    if (!boolForKey(request_.stripOptions, "overwriteTarget")) {
        Log("XXX ERROR: target \"%@\" already exists.", lastPathComponent(target));
        status_ = 17;
        return false;
    }
    std::string error;
    if (moveToTrash(target, error)) {
        Log(">>> NOTE: moved pre-existing target \"%@\" to Trash.", target);
    } else if (removeItem(target, error)) {
        Log(">>> NOTE: unable to move pre-existing target \"%@\" to Trash, deleted instead.", target);
    } else {
        Log(">>> ERROR: unable to move pre-existing target \"%@\" to Trash and cannot delete it either (%@).", target, error);
        status_ = 17;
        return false;
    }
    return true;
}

int Run::writeTarget(Stripper& engine) {
    std::string kind = pathExtension(*request_.target);
    if (kind == "bom") return writeBomTarget(engine);
    if (kind == "zip") return writeZipTarget(engine);
    if (kind == "dmg") return writeDiskImageTarget(engine);
    return writeFolderTarget(engine);
}

std::string Run::temporaryFolder() const {
    return parentFolderOf(*request_.target) + "/" + format("Whittle.%d", ::getpid());
}

std::string Run::temporaryBundleFolder() const {
    return temporaryFolder() + "/" + withoutExtension(lastPathComponent(*request_.target));
}

int Run::applyModifiedFilesTo(Stripper& engine, const std::string& folder) {
    return applyModifiedFiles(engine.modifiedFiles(), folder, boolForKey(request_.stripOptions, "noSymLinks"));
}

int Run::writeBomTarget(Stripper& engine) {
    Log(">>> creating BOM \"%@\".", lastPathComponent(*request_.target));
    return createBomFromManifest(engine, *request_.target);
}

int Run::writeZipTarget(Stripper& engine) {
    const std::string& target = *request_.target;
    std::string name = lastPathComponent(target);
    std::string bomPath = target.substr(0, target.size() - 3) + "bom";
    int status = createBomFromManifest(engine, bomPath);
    temporaryItems_.push_back(bomPath);
    if (status != 0) return status;

    Log(">>> creating ZIP archive \"%@\".", name);
    status = runPlatformTool(copyToolPath(), {"-ck", "--noextattr", "--noacl", "--bom", bomPath,
                                              std::string(engine.bundleRoot().text()), target});
    if (status != 0) {
        Log("XXX ERROR: unable to create final ZIP archive.");
        return status;
    }
    Log(">>> updating files in ZIP archive \"%@\".", name);
    std::string bundleFolder = temporaryBundleFolder();
    std::error_code ignored;
    std::filesystem::create_directories(bundleFolder, ignored);
    status = applyModifiedFilesTo(engine, bundleFolder);
    temporaryItems_.push_back(temporaryFolder());
    if (status != 0) return status;
    // The target path is handed to zip as typed while zip runs in the temporary bundle
    // folder, so a relative target path is resolved there.
    if (!std::filesystem::is_empty(bundleFolder, ignored)) {
        status = runPlatformTool(zipToolPath(), {"-rvy", target, "."}, nullptr, bundleFolder.c_str());
        if (status != 0) {
            Log("XXX ERROR: unable to update files in ZIP archive.");
            return status;
        }
    }
    Log(">>> checksumming ZIP archive \"%@\".", name);
    std::string checksum;
    runPlatformTool(opensslToolPath(), {"md5", target}, &checksum);
    MustLog("%@", checksum);
    return 0;
}

int Run::writeDiskImageTarget(Stripper& engine) {
    const std::string& target = *request_.target;
    std::string bundleFolder = temporaryBundleFolder();
    Log(">>> copying bundle to temporary folder \"%@\".", lastPathComponent(bundleFolder));
    std::error_code ignored;
    std::filesystem::create_directories(temporaryFolder(), ignored);
    int status = copyBundleThroughBom(engine, bundleFolder);
    temporaryItems_.push_back(temporaryFolder());
    if (status != 0) return status;
    Log(">>> updating files in temporary folder \"%@\".", lastPathComponent(bundleFolder));
    if ((status = applyModifiedFilesTo(engine, bundleFolder)) != 0) return status;

    Log(">>> creating disk image \"%@\".", lastPathComponent(target));
    std::vector<std::string> arguments{"create", "-srcfolder", bundleFolder, target, "-format", "UDRO"};
    if (request_.encrypt) arguments.push_back("-encryption");
    if ((status = runPlatformTool(diskImageToolPath(), arguments)) != 0) {
        Log("XXX ERROR: unable to create final disk image.");
        return status;
    }
    Log(">>> checksumming disk image \"%@\".", lastPathComponent(target));
    std::string checksum;
    runPlatformTool(diskImageToolPath(), {"imageinfo", "-checksum", target}, &checksum);
    MustLog("%@", trimmedOfLineEnds(checksum));
    return 0;
}

int Run::writeFolderTarget(Stripper& engine) {
    const std::string& target = *request_.target;
    Log(">>> copying bundle to \"%@\".", lastPathComponent(target));
    if (int status = copyBundleThroughBom(engine, target)) return status;
    Log(">>> updating files in \"%@\".", lastPathComponent(target));
    return applyModifiedFilesTo(engine, target);
}

// ---- steps 9 and 10 ----

void Run::cleanUp() {
    if (temporaryItems_.empty()) return;
    Log(">>> cleaning up...");
    std::fflush(stdout);
    for (const auto& item : temporaryItems_) {
        std::string path = expandTilde(item);
        // An item that a failed step never made leaves nothing to clean.
        if (!itemExists(path)) continue;
        std::string error;
        if (moveToTrash(path, error)) continue;
        if (removeItem(path, error)) {
            Log(">>> NOTE cannot move \"%@\" to Trash - deleted instead.", lastPathComponent(path));
        } else {
            Log(">>> WARNING cannot move \"%@\" to Trash and cannot delete it either (%@).", lastPathComponent(path), error);
        }
    }
}

void Run::eject() {
    if (deviceEntry_.empty() || previouslyMounted_) return;
    Log(">>> unmounting disk image.");
    if (int status = runPlatformTool(diskImageToolPath(), {"eject", deviceEntry_})) {
        Log("XXX ERROR: unable to eject source disk image.");
        if (status_ == 0) status_ = status;
    }
}

}  // namespace

int runRequest(RunRequest& request) { return Run(request).execute(); }

void saveLog(int status) {
    std::string error;
    writeFileAtomically(kLogFilePath, LogObject::sharedLogger().historicalLog(), error);
    if (status != 0) Log("XXX ERROR: log file in %s", kLogFilePath);
}

int whittleMain(const std::vector<std::string>& arguments) {
    setProcessArguments(arguments);
    RunRequest request;
    ParseOutcome outcome = parseCommandLine(arguments, request);
    switch (outcome.next) {
        case ParseOutcome::Next::ExitWithoutLog: return outcome.status;
        case ParseOutcome::Next::ExitAfterSavingLog: saveLog(outcome.status); return outcome.status;
        case ParseOutcome::Next::Run: break;
    }
    int status = runRequest(request);
    saveLog(status);
    return status;
}

}  // namespace whittle
