// The rules by which the files of a product and factory variant are found in a bundle,
// shared by both engines: the manifest items of a build identity with their baseband
// firmware and compatibility links, and the files of an unpersonalized install, found
// by their names. Each engine looks at the bundle through its own BundleView.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

class BundleView {
public:
    virtual ~BundleView() = default;
    // The bundle-relative paths directly inside a folder, the folder itself not included.
    virtual std::vector<std::string> directEntries(const std::string& folder) = 0;
    // The bundle-relative paths below a folder at any depth, the folder itself not included.
    virtual std::vector<std::string> everythingBelow(const std::string& folder) = 0;
    // Keeps a bundle-relative path together with its parent folders.
    virtual void keep(const std::string& path) = 0;
};

// The manifest paths of the system images, kernel caches and RAM disks that kept
// identities use.
struct ManifestImageSets {
    std::set<std::string>& restoreImages;
    std::set<std::string>& kernelCaches;
    std::set<std::string>& ramDisks;
};

// ---- build identities ----

// The name under which a restore expects a manifest item ("OS", "RestoreRamDisk",
// "RestoreKernelCache", "KernelCache"), or "" when it expects none. The item gives
// "workProduct" and "workProcessorID".
std::string expectedImageName(const std::string& key, const Value& item, const Value& variantContents);

// Keeps the product's baseband firmware from "Restore/Firmware" for one identity;
// 1 when the product needs some and the bundle has none.
int keepManifestBaseband(std::string_view product, const Value& identity, BundleView& bundle);

// Keeps the files one identity names, and records in `links` ("Restore/" + expected
// name -> data) the compatibility links for items stored under another name. The item
// gives "workProduct", "workProcessorID" and "workVariant". `imageSets` may be null.
void keepManifestItems(const Value& item, const Value& identity, BundleView& bundle, Value& links,
                       ManifestImageSets* imageSets);

// ---- unpersonalized installs ----

// The kernel caches in "Restore" for the item's "workProduct" and "workProcessorID" of the
// kinds in "workKernelCachesList"; their names go to `found`. False (after the error
// message) when there is none.
bool keepUnpersonalizedKernelCaches(const Value& item, BundleView& bundle, std::vector<std::string>& found);

// The folders inside `folder` made for one of the device classes and of one of the
// kinds the item lists under `kindsKey`, with everything inside them. False (after the
// error message) when there is none.
bool keepUnpersonalizedFolders(const Value& item, const Value& deviceClasses, const char* folder, const char* kindsKey,
                               const char* kindName, BundleView& bundle);

// The product's baseband firmware files by their prefixes; false (after the error
// message) when the product has prefixes and no file carries one.
bool keepUnpersonalizedBaseband(std::string_view product, BundleView& bundle);

}  // namespace whittle
