#include "engine/SupportFiles.hpp"

#include <algorithm>
#include <set>

#include "engine/WorkItems.hpp"
#include "support/FileSystem.hpp"
#include "support/Format.hpp"
#include "support/Helpers.hpp"

namespace whittle {

bool isFirmwareArchive(std::string_view entry) {
    return entry != kFirmwareArchives && hasSuffix(entry, "FWPK", kCaseInsensitiveSearch);
}

bool wantsFirmwareArchive(std::string_view archive, std::string_view product, const Value& personalizations) {
    struct OperatingSystemArchive {
        const char* personalization;
        const char* nameFragment;
    };
    static const OperatingSystemArchive systemArchives[] = {
        {"FullInternalOS", "FullInternal"}, {"VendorInternalOS", "VendorInternal"}, {"LiteInternalOS", "LiteInternal"}};
    if (containsIgnoringCase(archive, product)) return true;
    return std::any_of(std::begin(systemArchives), std::end(systemArchives), [&](const OperatingSystemArchive& system) {
        return holdsString(personalizations, system.personalization) && containsIgnoringCase(archive, system.nameFragment);
    });
}

std::vector<std::string> rootDiskImages(const std::vector<std::string>& rootNames) {
    std::vector<std::string> images;
    for (const auto& name : rootNames) {
        if (hasSuffix(name, ".dmg", kCaseInsensitiveSearch) && !name.starts_with("._")) images.push_back(name);
    }
    return images;
}

std::vector<std::string> unlinkedImages(const std::vector<std::string>& images, const LinkReader& linkTarget) {
    std::set<std::string> eliminated;
    for (const auto& image : images) {
        if (auto target = linkTarget(image)) {
            eliminated.insert(image);
            eliminated.insert(*target);
        }
    }
    std::vector<std::string> unlinked = images;
    std::erase_if(unlinked, [&eliminated](const std::string& image) { return eliminated.contains(image); });
    return unlinked;
}

RestoreToolsGuess guessRestoreTools(const std::vector<std::string>& unlinked) {
    using Outcome = RestoreToolsGuess::Outcome;
    if (unlinked.size() == 1) {
        const std::string& image = unlinked.front();
        if (image == kRestoreTools) return {};
        return {Outcome::SingleImage, {image},
                format("!!! WARNING: assuming single disk image \"%@\" at root is the RestoreTools disk image.",
                       lastPathComponent(image))};
    }
    return {Outcome::Undecided, unlinked,
            format("!!! WARNING: unable to identify the RestoreTools disk image as there are %d disk images left in "
                   "bundle root - including them all - %@.",
                   unlinked.size(), niceDescriptionOfStrings(unlinked))};
}

}  // namespace whittle
