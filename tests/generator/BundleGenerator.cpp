#include "BundleGenerator.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <fstream>
#include <set>
#include <stdexcept>

#include "engine/Catalogue.hpp"
#include "support/PlistCodec.hpp"

namespace whittle::bundlegen {

namespace fs = std::filesystem;

namespace {

const Catalogue& catalogue() { return Catalogue::builtIn(); }

std::string slug(const std::string& text) {
    std::string out;
    for (char c : text) {
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) out += c;
        else if (c >= 'A' && c <= 'Z') out += static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string upper(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

std::vector<std::string> listOf(const Value& value) {
    std::vector<std::string> out;
    if (const auto* array = value.asArray()) {
        for (const auto& element : *array) out.emplace_back(element.text());
    } else if (value.isString()) {
        out.emplace_back(value.text());
    }
    return out;
}

Value dict(std::initializer_list<std::pair<const char*, Value>> entries) {
    Value d = Value::dictionary();
    for (const auto& [key, value] : entries) d.set(key, value);
    return d;
}

Value item(const std::string& path) { return dict({{"Info", dict({{"Path", Value::string(path)}})}}); }

class Writer {
public:
    Writer(std::string root, const BundlePlan& plan) : root_(std::move(root)), plan_(plan) {}

    void file(const std::string& relative, const std::string& content = {}) {
        if (!written_.insert(relative).second) return;
        fs::path path = fs::path(root_) / relative;
        fs::create_directories(path.parent_path());
        if (!content.empty()) {
            std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
        } else {
            payload(path.string(), relative);
        }
        bundle.files.push_back(relative);
    }

    void link(const std::string& relative, const std::string& target) {
        if (!written_.insert(relative).second) return;
        fs::path path = fs::path(root_) / relative;
        fs::create_directories(path.parent_path());
        fs::remove(path);
        fs::create_symlink(target, path);
        bundle.files.push_back(relative);
    }

    void plist(const std::string& relative, const Value& value, bool binary = false) {
        file(relative, binary ? binaryPropertyList(value) : xmlPropertyList(value));
    }

    GeneratedBundle bundle;

private:
    void payload(const std::string& path, const std::string& relative) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) throw std::runtime_error("cannot create " + path);
        std::uint64_t size = plan_.bytesPerFile;
        if (plan_.sparseFiles) {
            if (::ftruncate(fd, static_cast<off_t>(size)) != 0) throw std::runtime_error("cannot size " + path);
        } else {
            std::string block;
            while (block.size() < (1u << 16)) block += relative + "\n";
            for (std::uint64_t left = size; left > 0;) {
                auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(left, block.size()));
                if (::write(fd, block.data(), chunk) != static_cast<ssize_t>(chunk)) throw std::runtime_error("write");
                left -= chunk;
            }
        }
        ::close(fd);
    }

    std::string root_;
    const BundlePlan& plan_;
    std::set<std::string> written_;
};

struct IdentityFacts {
    std::string product, deviceClass, personalization, osType, firmwareFolder, tag;
};

class Generator {
public:
    Generator(const std::string& root, const BundlePlan& plan) : plan_(plan), writer_(root, plan) {}

    GeneratedBundle run() {
        for (const auto& product : plan_.products) addProduct(product);
        if (plan_.support.unpersonalizedLayout) writeUnpersonalizedLayout();
        writeManifests();
        if (plan_.support.firmwareMaps) writeFirmwareMaps();
        writeSupportMaterial();
        writer_.bundle.identities = static_cast<int>(identities_.count());
        return writer_.bundle;
    }

private:
    void addProduct(const ProductPlan& product) {
        std::vector<std::string> classes;
        if (product.production) classes.push_back(product.product + "ap");
        if (product.development) classes.push_back(product.product + "dev");
        for (const auto& model : listOf(catalogue().productValue(product.product + ".model"))) models_.insert(model);
        for (const auto& deviceClass : classes) {
            deviceClasses_.push_back({product.product, deviceClass});
            std::set<std::string> done;
            for (const auto& variant : product.factoryVariants) {
                std::string personalization = personalizationOf(variant);
                if (!done.insert(personalization).second) continue;
                for (int i = 0; i < product.identitiesPerVariant; ++i) addIdentity(product, deviceClass, variant, i);
            }
        }
    }

    void addIdentity(const ProductPlan& plan, const std::string& deviceClass, const std::string& variant, int index) {
        const std::string& product = plan.product;
        IdentityFacts facts{product, deviceClass, personalizationOf(variant), osImageTypeOf(variant), {}, {}};
        auto firmwareTypes = listOf(catalogue().factoryVariantValue(variant + ".FirmwareTypes"));
        facts.firmwareFolder = "Firmware/all_flash/all_flash." + deviceClass + "." +
                               (firmwareTypes.empty() ? std::string("production") : firmwareTypes.front());
        facts.tag = deviceClass + "-" + slug(facts.personalization) + "-" + std::to_string(index);
        firmwareFolders_.insert(facts.firmwareFolder);
        for (const auto& dfuType : listOf(catalogue().factoryVariantValue(variant + ".DFUTypes"))) {
            bootLoaders_.insert("Firmware/dfu/iBEC." + deviceClass + "." + dfuType + ".dfu");
        }

        std::string processor(catalogue().productValue(product + ".processor").text());
        std::string osImage = systemImageName(deviceClass, facts.personalization, index);
        std::string ramDisk = facts.tag + "-restore.dmg";
        std::string kernelCache = "kernelcache.release." + product;
        std::string restoreKernelCache = "kernelcache.restore." + product;

        Value manifest = Value::dictionary();
        manifest.set("OS", item(osImage));
        manifest.set("RestoreRamDisk", item(ramDisk));
        manifest.set("KernelCache", item(kernelCache));
        manifest.set("RestoreKernelCache", item(restoreKernelCache));
        manifest.set("iBoot", item(facts.firmwareFolder + "/iBoot." + deviceClass + ".RELEASE.img3"));
        manifest.set("LLB", item(facts.firmwareFolder + "/LLB." + deviceClass + ".RELEASE.img3"));
        manifest.set("iBSS", item("Firmware/dfu/iBSS." + deviceClass + ".RELEASE.dfu"));
        auto prefixes = listOf(catalogue().productValue(product + ".BasebandFirmwarePrefix"));
        if (!prefixes.empty() && plan.basebandFiles) manifest.set("BasebandFirmware", item("Firmware/" + prefixes.front() + "-" + product + ".bbfw"));
        for (int k = 0; k < plan_.extraFilesPerIdentity; ++k) {
            manifest.set("Extra" + std::to_string(k), item("Firmware/extra/" + facts.tag + "-" + std::to_string(k) + ".bin"));
        }
        manifest.set("Digest", dict({{"Digest", Value::data("\x01\x02")}}));

        Value contents = dict({{"SystemImage", Value::string(facts.osType.empty() ? "User" : facts.osType)},
                               {"RestoreRamDisk", Value::string("Release")},
                               {"RestoreKernelCache", Value::string("Restore")},
                               {"InstalledKernelCache", Value::string("Release")}});
        Value info = dict({{"DeviceClass", Value::string(deviceClass)},
                           {"Variant", Value::string(facts.personalization)},
                           {"VariantContents", contents},
                           {"BuildNumber", Value::string("1A100")}});
        identities_.append(dict({{"Info", info}, {"Manifest", manifest}, {"ApBoardID", Value::string("0x0A")}}));

        for (const auto& [key, entry] : *manifest.asDictionary()) {
            Value path = valueForKeyPath(entry, "Info.Path");
            if (path.isString()) writer_.file("Restore/" + std::string(path.text()));
        }
        kernelCachesByPlatform_[processor]["Release"] = kernelCache;
        kernelCachesByTarget_[deviceClass]["Restore"] = restoreKernelCache;
        ramDisksByPlatform_[processor][facts.tag] = ramDisk;
        imagesByTarget_[product][facts.tag] = osImage;
        osImages_.insert(osImage);
        products_.insert(product);
    }

    void writeManifests() {
        std::vector<std::string> models(models_.begin(), models_.end());
        writer_.plist("Restore/BuildManifest.plist",
                      dict({{"BuildIdentities", identities_},
                            {"SupportedProductTypes", Value::stringArray(models)},
                            {"ProductVersion", Value::string("1.0")},
                            {"ProductBuildVersion", Value::string("1A100")}}),
                      plan_.binaryManifest);
        Value padding = Value::dictionary();
        for (const auto& product : products_) padding.set(product, Value::integer(1280));
        Value minimum = Value::dictionary();
        for (const auto& image : osImages_) minimum.set(image, Value::integer(2000));
        writer_.plist("Restore/Restore.plist",
                      dict({{"KernelCachesByPlatform", twoLevels(kernelCachesByPlatform_)},
                            {"KernelCachesByTarget", twoLevels(kernelCachesByTarget_)},
                            {"RamDisksByPlatform", twoLevels(ramDisksByPlatform_)},
                            {"SystemRestoreImagesByTarget", twoLevels(imagesByTarget_)},
                            {"SupportedProductTypes", Value::stringArray(models)},
                            {"SystemPartitionPadding", padding},
                            {"MinimumSystemPartition", minimum},
                            {"ProductVersion", Value::string("1.0")}}));
    }

    void writeFirmwareMaps() {
        std::string deviceMap = "# device class, chip, board, revision, firmware\n";
        std::string targetMap;
        Value deviceMapPlist = Value::dictionary();
        std::set<std::string> processors;
        for (const auto& [product, deviceClass] : deviceClasses_) {
            deviceMap += deviceClass + " 0x8900 0x0A 1 iBoot." + deviceClass + ".RELEASE.img3\n";
            deviceMapPlist.set(deviceClass, dict({{"BoardID", Value::integer(10)}, {"ChipID", Value::integer(0x8900)}}));
            processors.insert(std::string(catalogue().productValue(product + ".processor").text()));
        }
        for (const auto& product : products_) targetMap += product + "\t" + product + "ap\n";
        Value platformKeys = Value::array();
        for (const auto& processor : processors) {
            platformKeys.append(dict({{"PlatformName", Value::string(processor)}, {"Key", Value::string("k-" + processor)}}));
        }
        writer_.file("Restore/Firmware/device_map.txt", deviceMap);
        writer_.file("Restore/Firmware/target_map.txt", targetMap.empty() ? "\n" : targetMap);
        writer_.plist("Restore/Firmware/device_map.plist", deviceMapPlist);
        writer_.plist("Restore/Firmware/platform_keys.plist",
                      dict({{"PlatformKeys", platformKeys}, {"Version", Value::integer(1)}}));
    }

    void writeUnpersonalizedLayout() {
        std::set<std::string> processors;
        for (const auto& bootLoader : bootLoaders_) writer_.file("Restore/" + bootLoader);
        for (const auto& [product, deviceClass] : deviceClasses_) {
            processors.insert(std::string(catalogue().productValue(product + ".processor").text()));
            writer_.file("Restore/Firmware/all_flash/all_flash." + deviceClass + ".debug/iBoot.debug.img3");
        }
        for (const auto& processor : processors) {
            for (const char* kind : {"release", "development"}) {
                std::string name = std::string("kernelcache.") + kind + "." + processor;
                writer_.file("Restore/" + name);
                kernelCachesByPlatform_[processor][std::string("Unpersonalized-") + kind] = name;
            }
        }
        for (const auto& folder : firmwareFolders_) writer_.file("Restore/" + folder + "/manifest", "manifest\n");
    }

    void writeSupportMaterial() {
        const SupportPlan& support = plan_.support;
        if (support.debugFolder) {
            writer_.file("Debug/symbols.txt");
            writer_.file("Debug/sub/trace.txt");
        }
        if (support.homeDiagnostics) {
            writer_.file("HomeDiagnostic-1.0.dmg");
            writer_.link("HomeDiagnostic.dmg", "HomeDiagnostic-1.0.dmg");
        }
        if (support.sdk) {
            writer_.file("SDK-NonUI-1.0.dmg");
            writer_.link("HandsetSDKInternalNonUI.dmg", "SDK-NonUI-1.0.dmg");
        }
        if (support.bundleImages) {
            writer_.file("BundleImages/front.png");
            writer_.file("BundleImages/back.png");
        }
        if (support.factoryDiskImage) {
            writer_.file("FactoryDiskImage.dmg");
            writer_.file("FactoryDiskImage.dmg.signature");
        }
        if (support.firmwareArchives) {
            for (const auto& product : products_) writer_.file("Mediadesk FWPKs/" + product + "_1.0.FWPK/payload.bin");
            writer_.file("Mediadesk FWPKs/FullInternal_1.0.fwpk/payload.bin");
        }
        switch (support.restoreTools) {
            case SupportPlan::RestoreTools::Link:
                writer_.file("RestoreTools-1.0.dmg");
                writer_.link("RestoreTools.dmg", "RestoreTools-1.0.dmg");
                break;
            case SupportPlan::RestoreTools::PlainFile: writer_.file("RestoreTools.dmg"); break;
            case SupportPlan::RestoreTools::SingleOtherImage: writer_.file("Tools-123.dmg"); break;
            case SupportPlan::RestoreTools::None: break;
        }
        if (support.invisibles) {
            writer_.file(".DS_Store", "invisible\n");
            writer_.file("Restore/Firmware/.DS_Store", "invisible\n");
            if (support.debugFolder) writer_.file("Debug/.DS_Store", "invisible\n");
        }
    }

    using TwoLevels = std::map<std::string, std::map<std::string, std::string>>;
    static Value twoLevels(const TwoLevels& table) {
        Value outer = Value::dictionary();
        for (const auto& [key, inner] : table) {
            Value innerValue = Value::dictionary();
            for (const auto& [innerKey, value] : inner) innerValue.set(innerKey, Value::string(value));
            outer.set(key, innerValue);
        }
        return outer;
    }

    const BundlePlan& plan_;
    Writer writer_;
    Value identities_ = Value::array();
    std::vector<std::pair<std::string, std::string>> deviceClasses_;
    std::set<std::string> models_, products_, osImages_, firmwareFolders_, bootLoaders_;
    TwoLevels kernelCachesByPlatform_, kernelCachesByTarget_, ramDisksByPlatform_, imagesByTarget_;
};

}  // namespace

std::string personalizationOf(const std::string& factoryVariant) {
    return std::string(catalogue().factoryVariantValue(factoryVariant + ".PersonalizationVariants").text());
}

std::string osImageTypeOf(const std::string& factoryVariant) {
    return std::string(catalogue().factoryVariantValue(factoryVariant + ".PersonalizationOSImageTypes").text());
}

std::string systemImageName(const std::string& deviceClass, const std::string& variant, int index) {
    return upper(deviceClass) + "-" + slug(variant) + "-" + std::to_string(index) + "-os.dmg";
}

GeneratedBundle generateBundle(const std::string& root, const BundlePlan& plan) {
    fs::create_directories(root);
    Generator generator(root, plan);
    GeneratedBundle bundle = generator.run();
    bundle.root = root;
    return bundle;
}

}  // namespace whittle::bundlegen
