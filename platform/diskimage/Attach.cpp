#include "platform/diskimage/Attach.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/Entities.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/StopCleanup.hpp"
#include "platform/diskimage/Subprocess.hpp"
#include "platform/diskimage/Udif.hpp"
#include "platform/diskimage/VolumeRegistry.hpp"
#include "platform/helper/ProcessInfo.hpp"
#include "support/Paths.hpp"

namespace whittle::diskimage {

namespace {

// A folder for work in progress (made by VolumeRegistry::makeWorkFolder), removed with
// its content when done, or when the tool is stopped.
class WorkFolder {
public:
    explicit WorkFolder(std::string path) : path_(std::move(path)) {}
    ~WorkFolder() {
        removeTree(path_);
        keepOnStop(path_);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

// Decrypts an encrypted container into a file of the work folder; answers its path.
std::string decryptForAttach(int fd, const std::string& imagePath, const std::string& workFolder,
                             const PassphrasePrompt& askPassphrase) {
    EncryptedHeader header = readEncryptedHeader(fd, imagePath);
    auto passphrase = askPassphrase("Enter the passphrase for " + inQuotes(lastPathComponent(imagePath)) + ": ");
    if (!passphrase)
        throw DiskImageError(inQuotes(imagePath) + " is encrypted, and there is no terminal to ask for its passphrase");
    auto keys = unlockContainer(header, *passphrase);
    if (!keys) throw DiskImageError("wrong passphrase for " + inQuotes(imagePath));
    std::string innerPath = workFolder + "/image.dmg";
    UniqueDescriptor inner(::open(innerPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!inner.valid()) throwSystemError("cannot create " + inQuotes(innerPath), errno);
    decryptContainer(fd, header, *keys, inner.get(), imagePath);
    return innerPath;
}

void checkMasterChecksum(const UdifImage& image, const std::string& imagePath) {
    const ChecksumRecord& master = image.trailer.masterChecksum;
    if (master.isCrc32() && master.value != masterChecksumOf(image.entries))
        throw DiskImageError(inQuotes(imagePath) + " is damaged: its master checksum does not match");
}

// Checks the image's checksums: our own pass over uncompressed images, 7zz for the
// others. Either runs while the volume is being extracted.
class ChecksumVerification {
public:
    ChecksumVerification(const ToolSettings& settings, int udifFd, const UdifImage& image, const std::string& udifPath,
                         const std::string& imagePath)
        : imagePath_(imagePath) {
        if (hasOnlyRawChunks(image)) {
            StopSignalsBlocked blocked;  // inherited by the thread: stops are the main thread's business
            ownPass_ = std::thread([this, udifFd, &image, imagePath] {
                try {
                    verifyRawImage(udifFd, image, imagePath);
                } catch (...) {
                    failure_ = std::current_exception();
                }
            });
        } else {
            sevenZipPass_.emplace(std::vector<std::string>{settings.sevenZip, "t", "-tdmg", "-bd", "--", udifPath});
        }
    }
    ~ChecksumVerification() {
        if (ownPass_.joinable()) ownPass_.join();
    }
    ChecksumVerification(const ChecksumVerification&) = delete;
    ChecksumVerification& operator=(const ChecksumVerification&) = delete;

    // Throws when a checksum did not match.
    void finish() {
        if (ownPass_.joinable()) ownPass_.join();
        if (failure_) std::rethrow_exception(failure_);
        if (sevenZipPass_ && sevenZipPass_->wait() != 0)
            throw DiskImageError(inQuotes(imagePath_) +
                                 " is damaged: checksum verification failed: " + sevenZipPass_->failureReason());
    }

private:
    std::string imagePath_;
    std::thread ownPass_;
    std::exception_ptr failure_;
    std::optional<ChildProcess> sevenZipPass_;
};

// Extracts the image's volume into a new folder at outputFolder, verifying its
// checksums meanwhile unless told not to.
void extractVolume(const ToolSettings& settings, int udifFd, const UdifImage& image, const std::string& udifPath,
                   const std::string& outputFolder, bool verify, const std::string& imagePath) {
    ChildProcess extractor(
        {settings.sevenZip, "x", "-y", "-bd", "-snld20", "-sns-", "-o" + outputFolder, "--", udifPath});
    std::optional<ChecksumVerification> verification;
    if (verify) verification.emplace(settings, udifFd, image, udifPath, imagePath);
    int extractStatus = extractor.wait();
    if (verification) verification->finish();
    // 1 is 7zz's status for warnings only.
    if (extractStatus != 0 && extractStatus != 1)
        throw DiskImageError("cannot extract the volume of " + inQuotes(imagePath) + " into " +
                             inQuotes(outputFolder) + ": " + extractor.failureReason());
}

// The one folder that 7zz made for the volume.
std::string volumeFolderIn(const std::string& outputFolder, const std::string& imagePath) {
    std::vector<std::string> names;
    if (DIR* folder = ::opendir(outputFolder.c_str())) {
        while (dirent* entry = ::readdir(folder)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(folder);
    }
    struct stat status {};
    if (names.size() != 1 || ::lstat((outputFolder + "/" + names[0]).c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw DiskImageError("7zz found no volume in " + inQuotes(imagePath));
    return outputFolder + "/" + names[0];
}

void removeHiddenRootItems(const std::string& volumeFolder) {
    for (std::string_view name : format::hfs::kHiddenRootItems) removeTree(volumeFolder + "/" + std::string(name));
}

// 7zz points absolute symbolic links into its output folder ("/etc/x" becomes
// "<output>/etc/x"); this puts the image's own targets back.
void restoreAbsoluteLinks(const std::string& outputFolder) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator walk(outputFolder, fs::directory_options::skip_permission_denied, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        if (!walk->is_symlink(error)) continue;
        std::string target = fs::read_symlink(walk->path(), error).string();
        if (error) break;
        std::string original;
        if (target == outputFolder) {
            original = "/";
        } else if (target.starts_with(outputFolder + "/")) {
            original = target.substr(outputFolder.size());
        } else {
            continue;
        }
        std::string link = walk->path().string();
        if (::unlink(link.c_str()) != 0 || ::symlink(original.c_str(), link.c_str()) != 0)
            throwSystemError("cannot restore the symbolic link " + inQuotes(link), errno);
    }
    if (error) throw DiskImageError("cannot read the extracted volume: " + error.message());
}

// Reads the image (decrypting it first when needed), checks it and extracts its
// volume into the work folder; answers the entity plan and the volume's folder.
struct PreparedVolume {
    EntityPlan plan;
    std::string folder;
};

PreparedVolume prepareVolume(int fd, const std::string& imagePath, const WorkFolder& work, const AttachOptions& options,
                             const ToolSettings& settings, const PassphrasePrompt& askPassphrase) {
    struct stat status = statusOf(fd, imagePath);
    auto fileSize = static_cast<std::uint64_t>(status.st_size);
    std::string udifPath = imagePath;
    UniqueDescriptor decrypted;
    if (isEncryptedContainer(fd)) {
        udifPath = decryptForAttach(fd, imagePath, work.path(), askPassphrase);
        decrypted = openForReading(udifPath);
    } else if (isOldEncryptedContainer(fd, fileSize)) {
        throw DiskImageError(inQuotes(imagePath) +
                             " is encrypted in the obsolete first format, which is not supported");
    } else if (!endsWithTrailer(fd, fileSize)) {
        throw DiskImageError(inQuotes(imagePath) + " is not a disk image of a kind this tool reads");
    }
    int udifFd = decrypted.valid() ? decrypted.get() : fd;
    UdifImage image = readUdifImage(udifFd, imagePath);
    if (options.verify) checkMasterChecksum(image, imagePath);
    PreparedVolume prepared;
    try {
        prepared.plan = planEntities(image);
    } catch (const DiskImageError& error) {
        throw DiskImageError("cannot attach " + inQuotes(imagePath) + ": " + error.what());
    }
    std::string outputFolder = work.path() + "/volume";
    extractVolume(settings, udifFd, image, udifPath, outputFolder, options.verify, imagePath);
    prepared.folder = volumeFolderIn(outputFolder, imagePath);
    removeHiddenRootItems(prepared.folder);
    restoreAbsoluteLinks(outputFolder);
    return prepared;
}

std::string noSuchDisk(const std::string& entry) { return "no attached image has the device entry " + inQuotes(entry); }

// The registry, when there is one: without a volumes folder nothing is attached.
VolumeRegistry existingRegistry(const ToolSettings& settings, const std::string& entry) {
    try {
        return VolumeRegistry(settings.volumesFolder, VolumeRegistry::Missing::Fail);
    } catch (const DiskImageError&) {
        throw DiskImageError(noSuchDisk(entry));
    }
}

// Takes the record's volume out of the volumes folder at once, into a work folder that
// goes with it when dropped, and forgets the record. Only a folder directly inside the
// volumes folder is ever removed. Call with the lock held.
std::unique_ptr<WorkFolder> detachVolume(const VolumeRegistry& registry, const AttachmentRecord& record) {
    std::unique_ptr<WorkFolder> doomed;
    if (registry.isMountPointPath(record.mountPoint)) {
        doomed = std::make_unique<WorkFolder>(registry.makeWorkFolder("eject"));
        if (::rename(record.mountPoint.c_str(), (doomed->path() + "/volume").c_str()) != 0) {
            int error = errno;
            throwSystemError("cannot remove " + inQuotes(record.mountPoint), error);
        }
    }
    registry.forget(record.diskNumber);
    return doomed;
}

using DetachedVolumes = std::vector<std::unique_ptr<WorkFolder>>;

// Detaches the volumes that runs attached and left behind when they ended; answers
// the names they had. Those names are not given out again by this attach: the caller
// took the volumes folder's names before it started the tool, and would take a volume
// under one of them for one that was attached before. Call with the lock held.
std::set<std::string> detachVolumesOfEndedRuns(const VolumeRegistry& registry, DetachedVolumes& detached) {
    std::set<std::string> names;
    for (const AttachmentRecord& record : registry.allRecords()) {
        if (!record.outlivedItsOwners()) continue;
        try {
            detached.push_back(detachVolume(registry, record));
            names.insert(lastPathComponent(record.mountPoint));
        } catch (const DiskImageError&) {
            // Left attached: it still answers for its image.
        }
    }
    return names;
}

// The run this attach is for: the caller. An attach typed at a terminal is the
// user's own (the tool's callers never give it a terminal as standard input), and its
// volume stays until the user ejects it.
std::optional<helper::ProcessIdentity> ownerOfThisAttach() {
    if (::isatty(STDIN_FILENO)) return std::nullopt;
    return helper::runningProcess(helper::callerPid());
}

// An image attached already: this run uses its volume as well, and the volume stays
// while any of its runs goes on. Once the user has attached it, it stays for good.
Value shareAttachment(const VolumeRegistry& registry, AttachmentRecord record,
                      const std::optional<helper::ProcessIdentity>& owner) {
    if (record.owners.empty()) return record.systemEntities;
    if (!owner) {
        record.owners.clear();
    } else {
        if (std::find(record.owners.begin(), record.owners.end(), *owner) != record.owners.end())
            return record.systemEntities;
        std::erase_if(record.owners,
                      [](const helper::ProcessIdentity& earlier) { return !helper::isRunning(earlier); });
        record.owners.push_back(*owner);
    }
    registry.save(record);
    return record.systemEntities;
}

// Moves the prepared volume to its mount point and records it; a stop in between
// leaves neither.
void publishVolume(const VolumeRegistry& registry, const std::string& preparedFolder, const AttachmentRecord& record) {
    {
        StopSignalsBlocked blocked;
        if (::renameat2(AT_FDCWD, preparedFolder.c_str(), AT_FDCWD, record.mountPoint.c_str(), RENAME_NOREPLACE) != 0) {
            int error = errno;
            throwSystemError("cannot make the volume available at " + inQuotes(record.mountPoint), error);
        }
        removeOnStop(record.mountPoint);
    }
    try {
        registry.save(record);
    } catch (const DiskImageError&) {
        removeTree(record.mountPoint);
        keepOnStop(record.mountPoint);
        throw;
    }
    keepOnStop(record.mountPoint);
}

}  // namespace

Value attachImage(const AttachOptions& options, const ToolSettings& settings, const PassphrasePrompt& askPassphrase) {
    std::string imagePath = canonicalPath(options.imagePath);
    UniqueDescriptor image = openForReading(imagePath);
    if (!S_ISREG(statusOf(image.get(), imagePath).st_mode))
        throw DiskImageError(inQuotes(imagePath) + " is not a file");
    std::string imageKey = VolumeRegistry::imageKeyOf(image.get(), imagePath);
    std::optional<helper::ProcessIdentity> owner = ownerOfThisAttach();
    VolumeRegistry registry(settings.volumesFolder, VolumeRegistry::Missing::Create);
    DetachedVolumes detached;  // removed after the lock is given back
    std::set<std::string> freedNames;
    {
        auto lock = registry.lock();
        registry.removeAbandonedWork();
        freedNames = detachVolumesOfEndedRuns(registry, detached);
        if (auto record = registry.findByImage(imageKey)) return shareAttachment(registry, *record, owner);
    }

    // The slow part runs without the lock, so that other images attach meanwhile.
    WorkFolder work(registry.makeWorkFolder("attach"));
    PreparedVolume prepared = prepareVolume(image.get(), imagePath, work, options, settings, askPassphrase);

    auto lock = registry.lock();
    // Attached meanwhile by another run.
    if (auto record = registry.findByImage(imageKey)) return shareAttachment(registry, *record, owner);
    AttachmentRecord record;
    record.diskNumber = registry.unusedDiskNumber();
    record.imageKey = imageKey;
    record.imagePath = imagePath;
    record.mountPoint = registry.unusedMountPoint(lastPathComponent(prepared.folder), freedNames);
    record.systemEntities = systemEntities(prepared.plan, record.diskNumber, record.mountPoint);
    if (owner) record.owners.push_back(*owner);
    publishVolume(registry, prepared.folder, record);
    return record.systemEntities;
}

std::string ejectDisk(std::string_view devEntryText, const ToolSettings& settings) {
    std::string entry(devEntryText);
    auto diskNumber = diskNumberOfDevEntry(entry);
    if (!diskNumber) throw DiskImageError(inQuotes(entry) + " is not the device entry of an attached image");
    VolumeRegistry registry = existingRegistry(settings, entry);
    std::unique_ptr<WorkFolder> doomed;  // removed after the lock is given back
    {
        auto lock = registry.lock();
        registry.removeAbandonedWork();
        auto record = registry.findByDisk(*diskNumber);
        if (!record) throw DiskImageError(noSuchDisk(entry));
        doomed = detachVolume(registry, *record);
    }
    return lastPathComponent(devEntry(*diskNumber, 0));
}

}  // namespace whittle::diskimage
