// Whole disk images: the trailer, the XML resource list and its chunk tables, and for
// images of raw chunks their checksums and expansion.
#include <cstddef>
#include <cstdint>

#include "MemoryFile.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/Udif.hpp"

namespace dmg = whittle::diskimage;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    whittle::fuzz::MemoryFile image(data, size);
    try {
        dmg::UdifImage udif = dmg::readUdifImage(image.fd(), "fuzz.dmg");
        (void)dmg::masterChecksumOf(udif.entries);
        if (!dmg::hasOnlyRawChunks(udif)) return 0;
        dmg::verifyRawImage(image.fd(), udif, "fuzz.dmg");
        // Only small disks are expanded; the reader accepts sparse ones of any size.
        if (udif.trailer.sectorCount > 4096) return 0;
        whittle::fuzz::MemoryFile disk(nullptr, 0);
        dmg::expandRawImage(image.fd(), udif, disk.fd(), "fuzz.dmg");
    } catch (const dmg::DiskImageError&) {
    }
    return 0;
}
