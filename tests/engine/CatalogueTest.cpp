#include <gtest/gtest.h>

#include <algorithm>

#include "engine/Catalogue.hpp"
#include "support/Helpers.hpp"
#include "support/PlistCodec.hpp"

using whittle::Catalogue;
using whittle::Value;

namespace {

Catalogue catalogueWithProducts(const std::vector<std::string>& names) {
    Value products = Value::dictionary();
    for (const auto& name : names) {
        Value record = Value::dictionary();
        record.set("processor", Value::string("soc100x"));
        record.set("model", Value::string("Handset1,1"));
        products.set(name, record);
    }
    Value root = Value::dictionary();
    root.set("ProductCatalogue", products);
    return Catalogue::fromPropertyList(whittle::xmlPropertyList(root));
}

}  // namespace

TEST(Catalogue, BuiltInHasAllRows) {
    const Catalogue& catalogue = Catalogue::builtIn();
    EXPECT_EQ(catalogue.processorTable().count(), 11u);
    EXPECT_EQ(catalogue.knownProducts().size(), 36u);
    EXPECT_EQ(catalogue.knownFactoryVariants().size(), 15u);
}

TEST(Catalogue, KnownProductsAreSortedWhateverTheDataOrder) {
    Catalogue catalogue = catalogueWithProducts({"x30", "x10", "x20"});
    EXPECT_EQ(catalogue.knownProducts(), (std::vector<std::string>{"x10", "x20", "x30"}));
}

TEST(Catalogue, NamesDifferingOnlyInCaseSortNextToEachOther) {
    Catalogue catalogue = catalogueWithProducts({"b1", "A1", "a1", "c1", "B0"});
    auto names = catalogue.knownProducts();
    ASSERT_EQ(names.size(), 5u);
    EXPECT_TRUE(whittle::compareIgnoringCase(names[0], "a1") == 0 && whittle::compareIgnoringCase(names[1], "a1") == 0);
    EXPECT_EQ(names[2], "B0");
    EXPECT_EQ(names[3], "b1");
    EXPECT_EQ(names[4], "c1");
}

TEST(Catalogue, BuiltInSortedCaseInsensitively) {
    auto variants = Catalogue::builtIn().knownFactoryVariants();
    EXPECT_EQ(variants.front(), "bb-dfu");
    EXPECT_EQ(variants.back(), "vendor");
    EXPECT_TRUE(std::is_sorted(variants.begin(), variants.end(), [](const std::string& a, const std::string& b) {
        return whittle::compareIgnoringCase(a, b) < 0;
    }));
}

TEST(Catalogue, ExampleProductRows) {
    const Catalogue& catalogue = Catalogue::builtIn();
    EXPECT_EQ(catalogue.productValue("x10.model").text(), "Handset1,1");
    EXPECT_EQ(catalogue.productValue("x10.processor").text(), "soc100x");
    EXPECT_FALSE(*catalogue.productValue("x10.BasebandIsPersonalized").asBoolean());
    EXPECT_EQ(catalogue.productValue("x10.BasebandFirmwarePrefix").at(0).text(), "RDX0");
    Value x20models = catalogue.productValue("x20.model");
    ASSERT_TRUE(x20models.isArray());
    EXPECT_TRUE(x20models.equals(Value::stringArray({"Bench2,1", "Settop2,1"})));
    EXPECT_TRUE(catalogue.productValue("x20.BasebandIsPersonalized").isNone());
    EXPECT_TRUE(*catalogue.productValue("x30.BasebandIsPersonalized").asBoolean());
    EXPECT_EQ(catalogue.processorName("soc100x").text(), "C1");
}

TEST(Catalogue, FactoryVariantRows) {
    const Catalogue& catalogue = Catalogue::builtIn();
    EXPECT_EQ(catalogue.factoryVariantValue("repair.PersonalizationVariants").text(), "Repair - Shipping Settings");
    EXPECT_TRUE(catalogue.factoryVariantValue("debug.KernelCaches").equals(Value::stringArray({"Release", "Development"})));
    EXPECT_EQ(catalogue.factoryVariantValue("nandnuker.SystemImageTypes").text(), "");
    EXPECT_EQ(catalogue.factoryVariantValue("swdl.PersonalizationOSImageTypes").text(), "NonUIOS");
}

TEST(Catalogue, SupportHasNoFirmwareTypes) {
    EXPECT_TRUE(Catalogue::builtIn().factoryVariantValue("support.FirmwareTypes").isNone());
    EXPECT_FALSE(Catalogue::builtIn().factoryVariantValue("support.DFUTypes").isNone());
}

TEST(Catalogue, UnknownNameOrFieldYieldsNone) {
    const Catalogue& catalogue = Catalogue::builtIn();
    EXPECT_TRUE(catalogue.productValue("zz9.model").isNone());
    EXPECT_TRUE(catalogue.factoryVariantValue("zz9.model").isNone());
    EXPECT_TRUE(catalogue.productValue("x10.noSuchField").isNone());
    EXPECT_TRUE(catalogue.productValue("").isNone());
    EXPECT_TRUE(catalogue.processorName("soc999x").isNone());
}

TEST(Catalogue, GarbageDataGivesAnEmptyCatalogue) {
    Catalogue catalogue = Catalogue::fromPropertyList("garbage");
    EXPECT_TRUE(catalogue.knownProducts().empty());
    EXPECT_TRUE(catalogue.productValue("x10.model").isNone());
}

TEST(KeyPath, FollowsNestedDictionaries) {
    Value root = Value::dictionary();
    Value inner = Value::dictionary();
    inner.set("c", Value::string("deep"));
    Value middle = Value::dictionary();
    middle.set("b", inner);
    root.set("a", middle);
    EXPECT_EQ(whittle::valueForKeyPath(root, "a.b.c").text(), "deep");
    EXPECT_TRUE(whittle::valueForKeyPath(root, "a.x.c").isNone());
    EXPECT_TRUE(whittle::valueForKeyPath(root, "a.b.c.d").isNone());
}
