// The entities of an attached image as the attach output lists them: the whole disk
// (named after its partition scheme) and its partitions, one of which is the mounted
// volume. They are derived from the names of the image's chunk tables, which follow
// the pattern "<partition name> (<partition type> : <index>)".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/diskimage/Udif.hpp"
#include "support/Value.hpp"

namespace whittle::diskimage {

struct PlannedEntity {
    std::string contentHint;
    std::string unmappedContentHint;
    int slice = 0;  // 0 for the whole disk, 1... for partitions
    bool potentiallyMountable = false;
    bool isVolume = false;
};

struct EntityPlan {
    std::vector<PlannedEntity> entities;
    std::string volumeType;  // the partition type of the volume
};

// The partition type inside a chunk table name, or the whole name without the pattern.
std::string partitionTypeOf(std::string_view tableName);

// Plans the entities of an image; throws DiskImageError unless the image holds exactly
// one volume that attach can make available (an HFS+ one).
EntityPlan planEntities(const UdifImage& image);

// The "system-entities" array for an image attached as /dev/disk<N>.
Value systemEntities(const EntityPlan& plan, int diskNumber, const std::string& mountPoint);

// "/dev/disk<N>" or "/dev/disk<N>s<M>".
std::string devEntry(int diskNumber, int slice);
// The disk number in "/dev/disk4", "disk4" or "/dev/disk4s1"; none for anything else.
std::optional<int> diskNumberOfDevEntry(std::string_view text);

}  // namespace whittle::diskimage
