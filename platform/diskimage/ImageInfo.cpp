#include "platform/diskimage/ImageInfo.hpp"

#include <sys/stat.h>

#include <cstdio>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/Udif.hpp"
#include "support/Paths.hpp"

namespace whittle::diskimage {

namespace {

std::string trailerOfEncrypted(int fd, const std::string& imagePath, const PassphrasePrompt& askPassphrase) {
    EncryptedHeader header = readEncryptedHeader(fd, imagePath);
    if (header.dataSize < format::trailer::kSize) throw DiskImageError("\"" + imagePath + "\" holds no disk image");
    auto passphrase = askPassphrase("Enter the passphrase for \"" + lastPathComponent(imagePath) + "\": ");
    if (!passphrase)
        throw DiskImageError("\"" + imagePath + "\" is encrypted, and there is no terminal to ask for its passphrase");
    auto keys = unlockContainer(header, *passphrase);
    if (!keys) throw DiskImageError("wrong passphrase for \"" + imagePath + "\"");
    return decryptRange(fd, header, *keys, header.dataSize - format::trailer::kSize, format::trailer::kSize, imagePath);
}

std::string describe(const ChecksumRecord& checksum) {
    namespace r = format::report;
    std::string typeLine(r::kChecksumTypeLine);
    if (checksum.type == format::checksum::kTypeNone) return typeLine + std::string(r::kNoChecksumName) + "\n";
    if (!checksum.isCrc32()) return typeLine + "unknown (" + std::to_string(checksum.type) + ")\n";
    char value[16];
    std::snprintf(value, sizeof value, "%08X", checksum.value);
    return typeLine + std::string(r::kCrc32Name) + "\n" + std::string(r::kChecksumValueLine) + value + "\n";
}

}  // namespace

std::string imageChecksumReport(const std::string& imagePath, const PassphrasePrompt& askPassphrase) {
    UniqueDescriptor fd = openForReading(imagePath);
    auto fileSize = static_cast<std::uint64_t>(statusOf(fd.get(), imagePath).st_size);
    std::string trailerBytes;
    if (isEncryptedContainer(fd.get())) {
        // Images this tool made carry the checksum in the clear; others need the key.
        if (auto clear = clearChecksumOf(fd.get(), readEncryptedHeader(fd.get(), imagePath), imagePath))
            return describe(ChecksumRecord::crc32(*clear));
        trailerBytes = trailerOfEncrypted(fd.get(), imagePath, askPassphrase);
    } else if (endsWithTrailer(fd.get(), fileSize)) {
        trailerBytes = readAt(fd.get(), fileSize - format::trailer::kSize, format::trailer::kSize, imagePath);
    } else {
        throw DiskImageError("\"" + imagePath + "\" is not a disk image of a kind this tool reads");
    }
    Trailer trailer;
    try {
        trailer = parseTrailer(trailerBytes);
    } catch (const DiskImageError& error) {
        throw DiskImageError("\"" + imagePath + "\" is not a readable disk image: " + error.what());
    }
    bool hasMaster = trailer.masterChecksum.type != format::checksum::kTypeNone;
    return describe(hasMaster ? trailer.masterChecksum : trailer.dataForkChecksum);
}

}  // namespace whittle::diskimage
