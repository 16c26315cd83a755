// The legacy firmware-map passes: the default engine's rules, with scrub reports and
// partial results.
#include "LegacyTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class LegacyFirmwareMaps : public LegacyTest {
protected:
    static Value closingItem(const std::vector<std::string>& deviceClasses, const std::vector<std::string>& products) {
        return dict({{"workDeviceClassList", strings(deviceClasses)}, {"workProductList", strings(products)},
                     {"workPersonalizationVariantList", Value::array()}});
    }

    // Runs a pass and answers its log; the pass must never fail.
    std::string run(int (Stripper2::*pass)(const Value&), Stripper2& stripper, const Value& item) {
        int result = -1;
        std::string log = loggedDuring([&] { result = (stripper.*pass)(item); });
        EXPECT_EQ(result, 0);
        return log;
    }
};

}  // namespace

TEST_F(LegacyFirmwareMaps, DeviceMapTextReportsKeptAndScrubbedFirmware) {
    file("Restore/Firmware/device_map.txt", "x10ap 1 2 3 fw1.bin\nx20ap 1 2 3 fw2.bin\n");
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwareDeviceMapDotTxt, *stripper, closingItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "+++ device_map.txt found fw1.bin.\n--- device_map.txt scrub fw2.bin.\n");
    ASSERT_EQ(stripper->modifiedFilesList().count(), 1u);
    Value files = lastModified(*stripper);
    EXPECT_EQ(files.count(), 1u);
    EXPECT_EQ(files.get("Restore/Firmware/device_map.txt").text(), "x10ap 1 2 3 fw1.bin\n");
    EXPECT_TRUE(stripper->strippedManifestsList().count() == 0);
}

TEST_F(LegacyFirmwareMaps, TargetMapWithoutARequestedProductScrubsAndWarns) {
    file("Restore/Firmware/target_map.txt", "x20\tx20ap\n\nx30\tx30ap\n");
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwareTargetMapDotTxt, *stripper, closingItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "--- target_map.txt scrub x20\tx20ap, x30\tx30ap.\n!!! WARNING: target_map.txt x10 not found.\n");
    EXPECT_EQ(lastModified(*stripper).get("Restore/Firmware/target_map.txt").text(), "");
}

TEST_F(LegacyFirmwareMaps, AnUnreadableDeviceMapPlistNamesTheTextFileAndAddsNothing) {
    file("Restore/Firmware/device_map.plist", "not a property list");
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwareDeviceMapDotPlist, *stripper, closingItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.\n");
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyFirmwareMaps, DeviceMapPlistKeepsWholeKeysOnly) {
    writePlist("Restore/Firmware/device_map.plist",
               dict({{"x10ap", dict({{"BoardID", Value::integer(1)}})}, {"x10ap-extra", Value::integer(2)}}));
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwareDeviceMapDotPlist, *stripper, closingItem({"X10AP"}, {"x10"}));
    EXPECT_EQ(log, "+++ device_map.plist found x10ap.\n--- device_map.plist scrub x10ap-extra.\n");
    EXPECT_EQ(keysSortedIgnoringCase(lastModified(*stripper).get("Restore/Firmware/device_map.plist")),
              std::vector<std::string>{"x10ap"});
}

TEST_F(LegacyFirmwareMaps, PlatformKeysAllMatchingLogsNoScrubLine) {
    writePlist("Restore/Firmware/platform_keys.plist",
               dict({{"PlatformKeys", Value::array({dict({{"PlatformName", Value::string("soc100x")}}),
                                                    dict({{"PlatformName", Value::string("SOC200X")}})})},
                     {"Version", Value::integer(1)}}));
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwarePlatformKeysDotPlist, *stripper, closingItem({}, {"x10", "x20"}));
    EXPECT_EQ(log, "+++ platform_keys.plist found soc100x, SOC200X.\n");
    Value kept = lastModified(*stripper).get("Restore/Firmware/platform_keys.plist");
    EXPECT_EQ(kept.get("PlatformKeys").count(), 2u);
    EXPECT_EQ(kept.get("Version").numberValue(), 1);
}

TEST_F(LegacyFirmwareMaps, PlatformKeysOfNoProductScrubThenWarn) {
    writePlist("Restore/Firmware/platform_keys.plist",
               dict({{"PlatformKeys", Value::array({dict({{"PlatformName", Value::string("soc100x")}})})}}));
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwarePlatformKeysDotPlist, *stripper, closingItem({}, {"zz9"}));
    EXPECT_EQ(log, "--- platform_keys.plist scrub soc100x.\n!!! WARNING: platform_keys.plist zz9 () not found.\n");
    EXPECT_EQ(lastModified(*stripper).get("Restore/Firmware/platform_keys.plist").get("PlatformKeys").count(), 0u);
}

TEST_F(LegacyFirmwareMaps, MissingFilesWarnAndAddNothing) {
    auto stripper = engine();
    Value item = closingItem({"x10ap"}, {"x10"});
    EXPECT_EQ(run(&Stripper2::stripRestoreFirmwareDeviceMapDotTxt, *stripper, item),
              "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.\n");
    EXPECT_EQ(run(&Stripper2::stripRestoreFirmwareTargetMapDotTxt, *stripper, item), "!!! WARNING: target_map.txt not found.\n");
    EXPECT_EQ(run(&Stripper2::stripRestoreFirmwareDeviceMapDotPlist, *stripper, item),
              "!!! WARNING: \"Restore/Firmware/device_map.txt\" not found.\n");
    EXPECT_EQ(run(&Stripper2::stripRestoreFirmwarePlatformKeysDotPlist, *stripper, item),
              "!!! WARNING: \"Restore/Firmware/platform_keys.plist\" not found.\n");
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyFirmwareMaps, TextThatIsNotUtf8CannotBeRead) {
    file("Restore/Firmware/device_map.txt", "x10ap \xff\xfe\n");
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwareDeviceMapDotTxt, *stripper, closingItem({"x10ap"}, {"x10"}));
    EXPECT_TRUE(log.starts_with("!!! WARNING: \"Restore/Firmware/device_map.txt\" could not be read - ")) << log;
    EXPECT_EQ(stripper->modifiedFilesList().count(), 0u);
}

TEST_F(LegacyFirmwareMaps, DeviceMapLinesWithoutAFifthFieldWarnAlthoughKept) {
    file("Restore/Firmware/device_map.txt", "x10ap 1 2\n");
    auto stripper = engine();
    std::string log = run(&Stripper2::stripRestoreFirmwareDeviceMapDotTxt, *stripper, closingItem({"x10ap"}, {"x10"}));
    EXPECT_EQ(log, "!!! WARNING: device_map.txt x10ap not found.\n");
    EXPECT_EQ(lastModified(*stripper).get("Restore/Firmware/device_map.txt").text(), "x10ap 1 2\n");
}
