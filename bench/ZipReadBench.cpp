// Measures reading a bundle straight from a zip archive: what opening it and reading
// its manifests costs in bytes read (which should stay a tiny part of the archive,
// whatever its size), and how fast every file entry inflates and checks through the
// streaming read.
//   zip_read_bench [WORK_FOLDER] [MIB_PER_FILE...]   (default 1 8)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BundleGenerator.hpp"
#include "RunFigures.hpp"
#include "engine/ZipBundleFiles.hpp"
#include "support/FileByteSource.hpp"

using namespace whittle;
using Clock = std::chrono::steady_clock;

namespace {

// Payloads of made-up text that deflate about three to one, in place of the generator's
// sparse zeros, so that inflating does real work.
void fillWithText(const std::string& root) {
    std::uint32_t state = 7;
    for (const auto& item : std::filesystem::recursive_directory_iterator(root)) {
        if (item.is_symlink() || !item.is_regular_file() || item.file_size() < (1 << 20)) continue;
        std::string text(item.file_size(), '\0');
        for (char& byte : text) {
            state = state * 1103515245 + 12345;
            byte = static_cast<char>('a' + (state >> 16) % 16);
        }
        std::ofstream(item.path(), std::ios::binary | std::ios::trunc) << text;
    }
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void measure(const std::string& folder, std::uint64_t mibPerFile) {
    std::filesystem::remove_all(folder);
    bundlegen::BundlePlan plan;
    bundlegen::ProductPlan product;
    product.product = "x10";
    product.factoryVariants = {"repair", "internal-debug"};
    plan.products.push_back(product);
    plan.bytesPerFile = mibPerFile << 20;
    plan.sparseFiles = true;
    bundlegen::generateBundle(folder + "/bundle", plan);
    fillWithText(folder + "/bundle");
    std::string archivePath = folder + "/bundle.zip";
    bench::RunFigures zipped = bench::runQuietly({"/bin/sh", "-c", "cd '" + folder + "' && zip -q -1 -r -y bundle.zip bundle"});
    if (zipped.status != 0) {
        std::printf("zip failed\n");
        std::exit(1);
    }

    std::string error;
    std::shared_ptr<FileByteSource> source = FileByteSource::open(archivePath, error);
    auto start = Clock::now();
    std::shared_ptr<const ZipArchive> archive = ZipArchive::open(source, error);
    if (!archive) {
        std::printf("%s\n", error.c_str());
        std::exit(1);
    }
    ZipBundleFiles files(archive);
    std::vector<std::string> listed;
    files.listDeep("", listed);
    auto manifest = files.readFile("Restore/BuildManifest.plist");
    auto restore = files.readFile("Restore/Restore.plist");
    double openSeconds = secondsSince(start);
    std::uint64_t openBytes = source->bytesFetched();

    start = Clock::now();
    std::uint64_t inflated = 0;
    int failures = 0;
    for (const auto& entry : archive->entries()) {
        if (entry.isFolder || entry.isSymlink) continue;
        bool read = archive->streamEntry(entry, [&](std::string_view piece) {
            inflated += piece.size();
            return true;
        }, error);
        failures += read ? 0 : 1;
    }
    double readSeconds = secondsSince(start);
    std::printf("%4llu MiB/file: archive %8.1f MiB, %zu entries, %zu paths; open+list+2 manifests %.4f s reading %llu bytes"
                " (%.4f%% of the archive)%s\n",
                static_cast<unsigned long long>(mibPerFile), source->size() / 1048576.0, archive->entries().size(),
                listed.size(), openSeconds, static_cast<unsigned long long>(openBytes),
                100.0 * static_cast<double>(openBytes) / static_cast<double>(source->size()),
                manifest && restore ? "" : " MANIFESTS MISSING");
    std::printf("               inflate+check of every file: %.1f MiB in %.2f s (%.0f MiB/s), %d failures\n",
                inflated / 1048576.0, readSeconds, inflated / 1048576.0 / readSeconds, failures);
    std::filesystem::remove_all(folder);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string folder = args.empty() ? "/tmp/whittle-zip-bench" : args[0];
    std::vector<std::uint64_t> sizes;
    for (std::size_t index = 1; index < args.size(); ++index) sizes.push_back(std::strtoull(args[index].c_str(), nullptr, 10));
    if (sizes.empty()) sizes = {1, 8};
    for (std::uint64_t mib : sizes) measure(folder, mib);
    return 0;
}
