// Restore.plist cut down to what the kept identities use.
#include "EngineTestSupport.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class RestorePlistStrip : public EngineTest {
protected:
    Value strip(const std::vector<std::string>& products, const std::vector<std::string>& variants, std::string* log = nullptr) {
        auto stripper = engine(products, variants);
        std::string text = loggedDuring([&] { EXPECT_EQ(stripper->strip(), 0); });
        if (log) *log = text;
        return stripper->modifiedFiles().get("Restore/Restore.plist");
    }

    void editRestorePlist(const std::function<void(Value&)>& edit) {
        Value plist = readPlist("Restore/Restore.plist");
        edit(plist);
        writePlist("Restore/Restore.plist", plist);
    }

    static Value table(std::initializer_list<std::tuple<const char*, const char*, const char*>> entries) {
        Value outer = Value::dictionary();
        for (const auto& [key, innerKey, value] : entries) {
            Value inner = outer.get(key);
            if (inner.isNone()) outer.set(key, inner = Value::dictionary());
            inner.set(innerKey, Value::string(value));
        }
        return outer;
    }
};

}  // namespace

TEST_F(RestorePlistStrip, KernelCachesMoveToWhereTheProcessorTablePutsThem) {
    generate({"x10"}, {"repair"});
    editRestorePlist([](Value& plist) {
        plist.set("KernelCachesByTarget", table({{"soc100x", "Release", "kernelcache.release.x10"}}));
        plist.set("KernelCachesByPlatform", table({{"x10ap", "Restore", "kernelcache.restore.x10"},
                                                   {"soc100x", "Other", "kernelcache.unused"}}));
    });
    std::string log;
    Value result = strip({"x10"}, {"repair"}, &log);
    EXPECT_TRUE(result.get("KernelCachesByPlatform").equals(table({{"soc100x", "Release", "kernelcache.release.x10"}})));
    EXPECT_TRUE(result.get("KernelCachesByTarget").equals(table({{"x10ap", "Restore", "kernelcache.restore.x10"}})));
    EXPECT_FALSE(contains(log, "missing reference"));
}

TEST_F(RestorePlistStrip, UnreferencedKeptKernelCacheIsWarnedAbout) {
    generate({"x10"}, {"repair"});
    editRestorePlist([](Value& plist) { plist.remove("KernelCachesByTarget"); });
    std::string log;
    Value result = strip({"x10"}, {"repair"}, &log);
    EXPECT_TRUE(contains(log, "!!! WARNING: Restore.plist missing reference to kernelcaches kernelcache.restore.x10.\n"));
    EXPECT_EQ(result.get("KernelCachesByTarget").count(), 0u);
    EXPECT_TRUE(result.get("KernelCachesByTarget").isDictionary());
}

TEST_F(RestorePlistStrip, RamDiskOfAnUnrequestedProcessorIsDropped) {
    generate({"x10"}, {"repair"});
    editRestorePlist([](Value& plist) {
        Value ramDisks = plist.get("RamDisksByPlatform");
        Value other = Value::dictionary();
        other.set("User", Value::string("x10ap-repairshippingsettings-0-restore.dmg"));
        ramDisks.set("soc999x", other);
    });
    Value result = strip({"x10"}, {"repair"});
    EXPECT_TRUE(result.get("RamDisksByPlatform").get("soc999x").isNone());
    EXPECT_FALSE(result.get("RamDisksByPlatform").get("soc100x").isNone());
}

TEST_F(RestorePlistStrip, SupportedProductTypesAreIntersectedOnce) {
    generate({"x10", "x20"}, {"repair"});
    editRestorePlist([](Value& plist) {
        plist.set("SupportedProductTypes", Value::stringArray({"Slate3,1", "Handset1,1", "Handset1,1"}));
    });
    Value result = strip({"x10", "x20"}, {"repair"});
    EXPECT_TRUE(result.get("SupportedProductTypes").equals(Value::stringArray({"Handset1,1"})));
}

TEST_F(RestorePlistStrip, PartitionPaddingOnlyWhenPresent) {
    generate({"x10", "x30"}, {"repair"});
    editRestorePlist([](Value& plist) { plist.remove("SystemPartitionPadding"); });
    Value result = strip({"x10"}, {"repair"});
    EXPECT_TRUE(result.get("SystemPartitionPadding").isNone());

    editRestorePlist([](Value& plist) {
        Value padding = Value::dictionary();
        padding.set("x30", Value::integer(5));
        plist.set("SystemPartitionPadding", padding);
    });
    result = strip({"x10"}, {"repair"});
    ASSERT_TRUE(result.get("SystemPartitionPadding").isDictionary());
    EXPECT_EQ(result.get("SystemPartitionPadding").count(), 0u);
}

TEST_F(RestorePlistStrip, PaddingAndMinimumPartitionFollowTheRequest) {
    generate({"x10", "x30"}, {"repair"});
    Value result = strip({"x10"}, {"repair"});
    EXPECT_EQ(result.get("SystemPartitionPadding").count(), 1u);
    EXPECT_FALSE(result.get("SystemPartitionPadding").get("x10").isNone());
    EXPECT_TRUE(result.get("MinimumSystemPartition").get("X30AP-repairshippingsettings-0-os.dmg").isNone());
    EXPECT_FALSE(result.get("MinimumSystemPartition").get("X10AP-repairshippingsettings-0-os.dmg").isNone());
    EXPECT_TRUE(result.get("SystemRestoreImagesByTarget").get("x30").isNone());
    EXPECT_EQ(result.get("ProductVersion").text(), "1.0");
}

TEST_F(RestorePlistStrip, MissingKeysAppearEmpty) {
    generate({"x10"}, {"repair"});
    Value bare = Value::dictionary();
    bare.set("ProductVersion", Value::string("2.0"));
    writePlist("Restore/Restore.plist", bare);
    std::string log;
    Value result = strip({"x10"}, {"repair"}, &log);
    for (const char* key : {"KernelCachesByPlatform", "KernelCachesByTarget", "RamDisksByPlatform", "SystemRestoreImagesByTarget"}) {
        EXPECT_TRUE(result.get(key).isDictionary()) << key;
        EXPECT_EQ(result.get(key).count(), 0u) << key;
    }
    EXPECT_TRUE(result.get("SupportedProductTypes").isArray());
    EXPECT_EQ(result.get("SupportedProductTypes").count(), 0u);
    EXPECT_TRUE(result.get("SystemPartitionPadding").isNone());
    EXPECT_TRUE(result.get("MinimumSystemPartition").isNone());
    EXPECT_EQ(result.get("ProductVersion").text(), "2.0");
}

TEST_F(RestorePlistStrip, ValuesOfTheWrongKindAreDropped) {
    generate({"x10"}, {"repair"});
    editRestorePlist([](Value& plist) {
        plist.set("RamDisksByPlatform", Value::stringArray({"not", "a", "dictionary"}));
        Value images = plist.get("SystemRestoreImagesByTarget");
        Value odd = Value::dictionary();
        odd.set("Number", Value::integer(3));
        images.set("x10", odd);
        plist.set("SupportedProductTypes", Value::string("Handset1,1"));
    });
    Value result = strip({"x10"}, {"repair"});
    EXPECT_EQ(result.get("RamDisksByPlatform").count(), 0u);
    EXPECT_TRUE(result.get("SystemRestoreImagesByTarget").get("x10").isNone());
    EXPECT_EQ(result.get("SupportedProductTypes").count(), 0u);
}

TEST_F(RestorePlistStrip, BundleFileIsNotChanged) {
    generate({"x10", "x30"}, {"repair"});
    Value before = readPlist("Restore/Restore.plist");
    strip({"x10"}, {"repair"});
    EXPECT_TRUE(readPlist("Restore/Restore.plist").equals(before));
}
