// What is attached: one record per attached image, kept in a hidden folder inside the
// volumes folder, guarded by a lock file so that concurrent runs do not collide.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/diskimage/FileIo.hpp"
#include "platform/helper/ProcessInfo.hpp"
#include "support/Value.hpp"

namespace whittle::diskimage {

struct AttachmentRecord {
    int diskNumber = 0;
    std::string imageKey;   // identifies the image file's content version
    std::string imagePath;  // for people reading the record
    std::string mountPoint;
    Value systemEntities;  // the attach output's array, answered again on re-attach
    // The runs that attached it and use it. None recorded: it was attached by hand and
    // stays until ejected; otherwise it stays while one of them runs.
    std::vector<helper::ProcessIdentity> owners;

    bool outlivedItsOwners() const;
};

class VolumeRegistry {
public:
    enum class Missing { Create, Fail };
    // With Missing::Create, makes the volumes folder and the state folder when they are
    // missing; with Missing::Fail, throws instead.
    VolumeRegistry(const std::string& volumesFolder, Missing missing);

    const std::string& volumesFolder() const { return volumesFolder_; }
    const std::string& stateFolder() const { return stateFolder_; }

    // Holds the registry's lock while it lives.
    class Lock {
    public:
        explicit Lock(const std::string& lockPath);

    private:
        UniqueDescriptor fd_;
    };
    Lock lock() const;

    // The record of a live attachment of that image; a record whose mount point has
    // gone is dropped. Call with the lock held.
    std::optional<AttachmentRecord> findByImage(const std::string& imageKey) const;
    std::optional<AttachmentRecord> findByDisk(int diskNumber) const;
    // Every record whose mount point is still there. Call with the lock held.
    std::vector<AttachmentRecord> allRecords() const;
    int unusedDiskNumber() const;
    // "<volumes>/<name>", or "<volumes>/<name> 1", ... whichever does not exist yet and
    // is not one of the names to avoid.
    std::string unusedMountPoint(const std::string& volumeName, const std::set<std::string>& namesToAvoid = {}) const;
    void save(const AttachmentRecord& record) const;
    void forget(int diskNumber) const;

    // A new private folder inside the state folder, for work in progress; its name
    // carries the process id, so that what a stopped run left behind can be found. It
    // is removed if the tool is stopped, until keepOnStop() is called for it.
    std::string makeWorkFolder(const std::string& purpose) const;
    // Removes the work folders of runs that are no longer running. Call with the lock held.
    void removeAbandonedWork() const;
    // True when the path is a folder directly inside the volumes folder (and not the
    // state folder): the only kind of place eject removes.
    bool isMountPointPath(const std::string& path) const;

    // "<st_dev>:<st_ino>:<size>:<mtime>" of an open image.
    static std::string imageKeyOf(int fd, const std::string& path);

private:
    std::string recordPath(int diskNumber) const;
    std::optional<AttachmentRecord> load(int diskNumber) const;

    std::string volumesFolder_;
    std::string stateFolder_;
};

}  // namespace whittle::diskimage
