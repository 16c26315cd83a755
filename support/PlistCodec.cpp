#include "support/PlistCodec.hpp"

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/Helpers.hpp"

namespace whittle {

namespace {

// ---- checks made before the library reads anything ----
//
// The library frees its trees recursively, replaces repeated dictionary keys by freeing
// the old subtree, and expands every reference of a binary list into a copy of its own;
// it also asserts that a dictionary key holds no NUL, and files the keys of a large XML
// dictionary in a hash table of 4096 chains, which keys made to collide turn into one
// long list. So nesting, expansion and keys are judged on the bytes first, by the
// library's own reading rules, and a list that fails is turned away like any other
// unreadable one.

// Follows the library's reading of an XML property list token by token, as far as it
// would read: the deepest nesting of containers it would build, and what finding its
// dictionaries' keys would cost it. Where the library would stop with an error the
// walk stops too: what the library built up to that point is all it ever frees.
class XmlListWalk {
public:
    explicit XmlListWalk(std::string_view bytes)
        : pos_(bytes.data()), end_(bytes.data() + bytes.size()),
          keyLookupBudget_(kKeyLookupAllowance + kKeyLookupPerByte * bytes.size()) {}

    // Answers the deepest nesting; keysTooCostly() tells about the keys afterwards.
    int deepestNesting() {
        while (pos_ < end_) {
            skipWhitespace();
            if (pos_ >= end_ || *pos_ != '<') break;
            if (++pos_ >= end_) break;
            bool keepGoing = *pos_ == '?' ? skipProcessingInstruction()
                             : *pos_ == '!' ? skipCommentOrDoctype()
                                            : readTag();
            if (!keepGoing) break;
        }
        return deepest_;
    }

    bool keysTooCostly() const { return keyLookupCost_ > keyLookupBudget_; }

private:
    enum class Open : char { PlistTag, Dict, Array };

    // The library scans a dictionary's first entries one by one when it adds a key, and
    // then files them by hash: from then on each key added walks its chain twice.
    static constexpr std::uint64_t kEntriesScanned = 250;
    static constexpr std::uint32_t kChains = 4096;
    static constexpr std::uint64_t kKeyLookupAllowance = std::uint64_t{64} << 20;  // bytes compared
    static constexpr std::uint64_t kKeyLookupPerByte = 64;
    struct KeyLoad {
        std::uint64_t entries = 0;
        std::vector<std::uint32_t> chainOfEntry;  // of the entries scanned one by one
        std::vector<std::uint32_t> chainLengths;  // once the entries are filed by hash
    };
    struct Parent {
        Open kind;
        KeyLoad keys;
    };

    std::size_t left() const { return static_cast<std::size_t>(end_ - pos_); }
    bool at(std::string_view text) const { return left() >= text.size() && std::string_view(pos_, text.size()) == text; }

    void skipWhitespace() {
        while (pos_ < end_ && (*pos_ == ' ' || *pos_ == '\t' || *pos_ == '\r' || *pos_ == '\n')) ++pos_;
    }
    void findChar(char wanted) {
        while (pos_ < end_ && *pos_ != wanted) ++pos_;
    }
    // Leaves pos_ at the closing quote, or at the end when there is none.
    void skipQuoted() {
        ++pos_;
        findChar('"');
    }
    void findText(std::string_view text, bool skipQuotes) {
        while (left() > text.size()) {
            if (at(text)) break;
            if (skipQuotes && *pos_ == '"') {
                skipQuoted();
                if (pos_ >= end_) return;
            }
            ++pos_;
        }
    }
    void findAnyOf(std::string_view stops, bool skipQuotes) {
        while (pos_ < end_) {
            if (skipQuotes && *pos_ == '"') {
                skipQuoted();
                if (pos_ >= end_) return;
            }
            if (stops.find(*pos_) != std::string_view::npos) return;
            ++pos_;
        }
    }
    bool skipPast(std::string_view terminator, bool skipQuotes) {
        findText(terminator, skipQuotes);
        if (!at(terminator)) return false;
        pos_ += terminator.size();
        return true;
    }

    bool skipProcessingInstruction() { return skipPast("?>", true); }

    bool skipCommentOrDoctype() {
        if (left() > 3 && at("!--")) {
            pos_ += 3;
            return skipPast("-->", false);
        }
        if (left() <= 8 || !at("!DOCTYPE")) return false;
        pos_ += 8;
        while (pos_ < end_) {
            findAnyOf(" \t\r\n[>", true);
            if (pos_ >= end_) return false;
            if (*pos_ == '[') return skipPast("]>", true);
            if (*pos_ == '>') {
                ++pos_;
                return true;
            }
            skipWhitespace();
        }
        return true;
    }

    // The text of a leaf element up to its closing tag, comments and CDATA included;
    // with text, also the content the library would make of it.
    bool skipLeafContent(std::string_view tag, bool skipLeadingWhitespace, std::string* text) {
        if (skipLeadingWhitespace) skipWhitespace();
        const char* partStart = nullptr;
        const char* partEnd = nullptr;
        for (;;) {
            partStart = pos_;
            findChar('<');
            partEnd = pos_;
            if (pos_ >= end_ || ++pos_ >= end_) return false;
            if (*pos_ == '/') break;
            if (*pos_ != '!' || ++pos_ >= end_ - 1) return false;
            if (text && !appendUnescaped(*text, partStart, partEnd)) return false;
            if (at("--")) {
                pos_ += 2;
                if (!skipPast("-->", false)) return false;
            } else if (*pos_ == '[' && left() > 9 && std::string_view(pos_ + 1, 6) == "CDATA[") {
                pos_ += 7;
                const char* cdata = pos_;
                if (!skipPast("]]>", false)) return false;
                if (text) text->append(cdata, static_cast<std::size_t>(pos_ - 3 - cdata));
            } else {
                return false;
            }
        }
        if (text && !appendUnescaped(*text, partStart, partEnd)) return false;
        ++pos_;
        if (left() <= tag.size() || !at(tag)) return false;
        pos_ += tag.size();
        skipWhitespace();
        if (pos_ >= end_ || *pos_ != '>') return false;
        ++pos_;
        return true;
    }

    bool readTag() {
        const char* nameStart = pos_;
        findAnyOf(" \r\n\t<>", false);
        if (pos_ >= end_) return false;
        std::string_view tag(nameStart, static_cast<std::size_t>(pos_ - nameStart));
        if (*pos_ != '>') findAnyOf("<>", true);
        if (pos_ >= end_ || *pos_ != '>') return false;
        bool empty = *(pos_ - 1) == '/';
        if (empty) tag = tag.substr(0, std::min(tag.size(), static_cast<std::size_t>(pos_ - nameStart - 1)));
        ++pos_;

        if (tag == "plist") {
            if (openTags_.empty() && haveRoot_) return false;  // a second top-level list ends the reading
            if (empty) return false;
            openTags_.push_back(Open::PlistTag);
            return true;
        }
        if (tag == "/plist") {
            if (openTags_.empty() || openTags_.back() != Open::PlistTag) return false;
            openTags_.pop_back();
            return true;
        }
        if (!tag.empty() && tag[0] == '/') return closeContainer(tag.substr(1));
        if (tag == "dict" || tag == "array") return openContainer(tag == "dict" ? Open::Dict : Open::Array, empty);
        return readLeaf(tag, empty);
    }

    bool readLeaf(std::string_view tag, bool empty) {
        static constexpr std::string_view kLeaves[] = {"integer", "real", "true", "false", "string", "key", "data", "date"};
        if (std::find(std::begin(kLeaves), std::end(kLeaves), tag) == std::end(kLeaves)) return false;
        // A key inside a dictionary names the next element rather than being one.
        bool namesEntry = tag == "key" && !empty && haveRoot_ && !pendingKey_ && parents_.back().kind == Open::Dict;
        std::string key;
        if (!empty && !skipLeafContent(tag, tag != "string" && tag != "key", namesEntry ? &key : nullptr)) return false;
        if (!haveRoot_) return false;  // a leaf at the top is the whole list
        if (!namesEntry) return joinParent();
        pendingKey_ = std::move(key);
        return true;
    }

    bool openContainer(Open kind, bool empty) {
        int depth = static_cast<int>(parents_.size()) + 1;
        noteDepth(depth);
        if (!haveRoot_) {
            haveRoot_ = true;
            parents_.push_back({kind, {}});
        } else if (!joinParent()) {
            return false;
        }
        if (!empty) {
            openTags_.push_back(kind);
            if (depth > 1) parents_.push_back({kind, {}});
        }
        return deepest_ <= kMaximumPlistNesting;
    }

    bool closeContainer(std::string_view name) {
        pendingKey_.reset();
        Open kind = name == "dict" ? Open::Dict : Open::Array;
        if (openTags_.empty() || (name != "dict" && name != "array") || openTags_.back() != kind) return false;
        openTags_.pop_back();
        parents_.pop_back();
        return !parents_.empty();
    }

    // The element just read joins its parent; a dictionary files it under the key read
    // before it.
    bool joinParent() {
        Parent& parent = parents_.back();
        if (parent.kind == Open::Dict && pendingKey_) addKey(parent.keys, *pendingKey_);
        pendingKey_.reset();
        return !keysTooCostly();
    }

    // Counts the bytes the library may compare to add the key: every entry while it
    // scans them, twice the key's chain once they are filed.
    void addKey(KeyLoad& load, std::string_view key) {
        std::uint32_t chain = libraryKeyHash(key) % kChains;
        std::uint64_t comparisons = 0;
        if (load.entries < kEntriesScanned) {
            comparisons = load.entries;
            load.chainOfEntry.push_back(chain);
        } else {
            if (load.chainLengths.empty()) {
                load.chainLengths.assign(kChains, 0);
                for (std::uint32_t filed : load.chainOfEntry) ++load.chainLengths[filed];
                load.chainOfEntry.clear();
            }
            comparisons = 2 * std::uint64_t{load.chainLengths[chain]};
            ++load.chainLengths[chain];
        }
        ++load.entries;
        keyLookupCost_ += comparisons * (key.size() + 1);
    }

    static std::uint32_t libraryKeyHash(std::string_view key) {
        std::uint32_t hash = 5381;
        for (char c : key) hash = hash * 33 + static_cast<std::uint32_t>(static_cast<signed char>(c));
        return hash;
    }

    // The library's decoding of entities, part by part: "&amp;", "&apos;", "&quot;",
    // "&lt;", "&gt;" (any name that begins so) and character references. False where
    // the library would refuse the text.
    static bool appendUnescaped(std::string& out, const char* begin, const char* end) {
        std::string_view text(begin, static_cast<std::size_t>(end - begin));
        std::size_t i = 0;
        while (i + 1 < text.size()) {
            if (text[i] != '&') {
                out += text[i++];
                continue;
            }
            std::size_t semicolon = text.find(';', i);
            if (semicolon == std::string_view::npos || semicolon == i + 1) return false;
            std::string_view name = text.substr(i + 1, semicolon - i - 1);
            if (name.starts_with("amp")) {
                out += '&';
            } else if (name.starts_with("apos")) {
                out += '\'';
            } else if (name.starts_with("quot")) {
                out += '"';
            } else if (name.starts_with("lt")) {
                out += '<';
            } else if (name.starts_with("gt")) {
                out += '>';
            } else if (name[0] != '#' || !appendCharacterReference(out, name)) {
                return false;
            }
            i = semicolon + 1;
        }
        out.append(text.substr(i));
        return true;
    }

    static bool appendCharacterReference(std::string& out, std::string_view name) {
        bool hex = name.size() > 1 && (name[1] == 'x' || name[1] == 'X');
        if (name.size() > 8 || name.size() < (hex ? 3u : 2u)) return false;
        std::string digits(name.substr(hex ? 2 : 1));
        char* stop = nullptr;
        unsigned long long code = std::strtoull(digits.c_str(), &stop, hex ? 16 : 10);
        if (code == 0 || code > 0x10FFFF || stop != digits.c_str() + digits.size()) return false;
        auto put = [&out](unsigned long long bits) { out += static_cast<char>(bits); };
        if (code >= 0x10000) {
            put(0xF0 + ((code >> 18) & 0x7));
            put(0x80 + ((code >> 12) & 0x3F));
            put(0x80 + ((code >> 6) & 0x3F));
            put(0x80 + (code & 0x3F));
        } else if (code >= 0x800) {
            put(0xE0 + ((code >> 12) & 0xF));
            put(0x80 + ((code >> 6) & 0x3F));
            put(0x80 + (code & 0x3F));
        } else if (code >= 0x80) {
            put(0xC0 + ((code >> 6) & 0x1F));
            put(0x80 + (code & 0x3F));
        } else {
            put(code);
        }
        return true;
    }

    void noteDepth(int depth) { deepest_ = std::max(deepest_, depth); }

    const char* pos_;
    const char* end_;
    bool haveRoot_ = false;
    std::vector<Open> openTags_;  // the library's stack of open tags
    std::vector<Parent> parents_;  // the containers enclosing the next element
    std::optional<std::string> pendingKey_;
    int deepest_ = 0;
    std::uint64_t keyLookupBudget_;
    std::uint64_t keyLookupCost_ = 0;
};

// Walks every object a binary list's top object reaches, without recursion: refuses
// cycles, containers nested too deeply, dictionary keys that are not strings or hold a
// NUL, and shared references that would expand, when read, far beyond the file's size.
class BinaryListCheck {
public:
    explicit BinaryListCheck(std::string_view bytes)
        : bytes_(bytes), budget_(kExpansionAllowance + kExpansionPerByte * bytes.size()) {}

    bool acceptable() {
        if (!readTrailer()) return false;
        states_.assign(objectCount_, State{});
        return walkFrom(topObject_);
    }

    // The deepest nesting of containers below the top object, once found acceptable.
    int nesting() const { return states_.empty() ? 0 : states_[topObject_].depth; }

private:
    // What an object costs once read: the library's node and ours, plus its bytes.
    static constexpr std::uint64_t kObjectCost = 64;
    static constexpr std::uint64_t kExpansionAllowance = std::uint64_t{32} << 20;
    static constexpr std::uint64_t kExpansionPerByte = 48;
    static constexpr std::uint64_t kLongestUtf16String = std::uint64_t{1} << 28;

    enum class Visit : std::uint8_t { Unvisited, InProgress, Done };
    struct State {
        Visit visit = Visit::Unvisited;
        bool keyChecked = false;
        int depth = 0;              // containers from this object down, itself included
        std::uint64_t cost = 0;     // what reading this object and all below it costs
    };
    struct Object {
        unsigned type = 0;
        std::uint64_t size = 0;     // entries of a container, length of a string or data
        std::size_t body = 0;       // where the references or the payload begin
        std::uint64_t references = 0;
    };

    bool readTrailer() {
        if (bytes_.size() < 8 + 32) return false;
        std::size_t trailer = bytes_.size() - 32;
        offsetSize_ = static_cast<unsigned char>(bytes_[trailer + 6]);
        refSize_ = static_cast<unsigned char>(bytes_[trailer + 7]);
        objectCount_ = readUnsigned(trailer + 8, 8);
        topObject_ = readUnsigned(trailer + 16, 8);
        offsetTable_ = readUnsigned(trailer + 24, 8);
        bool sizesValid = offsetSize_ >= 1 && offsetSize_ <= 8 && refSize_ >= 1 && refSize_ <= 8;
        return sizesValid && objectCount_ > 0 && topObject_ < objectCount_ && offsetTable_ >= 8 &&
               offsetTable_ < trailer && objectCount_ <= (trailer - offsetTable_) / offsetSize_;
    }

    std::uint64_t readUnsigned(std::size_t at, std::size_t size) const {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) value = (value << 8) | static_cast<unsigned char>(bytes_[at + i]);
        return value;
    }

    static bool isContainer(unsigned type) { return type == 0xA || type == 0xC || type == 0xD; }
    static bool isString(unsigned type) { return type == 0x5 || type == 0x6; }

    // An object's marker and extent; false when it reaches past the objects.
    bool readObject(std::uint64_t index, Object& object) const {
        std::uint64_t offset = readUnsigned(offsetTable_ + index * offsetSize_, offsetSize_);
        if (offset >= offsetTable_) return false;
        auto marker = static_cast<unsigned char>(bytes_[offset]);
        object.type = marker >> 4;
        object.size = marker & 0xF;
        object.body = offset + 1;
        bool sized = isContainer(object.type) || isString(object.type) || object.type == 0x4;
        if (!sized) return true;
        if (object.size == 0xF) {
            if (object.body >= offsetTable_) return false;
            auto intMarker = static_cast<unsigned char>(bytes_[object.body]);
            std::size_t intSize = std::size_t{1} << (intMarker & 0xF);
            if ((intMarker >> 4) != 0x1 || intSize > 8 || object.body + 1 + intSize > offsetTable_) return false;
            object.size = readUnsigned(object.body + 1, intSize);
            object.body += 1 + intSize;
        }
        std::uint64_t room = offsetTable_ - object.body;
        if (isContainer(object.type)) {
            object.references = object.type == 0xD ? 2 * object.size : object.size;
            return object.references <= room / refSize_;
        }
        std::uint64_t unit = object.type == 0x6 ? 2 : 1;
        if (object.type == 0x6 && object.size > kLongestUtf16String) return false;
        return object.size <= room / unit;
    }

    std::uint64_t reference(const Object& container, std::uint64_t n) const {
        return readUnsigned(container.body + n * refSize_, refSize_);
    }

    std::uint64_t ownCost(const Object& object) const {
        std::uint64_t payload = 0;
        if (object.type == 0x4 || object.type == 0x5) payload = object.size;
        if (object.type == 0x6) payload = 4 * (object.size + 1);  // the library's conversion buffer
        return kObjectCost + payload;
    }

    bool keyIsAcceptable(std::uint64_t index) {
        State& state = states_[index];
        if (state.keyChecked) return true;
        Object key;
        if (!readObject(index, key) || !isString(key.type)) return false;
        std::uint64_t unit = key.type == 0x6 ? 2 : 1;
        for (std::uint64_t i = 0; i < key.size; ++i) {
            std::size_t at = key.body + i * unit;
            if (bytes_[at] == '\0' && (unit == 1 || bytes_[at + 1] == '\0')) return false;
        }
        state.keyChecked = true;
        return true;
    }

    bool walkFrom(std::uint64_t root) {
        struct Frame {
            std::uint64_t index;
            Object object;
            std::uint64_t next = 0;
        };
        std::vector<Frame> stack;
        auto enter = [&](std::uint64_t index) {
            Frame frame{index, {}};
            if (!readObject(index, frame.object)) return false;
            State& state = states_[index];
            state.visit = Visit::InProgress;
            state.depth = isContainer(frame.object.type) ? 1 : 0;
            state.cost = ownCost(frame.object);
            stack.push_back(frame);
            return stack.size() <= static_cast<std::size_t>(kMaximumPlistNesting) + 1;
        };
        if (!enter(root)) return false;
        while (!stack.empty()) {
            Frame& frame = stack.back();
            State& state = states_[frame.index];
            if (frame.next == frame.object.references) {
                state.visit = Visit::Done;
                stack.pop_back();
                if (!stack.empty() && !addChild(states_[stack.back().index], state)) return false;
                continue;
            }
            bool isKey = frame.object.type == 0xD && frame.next < frame.object.size;
            std::uint64_t child = reference(frame.object, frame.next++);
            if (child >= objectCount_) return false;
            if (isKey && !keyIsAcceptable(child)) return false;
            const State& known = states_[child];
            if (known.visit == Visit::InProgress) return false;
            if (known.visit == Visit::Done) {
                if (!addChild(state, known)) return false;
            } else if (!enter(child)) {
                return false;
            }
        }
        return true;
    }

    bool addChild(State& parent, const State& child) {
        parent.depth = std::max(parent.depth, child.depth + 1);
        parent.cost = std::min(parent.cost + child.cost, budget_ + 1);
        return parent.depth <= kMaximumPlistNesting && parent.cost <= budget_;
    }

    std::string_view bytes_;
    std::uint64_t budget_;
    std::size_t offsetSize_ = 0;
    std::size_t refSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topObject_ = 0;
    std::uint64_t offsetTable_ = 0;
    std::vector<State> states_;
};

// ---- the library's tree ----

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistHandle = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
using MallocText = std::unique_ptr<char, MallocDeleter>;
using Iterator = std::unique_ptr<void, MallocDeleter>;

// A container's children in order, found without indexing (the library finds the nth
// child of a binary list's array by walking from the first).
std::vector<plist_t> childrenOf(plist_t node) {
    std::vector<plist_t> children;
    if (plist_get_node_type(node) == PLIST_ARRAY) {
        children.reserve(plist_array_get_size(node));
        plist_array_iter raw = nullptr;
        plist_array_new_iter(node, &raw);
        Iterator iter(raw);
        for (plist_t item = nullptr; raw;) {
            plist_array_next_item(node, raw, &item);
            if (!item) break;
            children.push_back(item);
        }
    } else if (plist_get_node_type(node) == PLIST_DICT) {
        children.reserve(plist_dict_get_size(node));
        plist_dict_iter raw = nullptr;
        plist_dict_new_iter(node, &raw);
        Iterator iter(raw);
        for (plist_t item = nullptr; raw;) {
            plist_dict_next_item(node, raw, nullptr, &item);
            if (!item) break;
            children.push_back(item);
        }
    }
    return children;
}

// The deepest nesting of containers in a tree, found without recursion.
[[maybe_unused]] int nestingOf(plist_t root) {
    std::vector<std::pair<plist_t, int>> pending{{root, 1}};
    int deepest = 0;
    while (!pending.empty()) {
        auto [node, depth] = pending.back();
        pending.pop_back();
        plist_type type = plist_get_node_type(node);
        if (type != PLIST_ARRAY && type != PLIST_DICT) continue;
        deepest = std::max(deepest, depth);
        for (plist_t child : childrenOf(node)) pending.emplace_back(child, depth + 1);
    }
    return deepest;
}

// Frees a tree of any depth: subtrees are cut off bottom-up at every so many levels,
// so that the library's recursive freeing never goes deep.
void freeInSlices(plist_t root) {
    constexpr int kSlice = 128;
    std::vector<std::pair<plist_t, int>> pending{{root, 0}};
    std::vector<plist_t> cuts;
    while (!pending.empty()) {
        auto [node, depth] = pending.back();
        pending.pop_back();
        if (depth > 0 && depth % kSlice == 0) cuts.push_back(node);
        for (plist_t child : childrenOf(node)) pending.emplace_back(child, depth + 1);
    }
    // Found parents first, so freed in reverse every cut's own cuts go before it.
    for (auto cut = cuts.rbegin(); cut != cuts.rend(); ++cut) plist_free(*cut);
    plist_free(root);
}

Value fromPlist(plist_t node, int depth);

Value arrayFromPlist(plist_t node, int depth) {
    ValueArray elements;
    for (plist_t item : childrenOf(node)) {
        Value element = fromPlist(item, depth + 1);
        if (element.isNone()) return {};
        elements.push_back(std::move(element));
    }
    return Value::array(std::move(elements));
}

Value dictionaryFromPlist(plist_t node, int depth) {
    ValueDictionary::Entries entries;
    entries.reserve(plist_dict_get_size(node));
    plist_dict_iter raw = nullptr;
    plist_dict_new_iter(node, &raw);
    if (!raw) return {};
    Iterator iter(raw);
    for (;;) {
        char* rawKey = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, raw, &rawKey, &item);
        MallocText key(rawKey);
        if (!item) break;
        Value element = fromPlist(item, depth + 1);
        if (element.isNone() || !key) return {};
        entries.emplace_back(std::string(key.get()), std::move(element));
    }
    return Value::dictionary(ValueDictionary::fromEntries(std::move(entries)));
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

// depth: the containers enclosing the node, itself included if it is one.
Value fromPlist(plist_t node, int depth) {
    if (!node) return {};
    switch (plist_get_node_type(node)) {
        case PLIST_ARRAY: return depth > kMaximumPlistNesting ? Value() : arrayFromPlist(node, depth);
        case PLIST_DICT: return depth > kMaximumPlistNesting ? Value() : dictionaryFromPlist(node, depth);
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
    switch (value.kind()) {
        case Value::Kind::None: return nullptr;
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

namespace {

// Owns the library's tree: freed in slices unless known to be shallow.
class ParsedTree {
public:
    explicit ParsedTree(plist_t root) : root_(root) {}
    ParsedTree(const ParsedTree&) = delete;
    ParsedTree& operator=(const ParsedTree&) = delete;
    ~ParsedTree() {
        if (!root_) return;
        if (shallow_) {
            plist_free(root_);
        } else {
            freeInSlices(root_);
        }
    }
    plist_t root() const { return root_; }
    void knownShallow() { shallow_ = true; }

private:
    plist_t root_;
    bool shallow_ = false;
};

// The library's tree of the bytes, if they pass the checks; nesting: how deep the
// checks expect the tree to be.
plist_t readWithLibrary(std::string_view bytes, int& nesting) {
    auto length = static_cast<uint32_t>(bytes.size());
    plist_t raw = nullptr;
    if (plist_is_binary(bytes.data(), length)) {
        BinaryListCheck check(bytes);
        if (!check.acceptable()) return nullptr;
        nesting = check.nesting();
        plist_from_bin(bytes.data(), length, &raw);
    } else {
        // XML allows no NUL character, and the library would cut a key short at one.
        if (bytes.find('\0') != std::string_view::npos) return nullptr;
        XmlListWalk walk(bytes);
        nesting = walk.deepestNesting();
        if (nesting > kMaximumPlistNesting || walk.keysTooCostly()) return nullptr;
        plist_from_xml(bytes.data(), length, &raw);
    }
    return raw;
}

}  // namespace

Value parsePropertyList(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return {};
    int expectedNesting = 0;
    ParsedTree tree(readWithLibrary(bytes, expectedNesting));
    if (!tree.root()) return {};
#ifdef WHITTLE_FUZZING
    // A deeper tree than the checks foresaw means they misread the bytes.
    if (nestingOf(tree.root()) > expectedNesting) std::abort();
#endif
    Value value = fromPlist(tree.root(), 1);
    // Converted completely, the tree is no deeper than the conversion allows.
    if (!value.isNone()) tree.knownShallow();
    return value;
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
