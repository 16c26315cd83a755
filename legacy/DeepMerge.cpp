#include "legacy/DeepMerge.hpp"

#include "support/LogObject.hpp"

namespace whittle {

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
    for (const auto& element : incoming) {
        const auto& present = *array.asArray();
        bool contained = false;
        for (const auto& existing : present) {
            if (existing.equals(element)) {
                contained = true;
                break;
            }
        }
        if (!contained) array.append(element);
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
