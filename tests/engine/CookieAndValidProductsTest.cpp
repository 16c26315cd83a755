// The cookie, and which products and variants a bundle supports.
#include "EngineTestSupport.hpp"
#include "support/ProcessInfo.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class Cookie : public EngineTest {};
class ValidProducts : public EngineTest {
protected:
    // A manifest whose identities serve the given device classes and personalization variants.
    void manifestWith(std::vector<std::pair<std::string, std::string>> identities) {
        Value list = Value::array();
        for (const auto& [deviceClass, variant] : identities) {
            Value info = Value::dictionary();
            info.set("DeviceClass", Value::string(deviceClass));
            info.set("Variant", Value::string(variant));
            Value identity = Value::dictionary();
            identity.set("Info", info);
            list.append(identity);
        }
        Value manifest = Value::dictionary();
        manifest.set("BuildIdentities", list);
        writePlist("Restore/BuildManifest.plist", manifest);
    }

    static std::vector<std::string> names(const Value& list) {
        std::vector<std::string> out;
        for (const auto& element : list.elements()) out.emplace_back(element.text());
        std::sort(out.begin(), out.end());
        return out;
    }
};

}  // namespace

TEST_F(Cookie, NoCookieMeansNoEntryAndNoMessage) {
    auto stripper = engine({"x10"}, {"repair"}, options({"noCookie"}));
    EXPECT_EQ(loggedDuring([&] { EXPECT_EQ(stripper->leaveCookie(), 0); }), "");
    EXPECT_TRUE(stripper->modifiedFiles().get("WhittleCookie.plist").isNone());
}

TEST_F(Cookie, RecordsArgumentsSourceAndVersion) {
    setProcessArguments({"/bin/whittle", "src", "--product", "x10", "tgt"});
    Value opts = Value::dictionary();
    opts.set("toolVersion", Value::real(2.5));
    opts.set("toolName", Value::string("@(#)PROGRAM:whittle  PROJECT:Whittle-7.4.10\n"));
    auto stripper = engine({"x10"}, {"repair"}, opts);
    EXPECT_EQ(loggedDuring([&] { EXPECT_EQ(stripper->leaveCookie(), 0); }), "+++ Oreo's left.  No milk.\n");
    Value cookie = stripper->modifiedFiles().get("WhittleCookie.plist");
    EXPECT_TRUE(cookie.get("rawArguments").equals(Value::stringArray({"/bin/whittle", "src", "--product", "x10", "tgt"})));
    EXPECT_EQ(cookie.get("source").text(), root());
    EXPECT_EQ(cookie.get("version").text(), "2.500000");
    std::string full(cookie.get("version_fullString").text());
    EXPECT_EQ(full, std::string("@(#)PROGRAM:whittle  PROJECT:Whittle-7.4.10 -- Version 2.5, built ") + buildDate() + " " + buildTime());
}

TEST_F(Cookie, DriverVersionAndMissingKeys) {
    Value opts = Value::dictionary();
    opts.set("toolVersion", Value::real(7.4));
    auto stripper = engine({"x10"}, {"repair"}, opts);
    loggedDuring([&] { stripper->leaveCookie(); });
    Value cookie = stripper->modifiedFiles().get("WhittleCookie.plist");
    EXPECT_EQ(cookie.get("version").text(), "7.400000");
    EXPECT_TRUE(cookie.get("version_fullString").isNone());
    auto bare = engine({"x10"}, {"repair"});
    loggedDuring([&] { bare->leaveCookie(); });
    EXPECT_TRUE(bare->modifiedFiles().get("WhittleCookie.plist").get("version").isNone());
}

TEST_F(ValidProducts, OnlyCatalogueProductsAndEndingsStripped) {
    manifestWith({{"x10ap", "Factory - DFU"}, {"x10dev", "Factory - DFU"}, {"zz9ap", "Factory - DFU"}, {"x20", "Factory - DFU"}});
    auto stripper = engine({}, {});
    EXPECT_EQ(names(stripper->validProducts()), (std::vector<std::string>{"x10", "x20"}));
}

TEST_F(ValidProducts, CapitalDeviceClassGivesAProductTheCatalogueLacks) {
    manifestWith({{"X10AP", "Factory - DFU"}});
    auto stripper = engine({}, {});
    EXPECT_EQ(names(stripper->validProducts()), std::vector<std::string>{});
}

TEST_F(ValidProducts, NoDeviceClassMeansEveryVariant) {
    manifestWith({{"x10ap", "Factory - DFU"}});
    auto stripper = engine({"x10"}, {}, options({"stripAPFirmware"}));
    EXPECT_EQ(names(stripper->validFactoryVariants()).size(), 15u);
    EXPECT_EQ(names(engine({}, {})->validFactoryVariants()).size(), 15u);
}

TEST_F(ValidProducts, ShippingSettingsOfferCtiAndSs) {
    manifestWith({{"x10ap", "Factory - Shipping Settings"}});
    auto stripper = engine({"x10"}, {});
    EXPECT_EQ(names(stripper->validFactoryVariants()), (std::vector<std::string>{"cti", "ss"}));
}

TEST_F(ValidProducts, EveryProductMustOfferTheVariant) {
    manifestWith({{"x10ap", "Factory - Shipping Settings"}, {"x10ap", "Factory - DFU"}, {"x30ap", "Factory - DFU"}});
    EXPECT_EQ(names(engine({"x10", "x30"}, {})->validFactoryVariants()), (std::vector<std::string>{"dfu"}));
    EXPECT_EQ(names(engine({"x10"}, {}, options({"keepDevFirmware"}))->validFactoryVariants()), std::vector<std::string>{});
}

TEST_F(ValidProducts, VariantsForDeviceClasses) {
    manifestWith({{"x10ap", "Internal Development"}});
    auto stripper = engine({}, {});
    stripper->buildManifest().load();
    EXPECT_EQ(names(stripper->factoryVariantsForDeviceClasses(Value::stringArray({"x10ap"}))),
              (std::vector<std::string>{"debug", "internal-dev"}));
    EXPECT_TRUE(stripper->factoryVariantsForDeviceClasses(Value()).isNone());
    EXPECT_EQ(stripper->factoryVariantsForDeviceClasses(Value::stringArray({"x99ap"})).count(), 0u);
}
