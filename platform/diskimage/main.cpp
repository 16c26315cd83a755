// whittle-diskimage: attach, create, imageinfo and eject of disk images. Its only
// configuration is the command line and the build-time settings below.
#include <iostream>
#include <string>
#include <vector>

#include "platform/diskimage/DiskImageTool.hpp"
#include "platform/helper/ProgressReporter.hpp"
#include "platform/helper/StopCleanup.hpp"

int main(int argc, char** argv) {
    whittle::helper::tieToCaller();
    // Taken before any verb runs, so that the programs attach starts never inherit it.
    auto progress = whittle::helper::ProgressReporter::fromEnvironment();
    whittle::diskimage::ToolSettings settings{WHITTLE_VOLUMES_DIR, WHITTLE_SEVEN_ZIP, &progress};
    std::vector<std::string> arguments(argv + 1, argv + argc);
    return whittle::diskimage::runDiskImageTool(arguments, settings, whittle::diskimage::readPassphraseFromTerminal,
                                                std::cout, std::cerr);
}
