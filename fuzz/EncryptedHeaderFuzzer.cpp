// The encrypted container's header and password records; records that ask for few
// key-derivation rounds are also tried with a passphrase.
#include <cstddef>
#include <cstdint>

#include "MemoryFile.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"

namespace dmg = whittle::diskimage;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    whittle::fuzz::MemoryFile container(data, size);
    try {
        dmg::EncryptedHeader header = dmg::readEncryptedHeader(container.fd(), "fuzz.dmg");
        for (const auto& record : header.passwordRecords) {
            if (record.iterations > 2000) return 0;
        }
        auto keys = dmg::unlockContainer(header, "secret");
        if (keys) (void)dmg::decryptRange(container.fd(), header, *keys, 0, 4096, "fuzz.dmg");
    } catch (const dmg::DiskImageError&) {
    }
    return 0;
}
