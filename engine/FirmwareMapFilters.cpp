#include "engine/FirmwareMapFilters.hpp"

#include <cerrno>
#include <cstring>
#include <vector>

#include "engine/BundleFiles.hpp"
#include "engine/Catalogue.hpp"
#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

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

bool mentionsAnyOf(std::string_view line, const ValueArray& names) {
    for (const auto& name : names) {
        if (containsIgnoringCase(line, name.text())) return true;
    }
    return false;
}

// What a failed lookup says when nothing stands at the path (a dangling link included).
bool isMissingFileError(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

bool equalsAnyIgnoringCase(std::string_view text, const ValueArray& names) {
    for (const auto& name : names) {
        if (name.isString() && equalsIgnoringCase(text, name.text())) return true;
    }
    return false;
}

FilteredMap filterTextMap(const std::string& text, const ValueArray& names, bool reportsFifthField) {
    FilteredMap result;
    std::string kept;
    for (const auto& line : nonEmptyLines(text)) {
        bool keep = mentionsAnyOf(line, names);
        if (keep) kept += line + "\n";
        Value& report = keep ? result.found : result.scrubbed;
        if (!reportsFifthField) {
            report.addToSet(Value::string(line));
        } else if (auto value = fifthField(line)) {
            report.addToSet(Value::string(*value));
        }
    }
    result.content = Value::string(kept);
    return result;
}

}  // namespace


FilteredMap filterDeviceMapText(const std::string& text, const ValueArray& deviceClasses) {
    return filterTextMap(text, deviceClasses, true);
}

FilteredMap filterTargetMapText(const std::string& text, const ValueArray& products) {
    return filterTextMap(text, products, false);
}

FilteredMap filterDeviceMapPlist(const Value& map, const ValueArray& deviceClasses) {
    FilteredMap result;
    result.content = Value::dictionary();
    if (const auto* entries = map.asDictionary()) {
        for (const auto& [key, value] : *entries) {
            bool keep = equalsAnyIgnoringCase(key, deviceClasses);
            if (keep) result.content.set(key, value);
            (keep ? result.found : result.scrubbed).addToSet(Value::string(key));
        }
    }
    return result;
}

FilteredMap filterPlatformKeys(const Value& keys, const ValueArray& platforms) {
    FilteredMap result;
    result.content = keys.isDictionary() ? Value::dictionary(*keys.asDictionary()) : Value::dictionary();
    Value kept = Value::array();
    if (const auto* entries = result.content.get("PlatformKeys").asArray()) {
        for (const auto& entry : *entries) {
            Value name = entry.get("PlatformName");
            bool keep = name.isString() && equalsAnyIgnoringCase(name.text(), platforms);
            if (keep) kept.append(entry);
            if (name.isString()) (keep ? result.found : result.scrubbed).addToSet(name);
        }
    }
    result.content.set("PlatformKeys", kept);
    return result;
}

ValueArray platformsOfProducts(const ValueArray& products) {
    ValueArray platforms;
    for (const auto& product : products) {
        Value processor = Catalogue::builtIn().productValue(product.description() + ".processor");
        if (processor.isString()) platforms.push_back(processor);
    }
    return platforms;
}

const FirmwareMapFile& firmwareMapFile(FirmwareMap map) {
    static const FirmwareMapFile files[] = {
        {kDeviceMapText, "device_map.txt", true, true},
        {kDeviceMapPlist, "device_map.plist", false, true},
        {kTargetMapText, "target_map.txt", true, false},
        {kPlatformKeys, "platform_keys.plist", false, false},
    };
    return files[static_cast<int>(map)];
}

Value firmwareMapContent(const BundleFiles& files, FirmwareMap map,
                         const std::function<Value(const std::string&)>& readPropertyList) {
    const FirmwareMapFile& file = firmwareMapFile(map);
    if (file.isText) {
        auto text = readFirmwareTextMap(files, file.path, map == FirmwareMap::DeviceMapText);
        return text ? Value::string(*text) : Value();
    }
    Value content = readPropertyList(file.path);
    if (content.isDictionary()) return content;
    // The device map's property list has always been reported under the text file's name.
    Log(map == FirmwareMap::DeviceMapPlist ? "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found."
                                           : "!!! WARNING: \"Restore/Firmware/platform_keys.plist\" not found.");
    return {};
}

FilteredMap filterFirmwareMap(FirmwareMap map, const Value& content, const ValueArray& names) {
    switch (map) {
        case FirmwareMap::DeviceMapText: return filterDeviceMapText(std::string(content.text()), names);
        case FirmwareMap::TargetMapText: return filterTargetMapText(std::string(content.text()), names);
        case FirmwareMap::DeviceMapPlist: return filterDeviceMapPlist(content, names);
        case FirmwareMap::PlatformKeys: return filterPlatformKeys(content, platformsOfProducts(names));
    }
    return {};
}

std::optional<std::string> readFirmwareTextMap(const BundleFiles& files, const std::string& relative, bool isDeviceMap) {
    int readError = 0;
    auto text = files.readFile(relative, &readError);
    if (!text && isMissingFileError(readError)) {
        Log(isDeviceMap ? "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found." : "!!! WARNING: target_map.txt not found.");
        return std::nullopt;
    }
    std::string error;
    if (!text) {
        error = readError ? std::strerror(readError) : "not a readable file";
    } else if (!isValidUtf8(*text)) {
        error = "the text is not UTF-8";
        text.reset();
    }
    if (!text) {
        Log(isDeviceMap ? "!!! WARNING: \"Restore/Firmware/device_map.txt\" could not be read - %@."
                        : "!!! WARNING: target_map.txt could not be read - %@.",
            error);
    }
    return text;
}

}  // namespace whittle
