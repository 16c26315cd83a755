#include "platform/diskimage/Entities.hpp"

#include <algorithm>
#include <charconv>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"

namespace whittle::diskimage {

namespace fmt = format;

namespace {

enum class Scheme { Guid, PartitionMap, None };

std::string trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return std::string(text);
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// Whether the extractor takes the entry for a file system (it picks by these names).
bool isVolumeCandidate(std::string_view tableName) {
    for (std::string_view marker : fmt::partitions::kNonFileSystemMarkers)
        if (contains(tableName, marker)) return false;
    return !contains(tableName, fmt::partitions::kEfiSystemTypeText);
}

bool isHfsType(std::string_view type) {
    if (type == fmt::layout::kVolumePartitionType) return true;
    return std::any_of(fmt::partitions::kHfsTypeSuffixes.begin(), fmt::partitions::kHfsTypeSuffixes.end(),
                       [&](std::string_view suffix) { return type.ends_with(suffix); });
}

bool isGuidSchemeEntry(std::string_view type) {
    return std::any_of(fmt::partitions::kGptMarkers.begin(), fmt::partitions::kGptMarkers.end(),
                       [&](std::string_view marker) { return contains(type, marker); });
}

bool isMapSchemeEntry(std::string_view type) {
    return type == fmt::partitions::kDriverMapType || type.ends_with(fmt::partitions::kMapSuffix);
}

Scheme schemeOf(const std::vector<std::string>& types) {
    if (std::any_of(types.begin(), types.end(), isGuidSchemeEntry)) return Scheme::Guid;
    if (std::any_of(types.begin(), types.end(), isMapSchemeEntry)) return Scheme::PartitionMap;
    return Scheme::None;
}

bool isPartition(Scheme scheme, std::string_view type) {
    if (type.ends_with(fmt::partitions::kFreeSuffix)) return false;
    switch (scheme) {
        case Scheme::Guid:
            return !isGuidSchemeEntry(type);
        case Scheme::PartitionMap:
            return type != fmt::partitions::kDriverMapType;
        case Scheme::None:
            return true;
    }
    return true;
}

// The whole disk of a partition-map image is named after the map's own type.
std::string mapSchemeName(const std::vector<std::string>& types) {
    for (const auto& type : types) {
        if (type.ends_with(fmt::partitions::kMapSuffix))
            return type.substr(0, type.size() - fmt::partitions::kMapSuffix.size()) +
                   std::string(fmt::partitions::kSchemeSuffix);
    }
    return std::string(fmt::partitions::kSchemeSuffix.substr(1));
}

std::string unmappedHintFor(Scheme scheme, const std::string& type) {
    if (scheme == Scheme::Guid && isHfsType(type)) return std::string(fmt::gpt::kHfsPlusTypeText);
    return type;
}

}  // namespace

std::string partitionTypeOf(std::string_view tableName) {
    auto open = tableName.rfind('(');
    auto close = tableName.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return trimmed(tableName);
    std::string_view inside = tableName.substr(open + 1, close - open - 1);
    auto colon = inside.rfind(':');
    if (colon != std::string_view::npos) inside = inside.substr(0, colon);
    return trimmed(inside);
}

EntityPlan planEntities(const UdifImage& image) {
    std::vector<std::string> types;
    std::size_t candidates = 0;
    const BlockTableEntry* volume = nullptr;
    for (const auto& entry : image.entries) {
        types.push_back(partitionTypeOf(entry.name));
        if (isVolumeCandidate(entry.name)) {
            ++candidates;
            volume = &entry;
        }
    }
    if (candidates == 0) throw DiskImageError("the image holds no volume");
    if (candidates > 1)
        throw DiskImageError("the image holds " + std::to_string(candidates) +
                             " partitions that may be volumes; only images with one volume can be attached");
    std::string volumeType = partitionTypeOf(volume->name);
    if (!isHfsType(volumeType))
        throw DiskImageError("the image's volume is of type \"" + volumeType + "\", which cannot be attached here");

    Scheme scheme = schemeOf(types);
    EntityPlan plan;
    plan.volumeType = volumeType;
    if (scheme != Scheme::None) {
        std::string name = scheme == Scheme::Guid ? std::string(fmt::attach::kGuidScheme) : mapSchemeName(types);
        plan.entities.push_back({name, name, 0, false, false});
    }
    int slice = scheme == Scheme::None ? 0 : 1;
    for (std::size_t i = 0; i < image.entries.size(); ++i) {
        if (!isPartition(scheme, types[i])) continue;
        bool isVolume = &image.entries[i] == volume;
        plan.entities.push_back({types[i], unmappedHintFor(scheme, types[i]), slice, isVolume, isVolume});
        if (scheme != Scheme::None) ++slice;
    }
    return plan;
}

std::string devEntry(int diskNumber, int slice) {
    std::string entry = std::string(fmt::attach::kDevicePrefix) + std::to_string(diskNumber);
    if (slice > 0) entry += std::string(fmt::attach::kSliceSeparator) + std::to_string(slice);
    return entry;
}

std::optional<int> diskNumberOfDevEntry(std::string_view text) {
    std::string_view prefix = fmt::attach::kDevicePrefix;
    std::string_view bareName = prefix.substr(prefix.rfind('/') + 1);  // "disk"
    if (text.starts_with(prefix)) {
        text.remove_prefix(prefix.size());
    } else if (text.starts_with(bareName)) {
        text.remove_prefix(bareName.size());
    } else {
        return std::nullopt;
    }
    int number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end == text.data() || number <= 0) return std::nullopt;
    std::string_view rest(end, static_cast<std::size_t>(text.data() + text.size() - end));
    if (!rest.empty()) {
        if (!rest.starts_with(fmt::attach::kSliceSeparator)) return std::nullopt;
        rest.remove_prefix(fmt::attach::kSliceSeparator.size());
        if (rest.empty() || !std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return std::nullopt;
    }
    return number;
}

Value systemEntities(const EntityPlan& plan, int diskNumber, const std::string& mountPoint) {
    namespace k = fmt::attach;
    ValueArray entities;
    for (const auto& planned : plan.entities) {
        Value entity = Value::dictionary();
        entity.set(k::kContentHint, Value::string(planned.contentHint));
        entity.set(k::kUnmappedContentHint, Value::string(planned.unmappedContentHint));
        entity.set(k::kDevEntry, Value::string(devEntry(diskNumber, planned.slice)));
        entity.set(k::kPotentiallyMountable, Value::boolean(planned.potentiallyMountable));
        if (planned.isVolume) {
            entity.set(k::kMountPoint, Value::string(mountPoint));
            entity.set(k::kVolumeKind, Value::string(std::string(k::kVolumeKindHfs)));
        }
        entities.push_back(entity);
    }
    return Value::array(std::move(entities));
}

}  // namespace whittle::diskimage
