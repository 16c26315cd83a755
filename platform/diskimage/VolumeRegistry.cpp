#include "platform/diskimage/VolumeRegistry.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <vector>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/StopCleanup.hpp"
#include "support/FileSystem.hpp"
#include "support/PlistCodec.hpp"
#include "support/Paths.hpp"

namespace whittle::diskimage {

namespace {

constexpr std::string_view kStateFolderName = ".whittle-diskimage";
constexpr std::string_view kLockFileName = "lock";
constexpr std::string_view kRecordPrefix = "disk";
constexpr std::string_view kRecordSuffix = ".plist";
constexpr int kMostMountPointSuffixes = 10000;

constexpr std::string_view kKeyDisk = "disk";
constexpr std::string_view kKeyImageKey = "image-key";
constexpr std::string_view kKeyImagePath = "image-path";
constexpr std::string_view kKeyMountPoint = "mount-point";
constexpr std::string_view kKeySystemEntities = "system-entities";
constexpr std::string_view kKeyOwners = "owners";
constexpr std::string_view kKeyOwnerPid = "pid";
constexpr std::string_view kKeyOwnerStartTime = "start-time";

void makeFolder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw DiskImageError("cannot create the folder \"" + path + "\"" + (error ? ": " + error.message() : ""));
}

bool isFolder(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

std::optional<int> diskNumberOfRecordName(std::string_view name) {
    if (!name.starts_with(kRecordPrefix) || !name.ends_with(kRecordSuffix)) return std::nullopt;
    std::string_view digits =
        name.substr(kRecordPrefix.size(), name.size() - kRecordPrefix.size() - kRecordSuffix.size());
    int number = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() || number <= 0) return std::nullopt;
    return number;
}

std::vector<int> recordedDiskNumbers(const std::string& stateFolder) {
    std::vector<int> numbers;
    DIR* folder = ::opendir(stateFolder.c_str());
    if (!folder) return numbers;
    while (dirent* entry = ::readdir(folder)) {
        if (auto number = diskNumberOfRecordName(entry->d_name)) numbers.push_back(*number);
    }
    ::closedir(folder);
    return numbers;
}

// The process id in a work folder's name "<purpose>.<pid>.<six characters>".
std::optional<pid_t> ownerOfWorkFolder(std::string_view name) {
    auto lastDot = name.rfind('.');
    if (lastDot == std::string_view::npos || name.size() - lastDot != 7 || lastDot == 0) return std::nullopt;
    auto firstDot = name.rfind('.', lastDot - 1);
    if (firstDot == std::string_view::npos) return std::nullopt;
    std::string_view digits = name.substr(firstDot + 1, lastDot - firstDot - 1);
    pid_t pid = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (error != std::errc() || end != digits.data() + digits.size() || pid <= 0) return std::nullopt;
    return pid;
}

Value ownersValue(const std::vector<helper::ProcessIdentity>& owners) {
    Value list = Value::array();
    for (const auto& owner : owners) {
        Value entry = Value::dictionary();
        entry.set(kKeyOwnerPid, Value::integer(owner.pid));
        entry.set(kKeyOwnerStartTime, Value::integer(static_cast<std::int64_t>(owner.startTime)));
        list.append(entry);
    }
    return list;
}

// Entries that are not a pid with a start time are passed over.
std::vector<helper::ProcessIdentity> ownersOf(const Value& list) {
    std::vector<helper::ProcessIdentity> owners;
    for (const Value& entry : list.elements()) {
        const std::int64_t* pid = entry.get(kKeyOwnerPid).asInteger();
        const std::int64_t* startTime = entry.get(kKeyOwnerStartTime).asInteger();
        if (pid && startTime && *pid > 0 && *startTime >= 0)
            owners.push_back({static_cast<pid_t>(*pid), static_cast<unsigned long long>(*startTime)});
    }
    return owners;
}

}  // namespace

bool AttachmentRecord::outlivedItsOwners() const {
    if (owners.empty()) return false;
    for (const auto& owner : owners)
        if (helper::isRunning(owner)) return false;
    return true;
}

VolumeRegistry::VolumeRegistry(const std::string& volumesFolder, Missing missing) {
    if (missing == Missing::Create) makeFolder(volumesFolder);
    volumesFolder_ = canonicalPath(volumesFolder);
    stateFolder_ = volumesFolder_ + "/" + std::string(kStateFolderName);
    if (missing == Missing::Create) makeFolder(stateFolder_);
    if (!isFolder(stateFolder_)) throw DiskImageError("nothing is attached (no \"" + stateFolder_ + "\")");
}

VolumeRegistry::Lock::Lock(const std::string& lockPath)
    : fd_(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (!fd_.valid()) throwSystemError("cannot open \"" + lockPath + "\"", errno);
    while (::flock(fd_.get(), LOCK_EX) != 0) {
        if (errno != EINTR) throwSystemError("cannot lock \"" + lockPath + "\"", errno);
    }
}

VolumeRegistry::Lock VolumeRegistry::lock() const { return Lock(stateFolder_ + "/" + std::string(kLockFileName)); }

std::string VolumeRegistry::recordPath(int diskNumber) const {
    return stateFolder_ + "/" + std::string(kRecordPrefix) + std::to_string(diskNumber) + std::string(kRecordSuffix);
}

std::optional<AttachmentRecord> VolumeRegistry::load(int diskNumber) const {
    auto bytes = readWholeFile(recordPath(diskNumber));
    if (!bytes) return std::nullopt;
    Value root = parsePropertyList(*bytes);
    if (!root.isDictionary()) return std::nullopt;
    AttachmentRecord record;
    record.diskNumber = diskNumber;
    record.imageKey = std::string(root.get(kKeyImageKey).text());
    record.imagePath = std::string(root.get(kKeyImagePath).text());
    record.mountPoint = std::string(root.get(kKeyMountPoint).text());
    record.systemEntities = root.get(kKeySystemEntities);
    if (!record.systemEntities.isArray()) return std::nullopt;
    record.owners = ownersOf(root.get(kKeyOwners));
    return record;
}

std::optional<AttachmentRecord> VolumeRegistry::findByImage(const std::string& imageKey) const {
    for (int number : recordedDiskNumbers(stateFolder_)) {
        auto record = load(number);
        if (!record || record->imageKey != imageKey) continue;
        if (isFolder(record->mountPoint)) return record;
        forget(number);  // its folder was removed behind our back
    }
    return std::nullopt;
}

std::optional<AttachmentRecord> VolumeRegistry::findByDisk(int diskNumber) const { return load(diskNumber); }

std::vector<AttachmentRecord> VolumeRegistry::allRecords() const {
    std::vector<AttachmentRecord> records;
    for (int number : recordedDiskNumbers(stateFolder_)) {
        auto record = load(number);
        if (!record) continue;
        if (isFolder(record->mountPoint)) {
            records.push_back(std::move(*record));
        } else {
            forget(number);  // its folder was removed behind our back
        }
    }
    return records;
}

int VolumeRegistry::unusedDiskNumber() const {
    std::vector<int> used = recordedDiskNumbers(stateFolder_);
    for (int candidate = 1;; ++candidate) {
        bool taken = false;
        for (int number : used) taken = taken || number == candidate;
        if (!taken) return candidate;
    }
}

std::string VolumeRegistry::unusedMountPoint(const std::string& volumeName,
                                             const std::set<std::string>& namesToAvoid) const {
    std::string name = volumeName;
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) name = "untitled";
    for (int suffix = 0; suffix < kMostMountPointSuffixes; ++suffix) {
        std::string candidate = volumesFolder_ + "/" + name;
        if (suffix > 0) candidate += ' ' + std::to_string(suffix);
        if (!exists(candidate) && !namesToAvoid.contains(lastPathComponent(candidate))) return candidate;
    }
    throw DiskImageError("no free name for a volume called \"" + volumeName + "\"");
}

void VolumeRegistry::save(const AttachmentRecord& record) const {
    Value root = Value::dictionary();
    root.set(kKeyDisk, Value::integer(record.diskNumber));
    root.set(kKeyImageKey, Value::string(record.imageKey));
    root.set(kKeyImagePath, Value::string(record.imagePath));
    root.set(kKeyMountPoint, Value::string(record.mountPoint));
    root.set(kKeySystemEntities, record.systemEntities);
    if (!record.owners.empty()) root.set(kKeyOwners, ownersValue(record.owners));
    std::string error;
    if (!writeFileAtomically(recordPath(record.diskNumber), xmlPropertyList(root), error))
        throw DiskImageError("cannot record the attachment: " + error);
}

void VolumeRegistry::forget(int diskNumber) const { ::unlink(recordPath(diskNumber).c_str()); }

std::string VolumeRegistry::makeWorkFolder(const std::string& purpose) const {
    std::string pattern = stateFolder_ + "/" + purpose + "." + std::to_string(::getpid()) + ".XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    StopSignalsBlocked blocked;  // no stop between making the folder and registering it
    if (!::mkdtemp(buffer.data())) {
        int error = errno;
        throwSystemError("cannot create a work folder in \"" + stateFolder_ + "\"", error);
    }
    removeOnStop(buffer.data());
    return buffer.data();
}

void VolumeRegistry::removeAbandonedWork() const {
    std::vector<std::string> abandoned;
    if (DIR* folder = ::opendir(stateFolder_.c_str())) {
        while (dirent* entry = ::readdir(folder)) {
            if (auto owner = ownerOfWorkFolder(entry->d_name); owner && ::kill(*owner, 0) != 0 && errno == ESRCH)
                abandoned.push_back(stateFolder_ + "/" + entry->d_name);
        }
        ::closedir(folder);
    }
    for (const auto& path : abandoned) removeTree(path);
}

bool VolumeRegistry::isMountPointPath(const std::string& path) const {
    std::string name = lastPathComponent(path);
    return parentFolderOf(path) == volumesFolder_ && !name.empty() && name != "/" && name != "." && name != ".." &&
           name != kStateFolderName && isFolder(path);
}

std::string VolumeRegistry::imageKeyOf(int fd, const std::string& path) {
    struct stat status = statusOf(fd, path);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + ":" + std::to_string(status.st_size) +
           ":" + std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

}  // namespace whittle::diskimage
