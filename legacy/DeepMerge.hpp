// Merging property-list containers into each other in place, for uniting the partial
// results of the legacy engine's work items.
#pragma once

#include "support/Value.hpp"

namespace whittle {

// Merges the other dictionary into this one: missing keys are taken over (the same
// objects), arrays, dictionaries and sets under the same key are merged in turn, and
// equal values agree. Two different values of any other kind under one key cannot be
// merged: that is reported, the merge stops there (what was merged so far stays) and
// the answer is false. Anything but two dictionaries answers false.
bool deepMergeDictionary(Value& dictionary, const Value& other);

// Appends the other array's elements that this one lacks (deep equality), in their
// order. Always true for two arrays.
bool deepMergeArray(Value& array, const Value& other);

// Adds the other set's members that this one lacks. Always true for two sets.
bool deepMergeSet(Value& set, const Value& other);

}  // namespace whittle
