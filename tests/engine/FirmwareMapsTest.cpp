// The firmware map files, cut down to the requested devices.
#include "EngineTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class FirmwareMaps : public EngineTest {
protected:
    Value workItem(std::vector<std::string> deviceClasses, std::vector<std::string> products) {
        Value item = Value::dictionary();
        ValueArray classes, names;
        for (const auto& d : deviceClasses) classes.push_back(Value::string(d));
        for (const auto& p : products) names.push_back(Value::string(p));
        item.set("workAllDeviceClasses", Value::setOf(classes));
        item.set("workAllProducts", Value::setOf(names));
        return item;
    }

    std::string run(int (Stripper3::*step)(const Value&), const Value& item) {
        stripper = engine({"x10"}, {"repair"});
        return loggedDuring([&] { EXPECT_EQ(((*stripper).*step)(item), 0); });
    }

    Value modified(const std::string& path) { return stripper->modifiedFiles().get(path); }

    std::unique_ptr<Stripper3> stripper;
};

}  // namespace

TEST_F(FirmwareMaps, DeviceMapLineIsKeptAndReportsItsFifthField) {
    writeFile(at("Restore/Firmware/device_map.txt"), "x10ap 1 2 3 fw.bin\nx10dev 1 2\n\n");
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotTxt, workItem({"X10AP"}, {"x10"}));
    EXPECT_EQ(log, "+++ device_map.txt found fw.bin.\n");
    EXPECT_EQ(modified("Restore/Firmware/device_map.txt").text(), "x10ap 1 2 3 fw.bin\n");
}

TEST_F(FirmwareMaps, CommentLinesAreTestedLikeAnyOther) {
    writeFile(at("Restore/Firmware/device_map.txt"), "# x10ap entries\nx20ap 1 2 3 a.bin\n");
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(modified("Restore/Firmware/device_map.txt").text(), "# x10ap entries\n");
    // The kept line has fewer than five fields, so nothing is reported found.
    EXPECT_EQ(log, "!!! WARNING: device_map.txt x10ap not found.\n");
}

TEST_F(FirmwareMaps, ConsecutiveSeparatorsMakeEmptyFieldsAndCarriageReturnsStay) {
    writeFile(at("Restore/Firmware/device_map.txt"), "x10ap\t\t1  fifth\r\n");
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "+++ device_map.txt found fifth\r.\n");
    EXPECT_EQ(modified("Restore/Firmware/device_map.txt").text(), "x10ap\t\t1  fifth\r\n");
}

TEST_F(FirmwareMaps, DeviceMapWithoutMatchesBecomesEmpty) {
    writeFile(at("Restore/Firmware/device_map.txt"), "x20ap 1 2 3 a.bin\n");
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotTxt, workItem({"x10ap", "x10dev"}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: device_map.txt x10ap, x10dev not found.\n");
    ASSERT_TRUE(modified("Restore/Firmware/device_map.txt").isString());
    EXPECT_EQ(modified("Restore/Firmware/device_map.txt").text(), "");
}

TEST_F(FirmwareMaps, MissingAndUnreadableTextMaps) {
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.\n");
    EXPECT_TRUE(modified("Restore/Firmware/device_map.txt").isNone());
    log = run(&Stripper3::stripRestoreFirmwareTargetMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: target_map.txt not found.\n");

    writeFile(at("Restore/Firmware/device_map.txt"), std::string("x10ap \xff\xfe\n"));
    log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_TRUE(log.starts_with("!!! WARNING: \"Restore/Firmware/device_map.txt\" could not be read - ")) << log;
    std::filesystem::create_directories(at("Restore/Firmware/target_map.txt"));
    log = run(&Stripper3::stripRestoreFirmwareTargetMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_TRUE(log.starts_with("!!! WARNING: target_map.txt could not be read - ")) << log;
    EXPECT_TRUE(modified("Restore/Firmware/target_map.txt").isNone());
}

TEST_F(FirmwareMaps, TargetMapKeepsLinesNamingRequestedProducts) {
    writeFile(at("Restore/Firmware/target_map.txt"), "x10 a\nx20 b\nX10 c\n");
    std::string log = run(&Stripper3::stripRestoreFirmwareTargetMapDotTxt, workItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(modified("Restore/Firmware/target_map.txt").text(), "x10 a\nX10 c\n");
    EXPECT_EQ(log, "+++ target_map.txt found x10 a, X10 c.\n");
    log = run(&Stripper3::stripRestoreFirmwareTargetMapDotTxt, workItem({"x10ap"}, {}));
    EXPECT_EQ(log, "!!! WARNING: target_map.txt  not found.\n");
}

TEST_F(FirmwareMaps, DeviceMapPlistMatchesWholeKeysWithoutRegardToCase) {
    Value map = Value::dictionary();
    map.set("x10ap", Value::integer(1));
    map.set("x10ap-extra", Value::integer(2));
    map.set("x20ap", Value::integer(3));
    writePlist("Restore/Firmware/device_map.plist", map);
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotPlist, workItem({"X10AP"}, {"x10"}));
    Value kept = modified("Restore/Firmware/device_map.plist");
    ASSERT_TRUE(kept.isDictionary());
    EXPECT_EQ(kept.count(), 1u);
    EXPECT_FALSE(kept.get("x10ap").isNone());
    EXPECT_TRUE(log.starts_with("+++ device_map.plist found ")) << log;
    EXPECT_TRUE(contains(log, "x10ap"));
}

TEST_F(FirmwareMaps, DeviceMapPlistWithoutMatchesAndMissing) {
    Value map = Value::dictionary();
    map.set("x20ap", Value::integer(3));
    writePlist("Restore/Firmware/device_map.plist", map);
    std::string log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotPlist, workItem({"x10ap"}, {"x10"}));
    EXPECT_TRUE(log.starts_with("!!! WARNING: device_map.plist ")) << log;
    EXPECT_EQ(modified("Restore/Firmware/device_map.plist").count(), 0u);

    std::filesystem::remove(at("Restore/Firmware/device_map.plist"));
    log = run(&Stripper3::stripRestoreFirmwareDeviceMapDotPlist, workItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.\n");
    EXPECT_TRUE(modified("Restore/Firmware/device_map.plist").isNone());
}

TEST_F(FirmwareMaps, PlatformKeysFollowTheProductsProcessors) {
    Value keys = Value::dictionary();
    auto platform = [](const char* name) {
        Value entry = Value::dictionary();
        entry.set("PlatformName", Value::string(name));
        entry.set("Key", Value::string(std::string("key-") + name));
        return entry;
    };
    keys.set("PlatformKeys", Value::array({platform("SOC100X"), platform("soc200x"), platform("soc300x")}));
    keys.set("Version", Value::integer(2));
    writePlist("Restore/Firmware/platform_keys.plist", keys);
    std::string log = run(&Stripper3::stripRestoreFirmwarePlatformKeysDotPlist, workItem({}, {"x10", "x30", "zz9"}));
    Value kept = modified("Restore/Firmware/platform_keys.plist");
    EXPECT_EQ(kept.get("Version").numberValue(), 2);
    ASSERT_EQ(kept.get("PlatformKeys").count(), 2u);
    EXPECT_EQ(kept.get("PlatformKeys").at(0).get("Key").text(), "key-SOC100X");
    EXPECT_TRUE(log.starts_with("+++ platform_keys.plist found ")) << log;
}

TEST_F(FirmwareMaps, PlatformKeysWithoutAnyProcessor) {
    Value keys = Value::dictionary();
    keys.set("PlatformKeys", Value::array());
    writePlist("Restore/Firmware/platform_keys.plist", keys);
    std::string log = run(&Stripper3::stripRestoreFirmwarePlatformKeysDotPlist, workItem({}, {"zz9"}));
    EXPECT_EQ(log, "!!! WARNING: platform_keys.plist zz9 () not found.\n");
    EXPECT_TRUE(modified("Restore/Firmware/platform_keys.plist").get("PlatformKeys").isArray());
    EXPECT_EQ(modified("Restore/Firmware/platform_keys.plist").get("PlatformKeys").count(), 0u);
}

TEST_F(FirmwareMaps, MissingPlatformKeys) {
    std::string log = run(&Stripper3::stripRestoreFirmwarePlatformKeysDotPlist, workItem({}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: \"Restore/Firmware/platform_keys.plist\" not found.\n");
}
