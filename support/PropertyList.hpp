// A property-list file on disk, read on first need and then held in memory.
// Observers hear of every change of "loaded" and "entries", synchronously.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

// Reads a property-list file (XML or binary) into a tree the caller may change.
// Silent on every failure: a missing, unreadable or unparsable file gives none.
// The top level is returned as it is, dictionary or not.
Value mutableDictionaryAtPath(const std::string& path);

class PropertyList {
public:
    using Observer = std::function<void(std::string_view key, const Value& newValue)>;
    using ObserverToken = std::size_t;
    // Gives the file's bytes, or none when it cannot be read.
    using Reader = std::function<std::optional<std::string>()>;

    PropertyList() = default;
    explicit PropertyList(std::string path) : plistPath_(std::move(path)) {}
    // A list whose bytes come from the reader instead of the path, which names it.
    PropertyList(std::string path, Reader reader) : plistPath_(std::move(path)), reader_(std::move(reader)) {}
    // A loaded PropertyList, or nullptr when the file cannot be loaded.
    static std::unique_ptr<PropertyList> propertyListLoadWithPath(const std::string& path);

    // 1 when the entries are in memory (read now or earlier), 0 on failure.
    int load();
    // Reads the file again, telling observers of "loaded" false and then true.
    int forceReload();

    const std::optional<std::string>& plistPath() const { return plistPath_; }
    bool loaded() const { return loaded_; }
    void setLoaded(bool loaded);
    const Value& entries() const { return entries_; }
    void setEntries(Value entries);

    ObserverToken addObserver(Observer observer);
    void removeObserver(ObserverToken token);

private:
    void notify(std::string_view key, const Value& newValue);

    std::optional<std::string> plistPath_;
    Reader reader_;
    bool loaded_ = false;
    Value entries_;
    std::vector<std::pair<ObserverToken, Observer>> observers_;
    ObserverToken nextToken_ = 1;
};

}  // namespace whittle
