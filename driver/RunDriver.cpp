#include "driver/RunDriver.hpp"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <vector>

#include "driver/ArchiveSources.hpp"
#include "driver/Interrupts.hpp"
#include "driver/Leftovers.hpp"
#include "driver/TargetWriters.hpp"
#include "engine/FolderBundleFiles.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/ProcessInfo.hpp"
#include "support/Trash.hpp"
#include "tools/DiskImage.hpp"

namespace whittle {

namespace {

constexpr const char* kPassedColours = "\x1b[37m\x1b[42m";
constexpr const char* kFailedColours = "\x1b[37m\x1b[41m";
// 2100-01-01 00:00:00 UTC.
constexpr timespec kUnchangingAccessTime{4102444800, 0};


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

void printPropertyList(const Value& value) { writeToStandardOutput(xmlPropertyList(value) + "\n"); }

Value arrayOrEmpty(const Value& value) { return value.isArray() ? value : Value::array(); }

bool itemExists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

std::string trimmedOfLineEnds(std::string text) {
    auto isLineEnd = [](char c) { return c == '\n' || c == '\r'; };
    while (!text.empty() && isLineEnd(text.back())) text.pop_back();
    std::size_t start = 0;
    while (start < text.size() && isLineEnd(text[start])) ++start;
    return text.substr(start);
}

// One run of the tool, from the parsed command line to the saved log.
class Run {
public:
    Run(RunRequest& request, const RunServices& services)
        : request_(request), services_(services), tools_(services.toolRunner, services.toolPaths, verboseMode == 1) {}
    int execute();

private:
    enum class Next { Continue, Eject, SaveLog };

    void reportSourceKindProblems();
    void reportMissingRestoreFolder();
    Next mountSource();
    Next runEngine();
    void runTestPass();
    int reportValidProducts(Stripper& engine);
    int reportValidVariants(std::unique_ptr<Stripper>& engine);
    Next stripAndFinish(Stripper& engine);
    void warnAboutKeptPathsNotInBundle(Stripper& engine);
    void printDryRunListing(Stripper& engine);
    void reportVerdict();
    bool clearExistingTarget();
    int writeTarget(Stripper& engine);
    int writeBomTarget(Stripper& engine);
    int writeZipTarget(Stripper& engine);
    int updateAndChecksumZipTarget(Stripper& engine);
    int copyKeptPaths(Stripper& engine, const std::string& destination);
    int writeDiskImageTarget(Stripper& engine);
    int writeFolderTarget(Stripper& engine);
    int makeTemporaryFolder();
    int moveStagedTargetIntoPlace();
    int applyModifiedFilesTo(Stripper& engine, const std::string& folder, std::optional<timespec> accessTime = std::nullopt);
    std::string temporaryFolder() const;
    std::string temporaryBundleFolder() const;
    void noteBytesFetched();
    void noteInterruption();
    int finishInterrupted();
    void cleanUp();
    void eject();
    std::unique_ptr<Stripper> createEngine();
    std::shared_ptr<const BundleFiles> sourceFiles();
    // The source's archive, when the bundle is read from one.
    const ZipBundleFiles* sourceArchive();

    RunRequest& request_;
    const RunServices& services_;
    PlatformTools tools_;
    // The bundle the engines read, opened once the source is known (after a mount).
    std::shared_ptr<const BundleFiles> sourceFiles_;
    const ZipBundleFiles* sourceArchive_ = nullptr;  // the source, when it is a zip archive
    // The live line of a remote source's fetching, on a terminal.
    std::unique_ptr<FetchProgress> fetchProgress_;
    int status_ = 0;
    std::string deviceEntry_;
    bool previouslyMounted_ = false;
    bool interruptionNoted_ = false;
    std::vector<std::string> temporaryItems_;
    // The target made absolute, and the name it is built under before it is renamed
    // into place; messages keep naming the target as it was typed.
    std::string absoluteTarget_;
    std::string stagedTarget_;
};

int Run::execute() {
    reportSourceKindProblems();
    Next next = mountSource();
    if (next == Next::Continue && !interrupted()) {
        reportMissingRestoreFolder();
        next = runEngine();
    }
    noteBytesFetched();
    if (interrupted()) return finishInterrupted();
    if (next != Next::SaveLog) eject();
    return status_;
}

// ---- what is wrong with the source, said before the failure it leads to ----

void Run::reportSourceKindProblems() {
    const std::string& source = *request_.source;
    if (isRemoteSource(source)) return;
    struct stat info {};
    if (::stat(source.c_str(), &info) != 0) {
        int error = errno;
        if (error == ENOENT || error == ENOTDIR) {
            Log("XXX ERROR: source \"%@\" does not exist.", source);
        } else {
            Log("XXX ERROR: source \"%@\" cannot be reached - %@.", source, std::string(std::strerror(error)));
        }
    } else if (!S_ISDIR(info.st_mode) && !equalsIgnoringCase(pathExtension(source), "dmg") && !isArchiveSource(source)) {
        Log("XXX ERROR: source \"%@\" is neither a folder nor a disk image (\".dmg\").", source);
    }
}

void Run::reportMissingRestoreFolder() {
    const std::string& source = *request_.source;
    struct stat info {};
    bool isFolder = ::stat(source.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    if (!isFolder && !sourceArchive()) return;
    auto files = sourceFiles();
    if (files && !files->isFolder("Restore") && !files->linkTarget("Restore")) {
        Log("XXX ERROR: source \"%@\" has no \"Restore\" folder.", source);
    }
}

// ---- step 1: a disk-image source ----

Run::Next Run::mountSource() {
    std::string& source = *request_.source;
    if (!equalsIgnoringCase(pathExtension(source), "dmg")) return Next::Continue;
    const std::string& volumesFolder = tools_.paths().volumesFolder;
    auto namesBefore = namesInFolder(volumesFolder);
    std::set<std::string> mountedBefore(namesBefore.begin(), namesBefore.end());
    Log(">>> mounting disk image \"%s\".", source);
    std::vector<std::string> arguments{"attach", source, "-plist"};
    if (request_.validVariantsMode) arguments.push_back("-noverify");
    std::string output;
    if (int status = tools_.run(tools_.paths().diskImageTool, arguments, &output)) {
        Log("XXX ERROR: unable to mount source disk image: %s.", source);
        tools_.explainLastFailure();
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
    if (hasPrefix(source, volumesFolder, kLiteralSearch) && mountedBefore.contains(lastPathComponent(source))) {
        Log("!!! NOTE: image previously mounted at: %@.", source);
        previouslyMounted_ = true;
    } else {
        Log("!!! NOTE: image mounted at: %@.", source);
    }
    return Next::Continue;
}

// ---- steps 2 to 9 ----

std::shared_ptr<const BundleFiles> Run::sourceFiles() {
    if (sourceFiles_) return sourceFiles_;
    sourceFiles_ = services_.openBundle(*request_.source);
    sourceArchive_ = dynamic_cast<const ZipBundleFiles*>(sourceFiles_.get());
    if (sourceArchive_) fetchProgress_ = fetchProgressOnTerminal(*sourceArchive_);
    return sourceFiles_;
}

const ZipBundleFiles* Run::sourceArchive() {
    sourceFiles();
    return sourceArchive_;
}

// No engine is made for a bundle that could not be opened.
std::unique_ptr<Stripper> Run::createEngine() {
    auto files = sourceFiles();
    if (!files) return nullptr;
    return stripperClass().stripperForBundle(std::move(files), request_.products, request_.factoryVariants,
                                             request_.stripOptions);
}

Run::Next Run::runEngine() {
    if (request_.doTest) runTestPass();
    auto engine = createEngine();
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
    auto engine = createEngine();
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
        engine = createEngine();
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
    if (interrupted()) return Next::Eject;
    bool validating = !request_.target || request_.dryRun;
    if (validating && status_ == 0) warnAboutKeptPathsNotInBundle(engine);
    if (request_.dryRun) printDryRunListing(engine);
    if (validating) {
        reportVerdict();
        return Next::Eject;
    }
    if (status_ != 0) return Next::Eject;
    if (!clearExistingTarget()) return Next::Eject;
    status_ = writeTarget(engine);
    if (status_ != 0 && !stagedTarget_.empty()) temporaryItems_.push_back(stagedTarget_);
    if (interrupted()) noteInterruption();
    cleanUp();
    return Next::Eject;
}

// A kept path the bundle does not hold passes the analysis but fails the copy: say so
// before the verdict.
void Run::warnAboutKeptPathsNotInBundle(Stripper& engine) {
    Value kept = engine.strippedManifest();
    auto files = sourceFiles();
    for (const auto& path : kept.elements()) {
        if (!files->exists(path.text())) Log("!!! WARNING: kept path \"%@\" is not in the bundle.", path);
    }
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
    writeToStandardOutput(listing);
}

void Run::reportVerdict() {
    bool onTerminal = ::isatty(STDERR_FILENO) == 1;
    if (onTerminal) writeToStandardOutput(status_ == 0 ? kPassedColours : kFailedColours);
    MustLog(status_ == 0 ? "Validation PASSED." : "Validation FAILED.");
    if (onTerminal) {
        writeToStandardOutput(std::string(kColourReset) + kColourReset);
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
    if (services_.moveToTrash(target, error)) {
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

// Every kind of target is built under a name of this run's own beside the target and
// renamed to the target path as the last step, so the target path never holds a part.
int Run::writeTarget(Stripper& engine) {
    absoluteTarget_ = std::filesystem::absolute(*request_.target).string();
    clearLeftoversOfEndedRuns(parentFolderOf(absoluteTarget_));
    stagedTarget_ = stagingPathFor(absoluteTarget_, ::getpid());
    std::string kind = pathExtension(*request_.target);
    int status = kind == "bom"   ? writeBomTarget(engine)
                 : kind == "zip" ? writeZipTarget(engine)
                 : kind == "dmg" ? writeDiskImageTarget(engine)
                                 : writeFolderTarget(engine);
    if (status == 0 && interrupted()) status = 128 + stopSignal();
    if (status == 0) status = moveStagedTargetIntoPlace();
    return status;
}

int Run::moveStagedTargetIntoPlace() {
    if (::renameat2(AT_FDCWD, stagedTarget_.c_str(), AT_FDCWD, absoluteTarget_.c_str(), RENAME_NOREPLACE) == 0) {
        stagedTarget_.clear();
        return 0;
    }
    int error = errno;
    if (error == EEXIST) {
        Log("XXX ERROR: target \"%@\" already exists.", lastPathComponent(*request_.target));
        return 17;
    }
    Log("XXX ERROR: unable to move the finished target into place at \"%@\" - %@.", *request_.target,
        std::string(std::strerror(error)));
    return 1;
}

std::string Run::temporaryFolder() const { return temporaryFolderFor(absoluteTarget_, ::getpid()); }

std::string Run::temporaryBundleFolder() const {
    return joinPath(temporaryFolder(), withoutExtension(lastPathComponent(absoluteTarget_)));
}

int Run::makeTemporaryFolder() {
    std::string folder = temporaryFolder();
    if (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) return 0;
    int error = errno;
    Log("XXX ERROR: unable to create temporary folder \"%@\" - %@.", folder, std::string(std::strerror(error)));
    return 1;
}

int Run::applyModifiedFilesTo(Stripper& engine, const std::string& folder, std::optional<timespec> accessTime) {
    Value modified = engine.modifiedFiles();
    int status = applyModifiedFiles(modified, folder, boolForKey(request_.stripOptions, "noSymLinks"));
    if (status == 0) {
        settleTimesOfModifiedFiles(modified, folder, *sourceFiles(), accessTime);
    }
    return status;
}

int Run::writeBomTarget(Stripper& engine) {
    Log(">>> creating BOM \"%@\".", lastPathComponent(*request_.target));
    return createBomFromManifest(tools_, engine, stagedTarget_);
}

int Run::writeZipTarget(Stripper& engine) {
    std::string name = lastPathComponent(*request_.target);
    if (int status = makeTemporaryFolder()) return status;
    temporaryItems_.push_back(temporaryFolder());
    if (const auto* archive = sourceArchive()) {
        Log(">>> creating ZIP archive \"%@\".", name);
        if (int status = copyKeptEntries(*archive, engine.strippedManifest(), stagedTarget_, fetchProgress_.get()))
            return status;
        if (interrupted()) return 128 + stopSignal();
        return updateAndChecksumZipTarget(engine);
    }
    // The BOM lives in the temporary folder, never beside the target where a file of
    // the user's could stand under its name.
    std::string bomPath = joinPath(temporaryFolder(), withoutExtension(name) + ".bom");
    if (int status = createBomFromManifest(tools_, engine, bomPath)) return status;
    if (interrupted()) return 128 + stopSignal();

    Log(">>> creating ZIP archive \"%@\".", name);
    int status = tools_.run(tools_.paths().copyTool, {"-ck", "--noextattr", "--noacl", "--bom", bomPath,
                                                  std::string(engine.bundleRoot().text()), stagedTarget_});
    if (status != 0) {
        Log("XXX ERROR: unable to create final ZIP archive.");
        tools_.explainLastFailure();
        return status;
    }
    return updateAndChecksumZipTarget(engine);
}

int Run::updateAndChecksumZipTarget(Stripper& engine) {
    std::string name = lastPathComponent(*request_.target);
    Log(">>> updating files in ZIP archive \"%@\".", name);
    std::string bundleFolder = temporaryBundleFolder();
    std::error_code ignored;
    std::filesystem::create_directories(bundleFolder, ignored);
    // zip records access times too; these lie beyond the point where reading the files
    // would update them, so that every run records the same.
    int status = applyModifiedFilesTo(engine, bundleFolder, kUnchangingAccessTime);
    if (status != 0) return status;
    if (!std::filesystem::is_empty(bundleFolder, ignored)) {
        // zip writes the archive anew under a name of its own before renaming it; that
        // file goes in the temporary folder, so a zip that dies leaves nothing beside the target.
        status = tools_.run(tools_.paths().zipTool, {"-rvy", "-b", temporaryFolder(), stagedTarget_, "."}, nullptr,
                            bundleFolder);
        if (status != 0) {
            Log("XXX ERROR: unable to update files in ZIP archive.");
            tools_.explainLastFailure();
            return status;
        }
    }
    Log(">>> checksumming ZIP archive \"%@\".", name);
    std::string checksum;
    tools_.run(tools_.paths().opensslTool, {"md5", stagedTarget_}, &checksum);
    // The archive is checksummed before it is renamed into place; the line names the target.
    MustLog("%@", replacingFirst(checksum, stagedTarget_, *request_.target));
    return 0;
}

int Run::writeDiskImageTarget(Stripper& engine) {
    std::string bundleFolder = temporaryBundleFolder();
    Log(">>> copying bundle to temporary folder \"%@\".", lastPathComponent(bundleFolder));
    if (int status = makeTemporaryFolder()) return status;
    int status = copyKeptPaths(engine, bundleFolder);
    temporaryItems_.push_back(temporaryFolder());
    if (status != 0) return status;
    Log(">>> updating files in temporary folder \"%@\".", lastPathComponent(bundleFolder));
    if ((status = applyModifiedFilesTo(engine, bundleFolder)) != 0) return status;
    if (interrupted()) return 128 + stopSignal();

    Log(">>> creating disk image \"%@\".", lastPathComponent(*request_.target));
    std::vector<std::string> arguments{"create", "-srcfolder", bundleFolder, stagedTarget_, "-format", "UDRO"};
    if (request_.encrypt) arguments.push_back("-encryption");
    if ((status = tools_.run(tools_.paths().diskImageTool, arguments)) != 0) {
        Log("XXX ERROR: unable to create final disk image.");
        tools_.explainLastFailure();
        return status;
    }
    Log(">>> checksumming disk image \"%@\".", lastPathComponent(*request_.target));
    std::string checksum;
    tools_.run(tools_.paths().diskImageTool, {"imageinfo", "-checksum", stagedTarget_}, &checksum);
    MustLog("%@", trimmedOfLineEnds(checksum));
    return 0;
}

// The kept paths, out of the source folder through a BOM, or out of the source archive.
int Run::copyKeptPaths(Stripper& engine, const std::string& destination) {
    if (const auto* archive = sourceArchive())
        return extractKeptPaths(*archive, engine.strippedManifest(), destination, fetchProgress_.get());
    return copyBundleThroughBom(tools_, engine, destination);
}

int Run::writeFolderTarget(Stripper& engine) {
    Log(">>> copying bundle to \"%@\".", lastPathComponent(*request_.target));
    if (int status = copyKeptPaths(engine, stagedTarget_)) return status;
    if (interrupted()) return 128 + stopSignal();
    Log(">>> updating files in \"%@\".", lastPathComponent(*request_.target));
    return applyModifiedFilesTo(engine, stagedTarget_);
}

// With --verbose, a remote source's bytes fetched, at the end of every run that read it.
void Run::noteBytesFetched() {
    if (fetchProgress_) fetchProgress_->end();
    if (verboseMode != 1) return;
    if (sourceArchive_) whittle::noteBytesFetched(*sourceArchive_);
}

// ---- interruptions ----

void Run::noteInterruption() {
    status_ = 128 + stopSignal();
    if (interruptionNoted_) return;
    interruptionNoted_ = true;
    Log("XXX ERROR: interrupted by signal %d.", stopSignal());
}

// After a stop signal: the clean-up of step 9 (if the target steps did not reach it),
// then the source image this run attached is ejected.
int Run::finishInterrupted() {
    noteInterruption();
    allowToolsForCleanUp();
    cleanUp();
    eject();
    return status_;
}

// ---- steps 9 and 10 ----

void Run::cleanUp() {
    if (temporaryItems_.empty()) return;
    Log(">>> cleaning up...");
    std::fflush(stdout);
    auto items = std::move(temporaryItems_);
    temporaryItems_.clear();
    for (const auto& item : items) {
        std::string path = expandTilde(item);
        // An item that a failed step never made leaves nothing to clean.
        if (!itemExists(path)) continue;
        std::string error;
        if (services_.moveToTrash(path, error)) continue;
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
    if (int status = tools_.run(tools_.paths().diskImageTool, {"eject", deviceEntry_})) {
        Log("XXX ERROR: unable to eject source disk image.");
        tools_.explainLastFailure();
        if (status_ == 0) status_ = status;
    }
}

}  // namespace

std::shared_ptr<const BundleFiles> openBundleAt(const std::string& root) {
    if (!isArchiveSource(root)) return std::make_shared<FolderBundleFiles>(root);
    if (auto archive = openArchiveBundle(root)) return archive;
    return std::make_shared<UnreadableBundleFiles>(root);
}

RunServices realRunServices(ToolRunner& processRunner) {
    return RunServices{
        .toolRunner = processRunner,
        .toolPaths = ToolPaths::ofThisInstallation(),
        .openBundle = openBundleAt,
        .moveToTrash = [](const std::string& path, std::string& error) { return moveToTrash(path, error); },
    };
}

int runRequest(RunRequest& request, const RunServices& services) { return Run(request, services).execute(); }

int statusAfterStandardOutput(int status) {
    int error = standardOutputError();
    if (error == 0) return status;
    LogObject::sharedLogger().logToStandardError(
        format("XXX ERROR: unable to write to standard output - %@.", std::string(std::strerror(error))));
    return status == 0 ? 1 : status;
}

void saveLog(int status, const std::string& logPath) {
    std::string error;
    writeFileAtomically(logPath, withValidUtf8(LogObject::sharedLogger().historicalLog()), error);
    if (status != 0) Log("XXX ERROR: log file in %s", logPath);
}

int whittleMain(const std::vector<std::string>& arguments) {
    ProcessToolRunner processRunner;
    return runWhittle(arguments, realRunServices(processRunner), kLogFilePath);
}

int runWhittle(const std::vector<std::string>& arguments, const RunServices& services, const std::string& logPath) {
    setProcessArguments(arguments);
    RunRequest request;
    ParseOutcome outcome = parseCommandLine(arguments, request);
    int status = outcome.status;
    switch (outcome.next) {
        case ParseOutcome::Next::ExitWithoutLog: return statusAfterStandardOutput(status);
        case ParseOutcome::Next::ExitAfterSavingLog: break;
        case ParseOutcome::Next::Run:
            catchStopSignals();
            status = runRequest(request, services);
            break;
    }
    status = statusAfterStandardOutput(status);
    saveLog(status, logPath);
    return status;
}

}  // namespace whittle
