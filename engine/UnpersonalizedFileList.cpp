// What an unpersonalized install uses, found by file and folder names alone: the
// kernel cache, the firmware and boot-loader folders and the baseband files.
#include "engine/FileListRules.hpp"
#include "engine/Stripper3.hpp"

namespace whittle {

int Stripper3::updateFilelistForUnpersonalizedInstall(const Value& item) {
    KeepList keep;
    Stripper3BundleView bundle(*this, keep);
    Value deviceClasses = item.get("workDeviceClasses");
    std::vector<std::string> kernelCaches;
    bool kept = keepUnpersonalizedKernelCaches(item, bundle, kernelCaches);
    kernelCachesSet_.insert(kernelCaches.begin(), kernelCaches.end());
    kept = kept &&
           keepUnpersonalizedFolders(item, deviceClasses, "Restore/Firmware/all_flash", "workFirmwareTypesList", "all_flash",
                                     bundle) &&
           keepUnpersonalizedFolders(item, deviceClasses, "Restore/Firmware/dfu", "workDFUTypesList", "dfu", bundle) &&
           keepUnpersonalizedBaseband(item.get("workProduct").text(), bundle);
    if (!kept) return 1;
    keepAll(keep);
    return 0;
}

}  // namespace whittle
