// A ByteSource over a regular file on this machine, read with positioned reads (so
// several threads may read it at once).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "support/ByteSource.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle {

class FileByteSource : public ByteSource {
public:
    // The open file, or none with the reason in `error` (missing, unreadable, not a
    // regular file).
    static std::unique_ptr<FileByteSource> open(const std::string& path, std::string& error);

    const std::string& name() const override { return path_; }
    std::uint64_t size() const override { return size_; }
    bool read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) override;
    std::uint64_t bytesFetched() const override { return bytesRead_.load(); }

private:
    FileByteSource(std::string path, UniqueDescriptor fd, std::uint64_t size);

    std::string path_;
    UniqueDescriptor fd_;
    std::uint64_t size_;
    std::atomic<std::uint64_t> bytesRead_{0};
};

}  // namespace whittle
