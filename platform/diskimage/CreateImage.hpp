// create: a read-only disk image of a folder: a GUID-partitioned disk whose one
// partition is an HFS+ volume holding the folder, written in one pass (encrypted on
// the way with -encryption). The same folder gives the same image, byte for byte; an
// encrypted image differs only in its keys, salt and IVs.
#pragma once

#include <string>

#include "platform/diskimage/Passphrase.hpp"
#include "platform/helper/ProgressReporter.hpp"

namespace whittle::diskimage {

struct CreateOptions {
    std::string sourceFolder;
    std::string imagePath;
    bool encrypt = false;
    helper::ProgressReporter* progress = nullptr;  // told the files and bytes written; none: nobody
};

// The image's path: the given one, with ".dmg" added when it has another extension.
std::string imagePathFor(const std::string& requestedPath);

// The volume name for a folder: its name, cut to 32 bytes (at a character boundary),
// or "untitled".
std::string volumeNameFor(const std::string& folderPath);

// Makes the image; answers its path. A failure leaves nothing behind.
std::string createImage(const CreateOptions& options, const PassphrasePrompt& askPassphrase);

}  // namespace whittle::diskimage
