// The one value type for property-list values used throughout whittle.
//
// A Value is a reference to a shared node, like an object pointer: copying a Value
// copies the reference, and changing a container (or a string, in place) through one
// reference is seen through every other. An empty Value stands for "none".
// deepCopy() makes an independent copy of a whole tree.
#pragma once

#include <cstdint>
#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace whittle {

class Value;

using ValueArray = std::vector<Value>;
class ValueDictionary;

// A date as seconds since 2001-01-01 00:00:00 UTC, the property-list epoch.
struct Date {
    double secondsSinceReferenceDate = 0;
};

// Raw bytes of a data value.
struct Data {
    std::string bytes;
};

// An unordered collection of distinct values (by deep equality); enumerates in
// insertion order. Not a property-list type; no file ever holds one.
//
// Membership is found through a hash of each member's content kept beside the
// members, so a set of many strings stays fast. Containers are hashed by their kind
// alone (their content may change through other references, and still compares
// right); a string member must not be changed in place while it is in a set.
struct ValueSet {
    ValueArray members;
    std::unordered_multimap<std::size_t, std::size_t> positionsByHash;  // content hash -> index in members
};

class Value {
public:
    // The alternatives in the order the payload holds them; a none value is of kind None.
    enum class Kind : std::uint8_t { String, Integer, Real, Boolean, Date, Data, Array, Dictionary, Set, None };

    Value() = default;

    static Value string(std::string text);
    static Value integer(std::int64_t number);
    static Value real(double number);
    static Value boolean(bool flag);
    static Value date(Date when);
    static Value data(std::string bytes);
    static Value array(ValueArray elements = {});
    static Value dictionary();
    static Value dictionary(ValueDictionary entries);
    static Value setOf(ValueArray members = {});
    // An array of strings, for the many lists of names and paths.
    static Value stringArray(const std::vector<std::string>& texts);

    bool isNone() const { return !node_; }
    explicit operator bool() const { return static_cast<bool>(node_); }
    Kind kind() const;
    bool is(Kind kind) const { return node_ && this->kind() == kind; }
    bool isString() const { return is(Kind::String); }
    bool isArray() const { return is(Kind::Array); }
    bool isDictionary() const { return is(Kind::Dictionary); }
    bool isData() const { return is(Kind::Data); }
    bool isSet() const { return is(Kind::Set); }
    bool isNumber() const { return is(Kind::Integer) || is(Kind::Real) || is(Kind::Boolean); }

    // Typed views; each returns nullptr when the value is none or of another kind.
    const std::string* asString() const;
    std::string* asMutableString();
    const std::int64_t* asInteger() const;
    const double* asReal() const;
    const bool* asBoolean() const;
    const Date* asDate() const;
    const Data* asData() const;
    const ValueArray* asArray() const;
    ValueArray* asMutableArray();
    const ValueDictionary* asDictionary() const;
    ValueDictionary* asMutableDictionary();
    const ValueArray* asSetMembers() const;

    // An array's elements or a set's members; an empty list for anything else. The
    // reference lives as long as the container does.
    const ValueArray& elements() const;

    // A string's text, or "" for anything else.
    std::string_view text() const;
    // A number's value as a double (booleans as 0 or 1); 0 for anything else.
    double numberValue() const;

    // Dictionary access; get() answers none for a missing key or a non-dictionary.
    Value get(std::string_view key) const;
    // Writes a dictionary entry (Value::setOf makes a set).
    void set(std::string_view key, Value value);
    void remove(std::string_view key);
    // Array access; at() answers none out of range or for a non-array.
    std::size_t count() const;
    Value at(std::size_t index) const;
    void append(Value element);
    // Set access: adds the member unless an equal one is already there. Both take
    // about constant time, however many members the set has.
    void addToSet(Value member);
    bool setContains(const Value& member) const;

    // A hash of the content, the same for any two values that are equal(): numbers by
    // value whatever their kind, strings, data and dates by content, containers by
    // kind alone.
    std::size_t contentHash() const;

    // Deep equality: strings by characters, numbers by value, data by bytes,
    // dates by time, containers element by element. Two nones are equal.
    bool equals(const Value& other) const;
    bool sameObject(const Value& other) const { return node_ == other.node_; }
    Value deepCopy() const;

    // What "%@" prints: a string's own text, a number in decimal, containers in the
    // old-style property-list text form.
    std::string description() const;

private:
    struct Node;
    explicit Value(std::shared_ptr<Node> node) : node_(std::move(node)) {}
    std::shared_ptr<Node> node_;
};

// The name of a value's kind, for messages ("string", "dictionary", ...).
const char* kindName(const Value& value);

// A dictionary's entries, kept sorted by key in one flat array: property-list
// dictionaries are small and read far more often than they change, and a manifest
// holds many thousands of them.
class ValueDictionary {
public:
    using Entry = std::pair<std::string, Value>;
    using Entries = std::vector<Entry>;
    using iterator = Entries::iterator;
    using const_iterator = Entries::const_iterator;

    ValueDictionary() = default;
    // Takes entries in any order; of equal keys the last one stays.
    static ValueDictionary fromEntries(Entries entries);

    iterator begin() { return entries_.begin(); }
    iterator end() { return entries_.end(); }
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }

    iterator find(std::string_view key);
    const_iterator find(std::string_view key) const;
    // Adds the entry unless the key is present; answers where it stands and whether it was added.
    std::pair<iterator, bool> emplace(std::string key, Value value);
    void insert_or_assign(std::string key, Value value);
    iterator erase(const_iterator position) { return entries_.erase(position); }

private:
    iterator lowerBound(std::string_view key);
    Entries entries_;
};

}  // namespace whittle
