#include "support/PlistCodec.hpp"

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <vector>

#include "support/Helpers.hpp"

namespace whittle {

namespace {

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistHandle = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
    void operator()(char* text) const { std::free(text); }
};
using MallocText = std::unique_ptr<char, MallocDeleter>;

// ---- reading ----

bool xmlNestsTooDeeply(std::string_view bytes) {
    int depth = 0;
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
        if (bytes[i] != '<') continue;
        std::string_view rest = bytes.substr(i + 1);
        bool opens = rest.starts_with("array>") || rest.starts_with("dict>");
        bool closes = rest.starts_with("/array>") || rest.starts_with("/dict>");
        if (opens && ++depth > kMaximumPlistNesting) return true;
        if (closes) --depth;
    }
    return false;
}

// The binary parser follows object references recursively, so a file whose objects
// nest (or refer back to each other) too deeply is turned away before it sees it.
class BinaryNestingCheck {
public:
    explicit BinaryNestingCheck(std::string_view bytes) : bytes_(bytes) {}

    bool acceptable() {
        if (!readTrailer()) return false;
        depthOf_.assign(objectCount_, kUnvisited);
        return depthFrom(topObject_) <= kMaximumPlistNesting;
    }

private:
    static constexpr int kUnvisited = -1;
    static constexpr int kInProgress = -2;
    static constexpr int kRefused = kMaximumPlistNesting + 1;

    bool readTrailer() {
        if (bytes_.size() < 8 + 32) return false;
        std::size_t trailer = bytes_.size() - 32;
        offsetSize_ = static_cast<unsigned char>(bytes_[trailer + 6]);
        refSize_ = static_cast<unsigned char>(bytes_[trailer + 7]);
        objectCount_ = readUnsigned(trailer + 8, 8);
        topObject_ = readUnsigned(trailer + 16, 8);
        offsetTable_ = readUnsigned(trailer + 24, 8);
        bool sizesValid = offsetSize_ >= 1 && offsetSize_ <= 8 && refSize_ >= 1 && refSize_ <= 8;
        return sizesValid && objectCount_ > 0 && topObject_ < objectCount_ && offsetTable_ < trailer &&
               objectCount_ <= (trailer - offsetTable_) / offsetSize_;
    }

    std::uint64_t readUnsigned(std::size_t at, std::size_t size) const {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) value = (value << 8) | static_cast<unsigned char>(bytes_[at + i]);
        return value;
    }

    // Where an object's references start and how many there are (none for scalars);
    // false when the object is malformed.
    bool referencesOf(std::uint64_t object, std::size_t& start, std::uint64_t& count) const {
        count = 0;
        std::uint64_t offset = readUnsigned(offsetTable_ + object * offsetSize_, offsetSize_);
        if (offset >= offsetTable_) return false;
        auto marker = static_cast<unsigned char>(bytes_[offset]);
        unsigned type = marker >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) return true;
        std::uint64_t entries = marker & 0xF;
        std::size_t at = offset + 1;
        if (entries == 0xF) {
            if (at >= offsetTable_) return false;
            auto intMarker = static_cast<unsigned char>(bytes_[at]);
            std::size_t intSize = std::size_t{1} << (intMarker & 0xF);
            if ((intMarker >> 4) != 0x1 || intSize > 8 || at + 1 + intSize > offsetTable_) return false;
            entries = readUnsigned(at + 1, intSize);
            at += 1 + intSize;
        }
        count = type == 0xD ? 2 * entries : entries;
        start = at;
        return entries <= objectCount_ * 2 && count <= (offsetTable_ - at) / refSize_;
    }

    // The depth below an object, found without recursion; kRefused when it is too
    // deep, cyclic or malformed.
    int depthFrom(std::uint64_t root) {
        struct Frame {
            std::uint64_t object;
            std::size_t references;
            std::uint64_t count;
            std::uint64_t next;
            int deepest;
        };
        std::vector<Frame> stack;
        auto enter = [&](std::uint64_t object) {
            Frame frame{object, 0, 0, 0, 0};
            if (!referencesOf(object, frame.references, frame.count)) return false;
            depthOf_[object] = kInProgress;
            stack.push_back(frame);
            return stack.size() <= static_cast<std::size_t>(kMaximumPlistNesting);
        };
        if (!enter(root)) return kRefused;
        while (!stack.empty()) {
            Frame& frame = stack.back();
            if (frame.next == frame.count) {
                int depth = frame.count == 0 ? 0 : frame.deepest + 1;
                depthOf_[frame.object] = depth;
                stack.pop_back();
                if (!stack.empty()) stack.back().deepest = std::max(stack.back().deepest, depth);
                continue;
            }
            std::uint64_t child = readUnsigned(frame.references + frame.next++ * refSize_, refSize_);
            if (child >= objectCount_) return kRefused;
            int known = depthOf_[child];
            if (known == kInProgress) return kRefused;
            if (known >= 0) {
                frame.deepest = std::max(frame.deepest, known);
            } else if (!enter(child)) {
                return kRefused;
            }
        }
        return depthOf_[root];
    }

    std::string_view bytes_;
    std::size_t offsetSize_ = 0;
    std::size_t refSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topObject_ = 0;
    std::uint64_t offsetTable_ = 0;
    std::vector<int> depthOf_;
};

Value fromPlist(plist_t node, int depth);

Value arrayFromPlist(plist_t node, int depth) {
    uint32_t size = plist_array_get_size(node);
    ValueArray elements;
    elements.reserve(size);
    for (uint32_t i = 0; i < size; ++i) {
        Value element = fromPlist(plist_array_get_item(node, i), depth + 1);
        if (element.isNone()) return {};
        elements.push_back(std::move(element));
    }
    return Value::array(std::move(elements));
}

Value dictionaryFromPlist(plist_t node, int depth) {
    ValueDictionary::Entries entries;
    entries.reserve(plist_dict_get_size(node));
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    if (!iter) return {};
    bool complete = true;
    for (;;) {
        char* rawKey = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iter, &rawKey, &item);
        MallocText key(rawKey);
        if (!item) break;
        Value element = fromPlist(item, depth + 1);
        if (element.isNone() || !key) {
            complete = false;
            break;
        }
        entries.emplace_back(std::string(key.get()), std::move(element));
    }
    std::free(iter);
    return complete ? Value::dictionary(ValueDictionary::fromEntries(std::move(entries))) : Value();
}

Value scalarFromPlist(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return Value::boolean(flag != 0);
        }
        case PLIST_UINT: {
            uint64_t number = 0;
            plist_get_uint_val(node, &number);
            return Value::integer(static_cast<std::int64_t>(number));
        }
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            return Value::real(number);
        }
        case PLIST_STRING:
        case PLIST_KEY: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            return Value::string(text ? std::string(text, length) : std::string());
        }
        case PLIST_DATE: {
            int32_t seconds = 0, microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            return Value::date(Date{seconds + microseconds / 1e6});
        }
        case PLIST_DATA: {
            uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            return Value::data(bytes ? std::string(bytes, length) : std::string());
        }
        case PLIST_UID: {
            uint64_t number = 0;
            plist_get_uid_val(node, &number);
            return Value::integer(static_cast<std::int64_t>(number));
        }
        default: return {};
    }
}

Value fromPlist(plist_t node, int depth) {
    if (!node || depth > kMaximumPlistNesting) return {};
    switch (plist_get_node_type(node)) {
        case PLIST_ARRAY: return arrayFromPlist(node, depth);
        case PLIST_DICT: return dictionaryFromPlist(node, depth);
        default: return scalarFromPlist(node);
    }
}

// ---- writing ----

plist_t toPlist(const Value& value);

plist_t arrayToPlist(const ValueArray& elements) {
    plist_t array = plist_new_array();
    for (const auto& element : elements) {
        if (plist_t item = toPlist(element)) plist_array_append_item(array, item);
    }
    return array;
}

plist_t dictionaryToPlist(const ValueDictionary& entries) {
    plist_t dict = plist_new_dict();
    for (const auto& [key, element] : entries) {  // std::map: ascending key order
        if (plist_t item = toPlist(element)) plist_dict_set_item(dict, withValidUtf8(key).c_str(), item);
    }
    return dict;
}

plist_t dateToPlist(const Date& when) {
    double whole = std::floor(when.secondsSinceReferenceDate);
    double clamped = std::fmax(std::fmin(whole, std::numeric_limits<int32_t>::max()),
                               std::numeric_limits<int32_t>::min());
    auto microseconds = static_cast<int32_t>((when.secondsSinceReferenceDate - whole) * 1e6);
    return plist_new_date(static_cast<int32_t>(clamped), clamped == whole ? microseconds : 0);
}

plist_t toPlist(const Value& value) {
    if (value.isNone()) return nullptr;
    switch (value.kind()) {
        // A property list holds text only: bytes that are not UTF-8 (from a path, say) are replaced.
        case Value::Kind::String: return plist_new_string(withValidUtf8(*value.asString()).c_str());
        case Value::Kind::Integer: return plist_new_uint(static_cast<uint64_t>(*value.asInteger()));
        case Value::Kind::Real: return plist_new_real(*value.asReal());
        case Value::Kind::Boolean: return plist_new_bool(*value.asBoolean() ? 1 : 0);
        case Value::Kind::Date: return dateToPlist(*value.asDate());
        case Value::Kind::Data: {
            const auto& bytes = value.asData()->bytes;
            return plist_new_data(bytes.data(), bytes.size());
        }
        case Value::Kind::Array: return arrayToPlist(*value.asArray());
        case Value::Kind::Set: return arrayToPlist(*value.asSetMembers());
        case Value::Kind::Dictionary: return dictionaryToPlist(*value.asDictionary());
    }
    return nullptr;
}

}  // namespace

Value parsePropertyList(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return {};
    auto length = static_cast<uint32_t>(bytes.size());
    plist_t raw = nullptr;
    if (plist_is_binary(bytes.data(), length)) {
        if (!BinaryNestingCheck(bytes).acceptable()) return {};
        plist_from_bin(bytes.data(), length, &raw);
    } else {
        if (xmlNestsTooDeeply(bytes)) return {};
        plist_from_xml(bytes.data(), length, &raw);
    }
    PlistHandle root(raw);
    return root ? fromPlist(root.get(), 0) : Value();
}

namespace {

using Encoder = void (*)(plist_t, char**, uint32_t*);
using Releaser = void (*)(char*);

std::string encodePropertyList(const Value& value, Encoder encode, Releaser release) {
    PlistHandle root(toPlist(value));
    if (!root) root.reset(plist_new_dict());
    char* bytes = nullptr;
    uint32_t length = 0;
    encode(root.get(), &bytes, &length);
    std::string encoded = bytes ? std::string(bytes, length) : std::string();
    release(bytes);
    return encoded;
}

}  // namespace

std::string xmlPropertyList(const Value& value) {
    return encodePropertyList(value, plist_to_xml, plist_to_xml_free);
}

std::string binaryPropertyList(const Value& value) {
    return encodePropertyList(value, plist_to_bin, plist_to_bin_free);
}

}  // namespace whittle
