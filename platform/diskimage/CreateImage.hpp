// create: a read-only disk image of a folder. xorriso writes an ISO 9660 + HFS+ hybrid
// of the folder straight into the new image file; the file is then turned, in place,
// into a GUID-partitioned disk whose one partition is that HFS+ volume, described by
// the image's chunk tables where its bytes already lie (so the volume's data is written
// once). With encryption the finished image is then encrypted into the final file.
#pragma once

#include <string>

#include "platform/diskimage/Passphrase.hpp"
#include "platform/diskimage/ToolSettings.hpp"

namespace whittle::diskimage {

struct CreateOptions {
    std::string sourceFolder;
    std::string imagePath;
    bool encrypt = false;
};

// The image's path: the given one, with ".dmg" added when it has another extension.
std::string imagePathFor(const std::string& requestedPath);

// The volume name for a folder: its name, cut to the 32 bytes an ISO 9660 volume id
// allows (at a character boundary), or "untitled".
std::string volumeNameFor(const std::string& folderPath);

// Makes the image; answers its path. A failure leaves nothing behind.
std::string createImage(const CreateOptions& options, const ToolSettings& settings,
                        const PassphrasePrompt& askPassphrase);

}  // namespace whittle::diskimage
