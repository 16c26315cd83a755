// Measures validation runs of both engines on a bundle whose target_map.txt holds many
// distinct lines, a quarter of them naming the requested product: the time should
// grow in step with the number of lines.
//   map_bench [--whittle PATH] [WORK_FOLDER] [LINES...]   (default 10000 20000 40000 160000)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BundleGenerator.hpp"
#include "RunFigures.hpp"

using namespace whittle;
using bench::RunFigures;
using bench::runQuietly;
using Clock = std::chrono::steady_clock;

namespace {

void appendTargetMapLines(const std::string& folder, int lines) {
    std::ofstream map(folder + "/Restore/Firmware/target_map.txt", std::ios::app);
    for (int i = 0; i < lines; ++i) {
        const char* product = i % 4 == 0 ? "x10" : "x30";
        map << product << "\ttarget-" << i << "\t" << product << "ap-board-" << i * 7 << "\n";
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string whittle = WHITTLE_BINARY;
    if (args.size() >= 2 && args[0] == "--whittle") {
        whittle = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    std::string folder = args.empty() ? "/tmp/whittle-map-bench" : args[0];
    std::vector<int> sizes;
    for (std::size_t i = 1; i < args.size(); ++i) sizes.push_back(std::atoi(args[i].c_str()));
    if (sizes.empty()) sizes = {10000, 20000, 40000, 160000};

    bundlegen::BundlePlan plan;
    for (const char* product : {"x10", "x30"}) {
        bundlegen::ProductPlan productPlan;
        productPlan.product = product;
        productPlan.factoryVariants = {"repair", "ss"};
        plan.products.push_back(productPlan);
    }
    std::printf("%s validation (--product x10 --factory repair) with a large target_map.txt\n", whittle.c_str());
    for (int lines : sizes) {
        std::filesystem::remove_all(folder);
        bundlegen::generateBundle(folder, plan);
        appendTargetMapLines(folder, lines);
        std::vector<std::string> request{whittle, folder, "--product", "x10", "--factory", "repair"};
        RunFigures standard = runQuietly(request);
        request.insert(request.begin() + 1, "--legacy");
        RunFigures legacy = runQuietly(request);
        std::printf("%7d lines | default engine %8.2f s, %6.1f MB peak, status %d | legacy engine %8.2f s, %6.1f MB "
                    "peak, status %d\n",
                    lines, standard.seconds, standard.peakKilobytes / 1024.0, standard.status, legacy.seconds,
                    legacy.peakKilobytes / 1024.0, legacy.status);
    }
    std::filesystem::remove_all(folder);
    return 0;
}
