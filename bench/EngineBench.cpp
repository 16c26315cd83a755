// Measures a validation run and a dry run of whittle on large generated bundles, next
// to a bare parse of the same build manifest by the property-list library: a process
// of its own that reads and parses the file, as whittle must, and the same parse
// repeated inside one warm process.
//   engine_bench [WORK_FOLDER]
//   engine_bench --bare-parse FILE      (the bare parse process)
#include <plist/plist.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "BundleGenerator.hpp"
#include "RunFigures.hpp"
#include "engine/Catalogue.hpp"
#include "support/FileSystem.hpp"

using namespace whittle;
using bench::RunFigures;
using bench::runQuietly;
using Clock = std::chrono::steady_clock;

namespace {

int bareParse(const std::string& path) {
    auto bytes = readWholeFile(path);
    if (!bytes) return 1;
    plist_t root = nullptr;
    plist_from_memory(bytes->data(), static_cast<uint32_t>(bytes->size()), &root);
    if (!root) return 1;
    plist_free(root);
    return 0;
}

double warmParseSeconds(const std::string& path) {
    auto bytes = readWholeFile(path);
    double best = 1e9;
    for (int round = 0; round < 3; ++round) {
        auto start = Clock::now();
        plist_t root = nullptr;
        plist_from_memory(bytes->data(), static_cast<uint32_t>(bytes->size()), &root);
        best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
        plist_free(root);
    }
    return best;
}

RunFigures bestOf(int rounds, const std::vector<std::string>& argv) {
    RunFigures best;
    best.seconds = 1e9;
    for (int round = 0; round < rounds; ++round) {
        RunFigures figures = runQuietly(argv);
        if (figures.seconds < best.seconds) best = figures;
    }
    return best;
}

std::string selfPath;

void measure(const std::string& whittle, const std::string& folder, int productCount, bool binary) {
    auto products = Catalogue::builtIn().knownProducts();
    bundlegen::BundlePlan plan;
    for (int i = 0; i < productCount; ++i) {
        bundlegen::ProductPlan product;
        product.product = products[static_cast<std::size_t>(i)];
        product.development = true;
        product.factoryVariants = {"repair", "ss", "dfu", "swdl", "internal-debug"};
        product.identitiesPerVariant = 2;
        plan.products.push_back(product);
    }
    plan.binaryManifest = binary;
    plan.extraFilesPerIdentity = 45;
    plan.bytesPerFile = 64;
    std::filesystem::remove_all(folder);
    auto bundle = bundlegen::generateBundle(folder, plan);
    std::string manifest = folder + "/Restore/BuildManifest.plist";
    auto manifestBytes = std::filesystem::file_size(manifest);

    std::vector<std::string> request{whittle, folder, "--keepDevFirmware"};
    for (int i = 0; i < productCount; i += 2) {
        request.push_back("--product");
        request.push_back(products[static_cast<std::size_t>(i)]);
    }
    for (const char* variant : {"repair", "ss", "dfu"}) {
        request.push_back("--factory");
        request.push_back(variant);
    }
    double warm = warmParseSeconds(manifest);
    RunFigures parse = bestOf(5, {selfPath, "--bare-parse", manifest});
    RunFigures validation = bestOf(5, request);
    request.push_back("--dryrun");
    RunFigures dryRun = bestOf(5, request);

    std::printf("%-6s %4d identities %6zu files manifest %5.2f MB | bare parse process %6.1f ms (warm %5.1f ms) | "
                "validation %6.1f ms = %4.2fx, %5.1f MB peak, status %d | dry run %6.1f ms = %4.2fx, %5.1f MB peak\n",
                binary ? "binary" : "xml", bundle.identities, bundle.files.size(), manifestBytes / 1e6,
                parse.seconds * 1e3, warm * 1e3, validation.seconds * 1e3, validation.seconds / parse.seconds,
                validation.peakKilobytes / 1024.0, validation.status, dryRun.seconds * 1e3,
                dryRun.seconds / parse.seconds, dryRun.peakKilobytes / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--bare-parse") return bareParse(argv[2]);
    selfPath = std::filesystem::canonical("/proc/self/exe").string();
    std::string folder = argc > 1 ? argv[1] : "/tmp/whittle-engine-bench";
    std::string whittle = WHITTLE_BINARY;
    std::printf("whittle validation and dry run against a bare parse of the build manifest\n");
    for (bool binary : {false, true}) {
        measure(whittle, folder, 10, binary);
        measure(whittle, folder, 20, binary);
    }
    std::filesystem::remove_all(folder);
    return 0;
}
