#include "support/Value.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace whittle {

// ---- ValueDictionary ----

ValueDictionary ValueDictionary::fromEntries(Entries entries) {
    auto byKey = [](const Entry& a, const Entry& b) { return a.first < b.first; };
    if (!std::is_sorted(entries.begin(), entries.end(), byKey)) std::stable_sort(entries.begin(), entries.end(), byKey);
    // Of equal keys keep the last: walk backwards, keeping the first seen of each.
    Entries unique;
    unique.reserve(entries.size());
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (unique.empty() || unique.back().first != it->first) unique.push_back(std::move(*it));
    }
    std::reverse(unique.begin(), unique.end());
    ValueDictionary dictionary;
    dictionary.entries_ = std::move(unique);
    return dictionary;
}

ValueDictionary::iterator ValueDictionary::lowerBound(std::string_view key) {
    return std::lower_bound(entries_.begin(), entries_.end(), key,
                            [](const Entry& entry, std::string_view k) { return entry.first < k; });
}

ValueDictionary::iterator ValueDictionary::find(std::string_view key) {
    auto found = lowerBound(key);
    return (found != entries_.end() && found->first == key) ? found : entries_.end();
}

ValueDictionary::const_iterator ValueDictionary::find(std::string_view key) const {
    return const_cast<ValueDictionary*>(this)->find(key);
}

std::pair<ValueDictionary::iterator, bool> ValueDictionary::emplace(std::string key, Value value) {
    auto position = lowerBound(key);
    if (position != entries_.end() && position->first == key) return {position, false};
    return {entries_.emplace(position, std::move(key), std::move(value)), true};
}

void ValueDictionary::insert_or_assign(std::string key, Value value) {
    auto [position, added] = emplace(std::move(key), value);
    if (!added) position->second = std::move(value);
}

// The payload alternatives stand in the order of Value::Kind.
struct Value::Node {
    using Payload = std::variant<std::string, std::int64_t, double, bool, Date, Data, ValueArray,
                                 ValueDictionary, ValueSet>;
    explicit Node(Payload p) : payload(std::move(p)) {}
    Payload payload;
};

Value Value::string(std::string text) { return Value(std::make_shared<Node>(std::move(text))); }
Value Value::integer(std::int64_t number) { return Value(std::make_shared<Node>(number)); }
Value Value::real(double number) { return Value(std::make_shared<Node>(number)); }
Value Value::boolean(bool flag) { return Value(std::make_shared<Node>(flag)); }
Value Value::date(Date when) { return Value(std::make_shared<Node>(when)); }
Value Value::data(std::string bytes) { return Value(std::make_shared<Node>(Data{std::move(bytes)})); }
Value Value::array(ValueArray elements) { return Value(std::make_shared<Node>(std::move(elements))); }
Value Value::dictionary() { return dictionary(ValueDictionary()); }
Value Value::dictionary(ValueDictionary entries) {
    return Value(std::make_shared<Node>(std::move(entries)));
}
Value Value::setOf(ValueArray members) {
    Value result(std::make_shared<Node>(ValueSet{}));
    for (auto& member : members) result.addToSet(std::move(member));
    return result;
}

Value Value::stringArray(const std::vector<std::string>& texts) {
    ValueArray elements;
    elements.reserve(texts.size());
    for (const auto& text : texts) elements.push_back(Value::string(text));
    return Value::array(std::move(elements));
}

Value::Kind Value::kind() const { return node_ ? static_cast<Kind>(node_->payload.index()) : Kind::None; }

const std::string* Value::asString() const {
    return node_ ? std::get_if<std::string>(&node_->payload) : nullptr;
}
std::string* Value::asMutableString() {
    return node_ ? std::get_if<std::string>(&node_->payload) : nullptr;
}
const std::int64_t* Value::asInteger() const {
    return node_ ? std::get_if<std::int64_t>(&node_->payload) : nullptr;
}
const double* Value::asReal() const { return node_ ? std::get_if<double>(&node_->payload) : nullptr; }
const bool* Value::asBoolean() const { return node_ ? std::get_if<bool>(&node_->payload) : nullptr; }
const Date* Value::asDate() const { return node_ ? std::get_if<Date>(&node_->payload) : nullptr; }
const Data* Value::asData() const { return node_ ? std::get_if<Data>(&node_->payload) : nullptr; }
const ValueArray* Value::asArray() const {
    return node_ ? std::get_if<ValueArray>(&node_->payload) : nullptr;
}
ValueArray* Value::asMutableArray() { return node_ ? std::get_if<ValueArray>(&node_->payload) : nullptr; }
const ValueDictionary* Value::asDictionary() const {
    return node_ ? std::get_if<ValueDictionary>(&node_->payload) : nullptr;
}
ValueDictionary* Value::asMutableDictionary() {
    return node_ ? std::get_if<ValueDictionary>(&node_->payload) : nullptr;
}
const ValueArray* Value::asSetMembers() const {
    auto* set = node_ ? std::get_if<ValueSet>(&node_->payload) : nullptr;
    return set ? &set->members : nullptr;
}

const ValueArray& Value::elements() const {
    static const ValueArray empty;
    if (const auto* array = asArray()) return *array;
    if (const auto* members = asSetMembers()) return *members;
    return empty;
}

std::string_view Value::text() const {
    const auto* s = asString();
    return s ? std::string_view(*s) : std::string_view();
}

double Value::numberValue() const {
    if (const auto* i = asInteger()) return static_cast<double>(*i);
    if (const auto* r = asReal()) return *r;
    if (const auto* b = asBoolean()) return *b ? 1.0 : 0.0;
    return 0.0;
}

Value Value::get(std::string_view key) const {
    const auto* dict = asDictionary();
    if (!dict) return {};
    auto found = dict->find(key);
    return found == dict->end() ? Value() : found->second;
}

void Value::set(std::string_view key, Value value) {
    auto* dict = asMutableDictionary();
    if (!dict) return;
    auto found = dict->find(key);
    if (found != dict->end()) {
        found->second = std::move(value);
    } else {
        dict->emplace(std::string(key), std::move(value));
    }
}

void Value::remove(std::string_view key) {
    auto* dict = asMutableDictionary();
    if (!dict) return;
    auto found = dict->find(key);
    if (found != dict->end()) dict->erase(found);
}

std::size_t Value::count() const {
    if (const auto* array = asArray()) return array->size();
    if (const auto* dict = asDictionary()) return dict->size();
    if (const auto* members = asSetMembers()) return members->size();
    return 0;
}

Value Value::at(std::size_t index) const {
    const auto* array = asArray();
    return (array && index < array->size()) ? (*array)[index] : Value();
}

void Value::append(Value element) {
    if (auto* array = asMutableArray()) array->push_back(std::move(element));
}

std::size_t Value::contentHash() const {
    constexpr std::size_t kKindSpread = 0x9e3779b97f4a7c15ULL;
    if (!node_) return 0;
    if (isNumber()) {
        double number = numberValue();
        if (std::isnan(number)) return kKindSpread;
        return std::hash<double>{}(number == 0 ? 0.0 : number);  // -0 equals 0
    }
    std::size_t kindSeed = static_cast<std::size_t>(kind()) * kKindSpread;
    switch (kind()) {
        case Kind::String: return std::hash<std::string_view>{}(*asString());
        case Kind::Data: return kindSeed ^ std::hash<std::string_view>{}(asData()->bytes);
        case Kind::Date: return kindSeed ^ std::hash<double>{}(asDate()->secondsSinceReferenceDate + 0.0);
        default: return kindSeed;
    }
}

namespace {

bool holdsMember(const ValueSet& set, const Value& member, std::size_t hash) {
    auto [candidate, end] = set.positionsByHash.equal_range(hash);
    for (; candidate != end; ++candidate) {
        if (set.members[candidate->second].equals(member)) return true;
    }
    return false;
}

}  // namespace

bool Value::setContains(const Value& member) const {
    const auto* set = node_ ? std::get_if<ValueSet>(&node_->payload) : nullptr;
    return set && holdsMember(*set, member, member.contentHash());
}

void Value::addToSet(Value member) {
    auto* set = node_ ? std::get_if<ValueSet>(&node_->payload) : nullptr;
    if (!set) return;
    std::size_t hash = member.contentHash();
    if (holdsMember(*set, member, hash)) return;
    set->positionsByHash.emplace(hash, set->members.size());
    set->members.push_back(std::move(member));
}

namespace {

bool numbersEqual(const Value& a, const Value& b) {
    const auto* ia = a.asInteger();
    const auto* ib = b.asInteger();
    if (ia && ib) return *ia == *ib;
    return a.numberValue() == b.numberValue();
}

bool arraysEqual(const ValueArray& a, const ValueArray& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!a[i].equals(b[i])) return false;
    }
    return true;
}

bool dictionariesEqual(const ValueDictionary& a, const ValueDictionary& b) {
    if (a.size() != b.size()) return false;
    auto left = a.begin();
    auto right = b.begin();
    for (; left != a.end(); ++left, ++right) {
        if (left->first != right->first || !left->second.equals(right->second)) return false;
    }
    return true;
}

bool setsEqual(const Value& a, const Value& b) {
    if (a.count() != b.count()) return false;
    for (const auto& member : *a.asSetMembers()) {
        if (!b.setContains(member)) return false;
    }
    return true;
}

}  // namespace

bool Value::equals(const Value& other) const {
    if (node_ == other.node_) return true;
    if (!node_ || !other.node_) return false;
    if (isNumber() && other.isNumber()) return numbersEqual(*this, other);
    if (kind() != other.kind()) return false;
    switch (kind()) {
        case Kind::String: return *asString() == *other.asString();
        case Kind::Date: return asDate()->secondsSinceReferenceDate == other.asDate()->secondsSinceReferenceDate;
        case Kind::Data: return asData()->bytes == other.asData()->bytes;
        case Kind::Array: return arraysEqual(*asArray(), *other.asArray());
        case Kind::Dictionary: return dictionariesEqual(*asDictionary(), *other.asDictionary());
        case Kind::Set: return setsEqual(*this, other);
        default: return false;
    }
}

Value Value::deepCopy() const {
    if (!node_) return {};
    switch (kind()) {
        case Kind::Array: {
            ValueArray copy;
            copy.reserve(asArray()->size());
            for (const auto& element : *asArray()) copy.push_back(element.deepCopy());
            return Value::array(std::move(copy));
        }
        case Kind::Dictionary: {
            ValueDictionary::Entries copy;
            copy.reserve(asDictionary()->size());
            for (const auto& [key, element] : *asDictionary()) copy.emplace_back(key, element.deepCopy());
            return Value::dictionary(ValueDictionary::fromEntries(std::move(copy)));
        }
        case Kind::Set: {
            // Equal copies hash alike, so the index carries over as it is.
            const auto& original = std::get<ValueSet>(node_->payload);
            ValueSet copy;
            copy.members.reserve(original.members.size());
            for (const auto& member : original.members) copy.members.push_back(member.deepCopy());
            copy.positionsByHash = original.positionsByHash;
            return Value(std::make_shared<Node>(std::move(copy)));
        }
        default: return Value(std::make_shared<Node>(node_->payload));
    }
}

// ---- description ("%@") ----

namespace {

std::string describeReal(double number) {
    if (std::isnan(number)) return "nan";
    if (std::isinf(number)) return number > 0 ? "inf" : "-inf";
    char buffer[64];
    for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(buffer, sizeof buffer, "%.*g", precision, number);
        if (std::strtod(buffer, nullptr) == number) break;
    }
    return buffer;
}

std::string describeDate(const Date& when) {
    constexpr double kReferenceDateInUnixTime = 978307200.0;
    double unixSeconds = std::floor(when.secondsSinceReferenceDate + kReferenceDateInUnixTime);
    if (!(unixSeconds > -1e15 && unixSeconds < 1e15)) return "<invalid date>";
    std::time_t t = static_cast<std::time_t>(unixSeconds);
    std::tm utc{};
    if (!gmtime_r(&t, &utc)) return "<invalid date>";
    char buffer[64];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return buffer;
}

std::string describeDataInContainer(const Data& data) {
    static const char* hex = "0123456789abcdef";
    std::string out = "<";
    for (std::size_t i = 0; i < data.bytes.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        auto byte = static_cast<unsigned char>(data.bytes[i]);
        out += hex[byte >> 4];
        out += hex[byte & 0xF];
    }
    out += '>';
    return out;
}

bool needsQuotes(std::string_view text) {
    if (text.empty()) return true;
    for (unsigned char c : text) {
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c == '_' || c == '$' || c == '.' || c == '/' || c == ':' || c >= 0x80;
        if (!plain) return true;
    }
    return false;
}

std::string quotedIfNeeded(std::string_view text) {
    if (!needsQuotes(text)) return std::string(text);
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            default: out += c;
        }
    }
    out += '"';
    return out;
}

void appendIndent(std::string& out, int level) { out.append(static_cast<std::size_t>(level) * 4, ' '); }

void describeNested(const Value& value, int level, std::string& out);

void describeSequence(const ValueArray& elements, int level, std::string& out) {
    out += "(\n";
    for (std::size_t i = 0; i < elements.size(); ++i) {
        appendIndent(out, level + 1);
        describeNested(elements[i], level + 1, out);
        out += (i + 1 < elements.size()) ? ",\n" : "\n";
    }
    appendIndent(out, level);
    out += ')';
}

void describeDictionary(const ValueDictionary& entries, int level, std::string& out) {
    out += "{\n";
    for (const auto& [key, element] : entries) {
        appendIndent(out, level + 1);
        out += quotedIfNeeded(key);
        out += " = ";
        // Nested containers start on the same line but one indent further in, the
        // way the old-style description has always laid them out.
        if (element.isArray() || element.isDictionary() || element.isSet()) appendIndent(out, 1);
        describeNested(element, level + 1, out);
        out += ";\n";
    }
    appendIndent(out, level);
    out += '}';
}

void describeNested(const Value& value, int level, std::string& out) {
    if (value.isNone()) {
        out += "(null)";
    } else if (const auto* array = value.asArray()) {
        describeSequence(*array, level, out);
    } else if (const auto* members = value.asSetMembers()) {
        out += "{(";
        std::string inner;
        describeSequence(*members, level, inner);
        out += inner.substr(1, inner.size() - 2);
        out += ")}";
    } else if (const auto* dict = value.asDictionary()) {
        describeDictionary(*dict, level, out);
    } else if (const auto* data = value.asData()) {
        out += describeDataInContainer(*data);
    } else if (const auto* text = value.asString()) {
        out += quotedIfNeeded(*text);
    } else {
        out += value.description();
    }
}

}  // namespace

std::string Value::description() const {
    if (!node_) return "(null)";
    switch (kind()) {
        case Kind::String: return *asString();
        case Kind::Integer: return std::to_string(*asInteger());
        case Kind::Real: return describeReal(*asReal());
        case Kind::Boolean: return *asBoolean() ? "1" : "0";
        case Kind::Date: return describeDate(*asDate());
        case Kind::Data: return describeDataInContainer(*asData());
        default: {
            std::string out;
            describeNested(*this, 0, out);
            return out;
        }
    }
}

const char* kindName(const Value& value) {
    switch (value.kind()) {
        case Value::Kind::None: return "none";
        case Value::Kind::String: return "string";
        case Value::Kind::Integer: return "integer";
        case Value::Kind::Real: return "real";
        case Value::Kind::Boolean: return "boolean";
        case Value::Kind::Date: return "date";
        case Value::Kind::Data: return "data";
        case Value::Kind::Array: return "array";
        case Value::Kind::Dictionary: return "dictionary";
        case Value::Kind::Set: return "set";
    }
    return "value";
}

}  // namespace whittle
