#include "support/PropertyList.hpp"

#include <algorithm>

#include "support/FileSystem.hpp"
#include "support/PlistCodec.hpp"

namespace whittle {

Value mutableDictionaryAtPath(const std::string& path) {
    auto bytes = readWholeFile(path);
    if (!bytes) return {};
    return parsePropertyList(*bytes);
}

std::unique_ptr<PropertyList> PropertyList::propertyListLoadWithPath(const std::string& path) {
    auto list = std::make_unique<PropertyList>(path);
    if (!list->load()) return nullptr;
    return list;
}

int PropertyList::load() {
    if (!plistPath_) return 0;
    if (loaded_) return 1;
    Value contents;
    if (!reader_) {
        contents = mutableDictionaryAtPath(*plistPath_);
    } else if (auto bytes = reader_()) {
        contents = parsePropertyList(*bytes);
    }
    if (contents.isNone()) return 0;
    setEntries(std::move(contents));
    setLoaded(true);
    return 1;
}

int PropertyList::forceReload() {
    setLoaded(false);
    return load();
}

void PropertyList::setLoaded(bool loaded) {
    loaded_ = loaded;
    notify("loaded", Value::boolean(loaded));
}

void PropertyList::setEntries(Value entries) {
    entries_ = std::move(entries);
    notify("entries", entries_);
}

PropertyList::ObserverToken PropertyList::addObserver(Observer observer) {
    observers_.emplace_back(nextToken_, std::move(observer));
    return nextToken_++;
}

void PropertyList::removeObserver(ObserverToken token) {
    std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
}

void PropertyList::notify(std::string_view key, const Value& newValue) {
    // A copy, so that an observer may add or remove observers while being told.
    auto observers = observers_;
    for (const auto& [token, observer] : observers) observer(key, newValue);
}

}  // namespace whittle
