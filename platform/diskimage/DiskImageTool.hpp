// The command line of whittle-diskimage:
//   attach IMAGE [-plist] [-noverify]
//   create -srcfolder FOLDER IMAGE -format UDRO [-encryption [AES-128]]
//   imageinfo -checksum IMAGE
//   eject DEVENTRY
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "platform/diskimage/Passphrase.hpp"
#include "platform/diskimage/ToolSettings.hpp"

namespace whittle::diskimage {

// Runs one command (arguments without the program name); answers the exit status.
// Results go to out, messages ("whittle-diskimage: ...") to err.
int runDiskImageTool(const std::vector<std::string>& arguments, const ToolSettings& settings,
                     const PassphrasePrompt& askPassphrase, std::ostream& out, std::ostream& err);

}  // namespace whittle::diskimage
