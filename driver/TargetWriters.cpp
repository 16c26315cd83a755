#include "driver/TargetWriters.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <set>

#include "engine/BundleFiles.hpp"
#include "engine/BundlePaths.hpp"
#include "support/ContainedPaths.hpp"
#include "support/DescriptorIo.hpp"
#include "support/LogObject.hpp"
#include "support/Paths.hpp"
#include "support/PlistCodec.hpp"

namespace whittle {

namespace {

// Each line of the file list is formatted into a buffer of this size, so a longer
// line is cut short, its line end included.
constexpr std::size_t kFileListLineBuffer = 1024;

// Creates a new file from a template whose trailing X's become a unique suffix.
int createFromTemplate(const std::string& pattern, std::string& path) {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static std::mt19937_64 random(std::random_device{}());
    std::size_t suffix = pattern.size() - pattern.find_last_not_of('X') - 1;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        path = pattern;
        for (std::size_t i = path.size() - suffix; i < path.size(); ++i) path[i] = letters[random() % (sizeof letters - 1)];
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    errno = EEXIST;
    return -1;
}

std::string fileListLine(const std::string& text) {
    return text.size() < kFileListLineBuffer ? text : text.substr(0, kFileListLineBuffer - 1);
}

int makeBom(PlatformTools& tools, const std::string& fileList, const std::string& bomPath) {
    int status = tools.run(tools.paths().bomTool, {"-s", "-i", fileList, bomPath});
    ::unlink(fileList.c_str());
    if (status != 0) {
        Log("XXX ERROR: unable to create BOM.");
        tools.explainLastFailure();
    }
    return status;
}

}  // namespace

int writeFileListToTempFile(Stripper& engine, std::string& pathBuffer) {
    Value manifest = engine.strippedManifest();
    Log(">>> writeFileListToTempFile.");
    LogObject::sharedLogger().PrettyPrint(manifest);
    int fd = createFromTemplate(kFileListTemplate, pathBuffer);
    if (fd < 0) {
        int error = errno;
        Log("XXX ERROR: unable to create temporary file list.");
        Log("!!! NOTE: %@ - %@.", std::string(kFileListTemplate), std::string(std::strerror(error)));
        pathBuffer.clear();
        return error;
    }
    std::string list = ".\n";
    for (const auto& path : manifest.elements()) list += fileListLine(format("./%s\n", path));
    bool written = writeAll(fd, list);
    int error = errno;
    if (::close(fd) != 0 && written) {
        written = false;
        error = errno;
    }
    if (!written) {
        Log("XXX ERROR: unable to create temporary file list.");
        Log("!!! NOTE: %@ - %@.", pathBuffer, std::string(std::strerror(error)));
        ::unlink(pathBuffer.c_str());
        pathBuffer.clear();
        return error;
    }
    return 0;
}

int createBomFromManifest(PlatformTools& tools, Stripper& engine, const std::string& bomPath) {
    std::string fileList;
    if (int status = writeFileListToTempFile(engine, fileList)) return status;
    return makeBom(tools, fileList, bomPath);
}

int copyBundleThroughBom(PlatformTools& tools, Stripper& engine, const std::string& destination) {
    std::string fileList;
    if (int status = writeFileListToTempFile(engine, fileList)) return status;
    std::string bomPath = fileList + ".bom";
    if (int status = makeBom(tools, fileList, bomPath)) return status;

    int status = tools.run(tools.paths().copyTool, {"-vV", "--noextattr", "--noacl", "--bom", bomPath,
                                                  std::string(engine.bundleRoot().text()), destination});
    ::unlink(bomPath.c_str());
    if (status != 0) {
        Log("XXX ERROR: copying manifest to target failed.");
        tools.explainLastFailure();
        return status;
    }
    tools.run(tools.paths().chmodTool, {"-R", "-v", "-v", "u+rw", destination});
    return 0;
}

int applyModifiedFiles(const Value& modifiedFiles, const std::string& destination, bool noSymLinks) {
    int result = 0;
    const auto* entries = modifiedFiles.asDictionary();
    if (!entries) return 0;
    for (const auto& [relative, content] : *entries) {
        std::string name = lastPathComponent(relative);
        std::string error;
        if (content.isString()) {
            Log(">>> updating text file \"%@\".", name);
            LogObject::sharedLogger().PrettyPrint(content);
            if (!writeContainedFile(destination, relative, content.text(), error)) {
                Log("XXX ERROR: unable to update file - %@.", error);
                return 1;
            }
        } else if (const auto* link = content.asData()) {
            if (noSymLinks) continue;
            Log(">>> symlinking \"%@\" -> \"%@\".", name, link->bytes);
            if (!makeContainedSymlink(destination, relative, link->bytes, error)) {
                Log("XXX ERROR: unable to create symlink - %@.", error);
                result = 1;
            }
        } else if (content.isDictionary()) {
            Log(">>> updating plist file \"%@\".", name);
            LogObject::sharedLogger().PrettyPrint(content);
            std::string xml = xmlPropertyList(content);
            if (xml.empty()) {
                Log("XXX ERROR: unable to serialize plist - %@.", std::string("the property list could not be written"));
                result = 1;
            } else if (!writeContainedFile(destination, relative, xml, error)) {
                Log("XXX ERROR: unable to update plist - %@.", error);
                result = 1;
            }
        } else {
            Log("!!! WARNING: skipping update of \"%@\".", destination + "/" + relative);
        }
    }
    return result;
}

void settleTimesOfModifiedFiles(const Value& modifiedFiles, const std::string& destination, const BundleFiles& source,
                                std::optional<timespec> accessTime) {
    const auto* entries = modifiedFiles.asDictionary();
    auto manifestTime = source.modificationTime(kBuildManifest);
    if (!entries || !manifestTime) return;
    auto setTime = [&destination, accessTime](const std::string& relative, const timespec& time) {
        timespec times[2] = {accessTime.value_or(time), time};
        std::string path = relative.empty() ? destination : destination + "/" + relative;
        ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    };
    std::set<std::string> folders{""};
    for (const auto& [relative, content] : *entries) {
        if (!isContainedRelativePath(relative)) continue;
        setTime(relative, *manifestTime);
        for (std::string folder = deletingLastPathComponent(relative); !folder.empty(); folder = deletingLastPathComponent(folder)) {
            folders.insert(folder);
        }
    }
    // Deepest first: setting a folder's time must come after everything inside it.
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
        setTime(*folder, source.modificationTime(*folder).value_or(*manifestTime));
    }
}

}  // namespace whittle
