// The encrypted container ("encrcdsa", version 2): a header with password key records,
// then the inner file (a complete disk image) in AES-CBC blocks.
//
// Keys: the passphrase and a record's salt give, by PBKDF2-HMAC-SHA1, a triple-DES key
// that unwraps the record's blob: AES key, HMAC-SHA1 key, "CKIE", one NUL.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/diskimage/Crypto.hpp"
#include "platform/diskimage/FileIo.hpp"

namespace whittle::diskimage {

struct ContainerKeys {
    std::string aesKey;   // 16 or 32 bytes
    std::string hmacKey;  // 20 bytes
};

struct PasswordRecord {
    std::uint32_t iterations = 0;
    std::string salt;
    std::string wrapIv;
    std::string wrappedBlob;
};

struct EncryptedHeader {
    std::uint32_t keyBits = 0;
    std::uint32_t blockSize = 0;
    std::uint64_t dataSize = 0;
    std::uint64_t dataOffset = 0;
    std::vector<PasswordRecord> passwordRecords;
};

// True when the file begins with the container's signature.
bool isEncryptedContainer(int fd);
// True when the file ends with the signature of the obsolete first version.
bool isOldEncryptedContainer(int fd, std::uint64_t fileSize);

// Reads and checks the header; throws DiskImageError on damage.
EncryptedHeader readEncryptedHeader(int fd, const std::string& path);

// The keys, or none when the passphrase opens no record.
std::optional<ContainerKeys> unlockContainer(const EncryptedHeader& header, std::string_view passphrase);

// Decrypts the whole inner file to outputFd.
void decryptContainer(int fd, const EncryptedHeader& header, const ContainerKeys& keys, int outputFd,
                      const std::string& path);
// Decrypts length bytes of the inner file from offset.
std::string decryptRange(int fd, const EncryptedHeader& header, const ContainerKeys& keys, std::uint64_t offset,
                         std::size_t length, const std::string& path);

// The inner image's master checksum as recorded in the clear, if it is.
std::optional<std::uint32_t> clearChecksumOf(int fd, const EncryptedHeader& header, const std::string& path);

// The keys as vfdecrypt's -k wants them: AES key then HMAC key, in hex.
std::string keysAsHex(const ContainerKeys& keys);

struct EncryptionSettings {
    std::uint32_t iterations;
    std::uint32_t blockSize;
};
EncryptionSettings defaultEncryptionSettings();

// Encrypts everything written to it into a container in the file fd (which must be
// empty): blocks go out as they fill, the header is written by finish().
class EncryptingSink : public ByteSink {
public:
    EncryptingSink(int fd, std::string pathForMessages, std::string_view passphrase,
                   EncryptionSettings settings = defaultEncryptionSettings());
    void write(std::string_view bytes) override;
    void finish() override;
    const ContainerKeys& keys() const { return keys_; }
    // Records the inner image's master checksum in the clear part of the header
    // (before finish()).
    void setClearChecksum(std::uint32_t masterChecksum);

private:
    void encryptFullBlocks();

    int fd_;
    std::string path_;
    EncryptionSettings settings_;
    ContainerKeys keys_;
    std::string header_;
    BlockCipher cipher_;
    std::string pending_;
    std::uint64_t dataSize_ = 0;
    std::uint32_t nextBlock_ = 0;
};

}  // namespace whittle::diskimage
