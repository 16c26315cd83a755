// Writes a read-only image of a planned HFS+ volume in one pass, in sector order: a
// GUID-partitioned disk whose one partition is the volume, then the resource list and
// the trailer. Checksums are taken as the bytes go out; nothing is read back.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/HfsVolume.hpp"
#include "platform/helper/ProgressReporter.hpp"

namespace whittle::diskimage {

// Where the image's bytes go, in order.
class ImageOutput {
public:
    virtual ~ImageOutput() = default;
    virtual void write(std::string_view bytes) = 0;
    // Appends length bytes of a file from offset; answers their CRC-32. Throws
    // DiskImageError if the file ends sooner.
    virtual std::uint32_t copyFrom(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) = 0;
    std::uint64_t position() const { return position_; }
    // Where the bytes copyFrom() copies are reported as they go out; none: nowhere.
    void reportCopiesTo(helper::ProgressReporter* progress) { progress_ = progress; }

protected:
    // copyFrom by reading the file in pieces and writing each.
    std::uint32_t copyThroughBuffer(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path);
    void copied(std::uint64_t bytes) {
        if (progress_) progress_->advance(0, bytes);
    }

    std::uint64_t position_ = 0;
    helper::ProgressReporter* progress_ = nullptr;
};

// An image file of its own: file data goes from file to file in the kernel
// (copy_file_range) while another thread takes its checksum from the page cache.
class FileImageOutput : public ImageOutput {
public:
    FileImageOutput(int fd, std::string pathForMessages) : fd_(fd), path_(std::move(pathForMessages)) {}
    void write(std::string_view bytes) override;
    std::uint32_t copyFrom(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) override;

private:
    int fd_;
    std::string path_;
};

// The inner image of an encrypted container.
class EncryptedImageOutput : public ImageOutput {
public:
    explicit EncryptedImageOutput(EncryptingSink& sink) : sink_(sink) {}
    void write(std::string_view bytes) override;
    std::uint32_t copyFrom(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) override;

private:
    EncryptingSink& sink_;
};

// Writes the whole image; answers its master checksum. Reports the files written and
// their bytes (a hole counts as written) as the step "writing image".
std::uint32_t writeImage(const HfsVolumePlan& volume, ImageOutput& output, helper::ProgressReporter& progress);

}  // namespace whittle::diskimage
