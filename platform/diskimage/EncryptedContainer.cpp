#include "platform/diskimage/EncryptedContainer.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"

namespace whittle::diskimage {

namespace enc = format::encrypted;

namespace {

constexpr std::uint64_t kLargestBlockCount = 1ull << 32;  // block numbers are 32-bit

bool isPowerOfTwo(std::uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

std::uint64_t blockCountFor(std::uint64_t dataSize, std::uint32_t blockSize) {
    return dataSize / blockSize + (dataSize % blockSize != 0 ? 1 : 0);
}

[[noreturn]] void damaged(const std::string& path, const std::string& fault) {
    throw DiskImageError("\"" + path + "\" is not a readable encrypted image: " + fault);
}

PasswordRecord parsePasswordRecord(std::string_view record, const std::string& path) {
    if (readBig32(record, enc::kRecordOffsetKdf) != enc::kKdfPbkdf2 ||
        readBig32(record, enc::kRecordOffsetPrf) != enc::kPrfHmacSha1)
        damaged(path, "unsupported key derivation");
    PasswordRecord parsed;
    parsed.iterations = readBig32(record, enc::kRecordOffsetIterations);
    if (parsed.iterations == 0 || parsed.iterations > enc::kLargestIterationCount)
        damaged(path, "implausible key derivation iteration count");
    std::uint32_t saltLength = readBig32(record, enc::kRecordOffsetSaltLength);
    std::uint32_t ivLength = readBig32(record, enc::kRecordOffsetWrapIvLength);
    if (saltLength == 0 || saltLength > enc::kRecordFieldCapacity || ivLength != enc::kWrapIvLength)
        damaged(path, "implausible key record");
    if (readBig32(record, enc::kRecordOffsetWrapAlgorithm) != enc::kWrapTripleDes ||
        readBig32(record, enc::kRecordOffsetWrapKeyBits) != enc::kWrapKeyBits)
        damaged(path, "unsupported key wrapping (only triple DES is known)");
    std::uint32_t blobLength = readBig32(record, enc::kRecordOffsetBlobLength);
    if (blobLength == 0 || blobLength % 8 != 0 || blobLength > enc::kBlobCapacity ||
        enc::kRecordOffsetBlob + blobLength > record.size())
        damaged(path, "implausible wrapped key length");
    parsed.salt = std::string(record.substr(enc::kRecordOffsetSalt, saltLength));
    parsed.wrapIv = std::string(record.substr(enc::kRecordOffsetWrapIv, ivLength));
    parsed.wrappedBlob = std::string(record.substr(enc::kRecordOffsetBlob, blobLength));
    return parsed;
}

void readKeyRecords(int fd, std::uint32_t keyCount, std::uint64_t fileSize, EncryptedHeader& header,
                    const std::string& path) {
    std::string pointers = readAt(fd, enc::kFixedHeaderSize, enc::kKeyPointerSize * keyCount, path);
    for (std::uint32_t i = 0; i < keyCount; ++i) {
        std::size_t at = enc::kKeyPointerSize * i;
        std::uint32_t type = readBig32(pointers, at);
        std::uint64_t offset = readBig64(pointers, at + 4);
        std::uint64_t size = readBig64(pointers, at + 12);
        if (type != enc::kKeyTypePassword) continue;  // certificate and other records
        if (header.passwordRecords.size() == enc::kMostPasswordRecordsTried) break;
        if (size < enc::kRecordOffsetBlob || size > enc::kRecordSize * 4 || offset > fileSize ||
            size > fileSize - offset)
            damaged(path, "a key record lies outside the file");
        std::string record = readAt(fd, offset, static_cast<std::size_t>(size), path);
        header.passwordRecords.push_back(parsePasswordRecord(record, path));
    }
    if (header.passwordRecords.empty()) damaged(path, "the image cannot be opened with a passphrase");
}

}  // namespace

bool isEncryptedContainer(int fd) {
    char signature[8];
    return ::pread(fd, signature, sizeof signature, 0) == 8 && std::string_view(signature, 8) == enc::kSignature;
}

bool isOldEncryptedContainer(int fd, std::uint64_t fileSize) {
    if (fileSize < enc::kOldSignature.size()) return false;
    char signature[8];
    return ::pread(fd, signature, sizeof signature, static_cast<off_t>(fileSize - 8)) == 8 &&
           std::string_view(signature, 8) == enc::kOldSignature;
}

EncryptedHeader readEncryptedHeader(int fd, const std::string& path) {
    struct stat status = statusOf(fd, path);
    auto fileSize = static_cast<std::uint64_t>(status.st_size);
    if (fileSize < enc::kFixedHeaderSize) damaged(path, "the file is too short");
    std::string fixed = readAt(fd, 0, enc::kFixedHeaderSize, path);
    if (fixed.substr(0, 8) != enc::kSignature) damaged(path, "no signature");
    if (readBig32(fixed, enc::kOffsetVersion) != enc::kVersion) damaged(path, "unsupported version");

    EncryptedHeader header;
    header.keyBits = readBig32(fixed, enc::kOffsetKeyBits);
    header.blockSize = readBig32(fixed, enc::kOffsetBlockSize);
    header.dataSize = readBig64(fixed, enc::kOffsetDataSize);
    header.dataOffset = readBig64(fixed, enc::kOffsetDataOffset);
    std::uint32_t keyCount = readBig32(fixed, enc::kOffsetKeyCount);

    if (readBig32(fixed, enc::kOffsetCipherAlgorithm) != enc::kCipherAes ||
        (header.keyBits != 128 && header.keyBits != 256))
        damaged(path, "unsupported cipher");
    if (readBig32(fixed, enc::kOffsetHmacKeyBits) != enc::kHmacKeyBits) damaged(path, "unsupported block IV scheme");
    if (!isPowerOfTwo(header.blockSize) || header.blockSize < enc::kSmallestBlockSize ||
        header.blockSize > enc::kLargestBlockSize)
        damaged(path, "implausible block size");
    if (keyCount == 0 || keyCount > enc::kLargestKeyCount) damaged(path, "implausible number of keys");
    if (header.dataOffset < enc::kFixedHeaderSize + enc::kKeyPointerSize * keyCount || header.dataOffset > fileSize)
        damaged(path, "the encrypted data lies outside the file");
    std::uint64_t blocks = blockCountFor(header.dataSize, header.blockSize);
    if (header.dataSize == 0 || blocks > kLargestBlockCount ||
        blocks > (fileSize - header.dataOffset) / header.blockSize)
        damaged(path, "the encrypted data does not fit the file (truncated?)");

    readKeyRecords(fd, keyCount, fileSize, header, path);
    return header;
}

std::optional<ContainerKeys> unlockContainer(const EncryptedHeader& header, std::string_view passphrase) {
    std::size_t aesLength = header.keyBits / 8;
    for (const auto& record : header.passwordRecords) {
        std::string wrappingKey = pbkdf2HmacSha1(passphrase, record.salt, record.iterations, enc::kWrapKeyBits / 8);
        auto blob = tripleDesDecrypt(wrappingKey, record.wrapIv, record.wrappedBlob);
        std::size_t markerAt = aesLength + enc::kHmacKeyLength;
        if (!blob || blob->size() < markerAt + enc::kKeyBlobMarker.size() ||
            std::string_view(*blob).substr(markerAt, enc::kKeyBlobMarker.size()) != enc::kKeyBlobMarker)
            continue;
        return ContainerKeys{blob->substr(0, aesLength), blob->substr(aesLength, enc::kHmacKeyLength)};
    }
    return std::nullopt;
}

void decryptContainer(int fd, const EncryptedHeader& header, const ContainerKeys& keys, int outputFd,
                      const std::string& path) {
    BlockCipher cipher(keys.aesKey, keys.hmacKey);
    // Several blocks per read and write; each still has its own IV.
    const std::uint64_t blocksPerStep = std::max<std::uint64_t>(1, (1u << 20) / header.blockSize);
    std::uint64_t blocks = blockCountFor(header.dataSize, header.blockSize);
    for (std::uint64_t first = 0; first < blocks; first += blocksPerStep) {
        std::uint64_t count = std::min(blocksPerStep, blocks - first);
        std::string bytes = readAt(fd, header.dataOffset + first * header.blockSize,
                                   static_cast<std::size_t>(count * header.blockSize), path);
        for (std::uint64_t i = 0; i < count; ++i)
            cipher.decrypt(static_cast<std::uint32_t>(first + i), bytes.data() + i * header.blockSize,
                           header.blockSize);
        // The tail of the last block is filler, not data.
        std::uint64_t wanted = std::min<std::uint64_t>(bytes.size(), header.dataSize - first * header.blockSize);
        writeAll(outputFd, std::string_view(bytes).substr(0, static_cast<std::size_t>(wanted)), path);
    }
}

std::string decryptRange(int fd, const EncryptedHeader& header, const ContainerKeys& keys, std::uint64_t offset,
                         std::size_t length, const std::string& path) {
    if (offset > header.dataSize || length > header.dataSize - offset)
        throw DiskImageError("\"" + path + "\": read beyond the encrypted data");
    BlockCipher cipher(keys.aesKey, keys.hmacKey);
    std::uint64_t firstBlock = offset / header.blockSize;
    std::uint64_t endBlock = blockCountFor(offset + length, header.blockSize);
    std::string bytes = readAt(fd, header.dataOffset + firstBlock * header.blockSize,
                               static_cast<std::size_t>((endBlock - firstBlock) * header.blockSize), path);
    for (std::uint64_t block = firstBlock; block < endBlock; ++block)
        cipher.decrypt(static_cast<std::uint32_t>(block), bytes.data() + (block - firstBlock) * header.blockSize,
                       header.blockSize);
    return bytes.substr(static_cast<std::size_t>(offset - firstBlock * header.blockSize), length);
}

std::optional<std::uint32_t> clearChecksumOf(int fd, const EncryptedHeader& header, const std::string& path) {
    if (header.dataOffset < enc::kClearChecksumEnd) return std::nullopt;
    std::string area = readAt(fd, enc::kClearChecksumOffset, enc::kClearChecksumEnd - enc::kClearChecksumOffset, path);
    if (area.substr(0, enc::kClearChecksumMarker.size()) != enc::kClearChecksumMarker) return std::nullopt;
    std::size_t record = enc::kClearChecksumMarker.size();
    if (readBig32(area, record) != format::checksum::kTypeCrc32 ||
        readBig32(area, record + 4) != format::checksum::kBitsCrc32)
        return std::nullopt;
    return readBig32(area, record + format::checksum::kValueOffset);
}

std::string keysAsHex(const ContainerKeys& keys) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : keys.aesKey + keys.hmacKey) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0x0F];
    }
    return hex;
}

EncryptionSettings defaultEncryptionSettings() { return {enc::kWrittenIterations, enc::kWrittenBlockSize}; }

// ---- writing ----

namespace {

ContainerKeys newKeys() { return {randomBytes(enc::kWrittenKeyBits / 8), randomBytes(enc::kHmacKeyLength)}; }

std::string passwordRecord(const ContainerKeys& keys, std::string_view passphrase, std::uint32_t iterations) {
    std::string salt = randomBytes(enc::kSaltLength);
    std::string wrapIv = randomBytes(enc::kWrapIvLength);
    std::string wrappingKey = pbkdf2HmacSha1(passphrase, salt, iterations, enc::kWrapKeyBits / 8);
    std::string blob = keys.aesKey + keys.hmacKey + std::string(enc::kKeyBlobMarker) + std::string(1, '\0');
    std::string wrapped = tripleDesEncrypt(wrappingKey, wrapIv, blob);

    std::string record(enc::kRecordSize, '\0');
    writeBig32(record, enc::kRecordOffsetKdf, enc::kKdfPbkdf2);
    writeBig32(record, enc::kRecordOffsetPrf, enc::kPrfHmacSha1);
    writeBig32(record, enc::kRecordOffsetIterations, iterations);
    writeBig32(record, enc::kRecordOffsetSaltLength, static_cast<std::uint32_t>(salt.size()));
    writeText(record, enc::kRecordOffsetSalt, salt);
    writeBig32(record, enc::kRecordOffsetWrapIvLength, static_cast<std::uint32_t>(wrapIv.size()));
    writeText(record, enc::kRecordOffsetWrapIv, wrapIv);
    writeBig32(record, enc::kRecordOffsetWrapKeyBits, enc::kWrapKeyBits);
    writeBig32(record, enc::kRecordOffsetWrapAlgorithm, enc::kWrapTripleDes);
    writeBig32(record, enc::kRecordOffsetWrapPadding, enc::kWrapPaddingPkcs7);
    writeBig32(record, enc::kRecordOffsetWrapMode, enc::kWrapModeCbc);
    writeBig32(record, enc::kRecordOffsetBlobLength, static_cast<std::uint32_t>(wrapped.size()));
    writeText(record, enc::kRecordOffsetBlob, wrapped);
    return record;
}

std::string containerHeader(std::string_view record, std::uint32_t blockSize) {
    std::string header(enc::kWrittenRecordOffset + record.size(), '\0');
    writeText(header, 0, enc::kSignature);
    writeBig32(header, enc::kOffsetVersion, enc::kVersion);
    writeBig32(header, enc::kOffsetIvSize, enc::kIvSize);
    writeBig32(header, enc::kOffsetCipherMode, enc::kCipherMode);
    writeBig32(header, enc::kOffsetCipherAlgorithm, enc::kCipherAes);
    writeBig32(header, enc::kOffsetKeyBits, enc::kWrittenKeyBits);
    writeBig32(header, enc::kOffsetPrngAlgorithm, enc::kPrngAlgorithm);
    writeBig32(header, enc::kOffsetHmacKeyBits, enc::kHmacKeyBits);
    writeText(header, enc::kOffsetUuid, randomBytes(16));
    writeBig32(header, enc::kOffsetBlockSize, blockSize);
    writeBig64(header, enc::kOffsetDataOffset, enc::kWrittenDataOffset);
    writeBig32(header, enc::kOffsetKeyCount, 1);
    writeBig32(header, enc::kFixedHeaderSize, enc::kKeyTypePassword);
    writeBig64(header, enc::kFixedHeaderSize + 4, enc::kWrittenRecordOffset);
    writeBig64(header, enc::kFixedHeaderSize + 12, record.size());
    writeText(header, enc::kWrittenRecordOffset, record);
    return header;
}

}  // namespace

EncryptingSink::EncryptingSink(int fd, std::string pathForMessages, std::string_view passphrase,
                               EncryptionSettings settings)
    : fd_(fd),
      path_(std::move(pathForMessages)),
      settings_(settings),
      keys_(newKeys()),
      header_(containerHeader(passwordRecord(keys_, passphrase, settings.iterations), settings.blockSize)),
      cipher_(keys_.aesKey, keys_.hmacKey) {
    if (!isPowerOfTwo(settings_.blockSize) || settings_.blockSize < enc::kSmallestBlockSize)
        throw DiskImageError("internal error: bad encryption block size");
}

void EncryptingSink::write(std::string_view bytes) {
    pending_.append(bytes);
    dataSize_ += bytes.size();
    if (pending_.size() >= (1u << 20)) encryptFullBlocks();
}

void EncryptingSink::encryptFullBlocks() {
    std::size_t whole = pending_.size() - pending_.size() % settings_.blockSize;
    if (whole == 0) return;
    std::uint64_t offset = enc::kWrittenDataOffset + std::uint64_t{nextBlock_} * settings_.blockSize;
    for (std::size_t at = 0; at < whole; at += settings_.blockSize) {
        if (nextBlock_ == UINT32_MAX) throw DiskImageError("the image is too large to encrypt");
        cipher_.encrypt(nextBlock_++, pending_.data() + at, settings_.blockSize);
    }
    writeAllAt(fd_, std::string_view(pending_).substr(0, whole), offset, path_);
    pending_.erase(0, whole);
}

void EncryptingSink::setClearChecksum(std::uint32_t masterChecksum) {
    header_.resize(std::max(header_.size(), enc::kClearChecksumEnd), '\0');
    writeText(header_, enc::kClearChecksumOffset, enc::kClearChecksumMarker);
    std::size_t record = enc::kClearChecksumOffset + enc::kClearChecksumMarker.size();
    writeBig32(header_, record, format::checksum::kTypeCrc32);
    writeBig32(header_, record + 4, format::checksum::kBitsCrc32);
    writeBig32(header_, record + format::checksum::kValueOffset, masterChecksum);
}

void EncryptingSink::finish() {
    if (pending_.size() % settings_.blockSize != 0)
        pending_.append(settings_.blockSize - pending_.size() % settings_.blockSize, '\0');
    encryptFullBlocks();
    writeBig64(header_, enc::kOffsetDataSize, dataSize_);
    writeAllAt(fd_, header_, 0, path_);
    // The space between the key record and the data stays a hole of zeros.
    if (::ftruncate(fd_,
                    static_cast<off_t>(enc::kWrittenDataOffset + std::uint64_t{nextBlock_} * settings_.blockSize)) != 0)
        throwSystemError("cannot write \"" + path_ + "\"", errno);
}

}  // namespace whittle::diskimage
