#include "tools/DiskImage.hpp"

#include "support/PlistCodec.hpp"

namespace whittle {

Value splitPropertyLists(std::string_view text, bool /*mutableResults: every parsed value may be changed*/,
                         std::string& errorText) {
    static constexpr std::string_view kLeading = "<?xml ";
    static constexpr std::string_view kTrailing = "</plist>";
    Value lists = Value::array();
    std::size_t position = 0;
    for (;;) {
        auto start = text.find(kLeading, position);
        if (start == std::string_view::npos) {
            if (lists.count() == 0) errorText = "cannot find leading <?xml .";
            break;
        }
        auto end = text.find(kTrailing, position);
        if (end == std::string_view::npos) {
            errorText = "cannot find trailing <?plist>.";
            break;
        }
        if (end < start) {
            errorText = "interleaved plists detected.";
            break;
        }
        end += kTrailing.size();
        Value parsed = parsePropertyList(text.substr(start, end - start));
        if (parsed.isNone()) {
            errorText = "the property list could not be parsed";
            break;
        }
        lists.append(parsed);
        position = end;
    }
    return lists;
}

std::optional<MountedVolume> findMountPoint(const Value& propertyLists) {
    std::optional<MountedVolume> found;
    for (const auto& list : propertyLists.elements()) {
        Value entities = list.get("system-entities");
        for (const auto& entity : entities.elements()) {
            Value mountPoint = entity.get("mount-point");
            if (!mountPoint.isString()) continue;
            found = MountedVolume{std::string(mountPoint.text()), std::string(entity.get("dev-entry").text())};
            break;
        }
    }
    return found;
}

}  // namespace whittle
