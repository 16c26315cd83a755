#include "platform/diskimage/CreateImage.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/HfsVolume.hpp"
#include "platform/diskimage/ImageWriter.hpp"
#include "support/Paths.hpp"

namespace whittle::diskimage {

namespace fmt = format;

namespace {

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
    if (text.size() < suffix.size()) return false;
    return std::equal(
        suffix.begin(), suffix.end(), text.end() - static_cast<std::ptrdiff_t>(suffix.size()), [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
        });
}

std::string askNewPassphrase(const std::string& imagePath, const PassphrasePrompt& askPassphrase) {
    auto first = askPassphrase("Enter a new passphrase for " + inQuotes(lastPathComponent(imagePath)) + ": ");
    if (!first) throw DiskImageError("encryption needs a passphrase, and there is no terminal to ask for one");
    auto second = askPassphrase("Enter the passphrase again: ");
    if (!second) throw DiskImageError("encryption needs a passphrase, and there is no terminal to ask for one");
    if (*first != *second) throw DiskImageError("the passphrases do not match");
    return *first;
}

}  // namespace

std::string imagePathFor(const std::string& requestedPath) {
    if (endsWithIgnoringCase(requestedPath, fmt::create::kImageExtension)) return requestedPath;
    return requestedPath + std::string(fmt::create::kImageExtension);
}

std::string volumeNameFor(const std::string& folderPath) {
    std::string name = lastPathComponent(folderPath);
    if (name.empty() || name == "/" || name == "." || name == "..") return "untitled";
    if (name.size() <= fmt::create::kLongestVolumeName) return name;
    std::size_t cut = fmt::create::kLongestVolumeName;
    // Back up over UTF-8 continuation bytes so that no character is split.
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    return name.substr(0, cut);
}

std::string createImage(const CreateOptions& options, const PassphrasePrompt& askPassphrase) {
    std::string sourceFolder = canonicalPath(options.sourceFolder);
    struct stat status {};
    if (::stat(sourceFolder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw DiskImageError(inQuotes(options.sourceFolder) + " is not a folder");
    std::string imagePath = imagePathFor(options.imagePath);
    if (::lstat(imagePath.c_str(), &status) == 0) throw DiskImageError(inQuotes(imagePath) + " already exists");

    std::string passphrase;
    if (options.encrypt) passphrase = askNewPassphrase(imagePath, askPassphrase);

    HfsVolumePlan volume(sourceFolder, volumeNameFor(sourceFolder));
    TemporaryFile image(imagePath);
    // Only once the passphrase has been asked for: nothing is drawn over its prompt.
    helper::ProgressReporter noProgress;
    helper::ProgressReporter& progress = options.progress ? *options.progress : noProgress;
    if (!options.encrypt) {
        FileImageOutput output(image.fd(), image.path());
        writeImage(volume, output, progress);
    } else {
        EncryptingSink sink(image.fd(), imagePath, passphrase);
        EncryptedImageOutput output(sink);
        sink.setClearChecksum(writeImage(volume, output, progress));
        sink.finish();
    }
    image.commit();
    return imagePath;
}

}  // namespace whittle::diskimage
