// Unpersonalized installs: files found by naming convention.
#include "EngineTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class UnpersonalizedFileList : public EngineTest {
protected:
    Value item(const std::string& product, const std::string& processor, std::vector<std::string> kernelCaches,
               std::vector<std::string> firmwareTypes, std::vector<std::string> dfuTypes) {
        Value work = Value::dictionary();
        work.set("workProduct", Value::string(product));
        work.set("workProcessorID", Value::string(processor));
        work.set("workDeviceClasses", Value::stringArray({product + "ap"}));
        work.set("workKernelCachesList", Value::stringArray(kernelCaches));
        work.set("workFirmwareTypesList", Value::stringArray(firmwareTypes));
        work.set("workDFUTypesList", Value::stringArray(dfuTypes));
        return work;
    }

    // A minimal layout: one firmware folder and one boot loader for x10ap.
    void layout() {
        writeFile(at("Restore/Firmware/all_flash/all_flash.x10ap.production/iBoot.img3"), "i");
        writeFile(at("Restore/Firmware/all_flash/all_flash.x10ap.production/sub/LLB.img3"), "l");
        writeFile(at("Restore/Firmware/all_flash/all_flash.x10ap.debug/iBoot.img3"), "d");
        writeFile(at("Restore/Firmware/dfu/iBSS.x10ap.RELEASE.dfu"), "b");
        writeFile(at("Restore/Firmware/RDX0-x10.bbfw"), "bb");
    }

    int run(Stripper3& stripper, const Value& work, std::string* log = nullptr) {
        int result = 0;
        std::string text = loggedDuring([&] { result = stripper.updateFilelistForUnpersonalizedInstall(work); });
        if (log) *log = text;
        return result;
    }
};

}  // namespace

TEST_F(UnpersonalizedFileList, ProcessorCacheServesButItsFpgaBuildDoesNot) {
    layout();
    writeFile(at("Restore/kernelcache.release.soc100x"), "k");
    writeFile(at("Restore/kernelcache.release.soc100x.fpga"), "f");
    auto stripper = engine({"x10"}, {"repair"});
    std::string log;
    EXPECT_EQ(run(*stripper, item("x10", "soc100x", {"Release"}, {"production"}, {"RELEASE"}), &log), 0);
    EXPECT_TRUE(keeps(*stripper, "Restore/kernelcache.release.soc100x"));
    EXPECT_FALSE(keeps(*stripper, "Restore/kernelcache.release.soc100x.fpga"));
    EXPECT_TRUE(contains(log, "+++ Restore kernelcache found kernelcache.release.soc100x.\n"));
    EXPECT_EQ(stripper->kernelCachesSet(), (std::set<std::string>{"kernelcache.release.soc100x"}));
}

TEST_F(UnpersonalizedFileList, ProductNameOverridesTheFpgaRule) {
    layout();
    writeFile(at("Restore/kernelcache.release.x10.fpga"), "f");
    auto stripper = engine({"x10"}, {"repair"});
    EXPECT_EQ(run(*stripper, item("x10", "soc100x", {"release"}, {"production"}, {"RELEASE"})), 0);
    EXPECT_TRUE(keeps(*stripper, "Restore/kernelcache.release.x10.fpga"));
}

TEST_F(UnpersonalizedFileList, CacheOfAnotherKindIsNotTaken) {
    layout();
    writeFile(at("Restore/kernelcache.development.soc100x"), "k");
    auto stripper = engine({"x10"}, {"repair"});
    std::string log;
    EXPECT_EQ(run(*stripper, item("x10", "soc100x", {"Release"}, {"production"}, {"RELEASE"}), &log), 1);
    EXPECT_EQ(log, "XXX ERROR no matching kernelcache found in bundle for x10 soc100x.\n");
    EXPECT_TRUE(stripper->copiedFilelist().empty());
}

TEST_F(UnpersonalizedFileList, ProductionFolderIsTakenWithEverythingInside) {
    layout();
    writeFile(at("Restore/kernelcache.release.soc100x"), "k");
    auto stripper = engine({"x10"}, {"repair"});
    std::string log;
    EXPECT_EQ(run(*stripper, item("x10", "soc100x", {"Release", "Development"}, {"production"}, {"RELEASE", "DEVELOPMENT"}), &log), 0);
    for (const char* path : {"Restore/Firmware/all_flash/all_flash.x10ap.production",
                             "Restore/Firmware/all_flash/all_flash.x10ap.production/iBoot.img3",
                             "Restore/Firmware/all_flash/all_flash.x10ap.production/sub",
                             "Restore/Firmware/all_flash/all_flash.x10ap.production/sub/LLB.img3",
                             "Restore/Firmware/dfu/iBSS.x10ap.RELEASE.dfu", "Restore/Firmware/RDX0-x10.bbfw",
                             "Restore/Firmware", "Restore"}) {
        EXPECT_TRUE(keeps(*stripper, path)) << path;
    }
    EXPECT_FALSE(keeps(*stripper, "Restore/Firmware/all_flash/all_flash.x10ap.debug"));
    EXPECT_TRUE(contains(log, "+++ Restore all_flash found all_flash.x10ap.production.\n"));
    EXPECT_TRUE(contains(log, "+++ Restore dfu found iBSS.x10ap.RELEASE.dfu.\n"));
    EXPECT_TRUE(contains(log, "+++ Restore.plist BasebandFirmware found RDX0-x10.bbfw.\n"));
}

TEST_F(UnpersonalizedFileList, WithoutAKindListAnyFolderButDebugServes) {
    layout();
    writeFile(at("Restore/kernelcache.release.soc100x"), "k");
    auto stripper = engine({"x10"}, {"repair"});
    Value work = item("x10", "soc100x", {"Release"}, {}, {"RELEASE"});
    work.remove("workFirmwareTypesList");
    EXPECT_EQ(run(*stripper, work), 0);
    EXPECT_TRUE(keeps(*stripper, "Restore/Firmware/all_flash/all_flash.x10ap.production"));
    EXPECT_FALSE(keeps(*stripper, "Restore/Firmware/all_flash/all_flash.x10ap.debug"));
}

TEST_F(UnpersonalizedFileList, MissingFoldersAndBasebandFail) {
    writeFile(at("Restore/kernelcache.release.soc100x"), "k");
    auto stripper = engine({"x10"}, {"repair"});
    std::string log;
    Value work = item("x10", "soc100x", {"Release"}, {"production"}, {"RELEASE"});
    EXPECT_EQ(run(*stripper, work, &log), 1);
    EXPECT_TRUE(contains(log, "XXX ERROR no all_flash found in bundle.\n"));

    writeFile(at("Restore/Firmware/all_flash/all_flash.x10ap.factoryfa/a"), "a");
    auto second = engine({"x10"}, {"repair"});
    EXPECT_EQ(run(*second, work, &log), 1);
    EXPECT_TRUE(contains(log, "XXX ERROR no matching all_flash found in bundle for x10, production.\n"));

    writeFile(at("Restore/Firmware/all_flash/all_flash.x10ap.production/a"), "a");
    auto third = engine({"x10"}, {"repair"});
    EXPECT_EQ(run(*third, work, &log), 1);
    EXPECT_TRUE(contains(log, "XXX ERROR no dfu found in bundle.\n"));

    writeFile(at("Restore/Firmware/dfu/iBEC.x10ap.DEVELOPMENT.dfu"), "d");
    auto fourth = engine({"x10"}, {"repair"});
    EXPECT_EQ(run(*fourth, work, &log), 1);
    EXPECT_TRUE(contains(log, "XXX ERROR no matching dfu found in bundle for x10, RELEASE.\n"));

    writeFile(at("Restore/Firmware/dfu/iBEC.x10ap.RELEASE.dfu"), "d");
    auto fifth = engine({"x10"}, {"repair"});
    EXPECT_EQ(run(*fifth, work, &log), 1);
    EXPECT_TRUE(contains(log, "XXX ERROR found no BasebandFirmware files with prefixes RDX0.\n"));
    EXPECT_TRUE(fifth->copiedFilelist().empty());
    EXPECT_FALSE(fifth->kernelCachesSet().empty());
}

TEST_F(UnpersonalizedFileList, ProductWithoutBasebandPrefixesPassesTheBasebandStep) {
    writeFile(at("Restore/kernelcache.release.soc200x"), "k");
    writeFile(at("Restore/Firmware/all_flash/all_flash.x20ap.production/a"), "a");
    writeFile(at("Restore/Firmware/dfu/iBSS.x20ap.RELEASE.dfu"), "d");
    auto stripper = engine({"x20"}, {"repair"});
    std::string log;
    EXPECT_EQ(run(*stripper, item("x20", "soc200x", {"Release"}, {"production"}, {"RELEASE"}), &log), 0);
    EXPECT_FALSE(contains(log, "BasebandFirmware"));
}

TEST_F(UnpersonalizedFileList, WholeRunWithUnpersonalizedOn) {
    generate({"x10"}, {"repair"});
    auto stripper = engine({"x10"}, {"repair"}, options({"checkUnpersonalized"}));
    loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
    EXPECT_TRUE(keeps(*stripper, "Restore/kernelcache.release.soc100x"));
    EXPECT_TRUE(keeps(*stripper, "Restore/kernelcache.development.soc100x"));
    EXPECT_TRUE(keeps(*stripper, "Restore/Firmware/dfu/iBEC.x10ap.DEVELOPMENT.dfu"));
}
