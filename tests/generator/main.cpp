// whittle-bundlegen: writes a synthetic restore bundle.
//   whittle-bundlegen FOLDER [--product NAME:VARIANT,VARIANT...]... [--dev] [--identities N]
//                     [--binary] [--bytes N] [--sparse] [--extra N]
#include <cstdio>
#include <cstdlib>
#include <string>

#include "BundleGenerator.hpp"

using namespace whittle::bundlegen;

namespace {

constexpr const char* kUsage =
    "usage: whittle-bundlegen FOLDER [--product NAME:VARIANT,...]... [--dev] [--identities N]\n"
    "                         [--binary] [--bytes N] [--sparse] [--extra N]\n"
    "       whittle-bundlegen --help\n";

int usage() {
    std::fputs(kUsage, stderr);
    return 2;
}

int help() {
    std::fputs(kUsage, stdout);
    return 0;
}

bool asksForHelp(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--help") return true;
    }
    return false;
}

ProductPlan parseProduct(const std::string& text) {
    ProductPlan product;
    auto colon = text.find(':');
    product.product = text.substr(0, colon);
    std::string variants = colon == std::string::npos ? "repair" : text.substr(colon + 1);
    std::size_t start = 0;
    while (start <= variants.size()) {
        auto comma = variants.find(',', start);
        if (comma == std::string::npos) comma = variants.size();
        if (comma > start) product.factoryVariants.push_back(variants.substr(start, comma - start));
        start = comma + 1;
    }
    return product;
}

}  // namespace

int main(int argc, char** argv) {
    if (asksForHelp(argc, argv)) return help();
    // A folder name that looks like an option is a mistyped option, not a folder to write.
    if (argc < 2 || argv[1][0] == '-') return usage();
    BundlePlan plan;
    bool development = false;
    int identities = 1;
    for (int i = 2; i < argc; ++i) {
        std::string argument = argv[i];
        bool hasValue = i + 1 < argc;
        if (argument == "--product" && hasValue) {
            plan.products.push_back(parseProduct(argv[++i]));
        } else if (argument == "--dev") {
            development = true;
        } else if (argument == "--identities" && hasValue) {
            identities = std::atoi(argv[++i]);
        } else if (argument == "--binary") {
            plan.binaryManifest = true;
        } else if (argument == "--bytes" && hasValue) {
            plan.bytesPerFile = std::strtoull(argv[++i], nullptr, 10);
        } else if (argument == "--sparse") {
            plan.sparseFiles = true;
        } else if (argument == "--extra" && hasValue) {
            plan.extraFilesPerIdentity = std::atoi(argv[++i]);
        } else {
            return usage();
        }
    }
    if (plan.products.empty()) plan.products.push_back(parseProduct("x10:repair"));
    for (auto& product : plan.products) {
        product.development = development;
        product.identitiesPerVariant = identities;
    }
    GeneratedBundle bundle = generateBundle(argv[1], plan);
    std::printf("%s: %d identities, %zu files\n", bundle.root.c_str(), bundle.identities, bundle.files.size());
    return 0;
}
