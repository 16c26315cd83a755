// imageinfo -checksum: the image's checksum type and value.
#pragma once

#include <string>

#include "platform/diskimage/Passphrase.hpp"

namespace whittle::diskimage {

// "Checksum Type: CRC32\nChecksum Value: $XXXXXXXX\n" for the image's master checksum
// (its data-fork checksum when it has no master checksum).
std::string imageChecksumReport(const std::string& imagePath, const PassphrasePrompt& askPassphrase);

}  // namespace whittle::diskimage
