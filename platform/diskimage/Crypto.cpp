#include "platform/diskimage/Crypto.hpp"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <climits>

#include "platform/diskimage/DiskImageError.hpp"

namespace whittle::diskimage {

namespace {

[[noreturn]] void cryptoFailure(const char* what) {
    throw DiskImageError(std::string("cryptography failure: ") + what);
}

const unsigned char* bytesOf(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }
unsigned char* bytesOf(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

int intLength(std::size_t length) {
    if (length > static_cast<std::size_t>(INT_MAX)) cryptoFailure("input too long");
    return static_cast<int>(length);
}

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

struct MacDeleter {
    void operator()(EVP_MAC* mac) const { EVP_MAC_free(mac); }
};
struct MacContextDeleter {
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};
using MacContext = std::unique_ptr<EVP_MAC_CTX, MacContextDeleter>;

CipherContext newCipherContext() {
    CipherContext context(EVP_CIPHER_CTX_new());
    if (!context) cryptoFailure("no cipher context");
    return context;
}

// Runs a whole message through a cipher; false when the final step fails (bad padding).
bool runCipher(EVP_CIPHER_CTX* context, std::string_view input, std::string& output) {
    output.assign(input.size() + 64, '\0');
    int written = 0, finalWritten = 0;
    if (EVP_CipherUpdate(context, bytesOf(output), &written, bytesOf(input), intLength(input.size())) != 1)
        return false;
    if (EVP_CipherFinal_ex(context, bytesOf(output) + written, &finalWritten) != 1) return false;
    output.resize(static_cast<std::size_t>(written + finalWritten));
    return true;
}

std::optional<std::string> tripleDes(bool encrypting, std::string_view key, std::string_view iv,
                                     std::string_view input) {
    if (key.size() != 24 || iv.size() != 8) cryptoFailure("wrong triple DES key or IV size");
    CipherContext context = newCipherContext();
    if (EVP_CipherInit_ex(context.get(), EVP_des_ede3_cbc(), nullptr, bytesOf(key), bytesOf(iv), encrypting ? 1 : 0) !=
        1)
        cryptoFailure("triple DES unavailable");
    std::string output;
    if (!runCipher(context.get(), input, output)) return std::nullopt;
    return output;
}

}  // namespace

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(bytesOf(bytes), intLength(count)) != 1) cryptoFailure("no random bytes");
    return bytes;
}

std::string pbkdf2HmacSha1(std::string_view passphrase, std::string_view salt, std::uint32_t iterations,
                           std::size_t length) {
    if (iterations > static_cast<std::uint32_t>(INT_MAX)) cryptoFailure("iteration count too large");
    std::string key(length, '\0');
    // An empty passphrase is valid; OpenSSL wants a non-null pointer for it.
    const char* text = passphrase.empty() ? "" : passphrase.data();
    if (PKCS5_PBKDF2_HMAC(text, intLength(passphrase.size()), bytesOf(salt), intLength(salt.size()),
                          static_cast<int>(iterations), EVP_sha1(), intLength(length), bytesOf(key)) != 1)
        cryptoFailure("key derivation failed");
    return key;
}

std::string hmacSha1(std::string_view key, std::string_view message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha1(), key.data(), intLength(key.size()), bytesOf(message), message.size(), digest, &length))
        cryptoFailure("HMAC failed");
    return std::string(reinterpret_cast<const char*>(digest), length);
}

std::string sha256(std::string_view message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(message.data(), message.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        cryptoFailure("SHA-256 failed");
    return std::string(reinterpret_cast<const char*>(digest), length);
}

std::string tripleDesEncrypt(std::string_view key, std::string_view iv, std::string_view plaintext) {
    auto output = tripleDes(true, key, iv, plaintext);
    if (!output) cryptoFailure("triple DES encryption failed");
    return *output;
}

std::optional<std::string> tripleDesDecrypt(std::string_view key, std::string_view iv, std::string_view ciphertext) {
    if (ciphertext.empty() || ciphertext.size() % 8 != 0) return std::nullopt;
    return tripleDes(false, key, iv, ciphertext);
}

// ---- block cipher ----

struct BlockCipher::State {
    CipherContext encryptor;
    CipherContext decryptor;
    MacContext mac;
};

namespace {

CipherContext aesContext(std::string_view key, bool encrypting) {
    const EVP_CIPHER* cipher = key.size() == 16 ? EVP_aes_128_cbc() : key.size() == 32 ? EVP_aes_256_cbc() : nullptr;
    if (!cipher) cryptoFailure("unsupported AES key size");
    CipherContext context = newCipherContext();
    if (EVP_CipherInit_ex(context.get(), cipher, nullptr, bytesOf(key), nullptr, encrypting ? 1 : 0) != 1)
        cryptoFailure("AES unavailable");
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    return context;
}

MacContext hmacContext(std::string_view key) {
    std::unique_ptr<EVP_MAC, MacDeleter> mac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
    if (!mac) cryptoFailure("HMAC unavailable");
    MacContext context(EVP_MAC_CTX_new(mac.get()));
    if (!context) cryptoFailure("no HMAC context");
    char digestName[] = "SHA1";
    OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName, 0),
                               OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(context.get(), bytesOf(key), key.size(), parameters) != 1) cryptoFailure("HMAC setup failed");
    return context;
}

}  // namespace

BlockCipher::BlockCipher(std::string_view aesKey, std::string_view hmacKey)
    : state_(new State{aesContext(aesKey, true), aesContext(aesKey, false), hmacContext(hmacKey)}) {}

BlockCipher::~BlockCipher() = default;

void BlockCipher::encrypt(std::uint32_t blockNumber, char* block, std::size_t length) {
    transform(true, blockNumber, block, length);
}

void BlockCipher::decrypt(std::uint32_t blockNumber, char* block, std::size_t length) {
    transform(false, blockNumber, block, length);
}

void BlockCipher::transform(bool encrypting, std::uint32_t blockNumber, char* block, std::size_t length) {
    if (length % 16 != 0) cryptoFailure("block not a multiple of the AES block size");
    unsigned char number[4] = {static_cast<unsigned char>(blockNumber >> 24),
                               static_cast<unsigned char>(blockNumber >> 16),
                               static_cast<unsigned char>(blockNumber >> 8), static_cast<unsigned char>(blockNumber)};
    unsigned char digest[EVP_MAX_MD_SIZE];
    std::size_t digestLength = 0;
    // Re-initialising with no key keeps the key and starts a new message.
    if (EVP_MAC_init(state_->mac.get(), nullptr, 0, nullptr) != 1 ||
        EVP_MAC_update(state_->mac.get(), number, sizeof number) != 1 ||
        EVP_MAC_final(state_->mac.get(), digest, &digestLength, sizeof digest) != 1 || digestLength < 16)
        cryptoFailure("HMAC failed");

    EVP_CIPHER_CTX* context = encrypting ? state_->encryptor.get() : state_->decryptor.get();
    auto* bytes = reinterpret_cast<unsigned char*>(block);
    int written = 0;
    if (EVP_CipherInit_ex(context, nullptr, nullptr, nullptr, digest, -1) != 1 ||
        EVP_CipherUpdate(context, bytes, &written, bytes, intLength(length)) != 1 ||
        static_cast<std::size_t>(written) != length)
        cryptoFailure("AES failed");
}

}  // namespace whittle::diskimage
