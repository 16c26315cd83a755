// Builds synthetic restore bundles for tests, benchmarks and the bundled example:
// manifests, the files they name, firmware maps and support material, as a plan says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/Value.hpp"

namespace whittle::bundlegen {

struct ProductPlan {
    std::string product;                       // a catalogue product, such as "x10"
    bool production = true;                    // identities for product + "ap"
    bool development = false;                  // identities for product + "dev"
    std::vector<std::string> factoryVariants;  // catalogue variants whose identities the bundle carries
    int identitiesPerVariant = 1;
    bool basebandFiles = true;                 // the product's baseband firmware, named by its identities
};

struct SupportPlan {
    bool debugFolder = true;         // "Debug" with a few files
    bool homeDiagnostics = true;     // "HomeDiagnostic.dmg" link to a real image
    bool sdk = true;                 // "HandsetSDKInternalNonUI.dmg" link to a real image
    bool bundleImages = true;        // "BundleImages" folder
    bool factoryDiskImage = true;    // "FactoryDiskImage.dmg" and its ".signature"
    bool firmwareArchives = true;    // "Mediadesk FWPKs" with one archive per product and one FullInternal
    enum class RestoreTools { Link, PlainFile, SingleOtherImage, None } restoreTools = RestoreTools::Link;
    bool invisibles = true;          // ".DS_Store" files here and there
    bool firmwareMaps = true;        // the four files of "Restore/Firmware"
    bool unpersonalizedLayout = true;  // kernel caches, all_flash and dfu folders by naming convention
};

struct BundlePlan {
    std::vector<ProductPlan> products;
    SupportPlan support;
    bool binaryManifest = false;     // BuildManifest.plist in the binary encoding
    std::uint64_t bytesPerFile = 16; // size of each generated payload file
    bool sparseFiles = false;        // payloads as sparse files (fast for large sizes)
    int extraFilesPerIdentity = 0;   // further firmware files named by each identity
};

// What the generator made, for tests to compare against.
struct GeneratedBundle {
    std::string root;
    std::vector<std::string> files;  // every regular file and link, bundle-relative
    int identities = 0;
};

// Writes the bundle into `root` (created if missing).
GeneratedBundle generateBundle(const std::string& root, const BundlePlan& plan);

// The personalization variant and OS image kind of a catalogue factory variant.
std::string personalizationOf(const std::string& factoryVariant);
std::string osImageTypeOf(const std::string& factoryVariant);

// The manifest file name of an identity's system image, RAM disk and kernel caches.
std::string systemImageName(const std::string& deviceClass, const std::string& variant, int index);

}  // namespace whittle::bundlegen
