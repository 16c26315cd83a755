// attach: makes an image's volume available as a folder in the volumes folder, by
// extracting it with 7zz; eject: removes it again.
#pragma once

#include <string>
#include <string_view>

#include "platform/diskimage/Passphrase.hpp"
#include "platform/diskimage/ToolSettings.hpp"
#include "support/Value.hpp"

namespace whittle::diskimage {

struct AttachOptions {
    std::string imagePath;
    bool verify = true;  // check the image's checksums while extracting
};

// The "system-entities" array of the attached image. An image that is attached already
// answers with its existing entities, without extracting again.
Value attachImage(const AttachOptions& options, const ToolSettings& settings, const PassphrasePrompt& askPassphrase);

// Ejects the attached image that has this device entry (the whole disk's or any of its
// partitions'); answers the disk's name ("disk4").
std::string ejectDisk(std::string_view devEntry, const ToolSettings& settings);

}  // namespace whittle::diskimage
