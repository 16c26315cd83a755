// The zip archive reader: end records, central directory and entries, and the bundle
// seen through it. Whatever the bytes, every kept name stays below the root, every
// entry read whole has its declared size, and nothing is read beyond the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "MemoryFile.hpp"
#include "engine/ZipBundleFiles.hpp"
#include "support/FileByteSource.hpp"
#include "support/ZipArchive.hpp"

namespace {

constexpr std::uint64_t kLargestRead = 1 << 20;

void checkName(const std::string& path) {
    if (path.empty() || path.starts_with('/') || path.find('\\') != std::string::npos ||
        path.find('\0') != std::string::npos) {
        std::abort();
    }
    if (path == ".." || path.starts_with("../") || path.find("/../") != std::string::npos || path.ends_with("/..")) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    whittle::fuzz::MemoryFile file(data, size);
    std::string error;
    std::shared_ptr<whittle::FileByteSource> source =
        whittle::FileByteSource::open("/proc/self/fd/" + std::to_string(file.fd()), error);
    if (!source) std::abort();
    std::shared_ptr<const whittle::ZipArchive> archive = whittle::ZipArchive::open(source, error);
    if (!archive) {
        if (error.empty()) std::abort();
        return 0;
    }
    if (archive->entries().size() > size / 46) std::abort();
    for (const auto& entry : archive->entries()) {
        checkName(entry.path);
        if (archive->find(entry.path) == nullptr) std::abort();
        std::string content;
        if (archive->readEntry(entry, content, error, kLargestRead) && content.size() != entry.uncompressedSize) {
            std::abort();
        }
    }
    whittle::ZipBundleFiles files(archive);
    std::vector<std::string> listed;
    files.listDeep("", listed);
    for (const auto& path : listed) {
        checkName(path);
        if (!files.exists(path)) std::abort();
        (void)files.linkTarget(path);
        if (files.isFolder(path)) (void)files.entries(path);
        (void)files.modificationTime(path);
    }
    // A fuzz input holds no more than it is.
    if (source->bytesFetched() > (archive->entries().size() + 4) * (size + 65600)) std::abort();
    return 0;
}
