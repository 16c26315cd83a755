// The four firmware map files of "Restore/Firmware", cut down to the requested devices.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "engine/Catalogue.hpp"
#include "engine/Stripper3.hpp"
#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PropertyList.hpp"

namespace whittle {

namespace {

constexpr const char* kDeviceMapText = "Restore/Firmware/device_map.txt";
constexpr const char* kDeviceMapPlist = "Restore/Firmware/device_map.plist";
constexpr const char* kTargetMapText = "Restore/Firmware/target_map.txt";
constexpr const char* kPlatformKeys = "Restore/Firmware/platform_keys.plist";

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = byte < 0x80 ? 1 : (byte >> 5) == 0x6 ? 2 : (byte >> 4) == 0xE ? 3 : (byte >> 3) == 0x1E ? 4 : 0;
        if (length == 0 || i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        }
        i += length;
    }
    return true;
}

bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

// The text of a file, or the reason it cannot be read as UTF-8 text.
std::optional<std::string> readUtf8Text(const std::string& path, std::string& error) {
    errno = 0;
    auto bytes = readWholeFile(path);
    if (!bytes) {
        error = errno ? std::strerror(errno) : "not a readable file";
        return std::nullopt;
    }
    if (!isValidUtf8(*bytes)) {
        error = "the text is not UTF-8";
        return std::nullopt;
    }
    return bytes;
}

std::vector<std::string> nonEmptyLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        if (end > start) lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// The fifth field of a line split at every single space or tab, if it has one.
std::optional<std::string> fifthField(const std::string& line) {
    std::size_t field = 0, start = 0;
    for (std::size_t i = 0; i <= line.size(); ++i) {
        if (i < line.size() && line[i] != ' ' && line[i] != '\t') continue;
        if (field == 4) return line.substr(start, i - start);
        ++field;
        start = i + 1;
    }
    return std::nullopt;
}

bool mentionsAnyOf(std::string_view line, const Value& names) {
    for (const auto& name : *names.asSetMembers()) {
        if (containsIgnoringCase(line, name.text())) return true;
    }
    return false;
}

bool equalsAnyIgnoringCase(std::string_view text, const ValueArray& names) {
    for (const auto& name : names) {
        if (name.isString() && equalsIgnoringCase(text, name.text())) return true;
    }
    return false;
}

Value namesOf(const Value& set) {
    return set.isSet() ? set : Value::set();
}

}  // namespace

int Stripper3::stripFirmwareTextMap(const Value& item, const char* keysName, bool isDeviceMap) {
    const char* file = isDeviceMap ? kDeviceMapText : kTargetMapText;
    std::string path = pathInBundle(file);
    if (!fileExists(path)) {
        Log(isDeviceMap ? "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found." : "!!! WARNING: target_map.txt not found.");
        return 0;
    }
    std::string error;
    auto text = readUtf8Text(path, error);
    if (!text) {
        Log(isDeviceMap ? "!!! WARNING: \"Restore/Firmware/device_map.txt\" could not be read - %@."
                        : "!!! WARNING: target_map.txt could not be read - %@.",
            error);
        return 0;
    }
    Value names = namesOf(item.get(keysName));
    std::string kept;
    Value found = Value::set();
    for (const auto& line : nonEmptyLines(*text)) {
        if (!mentionsAnyOf(line, names)) continue;
        kept += line + "\n";
        if (!isDeviceMap) {
            found.addToSet(Value::string(line));
        } else if (auto value = fifthField(line)) {
            found.addToSet(Value::string(*value));
        }
    }
    const char* fileName = isDeviceMap ? "device_map.txt" : "target_map.txt";
    if (found.count() == 0) {
        Log("!!! WARNING: %s %@ not found.", fileName, niceDescription(names));
    } else {
        Log("+++ %s found %@.", fileName, niceDescription(found));
    }
    modifiedFilelist_.set(file, Value::string(kept));
    return 0;
}

int Stripper3::stripRestoreFirmwareDeviceMapDotTxt(const Value& item) {
    return stripFirmwareTextMap(item, "workAllDeviceClasses", true);
}

int Stripper3::stripRestoreFirmwareTargetMapDotTxt(const Value& item) {
    return stripFirmwareTextMap(item, "workAllProducts", false);
}

int Stripper3::stripRestoreFirmwareDeviceMapDotPlist(const Value& item) {
    Value map = mutableDictionaryAtPath(pathInBundle(kDeviceMapPlist));
    if (!map.isDictionary()) {
        // This step's message has always named the text file.
        Log("!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.");
        return 0;
    }
    Value deviceClasses = namesOf(item.get("workAllDeviceClasses"));
    Value kept = Value::dictionary();
    Value found = Value::set();
    for (const auto& [key, value] : *map.asDictionary()) {
        if (!equalsAnyIgnoringCase(key, *deviceClasses.asSetMembers())) continue;
        kept.set(key, value);
        found.addToSet(Value::string(key));
    }
    if (found.count() == 0) {
        Log("!!! WARNING: device_map.plist %@ not found.", deviceClasses);
    } else {
        Log("+++ device_map.plist found %@.", found);
    }
    modifiedFilelist_.set(kDeviceMapPlist, kept);
    return 0;
}

int Stripper3::stripRestoreFirmwarePlatformKeysDotPlist(const Value& item) {
    Value keys = mutableDictionaryAtPath(pathInBundle(kPlatformKeys));
    if (!keys.isDictionary()) {
        Log("!!! WARNING: \"Restore/Firmware/platform_keys.plist\" not found.");
        return 0;
    }
    Value copy = Value::dictionary(*keys.asDictionary());
    Value products = namesOf(item.get("workAllProducts"));
    ValueArray platforms;
    for (const auto& product : *products.asSetMembers()) {
        Value processor = Catalogue::builtIn().productValue(product.description() + ".processor");
        if (processor.isString()) platforms.push_back(processor);
    }
    Value kept = Value::array();
    Value found = Value::set();
    if (const auto* entries = copy.get("PlatformKeys").asArray()) {
        for (const auto& entry : *entries) {
            Value name = entry.get("PlatformName");
            if (!name.isString() || !equalsAnyIgnoringCase(name.text(), platforms)) continue;
            kept.append(entry);
            found.addToSet(name);
        }
    }
    if (found.count() == 0) {
        Log("!!! WARNING: platform_keys.plist %@ (%@) not found.", niceDescription(products), niceDescription(platforms));
    } else {
        Log("+++ platform_keys.plist found %@.", found);
    }
    copy.set("PlatformKeys", kept);
    modifiedFilelist_.set(kPlatformKeys, copy);
    return 0;
}

}  // namespace whittle
