// The cryptography of the encrypted container, over OpenSSL's libcrypto.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace whittle::diskimage {

std::string randomBytes(std::size_t count);

std::string pbkdf2HmacSha1(std::string_view passphrase, std::string_view salt, std::uint32_t iterations,
                           std::size_t length);

std::string hmacSha1(std::string_view key, std::string_view message);

std::string sha256(std::string_view message);

// Triple DES (three keys, EDE) in CBC mode with PKCS#7 padding. Decryption answers
// none when the padding is wrong, which is how a wrong passphrase shows.
std::string tripleDesEncrypt(std::string_view key, std::string_view iv, std::string_view plaintext);
std::optional<std::string> tripleDesDecrypt(std::string_view key, std::string_view iv, std::string_view ciphertext);

// AES-CBC over the container's blocks, each with its own IV: the first 16 bytes of
// HMAC-SHA1(hmacKey, block number as 4 big-endian bytes). No padding; blocks are whole
// multiples of 16 bytes.
class BlockCipher {
public:
    BlockCipher(std::string_view aesKey, std::string_view hmacKey);
    ~BlockCipher();
    BlockCipher(const BlockCipher&) = delete;
    BlockCipher& operator=(const BlockCipher&) = delete;

    void encrypt(std::uint32_t blockNumber, char* block, std::size_t length);
    void decrypt(std::uint32_t blockNumber, char* block, std::size_t length);

private:
    struct State;
    void transform(bool encrypting, std::uint32_t blockNumber, char* block, std::size_t length);
    std::unique_ptr<State> state_;
};

}  // namespace whittle::diskimage
