#include "legacy/DeepMerge.hpp"

#include <unordered_map>

#include "support/LogObject.hpp"

namespace whittle {

namespace {

// A hash of a value's whole content, the same for equal values. Only for use while the
// values cannot change, as during one merge: containers are hashed by what they hold.
std::size_t deepHash(const Value& value) {
    std::size_t hash = value.contentHash();
    auto mix = [&hash](std::size_t part) { hash ^= part + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2); };
    if (const auto* elements = value.asArray()) {
        for (const auto& element : *elements) mix(deepHash(element));
    } else if (const auto* entries = value.asDictionary()) {
        for (const auto& [key, element] : *entries) {
            mix(std::hash<std::string>{}(key));
            mix(deepHash(element));
        }
    } else if (const auto* members = value.asSetMembers()) {
        std::size_t sum = 0;  // a set's members may stand in any order
        for (const auto& member : *members) sum += deepHash(member);
        mix(sum);
    }
    return hash;
}

}  // namespace

bool deepMergeDictionary(Value& dictionary, const Value& other) {
    if (!dictionary.isDictionary() || !other.isDictionary()) return false;
    // A dictionary holds everything of itself already; walking it while it changes
    // would be unsafe.
    if (dictionary.sameObject(other)) return true;
    for (const auto& [key, incoming] : *other.asDictionary()) {
        Value existing = dictionary.get(key);
        if (existing.isNone()) {
            dictionary.set(key, incoming);
            continue;
        }
        bool merged = true;
        if (existing.isArray() && incoming.isArray()) {
            merged = deepMergeArray(existing, incoming);
        } else if (existing.isDictionary() && incoming.isDictionary()) {
            merged = deepMergeDictionary(existing, incoming);
        } else if (existing.isSet() && incoming.isSet()) {
            merged = deepMergeSet(existing, incoming);
        } else if (!existing.equals(incoming)) {
            Log("!!! WARNING cannot merge %@->%@ for key %@.", kindName(incoming), kindName(existing), key);
            return false;
        }
        if (!merged) return false;
    }
    return true;
}

bool deepMergeArray(Value& array, const Value& other) {
    if (!array.isArray() || !other.isArray()) return false;
    // The other array's elements are taken from a copy of its list, so that merging an
    // array into itself cannot disturb the walk.
    ValueArray incoming = *other.asArray();
    std::unordered_multimap<std::size_t, std::size_t> positionsByHash;
    for (std::size_t i = 0; i < array.count(); ++i) positionsByHash.emplace(deepHash(array.at(i)), i);
    for (const auto& element : incoming) {
        std::size_t hash = deepHash(element);
        auto [candidate, end] = positionsByHash.equal_range(hash);
        bool contained = false;
        for (; candidate != end && !contained; ++candidate) contained = array.at(candidate->second).equals(element);
        if (contained) continue;
        positionsByHash.emplace(hash, array.count());
        array.append(element);
    }
    return true;
}

bool deepMergeSet(Value& set, const Value& other) {
    if (!set.isSet() || !other.isSet()) return false;
    ValueArray incoming = *other.asSetMembers();
    for (const auto& member : incoming) set.addToSet(member);
    return true;
}

}  // namespace whittle
